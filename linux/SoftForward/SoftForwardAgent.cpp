#include "SoftForward/SoftForwardAgent.h"

#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <algorithm>

#include "Tracelet/Record.h"
#include "Tracelet/Trace.h"

namespace SoftForward {

namespace {

constexpr char kSource[] = "SoftForward/SoftForwardAgent";

// Changes of links come in bursts; they are looked at together after this many seconds.
constexpr double kSettleSeconds = 0.02;
constexpr double kRetrySeconds = 3;
constexpr unsigned kLevel = 3;

constexpr char kBridgingConfigPath[] = "bridging/config";
constexpr char kArpService[] = "ArpService";

bool contains(const std::vector<Mox::String>& names, const Mox::String& name) {
  return std::find(names.begin(), names.end(), name) != names.end();
}

Tracelet::Handle& traceHandle() {
  static Tracelet::Handle handle("SoftForward");
  return handle;
}

}  // namespace

SoftForwardSm::SoftForwardSm(const Mox::Ptr<Orb::TaskScheduler>& scheduler,
                             Mox::Ptr<const Switch::Config> switchConfig,
                             Mox::Ptr<const ArpSuppression::ArpSuppressionStatus> arpSuppressionStatus,
                             Mox::Ptr<const Bridging::Config> bridgingConfig)
    : loop_(scheduler->loop()),
      switchConfig_(std::move(switchConfig)),
      arpSuppressionStatus_(std::move(arpSuppressionStatus)),
      bridgingConfig_(std::move(bridgingConfig)),
      ownTrapped_(contains(switchConfig_->agents(), kArpService)),
      requests_(NETLINK_ROUTE),
      notifications_(NETLINK_ROUTE),
      synchronise_(scheduler, "SoftForward", kLevel, [this] { synchronise(); }) {
  arpSuppressionStatus_.on(ArpSuppression::ArpSuppressionStatus::vlanIdChanged,
                           [this](Bridging::VlanId vlanId) { handleVlanId(vlanId); });
  bridgingConfig_.on(Bridging::Config::bridgeMacAddrChanged, [this] { synchronise_.schedule(); });
  if (const Netlink::Result refused = notifications_.join(RTNLGRP_LINK)) {
    check("link notifications", Netlink::describe("link notifications", *refused));
  } else {
    const auto descriptor = Mox::make<Orb::FileDescriptor>(loop_, "SoftForward");
    descriptor->descriptorIs(notifications_.fd());
    descriptor_.on(Orb::FileDescriptor::readableCountChanged, [this] { handleNotifications(); });
    descriptor_.notifierIs(descriptor);
    descriptor->notifyOnReadableIs(true);
  }
  synchronise_.schedule();
}

SoftForwardSm::~SoftForwardSm() {
  if (descriptor_) descriptor_->descriptorIs(-1);
  if (open_) check("closing", datapath_.close());
}

bool SoftForwardSm::check(const std::string& what, const Failure& failure) {
  if (!failure) {
    failures_.erase(what);
    return true;
  }
  std::string& reported = failures_[what];
  if (reported != *failure) {
    reported = *failure;
    TRACELET_TRACE(traceHandle(), 0, kSource, what << ": " << *failure);
    TRACELET_RECORD("software forwarding: {}: {}", what, *failure);
  }
  return false;
}

void SoftForwardSm::handleNotifications() {
  bool more = true;
  while (more) {
    const Netlink::Notifications batch =
        notifications_.receive([this](const Netlink::Received& m) { handleLink(m); });
    more = batch.more && !batch.error;
    if (batch.error) check("link notifications", Netlink::describe("link notifications", *batch.error));
  }
  synchronise_.schedule(kSettleSeconds);
}

// The kernel takes the programs off with the device, and the next device may get its index.
void SoftForwardSm::handleLink(const Netlink::Received& message) {
  if (message.type() != RTM_DELLINK || !open_) return;
  const auto header = message.header<ifinfomsg>();
  if (!header || header->ifi_index <= 0 || header->ifi_family == AF_BRIDGE) return;
  const auto ifIndex = static_cast<std::uint32_t>(header->ifi_index);
  check("port " + std::to_string(ifIndex), datapath_.portDel(ifIndex));
}

void SoftForwardSm::handleVlanId(Bridging::VlanId vlanId) {
  if (!open_) return;
  const bool active = arpSuppressionStatus_->vlanId(vlanId);
  if (!check("VLAN " + vlanId.toStrep() + " activation", datapath_.activeVlanIs(vlanId, active))) {
    synchronise_.schedule(kRetrySeconds);
  }
}

bool SoftForwardSm::synchroniseOwn() {
  std::optional<MacAddress> passed;
  if (!ownTrapped_ && bridgingConfig_ && !bridgingConfig_->bridgeMacAddr().isZero()) {
    const auto bytes = bridgingConfig_->bridgeMacAddr().bytes();
    std::ranges::copy(std::as_bytes(std::span(bytes)), passed.emplace().begin());
  }
  return check("the switch's own address", datapath_.passedAddressIs(passed));
}

bool SoftForwardSm::synchroniseVlan(const Switch::VlanConfig& vlan) {
  const std::string what = "VLAN " + vlan.vlanId().toStrep();
  const auto bridge = links_.find(vlan.bridge());
  if (bridge == links_.end() || bridge->second.kind != "bridge")
    return check(what, datapath_.vlanDel(vlan.vlanId()));
  VlanPorts ports;
  ports.bridgeIfIndex = bridge->second.index;
  ports.ownTrapped = ownTrapped_;
  const auto& tunnels = vlan.tunnelPorts();
  for (const auto& [name, link] : links_) {
    const bool tunnel = contains(tunnels, name);
    if (tunnel) {
      ports.tunnelPorts.push_back(link.index);
    } else if (link.master == bridge->second.index && !Datapath::ownsDevice(name)) {
      ports.accessPorts.push_back(link.index);
    }
  }
  return check(what, datapath_.vlanIs(vlan.vlanId(), ports));
}

void SoftForwardSm::synchronise() {
  bool good = true;
  if (!open_) {
    open_ = good = check("opening", datapath_.open());
    for (const auto& [vlanId, active] : arpSuppressionStatus_->vlanIdCollection()) handleVlanId(vlanId);
  }
  if (open_) {
    links_.clear();
    Links links(requests_);
    good = check("reading links", links.forEach([this](const Link& link) { links_[link.name] = link; }));
  }
  if (open_ && good) {
    good = synchroniseOwn();
    for (const auto& [vlanId, vlan] : switchConfig_->vlanCollection()) good = synchroniseVlan(*vlan) && good;
    if (good && !staleDeleted_)
      staleDeleted_ = good = check("removing what an earlier run left", datapath_.staleDel());
  }
  if (!good) synchronise_.schedule(kRetrySeconds);
}

void SoftForwardSm::dumpState(Orb::DumpContext& context, int indent) const {
  context.line(indent, "SoftForwardSm");
  context.attribute(indent, "open", open_);
  for (const auto& [what, failure] : failures_) context.line(indent + 2, what + ": " + failure);
}

// --- The agent
// ----------------------------------------------------------------------------------------------------------

void SoftForwardAgent::doInit() {
  const Mox::Ptr<Statedb::MountGroup> group = host().mountGroup(*this);
  group->mountIs(Switch::kConfigPath, Switch::kConfigType, "r");
  group->mountIs(kBridgingConfigPath, "Bridging::Config", "r");
  localEntitiesCreatedIs(true);
  group->doClose();
}

void SoftForwardAgent::doMountsComplete(Statedb::MountStatus, const Mox::Ptr<Statedb::EntityManager>& tree) {
  const auto switchConfig = tree->entityOf<const Switch::Config>(Switch::kConfigPath);
  // Whoever publishes the status finds this entity, if it is not there already.
  const auto status = Mox::dynamicPtrCast<const ArpSuppression::ArpSuppressionStatus>(
      tree->mount("arpSuppression/status", "ArpSuppression::ArpSuppressionStatus", "r"));
  if (!switchConfig || !status) return;
  softForwardSm_ = Mox::make<SoftForwardSm>(taskSchedulerRoot()->scheduler(), switchConfig, status,
                                            tree->entityOf<const Bridging::Config>(kBridgingConfigPath));
}

}  // namespace SoftForward

namespace {
Mox::Ptr<Orb::AgentBase> make(const char* name) { return Mox::make<SoftForward::SoftForwardAgent>(name); }
}  // namespace

ORB_PLUGIN(make)
