#include "SoftForward/Datapath.h"

#include <linux/netlink.h>
#include <linux/rtnetlink.h>

#include <algorithm>
#include <utility>

#include "SoftForward/Shared.h"

namespace SoftForward {
namespace {

// A thousand VLANs come up with some 30,000 notifications of a kilobyte or two.
constexpr int kReceiveBuffer = 16 << 20;
constexpr std::size_t kMessagesAtOnce = 32;
constexpr int kReadingTries = 10;

// Frames on the pairs are up to SOFT_FORWARD_TRAP_PUSH longer than what is trapped; a device's MTU leaves the
// Ethernet header out of the count.
constexpr std::uint32_t kPairMtu = SOFT_FORWARD_MAX_FRAME + SOFT_FORWARD_TRAP_PUSH;

}  // namespace

struct Datapath::Peer {
  const char* outer;
  Program ingress;
  Program egress;
  bool strips;  // the trap header, before ingress
};

Datapath::Datapath(Programs& programs, Looked looked)
    : looked_(std::move(looked)),
      requests_(NETLINK_ROUTE),
      dumps_(NETLINK_ROUTE),
      notifications_(NETLINK_ROUTE, {.receiveBuffer = kReceiveBuffer}),
      links_([this](const Netlink::Link& link, LinkTable::Change change) { linkChanged(link, change); }),
      filters_(requests_, dumps_),
      pairs_(requests_, links_),
      programs_(programs),
      trunks_(links_, filters_, pairs_, programs_,
              {[this](const std::string& bridge) { return vlansNaming(bridge, true); },
               [this](const std::string& device) { return vlansNaming(device, false); },
               [this](const std::string& device) { return termsOf_(device); },
               [this](std::uint16_t id) { dirty_.insert(id); }}) {}

Mox::Result<> Datapath::open() {
  for (Netlink::Socket* socket : {&requests_, &dumps_, &notifications_})
    if (!socket->open()) return Netlink::describe("opening a netlink socket", socket->opened());
  for (const unsigned group : {RTNLGRP_LINK, RTNLGRP_TC}) {
    if (const auto joined = notifications_.join(group); !joined)
      return Netlink::describe("joining the kernel's notifications", joined);
  }
  if (const auto opened = trunks_.open(); !opened) return opened;
  if (const auto loaded = programs_.load(); !loaded) return loaded;
  read();
  return {};
}

// --- What is wanted ------------------------------------------------------------------------------------

void Datapath::vlanIs(std::uint16_t id, VlanWanted wanted) {
  vlanDel(id);
  std::vector<std::string> names = wanted.tunnelPorts;
  names.push_back(wanted.bridge);
  for (const std::string& name : names) names_[name].insert(id);
  Vlan& vlan = vlans_[id];
  vlan.wanted = std::move(wanted);
  vlan.configured = true;
  for (const std::string& name : names) configurationChanged(name);
}

void Datapath::vlanDel(std::uint16_t id) {
  const auto known = vlans_.find(id);
  if (known == vlans_.end() || !known->second.configured) return;
  Vlan& vlan = known->second;
  vlan.configured = false;
  std::vector<std::string> names = vlan.wanted.tunnelPorts;
  names.push_back(vlan.wanted.bridge);
  for (const std::string& name : names) {
    configurationChanged(name);
    names_[name].erase(id);
    if (names_[name].empty()) names_.erase(name);
  }
}

void Datapath::configurationChanged(const std::string& device) {
  namedChanged(device);
  if (const Netlink::Link* link = links_.find(device)) trunks_.linkChanged(*link);
}

// Those whose bridge it is, or one of whose tunnel ports.
Netlink::VlanIds Datapath::vlansNaming(const std::string& device, bool asBridge) const {
  Netlink::VlanIds vlans;
  const auto named = names_.find(device);
  if (named == names_.end()) return vlans;
  for (const std::uint16_t id : named->second) {
    const VlanWanted& wanted = vlans_.at(id).wanted;
    if (asBridge ? wanted.bridge == device : std::ranges::count(wanted.tunnelPorts, device) != 0)
      vlans.set(id);
  }
  return vlans;
}

void Datapath::activeVlanIs(std::uint16_t id, bool active) {
  Vlan& vlan = vlans_[id];
  vlan.active = active;
  // Nobody takes up what is trapped from here on; all the rest can wait for its turn, which tries this again as well.
  if (!active) static_cast<void>(trappedIs(id, vlan, false));
  dirty_.insert(id);
}

void Datapath::interfaceIs(std::uint16_t id, Switch::VlanInterface interface) {
  vlans_[id].interface = interface;
  dirty_.insert(id);
}

void Datapath::ownTrappedIs(bool trapped) {
  if (std::exchange(ownTrapped_, trapped) != trapped) allVlansDirty();
  trunks_.ownTrappedIs(trapped);
}

void Datapath::passedAddressIs(const Lanix::EthAddr& address) {
  if (std::exchange(passedAddress_, address) != address) dirty_.insert(kShared);
}

void Datapath::sharedAddressIs(const Lanix::EthAddr& address) {
  if (std::exchange(sharedAddress_, address) != address) allVlansDirty();
  trunks_.sharedAddressIs(address);
}

void Datapath::portTermsAre(TermsOf termsOf) {
  termsOf_ = std::move(termsOf);
  allVlansDirty();
  trunks_.allChanged();
}

void Datapath::answerTermsAre(const AnswerTerms& terms) {
  answerTerms_ = terms;
  dirty_.insert(kShared);
}

Netlink::IfIndex Datapath::deviceIndex(const std::string& name) const {
  const Netlink::Link* link = links_.find(name);
  return link ? link->index : 0;
}

std::string Datapath::deviceName(Netlink::IfIndex ifIndex) const {
  const Netlink::Link* link = links_.find(ifIndex);
  return link ? link->name : std::string();
}

void Datapath::allVlansDirty() {
  for (const auto& [id, vlan] : vlans_) dirty_.insert(id);
}

// --- Following the kernel ------------------------------------------------------------------------------

void Datapath::read() {
  reading_ = Reading::links;
  dumping_ = false;
  readingTries_ = 0;
}

bool Datapath::readSlice() {
  const bool links = reading_ == Reading::links;
  if (!dumping_) {
    if (links) {
      links_.readingBegins();
    } else {
      filters_.clear();
    }
    const auto started = dumps_.dumpStart(links ? Netlink::linkDump() : Filters::qdiscDump());
    dumping_ = static_cast<bool>(started);
    if (!started) return readingFailed(started);
  }
  const Netlink::DumpSlice slice =
      dumps_.dumpSlice([this](const Netlink::Received& message) { handleMessage(message); });
  if (!slice.done) return true;
  dumping_ = false;
  if (!slice.result) return readingFailed(slice.result);
  // What changed meanwhile is in the notifications, but an interrupted dump may have passed over what did
  // not.
  if (slice.interrupted && ++readingTries_ < kReadingTries) return true;
  if (links) {
    links_.readingEnds();
    reading_ = Reading::qdiscs;
    readingTries_ = 0;
  } else {
    reading_ = Reading::done;
    dirty_.insert(kShared);
    allVlansDirty();
    trunks_.allChanged();
  }
  return true;
}

bool Datapath::readingFailed(const Mox::Result<>& why) {
  readingFailed_ = true;
  Standing standing;
  standing.reason = "the network devices cannot be read: " + why.error();
  standing.refused = true;
  again_.insert(kShared);
  looked_(kShared, standing);
  return false;
}

void Datapath::handleMessage(const Netlink::Received& message) {
  links_.apply(message);
  const Netlink::IfIndex filtered = filters_.apply(message);
  if (filtered == 0) return;
  if (const auto port = ports_.find(filtered); port != ports_.end()) dirty_.insert(port->second.vlan);
  trunks_.filterChanged(filtered);
  if (const Netlink::Link* link = links_.find(filtered)) ownedChanged(*link);
}

bool Datapath::receive() {
  const Netlink::Notifications batch = notifications_.receive(
      [this](const Netlink::Received& message) { handleMessage(message); }, kMessagesAtOnce);
  // What was lost is read again. An error of the socket is no different: it is told of once.
  if (batch.overrun || !batch.result) read();
  return batch.more;
}

void Datapath::linkChanged(const Netlink::Link& link, LinkTable::Change change) {
  if (change == LinkTable::Change::gone) {
    // The kernel took the programs off with the device, and the next one may get its index.
    filters_.forget(link.index);
    pairs_.forget(link.index);
    if (const auto port = ports_.find(link.index); port != ports_.end()) {
      dirty_.insert(port->second.vlan);
      vlans_[port->second.vlan].ports.erase(link.index);
      ports_.erase(port);
      static_cast<void>(programs_.portDel(link.index));  // without its device an entry is never asked for
    }
  }
  // A port that leaves its bridge leaves its entries there.
  if (const auto port = ports_.find(link.index); port != ports_.end())
    if (Vlan& vlan = vlans_[port->second.vlan]; vlan.taking == link.index && link.master != vlan.paths.bridge)
      vlan.taking = 0;
  if (change == LinkTable::Change::gone) {
    trunks_.linkGone(link);
  } else {
    trunks_.linkChanged(link);
  }
  ownedChanged(link);
  namedChanged(link.name);
  deviceChanged_(link.name);
  // A port of a bridge that filters VLANs concerns those that name it only.
  if (const Netlink::Link* bridge = links_.find(link.master); bridge != nullptr && !Trunks::isServed(*bridge))
    namedChanged(bridge->name);
}

void Datapath::ownedChanged(const Netlink::Link& link) {
  const auto owner = ownerOf(link.name);
  if (!owner) return;
  if (owner->kind == Owner::Kind::bridge) return trunks_.linkChanged(link);
  const auto id = static_cast<std::uint16_t>(owner->number);
  if (id == kShared || vlans_.contains(id)) dirty_.insert(id);
}

void Datapath::namedChanged(const std::string& device) {
  const auto named = names_.find(device);
  if (named != names_.end()) dirty_.insert(named->second.begin(), named->second.end());
}

// --- The work ------------------------------------------------------------------------------------------

bool Datapath::followVlans() {
  if (trunks_.receive()) return true;
  return reading_ == Reading::done && trunks_.lookPort();
}

bool Datapath::step() {
  if (reading_ != Reading::done) return !readingFailed_ && readSlice();
  if (receive() || reading_ != Reading::done || trunks_.receive()) return true;
  if (trunks_.step()) return true;
  if (!dirty_.empty()) {
    look(dirty_.extract(dirty_.begin()).value());
    return true;
  }
  if (!std::exchange(staleFound_, true)) findStale();
  if (stale_.empty()) return false;
  const Netlink::IfIndex ifIndex = stale_.back();
  stale_.pop_back();
  if (const auto gone = staleDel(ifIndex); !gone) {
    Standing standing = shared_;
    standing.complaints.push_back({"what an earlier run left", gone.error(), {}});
    looked_(kShared, standing);
  }
  return true;
}

void Datapath::look(std::uint16_t id) {
  again_.erase(id);
  Standing standing;
  if (id == kShared) {
    standing = lookShared();
  } else {
    const auto known = vlans_.find(id);
    if (known == vlans_.end()) return;
    standing = lookVlan(id, known->second);
    if (!known->second.configured) {
      // Nothing is wrong with it any more but what the kernel would not take out.
      standing.ready = true;
      standing.reason.clear();
      if (!standing.refused && !known->second.active && known->second.interface.otherEnd == 0 &&
          !again_.contains(id))
        vlans_.erase(known);
    }
  }
  if (standing.passing || standing.refused) again_.insert(id);
  looked_(id, standing);
}

void Datapath::againIs() {
  readingFailed_ = false;
  for (const std::uint16_t id : again_)
    if (const auto vlan = vlans_.find(id); vlan != vlans_.end()) vlan->second.lapsed = true;
  dirty_.merge(again_);
  again_.clear();
  trunks_.againIs();
}

// --- What all VLANs share ------------------------------------------------------------------------------

Mox::Result<bool> Datapath::peerIs(const Peer& peer) {
  const PairNames names = pairNames(peer.outer);
  const auto shaped = pairs_.shapeIs({names, kPairMtu, 0, {}});
  if (!shaped || !*shaped) return shaped;
  const auto found = pairs_.find(names);
  if (!found) return found.failure();
  const Pair& pair = **found;
  // The programs come first, so that no frame passes an inner end without them.
  const Hook ingress{pair.inner.index, Direction::ingress, names.inner};
  const Hook egress{pair.inner.index, Direction::egress, names.inner};
  if (const auto result = filters_.attachedIs(ingress, programs_.loaded(peer.ingress)); !result)
    return result.failure();
  if (const auto result = filters_.attachedIs(egress, programs_.loaded(peer.egress)); !result)
    return result.failure();
  if (const LoadedProgram strip = programs_.loaded(Program::injectStrip);
      peer.strips && pair.inner.xdpProgram != strip.id) {
    const auto result = pairs_.xdpIs(pair.inner, strip.descriptor);
    if (!result) return result.failure();
    return false;
  }
  return pairs_.upIs(pair);
}

Standing Datapath::lookShared() {
  constexpr Peer kPeers[] = {{kSnoop, Program::dropAll, Program::trapEgress, false},
                             {kInject, Program::injectIngress, Program::dropAll, true},
                             {kFabric, Program::fabricIngress, Program::dropAll, false}};
  Standing standing;
  // One at a time: the kernel tells of each, and all of them at once would make a long turn.
  bool made = false;
  for (auto peer = std::begin(kPeers); peer != std::end(kPeers) && !made; ++peer) {
    const auto stands = peerIs(*peer);
    if (stands && *stands) continue;
    made = static_cast<bool>(stands);
    standing.refused = standing.refused || stands.number() != 0;
    if (!standing.reason.empty()) continue;
    const std::string device = std::string("device ") + peer->outer;
    if (!stands) {
      standing.reason = stands.error();
      standing.passing = false;
    } else {
      standing.reason =
          device + (shared_.ready ? " is gone or was changed: it is made again" : " is being made");
      standing.passing = !shared_.ready;
    }
  }
  standing.ready = standing.reason.empty();
  const Netlink::Link* inner = links_.find(pairNames(kSnoop).inner);
  const Netlink::IfIndex trapPeer = standing.ready && inner != nullptr ? inner->index : 0;
  auto written = programs_.trapPeerIs(trapPeer);
  if (written) written = programs_.passedAddressIs(passedAddress_);
  if (written) written = programs_.answerTermsAre(answerTerms_);
  if (!written) {
    standing.ready = false;
    standing.refused = true;
    standing.reason = written.error();
  }
  if (shared_.ready != standing.ready || shared_.reason != standing.reason) allVlansDirty();
  shared_ = standing;
  return standing;
}

// --- What earlier runs left, and the end ---------------------------------------------------------------

void Datapath::findStale() {
  const auto isWanted = [this](const Owner& owner) {
    if (owner.kind == Owner::Kind::agent) return true;
    if (owner.kind == Owner::Kind::bridge) return trunks_.hasBridge(owner.number);
    const auto vlan = vlans_.find(static_cast<std::uint16_t>(owner.number));
    return vlan != vlans_.end() && vlan->second.configured;
  };
  for (const auto& [index, link] : links_.links())
    if (const auto owner = ownerOf(link.name); link.kind == "veth" && owner && !isWanted(*owner))
      stale_.push_back(index);
  for (const Netlink::IfIndex index : filters_.devices()) {
    const Netlink::Link* link = links_.find(index);
    if (!hasPort(index) && (link == nullptr || !ownerOf(link->name))) stale_.push_back(index);
  }
}

Mox::Result<> Datapath::staleDel(Netlink::IfIndex ifIndex) {
  const Netlink::Link* link = links_.find(ifIndex);
  if (link == nullptr) return {};
  if (const auto owner = ownerOf(link->name))
    return owner->kind == Owner::Kind::bridge ? trunks_.wayInDel(owner->number) : pairs_.del(*link);
  if (hasPort(ifIndex)) return {};
  for (const Direction direction : {Direction::ingress, Direction::egress}) {
    if (auto gone = filters_.detach({ifIndex, direction, link->name}); !gone) return gone;
  }
  return {};
}

Mox::Result<> Datapath::close() {
  const Mox::Result<> stopped = programs_.trapPeerIs(0);
  const Mox::Result<> removed = removeAll([](const std::string&) {});
  return stopped ? removed : stopped;
}

Mox::Result<> Datapath::removeAll(const Removed& removed) {
  Mox::Result<> failed;
  const auto note = [&](const Mox::Result<>& result) {
    if (!result && failed) failed = result;
  };
  while (reading_ != Reading::done && !readingFailed_) readSlice();
  while (receive()) {
  }
  for (const auto& [index, link] : links_.links()) {
    const Pairs::Taken taken = ownerOf(link.name) ? Pairs::takenBy(link) : Pairs::Taken();
    if (taken.address.isZero()) continue;
    note(takenBack(taken));
    if (const std::string taker = deviceName(taken.device); !taker.empty())
      removed("shared gateway MAC " + taken.address.toStrep() + " of " + taker);
  }
  note(pairs_.delAll(removed));
  while (receive()) {
  }
  note(filters_.removeAll([&](Netlink::IfIndex ifIndex, const std::string& what) {
    removed(what + " of device " + deviceName(ifIndex));
  }));
  return failed;
}

}  // namespace SoftForward
