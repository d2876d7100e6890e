#pragma once

#include <map>

#include "ArpService/VrfSm.h"
#include "Mox/Owner.h"
#include "Plugin/AgentBase.h"

namespace ArpService {

// Has a VrfSm for each VRF of the switch.
class ArpServiceRootSm final : public Mox::Entity {
 public:
  ArpServiceRootSm(Ptr<const Arp::ArpInputConfig> arpInputConfig,
                   Ptr<const Ip::AllVrfStatusLocal> vrfStatusLocal, Ptr<Arp::ServiceStatus> status,
                   Ptr<Switch::Problems> problems, const VrfSm::Settings& settings,
                   const Ptr<Orb::TaskScheduler>& scheduler);

 private:
  void update();

  Ptr<const Arp::ArpInputConfig> arpInputConfig_;
  Mox::Notifiee<const Ip::AllVrfStatusLocal> vrfStatusLocal_;
  Ptr<Arp::ServiceStatus> status_;
  Switch::ProblemReporter problems_;
  const VrfSm::Settings settings_;
  Ptr<Orb::TaskScheduler> scheduler_;
  std::map<Mox::String, std::pair<Ptr<const Ip::VrfStatusLocal>, Ptr<VrfSm>>> vrfs_;
  Orb::Task updateTask_;
};

// The plug-in that makes kernel neighbours of the ARP input configuration.
class ArpServiceAgent final : public Plugin::AgentBase {
 public:
  explicit ArpServiceAgent(Mox::String name) : AgentBase(std::move(name)) {}
  void doInit() override;
  void doMountsComplete(Statedb::MountStatus status,
                        const Mox::Ptr<Statedb::EntityManager>& entityManager) override;

 private:
  Ptr<ArpServiceRootSm> rootSm_;
};

Ptr<Plugin::AgentBase> arpServiceAgentFactory(const Mox::String& name);

}  // namespace ArpService
