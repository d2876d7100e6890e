#pragma once

#include "Bridging/Config.h"
#include "KernelState/Tables.h"
#include "Mox/Notifiee.h"
#include "Orb/TaskScheduler.h"
#include "Switch/ProblemReporter.h"

namespace KernelState {

// Gives the switch the MAC address that its VLAN interfaces share, where the configuration gives none: the
// first that is seen, for as long as an interface has it. That interfaces have another is reported.
class BridgeMacSm final : public Mox::Entity {
 public:
  BridgeMacSm(Ptr<const VlanOwners> owners, Switch::ProblemReporter& problems,
              const Ptr<Orb::TaskScheduler>& scheduler);

  // May be null.
  void bridgingConfigIs(Ptr<Bridging::Config> bridgingConfig);

 private:
  void update();
  void report();

  Mox::Notifiee<const VlanOwners> owners_;
  Mox::Notifiee<Bridging::Config> bridgingConfig_;
  Switch::ProblemReporter& problems_;
  Lanix::EthAddr given_;  // by this reactor; zero: none
  Orb::Task updateTask_;
  Orb::Task reportTask_;
};

}  // namespace KernelState
