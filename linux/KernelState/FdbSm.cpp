#include "KernelState/FdbSm.h"

#include <algorithm>

namespace KernelState {
namespace {

constexpr std::size_t kEntriesPerBatch = 64;
constexpr unsigned kRetryLevel = 3;

using Bridging::EntryType;

EntryType entryTypeOf(MacEntry::Kind kind, bool onTunnelPort) {
  if (onTunnelPort || kind == MacEntry::Kind::externally) return EntryType::evpnLearned;
  return kind == MacEntry::Kind::configured ? EntryType::staticEntry : EntryType::learnedDynamic;
}

}  // namespace

FdbSm::FdbSm(Ptr<const NamespaceState> state, Ptr<const Switch::Config> config,
             Ptr<const ArpSuppression::Limits> limits, Ptr<const Bridging::Config> bridgingConfig,
             Ptr<Memtab::Bridging::Status> bridgingStatus, Switch::ProblemReporter& problems,
             const Ptr<Orb::TaskScheduler>& scheduler)
    : WalkSmBase(scheduler, "KernelState MAC tables"),
      config_(std::move(config), [this] { handleConfig(); }),
      bridgingConfig_(std::move(bridgingConfig)),
      state_(std::move(state)),
      bridgingStatus_(std::move(bridgingStatus)),
      room_(std::move(limits), problems, filter_, [this] { reading_.handleRoom(); }),
      reading_(state_.notifier(), room_, scheduler,
               [this] {
                 if (read_) read_();
               }),
      retryTask_(scheduler, "KernelState MAC tables without room", kRetryLevel, [this] { scheduleWalk(); }) {
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
  const Key key{entry->bridge, entry->vlan, entry->mac};
  if (gone || entry->kind == MacEntry::Kind::own) {
    if (word == Word::dump) return;  // the sweep removes what is not said
    if (const auto known = mirror_.gone(key)) forget(key, *known);
    return;
  }
  if (!room_.has(entry->port) && isBounded(vlanOf(key), entry->kind, entry->port) && !mirror_.find(key)) {
    room_.refuse(entry->port, state_->link(entry->port).name);
    if (word == Word::dump) reading_.refuse(entry->port);
    return;
  }
  if (word == Word::dump && isTunnelPort(vlanOf(key), entry->port)) reading_.hear(entry->port);
  Record* record = mirror_.said(key, word);
  if (!record) return;
  if (record->port == 0) {
    onDevice_.add(key.bridge);
    filter_.know(key.mac);
  }
  update(key, *record, *entry);
}

void FdbSm::update(const Key& key, Record& record, const MacEntry& entry) {
  if (record.port != entry.port) {
    onDevice_.remove(record.port);
    onDevice_.add(entry.port);
    if (std::exchange(record.counted, false)) room_.remove(record.port);
  }
  record.port = entry.port;
  record.kind = entry.kind;
  publish(key, record);
}

void FdbSm::reconcileBegin(bool everything) {
  filter_.openIs(true);
  mirror_.reconcileBegin(everything);
  reading_.begin(everything);
}

bool FdbSm::sweep(const Ask& ask) {
  const bool more = mirror_.sweep(
      kEntriesPerBatch, [this](const Key& key, const Record& record) { forget(key, record); },
      [&](const Key& key, Record& record) {
        return reading_.isCut(record.port) && isThere(key, record, ask);
      });
  if (!more) {
    reading_.end();
    filter_.openIs(false);
  }
  return more;
}

// Of an entry that a reading which was cut short did not mention.
bool FdbSm::isThere(const Key& key, Record& record, const Ask& ask) {
  std::optional<MacEntry> entry;
  const auto asked =
      ask(Netlink::macGet(key.bridge, key.mac, key.vlan), [&](const Netlink::Received& message) {
        if (const auto neighbour = Netlink::readNeighbour(message)) entry = macEntryOf(*neighbour);
      });
  if (!asked) return asked.number() != ENOENT;
  if (!entry || entry->kind == MacEntry::Kind::own) return false;
  update(key, record, *entry);
  return true;
}

void FdbSm::forget(const Key& key, const Record& record) {
  onDevice_.remove(key.bridge);
  onDevice_.remove(record.port);
  if (record.counted) room_.remove(record.port);
  if (record.fid != kNoFid) withdraw({record.fid, key.mac});
}

// Known at once, not with the walk: until then an entry on a tunnel port would pass for a local one.
void FdbSm::handleLink(IfIndex ifIndex) {
  ports_.erase(ifIndex);
  const Link link = state_->link(ifIndex);
  const auto known = devices_.find(ifIndex);
  if (known != devices_.end() && !(known->second == Device{link.name, link.filtersVlans})) deviceDel(ifIndex);
  if (state_->linkHas(ifIndex)) {
    deviceIs(ifIndex, {link.name, link.filtersVlans});
  } else {
    room_.accept(ifIndex);
  }
  if (onDevice_.has(ifIndex)) scheduleWalk();
}

template <class Visit>
void FdbSm::eachVlan(const Device& bridge, Visit visit) {
  const auto vlans = configured_.find(bridge.name);
  if (vlans == configured_.end()) return;
  if (!bridge.filtersVlans) return visit(std::uint16_t{0}, vlans->second.front());
  for (Vlan& vlan : vlans->second) visit(vlan.id, vlan);
}

void FdbSm::deviceIs(IfIndex ifIndex, const Device& device) {
  const auto [begin, end] = tunnels_.equal_range(device.name);
  if (begin == end && !configured_.contains(device.name)) return;
  if (!devices_.emplace(ifIndex, device).second) return;
  for (auto at = begin; at != end; ++at) at->second->tunnelPorts.insert(ifIndex);
  eachVlan(device, [&](std::uint16_t inside, Vlan& vlan) {
    vlans_[{ifIndex, inside}] = &vlan;
    placesOfFid_.emplace(vlan.fid, Place{ifIndex, inside});
  });
}

void FdbSm::deviceDel(IfIndex ifIndex) {
  const auto device = devices_.extract(ifIndex);
  if (!device) return;
  const auto [begin, end] = tunnels_.equal_range(device.mapped().name);
  for (auto at = begin; at != end; ++at) at->second->tunnelPorts.erase(ifIndex);
  eachVlan(device.mapped(), [&](std::uint16_t inside, Vlan& vlan) {
    const Place place{ifIndex, inside};
    vlans_.erase(place);
    const auto [first, last] = placesOfFid_.equal_range(vlan.fid);
    placesOfFid_.erase(std::find_if(first, last, [&](const auto& item) { return item.second == place; }));
  });
}

FdbSm::Vlan* FdbSm::vlanOf(const Key& key) const {
  const auto vlan = vlans_.find({key.bridge, key.vlan});
  return vlan == vlans_.end() ? nullptr : vlan->second;
}

void FdbSm::derive() {
  derive_ = false;
  vlans_.clear();
  placesOfFid_.clear();
  devices_.clear();
  tunnels_.clear();
  configured_.clear();
  if (!config_) return;
  for (const auto& [vlanId, vlan] : config_->vlanCollection()) {
    const Bridging::Fid mapped = bridgingConfig_ ? bridgingConfig_->vidToFidMap(vlanId) : kNoFid;
    configured_[vlan->bridge()].push_back({vlanId.value(), mapped != kNoFid ? mapped : vlanId.value(), {}});
  }
  for (auto& [name, vlans] : configured_) {
    for (Vlan& vlan : vlans) {
      for (const Mox::String& port : config_->vlan(Bridging::VlanId(vlan.id))->tunnelPorts())
        tunnels_.emplace(port, &vlan);
    }
  }
  for (const auto& [ifIndex, link] : state_->linkCollection())
    deviceIs(ifIndex, {link.name, link.filtersVlans});
}

// What a bridge learns of a host's own frames. Those behind a tunnel port are as many as the overlay has.
bool FdbSm::isBounded(const Vlan* vlan, MacEntry::Kind kind, IfIndex port) {
  return kind == MacEntry::Kind::learned && !isTunnelPort(vlan, port);
}

void FdbSm::count(const Vlan* vlan, Record& record) {
  const bool counted = isBounded(vlan, record.kind, record.port);
  if (std::exchange(record.counted, counted) == counted) return;
  counted ? room_.add(record.port) : room_.remove(record.port);
  // It was a tunnel port when only some of its entries were read.
  if (!counted || !reading_.isCut(record.port)) return;
  room_.refuse(record.port, state_->link(record.port).name);
  reading_.handleRoom();
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
  const Vlan* const vlan = vlanOf(key);
  count(vlan, record);
  const Lanix::IntfId intf = intfOf(record.port);
  const Bridging::Fid wanted = vlan && intf ? vlan->fid : kNoFid;
  if (record.fid != kNoFid && record.fid != wanted) {
    const Bridging::HostKey before{record.fid, key.mac};
    record.fid = kNoFid;
    withdraw(before);
  }
  if (wanted == kNoFid) return;
  record.fid = wanted;
  const Memtab::Bridging::MemtabFdbStatus entry{entryTypeOf(record.kind, isTunnelPort(vlan, record.port)),
                                                intf};
  if (bridgingStatus_ && bridgingStatus_->fdbIs({wanted, key.mac}, entry) == Memtab::Written::kFull)
    retryTask_.schedule(kRoomRetry);
}

// Another bridge or VLAN may stand for the same key: VLANs that share a forwarding database, a bridge made
// again.
void FdbSm::withdraw(const Bridging::HostKey& key) {
  const auto [begin, end] = placesOfFid_.equal_range(key.fid);
  for (auto at = begin; at != end; ++at) {
    const Key here{at->second.first, at->second.second, key.macAddress};
    Record* record = mirror_.find(here);
    if (!record || !intfOf(record->port)) continue;
    publish(here, *record);
    return;
  }
  if (bridgingStatus_) bridgingStatus_->fdbDel(key);
}

}  // namespace KernelState
