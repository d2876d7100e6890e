#include "KernelState/FdbSm.h"

#include <algorithm>

namespace KernelState {
namespace {

constexpr std::size_t kEntriesPerBatch = 64;

using Bridging::EntryType;

EntryType entryTypeOf(MacEntry::Kind kind, bool onTunnelPort) {
  if (onTunnelPort || kind == MacEntry::Kind::externally) return EntryType::evpnLearned;
  return kind == MacEntry::Kind::configured ? EntryType::staticEntry : EntryType::learnedDynamic;
}

}  // namespace

FdbSm::FdbSm(Ptr<const NamespaceState> state, Ptr<const Switch::Config> config,
             Ptr<const Bridging::Config> bridgingConfig, Ptr<Memtab::Bridging::Status> bridgingStatus,
             Switch::ProblemReporter& problems, const Ptr<Orb::TaskScheduler>& scheduler)
    : WalkSmBase(scheduler, "KernelState MAC tables"),
      config_(std::move(config), [this] { handleConfig(); }),
      bridgingConfig_(std::move(bridgingConfig)),
      state_(std::move(state)),
      bridgingStatus_(std::move(bridgingStatus)),
      problems_(problems) {
  bridgingConfig_.on(Bridging::Config::vidToFidMapChanged, [this](Bridging::VlanId) { handleConfig(); });
  state_.on(NamespaceState::linkChanged, [this](IfIndex ifIndex) { handleLink(ifIndex); });
  derive();
}

void FdbSm::bridgingConfigIs(Ptr<const Bridging::Config> bridgingConfig) {
  bridgingConfig_.notifierIs(std::move(bridgingConfig));
  handleConfig();
}

void FdbSm::handleConfig() {
  derive_ = true;
  scheduleWalk();
}

void FdbSm::handleEntry(const Netlink::Neighbour& neighbour, bool gone, Word word) {
  const auto entry = macEntryOf(neighbour);
  if (!entry) return;
  const Key key{entry->bridge, entry->mac};
  if (gone || entry->kind == MacEntry::Kind::own) {
    if (word == Word::dump) return;  // the sweep removes what is not said
    std::optional<Record> known;
    if (const Record* record = mirror_.find(key)) known = *record;
    mirror_.gone(key);
    if (known) forget(key, *known);
    return;
  }
  Record* record = mirror_.said(key, word);
  if (!record) return;
  if (record->port == 0) onDevice_.add(key.bridge);
  if (record->port != entry->port) {
    onDevice_.remove(record->port);
    onDevice_.add(entry->port);
  }
  record->port = entry->port;
  record->kind = entry->kind;
  publish(key, *record);
}

bool FdbSm::sweep() {
  return mirror_.sweep(kEntriesPerBatch,
                       [this](const Key& key, const Record& record) { forget(key, record); });
}

void FdbSm::forget(const Key& key, const Record& record) {
  onDevice_.remove(key.bridge);
  onDevice_.remove(record.port);
  if (record.fid != kNoFid) withdraw({record.fid, key.mac});
}

// Known at once, not with the walk: until then an entry on a tunnel port would pass for a local one.
void FdbSm::handleLink(IfIndex ifIndex) {
  ports_.erase(ifIndex);
  if (state_->linkHas(ifIndex)) {
    deviceIs(ifIndex, state_->link(ifIndex).name);
  } else {
    deviceDel(ifIndex);
  }
  if (onDevice_.has(ifIndex)) scheduleWalk();
}

void FdbSm::deviceIs(IfIndex ifIndex, const Mox::String& name) {
  const auto bridge = configured_.find(name);
  const auto [begin, end] = tunnels_.equal_range(name);
  if (bridge == configured_.end() && begin == end) return;
  if (!devices_.emplace(ifIndex, name).second) return;
  for (auto at = begin; at != end; ++at) at->second->tunnelPorts.insert(ifIndex);
  if (bridge == configured_.end()) return;
  bridges_[ifIndex] = &bridge->second;
  bridgesOfFid_.emplace(bridge->second.fid, ifIndex);
}

void FdbSm::deviceDel(IfIndex ifIndex) {
  const auto device = devices_.extract(ifIndex);
  if (!device) return;
  const auto [begin, end] = tunnels_.equal_range(device.mapped());
  for (auto at = begin; at != end; ++at) at->second->tunnelPorts.erase(ifIndex);
  const auto bridge = bridges_.extract(ifIndex);
  if (!bridge) return;
  const auto [first, last] = bridgesOfFid_.equal_range(bridge.mapped()->fid);
  bridgesOfFid_.erase(std::find_if(first, last, [&](const auto& item) { return item.second == ifIndex; }));
}

void FdbSm::derive() {
  derive_ = false;
  bridges_.clear();
  bridgesOfFid_.clear();
  devices_.clear();
  tunnels_.clear();
  configured_.clear();
  if (!config_) return;
  const std::set<Bridging::VlanId> before = std::exchange(refused_, {});
  const auto where = [](Bridging::VlanId vlanId) {
    return "vlans." + std::to_string(vlanId.value()) + ".bridge";
  };
  for (const auto& [vlanId, vlan] : config_->vlanCollection()) {
    const Bridging::Fid mapped = bridgingConfig_ ? bridgingConfig_->vidToFidMap(vlanId) : kNoFid;
    const auto [bridge, isNew] = configured_.try_emplace(vlan->bridge());
    if (isNew) {
      bridge->second = {vlanId, mapped != kNoFid ? mapped : vlanId.value(), {}};
      for (const Mox::String& port : vlan->tunnelPorts()) tunnels_.emplace(port, &bridge->second);
    } else {
      refused_.insert(vlanId);
      problems_.problemIs(where(vlanId),
                          vlan->bridge() + " is the bridge of VLAN " +
                              std::to_string(bridge->second.vlanId.value()) + " already",
                          "allowed is one bridge a VLAN");
    }
  }
  for (const Bridging::VlanId vlanId : before) {
    if (!refused_.contains(vlanId)) problems_.problemDel(where(vlanId));
  }
  for (const auto& [ifIndex, link] : state_->linkCollection()) deviceIs(ifIndex, link.name);
}

bool FdbSm::walkStartedNotification() {
  if (derive_) derive();
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
  const Bridging::Fid wanted = bridge == bridges_.end() || !intf ? kNoFid : bridge->second->fid;
  if (record.fid != kNoFid && record.fid != wanted) {
    const Bridging::HostKey before{record.fid, key.mac};
    record.fid = kNoFid;
    withdraw(before);
  }
  if (wanted == kNoFid) return;
  record.fid = wanted;
  const bool onTunnelPort = bridge->second->tunnelPorts.contains(record.port);
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
