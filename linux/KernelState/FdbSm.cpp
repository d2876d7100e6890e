#include "KernelState/FdbSm.h"

#include <linux/rtnetlink.h>

#include "KernelState/Trace.h"

namespace KernelState {
namespace {

constexpr char kSource[] = "KernelState/FdbSm";
constexpr std::size_t kEntriesPerBatch = 64;

using Bridging::EntryType;

EntryType entryTypeOf(MacMessage::Kind kind, bool onTunnelPort) {
  if (onTunnelPort || kind == MacMessage::Kind::externally) return EntryType::evpnLearned;
  return kind == MacMessage::Kind::configured ? EntryType::staticEntry : EntryType::learnedDynamic;
}

}  // namespace

FdbSm::FdbSm(Ptr<const NamespaceState> state, Ptr<const Switch::Config> config,
             Ptr<const Bridging::Config> bridgingConfig, Ptr<Memtab::Bridging::Status> bridgingStatus,
             const Ptr<Orb::TaskScheduler>& scheduler)
    : WalkSmBase(scheduler, "KernelState MAC tables"),
      config_(std::move(config), [this] { scheduleWalk(); }),
      bridgingConfig_(std::move(bridgingConfig)),
      state_(std::move(state)),
      bridgingStatus_(std::move(bridgingStatus)) {
  bridgingConfig_.on(Bridging::Config::vidToFidMapChanged, [this](Bridging::VlanId) { scheduleWalk(); });
  state_.on(NamespaceState::linkChanged, [this](IfIndex ifIndex) { handleLink(ifIndex); });
  derive();
}

FdbSm::~FdbSm() = default;

void FdbSm::bridgingConfigIs(Ptr<const Bridging::Config> bridgingConfig) {
  bridgingConfig_.notifierIs(std::move(bridgingConfig));
  scheduleWalk();
}

void FdbSm::handleMessage(const Netlink::Received& message, Word word) {
  const auto read = readMac(message);
  if (!read) return;
  const Key key{read->bridge, read->mac};
  if (message.type() == RTM_DELNEIGH || read->kind == MacMessage::Kind::own) {
    if (word == Word::dump) return;  // the sweep removes what is not said
    const Record* record = mirror_.find(key);
    const Bridging::Fid published = record ? record->fid : kNoFid;
    mirror_.gone(key);
    if (published != kNoFid) withdraw({published, key.mac});
    return;
  }
  Record* record = mirror_.said(key, word);
  if (!record) return;
  record->port = read->port;
  record->kind = read->kind;
  publish(key, *record);
}

bool FdbSm::sweep() {
  return mirror_.sweep(kEntriesPerBatch, [this](const Key& key, const Record& record) {
    if (record.fid != kNoFid) withdraw({record.fid, key.mac});
  });
}

// Known at once, not with the walk: until then an entry on a tunnel port would pass for a local one.
void FdbSm::handleLink(IfIndex ifIndex) {
  const Link link = state_->link(ifIndex);
  bool matters = false;
  if (configured_.contains(link.name) || devices_.contains(ifIndex)) {
    derive();
    matters = true;
  }
  if (const auto port = ports_.find(ifIndex); port != ports_.end()) {
    ports_.erase(port);
    matters = true;
  }
  if (matters && mirror_.size() != 0) scheduleWalk();
}

void FdbSm::derive() {
  bridges_.clear();
  bridgesOfFid_.clear();
  configured_.clear();
  devices_.clear();
  if (!config_) return;
  std::map<Mox::String, IfIndex> indexOf;
  for (const auto& [ifIndex, link] : state_->linkCollection()) indexOf[link.name] = ifIndex;
  const auto find = [&](const Mox::String& name) -> IfIndex {
    configured_.insert(name);
    const auto at = indexOf.find(name);
    if (at == indexOf.end()) return 0;
    devices_.insert(at->second);
    return at->second;
  };
  for (const auto& [vlanId, vlan] : config_->vlanCollection()) {
    const IfIndex ifIndex = find(vlan->bridge());
    Bridge bridge;
    for (const Mox::String& port : vlan->tunnelPorts()) {
      if (const IfIndex index = find(port)) bridge.tunnelPorts.insert(index);
    }
    if (ifIndex == 0) continue;
    const Bridging::Fid mapped = bridgingConfig_ ? bridgingConfig_->vidToFidMap(vlanId) : kNoFid;
    bridge.fid = mapped != kNoFid ? mapped : vlanId.value();
    if (bridges_.try_emplace(ifIndex, bridge).second) {
      bridgesOfFid_.emplace(bridge.fid, ifIndex);
      refused_.erase(vlanId);
    } else if (refused_.insert(vlanId).second) {
      KERNEL_STATE_TRACE(0,
                         "vlans." << vlanId.value() << ".bridge: " << vlan->bridge()
                                  << " is the bridge of another VLAN already; allowed is one bridge a VLAN");
    }
  }
}

bool FdbSm::walkStartedNotification() {
  derive();
  bookmark_.reset();
  return true;
}

Orb::WalkRet FdbSm::walk() {
  Orb::WalkRet ret;
  do {
    ret.processed += kEntriesPerBatch;
    if (!mirror_.visit(bookmark_, kEntriesPerBatch,
                       [this](const Key& key, Record& record) { publish(key, record); }))
      return ret;
  } while (!mustYield());
  ret.moreWork = true;
  return ret;
}

Lanix::IntfId FdbSm::intfOf(IfIndex port) {
  const auto known = ports_.find(port);
  if (known != ports_.end()) return known->second;
  const auto intf = Lanix::IntfId::fromName(state_->link(port).name);
  ports_[port] = intf;
  return intf;
}

void FdbSm::publish(const Key& key, Record& record) {
  const auto bridge = bridges_.find(key.bridge);
  const Lanix::IntfId intf = intfOf(record.port);
  const Bridging::Fid wanted = bridge == bridges_.end() || !intf ? kNoFid : bridge->second.fid;
  if (record.fid != kNoFid && record.fid != wanted) {
    const Bridging::HostKey before{record.fid, key.mac};
    record.fid = kNoFid;
    withdraw(before);
  }
  if (wanted == kNoFid) return;
  record.fid = wanted;
  const bool onTunnelPort = bridge->second.tunnelPorts.contains(record.port);
  if (bridgingStatus_)
    bridgingStatus_->fdbIs({wanted, key.mac}, {entryTypeOf(record.kind, onTunnelPort), intf});
}

// Another bridge may stand for the same key: VLANs that share a forwarding database, a bridge made again.
void FdbSm::withdraw(const Bridging::HostKey& key) {
  const auto [begin, end] = bridgesOfFid_.equal_range(key.fid);
  for (auto at = begin; at != end; ++at) {
    const Key here{at->second, key.macAddress};
    Record* record = mirror_.find(here);
    if (!record || !intfOf(record->port)) continue;
    publish(here, *record);
    return;
  }
  if (bridgingStatus_) bridgingStatus_->fdbDel(key);
}

}  // namespace KernelState
