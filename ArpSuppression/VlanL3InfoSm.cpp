#include "ArpSuppression/VlanL3InfoSm.h"

#include <utility>

#include "ArpSuppression/Trace.h"
#include "L3/VrfName.h"
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
    } else if (!L3::VrfName::valid(status->vrfName())) {
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
    scheduler()->loop().dispatch("VlanL3InfoSm", [&] { updateVlanId(vlanId); });
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
  // Not raised: the error would end in the hands of whoever wrote the name.
  if (!L3::VrfName::valid(vrfName)) {
    TRACE8(L3::VrfName::kTooLong);
    TRACELET_RECORD("vrfName={}: {}", vrfName, L3::VrfName::kTooLong);
    return;
  }
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

}  // namespace ArpSuppression
