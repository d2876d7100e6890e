#pragma once

#include "ArpSuppression/ArpSuppressionSafeEthDevPam.h"
#include "ArpSuppression/VlanL3Info.h"
#include "Mox/Notifiee.h"
#include "Orb/WalkSm.h"
#include "Routing/Status.h"
#include "Suppression/Counter.h"

namespace ArpSuppression {

class BindingDiscoverySm;

// Listens on one VLAN interface for ARP replies to the gateway MAC that this switch shares with its peers:
// hosts send them when the switch itself has asked. The sender of each becomes a local binding. The access to
// the interface is open exactly while the interface is usable. The owner is referred to by plain pointer.
//
// Only this frame is learned from (offsets from the Ethernet header on, big-endian). Every other one is
// traced, counted and dropped; so is one that is padded to 60 bytes, the least size of an Ethernet frame.
//
//   | offset | size | field                                                    |
//   |--------|------|----------------------------------------------------------|
//   | 0      | 12   | destination and source MAC, not read                     |
//   | 12     | 2    | 0x0806                                                   |
//   | 14     | 8    | ARP for IPv4 over Ethernet (RFC 826), operation 2, reply |
//   | 22     | 10   | sender: the binding's MAC and IPv4 address               |
//   | 32     | 10   | target: the shared MAC; its address is not read          |
//   | 42     | 0    | nothing more                                             |
class BindingDiscoveryVgwReplySm final : public Orb::WalkSmBase {
 public:
  BindingDiscoveryVgwReplySm(Ptr<Orb::TaskScheduler> scheduler, Ptr<const VlanL3Info> vlanL3Info,
                             Ptr<ArpSuppressionCounterStatus> arpSuppressionCounterStatus,
                             Ptr<const Routing::Fhrp::VirtualRouterMacStatus> fhrpVrMacStatus,
                             BindingDiscoverySm* bindingDiscoverySm);

  // Whether it listens where `vlanL3Info`, which is usable, says: on the interface of that very entry, in the
  // namespace that its VRF has now.
  bool listensOn(const VlanL3Info& vlanL3Info) const;

  void processPacket(const Ptr<Lanix::Pkt>& pkt);

  Mox::String toStrep() const;
  void dumpState(Orb::DumpContext& context, int indent) const;

 private:
  Orb::WalkRet walk() override;
  void traceEvent(const char* event) override;

  void handleKniIntfIfIndex();
  void handleArpReplyRxPamReadable();
  void arpReplyRxPamIs(Ptr<SafeEthDevPam> pam) { arpReplyRxPam_.notifierIs(std::move(pam)); }
  void arpReplyRxPamDel() { arpReplyRxPam_.notifierIs(nullptr); }
  void count(ArpSuppressionCounterId id) { arpSuppressionCounterStatus_->increment(id); }

  Mox::Notifiee<const VlanL3Info> vlanL3Info_;
  Ptr<ArpSuppressionCounterStatus> arpSuppressionCounterStatus_;
  Ptr<const Routing::Fhrp::VirtualRouterMacStatus> fhrpVrMacStatus_;
  BindingDiscoverySm* bindingDiscoverySm_;
  Mox::Notifiee<SafeEthDevPam> arpReplyRxPam_;
  std::uint32_t openedIfIndex_ = 0;  // of the device that the access was made for
};

}  // namespace ArpSuppression
