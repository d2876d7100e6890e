#include "ArpService/VrfSm.h"

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

struct VrfSm::Sockets {
  explicit Sockets(Netlink::Kernel* kernel)
      : notifications(NETLINK_ROUTE, {.receiveBuffer = kNotificationBuffer}, kernel),
        requests(NETLINK_ROUTE, {.receiveTimeoutMilliseconds = kAnswerMilliseconds}, kernel),
        dumps(NETLINK_ROUTE, {.receiveTimeoutMilliseconds = kAnswerMilliseconds}, kernel) {}
  Netlink::Socket notifications;
  Netlink::Socket requests;
  Netlink::Socket dumps;
};

VrfSm::VrfSm(Ptr<const Arp::ArpInputConfig> arpInputConfig, Ptr<const Ip::VrfStatusLocal> vrfStatus,
             Ptr<Arp::VrfServiceStatus> status, Switch::ProblemReporter& problems, const Settings& settings,
             const Ptr<Orb::TaskScheduler>& scheduler)
    : WalkSmBase(scheduler, "ArpService neighbours of VRF " + status->vrfName()),
      refreshSeconds_(settings.refreshSeconds),
      kernel_(settings.kernel),
      arpInputConfig_(std::move(arpInputConfig)),
      vrfStatus_(std::move(vrfStatus)),
      status_(std::move(status)),
      problems_(problems),
      name_(status_->vrfName()),
      descriptor_(Mox::make<Orb::FileDescriptor>(scheduler->loop(), "ArpService VRF " + name_)),
      readable_(descriptor_),
      round_(
          devices_, queue_, [this](const Netlink::Neighbour& actual) { compare(actual); },
          [this](const char* doing, const Mox::Failure& failure) { refuse(doing, failure); }),
      receiveTask_(scheduler, "ArpService changes in VRF " + name_, kReceiveLevel,
                   [this] { handleReadable(); }),
      roundTask_(scheduler, "ArpService round of VRF " + name_, kRoundLevel, [this] { handleRound(); }) {
  arpInputConfig_.on(Arp::ArpInputConfig::vrfChanged, [this](const Mox::String& vrf) {
    if (vrf == name_) handleConfig();
  });
  config_.on(Arp::ArpInputVrfConfig::ipv4Changed, [this](Lanix::IpAddr ip) { handleAddress(ip); });
  config_.on(Arp::ArpInputVrfConfig::ipv6Changed, [this](const Arp::NeighborEntryKey& key) {
    if (wanted({key.addr, key.intf})) enqueue({key.addr, key.intf});
    handleAddress(key.addr);
  });
  vrfStatus_.on(Ip::VrfStatusLocal::stateChanged, [this] { reopen_ = true, scheduleWalk(); });
  vrfStatus_.on(Ip::VrfStatusLocal::networkNamespaceChanged, [this] { reopen_ = true, scheduleWalk(); });
  readable_.on(Orb::FileDescriptor::readableCountChanged, [this] { receiveTask_.schedule(); });
  descriptor_->notifyOnReadableIs(true);
  handleConfig();
}

VrfSm::~VrfSm() {
  const auto& clock = scheduler()->loop().clock();
  const double end = clock.now() + kLastWords;
  while (sockets_ && clock.now() < end && step()) {
  }
  close();
  problems_.problemDel(subject());
}

// --- The VRF and its namespace ---------------------------------------------------------------------------

void VrfSm::followVrf() {
  close();
  reopen_ = false;
  if (vrfStatus_->state() != Ip::VrfState::active) return noProblem();
  if (const auto opened = open(); !opened) {
    refuse("opening its namespace", opened.failure());
    sockets_ = nullptr;
    reopen_ = openFailed_ = true;
    return;
  }
  descriptor_->descriptorIs(sockets_->notifications.fd());
  handleRound();
}

