#include "KernelEvpn/FeedSm.h"

#include <linux/neighbour.h>
#include <linux/rtnetlink.h>

#include <algorithm>
#include <utility>

#include "Lanix/NamespaceName.h"
#include "Orb/JsonObject.h"
#include "Suppression/RemoteAddress.h"

namespace KernelEvpn {
namespace {

using ArpSuppression::BindingSource;
using Netlink::Table;
using State = Netlink::RouteFeed::State;

constexpr char kPlugin[] = "KernelEvpn";
constexpr char kFeedSubject[] = "feed";
constexpr char kRefusedSubject[] = "addresses of the feed";
constexpr std::size_t kEntriesPerBatch = 64;
constexpr unsigned kTaskLevel = 3;
// Devices are made and put together in several steps: what is missing for this long is a problem.
constexpr double kSettle = 1;  // seconds
constexpr double kReopen = 1;
const std::vector<Table>& tables() {
  static const std::vector<Table> tables{Table::links, Table::neighbours};
  return tables;
}

// Externally learned and resolved: the routing daemon knows the host.
bool isRoute(const Netlink::Neighbour& neighbour) {
  return (neighbour.flags & NTF_EXT_LEARNED) != 0 && !neighbour.mac.isZero() &&
         !neighbour.mac.isMulticast() && (neighbour.isStatic() || neighbour.isResolved());
}

RemoteBindingKey keyOf(std::uint16_t vlanId, const Lanix::IpGenAddr& address) {
  RemoteBindingKey key;
  key.vlanId = Bridging::VlanId(vlanId);
  key.ipAddress = address;
  return key;
}

}  // namespace

FeedSm::FeedSm(Inputs inputs, Switch::ProblemReporter& problems, const Ptr<Orb::TaskScheduler>& scheduler)
    : WalkSmBase(scheduler, "KernelEvpn bindings"),
      table_(std::move(inputs.table)),
      readiness_(std::move(inputs.readiness)),
      ready_(std::move(inputs.ready)),
      problems_(problems),
      devices_([this](IfIndex before, IfIndex now) {
        if (onDevice_.has(before) || onDevice_.has(now)) scheduleWalk();
        problemTask_.schedule(kSettle);
      }),
      openTask_(scheduler, "KernelEvpn opening", kTaskLevel, [this] { open(); }),
      problemTask_(scheduler, "KernelEvpn problems", kTaskLevel, [this] { tellProblems(); }),
      retryTask_(scheduler, "KernelEvpn bindings without room", kTaskLevel, [this] { scheduleWalk(); }),
      config_(std::move(inputs.config),
              [this] {
                configured_ = false;
                scheduleWalk();
              }),
      feed_(scheduler, *this, kPlugin, Lanix::kDefaultNamespace, tables()) {
  if (readiness_) readiness_->awaitedIs(kPlugin, "the first reading of the feed");
  table_->remoteBindingCollection().tableWriter()->core().reconcileBegin();
  ipStatus_.on(Ip::Status::ipIntfStatusChanged, [this](const Lanix::IntfId& intf) {
    followAddresses(intf);
    handleAddresses();
  });
  ipStatusIs(std::move(inputs.ipStatus));
  scheduleWalk();
}

// --- What decides ----------------------------------------------------------------------------------------

void FeedSm::ipStatusIs(Ptr<const Ip::Status> ipStatus) {
  if (ipStatus == ipStatus_.notifier()) return;
  interfaces_.clear();
  ipStatus_.notifierIs(std::move(ipStatus));
  if (ipStatus_) {
    for (const auto& [intf, status] : ipStatus_->ipIntfStatusCollection()) followAddresses(intf);
  }
  handleAddresses();
}

void FeedSm::followAddresses(const Lanix::IntfId& intf) {
  const Ptr<const Ip::IpIntfStatus> status = ipStatus_->ipIntfStatus(intf);
  if (!status) {
    interfaces_.erase(intf);
    return;
  }
  auto& notifiee = interfaces_[intf];
  if (!notifiee) {
    notifiee = std::make_unique<Mox::Notifiee<const Ip::IpIntfStatus>>();
    notifiee->onAny([this](Mox::EventId) { handleAddresses(); });
  }
  notifiee->notifierIs(status);
}

void FeedSm::handleAddresses() {
  own_ = nullptr;
  scheduleWalk();
}

void FeedSm::handleConfig() {
  devices_.configIs(*config_.operator->());
  const Ptr<const Switch::EvpnConfig> evpn = config_->evpn();
  protocols_ = evpn->protocols();
  if (evpn->bindings() != bindings_) former_.push_back(std::exchange(bindings_, evpn->bindings()));
  reading_ = evpn->feed() == Switch::EvpnFeed::kernel;
  if (reading_ != (feed_.state() == State::open)) openTask_.schedule();
  if (!reading_) complete_ = true;
  problemTask_.schedule(kSettle);
}

// --- The kernel's tables ---------------------------------------------------------------------------------

void FeedSm::open() {
  if (!reading_) {
    feed_.closeIs();
    problems_.problemDel(kFeedSubject);
    return;
  }
  if (feed_.state() == State::closing) return;  // it says when it is done
  auto source = Netlink::KernelAccess::current().open(Lanix::kDefaultNamespace, tables());
  if (source) return feed_.openIs(std::move(*source));
  handleFailure(source.error());
  openTask_.schedule(kReopen);
}

void FeedSm::handleClosed() { openTask_.schedule(); }

void FeedSm::handleBroken() { openTask_.schedule(kReopen); }

void FeedSm::handleFailure(const std::string& problem) {
  problems_.problemIs(kFeedSubject, problem + "; what is known stands, and it is tried again");
}

void FeedSm::handleMessage(const Netlink::Received& message, Word word) {
  if (message.type() == RTM_NEWLINK || message.type() == RTM_DELLINK) return handleLink(message, word);
  if (message.type() != RTM_NEWNEIGH && message.type() != RTM_DELNEIGH) return;
  const auto neighbour = Netlink::readNeighbour(message);
  if (neighbour && !neighbour->isMacEntry())
    handleNeighbour(*neighbour, message.type() == RTM_DELNEIGH, word);
}

void FeedSm::handleLink(const Netlink::Received& message, Word word) {
  const auto link = Netlink::readLink(message);
  if (!link || link->ofBridge) return;
  if (message.type() == RTM_DELLINK) {
    if (word == Word::dump) return;
    links_.gone(link->index);
    devices_.linkDel(link->index);
  } else if (links_.said(link->index, word)) {
    devices_.linkIs(*link);
  }
}

void FeedSm::handleNeighbour(const Netlink::Neighbour& neighbour, bool gone, Word word) {
  const Key key{neighbour.ifIndex, neighbour.address};
  if (gone || !isRoute(neighbour)) {
    if (word == Word::dump) return;  // the sweep removes what is not said
    if (const auto known = neighbours_.gone(key)) forget(key, *known);
    return;
  }
  Record* const record = neighbours_.said(key, word);
  if (!record) return;
  if (record->mac.isZero()) onDevice_.add(key.ifIndex);  // a new one
  record->mac = neighbour.mac;
  record->protocol = neighbour.protocol;
  record->router = key.address.isIpv6() && (neighbour.flags & NTF_ROUTER) != 0;
  publish(key, *record);
}

void FeedSm::handleReconcile(Table table) {
  table == Table::links ? links_.reconcileBegin() : neighbours_.reconcileBegin();
}

bool FeedSm::handleSweep(Table table) {
  if (table == Table::links)
    return links_.sweep(kEntriesPerBatch, [this](IfIndex ifIndex, bool) { devices_.linkDel(ifIndex); });
  return neighbours_.sweep(kEntriesPerBatch,
                           [this](const Key& key, const Record& record) { forget(key, record); });
}

void FeedSm::handleTableRead(Table) {}

void FeedSm::handleRound(bool complete) {
  ++readings_;
  if (!complete) return;
  lastReading_ = scheduler()->loop().now();
  complete_ = true;
  problems_.problemDel(kFeedSubject);
  if (!swept_) scheduleWalk();
}

// --- The walk --------------------------------------------------------------------------------------------

bool FeedSm::walkStartedNotification() {
  if (!std::exchange(configured_, true)) handleConfig();
  stage_ = Stage::neighbours;
  bookmark_.reset();
  bindingBookmark_.reset();
  return true;
}

Orb::WalkRet FeedSm::walk() {
  Orb::WalkRet ret;
  do {
    ret.processed += kEntriesPerBatch;
    if (!step()) return ret;
  } while (!mustYield());
  ret.moreWork = true;
  return ret;
}

bool FeedSm::step() {
  const auto next = [this] { stage_ = static_cast<Stage>(static_cast<int>(stage_) + 1); };
  switch (stage_) {
    case Stage::neighbours:
      if (!neighbours_.visit(bookmark_, kEntriesPerBatch,
                             [this](const Key& key, Record& record) { publish(key, record); }))
        next();
      return true;
    case Stage::bindings:
      if (!bindingsStep(bindings_)) next();
      return true;
    case Stage::former:
      if (former_.empty()) {
        next();
      } else if (!bindingsStep(former_.back())) {
        former_.pop_back();
      }
      return true;
    case Stage::sweep:
      // Not before everything is known that belongs into the table.
      if (swept_ || !complete_) return false;
      if (table_->remoteBindingCollection().tableWriter()->core().sweep(kEntriesPerBatch)) {
        table_->remoteBindingCollection().touched();
        return true;
      }
      table_->remoteBindingCollection().touched();
      swept_ = true;
      return false;
    case Stage::over:
      break;
  }
  return false;
}

bool FeedSm::bindingsStep(const Bindings& bindings) {
  if (!bindings) return false;
  const Switch::RemoteBindings& all = bindings->all;
  auto at = bindingBookmark_ ? all.lower_bound(*bindingBookmark_) : all.begin();
  for (std::size_t i = 0; i < kEntriesPerBatch && at != all.end(); ++i, ++at)
    decide(at->first.vlanId.value(), at->first.ipAddress);
  bindingBookmark_.reset();
  if (at != all.end()) bindingBookmark_ = at->first;
  return at != all.end();
}

void FeedSm::walkFinishedNotification() {
  problemTask_.schedule();
  if (!swept_ || !ready_) return;
  if (readiness_) readiness_->awaitedIs(kPlugin, "");
  std::exchange(ready_, {})();
}

// --- The table -------------------------------------------------------------------------------------------

void FeedSm::publish(const Key& key, Record& record) {
  const std::uint16_t vlanId = devices_.vlanOf(key.ifIndex);
  const std::uint16_t before = std::exchange(record.vlan, vlanId);
  if (before != 0 && before != vlanId) decide(before, key.address);
  hold(key, record, vlanId != 0 && decide(vlanId, key.address));
}

void FeedSm::hold(const Key& key, Record& record, bool held) {
  if (std::exchange(record.held, held) == held) return;
  held_[key.address.isIpv4() ? 0 : 1] += held ? std::size_t{1} : ~std::size_t{0};
}

void FeedSm::forget(const Key& key, Record record) {
  onDevice_.remove(key.ifIndex);
  hold(key, record, false);
  if (record.vlan != 0) decide(record.vlan, key.address);
}

RemoteBinding FeedSm::wanted(std::uint16_t vlanId, const Lanix::IpGenAddr& address) {
  const IfIndex device = devices_.deviceOf(vlanId);
  const Record* const record = reading_ && device != 0 ? neighbours_.find({device, address}) : nullptr;
  if (record && std::ranges::count(protocols_, record->protocol) != 0)
    return {record->mac, false, BindingSource::feed, record->router};
  if (!bindings_) return {};
  const auto at = bindings_->all.find(keyOf(vlanId, address));
  return at == bindings_->all.end() ? RemoteBinding() : at->second;
}

bool FeedSm::decide(std::uint16_t vlanId, const Lanix::IpGenAddr& address) {
  const RemoteBindingKey key = keyOf(vlanId, address);
  RemoteBinding binding = wanted(vlanId, address);
  const bool refused = binding && refuses(key);
  if (refused) binding = {};
  if (refused ? refused_.insert(key).second : refused_.erase(key) != 0) problemTask_.schedule(kSettle);
  auto& collection = table_->remoteBindingCollection();
  // Before everything was read, what an earlier run left may be the feed's word.
  if (!complete_ && binding.source != BindingSource::feed && collection.entry(key)) return false;
  if (!binding) {
    collection.del(key);
  } else if (collection.set(key, binding) == Memtab::Written::kFull) {
    retryTask_.schedule(Netlink::kRoomRetry);
    return false;
  }
  return binding && binding.source == BindingSource::feed;
}

bool FeedSm::refuses(const RemoteBindingKey& key) {
  if (!ArpSuppression::isOneHost(key.ipAddress) || ArpSuppression::isLoopback(key.ipAddress)) return true;
  if (!own_) own_ = std::make_unique<Ip::OwnAddresses>(ipStatus_.notifier());
  return own_->interfaceOf(key.vlanId, key.ipAddress).has_value();
}

// --- What is told ----------------------------------------------------------------------------------------

void FeedSm::tellProblems() {
  const std::set<std::uint16_t> before = std::exchange(withoutDevice_, {});
  for (const auto& [vlanId, name] : devices_.vlans()) {
    const std::string bridge = reading_ && complete_ ? devices_.bridgeWithout(vlanId) : "";
    if (bridge.empty()) continue;
    withoutDevice_.insert(vlanId);
    const std::string number = std::to_string(vlanId);
    problems_.problemIs(
        "VLAN " + number,
        "bridge " + bridge +
            " has no 802.1Q device of the VLAN in the host's own namespace, so that the routing "
            "daemon keeps MAC addresses only: requests for hosts on other switches are flooded",
        "ip link add link " + bridge + " name vlan" + number + " type vlan id " + number +
            "; ip link set vlan" + number + " up");
  }
  for (const std::uint16_t vlanId : before) {
    if (!withoutDevice_.contains(vlanId)) problems_.problemDel("VLAN " + std::to_string(vlanId));
  }
  if (refused_.empty()) return problems_.problemDel(kRefusedSubject);
  const RemoteBindingKey& first = *refused_.begin();
  const std::string more = refused_.size() == 1 ? "" : ", and more";
  problems_.problemIs(
      kRefusedSubject,
      first.ipAddress.toStrep() + " on VLAN " + first.vlanId.toStrep() + more +
          ": no other switch can have the address, which is this switch's own or of no single "
          "host; it is not taken over",
      "see which switch advertises it: vtysh -c \"show evpn arp-cache vni all\"");
}

Mox::String FeedSm::status() const {
  Mox::String protocols;
  for (const std::uint8_t protocol : protocols_)
    protocols += (protocols.empty() ? "" : ",") + std::to_string(protocol);
  const double now = scheduler()->loop().now();
  return Orb::JsonObject()
      .add("source", reading_ ? "kernel" : "none")
      .json("protocols", "[" + protocols + "]")
      .add("ready", swept_)
      .add("ipv4", held_[0])
      .add("ipv6", held_[1])
      .add("refused", refused_.size())
      .add("readings", readings_)
      .add("overruns", feed_.losses())
      .json("readingAgeSeconds",
            lastReading_ ? std::to_string(static_cast<std::uint64_t>(now - *lastReading_)) : "null")
      .text();
}

std::optional<ArpSuppression::BindingOrigin::Origin> FeedSm::originOf(const RemoteBindingKey& key) const {
  const auto device = devices_.deviceOf(static_cast<std::uint16_t>(key.vlanId.value()));
  if (device == 0 || !neighbours_.find({device, key.ipAddress})) return std::nullopt;
  std::optional<ArpSuppression::BindingOrigin::Origin> origin;
  // A socket for this one question: who asks may be a copy of the process, without the others.
  Netlink::Socket socket(NETLINK_ROUTE);
  const auto asked =
      socket.get(Netlink::neighbourGet(device, key.ipAddress), [&](const Netlink::Received& message) {
        const auto neighbour = Netlink::readNeighbour(message);
        if (!neighbour || !isRoute(*neighbour)) return;
        const std::uint8_t protocol = neighbour->protocol;
        const Mox::String writer = protocol == Switch::EvpnConfig::kZebra ? "zebra"
                                   : protocol == Switch::EvpnConfig::kBgp
                                       ? "bgp"
                                       : "protocol " + std::to_string(protocol);
        origin = {writer, static_cast<std::uint32_t>(neighbour->confirmedAgo)};
      });
  return asked ? origin : std::nullopt;
}

}  // namespace KernelEvpn
