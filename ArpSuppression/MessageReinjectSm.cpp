#include "ArpSuppression/MessageReinjectSm.h"

#include <cerrno>
#include <cstring>
#include <utility>

#include "ArpSuppression/Trace.h"
#include "Lanix/PacketSockets.h"

namespace ArpSuppression {

namespace {

constexpr char kSource[] = "ArpSuppression/MessageReinjectSm";

// Behind the trap, before background work.
constexpr unsigned kReinjectLevel = 2;

}  // namespace

MessageReinjectSmBase::MessageReinjectSmBase(Ptr<Orb::TaskScheduler> scheduler, Mox::String interfaceName,
                                             Protocol protocol, Ptr<VlanL3InfoStatus> vlanL3InfoStatus,
                                             Ptr<MessageQueue> reinjectMessageQueue,
                                             Ptr<ArpSuppressionCounterStatus> arpSuppressionCounterStatus)
    : MessageTapSocketSm(std::move(scheduler), "MessageReinjectSm", kReinjectLevel, std::move(interfaceName),
                         protocol, NotifyMode::writable, std::move(vlanL3InfoStatus)),
      reinjectMessageQueue_(std::move(reinjectMessageQueue)),
      arpSuppressionCounterStatus_(std::move(arpSuppressionCounterStatus)) {
  reinjectMessageQueue_.on(MessageQueue::messageChanged,
                           [this](MessageQueue::Index index) { handleMessage(index); });
}

// Only an addition makes work. The drain's own removals would start it again after a failed write, until
// every message of the queue was lost to the same failure.
void MessageReinjectSmBase::handleMessage(MessageQueue::Index index) {
  if (reinjectMessageQueue_->messageHas(index)) scheduleWalk();
}

Orb::WalkRet MessageReinjectSmBase::walk() {
  Orb::WalkRet ret;
  if (!socketOpen()) {
    reinjectMessageQueue_->messageDelAll();
    return ret;
  }
  const std::size_t initialMessages = reinjectMessageQueue_->messages();
  for (;;) {
    const Ptr<const TrappedMessage> message = reinjectMessageQueue_->messageDeq();
    if (!message) return ret;
    if (processMessage(*message) < 0) {
      const int error = errno;
      TRACE8("write failed errno=" << std::strerror(error));
      arpSuppressionCounterStatus_->increment(ArpSuppressionCounterId::reinjectWriteFailed);
      break;
    }
    arpSuppressionCounterStatus_->increment(ArpSuppressionCounterId::reinjected);
    ++ret.processed;
    if (mustYield()) {
      ret.moreWork = reinjectMessageQueue_->messages() != 0;
      break;
    }
  }
  reinjectMessageQueue_->updateQueueLimit(ret.processed);
  TRACE8(" initialMessages=" << initialMessages << " messages=" << reinjectMessageQueue_->messages()
                             << " processed=" << ret.processed);
  return ret;
}

void MessageReinjectSmBase::dumpState(Orb::DumpContext& context, int indent) const {
  context.line(indent, "MessageReinjectSm");
  dumpSocket(context, indent);
  context.child(indent + 2, reinjectMessageQueue_.notifier(), "MessageQueue");
}

MessageReinjectSmSimfwd::MessageReinjectSmSimfwd(Ptr<Orb::TaskScheduler> scheduler,
                                                 Ptr<VlanL3InfoStatus> vlanL3InfoStatus,
                                                 Ptr<MessageQueue> reinjectMessageQueue,
                                                 Ptr<ArpSuppressionCounterStatus> arpSuppressionCounterStatus)
    : MessageReinjectSmBase(std::move(scheduler), "arpinject", Protocol::tervakArpSnoop,
                            std::move(vlanL3InfoStatus), std::move(reinjectMessageQueue),
                            std::move(arpSuppressionCounterStatus)) {}

std::int32_t MessageReinjectSmSimfwd::processMessage(const TrappedMessage& message) {
  return static_cast<std::int32_t>(
      Lanix::PacketSockets::current().write(socket(), message.message()->headData()));
}

}  // namespace ArpSuppression
