#include "ArpService/NamespaceSm.h"

#include <cerrno>
#include <string>

// What NamespaceSm wants of each key, and what it does about it.

namespace ArpService {
namespace {

// Over by the first round after it, which finds what was refused.
constexpr double kFullSeconds = 0.9;

std::string textOf(const Key& key) { return key.intf.toStrep() + ", neighbour " + key.address.toStrep(); }

}  // namespace

Wish NamespaceSm::wish(const Arp::ArpEntryInput* entry, const Key& key, IfIndex ifIndex) const {
  using Kind = Wish::Kind;
  if (!entry) return {};
  const auto wished = [&](Kind kind) {
    return Wish{kind, entry->mac, !entry->dynamic && entry->arpType != Arp::kArpTypeRemote};
  };
  if (entry->arpType == Arp::kArpTypeAsked) return wished(Kind::answered);
  const Kind usual = entry->dynamic ? Kind::reachable : Kind::permanent;
  if (!devices_.isFeedDevice(ifIndex)) return wished(usual);
  if (entry->arpType != Arp::kArpTypeRemote) return wished(Kind::reachable);
  return places_.feed.isOperators(key.host(), entry->mac) ? wished(usual) : Wish();
}

void NamespaceSm::compare(const Netlink::Neighbour& actual) {
  const Lanix::IntfId intf = devices_.intf(actual.ifIndex);
  Vrf* const vrf = intf ? vrfOf(actual.ifIndex) : nullptr;
  if (!vrf) return;
  const Key key{actual.address, intf};
  const Arp::ArpEntryInput* const entry = vrf->wanted(key);
  const Wish wanted = wish(entry, key, actual.ifIndex);
  if (judge(wanted, actual) != Verdict::leave) return vrf->queue.addFound(key);
  idleHosts_.handleNeighbour(actual);
  if (entry) vrf->queue.settle(key, wanted.isGiven());
}

// Who is asked is looked at once more just before: a routing daemon may have written its own there by now, which
// must not be touched.
void NamespaceSm::probe() {
  if (!sockets_) return;
  const std::vector<IdleHosts::Host> hosts = idleHosts_.take();
  std::vector<Netlink::Message> messages;
  for (const auto& host : hosts) messages.push_back(Netlink::neighbourGet(host.ifIndex, host.address));
  std::vector<Netlink::Neighbour> stale;
  sockets_->requests.batch(
      messages, [](std::size_t, const Mox::Result<>&) {},
      [&](std::size_t, const Netlink::Received& message) {
        const auto actual = Netlink::readNeighbour(message);
        if (actual && isStale(*actual)) stale.push_back(*actual);
      });
  messages.clear();
  for (const auto& actual : stale) messages.push_back(probeRequest(actual.ifIndex, actual.address));
  // One that has gone meanwhile is refused, which is as well.
  sockets_->requests.batch(messages, [&](std::size_t i, const Mox::Result<>& result) {
    Vrf* const vrf = vrfOf(stale[i].ifIndex);
    if (vrf && result) vrf->status->probesIs(vrf->status->probes() + 1);
  });
  if (!idleHosts_.empty()) probeTask_.schedule(idleHosts_.delay());
}

// A key whose interface is not there, or in another VRF, is parked, unless nothing is wanted for it. Where
// nothing is to be written, the kernel is asked only if something of this system's may be there.
void NamespaceSm::program() {
  std::vector<std::pair<Vrf*, Key>> keys;
  std::vector<Job> jobs;
  std::size_t taken = 0;
  for (const auto& [name, vrf] : vrfs_) {
    for (; taken < Netlink::Socket::kBatch && !vrf->queue.empty(); ++taken) {
      const auto [key, given, found] = vrf->queue.take();
      const Arp::ArpEntryInput* const entry = vrf->wanted(key);
      const IfIndex ifIndex = devices_.ifIndex(key.intf);
      const bool isThere = ifIndex != 0 && vrfOf(ifIndex) == vrf.get();
      Job job{ifIndex, key.address, isThere ? wish(entry, key, ifIndex) : Wish(), false, {}, {}};
      if (!isThere && entry) {
        vrf->queue.park(key);
      } else if (!isThere || (job.wish.kind == Wish::Kind::nothing && !found && (entry || given))) {
        handleDone(*vrf, key, job);
      } else if (job.wish.isAged() && scheduler()->loop().now() < fullUntil(key)) {
        refuse(*vrf, textOf(key), Mox::Failure{"", ENOBUFS});
      } else {
        const auto asked = asked_.find(key);
        job.asked = asked != asked_.end() && asked->second;
        keys.emplace_back(vrf.get(), key);
        jobs.push_back(job);
      }
    }
  }
  bringInStep(sockets_->requests, jobs);
  for (std::size_t i = 0; i < jobs.size(); ++i) handleDone(*keys[i].first, keys[i].second, jobs[i]);
}

void NamespaceSm::handleDone(Vrf& vrf, const Key& key, const Job& job) {
  const Arp::ArpEntryInput* const entry = vrf.wanted(key);
  const bool deviceGone = job.result.number() == ENODEV;
  if (!job.result && !deviceGone) {
    if (job.wish.isAged() && isFull(job.result.failure()))
      fullUntil(key) = scheduler()->loop().now() + kFullSeconds;
    return refuse(vrf, textOf(key), job.result.failure());
  }
  handleAsked(key, job);
  if (job.wish.isAged()) idleHosts_.hostIs(job.address.isIpv4());
  if (!entry) {
    vrf.queue.forget(key);
  } else if (deviceGone) {  // the kernel will tell
    vrf.queue.park(key);
  } else {
    vrf.queue.settle(key, job.wish.isGiven());
  }
}

// What is asked for is told of as silent until it is configured anew, or somebody answers after all.
void NamespaceSm::handleAsked(const Key& key, const Job& job) {
  const bool askable = job.wish.kind == Wish::Kind::answered && job.result && !job.actual.isStatic() &&
                       !job.actual.isForeign() && !job.actual.isResolved();
  if (askable) {
    asked_[key] = true;
    if (!job.isSilent()) {
      confirmation_->silentDel(key.host());
    } else {
      confirmation_->silentIs(key.host());
    }
  } else if (asked_.erase(key) != 0) {
    confirmation_->silentDel(key.host());
  }
}

// That nobody answered for an address says nothing once it is configured anew.
void NamespaceSm::askAnew(const Lanix::IpGenAddr& address) {
  for (auto at = asked_.lower_bound(Queue::firstOf(address));
       at != asked_.end() && at->first.address == address; ++at)
    at->second = false;
}

// Keys of an interface that has become a feed device, or ceased to be one, are all to be dealt with anew.
void NamespaceSm::lookForFeedDevices() {
  if (!sockets_ || round_.readsDevices()) return;
  const std::optional<bool> isOther = devices_.findFeedDevices(places_.feed);
  if (!isOther) return;
  if (name_ == Lanix::kDefaultNamespace) {
    std::vector<Bridging::VlanId> gone;
    for (const auto& [vlanId, is] : confirmation_->vlanCollection()) {
      const auto intf = Lanix::IntfId::fromName("Vlan" + vlanId.toStrep());
      if (!devices_.isFeedDevice(devices_.ifIndex(intf))) gone.push_back(vlanId);
    }
    for (const Bridging::VlanId vlanId : gone) confirmation_->vlanDel(vlanId);
    devices_.forEach([this](const Lanix::IntfId& intf) {
      if (devices_.isFeedDevice(devices_.ifIndex(intf)))
        confirmation_->vlanIs(Bridging::VlanId(intf.vlanNumber()));
    });
  }
  if (*isOther) reopen_ = true, follow();
}

}  // namespace ArpService
