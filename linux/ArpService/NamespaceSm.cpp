#include "ArpService/NamespaceSm.h"

#include <linux/neighbour.h>
#include <linux/rtnetlink.h>

#include <algorithm>
#include <cerrno>

#include "Lanix/NamespaceGuard.h"

namespace ArpService {
namespace {

// What happens in the kernel is more urgent than the rounds that find what was missed.
constexpr unsigned kReceiveLevel = 2;
constexpr unsigned kRoundLevel = 3;
constexpr std::size_t kMessagesPerCall = 64;
constexpr int kNotificationBuffer = 4 << 20;
// rtnetlink answers from within the send, so this passes only when something is broken.
constexpr int kAnswerMilliseconds = 100;
constexpr double kNextRound = 0.02;  // seconds, after one that is still under way
constexpr double kFirstRetry = 1;
constexpr double kLastRetry = 60;
constexpr double kLongestPeriod = 3600;
// At the end. 100,000 neighbours take less than a second, and some on a busy machine; what ends a daemon that
// does not end itself waits longer than this.
constexpr double kLastWords = 20;

}  // namespace

NamespaceSm::Sockets::Sockets(Netlink::Kernel* kernel)
    : notifications(NETLINK_ROUTE, {.receiveBuffer = kNotificationBuffer}, kernel),
      requests(NETLINK_ROUTE, {.receiveTimeoutMilliseconds = kAnswerMilliseconds}, kernel),
      dumps(NETLINK_ROUTE, {.receiveTimeoutMilliseconds = kAnswerMilliseconds}, kernel) {}

NamespaceSm::NamespaceSm(const Lanix::NamespaceName& name, Ptr<const Arp::ArpInputConfig> arpInputConfig,
                         Ptr<Arp::ServiceStatus> status, Ptr<Arp::Confirmation> confirmation,
                         Switch::ProblemReporter& problems, IdleHostProblems& idleHostProblems,
                         const Settings& settings, const Ptr<Orb::TaskScheduler>& scheduler)
    : WalkSmBase(scheduler, "ArpService neighbours of " + name),
      kernel_(settings.kernel),
      arpInputConfig_(std::move(arpInputConfig)),
      status_(std::move(status)),
      confirmation_(std::move(confirmation)),
      problems_(problems),
      idleHostProblems_(idleHostProblems),
      name_(name),
      descriptor_(Mox::make<Orb::FileDescriptor>(scheduler->loop(), "ArpService " + name)),
      readable_(descriptor_),
      devices_([this](const Lanix::IntfId& intf) { handleInterface(intf); }),
      round_(
          devices_, vrfs_, [this](const Netlink::NeighbourTable& table) { idleHosts_.handleTable(table); },
          [this](const Netlink::Neighbour& actual) { compare(actual); },
          [this](const char* doing, const Mox::Failure& failure) { refuse(doing, failure); }),
      receiveTask_(scheduler, "ArpService changes of " + name, kReceiveLevel, [this] { handleReadable(); }),
      roundTask_(scheduler, "ArpService round of " + name, kRoundLevel, [this] { handleRound(); }),
      probeTask_(scheduler, "ArpService probes of " + name, kRoundLevel, [this] { probe(); }) {
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
  if (name_ == Lanix::kDefaultNamespace) confirmation_->vlanDelAll();
  idleHostProblems_.gone(idleHosts_);
  for (const auto& [name, vrf] : vrfs_) problems_.problemDel(subject(*vrf));
}

void NamespaceSm::refreshSecondsIs(double seconds) {
  const double before = idleHosts_.period();
  idleHosts_.refreshSecondsIs(seconds);
  if (idleHosts_.period() < before) roundTask_.schedule();
}

// --- The VRFs and their namespace ------------------------------------------------------------------------

void NamespaceSm::placesAre(Places places) {
  if (places == places_) return;
  // What is wanted of every key may be another thing now.
  if (places.feed != places_.feed) reopen_ = true;
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
  handleRound();
}

Mox::Result<> NamespaceSm::open() try {
  const Lanix::NamespaceGuard guard(name_);
  if (!guard) return Mox::Failure{guard.error(), errno};
  sockets_ = std::make_unique<Sockets>(kernel_);
  for (const Netlink::Socket* socket : {&sockets_->notifications, &sockets_->requests, &sockets_->dumps}) {
    if (!socket->opened()) return Netlink::describe("opening netlink", socket->opened());
  }
  if (const auto filtered = sockets_->notifications.neighboursAre(Netlink::Socket::Neighbours::addresses);
      !filtered)
    return Netlink::describe("opening netlink", filtered);
  for (const unsigned group : {RTNLGRP_LINK, RTNLGRP_NEIGH}) {
    if (const auto joined = sockets_->notifications.join(group); !joined)
      return Netlink::describe("opening netlink", joined);
  }
  descriptor_->descriptorIs(sockets_->notifications.fd());
  return {};
} catch (const Mox::Error& error) {
  return Mox::Failure{error.what()};
}

void NamespaceSm::close() {
  descriptor_->descriptorIs(-1);
  receiveTask_.cancel();
  roundTask_.cancel();
  round_.reset();
  sockets_ = nullptr;
  devices_.clear();
  probeTask_.cancel();
  idleHosts_.roundBegins();
  for (const auto& [key, once] : std::exchange(asked_, {})) confirmation_->silentDel(key.host());
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
  if (message.type() == RTM_NEWLINK || message.type() == RTM_DELLINK) {
    devices_.handleMessage(message);
    return scheduleWalk();
  }
  const bool isGone = message.type() == RTM_DELNEIGH;
  if (!isGone && asked_.empty()) return;
  const auto neighbour = Netlink::readNeighbour(message);
  if (!neighbour || neighbour->isMacEntry()) return;
  const IfIndex ifIndex = neighbour->ifIndex;
  const Key key{neighbour->address, devices_.intf(ifIndex)};
  if (!key.intf) return;
  // The kernel tells that an interface moved before it drops its neighbours.
  Vrf* const now = vrfOf(ifIndex);
  Vrf* const before = vrfBelow(devices_.vrfDeviceBefore(ifIndex));
  for (Vrf* const vrf : {now, before == now ? nullptr : before}) {
    if (!vrf) continue;
    const Wish::Kind kind = wish(vrf->wanted(key), key, ifIndex).kind;
    const bool concerned = isGone ? kind == Wish::Kind::permanent || kind == Wish::Kind::answered
                                  : (neighbour->state & NUD_INCOMPLETE) == 0 && asked_.contains(key);
    if (concerned) enqueue(*vrf, key);
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
  askAnew(address);
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
    lookForFeedDevices();
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
  const Orb::Clock& clock = scheduler()->loop().clock();
  const double begin = clock.now();
  const bool more = round_.step();
  roundSeconds_ += clock.now() - begin;
  return more;
}

// A refusal brings the next round forward: by a second at first, by twice as much after each round that was
// refused something again.
void NamespaceSm::walkFinishedNotification() {
  if (!sockets_ && !reopen_) return;
  const bool ended = round_.takeEnded();
  if (ended) {
    idleHosts_.roundEnds(roundSeconds_);
    idleHostProblems_.tell(idleHosts_);
    if (!idleHosts_.empty()) probeTask_.schedule();
  }
  const bool tried = std::exchange(openFailed_, false) || ended;
  if (std::exchange(refused_, false)) {
    if (tried || retryDelay_ == 0) retryDelay_ = std::clamp(retryDelay_ * 2, kFirstRetry, kLastRetry);
  } else if (tried) {
    retryDelay_ = 0;
  }
  for (const auto& [name, vrf] : vrfs_) {
    if (!std::exchange(vrf->refused, false) && tried) noProblem(*vrf);
  }
  const double period = std::clamp(idleHosts_.period(), kFirstRetry, kLongestPeriod);
  roundTask_.schedule(retryDelay_ > 0 ? std::min(retryDelay_, period) : period);
}

void NamespaceSm::handleRound() {
  scheduleWalk();
  if (!sockets_) return;
  if (!round_.idle()) return roundTask_.schedule(kNextRound);
  idleHosts_.roundBegins();
  roundSeconds_ = 0;
  round_.start(sockets_->dumps);
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
  const bool full = isFull(failure);
  const char* const seeLimit = "see net.ipv4.neigh.default.gc_thresh3";
  const std::string problem = what + ": " + (full ? "the kernel's neighbour table is full" : failure.text);
  vrf.status->problemIs(full ? problem + "; " + seeLimit : problem);
  problems_.problemIs(subject(vrf), problem + "; tried again", full ? seeLimit : "",
                      Switch::ProblemReporter::Left::some,
                      full ? Switch::Origin::perhapsStorm : Switch::Origin::itself);
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
