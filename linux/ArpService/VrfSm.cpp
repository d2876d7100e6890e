#include "ArpService/VrfSm.h"

#include <linux/rtnetlink.h>

#include <algorithm>
#include <cerrno>

#include "ArpService/Trace.h"
#include "Lanix/NamespaceGuard.h"

namespace ArpService {
namespace {

constexpr char kSource[] = "ArpService/VrfSm";
// What happens in the kernel is more urgent than the rounds that find what was missed.
constexpr unsigned kReceiveLevel = 2;
constexpr unsigned kRoundLevel = 3;
constexpr std::size_t kEntriesPerStep = 64;
constexpr std::size_t kProbesPerRound = 1024;
constexpr std::size_t kMessagesPerCall = 64;
constexpr int kNotificationBuffer = 4 << 20;
// rtnetlink answers from within the send, so this passes only when something is broken.
constexpr int kAnswerMilliseconds = 100;
constexpr double kSettle = 0.02;  // seconds: devices come in bursts
constexpr double kFirstRetry = 1;
constexpr double kLastRetry = 60;
constexpr double kMoreProbes = 1;
constexpr double kLongestPeriod = 3600;
// At the end. 100,000 neighbours take less than a second, and some on a busy machine; what ends a daemon that
// does not end itself waits longer than this.
constexpr double kLastWords = 20;

}  // namespace

Tracelet::Handle& traceHandle() {
  static Tracelet::Handle handle("ArpService");
  return handle;
}

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
             Ptr<Arp::VrfServiceStatus> status, const Settings& settings,
             const Ptr<Orb::TaskScheduler>& scheduler)
    : WalkSmBase(scheduler, "ArpService neighbours of VRF " + status->vrfName()),
      refreshSeconds_(settings.refreshSeconds),
      kernel_(settings.kernel),
      arpInputConfig_(std::move(arpInputConfig)),
      vrfStatus_(std::move(vrfStatus)),
      status_(std::move(status)),
      name_(status_->vrfName()),
      descriptor_(Mox::make<Orb::FileDescriptor>(scheduler->loop(), "ArpService VRF " + name_)),
      readable_(descriptor_),
      receiveTask_(scheduler, "ArpService changes in VRF " + name_, kReceiveLevel,
                   [this] { handleReadable(); }),
      roundTask_(scheduler, "ArpService round of VRF " + name_, kRoundLevel, [this] { roundStart(); }) {
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
  reopen_ = true;
  handleConfig();
}

VrfSm::~VrfSm() {
  const auto& clock = scheduler()->loop().clock();
  const double end = clock.now() + kLastWords;
  while (sockets_ && clock.now() < end && step()) {
  }
  close();
}

// --- The VRF and its namespace ---------------------------------------------------------------------------

void VrfSm::followVrf() {
  close();
  reopen_ = false;
  if (vrfStatus_->state() != Ip::VrfState::active) {
    status_->problemIs("");
    return;
  }
  if (!open()) {
    sockets_ = nullptr;
    reopen_ = roundDone_ = true;
    return;
  }
  descriptor_->descriptorIs(sockets_->notifications.fd());
  roundStart();
}

bool VrfSm::open() {
  const Lanix::NamespaceGuard guard(vrfStatus_->networkNamespace());
  if (!guard) {
    refuse("entering its namespace", {guard.error(), 0});
    return false;
  }
  sockets_ = std::make_unique<Sockets>(kernel_);
  Mox::Result<> opened;
  for (const Netlink::Socket* socket : {&sockets_->notifications, &sockets_->requests, &sockets_->dumps})
    opened = opened ? socket->opened() : opened;
  for (const unsigned group : {RTNLGRP_LINK, RTNLGRP_NEIGH})
    opened = opened ? sockets_->notifications.join(group) : opened;
  if (!opened) refuse("opening netlink", opened.failure());
  return static_cast<bool>(opened);
}

