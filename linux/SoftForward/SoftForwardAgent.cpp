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
constexpr char kVrMacPath[] = "routing/fhrp/vrMacStatus";
constexpr char kArpService[] = "ArpService";

MacAddress macAddress(const Lanix::EthAddr& address) {
  MacAddress bytes;
  std::ranges::copy(std::as_bytes(std::span(address.bytes())), bytes.begin());
  return bytes;
}

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
                             Mox::Ptr<const Bridging::Config> bridgingConfig,
                             Mox::Ptr<const Routing::Fhrp::VirtualRouterMacStatus> fhrpVrMacStatus)
    : loop_(scheduler->loop()),
      switchConfig_(std::move(switchConfig)),
      arpSuppressionStatus_(std::move(arpSuppressionStatus)),
      bridgingConfig_(std::move(bridgingConfig)),
      fhrpVrMacStatus_(std::move(fhrpVrMacStatus)),
      ownTrapped_(contains(switchConfig_->agents(), kArpService)),
      requests_(NETLINK_ROUTE),
      notifications_(NETLINK_ROUTE),
      synchronise_(scheduler, "SoftForward", kLevel, [this] { synchronise(); }) {
  arpSuppressionStatus_.on(ArpSuppression::ArpSuppressionStatus::vlanIdChanged,
                           [this](Bridging::VlanId vlanId) { handleVlanId(vlanId); });
  bridgingConfig_.on(Bridging::Config::bridgeMacAddrChanged, [this] { synchronise_.schedule(); });
  fhrpVrMacStatus_.on(Routing::Fhrp::VirtualRouterMacStatus::vgwVirtualMacChanged,
                      [this] { synchronise_.schedule(); });
  if (const auto joined = notifications_.join(RTNLGRP_LINK); !joined) {
    check("link notifications", Netlink::describe("link notifications", joined).error());
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
  if (!open_) return;
  fhrpVrMacStatus_.notifierIs(nullptr);
  for (const auto& [name, link] : links_) synchroniseShared(link);
  check("closing", datapath_.close());
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
    more = batch.more && batch.result;
    if (!batch.result)
      check("link notifications", Netlink::describe("link notifications", batch.result).error());
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
  shared_.erase(ifIndex);
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
    passed = macAddress(bridgingConfig_->bridgeMacAddr());
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
  const bool shared = synchroniseShared(bridge->second);
  return check(what, datapath_.vlanIs(vlan.vlanId(), ports)) && shared;
}

bool SoftForwardSm::synchroniseShared(const Link& bridge) {
  const Lanix::EthAddr wanted = fhrpVrMacStatus_ ? fhrpVrMacStatus_->vgwVirtualMac() : Lanix::EthAddr();
  const auto taken = shared_.find(bridge.index);
  const Lanix::EthAddr before = taken == shared_.end() ? Lanix::EthAddr() : taken->second;
  if (wanted == before) return true;
  Links links(requests_);
  const auto takes = [&](const Lanix::EthAddr& address, bool whether) {
    if (address.isZero()) return true;
    return check(bridge.name + " and the shared MAC",
                 links.bridgeTakes(bridge.name, bridge.index, macAddress(address), whether));
  };
  if (!takes(before, false)) return false;
  shared_.erase(bridge.index);
  if (!takes(wanted, true)) return false;
  if (!wanted.isZero()) shared_[bridge.index] = wanted;
  return true;
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
  group->mountIs(kVrMacPath, "Routing::Fhrp::VirtualRouterMacStatus", "r");
  localEntitiesCreatedIs(true);
  group->doClose();
}

void SoftForwardAgent::doMountsComplete(Statedb::MountStatus, const Mox::Ptr<Statedb::EntityManager>& tree) {
  const auto switchConfig = tree->entityOf<const Switch::Config>(Switch::kConfigPath);
  // Whoever publishes the status finds this entity, if it is not there already.
  const auto status = Mox::dynamicPtrCast<const ArpSuppression::ArpSuppressionStatus>(
      tree->mount("arpSuppression/status", "ArpSuppression::ArpSuppressionStatus", "r"));
  if (!switchConfig || !status) return;
  softForwardSm_ =
      Mox::make<SoftForwardSm>(taskSchedulerRoot()->scheduler(), switchConfig, status,
                               tree->entityOf<const Bridging::Config>(kBridgingConfigPath),
                               tree->entityOf<const Routing::Fhrp::VirtualRouterMacStatus>(kVrMacPath));
}

}  // namespace SoftForward

namespace {
Mox::Ptr<Orb::AgentBase> make(const char* name) { return Mox::make<SoftForward::SoftForwardAgent>(name); }
}  // namespace

ORB_PLUGIN(make)
