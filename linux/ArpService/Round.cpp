#include "ArpService/Round.h"

#include <sys/socket.h>

#include <utility>

namespace ArpService {
namespace {

constexpr std::size_t kEntriesPerStep = 64;

// Calls visit(key, value) for a step's worth of entries and moves the bookmark; true while there are more.
template <class Collection, class K, class Visit>
bool scan(const Collection& collection, std::optional<K>& bookmark, Visit visit) {
  auto at = bookmark ? collection.lowerBound(*bookmark) : collection.begin();
  for (std::size_t i = 0; i < kEntriesPerStep && at != collection.end(); ++i, ++at)
    visit(Collection::keyOf(*at), Collection::valueOf(*at));
  bookmark.reset();
  if (at != collection.end()) bookmark = Collection::keyOf(*at);
  return bookmark.has_value();
}

}  // namespace

const Arp::ArpEntryInput* Vrf::wanted(const Key& key) const {
  if (!config) return nullptr;
  if (key.address.isIpv6()) return config->ipv6Collection().find({key.address.ipv6(), key.intf});
  const Arp::ArpEntryInput* entry = config->ipv4Collection().find(key.address.ipv4());
  return entry && entry->intf == key.intf ? entry : nullptr;
}

Round::Round(Devices& devices, Vrfs& vrfs, Table table, Compare compare, Refused refused)
    : devices_(devices),
      vrfs_(vrfs),
      table_(std::move(table)),
      compare_(std::move(compare)),
      refused_(std::move(refused)) {}

void Round::reset() {
  const auto reading = vrfs_.find(vrf_);
  if (isNew_ && reading != vrfs_.end() && stage_ > Stage::neighbours)
    reading->second->isNew = newOnes_ = true;
  stage_ = Stage::idle;
  socket_ = nullptr;
  devicesKnown_ = compared_ = false;
}

void Round::start(Netlink::Socket& socket) {
  socket_ = &socket;
  for (const auto& [name, vrf] : vrfs_) vrf->queue.roundBegins();
  if (std::exchange(devicesKnown_, true)) {
    stage_ = Stage::tables;
    return ask(Netlink::neighbourTableDump());
  }
  stage_ = Stage::devices;
  devices_.readBegin();
  ask(Netlink::linkDump());
}

void Round::ask(const Netlink::Message& request) {
  const auto started = socket_->dumpStart(request);
  if (!started) fail("asking for the kernel's tables", started.failure());
}

bool Round::read(const Netlink::Handler& handler) {
  const Netlink::DumpSlice slice = socket_->dumpSlice(handler);
  if (!slice.done || slice.result) return slice.done;
  fail("reading the kernel's tables", slice.result.failure());
  return false;
}

bool Round::step() {
  switch (stage_) {
    case Stage::idle:
      if (!compared_ || !newOnes_) return false;
      scanStart(false);
      break;
    case Stage::devices:
      if (!read([this](const Netlink::Received& message) { devices_.handleMessage(message); })) break;
      devices_.readEnd();
      stage_ = Stage::tables;
      ask(Netlink::neighbourTableDump());
      break;
    case Stage::tables:
      if (!read([this](const Netlink::Received& message) {
            if (const auto table = Netlink::readNeighbourTable(message)) table_(*table);
          }))
        break;
      stage_ = Stage::neighbours;
      ask(Netlink::neighbourDump(AF_UNSPEC));
      break;
    case Stage::neighbours:
      if (!read([this](const Netlink::Received& message) {
            if (const auto actual = Netlink::readNeighbour(message)) compare_(*actual);
          }))
        break;
      compared_ = true;
      scanStart(true);
      break;
    default:
      scanStep();
      break;
  }
  return true;
}

void Round::scanStart(bool all) {
  newOnes_ = false;
  all_ = all;
  scanNext("");
}

void Round::scanNext(const Mox::String& from) {
  auto at = vrfs_.lower_bound(from);
  while (!all_ && at != vrfs_.end() && !at->second->isNew) ++at;
  if (at == vrfs_.end()) return end();
  vrf_ = at->first;
  isNew_ = std::exchange(at->second->isNew, false);
  stage_ = isNew_ ? Stage::ipv4 : Stage::entries;
  ipv4Bookmark_.reset();
  ipv6Bookmark_.reset();
  bookmark_.reset();
}

void Round::scanStep() {
  const auto at = vrfs_.find(vrf_);
  if (at == vrfs_.end()) return scanNext(vrf_);  // it went in the meantime
  Vrf& vrf = *at->second;
  if (stage_ == Stage::entries) {
    const auto gone = [&](const Key& key) { return isNew_ && !vrf.wanted(key); };
    if (!vrf.queue.rescan(bookmark_, kEntriesPerStep, gone)) scanNext(vrf_ + '\0');
  } else if (!vrf.config) {
    stage_ = Stage::entries;
  } else if (stage_ == Stage::ipv4) {
    const auto visit = [&](const Lanix::IpAddr& ip, const Arp::ArpEntryInput& entry) {
      vrf.queue.addUnsettled({ip, entry.intf});
    };
    if (!scan(vrf.config->ipv4Collection(), ipv4Bookmark_, visit)) stage_ = Stage::ipv6;
  } else {
    const auto visit = [&](const Arp::NeighborEntryKey& key, const Arp::NeighborEntryConfigInput&) {
      vrf.queue.addUnsettled({key.addr, key.intf});
    };
    if (!scan(vrf.config->ipv6Collection(), ipv6Bookmark_, visit)) stage_ = Stage::entries;
  }
}

void Round::fail(const char* doing, const Mox::Failure& failure) {
  if (stage_ == Stage::devices) devicesKnown_ = false;
  refused_(doing, failure);
  end();
}

void Round::end() {
  stage_ = Stage::idle;
  ended_ = true;
}

}  // namespace ArpService