void VrfSm::close() {
  descriptor_->descriptorIs(-1);
  receiveTask_.cancel();
  roundTask_.cancel();
  sockets_ = nullptr;
  devices_.clear();
  intfs_.clear();
  stale_.clear();
  started_ = false;
  stage_ = Stage::idle;
  firstRound_ = round_ + 1;  // what was settled until now is not any more
  settled_ = 0;
}

void VrfSm::handleReadable() {
  Netlink::Notifications result;
  do {
    result = sockets_->notifications.receive(
        [this](const Netlink::Received& message) { handleMessage(message); }, kMessagesPerCall);
    if (result.overrun) roundTask_.schedule();
    if (!result.result) {
      refuse("receiving changes", result.result.failure());
      reopen_ = true;
      scheduleWalk();
      return;
    }
  } while (result.more && !mustYield());
  if (result.more) receiveTask_.schedule();
}

void VrfSm::handleMessage(const Netlink::Received& message) {
  if (message.type() == RTM_NEWLINK || message.type() == RTM_DELLINK) return handleDevice(message);
  if (message.type() != RTM_DELNEIGH) return;
  const auto gone = readNeighbour(message);
  const auto intf = gone ? intfs_.find(gone->ifIndex) : intfs_.end();
  if (intf == intfs_.end()) return;
  const Key key{gone->address, intf->second};
  const Arp::ArpEntryInput* entry = wanted(key);
  if (entry && !entry->dynamic) enqueue(key);
}

void VrfSm::handleDevice(const Netlink::Received& message) {
  const auto device = readDevice(message);
  if (!device) return;
  const bool here = message.type() == RTM_NEWLINK && device->intf;
  if (const auto before = intfs_.find(device->ifIndex);
      before != intfs_.end() && !(here && before->second == device->intf)) {
    if (const auto at = devices_.find(before->second); at != devices_.end() && at->second == device->ifIndex)
      devices_.erase(at);
    intfs_.erase(before);
    seenDevices_.erase(device->ifIndex);
  }
  if (!here) return;
  seenDevices_.insert(device->ifIndex);
  intfs_[device->ifIndex] = device->intf;
  const bool isNew = std::exchange(devices_[device->intf], device->ifIndex) != device->ifIndex;
  if (isNew && stage_ != Stage::devices) roundTask_.schedule(kSettle);
}

// --- The configuration -----------------------------------------------------------------------------------

void VrfSm::handleConfig() {
  config_.notifierIs(arpInputConfig_->vrf(name_));
  rescan_ = true;
  scheduleWalk();
}

// An IPv4 address may have moved to another interface. No interface's name sorts before "!".
void VrfSm::handleAddress(const Lanix::IpGenAddr& address) {
  for (auto at = entries_.lower_bound({address, Lanix::IntfId::fromName("!")});
       at != entries_.end() && at->first.address == address; ++at)
    enqueue(at->first);
  if (address.isIpv4()) {
    if (const auto* entry = config_->ipv4Collection().find(address.ipv4())) enqueue({address, entry->intf});
  }
}

const Arp::ArpEntryInput* VrfSm::wanted(const Key& key) const {
  if (!config_) return nullptr;
  if (key.address.isIpv6()) return config_->ipv6Collection().find({key.address.ipv6(), key.intf});
  const Arp::ArpEntryInput* entry = config_->ipv4Collection().find(key.address.ipv4());
  return entry && entry->intf == key.intf ? entry : nullptr;
}

