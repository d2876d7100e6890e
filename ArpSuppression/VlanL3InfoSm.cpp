#include "ArpSuppression/VlanL3InfoSm.h"

#include <algorithm>
#include <utility>

#include "ArpSuppression/Trace.h"
#include "L3/VrfName.h"
#include "Lanix/NetlinkSocket.h"
#include "Mox/Assert.h"

namespace ArpSuppression {

namespace {
constexpr char kSource[] = "ArpSuppression/VlanL3InfoSm";

Ptr<Ip::VrfStatusLocal> makeUpDefaultVrf() {
  auto status = Mox::make<Ip::VrfStatusLocal>(L3::VrfName::kDefault);
  status->stateIs(Ip::VrfState::active);
  status->networkNamespaceIs(Lanix::kDefaultNamespace);
  return status;
}

}  // namespace

// --- VlanL3InfoSm ----------------------------------------------------------------------------------------

VlanL3InfoSm::VlanL3InfoSm(Ptr<Orb::TaskScheduler> scheduler,
                           Ptr<const ArpSuppressionStatus> arpSuppressionStatus,
                           Ptr<const EnabledVlans> enabledVlans,
                           Ptr<const Ip::AllVrfStatusLocal> allVrfStatusLocal, Ptr<const Ip::Status> ipStatus,
                           Ptr<const Vrf::VrfIdMap::NameToIdMap> vrfNameToIdMap,
                           Ptr<const Interface::AllIntfStatusDir> allIntfStatusDir,
                           Ptr<const Interface::AllIntfStatusLocalDir> allIntfStatusLocalDir,
                           Ptr<Interface::DeviceIntfStatusDir> deviceIntfStatusDir,
                           Ptr<VlanL3InfoStatus> vlanL3InfoStatus, Ptr<Statedb::EntityManager> entityMgr)
    : WalkSmBase(std::move(scheduler), "VlanL3InfoSm"),
      arpSuppressionStatus_(std::move(arpSuppressionStatus)),
      enabledVlans_(std::move(enabledVlans)),
      allVrfStatusLocal_(std::move(allVrfStatusLocal)),
      ipStatus_(std::move(ipStatus)),
      vrfNameToIdMap_(std::move(vrfNameToIdMap)),
      vlanL3InfoStatus_(std::move(vlanL3InfoStatus)),
      allIntfStatusDir_(std::move(allIntfStatusDir)),
      allIntfStatusLocalDir_(std::move(allIntfStatusLocalDir)),
      deviceIntfStatusDir_(std::move(deviceIntfStatusDir)),
      entityMgr_(std::move(entityMgr)),
      madeUpDefaultVrf_(makeUpDefaultVrf()) {
  arpSuppressionStatus_.on(ArpSuppressionStatus::vlanIdChanged,
                           [this](Bridging::VlanId vlanId) { handleArpSuppressionStatus(vlanId); });
  enabledVlans_.on(EnabledVlans::vlanIdChanged,
                   [this](Bridging::VlanId vlanId) { handleEnabledfVlan(vlanId); });
  allVrfStatusLocal_.on(Ip::AllVrfStatusLocal::vrfChanged,
                        [this](const Mox::String& name) { handleVrfStatusLocal(name); });
  ipStatus_.on(Ip::Status::ipIntfStatusChanged,
               [this](const Lanix::IntfId& intfId) { handleIpIntfStatus(intfId); });
  vrfNameToIdMap_.on(Vrf::VrfIdMap::NameToIdMap::vrfNameToIdChanged,
                     [this](const Mox::String& name) { handleVrfNameToId(name); });
  vlanL3InfoStatus_.on(VlanL3InfoStatus::vrfInfoChanged,
                       [this](const Mox::String& name) { handleVrfInfo(name); });
  handleInitialized();
}

// The VRF reactors go while nothing calls back here any more: their end announces every VLAN of theirs.
VlanL3InfoSm::~VlanL3InfoSm() {
  arpSuppressionStatus_.notifierIs(nullptr);
  enabledVlans_.notifierIs(nullptr);
  allVrfStatusLocal_.notifierIs(nullptr);
  vrfNameOf_.clear();
  ipStatus_.notifierIs(nullptr);
  vrfNameToIdMap_.notifierIs(nullptr);
  vlanL3InfoStatus_.notifierIs(nullptr);
  vlanL3AddrSm_.clear();
  auto reactors = std::move(vrfInfoSm_);
  reactors.clear();
}

void VlanL3InfoSm::handleInitialized() {
  TRACE8("");
  MOX_ASSERT(kSource, "0 == enabledVlans()->vlanIds()", enabledVlans_->vlanIds() == 0);
  netNsIntfStatusManagerRoot_ = Mox::make<Interface::NetNsIntfStatusManagerRoot>();
  if (ipStatus_) {
    for (const auto& [intfId, status] : ipStatus_->ipIntfStatusCollection()) watchVrfName(intfId);
  }
  scheduleWalk();
}

void VlanL3InfoSm::handleArpSuppressionStatus(Bridging::VlanId vlanId) {
  TRACE8("vlanId=" << vlanId);
  updateVlanId(vlanId);
}

void VlanL3InfoSm::handleEnabledfVlan(Bridging::VlanId vlanId) {
  TRACE8("vlanId=" << vlanId);
  updateVlanId(vlanId);
}

// An interface may change its VRF in place, which the collection of interfaces does not tell.
void VlanL3InfoSm::watchVrfName(const Lanix::IntfId& intfId) {
  if (!intfId.isVlan()) return;
  const Ptr<const Ip::IpIntfStatus> status = ipStatus_->ipIntfStatus(intfId);
  if (!status) {
    vrfNameOf_.erase(intfId);
    return;
  }
  auto [watch, made] = vrfNameOf_.try_emplace(intfId);
  if (made)
    watch->second.on(Ip::IpIntfStatus::vrfNameChanged, [this, intfId] { handleIpIntfStatus(intfId); });
  watch->second.notifierIs(status);
}

void VlanL3InfoSm::handleIpIntfStatus(const Lanix::IntfId& intfId) {
  TRACE8("intfId=" << intfId);
  if (!intfId.isVlan() || !Bridging::VlanId::valid(intfId.vlanNumber())) return;
  watchVrfName(intfId);
  updateVlanId(Bridging::VlanId(intfId.vlanNumber()));
  if (auto addrSm = vlanL3AddrSm_.find(intfId); addrSm != vlanL3AddrSm_.end()) {
    TRACE8("initializing vlanL3AddrSm");
    addrSm->second->ipIntfStatusIs(ipStatus_->ipIntfStatus(intfId));
  }
}

void VlanL3InfoSm::handleVrfStatusLocal(const Mox::String& vrfName) {
  TRACE8("vrfName=" << vrfName);
  updateVrfInfoSm(vrfName);
}

void VlanL3InfoSm::handleVrfInfo(const Mox::String& vrfName) {
  updateVrfInfoSm(vrfName);
  if (const Ptr<VrfInfo> vrfInfo = vlanL3InfoStatus_->vrfInfo(vrfName)) {
    TRACE8("vrfInfo=" << vrfInfo);
    updateVrfId(vrfInfo);
  }
}

void VlanL3InfoSm::handleVrfNameToId(const Mox::String& vrfName) {
  if (const Ptr<VrfInfo> vrfInfo = vlanL3InfoStatus_->vrfInfo(vrfName)) {
    TRACE8("vrfInfo=" << vrfInfo);
    updateVrfId(vrfInfo);
  }
}

void VlanL3InfoSm::walkFinishedNotification() { vlanL3InfoStatus_->initialArpSuppressionStatusSyncIs(true); }

void VlanL3InfoSm::updateVlanId(Bridging::VlanId vlanId) {
  TRACE8("vlanId=" << vlanId);
  Mox::String vrfName;
  Lanix::IntfId vlanIntfId;
  const bool wanted =
      (arpSuppressionStatus_ && arpSuppressionStatus_->vlanId(vlanId)) || enabledVlans_->vlanIdHas(vlanId);
  if (!wanted) {
    TRACE8("No arpSuppressionStatus vlanId=" << vlanId);
  } else {
    const Lanix::IntfId named = Lanix::IntfId::fromName(VlanL3Info::constructIntfNameFromVlanId(vlanId));
    const Ptr<Ip::IpIntfStatus> status = ipStatus_ ? ipStatus_->ipIntfStatus(named) : nullptr;
    if (!status) {
      TRACE8("No ipIntfStatus vlanId=" << vlanId);
    } else if (status->vrfName().size() > L3::VrfName::maxLength) {
      TRACE8("VRF name too long vlanId=" << vlanId << " vrfName=" << status->vrfName());
    } else {
      vrfName = status->vrfName();
      vlanIntfId = named;
    }
  }

  const Ptr<VlanL3Info> old = vlanL3InfoStatus_->vlanL3Info(vlanId);
  const Mox::String oldVrfName = old ? old->vrfInfo()->vrfName() : Mox::String();
  const Lanix::IntfId oldIntfId = old ? old->vlanIntfId() : Lanix::IntfId();
  if (vrfName == oldVrfName && vlanIntfId == oldIntfId) {
    TRACE8("No change oldVlanL3Info=" << old);
    return;
  }
  TRACE8("oldVlanL3Info=" << old << " vrfName=" << vrfName << " vlanIntfId=" << vlanIntfId);
  TRACELET_RECORD("updateVlanId vlanId={} vrfName={} vlanIntfId={}", vlanId.value(), vrfName, vlanIntfId);
  if (old) {
    vlanL3AddrSm_.erase(old->vlanIntfId());
    vlanL3InfoStatus_->delVrfInterfaceWatch(old);
    vlanL3InfoStatus_->vlanL3InfoDel(vlanId);
  }
  Ptr<VlanL3Info> created;
  if (!vrfName.empty()) {
    created = vlanL3InfoStatus_->vlanL3InfoIs(vlanL3InfoStatus_->vrfInfoIs(vrfName), vlanId);
    vlanL3InfoStatus_->addVrfInterfaceWatch(created);
    handleVrfNameToId(vrfName);
    vlanL3AddrSm_[vlanIntfId] = Mox::make<VlanL3AddrSm>(ipStatus_.notifier(), created);
  }
  // Last of all: whoever hears of it may come back here.
  if (old || created) vlanL3InfoStatus_->vlanUpdated(vlanId);
}

Orb::WalkRet VlanL3InfoSm::walk() {
  const auto& published = arpSuppressionStatus_->vlanIdCollection();
  Orb::WalkRet ret;
  auto next =
      vlanIdBookmark_ ? published.lowerBound(Bridging::VlanId(vlanIdBookmark_.value())) : published.begin();
  vlanIdBookmark_ = {};
  while (next != published.end()) {
    const Bridging::VlanId vlanId = next->first;
    updateVlanId(vlanId);
    ++ret.processed;
    next = published.upperBound(vlanId);  // the handler may have changed the collection
    if (next != published.end() && mustYield()) {
      vlanIdBookmark_ = Bridging::VlanIdOrNone(next->first);
      ret.moreWork = true;
      break;
    }
  }
  TRACE8("finished processed=" << ret.processed << " moreWork=" << ret.moreWork);
  return ret;
}

void VlanL3InfoSm::updateVrfId(const Ptr<VrfInfo>& vrfInfo) {
  const Vrf::VrfIdMap::VrfId vrfId =
      vrfNameToIdMap_ ? vrfNameToIdMap_->vrfId(vrfInfo->vrfName()) : Vrf::VrfIdMap::kNoVrfId;
  if (vrfId == vrfInfo->vrfId()) {
    TRACE8("no change vrfInfo=" << vrfInfo);
    return;
  }
  TRACE8("update vrfId vrfInfo=" << vrfInfo);
  vrfInfo->vrfIdIs(vrfId);
}

void VlanL3InfoSm::updateVrfInfoSm(const Mox::String& vrfName) {
  L3::VrfName::check(vrfName);
  const Ptr<VrfInfo> vrfInfo = vlanL3InfoStatus_->vrfInfo(vrfName);
  Ptr<const Ip::VrfStatusLocal> vrfStatusLocal;
  if (allVrfStatusLocal_) vrfStatusLocal = allVrfStatusLocal_->vrf(vrfName);
  if (!vrfStatusLocal && vrfName == L3::VrfName::kDefault) {
    TRACE8("using made up vrfStatusLocal for default VRF");
    vrfStatusLocal = madeUpDefaultVrf_;
  }
  const bool needVrfInfoSm = vrfInfo && vrfStatusLocal;
  // The made-up status and the real one take turns: the reactor starts anew with the other.
  if (auto have = vrfInfoSm_.find(vrfName); have != vrfInfoSm_.end() && needVrfInfoSm) {
    const auto& held = have->second->vrfStatusLocal();
    if (held != vrfStatusLocal &&
        (held == madeUpDefaultVrf_.get() || vrfStatusLocal == madeUpDefaultVrf_.get())) {
      const Ptr<VrfInfoSm> gone = std::move(have->second);
      vrfInfoSm_.erase(have);
    }
  }
  const auto sm = vrfInfoSm_.find(vrfName);
  const bool haveVrfInfoSm = sm != vrfInfoSm_.end();
  if (needVrfInfoSm == haveVrfInfoSm) {
    TRACE8("no change vrfName=" << vrfName << " vrfInfo=" << vrfInfo << " haveVrfInfoSm=" << haveVrfInfoSm);
    MOX_ASSERT(kSource, "!haveVrfInfoSm || sm->vrfStatusLocal() == vrfStatusLocal",
               !haveVrfInfoSm || sm->second->vrfStatusLocal() == vrfStatusLocal);
    return;
  }
  TRACE8("vrfName=" << vrfName << " vrfInfo=" << vrfInfo << " needVrfInfoSm=" << needVrfInfoSm);
  if (needVrfInfoSm) {
    MOX_ASSERT(kSource, "__null != vrfStatusLocal", vrfStatusLocal != nullptr);
    vrfInfoSm_[vrfName] = Mox::make<VrfInfoSm>(
        scheduler(), vrfInfo, vrfStatusLocal, vlanL3InfoStatus_.notifier(), netNsIntfStatusManagerRoot_,
        allIntfStatusDir_, allIntfStatusLocalDir_, deviceIntfStatusDir_, entityMgr_);
  } else {
    const Ptr<VrfInfoSm> gone = std::move(sm->second);
    vrfInfoSm_.erase(sm);
  }
}

void VlanL3InfoSm::dumpState(Orb::DumpContext& context, int indent) const {
  context.line(indent, "VlanL3InfoSm");
  context.line(indent, "vlanIdBookmark=" + vlanIdBookmark_.toStrep());
  context.child(indent + 2, vlanL3InfoStatus_.notifier(), "VlanL3InfoStatus");
  for (const auto& [name, sm] : vrfInfoSm_) context.child(indent + 2, sm, "VrfInfoSm");
}

// --- VlanL3AddrSm ----------------------------------------------------------------------------------------

VlanL3InfoSm::VlanL3AddrSm::VlanL3AddrSm(Ptr<const Ip::Status> ipStatus, Ptr<VlanL3Info> vlanL3Info)
    : vlanL3Info_(std::move(vlanL3Info)) {
  ipIntfStatus_.on(Ip::IpIntfStatus::activeAddrChanged, [this] { handleActiveAddr(); })
      .on(Ip::IpIntfStatus::activeSecondaryAddrChanged, [this] { handleActiveAddr(); });
  ipIntfStatusIs(ipStatus->ipIntfStatus(
      Lanix::IntfId::fromName(VlanL3Info::constructIntfNameFromVlanId(vlanL3Info_->vlanId()))));
}

void VlanL3InfoSm::VlanL3AddrSm::ipIntfStatusIs(const Ptr<const Ip::IpIntfStatus>& ipIntfStatus) {
  ipIntfStatus_.notifierIs(ipIntfStatus);
  handleActiveAddr();
}

void VlanL3InfoSm::VlanL3AddrSm::handleActiveAddr() {
  TRACE8("");
  doCleanup();
  if (!ipIntfStatus_) return;
  if (const Lanix::IpGenAddr primary = ipIntfStatus_->activeAddr().address())
    vlanL3Info_->ipAddressIs(primary, true);
  for (const Lanix::IpGenPrefix& secondary : ipIntfStatus_->activeSecondaryAddr()) {
    vlanL3Info_->ipAddressIs(secondary.address(), true);
  }
}

// --- VrfInfoSm -------------------------------------------------------------------------------------------

VrfInfoSm::VrfInfoSm(Ptr<Orb::TaskScheduler> scheduler, Ptr<VrfInfo> vrfInfo,
                     Ptr<const Ip::VrfStatusLocal> vrfStatusLocal, Ptr<VlanL3InfoStatus> vlanL3InfoStatus,
                     Ptr<Interface::NetNsIntfStatusManagerRoot> netNsIntfStatusManagerRoot,
                     Ptr<const Interface::AllIntfStatusDir> allIntfStatusDir,
                     Ptr<const Interface::AllIntfStatusLocalDir> allIntfStatusLocalDir,
                     Ptr<Interface::DeviceIntfStatusDir> deviceIntfStatusDir,
                     Ptr<Statedb::EntityManager> entityMgr)
    : WalkSmBase(std::move(scheduler), "Vrf-" + vrfInfo->vrfName()),
      vrfInfo_(std::move(vrfInfo)),
      vrfStatusLocal_(std::move(vrfStatusLocal)),
      vlanL3InfoStatus_(std::move(vlanL3InfoStatus)),
      netNsIntfStatusManagerRoot_(std::move(netNsIntfStatusManagerRoot)),
      allIntfStatusDir_(std::move(allIntfStatusDir)),
      allIntfStatusLocalDir_(std::move(allIntfStatusLocalDir)),
      deviceIntfStatusDir_(std::move(deviceIntfStatusDir)),
      entityMgr_(std::move(entityMgr)) {
  vrfInfo_
      .on(VrfInfo::interfaceWatchChanged,
          [this](const Mox::String& intfName) { handleInterfaceWatch(intfName); })
      .on(VrfInfo::vrfIdChanged, [this] { updateVrfInfo(false); });
  vrfStatusLocal_.on(Ip::VrfStatusLocal::stateChanged, [this] { handleVrfStatusLocal(); })
      .on(Ip::VrfStatusLocal::networkNamespaceChanged, [this] { handleVrfStatusLocal(); });
  kniInterfaceInfo_.on(KernelNetInfo::Status::interfaceChanged,
                       [this](const Mox::String& deviceName) { handleInterfaceByDeviceName(deviceName); });
  handleInitialized();
}

VrfInfoSm::~VrfInfoSm() { handleDestroy(); }

void VrfInfoSm::handleInitialized() {
  TRACE8("");
  updateVrfInfo(false);
}

void VrfInfoSm::handleDestroy() {
  TRACE8("");
  updateVrfInfo(true);
}

void VrfInfoSm::handleVrfStatusLocal() { updateVrfInfo(false); }

void VrfInfoSm::handleInterfaceWatch(const Mox::String& intfName) {
  const Ptr<VrfInterfaceWatch> watch(vrfInfo_->interfaceWatch(intfName));
  if (!watch) return;
  TRACE8("watch=" << watch);
  updateInterfaceWatch(watch);
}

void VrfInfoSm::handleInterfaceByDeviceName(const Mox::String& deviceName) {
  // Watches of one VRF may differ in upper and lower case only; there are few of them.
  for (Ptr<VrfInterfaceWatch> watch = watchFrom(""); watch;) {
    const Mox::String intfName = watch->intfName();
    if (watch->kniIntfName() == deviceName) {
      TRACE8("watch=" << watch);
      LifeGuard guard(*this);
      updateInterfaceWatch(watch);
      if (!guard.alive()) return;
    }
    const auto next = vrfInfo_->interfaceWatchCollection().upperBound(intfName);
    watch = next == vrfInfo_->interfaceWatchCollection().end() ? nullptr : next->second;
  }
}

void VrfInfoSm::updateVrfInfo(bool forceCleanup) {
  // Active without a namespace is a status that is still being filled in.
  const bool nowActive = !forceCleanup && vrfStatusLocal_->state() == Ip::VrfState::active &&
                         !vrfStatusLocal_->networkNamespace().empty() &&
                         vrfInfo_->vrfId() != Vrf::VrfIdMap::kNoVrfId;
  const bool wasActive = !vrfInfo_->netNs().empty();
  if (nowActive == wasActive) {
    MOX_ASSERT(kSource, "!wasActive || vrfInfo()->netNs() == vrfStatusLocal()->networkNamespace()",
               !wasActive || vrfInfo_->netNs() == vrfStatusLocal_->networkNamespace());
    return;
  }
  TRACE8("this=" << *this << " wasActive=" << wasActive << " nowActive=" << nowActive);
  TRACELET_RECORD("updateVrfInfo vrfName={} wasActive={} nowActive={}", vrfInfo_->vrfName(), wasActive,
                  nowActive);
  if (nowActive) {
    becomeActive();
  } else {
    becomeInactive(forceCleanup);
  }
}

void VrfInfoSm::becomeInactive(bool forceCleanup) {
  const Lanix::NamespaceName netNs = vrfInfo_->netNs();
  const auto& vrfs = vlanL3InfoStatus_->vrfInfoCollection();
  const bool shared = std::any_of(vrfs.begin(), vrfs.end(), [&](const auto& vrf) {
    return vrf.second != vrfInfo_.notifier() && vrf.second->netNs() == netNs;
  });
  if (!shared) netNsIntfStatusManagerRoot_->netNsIntfStatusManagerDel(netNs);
  Lanix::closeNetlinkSocket(vrfInfo_->netlinkSocket());
  vrfInfo_->netlinkSocketIs(0);
  kniInterfaceInfo_.notifierIs(nullptr);
  if (entityMgr_) entityMgr_->unmount(kniPath(netNs));
  vrfInfo_->netNsIs("");
  if (!forceCleanup) {
    scheduleInterfaceWatchUpdate();
    return;
  }
  // This reactor ends: its walk will not come any more. VLANs that hear of it may go, and their watches with
  // them.
  const Ptr<VrfInfo> vrfInfo = vrfInfo_.notifier();
  vrfInfo_.notifierIs(nullptr);
  vrfStatusLocal_.notifierIs(nullptr);
  const auto& watches = vrfInfo->interfaceWatchCollection();
  for (auto next = watches.begin(); next != watches.end();) {
    const Mox::String intfName = next->first;
    const Ptr<VrfInterfaceWatch> watch(next->second);
    watch->kniIntfIfIndexIs(0);
    if (const auto info = Mox::dynamicPtrCast<VlanL3Info>(watch)) vlanL3InfoStatus_->vlanUpdated(*info);
    next = watches.upperBound(intfName);
  }
}

void VrfInfoSm::becomeActive() {
  const Lanix::NamespaceName netNs = vrfStatusLocal_->networkNamespace();
  vrfInfo_->netNsIs(netNs);
  if (!entityMgr_) {
    scheduleInterfaceWatchUpdate();
    return;
  }
  const std::uint32_t socket = Lanix::openNetlinkSocket(netNs);
  if (socket == 0) TRACE8("no netlink socket in namespace " << netNs);
  vrfInfo_->netlinkSocketIs(socket);
  const auto kniRoot = Mox::dynamicPtrCast<const KernelNetInfo::Status>(
      entityMgr_->mount(kniPath(netNs), "KernelNetInfo::Status", "r"));
  kniInterfaceInfo_.notifierIs(kniRoot);
  const auto manager = netNsIntfStatusManagerRoot_->netNsIntfStatusManagerIs(
      netNs, kniRoot, allIntfStatusDir_, allIntfStatusLocalDir_, deviceIntfStatusDir_);
  manager->kernelOnlyInterfaceIs("cpu", "Cpu");
  scheduleInterfaceWatchUpdate();
}

void VrfInfoSm::scheduleInterfaceWatchUpdate() {
  TRACE8("");
  scheduleWalk();
}

bool VrfInfoSm::walkStartedNotification() {
  interfaceWatchBookmark_.clear();
  return true;
}

Ptr<VrfInterfaceWatch> VrfInfoSm::watchFrom(const Mox::String& intfName) const {
  const auto& watches = vrfInfo_->interfaceWatchCollection();
  const auto at = watches.lowerBound(intfName);
  return at == watches.end() ? Ptr<VrfInterfaceWatch>() : Ptr<VrfInterfaceWatch>(at->second);
}

Orb::WalkRet VrfInfoSm::walk() {
  LifeGuard guard(*this);
  Orb::WalkRet ret;
  Ptr<VrfInterfaceWatch> watch = watchFrom(interfaceWatchBookmark_);
  interfaceWatchBookmark_.clear();
  while (watch) {
    const Mox::String intfName = watch->intfName();
    updateInterfaceWatch(watch);
    ++ret.processed;
    if (!guard.alive()) return ret;  // the last VLAN of the VRF went with the announcement
    const auto& watches = vrfInfo_->interfaceWatchCollection();
    const auto next = watches.upperBound(intfName);
    watch = next == watches.end() ? nullptr : next->second;
    if (watch && mustYield()) {
      interfaceWatchBookmark_ = watch->intfName();
      ret.moreWork = true;
      break;
    }
  }
  return ret;
}

void VrfInfoSm::updateInterfaceWatch(const Ptr<VrfInterfaceWatch>& watch) {
  std::uint32_t ifIndex = 0;
  if (vrfInfo_->usable() && kniInterfaceInfo_)
    ifIndex = kniInterfaceInfo_->interface(watch->kniIntfName()).ifIndex;
  LifeGuard guard(*this);
  const Ptr<VlanL3InfoStatus> status = vlanL3InfoStatus_;
  watch->kniIntfIfIndexIs(ifIndex);
  if (!guard.alive()) return;
  TRACE8("watch=" << watch << " ifIndex=" << ifIndex);
  if (const auto info = Mox::dynamicPtrCast<VlanL3Info>(watch)) status->vlanUpdated(*info);
}

Mox::String VrfInfoSm::kniPath(const Lanix::NamespaceName& netNs) const {
  return "kni/ns/" + netNs + "/status";
}

Mox::String VrfInfoSm::toStrep() const { return "<VrfInfoSm " + vrfInfo_->toStrep() + ">"; }

void VrfInfoSm::dumpState(Orb::DumpContext& context, int indent) const {
  context.line(indent, "VrfInfoSm");
  context.attribute(indent, "vrfInfo", vrfInfo_->toStrep());
  context.attribute(indent, "vrfStatusLocal",
                    Mox::toStrep(vrfStatusLocal_->state()) + " " + vrfStatusLocal_->networkNamespace());
  context.attribute(
      indent, "kniRoot",
      kniInterfaceInfo_ ? std::to_string(kniInterfaceInfo_->interfaces()) + " interfaces" : "NULL");
  context.attribute(indent, "interfaceWatchBookmark", interfaceWatchBookmark_);
}

}  // namespace ArpSuppression
