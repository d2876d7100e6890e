#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <functional>

#include "Bridging/VlanId.h"
#include "Interface/Directory.h"
#include "Lanix/EthAddr.h"
#include "Lanix/IntfId.h"
#include "Lanix/IpGenAddr.h"
#include "Lanix/NamespaceName.h"
#include "Lanix/Pkt.h"
#include "Mox/Attribute.h"
#include "Mox/Strep.h"
#include "Orb/DumpContext.h"
#include "Vrf/VrfId.h"

// The entities that the agent's reactors share: the trapped message and its hand-over points, the layer-3
// model of VLANs and VRFs, and the set of enabled VLANs.

namespace ArpSuppression {

using Mox::Ptr;

// --- Trapped messages ------------------------------------------------------------------------------------

// One trapped ARP request or reply with the buffer that it came in. Immutable.
class TrappedMessage final : public Mox::Referenced {
 public:
  enum class MessageType : std::uint8_t { request, reply };
  using IntfStatusAndDeviceName = Interface::DeviceIntfStatusDir::IntfStatusAndDeviceName;

  // `message` is the whole trapped buffer, trap header included.
  TrappedMessage(Bridging::VlanId vlanId, MessageType type, IntfStatusAndDeviceName srcIntf,
                 Lanix::IpGenAddr senderIpAddress, Lanix::EthAddr senderMacAddress,
                 Lanix::IpGenAddr targetIpAddress, Ptr<const Lanix::Pkt> message);

  // As the trap header gives it, whatever a tag in the frame says.
  Bridging::VlanId vlanId() const { return vlanId_; }
  MessageType type() const { return type_; }
  const IntfStatusAndDeviceName& srcIntf() const { return srcIntf_; }
  const Lanix::IpGenAddr& senderIpAddress() const { return senderIpAddress_; }
  const Lanix::EthAddr& senderMacAddress() const { return senderMacAddress_; }
  const Lanix::IpGenAddr& targetIpAddress() const { return targetIpAddress_; }
  const Ptr<const Lanix::Pkt>& message() const { return message_; }

  // "<request vlanId=10 if=Ethernet1(7) sIp=... sMac=... tIp=...>"
  Mox::String toStrep() const;
  void dumpState(Orb::DumpContext& context, int indent) const;

  // Recycles the objects: one is made for every trapped frame.
  static void* operator new(std::size_t size);
  static void operator delete(void* object, std::size_t size);

 private:
  Bridging::VlanId vlanId_;
  MessageType type_;
  IntfStatusAndDeviceName srcIntf_;
  Lanix::IpGenAddr senderIpAddress_;
  Lanix::EthAddr senderMacAddress_;
  Lanix::IpGenAddr targetIpAddress_;
  Ptr<const Lanix::Pkt> message_;
};

constexpr std::array<const char*, 2> moxEnumNames(TrappedMessage::MessageType) {
  return {"request", "reply"};
}

// Hands trapped requests over: each one becomes the last, and whoever watches lastTrappedMessage handles it
// at once.
//
// Frames that are read together are a batch: `inBatch` is true while it is handed over, so that answers may
// wait for its end and go out together. Before that each of its requests is announced, in several rounds, to
// whoever wants to have what it will look up in the processor's cache by then: the first round finds what
// hangs on the request, the next what hangs on that.
class MessageTrap final : public Mox::Entity {
 public:
  MOX_ATTRIBUTE(Ptr<const TrappedMessage>, lastTrappedMessage)
  MOX_ATTRIBUTE(bool, inBatch, false)

  static constexpr int kAheadRounds = 4;
  using Ahead =
      std::function<void(int round, Bridging::VlanId vlanId, const Lanix::IpGenAddr& targetIpAddress)>;
  // One at most; an empty function takes it away.
  void aheadIs(Ahead ahead) { ahead_ = std::move(ahead); }
  const Ahead& ahead() const { return ahead_; }

  void dumpState(Orb::DumpContext& context, int indent) const;

 private:
  Ahead ahead_;
};

// A first-in-first-out queue of messages that wait for reinjection. Its length is bounded by a limit that
// follows what the consumer manages to drain; when it is full the oldest message gives way to the newest.
//
// A member's index is unique while it is queued; indices grow by one, modulo 2^32. The order is that of
// arrival.
class MessageQueue final : public Mox::Entity {
 public:
  using Index = std::uint32_t;
  // Carries the index of the member that was added or removed; messageHas tells which.
  static constexpr Mox::Event<Index> messageChanged{"message"};

