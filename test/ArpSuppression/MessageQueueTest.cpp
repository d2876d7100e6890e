#include "Rig.h"

namespace ArpSuppression {
namespace {

Ptr<const TrappedMessage> message(unsigned number = 0) {
  const Lanix::IpGenAddr target(Lanix::IpAddr(0x0a000000 + number));
  return trappedMessageFactory(Vlan(10), TrappedMessage::MessageType::request, {nullptr, "eth1", 7},
                               ip("10.0.0.10"), mac("02:00:00:00:00:0a"), target, nullptr);
}

TEST(MessageQueue, overfull_queue_keeps_its_length_until_the_consumer_shortens_it) {
  const auto queue = messageQueueFactory();
  for (unsigned i = 0; i < 400; ++i) queue->enqueueMessage(message(i));
  queue->updateQueueLimit(0);
  for (int i = 0; i < 10; ++i) {
    EXPECT_TRUE(queue->enqueueMessage(message()));
    EXPECT_EQ(queue->messages(), 400u);
  }
  while (queue->messages() > 49) queue->messageDeq();
  EXPECT_FALSE(queue->enqueueMessage(message()));
  EXPECT_TRUE(queue->enqueueMessage(message()));
  EXPECT_EQ(queue->messages(), 50u);
}

TEST(MessageQueue, limit_is_twice_what_a_run_took_within_its_bounds) {
  const struct {
    std::uint32_t processed, min, max, limit;
  } cases[] = {
      {0, 50, 500, 50},          {24, 50, 500, 50},         {25, 50, 500, 50},
      {26, 50, 500, 52},         {249, 50, 500, 498},       {250, 50, 500, 500},
      {251, 50, 500, 500},       {300, 50, 500, 500},       {0x7fffffff, 50, 500, 500},
      {0x80000000, 50, 500, 50}, {0x80000020, 50, 500, 64}, {4, 10, 20, 10},
      {7, 10, 20, 14},           {11, 10, 20, 20},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::to_string(c.processed));
    const auto queue = messageQueueFactory();
    queue->queueLimitMinIs(c.min);
    queue->queueLimitMaxIs(c.max);
    int changes = 0;
    Mox::Notifiee<MessageQueue> watch(queue);
    watch.on(MessageQueue::queueLimitCurrentChanged, [&] { ++changes; });
    queue->updateQueueLimit(c.processed);
    EXPECT_EQ(queue->queueLimitCurrent(), c.limit);
    EXPECT_EQ(changes, c.limit == 500 ? 0 : 1);
    queue->updateQueueLimit(c.processed);
    EXPECT_EQ(changes, c.limit == 500 ? 0 : 1);
  }
}

}  // namespace
}  // namespace ArpSuppression
