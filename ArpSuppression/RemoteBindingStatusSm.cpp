#include "ArpSuppression/RemoteBindingStatusSm.h"

#include <utility>

#include "ArpSuppression/Problems.h"
#include "ArpSuppression/Trace.h"
#include "Mox/Assert.h"
#include "Mox/Error.h"
#include "Switch/Event.h"

namespace ArpSuppression {

namespace {

constexpr char kSource[] = "ArpSuppression/RemoteBindingStatusSm";

// Keys that are read from the input together.
constexpr std::size_t kKeysPerVisit = 64;

// "<10;02:00:00:00:00:01>"
Mox::String shortForm(const VlanIdMacAddress& key) {
  return "<" + key.vlanId.toStrep() + ";" + key.macAddress.toStrep() + ">";
}

}  // namespace

RemoteBindingStatusSm::RemoteBindingStatusSm(
    Ptr<Orb::TaskScheduler> scheduler, Ptr<const RemoteBindingConfig> remoteBindingConfig,
    Ptr<const MoxSharedMem::MountGroup> remoteBindingConfigMountGroup, Ptr<VlanL3InfoStatus> vlanL3InfoStatus,
    Ptr<RemoteBindingStatus> remoteBindingStatus, Ptr<const Limits> limits,
    Ptr<ArpSuppressionCounterStatus> arpSuppressionCounterStatus)
    : WalkSmBase(std::move(scheduler), "RemoteBindingStatusSm"),
      remoteBindingConfig_(std::move(remoteBindingConfig)),
      remoteBindingConfigMountGroup_(std::move(remoteBindingConfigMountGroup)),
      vlanL3InfoStatus_(std::move(vlanL3InfoStatus)),
      remoteBindingStatus_(std::move(remoteBindingStatus)),
      limits_(limits ? std::move(limits) : Mox::make<Limits>()),
      arpSuppressionCounterStatus_(std::move(arpSuppressionCounterStatus)),
      full_(problems(), this->scheduler()->loop(), "remote bindings",
            [this] { return remoteBindingStatus_->refusing(); }),
      room_(this->scheduler()->loop(), "room for remote bindings", [this] { handleRoom(); }) {
  remoteBindingConfig_.on(RemoteBindingConfig::remoteBindingChanged,
                          [this](const RemoteBindingKey& key) { handleRemoteBinding(key); });
  remoteBindingConfigMountGroup_.on(MoxSharedMem::MountGroup::readyChanged,
                                    [this] { handleRemoteBindingReady(); });
  vlanL3InfoStatus_.on(VlanL3InfoStatus::vlanL3InfoChanged,
                       [this](Bridging::VlanId vlanId) { handleVlanL3Info(vlanId); });
  limits_.on(Limits::remoteBindingsChanged, [this] {
    if (remoteBindingStatus_->refusing()) room_.after(0);
  });
  handleInitialized();
}

void RemoteBindingStatusSm::handleInitialized() {
  TRACE8("");
  handleRemoteBindingReady();
}

void RemoteBindingStatusSm::handleRemoteBindingReady() {
  MOX_ASSERT(kSource, "remoteBindingConfigMountGroup()", static_cast<bool>(remoteBindingConfigMountGroup_));
  TRACELET_RECORD("configReady: {} mountReady: {}", remoteBindingConfigReady_,
                  remoteBindingConfigMountGroup_->ready());
  if (remoteBindingConfigReady_ || !remoteBindingConfigMountGroup_->ready()) return;
  remoteBindingConfigReady_ = true;
  scheduleWalk();
}

void RemoteBindingStatusSm::handleVlanL3Info(Bridging::VlanId vlanId) {
  const std::int32_t count = vlanBindingCount(vlanId);
  TRACE8("vlanId=" << vlanId << " count=" << count << " initialPopulationComplete="
                   << yesNo(remoteBindingStatus_->initialPopulationComplete()));
  // Bindings that arrive before the table is attached as a whole must not pass for its population.
  if (count != 0 && remoteBindingConfigReady_) scheduleWalk();
}

VrfIpAddress RemoteBindingStatusSm::vrfIpAddressOf(const RemoteBindingKey& key) const {
  const Ptr<VlanL3Info> info = vlanL3InfoStatus_->vlanL3Info(key.vlanId);
  return info ? VrfIpAddress::fromVlanL3Info(*info, key.ipAddress) : VrfIpAddress();
}

void RemoteBindingStatusSm::handleRemoteBinding(const RemoteBindingKey& key) {
  if (apply(key)) return;
  if (arpSuppressionCounterStatus_)
    arpSuppressionCounterStatus_->increment(ArpSuppressionCounterId::remoteBindingRefused);
  refuse();
}

void RemoteBindingStatusSm::refuse() {
  refused_ = true;
  remoteBindingStatus_->refusingIs(true);
  full_.happened(
      "there are as many as limits.remoteBindings of the configuration allows: further ones are not taken "
      "over, and requests for their addresses are flooded",
      "withdraw what is not needed, or raise that limit and reload");
}

// Not in the middle of a walk, which would begin again and again.
void RemoteBindingStatusSm::handleRoom() {
  walkStage_ == WalkStage::complete ? scheduleWalk() : room_.after(kRoomSeconds);
}

bool RemoteBindingStatusSm::apply(const RemoteBindingKey& key) {
  // Whoever writes the table may write anything; a key with padding would be another one of the same address.
  if (!key.vlanId.sound() || !key.ipAddress || !key.ipAddress.sound() || key.padding != 0) {
    TRACE8("not a binding remoteBindingKey=" << key);
    return true;
  }
  const RemoteBinding now = remoteBindingConfig_->remoteBinding(key);
  const RemoteBinding old = knownBinding(key);
  const bool macChanged = now.macAddress != old.macAddress;
  const std::int32_t count = vlanBindingCount(key.vlanId);
  TRACE8("remoteBindingKey=" << key << " newMac=" << now.macAddress << " oldMac=" << old.macAddress
                             << " count=" << count);
  if (now && !old && knownBindings() >= limits_->remoteBindings()) return false;
  if (now) addMac(key, now, macChanged, !old);
  if (macChanged && old) deleteMac(key, old.macAddress, !now, count);
  // What was there from the beginning is no news.
  if (macChanged && remoteBindingStatus_->initialPopulationComplete()) {
    using enum Switch::EventKind;
    Switch::bindingEvent(!old  ? learned
                         : now ? moved
                               : withdrawn,
                         {.table = Switch::EventTable::remote,
                          .vlanId = key.vlanId,
                          .ip = key.ipAddress,
                          .mac = now ? now.macAddress : old.macAddress,
                          .text = now && old ? "was " + old.macAddress.toStrep() : Mox::String()});
  }
  if (!now && remoteBindingStatus_->refusing() && !room_.scheduled()) room_.after(kRoomSeconds);
  return true;
}

void RemoteBindingStatusSm::addMac(const RemoteBindingKey& key, const RemoteBinding& now, bool macChanged,
                                   bool newKey) {
  const VlanIdMacAddress mac{key.vlanId, now.macAddress};
  if (macChanged) {
    const Ptr<RemoteMacToIp> macToIp = remoteBindingStatus_->macToIpIs(mac);
    TRACE8("add macToIp newVlanIdMacAddress=" << shortForm(mac) << " ipAddress=" << key.ipAddress);
    TRACELET_RECORD("add macToIp newVlanIdMacAddress=<{};{}> ipAddress={}", key.vlanId.value(),
                    now.macAddress, key.ipAddress);
    MOX_ASSERT(kSource, "!macToIp->ipAddressHas( ipAddress )", !macToIp->ipAddressHas(key.ipAddress));
    macToIp->ipAddressIs(key.ipAddress);
  }
  if (const VrfIpAddress vrfIpAddress = vrfIpAddressOf(key)) {
    const Ptr<RemoteIpToMac> ipToMac = remoteBindingStatus_->ipToMac(vrfIpAddress);
    const bool create = !ipToMac || !ipToMac->vlanIdMacAddressHas(mac);
    const bool activeLocalChanged = !create && ipToMac->vlanIdMacAddress(mac) != now.localMultihomed;
    if (create || activeLocalChanged) {
      TRACE8("add ipToMac vrfIpAddress=" << vrfIpAddress << " > newVlanIdMacAddress=" << mac
                                         << "> create=" << yesNo(create)
                                         << " activeLocalChanged=" << yesNo(activeLocalChanged));
      TRACELET_RECORD(
          "add ipToMac vrfIpAddress=<{};{};{}> > newVlanIdMacAddress=<{};{}> create={} activeLocalChanged={}",
          vrfIpAddress.vrfInfo->vrfName(), key.ipAddress, vrfIpAddress.intfId, key.vlanId.value(),
          now.macAddress, yesNo(create), yesNo(activeLocalChanged));
      fileMac(vrfIpAddress, ipToMac, mac, now.localMultihomed);
    }
  }
  if (newKey && vlanBindingCountInc(key.vlanId, 1) == 1) {
    TRACE8("add vlanId=" << key.vlanId);
    TRACELET_RECORD("add vlanId={}", key.vlanId.value());
    remoteBindingStatus_->vlanIdIs(key.vlanId);
  }
  knownBindingIs(key, now);  // last: who hears of it finds it in the status
}

void RemoteBindingStatusSm::deleteMac(const RemoteBindingKey& key, const Lanix::EthAddr& oldMac,
                                      bool withdrawn, std::int32_t count) {
  const VlanIdMacAddress mac{key.vlanId, oldMac};
  const Ptr<RemoteMacToIp> macToIp = remoteBindingStatus_->macToIp(mac);
  MOX_ASSERT(kSource, "nullptr != macToIp", macToIp != nullptr);
  MOX_ASSERT(kSource, "macToIp->ipAddressHas( ipAddress )", macToIp->ipAddressHas(key.ipAddress));
  TRACE8("delete macToIp=" << shortForm(mac) << " ipAddress=" << key.ipAddress);
  TRACELET_RECORD("delete macToIp=<{};{}> ipAddress={}", key.vlanId.value(), oldMac, key.ipAddress);
  macToIp->ipAddressDel(key.ipAddress);
  if (macToIp->ipAddresss() == 0) remoteBindingStatus_->macToIpDel(mac);

  // An entry under a VRF that the VLAN has left is not found here; the pass over the status removes it.
  if (const VrfIpAddress vrfIpAddress = vrfIpAddressOf(key)) {
    if (const Ptr<RemoteIpToMac> ipToMac = remoteBindingStatus_->ipToMac(vrfIpAddress)) {
      TRACE8("delete ipToMac=" << ipToMac << " oldVlanIdMacAddress=" << shortForm(mac));
      TRACELET_RECORD("delete ipToMac=<{};{};{}> oldVlanIdMacAddress=<{};{}>",
                      vrfIpAddress.vrfInfo->vrfName(), key.ipAddress, vrfIpAddress.intfId, key.vlanId.value(),
                      oldMac);
      unfileMac(ipToMac, mac);
    }
  }
  if (!withdrawn) return;
  knownBindingDel(key);
  if (count != 1) {
    vlanBindingCountDec(key.vlanId, 1);
    return;
  }
  TRACE8("del vlanId=" << key.vlanId);
  TRACELET_RECORD("del vlanId={}", key.vlanId.value());
  vlanBindingCountDel(key.vlanId);
  remoteBindingStatus_->vlanIdDel(key.vlanId);
}

void RemoteBindingStatusSm::fileMac(const VrfIpAddress& vrfIpAddress, Ptr<RemoteIpToMac> ipToMac,
                                    const VlanIdMacAddress& mac, bool localMultihomed) {
  if (!ipToMac) {
    ipToMac = remoteBindingStatus_->ipToMacIs(vrfIpAddress);
    remoteBindingStatus_->referenceVrf(vrfIpAddress.vrfInfo);
  }
  ipToMac->vlanIdMacAddressIs(mac, localMultihomed);
  notifyVrfIpAddressChange(vrfIpAddress);
}

void RemoteBindingStatusSm::unfileMac(const Ptr<RemoteIpToMac>& ipToMac, const VlanIdMacAddress& mac) {
  const VrfIpAddress vrfIpAddress = ipToMac->vrfIpAddress();
  ipToMac->vlanIdMacAddressDel(mac);
  if (ipToMac->vlanIdMacAddresss() == 0) {
    remoteBindingStatus_->ipToMacDel(vrfIpAddress);
    remoteBindingStatus_->releaseVrf(vrfIpAddress.vrfInfo);
  }
  notifyVrfIpAddressChange(vrfIpAddress);
}

// The same address may change twice in a row, and each time must be told.
void RemoteBindingStatusSm::notifyVrfIpAddressChange(const VrfIpAddress& vrfIpAddress) {
  if (remoteBindingStatus_->lastVrfIpAddressChange() == vrfIpAddress)
    remoteBindingStatus_->lastVrfIpAddressChangeIs({});
  remoteBindingStatus_->lastVrfIpAddressChangeIs(vrfIpAddress);
}

void RemoteBindingStatusSm::vlanBindingCountCheckRange(std::int64_t count) const {
  if (count < 0 || count >= 0x7FFFFFFF) {
    throw Mox::RangeError("ArpSuppressionStatusSm::vlanBindingCount < 0 or >= 0x7FFFFFFF not allowed");
  }
}

void RemoteBindingStatusSm::setVlanBindingCount(Bridging::VlanId vlanId, std::int64_t count) {
  vlanBindingCountIs(vlanId, static_cast<std::int32_t>(count));
  vlanBindingCountCheckRange(count);
}

std::int32_t RemoteBindingStatusSm::vlanBindingCountInc(Bridging::VlanId vlanId, std::int32_t n) {
  setVlanBindingCount(vlanId, std::int64_t{vlanBindingCount(vlanId)} + n);
  return vlanBindingCount(vlanId);
}

std::int32_t RemoteBindingStatusSm::vlanBindingCountDec(Bridging::VlanId vlanId, std::int32_t n) {
  setVlanBindingCount(vlanId, std::int64_t{vlanBindingCount(vlanId)} - n);
  return vlanBindingCount(vlanId);
}

// --- The walk --------------------------------------------------------------------------------------------

void RemoteBindingStatusSm::traceEvent(const char* event) { TRACE8("walk " << event); }

bool RemoteBindingStatusSm::walkStartedNotification() {
  TRACE8("");
  walkStage_ = WalkStage::walkRemoteBindingConfig;
  remoteBindingConfigBookmark_ = {};
  inputHasMore_ = true;
  inputKeys_.clear();
  inputKeysHandled_ = 0;
  remoteBindingStatusBookmark_ = {};
  wasRefusing_ = remoteBindingStatus_->refusing();
  nothingFiled_ = remoteBindingStatus_->ipToMacs() == 0;
  refused_ = false;
  return true;
}

Orb::WalkRet RemoteBindingStatusSm::walk() {
  TRACE8("walkStage=" << walkStage_);
  switch (walkStage_) {
    case WalkStage::walkRemoteBindingConfig:
      return remoteBindingConfigWalk();
    case WalkStage::walkRemoteBindingStatus:
      return remoteBindingStatusWalk();
    case WalkStage::complete:
      break;
  }
  MOX_ASSERT(kSource, "false", false);
  return {};
}

// Brings the places of the binding into the cache.
void RemoteBindingStatusSm::lookAhead(const RemoteBindingKey& key, const RemoteBinding& binding) const {
  knownBindingCollection().prefetch(key);
  remoteBindingStatus_->macToIpCollection().prefetch({key.vlanId, binding.macAddress});
  remoteBindingStatus_->ipToMacCollection().prefetch(vrfIpAddressOf(key));
}

// Keys are read a few at a time and handled one by one, in this slice or the next: what a key's binding is
// counts when it is its turn.
Orb::WalkRet RemoteBindingStatusSm::remoteBindingConfigWalk() {
  Orb::WalkRet ret{0, true};
  const auto done = [this] { return !inputHasMore_ && inputKeysHandled_ == inputKeys_.size(); };
  do {
    if (inputKeysHandled_ == inputKeys_.size()) {
      inputKeys_.clear();
      inputKeysHandled_ = 0;
      inputHasMore_ = remoteBindingConfig_->remoteBindingVisit(
          remoteBindingConfigBookmark_, kKeysPerVisit,
          [this](const RemoteBindingKey& key, const RemoteBinding& binding) {
            inputKeys_.push_back(key);
            lookAhead(key, binding);
          });
    }
    if (inputKeysHandled_ == inputKeys_.size()) continue;  // a stretch of the table without entries
    const RemoteBindingKey key = inputKeys_[inputKeysHandled_++];
    ++ret.processed;
    scheduler()->loop().dispatch("RemoteBindingStatusSm", [&] {
      if (!wasRefusing_) {
        handleRemoteBinding(key);
      } else if (!apply(key)) {
        refuse();  // counted when it came
      }
    });
  } while (!done() && !mustYield());
  TRACE8("finished processed=" << ret.processed << " done=" << done());
  if (done()) {
    if (!refused_) remoteBindingStatus_->refusingIs(false);
    remoteBindingStatus_->initialPopulationCompleteIs(true);
    walkStage_ = WalkStage::walkRemoteBindingStatus;
  }
  return ret;
}

Orb::WalkRet RemoteBindingStatusSm::remoteBindingStatusWalk() {
  Orb::WalkRet ret;
  if (nothingFiled_) {  // what this walk filed is where it belongs, or the walk would have begun again
    walkStage_ = WalkStage::complete;
    return ret;
  }
  const auto& entries = remoteBindingStatus_->ipToMacCollection();
  auto next =
      remoteBindingStatusBookmark_ ? entries.lowerBound(remoteBindingStatusBookmark_) : entries.begin();
  remoteBindingStatusBookmark_ = {};
  while (next != entries.end()) {
    const Ptr<RemoteIpToMac> ipToMac = *next;
    if (ret.processed != 0 && mustYield()) {
      remoteBindingStatusBookmark_ = ipToMac->vrfIpAddress();
      ret.moreWork = true;
      break;
    }
    scheduler()->loop().dispatch("RemoteBindingStatusSm", [&] { updateIpToMac(ipToMac); });
    ++ret.processed;
    // The entry itself may have gone, and others come.
    next = entries.lowerBound(ipToMac->vrfIpAddress());
    if (next != entries.end() && *next == ipToMac) ++next;
  }
  TRACE8("finished processed=" << ret.processed << " done=" << !ret.moreWork);
  if (!ret.moreWork) walkStage_ = WalkStage::complete;
  return ret;
}

void RemoteBindingStatusSm::updateIpToMac(const Ptr<RemoteIpToMac>& ipToMac) {
  const Ptr<VrfInfo> oldVrf = ipToMac->vrfIpAddress().vrfInfo;
  const Lanix::IpGenAddr ipAddress = ipToMac->vrfIpAddress().ipAddress;
  const auto& members = ipToMac->vlanIdMacAddressCollection();
  for (std::size_t at = 0; at < members.size();) {
    const auto [mac, oldFlag] = members.begin()[at];
    const Ptr<VlanL3Info> vlanL3Info = vlanL3InfoStatus_->vlanL3Info(mac.vlanId);
    const Ptr<VrfInfo> newVrf = vlanL3Info ? vlanL3Info->vrfInfo() : Ptr<VrfInfo>();
    const RemoteBinding remoteBinding = remoteBindingConfig_->remoteBinding({mac.vlanId, ipAddress});
    // The input may name another station for this key by now, which is filed under the new VRF already.
    const bool held = remoteBinding.macAddress == mac.macAddress;
    TRACE8("ipToMac=" << ipToMac << " vlanL3Info=" << vlanL3Info << " newVrf=" << newVrf
                      << " remoteBinding=" << remoteBinding);
    if (newVrf != oldVrf || !held) {
      TRACE8("delete ipToMac=" << ipToMac << " vlanIdMacAddress=" << mac);
      TRACELET_RECORD("delete ipToMac=<{};{};{}> vlanIdMacAddress=<{};{}>", oldVrf->vrfName(), ipAddress,
                      ipToMac->vrfIpAddress().intfId, mac.vlanId.value(), mac.macAddress);
      unfileMac(ipToMac, mac);  // the next member moves up to its place
    } else {
      ++at;
    }
    if (newVrf && held && (newVrf != oldVrf || oldFlag != remoteBinding.localMultihomed)) {
      const VrfIpAddress newVrfIpAddress = VrfIpAddress::fromVlanL3Info(*vlanL3Info, ipAddress);
      const Ptr<RemoteIpToMac> there = remoteBindingStatus_->ipToMac(newVrfIpAddress);
      const bool create = !there || !there->vlanIdMacAddressHas(mac);
      const bool activeLocalChanged = oldFlag != remoteBinding.localMultihomed;
      TRACE8("add ipToMac newVrfIpAddress=" << newVrfIpAddress << " create=" << yesNo(create)
                                            << " activeLocalChanged=" << yesNo(activeLocalChanged));
      TRACELET_RECORD("add ipToMac newVrfIpAddress=<{};{};{}> create={} activeLocalChanged={}",
                      newVrf->vrfName(), ipAddress, newVrfIpAddress.intfId, yesNo(create),
                      yesNo(activeLocalChanged));
      fileMac(newVrfIpAddress, there, mac, remoteBinding.localMultihomed);
    }
  }
}

void RemoteBindingStatusSm::dumpState(Orb::DumpContext& context, int indent) const {
  context.line(indent, "RemoteBindingStatusSm");
  context.attribute(indent, "remoteBindingConfigReady", remoteBindingConfigReady_);
  context.attribute(indent, "walkStage", Mox::toStrep(walkStage_));
  context.attribute(indent, "remoteBindingStatusBookmark",
                    remoteBindingStatusBookmark_ ? remoteBindingStatusBookmark_.toStrep() : "none");
  context.line(indent, "knownBinding #" + std::to_string(knownBindings()));
  for (const auto& [vlanId, count] : vlanBindingCountCollection()) {
    context.line(indent + 2, "vlanBindingCount " + vlanId.toStrep() + " " + std::to_string(count));
  }
  context.child(indent + 2, remoteBindingStatus_, "RemoteBindingStatus");
}

}  // namespace ArpSuppression
