#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <functional>

#include "Bridging/VlanId.h"
#include "Interface/Directory.h"
#include "Lanix/EthAddr.h"
#include "Lanix/IpGenAddr.h"
#include "Lanix/Pkt.h"
#include "Mox/Attribute.h"
#include "Mox/Pooled.h"
#include "Mox/Strep.h"
#include "Orb/DumpContext.h"

// A trapped ARP frame, and the two places where the reactor that reads frames hands them over.

namespace ArpSuppression {

using Mox::Ptr;

// One trapped ARP request or reply with the buffer that it came in. Immutable. Memory is kept for as many as
// could be queued and in progress.
class TrappedMessage final : public Mox::Referenced, public Mox::Pooled<TrappedMessage, 1024> {
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
