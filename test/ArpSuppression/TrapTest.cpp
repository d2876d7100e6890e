#include <algorithm>

#include "ArpSuppression/Problems.h"
#include "Rig.h"

namespace ArpSuppression {
namespace {

// Of frames that one system call reads, one that is refused, or whose handler raises an error, costs itself
// only, and a time slice may end behind each.
TEST(Trap, frames_of_a_batch_are_handled_one_by_one) {
  Rig rig;
  rig.remoteBinding(10, "10.0.0.99", kHostMac);
  rig.start();
  const auto& trap = rig.root()->receivedRequestTrap;
  Mox::Notifiee<MessageTrap> watch(trap);
  watch.on(MessageTrap::lastTrappedMessageChanged, [&] {
    if (trap->lastTrappedMessage()->senderIpAddress() == ip("10.0.0.66")) throw Mox::RangeError("no good");
  });
  int batches = 0;
  watch.on(MessageTrap::inBatchChanged, [&] {
    batches += trap->inBatch();
    // Between two slices.
    if (batches == 3 && !trap->inBatch()) rig.sockets.device(Rig::kArpsnoop).receives(Trapped{}.frame());
  });
  auto malformed = Trapped{}.frame();
  malformed[34] = std::byte{8};
  const std::vector<TestSupport::Frame> frames = {Trapped{}.frame(),
                                                  malformed,
                                                  Trapped{.vlan = 20}.frame(),
                                                  Trapped{}.frame(),
                                                  Trapped{.senderIp = "10.0.0.66"}.frame(),
                                                  Trapped{.operation = 2}.frame(),
                                                  Trapped{}.frame()};
  for (const bool yielding : {false, true}) {
    SCOPED_TRACE(yielding);
    rig.takeCounters();
    rig.errors.clear();
    if (yielding) rig.tasks().mustYieldForTestIs([] { return true; });
    batches = 0;
    for (const auto& frame : frames) rig.sockets.device(Rig::kArpsnoop).receives(frame);
    rig.settle();
    const std::size_t more = yielding ? 1 : 0;
    EXPECT_EQ(batches, yielding ? 8 : 1);
    EXPECT_THAT(rig.replies(), SizeIs(4 + more)) << "the error came behind the answer";
    EXPECT_THAT(rig.reinjected(), ElementsAre(frames[5]));
    const std::string answered = std::to_string(4 + more);
    EXPECT_EQ(rig.takeCounters(), "replyRemote=" + answered +
                                      " trapMalformed=1 trapVlanNotEnabled=1 trappedRequest=" + answered +
                                      " trappedReply=1 reinjected=1");
    EXPECT_THAT(rig.errors, EndsWith(": no good\n"));
    EXPECT_EQ(std::count(rig.errors.begin(), rig.errors.end(), '\n'), 1);
  }
}

TEST(Trap, what_the_receive_queue_has_no_room_for_is_counted_once) {
  Rig rig;
  rig.remoteBinding(10, "10.0.0.99", kHostMac);
  rig.start();
  rig.takeCounters();
  unsigned lost = 0;
  unsigned queued = 0;
  while (lost < 5) {
    if (rig.sockets.device(Rig::kArpsnoop).receives(Trapped{}.frame()) == 1) {
      ++queued;
    } else {
      ++lost;
    }
  }
  rig.settle();
  const std::string all = std::to_string(queued);
  EXPECT_EQ(rig.takeCounters(), "replyRemote=" + all + " trappedRequest=" + all + " trapDropped=5");
  EXPECT_TRUE(problems().has("receive queue of arpsnoop"));
  for (int i = 0; i < 64; ++i) rig.sockets.device(Rig::kArpsnoop).receives(Trapped{}.frame());
  rig.settle();
  EXPECT_EQ(rig.takeCounters(), "replyRemote=64 trappedRequest=64");
}

TEST(Trap, malformed_frames_of_every_kind_are_counted_and_dropped) {
  Rig rig;
  rig.remoteBinding(10, "10.0.0.99", kHostMac);
  rig.start();
  rig.takeCounters();
  const auto good = Trapped{}.frame();
  const auto tagged = Trapped{.tagged = true}.frame();
  const auto changed = [](TestSupport::Frame frame, std::size_t at, unsigned value) {
    frame[at] = static_cast<std::byte>(value);
    return frame;
  };
  const auto cut = [](TestSupport::Frame frame, std::size_t size) {
    frame.resize(size);
    return frame;
  };
  const struct {
    const char* name;
    TestSupport::Frame frame;
    const char* counters;
  } cases[] = {
      {"one short of the trap header", cut(good, 27), "trapMalformed=1"},
      {"the trap header and nothing else", cut(good, 28), "trapMalformed=1"},
      {"one short of the inner type", cut(good, 29), "trapMalformed=1"},
      {"the inner type and nothing else", cut(good, 30), "trapMalformed=1"},
      {"one short of ARP", cut(good, 57), "trapMalformed=1"},
      {"cut inside the tag", cut(tagged, 33), "trapMalformed=1"},
      {"tag and nothing else", cut(tagged, 34), "trapMalformed=1"},
      {"tagged, one short of ARP", cut(tagged, 61), "trapMalformed=1"},
      {"VLAN 0", changed(good, 19, 0), "trapMalformed=1"},
      {"VLAN 4095", changed(changed(good, 18, 0x0f), 19, 0xff), "trapMalformed=1"},
      {"VLAN beyond 16 bits", changed(good, 16, 1), "trapMalformed=1"},
      {"VLAN 4094, not enabled", changed(changed(good, 18, 0x0f), 19, 0xfe), "trapVlanNotEnabled=1"},
      {"IPv6 inside", changed(changed(good, 28, 0x86), 29, 0xdd), "trapMalformed=1"},
      {"tag with IPv4 inside", changed(changed(tagged, 32, 8), 33, 0), "trapMalformed=1"},
      {"two tags", changed(changed(tagged, 32, 0x81), 33, 0), "trapMalformed=1"},
      {"not Ethernet", changed(good, 31, 6), "trapMalformed=1"},
      {"not IPv4", changed(good, 32, 0x86), "trapMalformed=1"},
      {"hardware length", changed(good, 34, 8), "trapMalformed=1"},
      {"protocol length", changed(good, 35, 16), "trapMalformed=1"},
      {"reverse request", changed(good, 37, 3), "trapNotRequestOrReply=1"},
      {"operation 0x0101", changed(good, 36, 1), "trapNotRequestOrReply=1"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    rig.trap(c.frame);
    EXPECT_EQ(rig.takeCounters(), c.counters);
  }
  // What has no Ethernet type, or another one, does not pass a socket of the trap's own; the parser refuses
  // it all the same.
  MessageTrapSm& trapSm = *rig.rootSm()->messageTrapSm();
  trapSm.processMessage({});
  trapSm.processMessage(cut(good, 1));
  trapSm.processMessage(changed(good, 13, 0x36));
  EXPECT_EQ(rig.takeCounters(), "trapMalformed=3");
  EXPECT_THAT(rig.replies(), IsEmpty());
  EXPECT_THAT(rig.reinjected(), IsEmpty());
  rig.trap(good);
  EXPECT_THAT(rig.replies(), SizeIs(1)) << "the agent is unharmed";
}

TEST(Trap, read_errors_end_the_walk_and_the_next_frame_starts_a_new_one) {
  using Call = TestSupport::FakePacketSockets::Call;
  Rig rig;
  rig.remoteBinding(10, "10.0.0.99", kHostMac);
  rig.start();
  rig.sockets.fails(Call::read, EINTR, 3);
  rig.trap(Trapped{});
  EXPECT_EQ(rig.takeCounters(), "replyRemote=1 trappedRequest=1");
  rig.sockets.fails(Call::read, ENETDOWN);
  rig.trap(Trapped{});
  EXPECT_EQ(rig.takeCounters(), "trapReadFailed=1");
  rig.trap(Trapped{});
  EXPECT_EQ(rig.takeCounters(), "replyRemote=2 trappedRequest=2") << "the frame that waited, and the new one";
}

TEST(Trap, socket_follows_its_device) {
  Rig rig;
  rig.remoteBinding(10, "10.0.0.99", kHostMac);
  rig.sockets.otherDevicesReceive(Trapped{}.frame());
  rig.start();
  EXPECT_THAT(rig.replies(), IsEmpty()) << "what came in on another device than the trap's";
  const int open = rig.sockets.openSockets();
  EXPECT_EQ(rig.sockets.device(Rig::kArpsnoop).bound(), 1);
  EXPECT_EQ(rig.sockets.device(Rig::kArpinject).receiveBuffer(), 0) << "it sends only";
  EXPECT_GT(rig.sockets.device(Rig::kArpsnoop).receiveBuffer(), 1 << 20);
  rig.device("default", "arpsnoop", 0);
  rig.settle();
  EXPECT_EQ(rig.sockets.openSockets(), open - 1);
  EXPECT_EQ(rig.awaited(), "its trap socket");
  rig.device("default", "arpsnoop", 55);
  rig.settle();
  EXPECT_EQ(rig.awaited(), "");
  EXPECT_EQ(rig.sockets.openSockets(), open);
  EXPECT_EQ(rig.sockets.device(55).bound(), 1);
  rig.sockets.device(55).receives(Trapped{}.frame());
  rig.settle();
  EXPECT_THAT(rig.replies(), SizeIs(1));
  // A device that cannot be bound leaves no descriptor behind; its next index is tried again.
  rig.sockets.fails(TestSupport::FakePacketSockets::Call::bind, ENODEV);
  rig.device("default", "arpsnoop", 56);
  rig.settle();
  EXPECT_EQ(rig.sockets.openSockets(), open - 1);
  rig.device("default", "arpsnoop", 57);
  rig.settle();
  EXPECT_EQ(rig.sockets.device(57).bound(), 1);
  rig.kill();
  EXPECT_EQ(rig.sockets.openSockets(), 0);
  EXPECT_THAT(rig.netlinkSockets.openSockets(), IsEmpty());
}

}  // namespace
}  // namespace ArpSuppression
