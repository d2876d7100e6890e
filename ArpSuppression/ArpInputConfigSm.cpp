#include "ArpSuppression/ArpInputConfigSm.h"

#include <bit>
#include <cerrno>
#include <optional>

#include "ArpSuppression/Problems.h"
#include "ArpSuppression/Trace.h"
#include "Orb/FeatureSwitch.h"
#include "Switch/Event.h"

namespace ArpSuppression {

namespace {

constexpr char kSource[] = "ArpSuppression/ArpInputConfigSm";

constexpr char kKernelState[] = "KernelState";
constexpr char kTakeOver[] = "neighbours of an earlier run";

using Counter = ArpSuppressionCounterId;
using Arp::ArpEntryInput;
using Arp::ArpInputVrfConfig;
using Arp::kArpTypeAsked;
using Arp::kArpTypeLocal;
using Arp::kArpTypeRemote;
using Installation = KernelDynamicEntryInstallation;

// Goes before every interface in the order of keys.
constexpr auto kBeforeAll = std::bit_cast<Lanix::IntfId>(std::array<std::uint8_t, 16>{});

// The output's entries of a key. A global IPv6 address is one key of the VRF, although an entry names an
// interface as well: all entries of the address are the key's. A link-local one is a key of its interface.
template <class Visit>
void forEachEntry(const ArpInputVrfConfig& config, const VrfIpAddress& key, Visit&& visit) {
  if (key.ipAddress.isIpv4()) {
    if (const ArpEntryInput* entry = config.ipv4Collection().find(key.ipAddress.ipv4()))
      visit(entry->intf, *entry);
    return;
  }
  const auto& entries = config.ipv6Collection();
  const Lanix::Ip6Addr address = key.ipAddress.ipv6();
  if (address.isLinkLocal()) {
    if (const ArpEntryInput* entry = entries.find({address, key.intfId})) visit(key.intfId, *entry);
    return;
  }
  for (auto at = entries.lowerBound({address, kBeforeAll}); at != entries.end() && at->key.addr == address;
       ++at)
    visit(at->key.intf, at->value);
}

// Removes the key's entries but the one on `kept`; true when there were any. An entry may be on no interface
// at all: an operator or an earlier run can have left one.
bool removeEntries(ArpInputVrfConfig& config, const VrfIpAddress& key,
                   const std::optional<Lanix::IntfId>& kept = std::nullopt) {
  if (key.ipAddress.isIpv4()) return !kept && config.ipv4Del(key.ipAddress.ipv4());
  for (bool removed = false;; removed = true) {
    std::optional<Lanix::IntfId> stray;
    forEachEntry(config, key, [&](const Lanix::IntfId& intf, const ArpEntryInput&) {
      if (intf != kept) stray = intf;
    });
    if (!stray || !config.ipv6Del({key.ipAddress.ipv6(), *stray})) return removed;
  }
}

}  // namespace

ArpInputConfigVlanL3InfoSm::ArpInputConfigVlanL3InfoSm(Bridging::VlanId /*vlanId*/,
                                                       Ptr<const VlanL3Info> vlanL3Info,
                                                       ArpInputConfigSm* parent)
    : vlanL3Info_(std::move(vlanL3Info)) {
  vlanL3Info_.on(VlanL3Info::kniIntfIfIndexChanged, [parent] { parent->reevaluate(); });
}

ArpInputConfigSm::ArpInputConfigSm(
    Ptr<Orb::TaskScheduler> scheduler, Ptr<const Routing::L2Vpn::Config> l2VpnConfig,
    Ptr<LocalBindingRecord> localBindingRecord, Ptr<const RemoteBindingStatus> remoteBindingStatus,
    Ptr<const ArpInputConfigTrigger> arpInputConfigTrigger, Ptr<const VlanL3InfoStatus> vlanL3InfoStatus,
    Ptr<const Arp::Table::Status> arpStatus, Ptr<Arp::ArpInputConfig> arpInputConfig,
    Ptr<ArpSuppressionCounterStatus> arpSuppressionCounterStatus, Ptr<const Switch::Readiness> readiness,
    Ptr<const Arp::Confirmation> confirmation)
    : WalkSmBase(std::move(scheduler), "ArpInputConfigSm"),
      l2VpnConfig_(std::move(l2VpnConfig)),
      localBindingRecord_(std::move(localBindingRecord)),
      remoteBindingStatus_(std::move(remoteBindingStatus)),
      arpInputConfigTrigger_(std::move(arpInputConfigTrigger)),
      vlanL3InfoStatus_(std::move(vlanL3InfoStatus)),
      arpStatus_(arpStatus),
      readiness_(std::move(readiness)),
      confirmation_(std::move(confirmation)),
      arpStatusHelper_(std::move(arpStatus)),
      arpInputConfig_(std::move(arpInputConfig)),
      arpSuppressionCounterStatus_(std::move(arpSuppressionCounterStatus)),
      tableFull_(problems(), this->scheduler()->loop(), "kernel neighbours of local hosts"),
      installer_(this->scheduler()->loop(),
                 [this](const KernelInstaller::Request& request, const Mox::Result<>& result) {
                   handleInstalled(request, result);
                 }),
      takeOverEnd_(this->scheduler()->loop(), "ArpInputConfigSm take-over", [this] { handleTakeOverEnd(); }) {
  l2VpnConfig_.onAny([this](Mox::EventId) { reevaluate(); });
  localBindingRecord_.on(LocalBindingRecord::bindingChanged,
                         [this](const VrfIpAddress& key) { updateVrfIpAddress(key, false); });
  remoteBindingStatus_
      .on(RemoteBindingStatus::lastVrfIpAddressChangeChanged,
          [this](const VrfIpAddress& key) { updateVrfIpAddress(key, false); })
      .on(RemoteBindingStatus::initialPopulationCompleteChanged, [this] { scheduleWalk(); });
  arpInputConfigTrigger_.on(ArpInputConfigTrigger::triggerChanged, [this] { handleArpInputConfigTrigger(); });
  vlanL3InfoStatus_
      .on(VlanL3InfoStatus::vlanL3InfoChanged, [this](Bridging::VlanId vlanId) { handleVlanL3Info(vlanId); })
      .on(VlanL3InfoStatus::initialArpSuppressionStatusSyncChanged, [this] { scheduleWalk(); });
  arpStatus_.on(Arp::Table::Status::arpEntryChanged,
                [this](const Arp::Table::ArpKey& arpKey) { handleArpStatus(arpKey); });
  readiness_.on(Switch::Readiness::awaitedChanged, [this] { handleReadiness(); });
  confirmation_.on(Arp::Confirmation::vlanChanged, [this] { reevaluate(); });
  handleInitialized();
}

ArpInputConfigSm::~ArpInputConfigSm() { handleDestroy(); }

void ArpInputConfigSm::handleInitialized() {
  TRACE8("");
  for (const auto& [vlanId, info] : vlanL3InfoStatus_->vlanL3InfoCollection())
    moxVlanL3InfoIs(vlanId, Ptr<const VlanL3Info>(info), this);
  takingOver_ = arpInputConfig_->vrfs() != 0;
  if (takingOver_) takeOverEnd_.after(kLongestTakeOverSeconds);
  handleReadiness();
  reevaluate();
}

void ArpInputConfigSm::handleDestroy() {
  TRACE8("");
  problems().problemDel(kTakeOver);
  if (!skipArpInputCleanupForTest_) arpInputConfig_->vrfDelAll();
}

void ArpInputConfigSm::reevaluate() {
  walkStage_ = WalkStage::walkLocalBindingRecord;
  localBindingRecordBookmark_ = {};
  remoteBindingStatusBookmark_ = {};
  arpInputConfigBookmark_ = {};
  scheduleWalk();
}

void ArpInputConfigSm::handleVlanL3Info(Bridging::VlanId vlanId) {
  moxVlanL3InfoDel(vlanId);
  if (const Ptr<VlanL3Info> info = vlanL3InfoStatus_->vlanL3Info(vlanId))
    moxVlanL3InfoIs(vlanId, Ptr<const VlanL3Info>(info), this);
  reevaluate();
}

void ArpInputConfigSm::handleArpInputConfigTrigger() {
  const VrfIpAddress key =
      arpInputConfigTrigger_->vrfIpAddress();  // the trigger may be raised again meanwhile
  updateVrfIpAddress(key, arpInputConfigTrigger_->suppressionEvent());
}

void ArpInputConfigSm::handleArpStatus(const Arp::Table::ArpKey& arpKey) {
  // Whoever writes the table may write anything.
  const bool sound = arpKey.addr && arpKey.addr.sound();
  const VrfIpAddress key = sound ? VrfIpAddress::fromArpKey(*vlanL3InfoStatus_, arpKey) : VrfIpAddress();
  if (!key) {
    TRACE8("no vrfIpAddress intfId=" << arpKey.intfId << " addr=" << arpKey.addr);
    return;
  }
  const Ptr<LocalBinding> localBinding = localBindingRecord_->binding(key);
  if (!localBinding) {
    TRACE8("no localBinding vrfIpAddress=" << key);
    return;
  }
  // A neighbour that is left in a VRF or a VLAN which the host is not in any more says nothing about it.
  const Ptr<VlanL3Info> info = vlanL3InfoStatus_->vlanL3Info(localBinding->vlanIdMacAddress().vlanId);
  if (!info || arpKey.vrfId != key.vrfInfo->vrfId() || arpKey.intfId != info->vlanIntfId()) {
    TRACE8("not of the binding's VLAN vrfIpAddress=" << key << " intfId=" << arpKey.intfId);
    return;
  }
  const Arp::Table::ArpEntry entry = arpStatusHelper_.lookup(arpKey);
  const bool exists = !(entry == Arp::Table::ArpEntry());
  TRACE8("vrfIpAddress=" << key << " localBinding=" << localBinding << " arpStatusEntry="
                         << ArpStatusHelper::text(entry) << " arpStatusEntryExists=" << yesNo(exists));
  // A binding goes with the dynamic entry that the kernel once had for it. The record tells this reactor of
  // that, which decides the key anew: nothing follows.
  const auto withdraw = [&](const char* why) {
    const auto [vlanId, macAddress] = localBinding->vlanIdMacAddress();
    localBindingRecord_->deleteLocalBinding(localBinding);
    Switch::bindingEvent(Switch::EventKind::withdrawn,
                         {.vlanId = vlanId, .ip = key.ipAddress, .mac = macAddress, .text = why});
  };
  if (exists && !entry.isStatic) {
    localBinding->arpStatusHasDynamicEntryIs(true);
    deleteEntry(key);
    if (entry.mac == localBinding->vlanIdMacAddress().macAddress) localBinding->confirmedIs();
    if (!localBinding->confirmed()) withdraw("another station answered for it");
  } else if (localBinding->arpStatusHasDynamicEntry()) {
    withdraw("the kernel's neighbour is gone");
  } else if (!exists) {
    updateVrfIpAddress(key, false);
  } else if (entry.arpType != Arp::Table::kArpTypeOwn) {
    deleteEntry(key);
  }
}

// --- One key ---------------------------------------------------------------------------------------------

void ArpInputConfigSm::updateVrfIpAddress(const VrfIpAddress& vrfIpAddress, bool suppressionEvent) {
  if (!vrfIpAddress) return;
  decide(vrfIpAddress, suppressionEvent, remoteBindingStatus_->ipToMac(vrfIpAddress));
}

void ArpInputConfigSm::decide(const VrfIpAddress& key, bool suppressionEvent,
                              const RemoteBindingPtr& remote) {
  TRACE8("vrfIpAddress=" << key << " suppressionEvent=" << yesNo(suppressionEvent));
  const VlanIdMacAddress deleted = updateLocalMultihomedRemoteBindings(key, remote);
  if (updateWithLocalBinding(key)) return;
  const bool selective = !suppressionEvent && selectiveInstall(key, remote);
  if (!updateWithRemoteBinding(key, remote, deleted, selective) && !awaited(key)) deleteEntry(key);
}

VlanIdMacAddress ArpInputConfigSm::updateLocalMultihomedRemoteBindings(const VrfIpAddress& key,
                                                                       const RemoteBindingPtr& remote) {
  if (remote && remote->isFirstVlanIdMacAddressLocalMultihomed()) {
    localMultihomedRemoteBindingIs(key, remote->firstVlanIdMacAddress());
    return {};
  }
  const VlanIdMacAddress deleted = localMultihomedRemoteBinding(key);
  localMultihomedRemoteBindingDel(key);
  return deleted;
}

bool ArpInputConfigSm::selectiveInstall(const VrfIpAddress& key, const RemoteBindingPtr& remote) const {
  if (!l2VpnConfig_ || !l2VpnConfig_->selectiveArpInstall()) return false;
  static Orb::FeatureSwitch localMultihome("ArpSuppression.json", "LocalMultihomeSelectiveArpInstall", true);
  if (!localMultihome.enabled() || !remote || remote->vlanIdMacAddresss() != 1 ||
      !remote->isFirstVlanIdMacAddressLocalMultihomed())
    return true;
  TRACE8("Ignoring selective install"
         << " for local multihomed vrfIpAddress=" << key);
  return false;
}

bool ArpInputConfigSm::updateWithLocalBinding(const VrfIpAddress& key) {
  const Ptr<LocalBinding> localBinding = localBindingRecord_->binding(key);
  if (!localBinding) {
    TRACE8("no localBinding vrfIpAddress=" << key);
    return false;
  }
  const VlanIdMacAddress& station = localBinding->vlanIdMacAddress();
  const Ptr<const VlanL3Info> info = vlanL3InfoFor(key, station.vlanId);
  if (!info) return false;
  const Arp::Table::ArpEntry entry = arpStatusHelper_.lookup(ArpStatusHelper::keyOf(*info, key.ipAddress));
  TRACE8("localBinding=" << localBinding << " arpStatusEntry=" << ArpStatusHelper::text(entry));
  const bool exists = !(entry == Arp::Table::ArpEntry());
  if (exists && (!entry.isStatic || entry.arpType > Arp::Table::kArpTypeOwn)) {
    if (!entry.isStatic) localBinding->arpStatusHasDynamicEntryIs(true);
    if (!entry.isStatic && entry.mac == station.macAddress) localBinding->confirmedIs();
    deleteEntry(key);  // the kernel's own entry serves the key
    return true;
  }
  const bool ask = !localBinding->confirmed() && confirmation_ && confirmation_->vlanHas(station.vlanId);
  return updateEntry(ask ? kArpTypeAsked : kArpTypeLocal, key, false, station, false);
}

bool ArpInputConfigSm::updateWithRemoteBinding(const VrfIpAddress& key, const RemoteBindingPtr& remote,
                                               const VlanIdMacAddress& deleted, bool selective) {
  TRACE8("vrfIpAddress=" << key << " remoteIpToMac=" << remote);
  if (remote) return updateEntry(kArpTypeRemote, key, selective, remote->firstVlanIdMacAddress(), false);
  static Orb::FeatureSwitch proxyArpRefresh("EvpnLib.json", "EvpnMplsProxyArpRefresh", true);
  if (deleted == VlanIdMacAddress() || !proxyArpRefresh.enabled()) return false;
  return updateEntry(kArpTypeLocal, key, false, deleted, true);
}

Ptr<const VlanL3Info> ArpInputConfigSm::vlanL3InfoFor(const VrfIpAddress& key, Bridging::VlanId vlanId) {
  Ptr<const VlanL3Info> info = vlanL3InfoStatus_->usableVlanL3Info(vlanId);
  // A binding of the VRF that the VLAN has left must not be programmed into it with an index of the new one.
  if (info && info->vrfInfo() == key.vrfInfo) return info;
  TRACE8("no vlanL3Info vlanId=" << vlanId);
  arpSuppressionCounterStatus_->increment(Counter::arpInputNoVlanL3Info);
  return {};
}

Ptr<ArpInputVrfConfig> ArpInputConfigSm::arpInputVrfConfig(const VrfIpAddress& key) const {
  return key.vrfInfo ? arpInputConfig_->vrf(key.vrfInfo->vrfName()) : Ptr<ArpInputVrfConfig>();
}

bool ArpInputConfigSm::updateEntry(std::uint8_t arpType, const VrfIpAddress& key, bool onlyUpdate,
                                   const VlanIdMacAddress& vlanIdMacAddress, bool dynamicOrPermanent) {
  const Ptr<const VlanL3Info> info = vlanL3InfoFor(key, vlanIdMacAddress.vlanId);
  if (!info || !key.ipAddress) return false;
  Ptr<ArpInputVrfConfig> config = arpInputVrfConfig(key);
  if (!config && onlyUpdate) {
    TRACE8("arpInputVrfConfig not found vrfName=" << key.vrfInfo->vrfName());
    return false;
  }
  if (!config) config = arpInputConfig_->vrfIs(key.vrfInfo->vrfName());

  const ArpEntryInput wanted{vlanIdMacAddress.macAddress, info->vlanIntfId(), arpType, dynamicOrPermanent};
  std::uint32_t entries = 0;
  bool equal = false;
  bool sameType = false;
  forEachEntry(*config, key, [&](const Lanix::IntfId& intf, const ArpEntryInput& entry) {
    equal = ++entries == 1 && intf == wanted.intf && entry == wanted;
    sameType = sameType || entry.arpType == arpType;
  });
  if (equal) return true;
  if (onlyUpdate && !sameType) return entries != 0;

  if (key.ipAddress.isIpv4()) {
    config->ipv4Is(key.ipAddress.ipv4(), wanted);
  } else {
    removeEntries(*config, key, wanted.intf);
    config->ipv6Is({key.ipAddress.ipv6(), wanted.intf}, wanted);
  }
  const bool local = arpType != kArpTypeRemote;
  const KernelInstaller::Request written{key, vlanIdMacAddress, info->kniIntfIfIndex(), dynamicOrPermanent,
                                         entries != 0};
  if (arpType == kArpTypeLocal) {
    installer_.add(written);
  } else {
    traceUpdated(written, Installation::kernelDynamicEntryInstallationNotAttempted);
  }
  arpSuppressionCounterStatus_->increment(
      entries == 0 ? (local ? Counter::arpInputNewLocal : Counter::arpInputNewRemote)
                   : (local ? Counter::arpInputUpdatedLocal : Counter::arpInputUpdatedRemote));
  return true;
}

void ArpInputConfigSm::traceUpdated(const KernelInstaller::Request& written,
                                    Installation installation) const {
  TRACE8("updated=" << written.key << " vlanIdMacAddress=" << written.station << " dynamicOrPermanent="
                    << yesNo(written.dynamicOrPermanent) << " existing=" << yesNo(written.existing)
                    << " kernelDynamicEntryInstallation=" << installation);
}

void ArpInputConfigSm::handleInstalled(const KernelInstaller::Request& request, const Mox::Result<>& result) {
  if (const int number = result.number(); number == ENOBUFS || number == ENOMEM || number == ENOSPC) {
    tableFull_.happened("the kernel's neighbour table is full: it does not get all hosts of this switch",
                        Mox::String("raise net.") + (request.key.ipAddress.isIpv4() ? "ipv4" : "ipv6") +
                            ".neigh.default.gc_thresh3, and gc_thresh2 with it, by sysctl",
                        Switch::Origin::perhapsStorm);
  }
  if (!result)
    TRACELET_RECORD("kernel neighbour refused ipAddress={} errno={}", request.key.ipAddress, result.number());
  traceUpdated(request, result ? Installation::kernelDynamicEntryInstallationSuccess
                               : Installation::kernelDynamicEntryInstallationFailed);
  arpSuppressionCounterStatus_->increment(result ? Counter::kernelInstallSuccess
                                                 : Counter::kernelInstallFailed);
}

void ArpInputConfigSm::deleteEntry(const VrfIpAddress& key) {
  const Ptr<ArpInputVrfConfig> config = arpInputVrfConfig(key);
  if (!config) {
    TRACE8("no arpInputVrfConfig vrfName=" << (key.vrfInfo ? key.vrfInfo->vrfName() : Mox::String()));
    return;
  }
  const bool deleted = removeEntries(*config, key);
  TRACE8("vrfIpAddress=" << key << " deletedEntry=" << yesNo(deleted));
  if (deleted) arpSuppressionCounterStatus_->increment(Counter::arpInputDeleted);
  if (config->ipv4s() == 0 && config->ipv6s() == 0) arpInputConfig_->vrfDel(config->vrfName());
}

// Without a word of KernelState's its tables are written by hand.
bool ArpInputConfigSm::populated() const {
  return !readiness_ || !readiness_->awaitedHas(kKernelState) || readiness_->ready(kKernelState);
}

void ArpInputConfigSm::handleReadiness() {
  if (!populated()) return;
  if (takingOver_) takeOverEnd_.after(kTakeOverSeconds);
  problems().problemDel(kTakeOver);
}

void ArpInputConfigSm::handleTakeOverEnd() {
  takingOver_ = false;
  reevaluate();
  if (populated()) return;
  problems().problemIs(kTakeOver,
                       "those whose VLAN is not there are removed, as KernelState still waits for " +
                           readiness_->awaited(kKernelState),
                       "see arpsup show switch/readiness, and the other problems");
}

bool ArpInputConfigSm::awaited(const VrfIpAddress& key) {
  const Ptr<ArpInputVrfConfig> config = arpInputVrfConfig(key);
  if (!config) return false;
  bool waits = false;
  forEachEntry(*config, key, [&](const Lanix::IntfId& intf, const ArpEntryInput& entry) {
    const std::uint32_t number = intf.vlanNumber();
    if (entry.arpType != kArpTypeRemote || !Bridging::VlanId::valid(number)) return;
    const Bridging::VlanId vlanId(number);
    const Ptr<const VlanL3Info> info = vlanL3InfoStatus_->usableVlanL3Info(vlanId);
    if (!info) {
      waits = waits || takingOver_;
    } else if (info->vrfInfo() == key.vrfInfo && !remoteBindingStatus_->ipToMacHas(key)) {
      const Ptr<RemoteMacToIp> station = remoteBindingStatus_->macToIp({vlanId, entry.mac});
      waits = waits || (station && station->ipAddressHas(key.ipAddress));
    }
  });
  if (waits) scheduleWalk(kAwaitedSeconds);
  return waits;
}

}  // namespace ArpSuppression
