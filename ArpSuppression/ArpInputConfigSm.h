#pragma once

#include <array>
#include <compare>
#include <cstdint>

#include "Arp/Confirmation.h"
#include "Arp/InputConfig.h"
#include "Arp/Table.h"
#include "ArpSuppression/ArpInputConfigTrigger.h"
#include "ArpSuppression/ArpStatusHelper.h"
#include "ArpSuppression/KernelInstaller.h"
#include "ArpSuppression/LocalBinding.h"
#include "ArpSuppression/RemoteBindingStatus.h"
#include "Mox/Notifiee.h"
#include "Orb/WalkSm.h"
#include "Routing/Status.h"
#include "Suppression/Counter.h"
#include "Switch/PassingProblem.h"
#include "Switch/Readiness.h"

namespace ArpSuppression {

// Where the walk over the output resumes: at an entry of a VRF, or, without an address, at the VRF's first.
struct ArpInputConfigBookmark {
  Mox::String vrfName;
  Lanix::IpGenAddr ipAddress;
  Lanix::IntfId intfId;  // IPv6 only

  explicit operator bool() const { return !(*this == ArpInputConfigBookmark()); }
  friend auto operator<=>(const ArpInputConfigBookmark&, const ArpInputConfigBookmark&) = default;
  // "Value('ArpSuppression::ArpInputConfigBookmark', ** {...})"
  Mox::String toStrep() const;
};

enum class WalkStage : std::uint8_t { walkLocalBindingRecord, walkRemoteBindingStatus, walkArpInputConfig };
constexpr std::array<const char*, 3> moxEnumNames(WalkStage) {
  return {"walkLocalBindingRecord", "walkRemoteBindingStatus", "walkArpInputConfig"};
}

// What became of the neighbour's way straight into the kernel.
enum class KernelDynamicEntryInstallation : std::uint8_t {
  kernelDynamicEntryInstallationNotAttempted,
  kernelDynamicEntryInstallationSuccess,
  kernelDynamicEntryInstallationFailed
};
constexpr std::array<const char*, 3> moxEnumNames(KernelDynamicEntryInstallation) {
  return {"kernelDynamicEntryInstallationNotAttempted", "kernelDynamicEntryInstallationSuccess",
          "kernelDynamicEntryInstallationFailed"};
}

class ArpInputConfigSm;

// Asks for everything to be decided again when the kernel index of one VLAN's interface changes.
class ArpInputConfigVlanL3InfoSm final : public Mox::Entity {
 public:
  ArpInputConfigVlanL3InfoSm(Bridging::VlanId vlanId, Ptr<const VlanL3Info> vlanL3Info,
                             ArpInputConfigSm* parent);

 private:
  Mox::Notifiee<const VlanL3Info> vlanL3Info_;
};

// Makes kernel neighbours of bindings, so that the switch's own IP stack finds hosts without asking the
// network. For each address it decides what serves it, and writes, refreshes or deletes the one entry of the
// ARP service's input for it:
//
//   a local binding    an entry of ARP type 1, until the kernel has a neighbour of its own for the address,
//                      with which the binding then goes
//   one that is not    an entry of ARP type 2, where the VLAN's neighbours are advertised to other switches
//   confirmed          (Arp::Confirmation); the kernel's own neighbour, which the answer makes, confirms it
//   a remote binding   an entry of ARP type 0; with selective installation only where there is one already
//   nothing            none; but a host on a segment that this switch shares, whose remote binding has just
//                      gone, is written once more as a dynamic entry (ARP type 1), for the kernel to refresh
//
// Entries of type 1 also go straight into the kernel, through the VRF's netlink socket, at the end of the
// loop's turn; what became of that is counted then.
//
// A key is decided when one of its bindings or its kernel neighbour changes, and when the trigger says so.
// Everything is decided again, by a walk in slices, when a VLAN's layer-3 info or the layer-2 VPN
// configuration changes: first local bindings, then remote ones, then what is in the output, where this
// removes what is stale. This last stage waits until the VLANs and the remote bindings that were there at
// start are known.
//
// An earlier run may have ended without taking its entries back. Those that are still wanted stay in the
// output throughout. Until KernelState has published what the kernel shows ("switch/readiness"), and for a
// moment in which that takes effect, an entry is therefore not stale only because its VRF is not there or its
// VLAN not usable; and one whose remote binding is advertised, but not filed under the VRF of its VLAN yet,
// stays until that is done.
//
// The decisions read the binding tables and change none but the flag arpStatusHasDynamicEntry. The end takes
// everything out of the output.
class ArpInputConfigSm final : public Orb::WalkSmBase {
 public:
  ArpInputConfigSm(Ptr<Orb::TaskScheduler> scheduler, Ptr<const Routing::L2Vpn::Config> l2VpnConfig,
                   Ptr<LocalBindingRecord> localBindingRecord,
                   Ptr<const RemoteBindingStatus> remoteBindingStatus,
                   Ptr<const ArpInputConfigTrigger> arpInputConfigTrigger,
                   Ptr<const VlanL3InfoStatus> vlanL3InfoStatus, Ptr<const Arp::Table::Status> arpStatus,
                   Ptr<Arp::ArpInputConfig> arpInputConfig,
                   Ptr<ArpSuppressionCounterStatus> arpSuppressionCounterStatus,
                   Ptr<const Switch::Readiness> readiness,
                   Ptr<const Arp::Confirmation> confirmation = nullptr);
  ~ArpInputConfigSm() override;