  // Appends; true when the oldest member had to go. An over-full queue keeps its length: only the consumer
  // shortens it.
  bool enqueueMessage(const Ptr<const TrappedMessage>& message);
  // Appends without a limit.
  void messageEnq(const Ptr<const TrappedMessage>& message);
  // Removes and returns the oldest; null when empty.
  Ptr<const TrappedMessage> messageDeq();
  Ptr<const TrappedMessage> messageFront() const;
  Ptr<const TrappedMessage> messageBack() const;

  // By index. messageIs replaces the member of that index or appends one.
  void messageIs(Index index, const Ptr<const TrappedMessage>& message);
  bool messageDel(Index index);
  void messageDelAll();
  bool messageHas(Index index) const;
  std::size_t messages() const { return message_.size(); }

  // Sets the limit to twice what one run of the consumer took off, within the bounds.
  void updateQueueLimit(std::uint32_t messagesProcessed);
  MOX_ATTRIBUTE(std::uint32_t, queueLimitMin, 50)
  MOX_ATTRIBUTE(std::uint32_t, queueLimitMax, 500)
  MOX_ATTRIBUTE(std::uint32_t, queueLimitCurrent, 500)

  Mox::String toStrep() const { return "<MessageQueue>"; }
  void dumpState(Orb::DumpContext& context, int indent) const;

 private:
  struct MoxMessage {
    Index index;
    Ptr<const TrappedMessage> message;
  };
  std::deque<MoxMessage>::const_iterator find(Index index) const;
  void append(Index index, const Ptr<const TrappedMessage>& message);

  std::deque<MoxMessage> message_;
  Index nextIndex_ = 0;  // above every index handed out since the last wrap
};

// --- The layer-3 model -----------------------------------------------------------------------------------

class VrfInterfaceWatch;
class VrfUser;

// One VRF. It lives in VlanL3InfoStatus while something uses it.
class VrfInfo final : public Mox::Entity {
 public:
  explicit VrfInfo(Mox::String vrfName) : vrfName_(std::move(vrfName)) {}
  const Mox::String& vrfName() const { return vrfName_; }

  MOX_ATTRIBUTE(Vrf::VrfIdMap::VrfId, vrfId, Vrf::VrfIdMap::kNoVrfId)
  // The kernel's network namespace of the VRF; empty while it is not known.
  MOX_ATTRIBUTE(Lanix::NamespaceName, netNs)
  // A descriptor of a netlink socket in that namespace; 0 for none. Without meaning while netNs is empty.
  MOX_ATTRIBUTE(std::uint32_t, netlinkSocket, 0)
  // Who uses the VRF and which interfaces are watched in it. Neither owns; users may be gone by the time
  // their status dies, so only the identity of a `user` counts.
  using UserIdentity = const VrfUser*;
  MOX_MAP(UserIdentity, bool, user)
  MOX_MAP(Mox::String, VrfInterfaceWatch*, interfaceWatch)
  // Under the watch's own name. Throws Mox::NullError.
  void interfaceWatchIs(VrfInterfaceWatch* watch);

  // It has a namespace and a netlink socket there.
  bool usable() const;

  // "<vrfName=red vrfId=5>"
  Mox::String toStrep() const;
  void dumpState(Orb::DumpContext& context, int indent) const;

 private:
  Mox::String vrfName_;
};

// Something that uses a VRF, and so keeps it in the status.
class VrfUser : public Mox::Entity {
 public:
  explicit VrfUser(Ptr<VrfInfo> vrfInfo) : vrfInfo_(std::move(vrfInfo)) {}
  const Ptr<VrfInfo>& vrfInfo() const { return vrfInfo_; }

 private:
  Ptr<VrfInfo> vrfInfo_;
};

// An interface in a VRF whose kernel index is wanted.
class VrfInterfaceWatch : public VrfUser {
 public:
  VrfInterfaceWatch(Ptr<VrfInfo> vrfInfo, Mox::String intfName);
  const Mox::String& intfName() const { return intfName_; }
  // The device's name in the kernel: the lower case of intfName.
  const Mox::String& kniIntfName() const { return kniIntfName_; }

  // 0 while it is not known.
  MOX_ATTRIBUTE(std::uint32_t, kniIntfIfIndex, 0)

  // The VRF is usable and the index known.
  bool usable() const;
  virtual Mox::String toStrep() const;

