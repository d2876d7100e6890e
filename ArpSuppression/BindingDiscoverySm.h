#pragma once

#include <map>
#include <vector>

#include "Arp/Confirmation.h"
#include "Arp/InputConfig.h"
#include "Arp/Table.h"
#include "ArpSuppression/ArpInputConfigTrigger.h"
#include "ArpSuppression/BindingDiscoveryVgwReplySm.h"
#include "ArpSuppression/ConflictWatch.h"
#include "ArpSuppression/LocalBinding.h"
#include "ArpSuppression/LocalBindingRoom.h"
#include "ArpSuppression/RemoteBindingStatus.h"
#include "ArpSuppression/TrappedMessage.h"
#include "ArpSuppression/VlanL3Info.h"
#include "Bridging/Config.h"
#include "Bridging/Status.h"
#include "Evpn/Status.h"
#include "Mox/Notifiee.h"
#include "Routing/Status.h"
#include "Suppression/Counter.h"

namespace ArpSuppression {

// Keeps the local bindings in step with the hosts. It learns the sender of every trapped request and of every
// reply to the shared gateway MAC; gives a station that moves here the addresses that it was advertised with;
// and drops the bindings of a station that leaves the local ports, and of an address that another switch
// advertises. It follows changes only: MAC table entries and advertisements that were there before it have no
// effect. The MAC table's ids of forwarding databases (FID) are taken for VLAN ids.
//
// Where the kernel's neighbours are advertised to other switches, an address that a station brings along is asked
// for (Arp::Confirmation), and its binding goes when nobody answers.
//
// What cannot be a host's binding is counted and traced, and changes nothing.
class BindingDiscoverySm final : public Mox::Entity {
 public:
  // `arpStatus` and `arpInputConfig` are not read. They are inputs all the same: the owner makes a new
  // reactor when one of its inputs becomes another entity.
  BindingDiscoverySm(
      Ptr<Orb::TaskSchedulerRoot> taskSchedulerRoot, Ptr<const MessageTrap> receivedRequestTrap,
      Ptr<const Bridging::Config> bridgingConfig, Ptr<const Memtab::Bridging::Status> bridgingStatus,
      Ptr<ArpSuppressionCounterStatus> arpSuppressionCounterStatus, Ptr<VlanL3InfoStatus> vlanL3InfoStatus,
      Ptr<const RemoteBindingStatus> remoteBindingStatus, const Ptr<const Arp::Table::Status>& arpStatus,
      Ptr<const Routing::Fhrp::VirtualRouterMacStatus> fhrpVrMacStatus,
      const Ptr<const Arp::ArpInputConfig>& arpInputConfig, Ptr<LocalBindingRecord> localBindingRecord,
      Ptr<const Evpn::EvpnStatus> evpnStatus, Ptr<ArpInputConfigTrigger> arpInputConfigTrigger,
      const Ptr<const Limits>& limits = nullptr, Ptr<const Arp::Confirmation> confirmation = nullptr);

  // Learns a binding. One that is there with the same station is not made anew; its kernel neighbour is
  // decided again. A new address is refused where there is no room for it, on the port that the MAC table has
  // the station on and in all. `bindingDiscoveryEvent`: the host itself was heard; for the trace.
  void createLocalBinding(Bridging::VlanId vlanId, const Lanix::IpGenAddr& ipAddress,
                          const Lanix::EthAddr& macAddress, bool bindingDiscoveryEvent) {
    createLocalBinding(vlanId, ipAddress, macAddress, bindingDiscoveryEvent, {});
  }
  // `why` is for operators.
  void deleteLocalBinding(const Ptr<LocalBinding>& given, const char* why);

  // The listener of a VLAN; null when there is none.
  BindingDiscoveryVgwReplySm* vgwReplySm(Bridging::VlanId vlanId) const;
  const ConflictWatch& conflicts() const { return conflicts_; }
  std::size_t vgwReplySms() const { return vgwReplySm_.size(); }

  Mox::String toStrep() const { return "<BindingDiscoverySm>"; }
  void dumpState(Orb::DumpContext& context, int indent) const;

 private:
  // `heardOn`: the port, where the frame itself says it.
  void createLocalBinding(Bridging::VlanId vlanId, const Lanix::IpGenAddr& ipAddress,
                          const Lanix::EthAddr& macAddress, bool bindingDiscoveryEvent,
                          const Lanix::IntfId& heardOn);
  void handleInitialized();
  void handleTrappedRequest();
  void handleFdbStatus(const Bridging::HostKey& hostKey);
  void handleVlanL3Info(Bridging::VlanId vlanId);
  void handleRemoteBinding();
  void handleVgwVirtualMac();
  void handleSilence();

  void processLocalMac(const VlanIdMacAddress& vlanIdMacAddress, const Lanix::IntfId& intfId);
  void processRemoteMac(const VlanIdMacAddress& vlanIdMacAddress);
  // Another switch on the requester's Ethernet segment advertises it already.
  bool advertisedByPeer(const TrappedMessage& request) const;
  Ptr<const Evpn::SegmentStatus> segmentOf(const Lanix::IntfId& intfId) const;
  void vgwReplySmIs(Bridging::VlanId vlanId, const Ptr<const VlanL3Info>& vlanL3Info);
  void vgwReplySmDel(Bridging::VlanId vlanId) { vgwReplySm_.erase(vlanId); }
  void count(ArpSuppressionCounterId id) { arpSuppressionCounterStatus_->increment(id); }

  Ptr<Orb::TaskSchedulerRoot> taskSchedulerRoot_;
  Mox::Notifiee<const MessageTrap> receivedRequestTrap_;
  Ptr<const Bridging::Config> bridgingConfig_;
  Mox::Notifiee<const Memtab::Bridging::Status> bridgingStatus_;
  Ptr<ArpSuppressionCounterStatus> arpSuppressionCounterStatus_;
  Mox::Notifiee<VlanL3InfoStatus> vlanL3InfoStatus_;
  Mox::Notifiee<const RemoteBindingStatus> remoteBindingStatus_;
  Mox::Notifiee<const Routing::Fhrp::VirtualRouterMacStatus> fhrpVrMacStatus_;
  Ptr<LocalBindingRecord> localBindingRecord_;
  Ptr<const Evpn::EvpnStatus> evpnStatus_;
  Ptr<ArpInputConfigTrigger> arpInputConfigTrigger_;
  Mox::Notifiee<const Arp::Confirmation> confirmation_;
  std::vector<Arp::HostAddress> silent_;  // to be looked at
  Orb::Task silenceTask_;
  Orb::EventLoop& loop_;
  LocalBindingRoom room_;
  ConflictWatch conflicts_;
  std::map<Bridging::VlanId, Ptr<BindingDiscoveryVgwReplySm>> vgwReplySm_;  // by VLAN
};

}  // namespace ArpSuppression
