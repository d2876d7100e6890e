#include "ArpService/NamespaceSm.h"

#include <linux/rtnetlink.h>

#include <algorithm>
#include <cerrno>

#include "Lanix/NamespaceGuard.h"

namespace ArpService {
namespace {

// What happens in the kernel is more urgent than the rounds that find what was missed.
constexpr unsigned kReceiveLevel = 2;
constexpr unsigned kRoundLevel = 3;
constexpr std::size_t kProbesPerRound = 1024;
constexpr std::size_t kMessagesPerCall = 64;
constexpr int kNotificationBuffer = 4 << 20;
// rtnetlink answers from within the send, so this passes only when something is broken.
constexpr int kAnswerMilliseconds = 100;
constexpr double kNextRound = 0.02;  // seconds, after one that is still under way
constexpr double kFirstRetry = 1;
constexpr double kLastRetry = 60;
constexpr double kMoreProbes = 1;
constexpr double kLongestPeriod = 3600;
// At the end. 100,000 neighbours take less than a second, and some on a busy machine; what ends a daemon that
// does not end itself waits longer than this.
constexpr double kLastWords = 20;

}  // namespace

struct NamespaceSm::Sockets {
  explicit Sockets(Netlink::Kernel* kernel)
      : notifications(NETLINK_ROUTE, {.receiveBuffer = kNotificationBuffer}, kernel),
        requests(NETLINK_ROUTE, {.receiveTimeoutMilliseconds = kAnswerMilliseconds}, kernel),
        dumps(NETLINK_ROUTE, {.receiveTimeoutMilliseconds = kAnswerMilliseconds}, kernel) {}
  Netlink::Socket notifications;
  Netlink::Socket requests;
  Netlink::Socket dumps;
};

NamespaceSm::NamespaceSm(const Lanix::NamespaceName& name, Ptr<const Arp::ArpInputConfig> arpInputConfig,
                         Ptr<Arp::ServiceStatus> status, Switch::ProblemReporter& problems,
                         const Settings& settings, const Ptr<Orb::TaskScheduler>& scheduler)
    : WalkSmBase(scheduler, "ArpService neighbours of " + name),
      kernel_(settings.kernel),
      arpInputConfig_(std::move(arpInputConfig)),
      status_(std::move(status)),
      problems_(problems),
      name_(name),
      descriptor_(Mox::make<Orb::FileDescriptor>(scheduler->loop(), "ArpService " + name)),
      readable_(descriptor_),
      devices_([this](const Lanix::IntfId& intf) { handleInterface(intf); }),
      round_(
          devices_, vrfs_, [this](const Netlink::Neighbour& actual) { compare(actual); },
          [this](const char* doing, const Mox::Failure& failure) { refuse(doing, failure); }),
      receiveTask_(scheduler, "ArpService changes of " + name, kReceiveLevel, [this] { handleReadable(); }),
      roundTask_(scheduler, "ArpService round of " + name, kRoundLevel, [this] { handleRound(); }) {
  arpInputConfig_.on(Arp::ArpInputConfig::vrfChanged, [this](const Mox::String& vrf) {
    if (const auto at = vrfs_.find(vrf); at != vrfs_.end()) handleConfig(*at->second);
  });
  own_.on(Ip::VrfStatusLocal::stateChanged, [this] { reopen_ = true, scheduleWalk(); });
  readable_.on(Orb::FileDescriptor::readableCountChanged, [this] { receiveTask_.schedule(); });
  descriptor_->notifyOnReadableIs(true);
}

NamespaceSm::~NamespaceSm() {
  const auto& clock = scheduler()->loop().clock();
  const double end = clock.now() + kLastWords;
  while (sockets_ && clock.now() < end && step()) {
  }
  close();
  for (const auto& [name, vrf] : vrfs_) problems_.problemDel(subject(*vrf));
}

void NamespaceSm::refreshSecondsIs(double seconds) {
  if (std::exchange(refreshSeconds_, seconds) > seconds) roundTask_.schedule();
}

// --- The VRFs and their namespace ------------------------------------------------------------------------

void NamespaceSm::placesAre(Places places) {
  if (places == places_) return;
  places_ = std::move(places);
  if (own_.notifier() != places_.own) {
    own_.notifierIs(places_.own);
    reopen_ = true;
  }
  for (auto at = vrfs_.begin(); at != vrfs_.end();) {
    if (places_.vrfs.contains(at->first)) {
      ++at;
    } else {
      problems_.problemDel(subject(*at->second));
      at = vrfs_.erase(at);
    }
  }
  for (const Mox::String& name : places_.vrfs) vrfIs(name);
  // Interfaces may be in another VRF now, and neighbours another VRF's.
  devices_.forEach([this](const Lanix::IntfId& intf) { handleInterface(intf); });
  handleRound();
}

void NamespaceSm::vrfIs(const Mox::String& name) {
  const auto [at, isNew] = vrfs_.try_emplace(name);
  if (!isNew) return;
  at->second = std::make_unique<Vrf>(name, status_->vrfIs(name));
  Vrf& vrf = *at->second;
  vrf.config.on(Arp::ArpInputVrfConfig::ipv4Changed,
                [this, &vrf](Lanix::IpAddr ip) { handleAddress(vrf, ip); });
  vrf.config.on(Arp::ArpInputVrfConfig::ipv6Changed, [this, &vrf](const Arp::NeighborEntryKey& key) {
    if (vrf.wanted({key.addr, key.intf})) enqueue(vrf, {key.addr, key.intf});
    handleAddress(vrf, key.addr);
  });
  handleConfig(vrf);
}

Vrf* NamespaceSm::vrfBelow(const Mox::String& device) const {
  // A VRF device inside a namespace that is a VRF makes no difference.
  const bool isOwn = device.empty() || name_ != Lanix::kDefaultNamespace;
  const auto place = places_.devices.find(device);
  if (isOwn ? !places_.own : place == places_.devices.end()) return nullptr;
  const auto at = vrfs_.find(isOwn ? places_.own->vrfName() : place->second);
  return at == vrfs_.end() ? nullptr : at->second.get();
}

void NamespaceSm::follow() {
  close();
  reopen_ = false;
  if (!places_.own || places_.own->state() != Ip::VrfState::active) {
    for (const auto& [name, vrf] : vrfs_) noProblem(*vrf);
    return;
  }
  if (const auto opened = open(); !opened) {
    refuse("opening its namespace", opened.failure());
    sockets_ = nullptr;
    reopen_ = openFailed_ = true;
    return;
  }
  descriptor_->descriptorIs(sockets_->notifications.fd());
  handleRound();
}

Mox::Result<> NamespaceSm::open() {
  const Lanix::NamespaceGuard guard(name_);
  if (!guard) return Mox::Failure{guard.error(), errno};
  sockets_ = std::make_unique<Sockets>(kernel_);
  for (const Netlink::Socket* socket : {&sockets_->notifications, &sockets_->requests, &sockets_->dumps}) {
    if (!socket->opened()) return Netlink::describe("opening netlink", socket->opened());
  }
  for (const unsigned group : {RTNLGRP_LINK, RTNLGRP_NEIGH}) {
    if (const auto joined = sockets_->notifications.join(group); !joined)
      return Netlink::describe("opening netlink", joined);
  }
  return {};
}

void NamespaceSm::close() {
  descriptor_->descriptorIs(-1);
  receiveTask_.cancel();
  roundTask_.cancel();
  round_.reset();
  sockets_ = nullptr;
  devices_.clear();
  stale_.clear();
  for (const auto& [name, vrf] : vrfs_) vrf->queue.unsettleAll();
}

void NamespaceSm::handleReadable() {
  Netlink::Notifications heard;
  do {
    heard = sockets_->notifications.receive(
        [this](const Netlink::Received& message) { handleMessage(message); }, kMessagesPerCall);
    if (heard.overrun) {
      round_.devicesAreUnknown();
      roundTask_.schedule();
    }
    if (!heard.result) {
      refuse("receiving changes", heard.result.failure());
      reopen_ = true;
      scheduleWalk();
      return;
    }
  } while (heard.more && !mustYield());
  if (heard.more) receiveTask_.schedule();
}

void NamespaceSm::handleMessage(const Netlink::Received& message) {
  if (message.type() == RTM_NEWLINK || message.type() == RTM_DELLINK) return devices_.handleMessage(message);
  if (message.type() != RTM_DELNEIGH) return;
  const auto gone = Netlink::readNeighbour(message);
  const Lanix::IntfId intf = gone && !gone->isMacEntry() ? devices_.intf(gone->ifIndex) : Lanix::IntfId();
  if (!intf) return;
  // The kernel tells that an interface moved before it drops its neighbours.
  Vrf* const now = vrfOf(gone->ifIndex);
  Vrf* const before = vrfBelow(devices_.vrfDeviceBefore(gone->ifIndex));
  for (Vrf* const vrf : {now, before == now ? nullptr : before}) {
    const Arp::ArpEntryInput* const entry = vrf ? vrf->wanted({gone->address, intf}) : nullptr;
    if (entry && !entry->dynamic) enqueue(*vrf, {gone->address, intf});
  }
}

void NamespaceSm::handleInterface(const Lanix::IntfId& intf) {
  Vrf* const vrf = vrfOf(devices_.ifIndex(intf));
  if (!vrf) return;
  vrf->queue.unpark(intf);
  scheduleWalk();
}

// --- The configuration -----------------------------------------------------------------------------------

void NamespaceSm::handleConfig(Vrf& vrf) {
  vrf.config.notifierIs(arpInputConfig_->vrf(vrf.name));
  vrf.isNew = true;
  round_.configurationIsNew();
  scheduleWalk();
}

void NamespaceSm::handleAddress(Vrf& vrf, const Lanix::IpGenAddr& address) {
  vrf.queue.addAddress(address);
  if (address.isIpv4()) {
    if (const auto* entry = vrf.config->ipv4Collection().find(address.ipv4()))
      vrf.queue.add({address, entry->intf});
  }
  scheduleWalk();
}

void NamespaceSm::enqueue(Vrf& vrf, const Key& key) {
  vrf.queue.add(key);
  scheduleWalk();
}

bool NamespaceSm::unparkStep() {
  return std::any_of(vrfs_.begin(), vrfs_.end(),
                     [](const auto& vrf) { return vrf.second->queue.unparkStep(); });
}

bool NamespaceSm::queuesEmpty() const {
  return std::all_of(vrfs_.begin(), vrfs_.end(), [](const auto& vrf) { return vrf.second->queue.empty(); });
}

// --- The walk --------------------------------------------------------------------------------------------

Orb::WalkRet NamespaceSm::walk() {
  Orb::WalkRet ret;
  do {
    ++ret.processed;
    if (reopen_) follow();
    if (!step()) break;
    ret.moreWork = true;
  } while (!mustYield());
  publish();
  return ret;
}

// What is known to be due comes first, but not before the kernel's table was read: most of it may be there.
bool NamespaceSm::step() {
  if (!sockets_) return false;
  if (round_.compared()) {
    if (unparkStep()) return true;
    if (!queuesEmpty()) {
      program();
      return true;
    }
  }
  if (round_.idle() && !stale_.empty()) {
    probe();
    return true;
  }
  return round_.step();
}

// A refusal brings the next round forward: by a second at first, by twice as much after each round that was
// refused something again.
void NamespaceSm::walkFinishedNotification() {
  if (!sockets_ && !reopen_) return;
  const bool ended = round_.takeEnded();
  const bool tried = std::exchange(openFailed_, false) || ended;
  if (std::exchange(refused_, false)) {
    if (tried || retryDelay_ == 0) retryDelay_ = std::clamp(retryDelay_ * 2, kFirstRetry, kLastRetry);
  } else if (tried) {
    retryDelay_ = 0;
  }
  for (const auto& [name, vrf] : vrfs_) {
    if (!std::exchange(vrf->refused, false) && tried) noProblem(*vrf);
  }
  const double period = std::clamp(refreshSeconds_ / 4, kFirstRetry, kLongestPeriod);
  roundTask_.schedule(retryDelay_ > 0 ? std::min(retryDelay_, period) : period);
}

void NamespaceSm::handleRound() {
  scheduleWalk();
  if (!sockets_) return;
  if (!round_.idle()) return roundTask_.schedule(kNextRound);
  round_.start(sockets_->dumps);
}

void NamespaceSm::compare(const Netlink::Neighbour& actual) {
  const Lanix::IntfId intf = devices_.intf(actual.ifIndex);
  Vrf* const vrf = intf ? vrfOf(actual.ifIndex) : nullptr;
  if (!vrf) return;
  const Key key{actual.address, intf};
  const Arp::ArpEntryInput* const want = vrf->wanted(key);
  if (judge(want, actual) != Verdict::leave) return vrf->queue.add(key);
  if (isStale(actual) && actual.confirmedAgo >= refreshSeconds_) {
    if (stale_.size() < kProbesPerRound) {
      stale_.push_back(actual);
    } else {
      roundTask_.schedule(kMoreProbes);
    }
  }
  if (want) vrf->queue.settle(key, want);
}

void NamespaceSm::probe() {
  const std::size_t count = std::min(stale_.size(), Netlink::Socket::kBatch);
  const auto first = stale_.end() - static_cast<std::ptrdiff_t>(count);
  std::vector<Netlink::Message> messages;
  for (auto at = first; at != stale_.end(); ++at) messages.push_back(probeRequest(at->ifIndex, at->address));
  // One that has gone meanwhile is refused, which is as well.
  sockets_->requests.batch(messages, [&](std::size_t i, const Mox::Result<>& result) {
    Vrf* const vrf = vrfOf((first + static_cast<std::ptrdiff_t>(i))->ifIndex);
    if (vrf && result) vrf->status->probesIs(vrf->status->probes() + 1);
  });
  stale_.erase(first, stale_.end());
}

// A key whose interface is not there, or in another VRF, is parked, unless nothing is wanted for it.
void NamespaceSm::program() {
  std::vector<std::pair<Vrf*, Key>> keys;
  std::vector<Job> jobs;
  for (const auto& [name, vrf] : vrfs_) {
    while (jobs.size() < Netlink::Socket::kBatch && !vrf->queue.empty()) {
      const Key key = vrf->queue.take();
      const Arp::ArpEntryInput* const want = vrf->wanted(key);
      if (const IfIndex ifIndex = devices_.ifIndex(key.intf); ifIndex != 0 && vrfOf(ifIndex) == vrf.get()) {
        keys.emplace_back(vrf.get(), key);
        jobs.push_back({ifIndex, key.address, want, {}, {}});
      } else if (want) {
        vrf->queue.park(key);
      } else {
        vrf->queue.settle(key, nullptr);
      }
    }
  }
  bringInStep(sockets_->requests, jobs);
  for (std::size_t i = 0; i < jobs.size(); ++i) {
    const Job& job = jobs[i];
    auto& [vrf, key] = keys[i];
    const bool deviceGone = job.result.number() == ENODEV;
    if (job.result || (deviceGone && !job.wanted)) {
      vrf->queue.settle(key, job.wanted);
    } else if (deviceGone) {  // the kernel will tell
      vrf->queue.park(key);
    } else {
      refuse(*vrf, key.intf.toStrep() + ", neighbour " + job.address.toStrep(), job.result.failure());
    }
  }
}

// --- What is told ----------------------------------------------------------------------------------------

void NamespaceSm::refuse(const std::string& what, const Mox::Failure& failure) {
  refused_ = true;
  if (Vrf* const own = vrfBelow("")) refuse(*own, what, failure);
}

void NamespaceSm::refuse(Vrf& vrf, const std::string& what, const Mox::Failure& failure) {
  refused_ = vrf.refused = true;
  vrf.status->refusalsIs(vrf.status->refusals() + 1);
  if (!vrf.status->problem().empty()) return;  // told once, not for each neighbour
  const bool full = failure.number == ENOBUFS || failure.number == ENOMEM || failure.number == ENOSPC;
  const char* const seeLimit = "see net.ipv4.neigh.default.gc_thresh3";
  const std::string problem = what + ": " + (full ? "the kernel's neighbour table is full" : failure.text);
  vrf.status->problemIs(full ? problem + "; " + seeLimit : problem);
  problems_.problemIs(subject(vrf), problem + "; tried again", full ? seeLimit : "");
}

void NamespaceSm::noProblem(Vrf& vrf) {
  vrf.status->problemIs("");
  problems_.problemDel(subject(vrf));
}

void NamespaceSm::publish() {
  for (const auto& [name, vrf] : vrfs_) {
    const std::size_t configured = vrf->config ? vrf->config->ipv4s() + vrf->config->ipv6s() : 0;
    const std::size_t settled = vrf->queue.settled();
    vrf->status->programmedIs(settled);
    vrf->status->pendingIs(configured - std::min(settled, configured));
  }
}

}  // namespace ArpService
