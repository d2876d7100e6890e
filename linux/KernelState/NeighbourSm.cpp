#include "KernelState/NeighbourSm.h"

#include <algorithm>

namespace KernelState {
namespace {

constexpr std::size_t kEntriesPerBatch = 64;
constexpr unsigned kRetryLevel = 3;

using Arp::Table::ArpKey;

ArpKey arpKeyOf(Vrf::VrfIdMap::VrfId vrfId, const Lanix::IpGenAddr& address, const Lanix::IntfId& intf) {
  ArpKey key;
  key.vrfId = vrfId;
  key.addr = address;
  key.intfId = intf;
  return key;
}

}  // namespace

bool NeighbourTable::entryIs(const ArpKey& key, const Arp::Table::ArpEntry& entry) {
  return !arpStatus_ || arpStatus_->arpEntryIs(key, entry) != Memtab::Written::kFull;
}

void NeighbourTable::withdraw(const ArpKey& key) {
  for (NeighbourSm* publisher : publishers_) {
    if (publisher->claim(key)) return;
  }
  if (arpStatus_) arpStatus_->arpEntryDel(key);
}

bool NeighbourTable::busy() const {
  return std::any_of(publishers_.begin(), publishers_.end(),
                     [](const NeighbourSm* publisher) { return publisher->walkScheduled(); });
}

NeighbourSm::NeighbourSm(Ptr<const NamespaceState> state, Ptr<const VlanOwners> owners,
                         Ptr<NeighbourTable> table, const Ptr<Orb::TaskScheduler>& scheduler)
    : WalkSmBase(scheduler, "KernelState neighbours of " + state->name()),
      state_(std::move(state)),
      owners_(std::move(owners)),
      table_(std::move(table)),
      retryTask_(scheduler, "KernelState neighbours without room", kRetryLevel, [this] { scheduleWalk(); }) {
  table_->publishers_.push_back(this);
  state_.on(NamespaceState::linkChanged, [this](IfIndex ifIndex) { handleLink(ifIndex); });
  owners_.on(VlanOwners::ownerChanged, [this](const Lanix::IntfId& intf) { handleOwner(intf); });
}

NeighbourSm::~NeighbourSm() { std::erase(table_->publishers_, this); }

void NeighbourSm::handleNeighbour(const Netlink::Neighbour& neighbour, bool gone, Word word) {
  const Key key{neighbour.ifIndex, neighbour.address};
  const auto entry = gone ? std::nullopt : entryOf(neighbour);
  if (!entry) {
    if (word == Word::dump) return;  // the sweep removes what is not said
    if (auto known = mirror_.gone(key)) forget(key, *known);
    return;
  }
  Record* record = mirror_.said(key, word);
  if (!record) return;
  if (record->entry.mac.isZero()) onDevice_.add(key.ifIndex);  // a new one
  record->entry = *entry;
  publish(key, *record);
}

bool NeighbourSm::sweep() {
  return mirror_.sweep(kEntriesPerBatch, [this](const Key& key, Record& record) { forget(key, record); });
}

void NeighbourSm::forget(const Key& key, Record& record) {
  onDevice_.remove(key.ifIndex);
  withdraw(key, record);
}

void NeighbourSm::handleLink(IfIndex ifIndex) {
  const auto vlan = vlanInterfaces_.find(ifIndex);
  if (vlan == vlanInterfaces_.end() || state_->linkHas(ifIndex)) return;
  devices_.erase(vlan->second.intf);
  vlanInterfaces_.erase(vlan);
  if (onDevice_.has(ifIndex)) scheduleWalk();
}

void NeighbourSm::handleOwner(const Lanix::IntfId& intf) {
  const VlanOwner owner = owners_->owner(intf);
  const IfIndex now = owner.netNs == state_->name() ? owner.ifIndex : 0;
  const auto device = devices_.find(intf);
  const IfIndex before = device == devices_.end() ? 0 : device->second;
  if (before == now && (now == 0 || vlanInterfaces_[now].vrfId == owner.vrf.id)) return;
  if (before != 0) vlanInterfaces_.erase(before), devices_.erase(device);
  if (now != 0) vlanInterfaces_[now] = {intf, owner.vrf.id}, devices_[intf] = now;
  if (onDevice_.has(before) || onDevice_.has(now)) scheduleWalk();
}

bool NeighbourSm::walkStartedNotification() {
  bookmark_.reset();
  return true;
}

Orb::WalkRet NeighbourSm::walk() {
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

void NeighbourSm::publish(const Key& key, Record& record) {
  const auto vlan = vlanInterfaces_.find(key.ifIndex);
  const auto [intf, vrfId] = vlan == vlanInterfaces_.end() ? Interface() : vlan->second;
  const bool wanted = vrfId != Vrf::VrfIdMap::kNoVrfId;
  if (record.intf && !(wanted && record.intf == intf && record.vrfId == vrfId)) withdraw(key, record);
  if (!wanted) return;
  record.vrfId = vrfId;
  record.intf = intf;
  if (!table_->entryIs(arpKeyOf(vrfId, key.address, intf), record.entry)) retryTask_.schedule(kRoomRetry);
}

void NeighbourSm::withdraw(const Key& key, Record& record) {
  if (!record.intf) return;
  const ArpKey published = arpKeyOf(record.vrfId, key.address, record.intf);
  record.intf = Lanix::IntfId();
  table_->withdraw(published);
}

bool NeighbourSm::claim(const ArpKey& key) {
  const auto device = devices_.find(key.intfId);
  if (device == devices_.end() || vlanInterfaces_.at(device->second).vrfId != key.vrfId) return false;
  const Key here{device->second, key.addr};
  Record* record = mirror_.find(here);
  if (!record) return false;
  publish(here, *record);
  return true;
}

}  // namespace KernelState
