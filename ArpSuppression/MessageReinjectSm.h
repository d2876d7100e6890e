#pragma once

#include <cstdint>

#include "ArpSuppression/MessageTapSocketSm.h"
#include "Suppression/Counter.h"

namespace ArpSuppression {

// Drains the reinject queue into the data plane, a time slice at a time, and sets the queue's limit by what
// one slice can write. While its device is not usable the queue is emptied unsent. A message whose write
// fails is lost, and the rest waits until the next one is queued or the device takes frames again.
class MessageReinjectSmBase : public MessageTapSocketSm {
 public:
  void dumpState(Orb::DumpContext& context, int indent) const;

 protected:
  MessageReinjectSmBase(Ptr<Orb::TaskScheduler> scheduler, Mox::String interfaceName, Protocol protocol,
                        Ptr<VlanL3InfoStatus> vlanL3InfoStatus, Ptr<MessageQueue> reinjectMessageQueue,
                        Ptr<ArpSuppressionCounterStatus> arpSuppressionCounterStatus);

  // Negative: the write failed, and errno tells why. Otherwise the message is done with.
  virtual std::int32_t processMessage(const TrappedMessage& message) = 0;

  const Ptr<ArpSuppressionCounterStatus>& arpSuppressionCounterStatus() const {
    return arpSuppressionCounterStatus_;
  }

 private:
  Orb::WalkRet walk() override;
  void handleMessage(MessageQueue::Index index);

  Mox::Notifiee<MessageQueue> reinjectMessageQueue_;
  Ptr<ArpSuppressionCounterStatus> arpSuppressionCounterStatus_;
};

// On the software-forwarding data plane: a message goes back as it was trapped.
class MessageReinjectSmSimfwd final : public MessageReinjectSmBase {
 public:
  MessageReinjectSmSimfwd(Ptr<Orb::TaskScheduler> scheduler, Ptr<VlanL3InfoStatus> vlanL3InfoStatus,
                          Ptr<MessageQueue> reinjectMessageQueue,
                          Ptr<ArpSuppressionCounterStatus> arpSuppressionCounterStatus);

 private:
  std::int32_t processMessage(const TrappedMessage& message) override;
};

}  // namespace ArpSuppression
