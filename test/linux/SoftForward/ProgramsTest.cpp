// Frames in, frames out: each program is run by the kernel on a frame from a table, without a network.

#include "SoftForward/Programs.h"

#include <gtest/gtest.h>
#include <linux/bpf.h>
#include <linux/if_ether.h>
#include <linux/pkt_cls.h>
#include <linux/rtnetlink.h>
#include <net/if.h>

#include <cstring>
#include <optional>

#include "ProgramsRig.h"
#include "SoftForward/Filters.h"
#include "lab/Lab.h"

namespace SoftForward {
namespace {

using Lab::trapped;

using ProgramsTest = ProgramsRig;

TEST_F(ProgramsTest, WhatAnAccessPortTraps) {
  trapsOnLoopback();
  const Lab::Frame request = Lab::arpFrame(kRequest);
  Lab::Arp answer = kRequest;
  answer.operation = 2;
  const struct {
    const char* what;
    Lab::Frame frame;
    bool traps;
  } kCases[] = {
      {"request", request, true},
      {"reply", Lab::arpFrame(answer), true},
      {"padded to 60 bytes", resized(request, 60), true},
      {"a byte short", resized(request, 41), false},
      {"only the Ethernet header and the start", resized(request, 20), false},
      {"unicast", changed(request, 0, 0x02), false},
      {"almost broadcast", changed(request, 5, 0xFE), false},
      {"not Ethernet", changed(request, 15, 6), false},
      {"not IPv4", changed(request, 17, 6), false},
      {"hardware length 8", changed(request, 18, 8), false},
      {"protocol length 16", changed(request, 19, 16), false},
      {"operation 0", changed(request, 21, 0), false},
      {"operation 3", changed(request, 21, 3), false},
      {"operation 257", changed(request, 20, 1), false},
      {"another ethertype", changed(request, 13, 0x35), false},
  };
  std::uint64_t expected = 0;
  for (const auto& test : kCases) {
    SCOPED_TRACE(test.what);
    const Outcome outcome = run(Program::accessIngress, test.frame, 7);
    EXPECT_EQ(outcome.result, TC_ACT_UNSPEC);  // the frame goes on whatever it is
    EXPECT_EQ(Lab::hex(outcome.frame), Lab::hex(test.frame));
    EXPECT_EQ(outcome.mark, test.traps ? kMark : 7U);
    expected += test.traps ? 1 : 0;
    EXPECT_EQ(programs_.statistics().trapped, expected);
  }
  EXPECT_EQ(programs_.statistics().trapFailed, 0U);
}

TEST_F(ProgramsTest, WhenAnAccessPortPassesARequest) {
  const Lab::Frame request = Lab::arpFrame(kRequest);
  const auto passes = [&](const char* when) {
    SCOPED_TRACE(when);
    const Outcome outcome = run(Program::accessIngress, request, 7);
    EXPECT_EQ(outcome.result, TC_ACT_UNSPEC);
    EXPECT_EQ(outcome.mark, 7U);
    EXPECT_EQ(programs_.statistics().trapped, 0U);
  };
  passes("nothing is configured");
  trapsOnLoopback();
  ASSERT_TRUE(programs_.activeVlanIs(kVlan, false));
  passes("suppression is not active");
  ASSERT_TRUE(programs_.activeVlanIs(kVlan, true));
  ASSERT_TRUE(programs_.portIs(kLoopback, kVlan + 1, PortRole::access));
  passes("it is active on another VLAN");
  ASSERT_TRUE(programs_.portIs(kLoopback, kVlan, PortRole::tunnel));
  passes("the port leads to the overlay");
  ASSERT_TRUE(programs_.portDel(kLoopback));
  passes("the port is not known");
  ASSERT_TRUE(programs_.portIs(kLoopback, kVlan, PortRole::access));
  ASSERT_TRUE(programs_.passedAddressIs(Lanix::EthAddr(kRequest.senderMac)));
  passes("it is the switch's own");
  ASSERT_TRUE(programs_.passedAddressIs(Lanix::EthAddr({2, 0, 0, 0, 0, 2})));
  programs_.trustedUntilIs(0);
  passes("the agent has given no sign of life yet");
  programs_.trustedUntilIs(now());
  passes("its last one was too long ago");
  EXPECT_EQ(programs_.statistics().failedOpen, 2U);
  programs_.trustedUntilIs(kForever);
  ASSERT_TRUE(programs_.trapPeerIs(0));
  passes("there is no trap peer");
  EXPECT_EQ(programs_.statistics().trapFailed, 0U);
  ASSERT_TRUE(programs_.trapPeerIs(4000));
  passes("the trap peer is gone");
  EXPECT_EQ(programs_.statistics().trapFailed, 1U);
}

TEST_F(ProgramsTest, APolicerBoundsWhatGoesToTheAgent) {
  trapsOnLoopback();
  const Lab::Frame request = Lab::arpFrame(kRequest);
  std::uint64_t policed = 0;
  // How many of so many are trapped; the others pass as they came.
  const auto trapped = [&](std::uint32_t frames) {
    std::uint32_t taken = 0;
    for (std::uint32_t i = 0; i < frames; ++i) {
      const Outcome outcome = run(Program::accessIngress, request, 7);
      EXPECT_EQ(outcome.result, TC_ACT_UNSPEC);
      taken += outcome.mark == kMark ? 1 : 0;
      policed += outcome.mark == 7 ? 1 : 0;
    }
    return taken;
  };
  constexpr std::uint64_t kSecond = 1'000'000'000;
  const struct {
    const char* what;
    Policer policer;
    std::uint32_t of40;
  } kCases[] = {{"none", {}, 40},
                {"a burst", {1, 30}, 30},
                {"one at a time", {1, 1}, 1},
                {"a rate that nothing exceeds", {1000000, 1000000}, 40}};
  for (const auto& test : kCases) {
    SCOPED_TRACE(test.what);
    const Trunk trunk{Netlink::VlanIds().set(kVlan), {}, kVlan, false, test.policer};
    for (const bool onTrunk : {false, true}) {
      SCOPED_TRACE(onTrunk);
      ASSERT_TRUE(onTrunk ? programs_.trunkIs(kLoopback, trunk)
                          : programs_.portIs(kLoopback, kVlan, PortRole::access, test.policer));
      const std::uint64_t begin = now();
      const std::uint32_t taken = trapped(40);
      EXPECT_GE(taken, test.of40);
      EXPECT_LE(taken, test.of40 + (now() - begin) / kSecond);
      const auto ports = programs_.portStatistics();
      ASSERT_EQ(ports.size(), 1U) << "counted anew";
      EXPECT_EQ(ports[0].vlan, kVlan);
      EXPECT_EQ(ports[0].trapped, taken);
      EXPECT_EQ(ports[0].policed, 40 - taken);
      ASSERT_TRUE(onTrunk ? programs_.trunkDel(kLoopback) : programs_.portDel(kLoopback));
    }
  }
  EXPECT_EQ(programs_.statistics().policed, policed);
  EXPECT_EQ(programs_.policedInAll(), policed);
  EXPECT_TRUE(programs_.portStatistics().empty()) << "those of ports that are gone";
  // Tokens come back, one a millisecond.
  ASSERT_TRUE(programs_.portIs(kLoopback, kVlan, PortRole::access, {1000, 1}));
  const std::uint64_t begin = now();
  std::uint64_t taken = 0;
  while (now() - begin < kSecond / 10) taken += trapped(1);
  const std::uint64_t milliseconds = (now() - begin) / 1'000'000;
  EXPECT_GT(taken, 3U);
  EXPECT_LE(taken, milliseconds + 1);
}

// A tag that the kernel took off stands beside the frame, which only a device shows.
TEST_F(ProgramsTest, WhichVlanATagMakesIt) {
  const Lab::Namespace outside;
  for (const char* name : {"port", "peer"}) Lab::vethIs(name, std::string("far-") + name, outside);
  std::optional<Lab::PacketSocket> sender;
  std::optional<Lab::PacketSocket> agent;
  {
    const Lab::Entered entered(outside);
    sender.emplace("far-port");
    agent.emplace("far-peer", 0x8135);
  }
  Netlink::Socket socket(NETLINK_ROUTE);
  Netlink::Socket dumps(NETLINK_ROUTE);
  Filters filters(socket, dumps);
  const std::uint32_t port = Lab::ifIndex("port");
  const std::uint32_t peer = Lab::ifIndex("peer");
  ASSERT_TRUE(filters.attach({port, Direction::ingress, "port"}, programs_.loaded(Program::accessIngress)));
  ASSERT_TRUE(filters.attach({peer, Direction::egress, "peer"}, programs_.loaded(Program::trapEgress)));
  ASSERT_TRUE(programs_.trapPeerIs(peer));
  for (const std::uint16_t vlan : {std::uint16_t{10}, std::uint16_t{20}, std::uint16_t{4094}})
    ASSERT_TRUE(programs_.activeVlanIs(vlan, true));
  const auto trunk = [](std::initializer_list<std::size_t> trapped, std::uint16_t pvid, bool own = false) {
    Trunk made{{}, Netlink::VlanIds().set(4093), pvid, own, {}};
    for (const std::size_t vlan : trapped) made.trapped.set(vlan);
    return std::optional(made);
  };
  const Lab::Frame plain = Lab::arpFrame(kRequest);
  const auto provider = [&](std::uint16_t tci) {
    return changed(changed(Lab::tagged(plain, tci), 12, 0x88), 13, 0xA8);
  };
  const struct {
    const char* what;
    std::optional<Trunk> trunk;  // none: an access port of VLAN 10 on a bridge of its own
    Lab::Frame frame;
    std::uint32_t vlan;  // 0: it is not trapped
  } kCases[] = {
      {"no tag", {}, plain, 10},
      {"a priority", {}, Lab::tagged(plain, 0xE000), 10},
      {"the VLAN's own tag", {}, Lab::tagged(plain, 10), 0},
      {"a provider's priority", {}, provider(0xE000), 0},
      {"no tag, PVID 20", trunk({10, 20}, 20), plain, 20},
      {"a priority, PVID 20", trunk({10, 20}, 20), Lab::tagged(plain, 0xE000), 20},
      {"no tag, no PVID", trunk({10, 20}, 0), plain, 0},
      {"no tag, the PVID is no VLAN of ours", trunk({10}, 20), plain, 0},
      {"tag 10", trunk({10, 20}, 20), Lab::tagged(plain, 10), 10},
      {"tag 10 and a priority", trunk({10, 20}, 20), Lab::tagged(plain, 0xE00A), 10},
      {"tag 4094", trunk({4094}, 0), Lab::tagged(plain, 4094), 4094},
      {"a tag beside those of the port", trunk({10, 20}, 20), Lab::tagged(plain, 74), 0},
      {"a tunnel port's VLAN", trunk({10}, 10), Lab::tagged(plain, 4093), 0},
      {"suppression is not active", trunk({11}, 0), Lab::tagged(plain, 11), 0},
      {"a provider's tag", trunk({10, 20}, 20), provider(10), 0},
      {"two tags", trunk({10, 20}, 20), Lab::tagged(Lab::tagged(plain, 20), 10), 0},
      {"the bridge itself", trunk({10, 20}, 20, true), Lab::tagged(plain, 10), 0},
  };
  for (const auto& test : kCases) {
    SCOPED_TRACE(test.what);
    ASSERT_TRUE(test.trunk ? programs_.trunkIs(port, *test.trunk)
                           : programs_.portIs(port, 10, PortRole::access));
    const auto before = programs_.statistics().trapped;
    sender->send(test.frame);
    if (test.vlan != 0) {
      const auto copy = agent->receive();
      EXPECT_EQ(copy ? Lab::hex(*copy) : "none", Lab::hex(trapped(plain, test.vlan, port)));
    }
    EXPECT_EQ(programs_.statistics().trapped - before, test.vlan != 0 ? 1U : 0U);
    ASSERT_TRUE(test.trunk ? programs_.trunkDel(port) : programs_.portDel(port));
  }
  EXPECT_EQ(programs_.statistics().unexpected, 0U);
}

TEST_F(ProgramsTest, WhatATunnelPortDrops) {
  const Lab::Frame request = Lab::arpFrame(kRequest);
  const struct {
    const char* what;
    Lab::Frame frame;
    std::uint32_t mark;
    bool drops;
  } kCases[] = {
      {"marked ARP", request, kMark, true},
      {"marked ARP of another VLAN", request, SOFT_FORWARD_MARK | 4094, true},
      {"unmarked ARP", request, 0, false},
      {"a mark of others", request, 0x10000000U | kVlan, false},
      {"marked, but not ARP", changed(request, 12, 0x86), kMark, false},
  };
  EXPECT_EQ(run(Program::tunnelEgress, request, kMark).result, TC_ACT_UNSPEC)
      << "on a port that is not known";
  ASSERT_TRUE(programs_.portIs(kLoopback, kVlan, PortRole::tunnel));
  std::uint64_t dropped = 0;
  for (const auto& test : kCases) {
    SCOPED_TRACE(test.what);
    EXPECT_EQ(run(Program::tunnelEgress, test.frame, test.mark).result,
              test.drops ? TC_ACT_SHOT : TC_ACT_UNSPEC);
    dropped += test.drops ? 1 : 0;
    EXPECT_EQ(programs_.statistics().tunnelDropped, dropped);
  }
  programs_.trustedUntilIs(now());
  EXPECT_EQ(run(Program::tunnelEgress, request, kMark).result, TC_ACT_SHOT) << "trapped just before the end";
  programs_.trustedUntilIs(now() - 2 * SOFT_FORWARD_CROSSING_NS);
  EXPECT_EQ(run(Program::tunnelEgress, request, kMark).result, TC_ACT_UNSPEC) << "nobody has it";
  programs_.trustedUntilIs(kForever);
  // On a trunk the mark says whether the port is a tunnel port of its VLAN.
  ASSERT_TRUE(programs_.portDel(kLoopback));
  ASSERT_TRUE(
      programs_.trunkIs(kLoopback, {Netlink::VlanIds().set(20), Netlink::VlanIds().set(10), 20, false, {}}));
  EXPECT_EQ(run(Program::tunnelEgress, request, kMark).result, TC_ACT_SHOT);
  EXPECT_EQ(run(Program::tunnelEgress, request, SOFT_FORWARD_MARK | 20).result, TC_ACT_UNSPEC);
  EXPECT_EQ(run(Program::tunnelEgress, request, 0).result, TC_ACT_UNSPEC);
}

TEST_F(ProgramsTest, TheTrapPeerPutsTheHeaderIntoCopiesOnly) {
  const Lab::Frame request = resized(Lab::arpFrame(kRequest), 60);
  const Outcome outcome = run(Program::trapEgress, request, SOFT_FORWARD_MARK | 4094, 0x01020304);
  EXPECT_EQ(outcome.result, TC_ACT_OK);
  EXPECT_EQ(Lab::hex(outcome.frame), Lab::hex(trapped(request, 4094, 0x01020304)));
  EXPECT_EQ(outcome.mark, 0U);
  EXPECT_EQ(programs_.statistics().unexpected, 0U);

  EXPECT_EQ(run(Program::trapEgress, request, 0).result, TC_ACT_SHOT);
  EXPECT_EQ(run(Program::trapEgress, request, 0xFFF00000U | kVlan).result, TC_ACT_SHOT);
  EXPECT_EQ(run(Program::dropAll, request, kMark).result, TC_ACT_SHOT);
  EXPECT_EQ(programs_.statistics().unexpected, 3U);
  programs_.trustedUntilIs(0);
  EXPECT_EQ(run(Program::trapEgress, request, kMark).result, TC_ACT_SHOT) << "nobody would take it";
  EXPECT_EQ(programs_.statistics().unexpected, 3U);
}

TEST_F(ProgramsTest, TheInjectPeerTakesTheHeaderOff) {
  const Lab::Frame request = Lab::arpFrame(kRequest);
  const Lab::Frame whole = trapped(request, 0x0ABC, 7);
  const struct {
    const char* what;
    Lab::Frame buffer;
    Lab::Frame frame;  // empty: dropped
  } kCases[] = {
      {"untagged", whole, request},
      {"padded", trapped(resized(request, 60), 0x0ABC, 7), resized(request, 60)},
      {"tagged", trapped(Lab::tagged(request, 3), 0x0ABC, 7), Lab::tagged(request, 3)},
      {"a byte short", resized(whole, 57), {}},
      {"the header only", resized(whole, 28), {}},
      {"another outer ethertype", changed(whole, 13, 0x36), {}},
      {"VLAN 0", trapped(request, 0, 7), {}},
      {"VLAN 4095", trapped(request, 4095, 7), {}},
      {"a VLAN beyond 12 bits", trapped(request, 0x10ABC, 7), {}},
      {"not ARP inside", changed(whole, 28, 0x86), {}},
  };
  std::uint64_t unexpected = 0;
  for (const auto& test : kCases) {
    SCOPED_TRACE(test.what);
    xdp_md context{};
    context.data_end = static_cast<__u32>(test.buffer.size());
    const auto [verdict, result] = testRun(Program::injectStrip, test.buffer, context);
    if (test.frame.empty()) {
      EXPECT_EQ(verdict, XDP_DROP);
      EXPECT_EQ(programs_.statistics().unexpected, ++unexpected);
      continue;
    }
    EXPECT_EQ(verdict, XDP_PASS);
    SoftForwardInjectMeta meta;
    ASSERT_EQ(context.data, sizeof meta);
    ASSERT_GE(result.size(), sizeof meta);
    std::memcpy(&meta, result.data(), sizeof meta);
    EXPECT_EQ(meta.magic, SOFT_FORWARD_MARK);
    EXPECT_EQ(meta.vlan, 0x0ABCU);
    EXPECT_EQ(Lab::hex({result.begin() + sizeof meta, result.end()}), Lab::hex(test.frame));
  }
  // What comes without the first program's word is nobody's.
  EXPECT_EQ(run(Program::injectIngress, request).result, TC_ACT_SHOT);
  EXPECT_EQ(programs_.statistics().unexpected, ++unexpected);
}

// The tag is inside the frame here; on a real device the kernel takes it off first.
TEST_F(ProgramsTest, TheFabricPeerTakesTheTagOff) {
  ASSERT_TRUE(programs_.vlanPathsIs(kVlan, {kLoopback, false, {}, {}, 0}));
  ASSERT_TRUE(programs_.vlanPathsIs(kVlan + 1, {}));
  Lab::Arp arp = kRequest;
  arp.operation = 2;
  const Lab::Frame reply = Lab::arpFrame(arp, {2, 0, 0, 0, 0, 9});
  const struct {
    const char* what;
    Lab::Frame frame;
    bool forwards;
  } kCases[] = {
      {"reply", Lab::tagged(reply, kVlan), true},
      {"reply with a priority", Lab::tagged(reply, 0xE000 | kVlan), true},
      {"untagged", reply, false},
      {"a VLAN that is not known", Lab::tagged(reply, kVlan + 2), false},
      {"a VLAN without a way in", Lab::tagged(reply, kVlan + 1), false},
      {"tagged twice", Lab::tagged(Lab::tagged(reply, 3), kVlan), false},
      {"not ARP", Lab::tagged(changed(reply, 12, 0x86), kVlan), false},
      {"short", Lab::tagged(resized(reply, 41), kVlan), false},
      {"operation 3", Lab::tagged(changed(reply, 21, 3), kVlan), false},
  };
  std::uint64_t replied = 0;
  std::uint64_t unexpected = 0;
  for (const auto& test : kCases) {
    SCOPED_TRACE(test.what);
    const Outcome outcome = run(Program::fabricIngress, test.frame);
    EXPECT_EQ(outcome.result, test.forwards ? TC_ACT_REDIRECT : TC_ACT_SHOT);
    if (test.forwards) {
      EXPECT_EQ(Lab::hex(outcome.frame), Lab::hex(reply));
      EXPECT_EQ(outcome.mark, kMark);
    }
    (test.forwards ? replied : unexpected) += 1;
    EXPECT_EQ(programs_.statistics().replied, replied);
    EXPECT_EQ(programs_.statistics().unexpected, unexpected);
  }
}

}  // namespace
}  // namespace SoftForward