 private:
  Mox::String intfName_;
  Mox::String kniIntfName_;
};

// One VLAN interface.
class VlanL3Info final : public VrfInterfaceWatch {
 public:
  VlanL3Info(Bridging::VlanId vlanId, Ptr<VrfInfo> vrfInfo);
  Bridging::VlanId vlanId() const { return vlanId_; }
  const Lanix::IntfId& vlanIntfId() const { return vlanIntfId_; }
  bool madeWith(const Ptr<VrfInfo>& vrfInfo) const { return this->vrfInfo() == vrfInfo; }

  // The IPv4 addresses in use on the interface.
  MOX_MAP(Lanix::IpGenAddr, bool, ipAddress)

  static Mox::String constructIntfNameFromVlanId(Bridging::VlanId vlanId);
  Mox::String toStrep() const override;

 private:
  Bridging::VlanId vlanId_;
  Lanix::IntfId vlanIntfId_;
};

// The layer-3 side of every VLAN that the agent serves, and of the VRFs that they are in. It owns its
// members; a VRF leaves with its last user.
class VlanL3InfoStatus final : public Mox::Entity {
 public:
  MOX_CHILDREN(Mox::String, VrfInfo, vrfInfo)
  MOX_CHILDREN(Bridging::VlanId, VlanL3Info, vlanL3Info)
  // Finds or makes. Throws Mox::ReinstantiationError when the VLAN's entry is in another VRF.
  Ptr<VlanL3Info> vlanL3InfoIs(const Ptr<VrfInfo>& vrfInfo, Bridging::VlanId vlanId) {
    return vlanL3InfoIs(vlanId, vrfInfo);
  }
  // Every watch by interface name, those of VLANs and others.
  MOX_MAP(Mox::String, Ptr<VrfInterfaceWatch>, vrfInterfaceWatch)

  // The VLANs that were configured at start have been looked at once.
  MOX_ATTRIBUTE(bool, initialArpSuppressionStatusSync, false)
  // Announces a change of one VLAN. It is none again right after its watchers were told: read the
  // notification's value.
  MOX_ATTRIBUTE(Bridging::VlanIdOrNone, updatedVlanId)
  void vlanUpdated(const VlanL3Info& vlanL3Info);
  void vlanUpdated(Bridging::VlanId vlanId);

  // The VLAN's info when kernel work on it is possible now, otherwise null.
  Ptr<const VlanL3Info> usableVlanL3Info(Bridging::VlanId vlanId) const {
    return usableVlanL3InfoNonConst(vlanId);
  }
  Ptr<VlanL3Info> usableVlanL3InfoNonConst(Bridging::VlanId vlanId) const;

  // A VRF stays while it has users; the last delVrfUser removes it.
  void addVrfUser(const Ptr<VrfUser>& user);
  void delVrfUser(const Ptr<VrfUser>& user);
  void addVrfInterfaceWatch(const Ptr<VrfInterfaceWatch>& watch);
  void delVrfInterfaceWatch(const Ptr<VrfInterfaceWatch>& watch);
  // A watch of an interface that is no VLAN's; shared by all who ask, it stays as long as the status.
  Ptr<VrfInterfaceWatch> findOrCreateVrfInterfaceWatch(const Mox::String& vrfName,
                                                       const Mox::String& intfName);

  Mox::String toStrep() const { return "<VlanL3InfoStatus>"; }
  void dumpState(Orb::DumpContext& context, int indent) const;
};

// --- Enabled VLANs ---------------------------------------------------------------------------------------

// The VLANs whose layer-3 state is to be followed, whether or not suppression is in force on them yet.
class EnabledVlans final : public Mox::Entity {
 public:
  MOX_SET(Bridging::VlanId, vlanId)
  void dumpState(Orb::DumpContext& context, int indent) const;
};

inline Ptr<TrappedMessage> trappedMessageFactory(Bridging::VlanId vlanId, TrappedMessage::MessageType type,
                                                 TrappedMessage::IntfStatusAndDeviceName srcIntf,
                                                 Lanix::IpGenAddr senderIpAddress,
                                                 Lanix::EthAddr senderMacAddress,
                                                 Lanix::IpGenAddr targetIpAddress,
                                                 Ptr<const Lanix::Pkt> message) {
  return Mox::make<TrappedMessage>(vlanId, type, std::move(srcIntf), senderIpAddress, senderMacAddress,
                                   targetIpAddress, std::move(message));
}
inline Ptr<MessageTrap> messageTrapFactory() { return Mox::make<MessageTrap>(); }
inline Ptr<MessageQueue> messageQueueFactory() { return Mox::make<MessageQueue>(); }

}  // namespace ArpSuppression
