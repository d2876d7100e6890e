#pragma once

#include <map>
#include <memory>
#include <vector>

#include "KernelState/NamespaceSm.h"
#include "Mox/Owner.h"
#include "Statedb/EntityManager.h"

namespace KernelState {

// Has a NamespaceSm for each namespace that a VRF is, opens it when the namespace is there and closes it when
// that goes, or another one takes its name. The kernel's word that a name changed is a hint only: what counts
// is what stands behind the name.
class NamespaceManagerSm final : public Mox::Entity {
 public:
  NamespaceManagerSm(Ptr<const NamespaceVrfs> vrfs, Ptr<const VlanOwners> owners, FdbSm* fdb,
                     Ptr<NamespaceStates> states, Ptr<NeighbourTable> neighbourTable,
                     Ptr<Statedb::EntityManager> tree, const Ptr<Orb::TaskScheduler>& scheduler);
  ~NamespaceManagerSm() override;

 private:
  struct Watch {
    explicit Watch(const Ptr<const NamespaceState>& state) : state(state) {}
    Mox::Notifiee<const NamespaceState> state;
  };
  struct Slot {
    Ptr<NamespaceSm> sm;
    std::unique_ptr<Watch> watch;
    bool reported = false;  // that it cannot be entered
  };

  void check();
  void namespaceIs(const Lanix::NamespaceName& name);
  bool update(const Lanix::NamespaceName& name, Slot& slot);
  bool open(const Lanix::NamespaceName& name, Slot& slot);
  void updateStarted();
  void handleNames();

  Mox::Notifiee<const NamespaceVrfs> vrfs_;
  Ptr<const VlanOwners> owners_;
  FdbSm* fdb_;
  Ptr<NamespaceStates> states_;
  Ptr<NeighbourTable> neighbourTable_;
  Ptr<Statedb::EntityManager> tree_;
  Ptr<Orb::TaskScheduler> scheduler_;
  std::unique_ptr<NamespaceEvents> events_;
  std::vector<Ptr<Orb::FileDescriptor>> descriptors_;
  std::vector<std::unique_ptr<Mox::Notifiee<Orb::FileDescriptor>>> readable_;
  std::map<Lanix::NamespaceName, Slot> slots_;
  double retryDelay_;
  Orb::Task checkTask_;
};

}  // namespace KernelState