Mox::Result<> VrfSm::open() {
  const Lanix::NamespaceGuard guard(vrfStatus_->networkNamespace());
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

void VrfSm::close() {
  descriptor_->descriptorIs(-1);
  receiveTask_.cancel();
  roundTask_.cancel();
  round_.reset();
  sockets_ = nullptr;
  devices_.clear();
  stale_.clear();
  queue_.unsettleAll();
}

void VrfSm::handleReadable() {
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

void VrfSm::handleMessage(const Netlink::Received& message) {
  if (message.type() == RTM_NEWLINK || message.type() == RTM_DELLINK) {
    if (const Lanix::IntfId come = devices_.handleMessage(message)) {
      queue_.unpark(come);
      scheduleWalk();
    }
    return;
  }
  if (message.type() != RTM_DELNEIGH) return;
  const auto gone = Netlink::readNeighbour(message);
  const Lanix::IntfId intf = gone && !gone->isMacEntry() ? devices_.intf(gone->ifIndex) : Lanix::IntfId();
  if (!intf) return;
  const Arp::ArpEntryInput* entry = wanted({gone->address, intf});
  if (entry && !entry->dynamic) enqueue({gone->address, intf});
}

// --- The configuration -----------------------------------------------------------------------------------

void VrfSm::handleConfig() {
  config_.notifierIs(arpInputConfig_->vrf(name_));
  round_.configurationIsNew();
  scheduleWalk();
}

void VrfSm::handleAddress(const Lanix::IpGenAddr& address) {
  queue_.addAddress(address);
  if (address.isIpv4()) {
    if (const auto* entry = config_->ipv4Collection().find(address.ipv4()))
      queue_.add({address, entry->intf});
  }
  scheduleWalk();
}

void VrfSm::enqueue(const Key& key) {
  queue_.add(key);
  scheduleWalk();
}

// --- The walk --------------------------------------------------------------------------------------------

Orb::WalkRet VrfSm::walk() {
  Orb::WalkRet ret;
  do {
    ++ret.processed;
    if (reopen_) followVrf();
    if (!step()) break;
    ret.moreWork = true;
  } while (!mustYield());
  publish();
  return ret;
}

// What is known to be due comes first, but not before the kernel's table was read: most of it may be there.
bool VrfSm::step() {
  if (!sockets_) return false;
  if (round_.compared()) {
    if (queue_.unparkStep()) return true;
    if (!queue_.empty()) {
      program();
      return true;
    }
  }
  if (round_.idle() && !stale_.empty()) {
    probe();
    return true;
  }
  return round_.step(config_.get());
}

// A refusal brings the next round forward: by a second at first, by twice as much after each round that was
// refused something again.
void VrfSm::walkFinishedNotification() {
  if (!sockets_ && !reopen_) return;
  const bool ended = round_.takeEnded();
  const bool tried = std::exchange(openFailed_, false) || ended;
  if (std::exchange(refused_, false)) {
    if (tried || retryDelay_ == 0) retryDelay_ = std::clamp(retryDelay_ * 2, kFirstRetry, kLastRetry);
  } else if (tried) {
    retryDelay_ = 0;
    noProblem();
  }
  const double period = std::clamp(refreshSeconds_ / 4, kFirstRetry, kLongestPeriod);
  roundTask_.schedule(retryDelay_ > 0 ? std::min(retryDelay_, period) : period);
}

void VrfSm::handleRound() {
  scheduleWalk();
  if (!sockets_) return;
  if (!round_.idle()) return roundTask_.schedule(kNextRound);
  round_.start(sockets_->dumps);
}

void VrfSm::compare(const Netlink::Neighbour& actual) {
  const Lanix::IntfId intf = devices_.intf(actual.ifIndex);
  if (!intf) return;
  const Key key{actual.address, intf};
  const Arp::ArpEntryInput* const want = wanted(key);
  if (judge(want, actual) != Verdict::leave) return queue_.add(key);
  if (isStale(actual) && actual.confirmedAgo >= refreshSeconds_) {
    if (stale_.size() < kProbesPerRound) {
      stale_.push_back(actual);
    } else {
      roundTask_.schedule(kMoreProbes);
    }
  }
  if (want) queue_.settle(key, want);
}

void VrfSm::probe() {
  const std::size_t count = std::min(stale_.size(), Netlink::Socket::kBatch);
  std::vector<Netlink::Message> messages;
  for (std::size_t i = stale_.size() - count; i < stale_.size(); ++i)
    messages.push_back(probeRequest(stale_[i].ifIndex, stale_[i].address));
  stale_.resize(stale_.size() - count);
  std::uint64_t probes = 0;
  // One that has gone meanwhile is refused, which is as well.
  sockets_->requests.batch(messages,
                           [&](std::size_t, const Mox::Result<>& result) { probes += result ? 1 : 0; });
  status_->probesIs(status_->probes() + probes);
}

// A key whose interface is not there is parked, unless nothing is wanted for it.
void VrfSm::program() {
  std::vector<Key> keys;
  std::vector<Job> jobs;
  while (jobs.size() < Netlink::Socket::kBatch && !queue_.empty()) {
    const Key key = queue_.take();
    const Arp::ArpEntryInput* const want = wanted(key);
    if (const IfIndex ifIndex = devices_.ifIndex(key.intf); ifIndex != 0) {
      keys.push_back(key);
      jobs.push_back({ifIndex, key.address, want, {}, {}});
    } else if (want) {
      queue_.park(key);
    } else {
      queue_.settle(key, nullptr);
    }
  }
  bringInStep(sockets_->requests, jobs);
  for (std::size_t i = 0; i < jobs.size(); ++i) {
    const Job& job = jobs[i];
    const bool deviceGone = job.result.number() == ENODEV;
    if (job.result || (deviceGone && !job.wanted)) {
      queue_.settle(keys[i], job.wanted);
    } else if (deviceGone) {  // the kernel will tell
      queue_.park(keys[i]);
    } else {
      refuse(keys[i].intf.toStrep() + ", neighbour " + job.address.toStrep(), job.result.failure());
    }
  }
}

// --- What is told ----------------------------------------------------------------------------------------

void VrfSm::refuse(const std::string& what, const Mox::Failure& failure) {
  refused_ = true;
  status_->refusalsIs(status_->refusals() + 1);
  if (!status_->problem().empty()) return;  // told once, not for each neighbour
  const bool full = failure.number == ENOBUFS || failure.number == ENOMEM || failure.number == ENOSPC;
  const char* const seeLimit = "see net.ipv4.neigh.default.gc_thresh3";
  const std::string problem = what + ": " + (full ? "the kernel's neighbour table is full" : failure.text);
  status_->problemIs(full ? problem + "; " + seeLimit : problem);
  problems_.problemIs(subject(), problem + "; tried again", full ? seeLimit : "");
}

void VrfSm::noProblem() {
  status_->problemIs("");
  problems_.problemDel(subject());
}

void VrfSm::publish() {
  const std::size_t configured = config_ ? config_->ipv4s() + config_->ipv6s() : 0;
  status_->programmedIs(queue_.settled());
  status_->pendingIs(configured - std::min(queue_.settled(), configured));
}

}  // namespace ArpService
