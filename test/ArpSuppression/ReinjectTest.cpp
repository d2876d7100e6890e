#include <cstring>
#include <optional>

#include "Rig.h"

namespace ArpSuppression {
namespace {

std::string hex(const TestSupport::Frame& frame) {
  std::string text;
  for (const std::byte byte : frame) {
    for (const unsigned shift : {4U, 0U})
      text += "0123456789abcdef"[std::to_integer<unsigned>(byte) >> shift & 15];
  }
  return text;
}

Ptr<const TrappedMessage> message(const Trapped& trapped, std::size_t size = SIZE_MAX) {
  const auto frame = trapped.frame();
  return trappedMessageFactory(Vlan(trapped.vlan), TrappedMessage::MessageType::request,
                               {nullptr, "Ethernet1", trapped.ifIndex}, ip(trapped.senderIp),
                               mac(trapped.senderMac), ip(trapped.targetIp),
                               Lanix::PktManager::global().newPktWithSharedHeadData(
                                   std::span(frame).first(std::min(size, frame.size()))));
}

// A switch of hardware, with a flood path for VLAN 10.
void onHardware(Rig& rig) {
  rig.hardware = true;
  rig.evpn()->imetLabelIs(Vlan(10), Evpn::EncapTypeLabel(0xABCDE));
}

TEST(Reinject, floods_of_hardware_are_right_in_every_byte) {
  const struct {
    std::optional<std::uint16_t> vlanAware;  // entry of the VLAN
    bool tagAll;                             // the default for the others
    const char* tag;                         // in the frame
  } innerTags[] = {{{}, false, ""},
                   {{}, true, "8100000a"},
                   {0, false, "8100000a"},
                   {77, false, "8100004d"},
                   {4094, true, "81000ffe"}};
  const struct {
    const char* esiPort;
    std::uint32_t esiLabel;
    const char* entry;
  } segments[] = {
      {"Ethernet1", 0x12345, "123451ff"}, {"Ethernet1", 0, "000031ff"}, {"Ethernet2", 9, "000031ff"}};
  Rig rig;
  onHardware(rig);
  rig.start();
  const auto mplsConfig = rig.state<Evpn::MplsConfig>("evpn/mplsConfig");
  std::map<std::size_t, int> sizes;
  for (const auto& inner : innerTags) {
    rig.evpn()->vlanAwareVlanIdDelAll();
    if (inner.vlanAware) rig.evpn()->vlanAwareVlanIdIs(Vlan(10), *inner.vlanAware);
    mplsConfig->addInnerDot1QIs(inner.tagAll);
    for (const auto& segment : segments) {
      rig.evpn()->segmentStatusDelAll();
      rig.evpn()->segmentStatusIs(intf(segment.esiPort))->esiLabelIs(Evpn::EncapTypeLabel(segment.esiLabel));
      for (const bool controlWord : {false, true}) {
        mplsConfig->controlWordEnabledIs(controlWord);
        // A tag of the trapped frame goes, and what came behind ARP.
        for (const Trapped& trapped : {Trapped{}, Trapped{.tagged = true, .tag = 99, .extra = 18},
                                       Trapped{.operation = 2}, Trapped{.ifIndex = 4711}}) {
          rig.trap(trapped);
          const auto sent = rig.replies();
          ASSERT_THAT(sent, SizeIs(1)) << inner.tag << segment.entry << controlWord << trapped.tagged;
          const std::string operation = std::to_string(trapped.operation);
          EXPECT_EQ(hex(sent[0]), "02000000beef02000000000a81000fff8847abcde0ff" +
                                      std::string(trapped.ifIndex == 30 ? segment.entry : "000031ff") +
                                      (controlWord ? "00000000" : "") + "ffffffffffff02000000000a" +
                                      inner.tag + "0806000108000604000" + operation +
                                      "02000000000a0a00000a0000000000000a000063");
          ++sizes[sent[0].size()];
        }
      }
    }
  }
  EXPECT_THAT(sizes, ElementsAre(testing::Pair(68, 12), testing::Pair(72, 60), testing::Pair(76, 48)));
  EXPECT_EQ(rig.counter(ArpSuppressionCounterId::reinjected), 120u);
}

TEST(Reinject, what_hardware_cannot_flood_costs_that_message_only) {
  Rig rig;
  onHardware(rig);
  rig.vlanInterface(20, "red", 8);
  rig.vlanInterface(30, "red", 9);
  for (const auto vlan : std::to_array<std::uint16_t>({20, 30})) rig.evpn()->vlanToDot1qIs(Vlan(vlan), vlan);
  rig.evpn()->imetLabelIs(Vlan(30), Evpn::EncapTypeLabel(16));
  rig.evpn()->vlanAwareVlanIdIs(Vlan(30), 5000);
  rig.start();
  ASSERT_THAT(rig.publishedVlans(), ElementsAre(10, 20, 30));
  const auto& queue = rig.root()->reinjectMessageQueue;
  const struct {
    const char* name;
    Ptr<const TrappedMessage> message;
    const char* counters;
    const char* error;
  } cases[] = {
      {"no label", message({.vlan = 20}), "reinjected=1 reinjectNoImetLabel=1", ""},
      {"id that is none", message({.vlan = 30}), "", "Bridging::VlanIdOrNone::value > 4094 not allowed"},
      {"ends in the trap header", message({}, 27), "reinjectWriteFailed=1", ""},
      {"ends before the type", message({}, 29), "reinjectWriteFailed=1", ""},
      {"ends in ARP", message({}, 57), "reinjectWriteFailed=1", ""},
      {"ends in ARP behind a tag", message({.tagged = true}, 61), "reinjectWriteFailed=1", ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    rig.takeCounters();
    rig.errors.clear();
    queue->enqueueMessage(c.message);
    rig.settle();
    EXPECT_EQ(rig.takeCounters(), c.counters);
    EXPECT_THAT(rig.errors, testing::HasSubstr(c.error));
    EXPECT_EQ(rig.errors.empty(), *c.error == '\0') << rig.errors;
    EXPECT_THAT(rig.replies(), IsEmpty());
  }
  // Good messages around bad ones all go out, and the bad ones are tried once.
  rig.errors.clear();
  for (const auto vlan : {30U, 10U, 20U, 30U, 30U, 10U}) queue->enqueueMessage(message({.vlan = vlan}));
  rig.settle();
  EXPECT_THAT(rig.replies(), SizeIs(2));
  EXPECT_EQ(rig.takeCounters(), "reinjected=3 reinjectNoImetLabel=1");
  EXPECT_EQ(std::count(rig.errors.begin(), rig.errors.end(), '\n'), 3);

  // What the trap lets through is ARP.
  auto ipv6 = Trapped{}.frame();
  ipv6[28] = std::byte{0x86};
  queue->enqueueMessage(trappedMessageFactory(Vlan(10), TrappedMessage::MessageType::request, {}, {}, {}, {},
                                              Lanix::PktManager::global().newPktWithSharedHeadData(ipv6)));
  EXPECT_DEATH(rig.settle(), brokenInvariant("ArpSuppression/MessageReinjectSm", "false"));
}

TEST(Reinject, while_the_device_is_away_messages_are_dropped_uncounted) {
  for (const bool hardware : {false, true}) {
    SCOPED_TRACE(hardware);
    Rig rig;
    if (hardware) onHardware(rig);
    rig.start();
    const char* const device = hardware ? "fabric" : "arpinject";
    const auto& queue = rig.root()->reinjectMessageQueue;
    rig.device("default", device, 0);
    rig.settle();
    rig.takeCounters();
    for (int i = 0; i < 3; ++i) queue->enqueueMessage(message({}));
    rig.settle();
    EXPECT_EQ(queue->messages(), 0u);
    EXPECT_EQ(queue->queueLimitCurrent(), 500u);
    // As a new device of the name.
    rig.device("default", device, 60);
    rig.settle();
    queue->enqueueMessage(message({}));
    rig.settle();
    EXPECT_THAT(rig.sockets.device(60).sent(), SizeIs(1));
    EXPECT_EQ(rig.takeCounters(), "reinjected=1");
  }
}

TEST(Reinject, a_failed_write_costs_one_message_and_the_rest_waits_for_the_next_or_for_the_device) {
  Rig rig;
  rig.start();
  const auto& queue = rig.root()->reinjectMessageQueue;
  auto& device = rig.sockets.device(Rig::kArpinject);
  rig.takeCounters();
  for (const int error : {ENETDOWN, ENOBUFS}) {
    SCOPED_TRACE(std::strerror(error));
    for (int i = 0; i < 4; ++i) queue->enqueueMessage(message({}));
    rig.sockets.fails(TestSupport::FakePacketSockets::Call::send, error, 100);
    rig.settle();
    EXPECT_EQ(queue->messages(), 3u);
    EXPECT_EQ(queue->queueLimitCurrent(), 50u);
    EXPECT_FALSE(rig.eventLoop().step(0)) << "nothing is tried again at once";
    if (error == ENOBUFS) {
      // No frame of ours is in the full queue, whose end could tell of place.
      rig.clock.advance(0.1);
      rig.settle();
      EXPECT_EQ(queue->messages(), 2u);
    }
    rig.sockets.fails(TestSupport::FakePacketSockets::Call::send, 0, 0);
    if (error == ENOBUFS) {
      rig.clock.advance(0.1);
    } else {
      queue->enqueueMessage(message({}));
    }
    rig.settle();
    EXPECT_EQ(queue->messages(), 0u);
    EXPECT_EQ(rig.takeCounters(),
              error == ENOBUFS ? "reinjected=2 reinjectWriteFailed=2" : "reinjected=4 reinjectWriteFailed=1");
  }

  // The refused frame's own end tells nothing. Together with those of half the frames that waited it does.
  device.unsentAre({1000, 600});
  for (int i = 0; i < 4; ++i) queue->enqueueMessage(message({}));
  rig.sockets.fails(TestSupport::FakePacketSockets::Call::send, ENOBUFS);
  rig.settle();
  EXPECT_EQ(queue->messages(), 3u);
  queue->messageDelAll();
  rig.settle();
  rig.takeCounters();
  device.unsentAre({1000, 500});
  for (int i = 0; i < 4; ++i) queue->enqueueMessage(message({}));
  rig.sockets.fails(TestSupport::FakePacketSockets::Call::send, ENOBUFS);
  rig.settle();
  EXPECT_EQ(rig.takeCounters(), "reinjected=3 reinjectWriteFailed=1");

  device.flaps();
  queue->enqueueMessage(message({}));
  rig.settle();
  EXPECT_EQ(rig.takeCounters(), "reinjected=1") << "the first message after the device came back";

  device.fullIs(true);
  for (int i = 0; i < 3; ++i) queue->enqueueMessage(message({}));
  const int calls = rig.sockets.sendCalls();
  rig.settle();
  EXPECT_EQ(queue->messages(), 2u);
  EXPECT_EQ(rig.sockets.sendCalls(), calls + 1);
  device.fullIs(false);
  rig.settle();
  EXPECT_EQ(queue->messages(), 0u);
  EXPECT_EQ(rig.takeCounters(), "reinjected=2 reinjectWriteFailed=1");
}

TEST(Reinject, the_limit_follows_what_a_slice_can_write) {
  Rig rig;
  rig.start();
  const auto& queue = rig.root()->reinjectMessageQueue;
  std::vector<std::pair<std::uint32_t, std::size_t>> limits;  // with what waits
  Mox::Notifiee<MessageQueue> watch(queue);
  watch.on(MessageQueue::queueLimitCurrentChanged,
           [&] { limits.emplace_back(queue->queueLimitCurrent(), queue->messages()); });
  const std::vector<int> slices{30, 100, 10, 5, 260, 45};
  std::size_t slice = 0;
  int written = 0;
  rig.tasks().mustYieldForTestIs([&] {
    if (slice == slices.size() || ++written < slices[slice]) return false;
    ++slice;
    written = 0;
    return true;
  });
  for (int i = 0; i < 450; ++i) queue->enqueueMessage(message({}));
  rig.settle();
  EXPECT_THAT(limits, ElementsAre(std::pair(60, 420), std::pair(200, 320), std::pair(50, 310),
                                  std::pair(500, 45), std::pair(90, 0)));
  for (int i = 0; i < 20; ++i) queue->enqueueMessage(message({}));
  rig.settle();
  EXPECT_EQ(queue->queueLimitCurrent(), 90u) << "a slice that empties the queue says nothing of what it can";
  EXPECT_THAT(rig.reinjected(), SizeIs(470));
}

}  // namespace
}  // namespace ArpSuppression
