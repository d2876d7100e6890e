#include "ArpSuppression/ArpSuppressionStatusSm.h"

#include <utility>

#include "ArpSuppression/Trace.h"
#include "Mox/Assert.h"

namespace ArpSuppression {

namespace {
constexpr char kSource[] = "ArpSuppression/ArpSuppressionStatusSm";
}

ArpSuppressionStatusSm::ArpSuppressionStatusSm(Ptr<Orb::TaskScheduler> scheduler,
                                               Ptr<const Evpn::EvpnStatus> evpnStatus,
                                               Ptr<const RemoteBindingStatus> remoteBindingStatus,
                                               Ptr<const VlanL3InfoStatus> vlanL3InfoStatus,
                                               Ptr<ArpSuppressionStatus> arpSuppressionStatus,
                                               Ptr<EnabledVlans> enabledVlans)
    : WalkSmBase(std::move(scheduler), "ArpSuppressionStatusSm", 3),
      evpnStatus_(std::move(evpnStatus)),
      remoteBindingStatus_(std::move(remoteBindingStatus)),
      vlanL3InfoStatus_(std::move(vlanL3InfoStatus)),
      arpSuppressionStatus_(std::move(arpSuppressionStatus)),
      enabledVlans_(std::move(enabledVlans)) {
  MOX_ASSERT(kSource, "evpnStatus() && remoteBindingStatus() && vlanL3InfoStatus()",
             evpnStatus_ && remoteBindingStatus_ && vlanL3InfoStatus_);
  evpnStatus_.on(Evpn::EvpnStatus::vlanToDot1qChanged,
                 [this](Bridging::VlanId vlanId) { handleVlan(vlanId); });
  remoteBindingStatus_
      .on(RemoteBindingStatus::vlanIdChanged, [this](Bridging::VlanId vlanId) { handleVlan(vlanId); })
      .on(RemoteBindingStatus::initialPopulationCompleteChanged,
          [this] { handleInitialPopulationComplete(); });
  vlanL3InfoStatus_.on(VlanL3InfoStatus::updatedVlanIdChanged,
                       [this](Bridging::VlanIdOrNone vlanId) { handleVlanL3InfoStatus(vlanId); });
  handleInitialized();
  scheduleWalk();
}

ArpSuppressionStatusSm::~ArpSuppressionStatusSm() { handleDestroy(); }

void ArpSuppressionStatusSm::handleInitialized() {
  TRACE8("");
  MOX_ASSERT(kSource, "0 == remoteBindingStatus()->vlanIds()", remoteBindingStatus_->vlanIds() == 0);
}

void ArpSuppressionStatusSm::handleDestroy() {
  TRACE8("");
  if (!skipVlanIdCleanupForTest_ && arpSuppressionStatus_) arpSuppressionStatus_->vlanIdDelAll();
}

void ArpSuppressionStatusSm::handleInitialPopulationComplete() {
  // In any other stage the walk comes by itself, or is over.
  if (initializationStage_ == InitializationStage::waitForRemoteBindingStatus) scheduleWalk();
}

void ArpSuppressionStatusSm::handleVlanL3InfoStatus(Bridging::VlanIdOrNone vlanIdOrNone) {
  if (!vlanIdOrNone) return;
  handleVlan(Bridging::VlanId(vlanIdOrNone.value()));
}

void ArpSuppressionStatusSm::handleVlan(Bridging::VlanId vlanId) {
  const bool inEvpnStatus = evpnStatus_->vlanToDot1qHas(vlanId);
  const bool inRemoteBindingStatus = remoteBindingStatus_->vlanIdHas(vlanId);
  TRACE8("handleVlan vlanId " << vlanId << " inEvpnStatus=" << inEvpnStatus
                              << " inRemoteBindingStatus=" << inRemoteBindingStatus
                              << " vlanUsable=" << (vlanL3InfoStatus_->usableVlanL3Info(vlanId) != nullptr)
                              << " inArpSuppressionStatus=" << arpSuppressionStatus_->vlanIdHas(vlanId));
  if (!inEvpnStatus && !inRemoteBindingStatus) {
    enabledVlans_->vlanIdDel(vlanId);
    unpublish(vlanId);
    return;
  }
  enabledVlans_->vlanIdIs(vlanId);
  // Enabling a VLAN may resolve its layer-3 info on the spot and come back here from inside: what counts is
  // how things stand now, not how they stood above.
  const bool vlanUsable = vlanL3InfoStatus_->usableVlanL3Info(vlanId) != nullptr;
  if ((evpnStatus_->vlanToDot1qHas(vlanId) && vlanUsable) || remoteBindingStatus_->vlanIdHas(vlanId)) {
    arpSuppressionStatus_->vlanIdIs(vlanId, true);
  } else {
    unpublish(vlanId);
  }
}

void ArpSuppressionStatusSm::unpublish(Bridging::VlanId vlanId) {
  switch (initializationStage_) {
    case InitializationStage::walkEvpnStatus:
    case InitializationStage::waitForRemoteBindingStatus:
      return;  // perhaps of an earlier run; the second walk decides
    case InitializationStage::walkArpSuppressionStatus:
    case InitializationStage::complete:
      arpSuppressionStatus_->vlanIdDel(vlanId);
      return;
  }
  MOX_ASSERT(kSource, "false", false);
}

Orb::WalkRet ArpSuppressionStatusSm::walk() {
  switch (initializationStage_) {
    case InitializationStage::walkEvpnStatus:
      return evpnStatusWalk();
    case InitializationStage::waitForRemoteBindingStatus:
      if (!remoteBindingStatus_->initialPopulationComplete()) return {};
      initializationStage_ = InitializationStage::walkArpSuppressionStatus;
      return arpSuppressionStatusWalk();
    case InitializationStage::walkArpSuppressionStatus:
      return arpSuppressionStatusWalk();
    case InitializationStage::complete:
      break;
  }
  MOX_ASSERT(kSource, "false", false);
  return {};
}

Orb::WalkRet ArpSuppressionStatusSm::evpnStatusWalk() {
  Orb::WalkRet ret = walkVlans(evpnStatus_->vlanToDot1qCollection());
  if (!ret.moreWork) initializationStage_ = InitializationStage::waitForRemoteBindingStatus;
  ret.moreWork = true;  // the waiting stage looks whether it has to wait
  return ret;
}

Orb::WalkRet ArpSuppressionStatusSm::arpSuppressionStatusWalk() {
  const Orb::WalkRet ret = walkVlans(arpSuppressionStatus_->vlanIdCollection());
  if (!ret.moreWork) initializationStage_ = InitializationStage::complete;
  return ret;
}

template <class Collection>
Orb::WalkRet ArpSuppressionStatusSm::walkVlans(const Collection& vlans) {
  Orb::WalkRet ret;
  auto next = bookmark_ ? vlans.lowerBound(Bridging::VlanId(bookmark_.value())) : vlans.begin();
  bookmark_ = {};
  while (next != vlans.end()) {
    const Bridging::VlanId vlanId = next->first;
    // An error costs the VLAN that raised it, not those behind it.
    scheduler()->loop().dispatch(kSource, [&] { handleVlan(vlanId); });
    ++ret.processed;
    next = vlans.upperBound(vlanId);  // the handler may have removed the entry
    if (next != vlans.end() && mustYield()) {
      bookmark_ = Bridging::VlanIdOrNone(next->first);
      ret.moreWork = true;
      break;
    }
  }
  return ret;
}

void ArpSuppressionStatusSm::dumpState(Orb::DumpContext& context, int indent) const {
  context.line(indent, "ArpSuppressionStatusSm");
  context.attribute(indent, "initializationStage", Mox::toStrep(initializationStage_));
  context.attribute(indent, "bookmark", bookmark_.toStrep());
  context.child(indent + 2, enabledVlans_, "EnabledVlans");
}

}  // namespace ArpSuppression
