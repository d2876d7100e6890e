#pragma once

#include <array>

#include "ArpSuppression/EnabledVlans.h"
#include "ArpSuppression/RemoteBindingStatus.h"
#include "ArpSuppression/VlanL3Info.h"
#include "Evpn/Status.h"
#include "Mox/Notifiee.h"
#include "Orb/WalkSm.h"
#include "Suppression/Status.h"

namespace ArpSuppression {

// Decides VLAN by VLAN where suppression applies: which VLANs are to be followed (EnabledVlans), and on which
// it is in force (ArpSuppressionStatus, published). A VLAN is enabled when EVPN serves it or it has remote
// bindings; it is published when it has remote bindings, or EVPN serves it and its layer-3 info is usable.
//
// What an earlier run published stays until the remote bindings have been read once, and is gone over then.
// At its end the reactor takes back everything it published.
class ArpSuppressionStatusSm final : public Orb::WalkSmBase {
 public:
  enum class InitializationStage : std::uint8_t {
    walkEvpnStatus,
    waitForRemoteBindingStatus,
    walkArpSuppressionStatus,
    complete
  };

  ArpSuppressionStatusSm(Ptr<Orb::TaskScheduler> scheduler, Ptr<const Evpn::EvpnStatus> evpnStatus,
                         Ptr<const RemoteBindingStatus> remoteBindingStatus,
                         Ptr<const VlanL3InfoStatus> vlanL3InfoStatus,
                         Ptr<ArpSuppressionStatus> arpSuppressionStatus, Ptr<EnabledVlans> enabledVlans);
  ~ArpSuppressionStatusSm() override;

  InitializationStage initializationStage() const { return initializationStage_; }
  // Leaves the published VLANs alone at the end.
  void skipVlanIdCleanupForTestIs(bool skip) { skipVlanIdCleanupForTest_ = skip; }

  Mox::String toStrep() const { return "<ArpSuppressionStatusSm>"; }
  void dumpState(Orb::DumpContext& context, int indent) const;

 private:
  Orb::WalkRet walk() override;

  void handleInitialized();
  void handleDestroy();
  void handleVlan(Bridging::VlanId vlanId);
  void handleVlanL3InfoStatus(Bridging::VlanIdOrNone vlanIdOrNone);
  void handleInitialPopulationComplete();

  Orb::WalkRet evpnStatusWalk();
  Orb::WalkRet arpSuppressionStatusWalk();
  // Both walks: every key of `vlans` from the bookmark on.
  template <class Collection>
  Orb::WalkRet walkVlans(const Collection& vlans);
  void unpublish(Bridging::VlanId vlanId);

  Mox::Notifiee<const Evpn::EvpnStatus> evpnStatus_;
  Mox::Notifiee<const RemoteBindingStatus> remoteBindingStatus_;
  Mox::Notifiee<const VlanL3InfoStatus> vlanL3InfoStatus_;
  Ptr<ArpSuppressionStatus> arpSuppressionStatus_;
  Ptr<EnabledVlans> enabledVlans_;
  InitializationStage initializationStage_ = InitializationStage::walkEvpnStatus;
  Bridging::VlanIdOrNone bookmark_;
  bool skipVlanIdCleanupForTest_ = false;
};

constexpr std::array<const char*, 4> moxEnumNames(ArpSuppressionStatusSm::InitializationStage) {
  return {"walkEvpnStatus", "waitForRemoteBindingStatus", "walkArpSuppressionStatus", "complete"};
}

inline Ptr<ArpSuppressionStatusSm> arpSuppressionStatusSmFactory(
    const Ptr<Orb::TaskScheduler>& scheduler, const Ptr<const Evpn::EvpnStatus>& evpnStatus,
    const Ptr<const RemoteBindingStatus>& remoteBindingStatus,
    const Ptr<const VlanL3InfoStatus>& vlanL3InfoStatus,
    const Ptr<ArpSuppressionStatus>& arpSuppressionStatus, const Ptr<EnabledVlans>& enabledVlans) {
  return Mox::make<ArpSuppressionStatusSm>(scheduler, evpnStatus, remoteBindingStatus, vlanL3InfoStatus,
                                           arpSuppressionStatus, enabledVlans);
}

}  // namespace ArpSuppression
