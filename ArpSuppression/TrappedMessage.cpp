#include "ArpSuppression/TrappedMessage.h"

#include <algorithm>
#include <vector>

#include "ArpSuppression/Trace.h"

namespace ArpSuppression {

namespace {
constexpr char kSource[] = "ArpSuppression/ArpSuppression";
}

// --- TrappedMessage, MessageTrap -------------------------------------------------------------------------

TrappedMessage::TrappedMessage(Bridging::VlanId vlanId, MessageType type, IntfStatusAndDeviceName srcIntf,
                               Lanix::IpGenAddr senderIpAddress, Lanix::EthAddr senderMacAddress,
                               Lanix::IpGenAddr targetIpAddress, Ptr<const Lanix::Pkt> message)
    : vlanId_(vlanId),
      type_(type),
      srcIntf_(std::move(srcIntf)),
      senderIpAddress_(senderIpAddress),
      senderMacAddress_(senderMacAddress),
      targetIpAddress_(targetIpAddress),
      message_(std::move(message)) {}

Mox::String TrappedMessage::toStrep() const {
  return "<" + Mox::toStrep(type_) + " vlanId=" + vlanId_.toStrep() + " if=" + srcIntf_.toStrep() + "(" +
         std::to_string(srcIntf_.ifIndex) + ") sIp=" + senderIpAddress_.toStrep() +
         " sMac=" + senderMacAddress_.toStrep() + " tIp=" + targetIpAddress_.toStrep() + ">";
}

void TrappedMessage::dumpState(Orb::DumpContext& context, int indent) const {
  context.line(indent, "TrappedMessage " + toStrep());
}

void MessageTrap::dumpState(Orb::DumpContext& context, int indent) const {
  context.line(indent, "MessageTrap");
}

// --- MessageQueue ----------------------------------------------------------------------------------------

bool MessageQueue::enqueueMessage(const Ptr<const TrappedMessage>& message) {
  TRACE8("req=" << message);
  bool dropped = false;
  if (queueLimitCurrent() <= messages()) {
    const Ptr<const TrappedMessage> oldest = messageDeq();
    TRACE8("dropping oldReq=" << oldest);
    dropped = true;
  }
  messageEnq(message);
  return dropped;
}

void MessageQueue::append(Index index, const Ptr<const TrappedMessage>& message) {
  message_.push_back({index, message});
  // A keyed insertion may reuse an index that was given out before; those behind it may be queued still.
  if (index >= nextIndex_) nextIndex_ = index + 1;
  notify(messageChanged, index);
}

void MessageQueue::messageEnq(const Ptr<const TrappedMessage>& message) { append(nextIndex_, message); }

Ptr<const TrappedMessage> MessageQueue::messageDeq() {
  if (message_.empty()) return {};
  const MoxMessage head = message_.front();
  message_.pop_front();
  notify(messageChanged, head.index);
  return head.message;
}

Ptr<const TrappedMessage> MessageQueue::messageFront() const {
  return message_.empty() ? Ptr<const TrappedMessage>() : message_.front().message;
}

Ptr<const TrappedMessage> MessageQueue::messageBack() const {
  return message_.empty() ? Ptr<const TrappedMessage>() : message_.back().message;
}

std::deque<MessageQueue::MoxMessage>::const_iterator MessageQueue::find(Index index) const {
  return std::find_if(message_.begin(), message_.end(),
                      [&](const MoxMessage& m) { return m.index == index; });
}

void MessageQueue::messageIs(Index index, const Ptr<const TrappedMessage>& message) {
  const auto at = find(index);
  if (at == message_.end()) {
    append(index, message);
    return;
  }
  MoxMessage& member = message_[static_cast<std::size_t>(at - message_.begin())];
  if (member.message == message) return;
  member.message = message;
  notify(messageChanged, index);
}

bool MessageQueue::messageDel(Index index) {
  const auto at = find(index);
  if (at == message_.end()) return false;
  message_.erase(at);
  notify(messageChanged, index);
  return true;
}

void MessageQueue::messageDelAll() {
  std::deque<MoxMessage> gone;
  gone.swap(message_);
  for (const MoxMessage& member : gone) notify(messageChanged, member.index);
}

bool MessageQueue::messageHas(Index index) const { return find(index) != message_.end(); }

void MessageQueue::updateQueueLimit(std::uint32_t messagesProcessed) {
  const std::uint32_t doubled = messagesProcessed * 2;
  const std::uint32_t newLimit =
      doubled < queueLimitMin() ? queueLimitMin() : std::min(doubled, queueLimitMax());
  TRACE8("messagesProcessed=" << messagesProcessed << " newLimit=" << newLimit);
  queueLimitCurrentIs(newLimit);
}

void MessageQueue::dumpState(Orb::DumpContext& context, int indent) const {
  context.line(indent, "MessageQueue #messages=" + std::to_string(messages()));
}

}  // namespace ArpSuppression
