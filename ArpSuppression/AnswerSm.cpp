#include "ArpSuppression/AnswerSm.h"

#include <optional>
#include <utility>
#include <vector>

#include "ArpSuppression/Trace.h"

namespace ArpSuppression {

namespace {

// Keys that are read from a table together.
constexpr std::size_t kKeysPerVisit = 64;

// A host like any other asks: neither the switch itself, nor the owner, nor a probe or an announcement, on a
// port that no station is on.
ArpSuppressionSm::Request ordinaryRequest(const AnswerKey& key) {
  const auto somebody = [&key](std::uint8_t last) -> Lanix::IpGenAddr {
    if (key.ipAddress.isIpv4()) return Lanix::IpAddr(last);
    return Lanix::Ip6Addr({0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, last});
  };
  const Lanix::IpGenAddr first = somebody(1);
  return {key.vlanId, key.ipAddress == first ? somebody(2) : first, Lanix::EthAddr::broadcast(),
          key.ipAddress, Lanix::IntfId::fromName("/")};
}

// The address that a key is about; nothing when it is of no interest, or not sound: whoever writes a shared
// table may write anything.
std::optional<AnswerKey> addressOf(Bridging::VlanId vlanId, const Lanix::IpGenAddr& address) {
  if (!vlanId.sound() || !address || !address.sound()) return std::nullopt;
  return AnswerKey{vlanId, address};
}
std::optional<AnswerKey> addressOf(const Arp::Table::ArpKey& key) {
  const std::uint32_t vlan = key.intfId.vlanNumber();
  if (!Bridging::VlanId::valid(vlan)) return std::nullopt;
  return addressOf(Bridging::VlanId(vlan), key.addr);
}
// Of a binding, or of an answer: one that is not sound is found, and deleted.
std::optional<AnswerKey> addressOf(const AnswerKey& key) { return key; }

}  // namespace

AnswerSm::AnswerSm(Ptr<Orb::TaskScheduler> scheduler, Inputs inputs, Outputs outputs)
    : WalkSmBase(std::move(scheduler), "AnswerSm"),
      arpSuppressionSm_(std::move(inputs.arpSuppressionSm)),
      arpSuppressionStatus_(std::move(inputs.arpSuppressionStatus)),
      remoteBindingConfig_(std::move(inputs.remoteBindingConfig)),
      remoteBindingStatus_(std::move(inputs.remoteBindingStatus)),
      remoteBindingStatusSm_(std::move(inputs.remoteBindingStatusSm)),
      vlanL3InfoStatus_(std::move(inputs.vlanL3InfoStatus)),
      arpStatus_(std::move(inputs.arpStatus)),
      bridgingConfig_(std::move(inputs.bridgingConfig)),
      bridgingStatus_(std::move(inputs.bridgingStatus)),
      evpnStatus_(std::move(inputs.evpnStatus)),
      neverAnswer_(std::move(inputs.neverAnswer)),
      config_(std::move(inputs.config), [this] { configChanged_ = true, scheduleWalk(); }),
      answerStatus_(std::move(outputs.answerStatus)),
      answerVlans_(std::move(outputs.answerVlans)) {
  arpSuppressionStatus_.on(ArpSuppressionStatus::vlanIdChanged,
                           [this](Bridging::VlanId vlanId) { outdated(vlanId); });
  // Not the input's own events: a binding that there is room for at last is no change of the input.
  remoteBindingStatusSm_.on(RemoteBindingStatusSm::knownBindingChanged,
                            [this](const RemoteBindingKey& key) { handleKnownBinding(key); });
  remoteBindingStatus_.on(RemoteBindingStatus::refusingChanged, [this] { allOutdated(); })
      .on(RemoteBindingStatus::initialPopulationCompleteChanged, [this] { scheduleWalk(); });
  arpStatus_.on(Arp::Table::Status::arpEntryChanged,
                [this](const Arp::Table::ArpKey& key) { handleArpEntry(key); });
  bridgingStatus_.on(Memtab::Bridging::Status::fdbChanged,
                     [this](const Bridging::HostKey& key) { handleFdb(key); });
  bridgingConfig_.on(Bridging::Config::vidToFidMapChanged,
                     [this](Bridging::VlanId vlanId) { outdated(vlanId); });
  vlanL3InfoStatus_.on(VlanL3InfoStatus::vlanL3InfoChanged,
                       [this](Bridging::VlanId vlanId) { handleVlanL3Info(vlanId); });
  neverAnswer_.on(NeverAnswer::prefixChanged, [this] { allOutdated(); });
  evpnStatus_.on(Evpn::EvpnStatus::segmentStatusChanged,
                 [this](const Lanix::IntfId& intfId) { handleSegment(intfId); });
  for (const auto& [vlanId, info] : vlanL3InfoStatus_->vlanL3InfoCollection()) handleVlanL3Info(vlanId);
  if (evpnStatus_) {
    for (const auto& [intfId, segment] : evpnStatus_->segmentStatusCollection()) handleSegment(intfId);
  }
  fabric_.on(VrfInterfaceWatch::kniIntfIfIndexChanged, [this] { handleFabric(); });
  fabricVrf_.on(VrfInfo::netNsChanged, [this] { handleFabric(); }).on(VrfInfo::netlinkSocketChanged, [this] {
    handleFabric();
  });
  fabric_.notifierIs(vlanL3InfoStatus_->vrfInterfaceWatch("fabric"));
  if (fabric_) fabricVrf_.notifierIs(fabric_->vrfInfo());
  fabricUsable_ = arpSuppressionSm_->fabricUsable();
  handleConfig();
  allOutdated();
}

AnswerSm::~AnswerSm() { answerVlans_->vlanIdDelAll(); }

// --- Events ----------------------------------------------------------------------------------------------

void AnswerSm::outdated(Bridging::VlanId vlanId) {
  answerVlans_->vlanIdDel(vlanId);
  outdated_.set(vlanId.value());
  if (walking_.none()) scheduleWalk();
}

void AnswerSm::allOutdated() {
  answerVlans_->vlanIdDelAll();
  outdated_.set();
  if (walking_.none()) scheduleWalk();
}

// What is known of the kernel's neighbours stays right meanwhile: whatever has one is walked as well.
void AnswerSm::handleKnownBinding(const RemoteBindingKey& key) {
  if (outdated_[key.vlanId.value()]) return;
  if (const auto address = addressOf(key)) update(*address);
}

void AnswerSm::handleArpEntry(const Arp::Table::ArpKey& key) {
  if (const auto address = addressOf(key)) update(*address);
}

void AnswerSm::handleFdb(const Bridging::HostKey& key) {
  if (Bridging::VlanId::valid(key.fid) && arpSuppressionSm_->fidOf(Bridging::VlanId(key.fid)) == key.fid)
    handleStation({Bridging::VlanId(key.fid), key.macAddress});
  for (const auto& [vlanId, fid] : bridgingConfig_->vidToFidMapCollection()) {
    if (fid == key.fid && fid != vlanId.value()) handleStation({vlanId, key.macAddress});
  }
}

// A station's addresses: those that other switches say, and those of which the kernel says something else.
void AnswerSm::handleStation(const VlanIdMacAddress& station) {
  if (const Ptr<const RemoteMacToIp> addresses = remoteBindingStatus_->macToIp(station)) {
    for (const Lanix::IpGenAddr& ipAddress : addresses->ipAddress().keys()) {
      if (const auto address = addressOf(station.vlanId, ipAddress)) update(*address);
    }
  }
  if (const auto known = neighboursOf_.find(station); known != neighboursOf_.end()) {
    for (const Lanix::IpGenAddr& address : known->second.keys()) update({station.vlanId, address});
  }
}

void AnswerSm::handleVlanL3Info(Bridging::VlanId vlanId) {
  const Ptr<const VlanL3Info> info = vlanL3InfoStatus_->vlanL3Info(vlanId);
  vlans_.erase(vlanId);
  if (info) {
    VlanWatch& watch = vlans_[vlanId];
    const auto usabilityChanged = [this, vlanId] { outdated(vlanId); };
    watch.vlanL3Info.on(VlanL3Info::kniIntfIfIndexChanged, usabilityChanged)
        .on(VlanL3Info::ipAddressChanged, [this, vlanId](const Lanix::IpGenAddr& ipAddress) {
          if (const auto address = addressOf(vlanId, ipAddress)) update(*address);
        });
    watch.vrfInfo.on(VrfInfo::vrfIdChanged, usabilityChanged)
        .on(VrfInfo::netNsChanged, usabilityChanged)
        .on(VrfInfo::netlinkSocketChanged, usabilityChanged);
    watch.vlanL3Info.notifierIs(info);
    watch.vrfInfo.notifierIs(info->vrfInfo());
  }
  outdated(vlanId);
}

void AnswerSm::handleSegment(const Lanix::IntfId& intfId) {
  segments_.erase(intfId);
  if (const Ptr<const Evpn::SegmentStatus> segment = evpnStatus_->segmentStatus(intfId)) {
    segments_[intfId]
        .on(Evpn::SegmentStatus::designatedForwarderTepChanged,
            [this](Bridging::VlanId vlanId) { outdated(vlanId); })
        .notifierIs(segment);
  }
  allOutdated();
}

void AnswerSm::handleFabric() {
  if (fabricUsable_ == arpSuppressionSm_->fabricUsable()) return;
  fabricUsable_ = !fabricUsable_;
  allOutdated();
}

// Of a VLAN that has no answers any more the data plane is told as well, and uses none of them from then on.
void AnswerSm::handleConfig() {
  if (!config_) return;
  Vlans without, withoutNd;
  if (!config_->softForward()->answers().enabled) without.set();
  for (const auto& [vlanId, vlan] : config_->vlanCollection()) {
    if (!vlan->answers()) without.set(vlanId.value());
    if (!vlan->nd()) withoutNd.set(vlanId.value());
  }
  const Vlans changed =
      (without ^ std::exchange(without_, without)) | (withoutNd ^ std::exchange(withoutNd_, withoutNd));
  for (std::uint16_t vlan = Bridging::VlanId::kMin; vlan <= Bridging::VlanId::kMax; ++vlan) {
    if (changed[vlan]) outdated(Bridging::VlanId(vlan));
  }
}

// --- One address -----------------------------------------------------------------------------------------

Answer AnswerSm::answerOf(const ArpSuppressionSm::Request& request,
                          const ArpSuppressionSm::Facts& facts) const {
  if (!arpSuppressionStatus_->vlanId(request.vlanId)) return {};
  const Outcome outcome = arpSuppressionSm_->decide(request, facts);
  if (outcome.kind != Outcome::Kind::answered) return {};
  const ArpSuppressionCounterId counter =
      request.targetIpAddress.isIpv6() ? ArpSuppressionCounterId::ndAnswered : *outcome.answerCounter;
  return {outcome.macAddress, facts.fdbEntry.intf, static_cast<std::uint8_t>(counter),
          request.targetIpAddress.isIpv6() && facts.router};
}

bool AnswerSm::isWithout(const AnswerKey& key) const {
  return without_[key.vlanId.value()] || (key.ipAddress.isIpv6() && withoutNd_[key.vlanId.value()]);
}

void AnswerSm::update(const AnswerKey& key) {
  if (!key.vlanId.sound() || !key.ipAddress || !key.ipAddress.sound() || key.padding != 0) {
    answerStatus_->answerDel(key);  // left by another writer of the table
    return;
  }
  if (isWithout(key)) {
    neighbourIs(key, {});
    answerStatus_->answerDel(key);
    return;
  }
  const ArpSuppressionSm::Request request = ordinaryRequest(key);
  const ArpSuppressionSm::Facts facts = arpSuppressionSm_->gather(request);
  // While no port here is on an Ethernet segment, a neighbour without a binding never makes an answer.
  const bool counts = facts.remoteBinding ? facts.localBindingMac != facts.remoteBinding.macAddress
                                          : evpnStatus_ && evpnStatus_->segmentStatuss() != 0;
  neighbourIs(key, counts ? facts.localBindingMac : Lanix::EthAddr());
  if (const Answer answer = answerOf(request, facts)) {
    answerStatus_->answerIs(key, answer);
  } else {
    answerStatus_->answerDel(key);
  }
}

void AnswerSm::neighbourIs(const AnswerKey& key, const Lanix::EthAddr& macAddress) {
  Lanix::EthAddr* known = neighbours_.find(key);
  if (known ? *known == macAddress : macAddress.isZero()) return;
  if (known) {
    const auto station = neighboursOf_.find({key.vlanId, *known});
    station->second.erase(key.ipAddress);
    if (station->second.empty()) neighboursOf_.erase(station);
  }
  if (macAddress.isZero()) {
    neighbours_.take(key);
    return;
  }
  neighboursOf_[{key.vlanId, macAddress}].insert(key.ipAddress);
  known ? void(*known = macAddress) : void(neighbours_.insert(key, macAddress));
}

// --- The walk --------------------------------------------------------------------------------------------

// Brings the addresses of the next keys of a table up to date, those of VLANs in the walk; false at its end.
template <class Collection>
bool AnswerSm::walkTable(const Collection& table, Orb::WalkRet& ret) {
  std::vector<AnswerKey> keys;
  bool more = true;
  while (more && !(ret.processed != 0 && mustYield())) {
    keys.clear();
    more = table.visit(bookmark_, kKeysPerVisit, [&](const auto& key, const auto&) {
      ++ret.processed;
      const std::optional<AnswerKey> address = addressOf(key);
      if (address && (!address->vlanId.sound() || walking_[address->vlanId.value()]))
        keys.push_back(*address);
    });
    for (const AnswerKey& key : keys) update(key);
  }
  if (!more) bookmark_ = {};
  return more;
}

Orb::WalkRet AnswerSm::walk() {
  if (std::exchange(configChanged_, false)) handleConfig();
  if (!remoteBindingStatus_->initialPopulationComplete()) return {};
  if (walking_.none()) {
    if (outdated_.none()) return {};
    walking_ = std::exchange(outdated_, {});
    walkStage_ = WalkStage::walkAnswerStatus;
    bookmark_ = {};
  }
  Orb::WalkRet ret{0, true};
  switch (walkStage_) {
    case WalkStage::walkAnswerStatus:
      if (walkTable(answerStatus_->answerCollection(), ret)) break;
      walkStage_ = WalkStage::walkRemoteBindingConfig;
      walking_ &= ~without_;  // nothing is left of these
      break;
    case WalkStage::walkRemoteBindingConfig:
      if (!walkTable(remoteBindingConfig_->remoteBindingCollection(), ret))
        walkStage_ = WalkStage::walkArpStatus;
      break;
    case WalkStage::walkArpStatus:
      ret.moreWork = walkTable(arpStatus_->arpEntryCollection(), ret);
      break;
  }
  return ret;
}

void AnswerSm::walkFinishedNotification() {
  const Vlans done = std::exchange(walking_, {}) & ~outdated_;
  for (const auto& [vlanId, published] : arpSuppressionStatus_->vlanIdCollection()) {
    if (published && done[vlanId.value()]) answerVlans_->vlanIdIs(vlanId);
  }
  if (outdated_.any() && remoteBindingStatus_->initialPopulationComplete()) scheduleWalk();
}

void AnswerSm::dumpState(Orb::DumpContext& context, int indent) const {
  context.line(indent, "AnswerSm");
  context.attribute(indent, "walkStage", Mox::toStrep(walkStage_));
  context.attribute(indent, "answers", answerStatus_->answers());
  context.attribute(indent, "neighbours", neighbours_.size());
  Mox::String vlans;
  for (const auto& [vlanId, in] : answerVlans_->vlanIdCollection()) vlans += " " + vlanId.toStrep();
  context.line(indent + 2, "answering VLANs:" + vlans);
}

}  // namespace ArpSuppression
