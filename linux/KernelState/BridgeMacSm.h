#pragma once

#include <set>

#include "Bridging/Config.h"
#include "KernelState/Tables.h"
#include "Mox/Notifiee.h"
#include "Orb/TaskScheduler.h"

namespace KernelState {

// Gives the switch the MAC address that its VLAN interfaces share, where the configuration gives none: the
// first that is seen, for as long as an interface has it. An interface with another address is reported once.
class BridgeMacSm final : public Mox::Entity {
 public:
  BridgeMacSm(Ptr<const VlanOwners> owners, const Ptr<Orb::TaskScheduler>& scheduler);

  // May be null.
  void bridgingConfigIs(Ptr<Bridging::Config> bridgingConfig);

 private:
  void update();

  Mox::Notifiee<const VlanOwners> owners_;
  Mox::Notifiee<Bridging::Config> bridgingConfig_;
  Lanix::EthAddr given_;  // by this reactor; zero: none
  std::set<std::pair<Lanix::IntfId, Lanix::EthAddr>> reported_;
  Orb::Task updateTask_;
};

}  // namespace KernelState
