#pragma once

#include <vector>

#include "ArpSuppression/RemoteBindingStatus.h"
#include "Memtab/EntityManager.h"
#include "Mox/Notifiee.h"
#include "Orb/WalkSm.h"
#include "Suppression/Counter.h"
#include "Suppression/Limits.h"
#include "Suppression/RemoteBindingConfig.h"
#include "Switch/PassingProblem.h"

namespace ArpSuppression {

// Turns the remote bindings that EVPN publishes, by VLAN and address, into RemoteBindingStatus, by VRF and
// address and by VLAN and station. It remembers every binding as it was last applied, so that each change of
// the input is applied as an exact difference, at once. A walk in slices does the initial population, and
// again whenever a VLAN with bindings gains, loses or changes its VRF: first over the input, then over the
// status, where entries are moved to the VRF they belong to.
//
// There is room for so many bindings as the limit says. With that many known a new one is refused and counted;
// known ones go on being followed. Some time after one of either kind has gone, or when the limit changes, the
// walk looks for what was refused.
class RemoteBindingStatusSm final : public Orb::WalkSmBase {
 public:
  RemoteBindingStatusSm(Ptr<Orb::TaskScheduler> scheduler, Ptr<const RemoteBindingConfig> remoteBindingConfig,
                        Ptr<const MoxSharedMem::MountGroup> remoteBindingConfigMountGroup,
                        Ptr<VlanL3InfoStatus> vlanL3InfoStatus, Ptr<RemoteBindingStatus> remoteBindingStatus,
                        Ptr<const Limits> limits = nullptr,
                        Ptr<ArpSuppressionCounterStatus> arpSuppressionCounterStatus = nullptr);

  // Every input binding as last applied.
  MOX_HASH(RemoteBindingKey, RemoteBinding, knownBinding)
  // How many of them each VLAN has; no entry: none.
  MOX_MAP(Bridging::VlanId, std::int32_t, vlanBindingCount)

  // Seconds from when there may be room to the walk that fills it.
  static constexpr double kRoomSeconds = 10;

  enum class WalkStage : std::uint8_t { walkRemoteBindingConfig, walkRemoteBindingStatus, complete };
  WalkStage walkStage() const { return walkStage_; }
  bool remoteBindingConfigReady() const { return remoteBindingConfigReady_; }

  // Stores a count; throws Mox::RangeError when it is out of range.
  void setVlanBindingCount(Bridging::VlanId vlanId, std::int64_t count);
  std::int32_t vlanBindingCountInc(Bridging::VlanId vlanId, std::int32_t n);
  std::int32_t vlanBindingCountDec(Bridging::VlanId vlanId, std::int32_t n);

  Mox::String toStrep() const { return "<RemoteBindingStatusSm>"; }
  void dumpState(Orb::DumpContext& context, int indent) const;

 private:
  Orb::WalkRet walk() override;
  bool walkStartedNotification() override;
  void walkFinishedNotification() override {}
  bool allowWalkRestarts() const override { return true; }
  void traceEvent(const char* event) override;

  void handleInitialized();
  void handleRemoteBindingReady();
  void handleVlanL3Info(Bridging::VlanId vlanId);
  void handleRemoteBinding(const RemoteBindingKey& key);
  void handleRoom();

  Orb::WalkRet remoteBindingConfigWalk();
  Orb::WalkRet remoteBindingStatusWalk();
  void lookAhead(const RemoteBindingKey& key, const RemoteBinding& binding) const;
  void updateIpToMac(const Ptr<RemoteIpToMac>& ipToMac);
  void vlanBindingCountCheckRange(std::int64_t count) const;
  void notifyVrfIpAddressChange(const VrfIpAddress& vrfIpAddress);

  // Brings the key up to date; false when it is new and there is no room.
  bool apply(const RemoteBindingKey& key);
  void refuse();
  // The two halves of one difference: the station that has the address now, and the one that had it.
  void addMac(const RemoteBindingKey& key, const RemoteBinding& now, bool macChanged, bool newKey);
  void deleteMac(const RemoteBindingKey& key, const Lanix::EthAddr& oldMac, bool withdrawn,
                 std::int32_t count);
  // The key of the address in the VRF of its VLAN; the default key while the VLAN has none.
  VrfIpAddress vrfIpAddressOf(const RemoteBindingKey& key) const;
  // Files a station under the address, in its entry; makes that when there is none.
  void fileMac(const VrfIpAddress& vrfIpAddress, Ptr<RemoteIpToMac> ipToMac,
               const VlanIdMacAddress& vlanIdMacAddress, bool localMultihomed);
  // Takes one away; the entry goes with its last.
  void unfileMac(const Ptr<RemoteIpToMac>& ipToMac, const VlanIdMacAddress& vlanIdMacAddress);

  Mox::Notifiee<const RemoteBindingConfig> remoteBindingConfig_;
  Mox::Notifiee<const MoxSharedMem::MountGroup> remoteBindingConfigMountGroup_;
  Mox::Notifiee<VlanL3InfoStatus> vlanL3InfoStatus_;
  Ptr<RemoteBindingStatus> remoteBindingStatus_;
  Mox::Notifiee<const Limits> limits_;
  Ptr<ArpSuppressionCounterStatus> arpSuppressionCounterStatus_;
  Switch::PassingProblem full_;
  Orb::Timer room_;
  bool refused_ = false;      // since the walk began
  bool wasRefusing_ = false;  // when it began
  bool nothingFiled_ = true;  // likewise
  bool remoteBindingConfigReady_ = false;
  WalkStage walkStage_ = WalkStage::walkRemoteBindingConfig;
  Memtab::Cursor remoteBindingConfigBookmark_;  // behind the keys that were read
  bool inputHasMore_ = true;                    // behind the bookmark
  std::vector<RemoteBindingKey> inputKeys_;     // read last
  std::size_t inputKeysHandled_ = 0;            // of them
  VrfIpAddress remoteBindingStatusBookmark_;
};

constexpr std::array<const char*, 3> moxEnumNames(RemoteBindingStatusSm::WalkStage) {
  return {"walkRemoteBindingConfig", "walkRemoteBindingStatus", "complete"};
}

}  // namespace ArpSuppression
