#pragma once

#include <map>
#include <memory>

#include "ArpService/NamespaceSm.h"
#include "Mox/Owner.h"
#include "Plugin/AgentBase.h"
#include "Switch/ConfigWatch.h"

namespace ArpService {

// Has a NamespaceSm for each network namespace that has a VRF of the switch.
class ArpServiceRootSm final : public Mox::Entity {
 public:
  // `config` says which VRFs have a device, when neighbours are probed, and whether there is a feed.
  ArpServiceRootSm(Ptr<const Switch::Config> config, Ptr<const Arp::ArpInputConfig> arpInputConfig,
                   Ptr<const Ip::AllVrfStatusLocal> vrfStatusLocal, Ptr<Arp::ServiceStatus> status,
                   Ptr<Arp::Confirmation> confirmation, Ptr<Switch::Problems> problems,
                   const NamespaceSm::Settings& settings, const Ptr<Orb::TaskScheduler>& scheduler);

 private:
  void update();
  void follow(const Mox::String& name);

  Switch::ConfigWatch config_;
  Ptr<const Arp::ArpInputConfig> arpInputConfig_;
  Mox::Notifiee<const Ip::AllVrfStatusLocal> vrfStatusLocal_;
  Ptr<Arp::ServiceStatus> status_;
  Ptr<Arp::Confirmation> confirmation_;
  Switch::ProblemReporter problems_;
  IdleHostProblems idleHostProblems_{problems_};
  const NamespaceSm::Settings settings_;
  Ptr<Orb::TaskScheduler> scheduler_;
  std::map<Mox::String, std::unique_ptr<Mox::Notifiee<const Ip::VrfStatusLocal>>> vrfs_;
  std::map<Lanix::NamespaceName, Ptr<NamespaceSm>> namespaces_;
  Orb::Task updateTask_;
};

// The plug-in that makes kernel neighbours of the ARP input configuration.
class ArpServiceAgent final : public Plugin::AgentBase {
 public:
  explicit ArpServiceAgent(Mox::String name) : AgentBase(std::move(name)) {}
  void doInit() override;
  void doMountsComplete(Statedb::MountStatus status,
                        const Mox::Ptr<Statedb::EntityManager>& entityManager) override;
  // All neighbours that say they are ours, also those that were given to the kernel to age.
  void cleanUp(const Plugin::CleanUpReport& report) override;

 private:
  Ptr<ArpServiceRootSm> rootSm_;
};

Ptr<Plugin::AgentBase> arpServiceAgentFactory(const Mox::String& name);

}  // namespace ArpService
