#pragma once

#include <functional>
#include <vector>

#include "Arp/Table.h"
#include "Bridging/Status.h"
#include "KernelState/FdbSm.h"
#include "KernelState/NeighbourSm.h"
#include "KernelState/StateWatch.h"
#include "KernelState/VlanInterfaceSm.h"
#include "Orb/WalkSm.h"
#include "Switch/Readiness.h"
#include "Vrf/VrfIdMap.h"

namespace KernelState {

// Removes what an earlier run left in shared memory and the kernel no longer has. It waits until every
// namespace that is there, or may be, has been read with success and all of it is published, so that entries
// which still hold are there throughout.
//
// Says at "switch/readiness" when all that the kernel showed at start is published.
class ReconcileSm final : public Orb::WalkSmBase {
 public:
  // The tables may be null. Begins their reconciliation; made before anything is written to them.
  ReconcileSm(Ptr<const NamespaceStates> states, Ptr<Arp::Table::Status> arpStatus,
              Ptr<Memtab::Bridging::Status> bridgingStatus, Ptr<Vrf::VrfIdMap::Status> vrfIdMap,
              Ptr<Switch::Readiness> readiness, const Ptr<Orb::TaskScheduler>& scheduler);

  // What writes the tables; the plain pointers are to outlive this.
  void writersAre(Ptr<const NeighbourTable> neighbourTable, const VlanInterfaceSm* vlanInterfaces,
                  const FdbSm* fdb);
  bool done() const { return tables_.empty(); }

 private:
  template <class Collection>
  void add(Collection& collection);
  Orb::WalkRet walk() override;
  bool walkStartedNotification() override;

  StateWatch states_;
  Mox::Notifiee<const NamespaceStates> started_;
  Ptr<Switch::Readiness> readiness_;
  std::vector<std::function<bool()>> tables_;  // sweeps a batch; true while there is more
  Ptr<const NeighbourTable> neighbourTable_;
  const VlanInterfaceSm* vlanInterfaces_ = nullptr;
  const FdbSm* fdb_ = nullptr;
};

}  // namespace KernelState