  // Remote bindings of hosts on a shared segment, by their first station; remembered for when they go.
  MOX_HASH(VrfIpAddress, VlanIdMacAddress, localMultihomedRemoteBinding)
  MOX_CHILDREN(Bridging::VlanId, ArpInputConfigVlanL3InfoSm, moxVlanL3Info)

  // For how many seconds an earlier run's entries wait for their VLANs once KernelState has published these,
  // and for how many at most; and how often they are looked at.
  static constexpr double kTakeOverSeconds = 1;
  static constexpr double kLongestTakeOverSeconds = 60;
  static constexpr double kAwaitedSeconds = 1;

  WalkStage walkStage() const { return walkStage_; }
  const ArpInputConfigBookmark& arpInputConfigBookmark() const { return arpInputConfigBookmark_; }
  // The end leaves the output as it is.
  void skipArpInputCleanupForTestIs(bool skip) { skipArpInputCleanupForTest_ = skip; }

  // Decides everything again, from the first stage on.
  void reevaluate();
  // Decides one key; the default key is ignored. `suppressionEvent`: a suppressed request of the switch
  // itself asks, which selective installation does not hold back.
  void updateVrfIpAddress(const VrfIpAddress& vrfIpAddress, bool suppressionEvent);

  Mox::String toStrep() const { return "<ArpInputConfigSm>"; }
  void dumpState(Orb::DumpContext& context, int indent) const;

 private:
  using RemoteBindingPtr = Ptr<const RemoteIpToMac>;

  Orb::WalkRet walk() override;
  void handleInitialized();
  void handleDestroy();
  void handleVlanL3Info(Bridging::VlanId vlanId);
  void handleArpInputConfigTrigger();
  void handleArpStatus(const Arp::Table::ArpKey& arpKey);

  // --- one key; `remote` is its remote binding, null when there is none
  void decide(const VrfIpAddress& key, bool suppressionEvent, const RemoteBindingPtr& remote);
  // The station of the entry that was removed, otherwise the default one.
  VlanIdMacAddress updateLocalMultihomedRemoteBindings(const VrfIpAddress& key,
                                                       const RemoteBindingPtr& remote);
  bool selectiveInstall(const VrfIpAddress& key, const RemoteBindingPtr& remote) const;
  // True: a local binding serves the key, in the output or by the kernel's own entry.
  bool updateWithLocalBinding(const VrfIpAddress& key);
  // False: nothing is to be programmed.
  bool updateWithRemoteBinding(const VrfIpAddress& key, const RemoteBindingPtr& remote,
                               const VlanIdMacAddress& deleted, bool selective);
  // The VLAN's usable info when it is in the VRF of the key; otherwise null, and counted.
  Ptr<const VlanL3Info> vlanL3InfoFor(const VrfIpAddress& key, Bridging::VlanId vlanId);
  // The only writer of entries. True when the output holds an entry of the key afterwards; `onlyUpdate`
  // creates none and leaves one of another ARP type alone.
  bool updateEntry(std::uint8_t arpType, const VrfIpAddress& key, bool onlyUpdate,
                   const VlanIdMacAddress& vlanIdMacAddress, bool dynamicOrPermanent);
  void traceUpdated(const KernelInstaller::Request& written,
                    KernelDynamicEntryInstallation installation) const;
  void handleInstalled(const KernelInstaller::Request& request, const Mox::Result<>& result);
  void deleteEntry(const VrfIpAddress& key);
  // The entry of a key that nothing serves is to stay for now; it is looked at again.
  bool awaited(const VrfIpAddress& key);
  // Whether the kernel's state is published, as far as anybody does.
  bool populated() const;
  void handleReadiness();
  void handleTakeOverEnd();
  Ptr<Arp::ArpInputVrfConfig> arpInputVrfConfig(const VrfIpAddress& key) const;

  // --- the walk
  template <class Bindings>
  Orb::WalkRet bindingWalk(const Bindings& bindings, VrfIpAddress& bookmark, WalkStage next);
  Orb::WalkRet arpInputConfigWalk();
  // False: it gave way in the middle of the VRF; the bookmark is set.
  bool vrfWalk(const Ptr<Arp::ArpInputVrfConfig>& config, const Ptr<VrfInfo>& vrfInfo,
               const ArpInputConfigBookmark& from, Orb::WalkRet& ret);

  Mox::Notifiee<const Routing::L2Vpn::Config> l2VpnConfig_;
  Mox::Notifiee<LocalBindingRecord> localBindingRecord_;
  Mox::Notifiee<const RemoteBindingStatus> remoteBindingStatus_;
  Mox::Notifiee<const ArpInputConfigTrigger> arpInputConfigTrigger_;
  Mox::Notifiee<const VlanL3InfoStatus> vlanL3InfoStatus_;
  Mox::Notifiee<const Arp::Table::Status> arpStatus_;
  Mox::Notifiee<const Switch::Readiness> readiness_;
  Mox::Notifiee<const Arp::Confirmation> confirmation_;
  ArpStatusHelper arpStatusHelper_;
  Ptr<Arp::ArpInputConfig> arpInputConfig_;
  Ptr<ArpSuppressionCounterStatus> arpSuppressionCounterStatus_;
  Switch::PassingProblem tableFull_;
  KernelInstaller installer_;

  WalkStage walkStage_ = WalkStage::walkLocalBindingRecord;
  VrfIpAddress localBindingRecordBookmark_;
  VrfIpAddress remoteBindingStatusBookmark_;
  ArpInputConfigBookmark arpInputConfigBookmark_;
  bool takingOver_ = false;
  Orb::Timer takeOverEnd_;
  bool skipArpInputCleanupForTest_ = false;
};

}  // namespace ArpSuppression
