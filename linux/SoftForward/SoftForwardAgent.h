#pragma once

#include <map>
#include <memory>
#include <string>

#include "Bridging/Config.h"
#include "Mox/Notifiee.h"
#include "Netlink/Socket.h"
#include "Orb/AgentBase.h"
#include "Orb/DumpContext.h"
#include "Orb/FileDescriptor.h"
#include "Orb/TaskScheduler.h"
#include "Routing/Status.h"
#include "SoftForward/Datapath.h"
#include "Statedb/EntityManager.h"
#include "Suppression/Status.h"
#include "Switch/Config.h"

namespace SoftForward {

// Keeps the data path in step with the switch: the bridges and ports of the configured VLANs as the kernel
// has them now, and the VLANs on which suppression is in force. Ports may come and go.
//
// What the switch itself asks for on its VLANs is trapped while the plug-in "ArpService" is loaded, which
// turns what the agent then decides into kernel neighbours. Without it nobody would answer, so it is left
// alone.
//
// While the switch shares a gateway MAC with its peers, the VLANs' bridges take frames to it as their own: a
// bridge floods what is for an address that it does not know, and hands none of it to its own device.
//
// What the kernel tells of its links only says that something changed; the links are then read once for all
// changes of a short while. A failure is reported once as long as it stays the same, and tried again every
// few seconds.
class SoftForwardSm final : public Mox::Entity {
 public:
  SoftForwardSm(const Mox::Ptr<Orb::TaskScheduler>& scheduler, Mox::Ptr<const Switch::Config> switchConfig,
                Mox::Ptr<const ArpSuppression::ArpSuppressionStatus> arpSuppressionStatus,
                Mox::Ptr<const Bridging::Config> bridgingConfig,
                Mox::Ptr<const Routing::Fhrp::VirtualRouterMacStatus> fhrpVrMacStatus);
  // Detaches everything and removes the devices that it made.
  ~SoftForwardSm() override;

  void dumpState(Orb::DumpContext& context, int indent) const;

 private:
  void handleNotifications();
  void handleLink(const Netlink::Received& message);
  void handleVlanId(Bridging::VlanId vlanId);
  void synchronise();
  // Whether it went well; otherwise it is reported and will be tried again.
  bool check(const std::string& what, const Failure& failure);
  bool synchroniseOwn();
  bool synchroniseVlan(const Switch::VlanConfig& vlan);
  bool synchroniseShared(const Link& bridge);

  Orb::EventLoop& loop_;
  Mox::Ptr<const Switch::Config> switchConfig_;
  Mox::Notifiee<const ArpSuppression::ArpSuppressionStatus> arpSuppressionStatus_;
  Mox::Notifiee<const Bridging::Config> bridgingConfig_;
  Mox::Notifiee<const Routing::Fhrp::VirtualRouterMacStatus> fhrpVrMacStatus_;
  const bool ownTrapped_;
  Netlink::Socket requests_;
  Netlink::Socket notifications_;
  Mox::Notifiee<Orb::FileDescriptor> descriptor_;
  Datapath datapath_;
  bool open_ = false;
  bool staleDeleted_ = false;
  std::map<std::string, Link> links_;               // by name, as last read
  std::map<std::uint32_t, Lanix::EthAddr> shared_;  // the gateway MAC that bridges take, by interface index
  std::map<std::string, std::string> failures_;     // as last reported, by what failed
  Orb::Task synchronise_;
};

class SoftForwardAgent final : public Orb::AgentBase {
 public:
  explicit SoftForwardAgent(Mox::String name) : AgentBase(std::move(name)) {}
  void doInit() override;
  void doMountsComplete(Statedb::MountStatus status,
                        const Mox::Ptr<Statedb::EntityManager>& entityManager) override;

 private:
  Mox::Ptr<SoftForwardSm> softForwardSm_;
};

}  // namespace SoftForward