void VrfSm::enqueue(const Key& key, bool unlessSettled) {
  Record& record = entries_[key];
  if (unlessSettled && isSettled(record)) return;
  settled_ -= isSettled(record) ? 1 : 0;
  record.settled = false;
  if (std::exchange(record.queued, true)) return;
  queue_.push_back(key);
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

// What is known to be due comes first, but not before the table was read: most of it may be there.
bool VrfSm::step() {
  if (!sockets_) return false;
  if (started_ && !queue_.empty()) {
    program();
    return true;
  }
  if (stage_ == Stage::idle && !stale_.empty()) {
    probe();
    return true;
  }
  if (stage_ == Stage::idle && started_ && rescan_) scanStart();
  switch (stage_) {
    case Stage::idle:
      return false;
    case Stage::devices:
      dumpStep([this](const Netlink::Received& message) { handleDevice(message); }, Stage::neighbours);
      if (stage_ == Stage::neighbours) devicesDone();
      break;
    case Stage::neighbours:
      compareStep();
      break;
    case Stage::ipv4:
      if (!config_) {
        stage_ = Stage::entries;
        break;
      }
      scan(config_->ipv4Collection(), ipv4Bookmark_, Stage::ipv6,
           [this](const Lanix::IpAddr& ip, const Arp::ArpEntryInput& entry) {
             enqueue({ip, entry.intf}, true);
           });
      break;
    case Stage::ipv6:
      if (!config_) {
        stage_ = Stage::entries;
        break;
      }
      scan(config_->ipv6Collection(), ipv6Bookmark_, Stage::entries,
           [this](const Arp::NeighborEntryKey& key, const Arp::NeighborEntryConfigInput&) {
             enqueue({key.addr, key.intf}, true);
           });
      break;
    case Stage::entries:
      scan(entries_, entriesBookmark_, Stage::idle, [this](const Key& key, const Record& record) {
        const bool open = !(isSettled(record) && record.dynamic);
        if ((open && record.round != round_) || (rescanning_ && !wanted(key))) enqueue(key);
      });
      if (stage_ == Stage::idle) roundEnd();
      break;
  }
  return true;
}

template <class Collection, class K, class Queue>
void VrfSm::scan(const Collection& collection, std::optional<K>& bookmark, Stage next, Queue queue) {
  auto at = bookmark ? collection.lowerBound(*bookmark) : collection.begin();
  for (std::size_t i = 0; i < kEntriesPerStep && at != collection.end(); ++i, ++at)
    queue(Collection::keyOf(*at), Collection::valueOf(*at));
  bookmark.reset();
  if (at != collection.end()) {
    bookmark = Collection::keyOf(*at);
  } else {
    stage_ = next;
  }
}

void VrfSm::walkFinishedNotification() {
  if (!sockets_ && !reopen_) return;
  const bool roundDone = std::exchange(roundDone_, false);
  if (std::exchange(refused_, false)) {
    if (roundDone || retryDelay_ == 0) retryDelay_ = std::clamp(retryDelay_ * 2, kFirstRetry, kLastRetry);
  } else if (roundDone) {
    retryDelay_ = 0;
    status_->problemIs("");
  }
  const double period = std::clamp(refreshSeconds_ / 4, kFirstRetry, kLongestPeriod);
  roundTask_.schedule(retryDelay_ > 0 ? std::min(retryDelay_, period) : period);
}

// --- Rounds ----------------------------------------------------------------------------------------------

void VrfSm::roundStart() {
  scheduleWalk();
  if (!sockets_) return;
  if (stage_ != Stage::idle) return roundTask_.schedule(kSettle);
  ++round_;
  seenDevices_.clear();
  stage_ = Stage::devices;
  dumpStart(deviceDump());
}

void VrfSm::dumpStart(const Netlink::Message& request) {
  if (const auto started = sockets_->dumps.dumpStart(request); !started) {
    refuse("asking for the kernel's tables", started.failure());
    roundEnd();
  }
}

void VrfSm::dumpStep(const std::function<void(const Netlink::Received&)>& handler, Stage next) {
  const Netlink::DumpSlice slice = sockets_->dumps.dumpSlice(handler);
  if (!slice.done) return;
  stage_ = next;
  if (slice.result) return;
  refuse("reading the kernel's tables", slice.result.failure());
  roundEnd();
}

// What the configuration holds is known from its events, but for what came or went with a VRF.
void VrfSm::scanStart() {
  rescanning_ = std::exchange(rescan_, false);
  stage_ = rescanning_ ? Stage::ipv4 : Stage::entries;
  ipv4Bookmark_.reset();
  ipv6Bookmark_.reset();
  entriesBookmark_.reset();
}

void VrfSm::roundEnd() {
  stage_ = Stage::idle;
  roundDone_ = true;
}

void VrfSm::devicesDone() {
  for (auto at = intfs_.begin(); at != intfs_.end();) {
    if (seenDevices_.contains(at->first)) {
      ++at;
      continue;
    }
    if (const auto device = devices_.find(at->second);
        device != devices_.end() && device->second == at->first)
      devices_.erase(device);
    at = intfs_.erase(at);
  }
  dumpStart(neighbourDump());
}

void VrfSm::compareStep() {
  dumpStep(
      [this](const Netlink::Received& message) {
        if (const auto actual = readNeighbour(message)) compare(*actual);
      },
      Stage::ipv4);
  if (stage_ != Stage::ipv4) return;
  started_ = true;
  scanStart();
}

void VrfSm::compare(const Neighbour& actual) {
  const auto intf = intfs_.find(actual.ifIndex);
  if (intf == intfs_.end()) return;
  const Key key{actual.address, intf->second};
  const Arp::ArpEntryInput* const want = wanted(key);
  const bool leave = judge(want, actual) == Verdict::leave;
  if (leave && actual.isStale() && actual.confirmedAgo >= refreshSeconds_) {
    if (stale_.size() < kProbesPerRound) {
      stale_.push_back(actual);
    } else {
      roundTask_.schedule(kMoreProbes);
    }
  }
  if (!leave) return enqueue(key);
  if (want) settle(key, want);
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

// --- Requests --------------------------------------------------------------------------------------------

void VrfSm::program() {
  std::vector<Key> keys;
  std::vector<Job> jobs;
  for (; jobs.size() < Netlink::Socket::kBatch && !queue_.empty(); queue_.pop_front()) {
    const Key& key = queue_.front();
    Record& record = entries_[key];
    record.queued = false;
    record.round = round_;
    const Arp::ArpEntryInput* const want = wanted(key);
    if (const auto device = devices_.find(key.intf); device != devices_.end()) {
      keys.push_back(key);
      jobs.push_back({device->second, key.address, want, {}, {}});
    } else if (!want) {
      settle(key, nullptr);
    }
  }
  bringInStep(sockets_->requests, jobs);
  for (std::size_t i = 0; i < jobs.size(); ++i) {
    const Job& job = jobs[i];
    const bool deviceGone = job.result.number() == ENODEV;
    if (job.result || (deviceGone && !job.wanted)) {
      settle(keys[i], job.wanted);
    } else if (!deviceGone) {  // of that the kernel tells
      refuse(keys[i].intf.toStrep() + ", neighbour " + job.address.toStrep(), job.result.failure());
    }
  }
}

void VrfSm::settle(const Key& key, const Arp::ArpEntryInput* want) {
  const auto at = entries_.try_emplace(key).first;
  Record& record = at->second;
  if (record.queued) return;
  settled_ -= isSettled(record) ? 1 : 0;
  if (!want) {
    entries_.erase(at);
    return;
  }
  ++settled_;
  record.settled = true;
  record.dynamic = want->dynamic;
  record.round = round_;
}

void VrfSm::refuse(const std::string& what, const Mox::Failure& failure) {
  refused_ = true;
  status_->refusalsIs(status_->refusals() + 1);
  if (!status_->problem().empty()) return;  // told once, not for each neighbour
  const bool full = failure.number == ENOBUFS || failure.number == ENOMEM || failure.number == ENOSPC;
  const std::string reason =
      full ? "the kernel's neighbour table is full; see net.ipv4.neigh.default.gc_thresh3" : failure.text;
  status_->problemIs(what + ": " + reason);
  ARP_SERVICE_TRACE(0, "VRF " << name_ << ": " << status_->problem() << "; tried again");
  TRACELET_RECORD("ARP service: VRF {}: {}", name_, status_->problem());
}

void VrfSm::publish() {
  const std::size_t configured = config_ ? config_->ipv4s() + config_->ipv6s() : 0;
  status_->programmedIs(settled_);
  status_->pendingIs(configured - std::min(settled_, configured));
}

}  // namespace ArpService
