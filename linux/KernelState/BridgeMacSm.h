#pragma once

#include <set>

#include "Bridging/Config.h"
#include "KernelState/Tables.h"
#include "Mox/Notifiee.h"
#include "Orb/TaskScheduler.h"

namespace KernelState {

// Gives the switch the MAC address that its VLAN interfaces share, where the configuration gives none: the
// first that is seen, for as long as an interface has it. Interfaces with another address are reported once,
// those that come together in one line.
class BridgeMacSm final : public Mox::Entity {
 public:
  BridgeMacSm(Ptr<const VlanOwners> owners, const Ptr<Orb::TaskScheduler>& scheduler);

  // May be null.
  void bridgingConfigIs(Ptr<Bridging::Config> bridgingConfig);

 private:
  void update();
  void report();

  Mox::Notifiee<const VlanOwners> owners_;
  Mox::Notifiee<Bridging::Config> bridgingConfig_;
  Lanix::EthAddr given_;  // by this reactor; zero: none
  std::set<std::pair<Lanix::IntfId, Lanix::EthAddr>> reported_;
  Orb::Task updateTask_;
  Orb::Task reportTask_;
};

}  // namespace KernelState
