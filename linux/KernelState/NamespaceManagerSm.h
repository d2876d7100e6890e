#pragma once

#include <map>
#include <memory>
#include <optional>
#include <vector>

#include "KernelState/NamespaceSm.h"
#include "Mox/Owner.h"
#include "Statedb/EntityManager.h"
#include "Switch/ProblemReporter.h"

namespace KernelState {

// Has a NamespaceSm for each namespace that a VRF is, opens it when the namespace is there and closes it when
// that goes, or another one takes its name. The kernel's word that a name changed is a hint only: what counts
// is what stands behind the name. Where the kernel refuses to show that, what is known of the namespace
// stands, and it is asked again later.
//
// All namespaces are looked at in one pass, in slices.
class NamespaceManagerSm final : public Mox::Entity {
 public:
  NamespaceManagerSm(Ptr<const VrfPlaces> vrfs, Ptr<const VlanOwners> owners, FdbSm* fdb,
                     Ptr<NamespaceStates> states, Ptr<NeighbourTable> neighbourTable,
                     Ptr<Statedb::EntityManager> tree, Switch::ProblemReporter* problems,
                     const Ptr<Orb::TaskScheduler>& scheduler);
  ~NamespaceManagerSm() override;

 private:
  struct Watch {
    explicit Watch(const Ptr<const NamespaceState>& state) : state(state) {}
    Mox::Notifiee<const NamespaceState> state;
  };
  struct Slot {
    Ptr<NamespaceSm> sm;
    std::unique_ptr<Watch> watch;
  };

  void check();
  void make(const Lanix::NamespaceName& name, Slot& slot);
  bool update(const Lanix::NamespaceName& name, Slot& slot);
  bool open(Slot& slot);
  // The kernel shows the namespace, or refuses to. Refusing always returns true: to be tried again soon.
  void accept(const Slot& slot);
  bool refuse(const Slot& slot, const Mox::Failure& failure);
  void updateStarted();
  void handleNames();

  Mox::Notifiee<const VrfPlaces> vrfs_;
  Ptr<const VlanOwners> owners_;
  FdbSm* fdb_;
  Ptr<NamespaceStates> states_;
  Ptr<NeighbourTable> neighbourTable_;
  Ptr<Statedb::EntityManager> tree_;
  Switch::ProblemReporter* problems_;
  Ptr<Orb::TaskScheduler> scheduler_;
  std::unique_ptr<Netlink::NamespaceEvents> events_;
  std::vector<Ptr<Orb::FileDescriptor>> descriptors_;
  std::vector<std::unique_ptr<Mox::Notifiee<Orb::FileDescriptor>>> readable_;
  std::map<Lanix::NamespaceName, Slot> slots_;
  std::optional<Lanix::NamespaceName> from_;  // where the pass that is under way goes on
  bool again_ = false;                        // something changed since it began
  bool retry_ = false;                        // one of it is to be tried again
  bool passed_ = false;                       // every namespace has been looked at
  double retryDelay_;
  Orb::Task checkTask_;
};

}  // namespace KernelState
