#pragma once

#include <map>
#include <set>

#include "KernelState/StateWatch.h"
#include "KernelState/Tables.h"
#include "Orb/TaskScheduler.h"
#include "Switch/ConfigWatch.h"
#include "Switch/ProblemReporter.h"

namespace KernelState {

// A VLAN's interface is known by its name. Reports the 802.1Q devices that are on the bridge of a VLAN, where
// that filters VLANs, for just this VLAN, but have another name, while the VLAN has no interface.
class VlanNameSm final : public Mox::Entity {
 public:
  VlanNameSm(Ptr<const Switch::Config> config, Ptr<const NamespaceStates> states,
             Ptr<const VlanOwners> owners, Switch::ProblemReporter& problems,
             const Ptr<Orb::TaskScheduler>& scheduler);

 private:
  void handleLink(const NamespaceState& state, IfIndex ifIndex);
  void schedule();
  void update();
  // The device with its place; "" when nothing is wrong with it.
  Mox::String problemOf(Bridging::VlanId vlanId, const Lanix::NamespaceName& netNs, const Link& link) const;

  Switch::ConfigWatch config_;
  Mox::Notifiee<const VlanOwners> owners_;
  Switch::ProblemReporter& problems_;
  std::map<std::pair<Lanix::NamespaceName, IfIndex>, Bridging::VlanId> devices_;  // 802.1Q, of other names
  std::set<Mox::String> wrong_;                                                   // subjects of problems
  Orb::Task updateTask_;
  StateWatch states_;
};

}  // namespace KernelState
