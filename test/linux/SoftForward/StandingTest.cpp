// When a VLAN is trapped, what is put back, and what is said of it.

#include <bpf/bpf.h>
#include <linux/if_bridge.h>

#include <array>

#include "linux/SoftForward/DatapathRig.h"
#include "linux/SoftForward/Maps.h"

namespace SoftForward {
namespace {

using testing::HasSubstr;
using StandingTest = DatapathTest;

TEST_F(StandingTest, WhatIsTakenAwayIsMadeAgain) {
  start();
  const auto filterDel = [](const char* device, std::uint32_t direction) {
    change(std::move(
        Netlink::Message(RTM_DELTFILTER).header(ourPlace(device, direction)).string(TCA_KIND, "bpf")));
  };
  const Breakage kCases[] = {
      {"the trap pair", [] { Lab::linkDel("arpsnoop"); }},
      {"the trap pair, by its other end", [] { Lab::linkDel("arpsnoop-sw"); }},
      {"the inject pair", [] { Lab::linkDel("arpinject"); }},
      {"the fabric pair", [] { Lab::linkDel("fabric"); }},
      {"the way in", [] { Lab::linkDel("fabin10"); }},
      {"arpsnoop is down", [] { Lab::upIs("arpsnoop", false); }},
      {"the way in is down", [] { Lab::upIs("fabin10", false); }},
      {"the way in leaves its bridge",
       [] {
         Lab::bridgeIs("other");
         Lab::portIs("fabin10-br", "other");
       }},
      {"the filter of a tunnel port", [&] { filterDel("tunnel1", TC_H_MIN_EGRESS); }},
      {"the filter of an access port", [&] { filterDel("access1", TC_H_MIN_INGRESS); }},
      {"the filter of the trap peer", [&] { filterDel("arpsnoop-sw", TC_H_MIN_EGRESS); }},
      {"the qdisc of a tunnel port", [&] { qdiscDel("tunnel2"); }},
      {"the qdisc of an access port", [&] { qdiscDel("access1"); }},
      {"the bridge",
       [] {
         Lab::linkDel("vlan10");
         Lab::bridgeIs("vlan10");
         for (const char* port : {"access1", "access2", "tunnel1", "tunnel2"}) Lab::portIs(port, "vlan10");
       }},
  };
  for (const Breakage& test : kCases) {
    SCOPED_TRACE(test.what);
    test.breaks();
    settle();
    awaitReady();
    for (const char* device : {"arpsnoop", "fabric", "arpinject"}) Lab::awaitOperational(device);
    expectTrapping(true);
  }
}

TEST_F(StandingTest, TrapsOnlyWhileTheWayBackStands) {
  start();
  const auto portStateIs = [](std::uint8_t state) {
    ifinfomsg header{};
    header.ifi_index = static_cast<int>(Lab::ifIndex("fabin10-br"));
    Netlink::Message message(RTM_NEWLINK);
    change(std::move(message.header(header).nest(IFLA_LINKINFO, [&](Netlink::Message& info) {
      info.string(IFLA_INFO_SLAVE_KIND, "bridge").nest(IFLA_INFO_SLAVE_DATA, [&](Netlink::Message& data) {
        data.u8(IFLA_BRPORT_STATE, state);
      });
    })));
  };
  Programs others;
  ASSERT_TRUE(others.load());
  const auto filterIs = [&](const char* device, std::uint32_t direction, const char* name) {
    Netlink::Message filter(RTM_NEWTFILTER, NLM_F_CREATE);
    filter.header(ourPlace(device, direction)).string(TCA_KIND, "bpf");
    change(std::move(filter.nest(TCA_OPTIONS, [&](Netlink::Message& options) {
      options.u32(TCA_BPF_FD, static_cast<std::uint32_t>(others.loaded(Program::tunnelEgress).descriptor))
          .string(TCA_BPF_NAME, name)
          .u32(TCA_BPF_FLAGS, TCA_BPF_FLAG_ACT_DIRECT);
    })));
  };
  const auto filterDel = [](const char* device, std::uint32_t direction) {
    change(std::move(
        Netlink::Message(RTM_DELTFILTER).header(ourPlace(device, direction)).string(TCA_KIND, "bpf")));
  };
  const auto foreign = [](const char* pair) {
    // While nobody looks, somebody else takes the name.
    Lab::linkDel(pair);
    Lab::bridgeIs(pair);
  };
  struct Case {
    const char* what;
    std::function<void()> breaks;
    std::function<void()> repairs;
    const char* reason;
  };
  const Case kCases[] = {
      {"a foreign way in", [&] { foreign("fabin10"); }, [] { Lab::linkDel("fabin10"); },
       "device fabin10 exists, but fabin10 and fabin10-br are not the two ends of one veth pair"},
      {"a foreign fabric", [&] { foreign("fabric"); }, [] { Lab::linkDel("fabric"); },
       "device fabric exists"},
      {"a foreign arpsnoop", [&] { foreign("arpsnoop"); }, [] { Lab::linkDel("arpsnoop"); },
       "device arpsnoop exists"},
      {"a foreign filter in our place at a tunnel port",
       [&] { filterIs("tunnel1", TC_H_MIN_EGRESS, "guard"); }, [&] { filterDel("tunnel1", TC_H_MIN_EGRESS); },
       "port tunnel1, egress: attaching the program: priority 135 handle 1 is taken by the filter guard"},
      {"listening", [&] { portStateIs(1); }, [&] { portStateIs(3); }, "spanning tree has the way into"},
      {"learning", [&] { portStateIs(2); }, [&] { portStateIs(3); }, "spanning tree has the way into"},
      {"no bridge", [] { Lab::linkDel("vlan10"); },
       [] {
         Lab::bridgeIs("vlan10");
         for (const char* port : {"access1", "access2", "tunnel1", "tunnel2"}) Lab::portIs(port, "vlan10");
       },
       "there is no bridge vlan10"},
  };
  for (const Case& test : kCases) {
    SCOPED_TRACE(test.what);
    test.breaks();
    settle();
    await(false);
    EXPECT_THAT(standings_[kVlan].reason, HasSubstr(test.reason));
    const auto trapped = datapath_->statistics().trapped;
    if (Lab::ifIndex("vlan10") != 0) {
      expectTrapping(false);
    } else {
      host1_->send(request(kHost1, kIp1));
    }
    EXPECT_EQ(datapath_->statistics().trapped, trapped);
    test.repairs();
    settle();
    awaitReady();
    expectTrapping(true);
  }

  // A bridge that is down moves nothing.
  Lab::upIs("vlan10", false);
  settle();
  await(false);
  EXPECT_EQ(standings_[kVlan].reason, "bridge vlan10 is down");
  Lab::upIs("vlan10");
  awaitReady();
  EXPECT_EQ(standings_[kVlan].reason, "");
}

TEST_F(StandingTest, SaysWhatIsWrongWithTheConfiguration) {
  Lab::run("bridge link set dev tunnel1 neigh_suppress on");
  openDatapath();
  datapath_->vlanIs(kVlan, {"vlan10", {"tunnel1", "tunel2"}});
  datapath_->vlanIs(20, {"vlan10", {}});
  datapath_->vlanIs(30, {"vlan30", {"tunnel1"}});
  datapath_->vlanIs(40, {"access1", {}});
  datapath_->vlanIs(50, {"vlan50", {"far", "tunnel2"}});
  Lab::bridgeIs("vlan50");
  VlanWanted many{"vlan60", {}};
  for (int i = 0; i < 33; ++i) many.tunnelPorts.push_back("t" + std::to_string(i));
  Lab::bridgeIs("vlan60");
  datapath_->vlanIs(60, many);
  awaitReady();
  awaitReady(50);
  EXPECT_EQ(
      complaints(),
      "VLAN 10, tunnel port tunel2: there is no such device; the bridge's ports access1, access2 count "
      "as access ports\n"
      "tunnel port tunnel1: the bridge answers for the hosts behind it too (neigh_suppress): who asks for "
      "one gets two answers\n");
  Lab::run("bridge link set dev tunnel1 neigh_suppress off");
  settle();
  EXPECT_THAT(complaints(), testing::Not(testing::HasSubstr("tunnel1")));
  EXPECT_EQ(complaints(50),
            "VLAN 50, tunnel port far: there is no such device\n"
            "VLAN 50, tunnel port tunnel2: it is no port of bridge vlan50\n");
  EXPECT_EQ(standings_[20].reason, "bridge vlan10 is VLAN 10's already");
  EXPECT_EQ(standings_[30].reason, "tunnel port tunnel1 is VLAN 10's already");
  EXPECT_EQ(standings_[40].reason, "the device access1 is no bridge");
  EXPECT_EQ(standings_[60].reason, "33 tunnel ports, allowed are 32");
  for (const char* device : {"fabin20", "fabin30", "fabin40", "fabin60"})
    EXPECT_EQ(Lab::ifIndex(device), 0U) << device;

  // It is over as soon as it is put right.
  datapath_->vlanDel(kVlan);
  settle();
  awaitReady(20);
  ASSERT_TRUE(datapath_->close());
}

// What wakes the data path, and is none of its business, makes it write nothing.
TEST_F(StandingTest, AtRestItWritesNothing) {
  datapath_.reset();
  start();
  awaitReady();
  settle();
  Netlink::Socket monitor(NETLINK_ROUTE);
  for (const unsigned group : {RTNLGRP_LINK, RTNLGRP_TC, RTNLGRP_NEIGH}) ASSERT_TRUE(monitor.join(group));
  const auto heard = [&] {
    std::size_t messages = 0;
    static_cast<void>(monitor.receive([&](const Netlink::Received&) { ++messages; }, 10'000));
    return messages;
  };
  const auto works = [&] {
    looks_.clear();
    settle();
    return !looks_.empty();
  };
  settle();
  heard();
  Lab::mtuIs("access1", 1400);
  EXPECT_GT(heard(), 0U);
  EXPECT_TRUE(works());
  EXPECT_EQ(heard(), 0U) << "a look at a VLAN that is as it should be";
  datapath_->activeVlanIs(kVlan, false);
  EXPECT_TRUE(works());
  datapath_->activeVlanIs(kVlan, true);
  EXPECT_TRUE(works());
  EXPECT_EQ(heard(), 0U) << "only the programs' map says so";
  EXPECT_FALSE(works());

  // At the end all pairs go in one request, which takes all of them down before the first is gone.
  ASSERT_TRUE(datapath_->close());
  bool gone = false;
  static_cast<void>(monitor.receive(
      [&](const Netlink::Received& message) {
        const bool isLink = message.type() == RTM_NEWLINK || message.type() == RTM_DELLINK;
        const auto link = isLink ? Netlink::readLink(message) : std::nullopt;
        if (!link || link->ofBridge || ownerOf(link->name) != Owner{}) return;
        gone = gone || message.type() == RTM_DELLINK;
        EXPECT_FALSE(gone && message.type() == RTM_NEWLINK) << link->name;
      },
      10'000));
  EXPECT_TRUE(gone);
}

// The kernel takes nothing any more for a map that is frozen.
TEST_F(StandingTest, WhatAMapRefusesIsReportedAndTriedAgain) {
  start();
  ASSERT_EQ(bpf_map_freeze(Map(*programs_, "active_vlans").descriptor()), 0);
  datapath_->activeVlanIs(kVlan, false);
  await(false);
  EXPECT_THAT(standings_[kVlan].reason, HasSubstr("Operation not permitted"));
  expectTrapping(true);
  looks_.clear();
  EXPECT_TRUE(datapath_->againWanted());
  datapath_->againIs();
  settle();
  EXPECT_EQ(looks_[kVlan], 1);
  EXPECT_TRUE(datapath_->againWanted());
  datapath_->vlanDel(kVlan);
  settle();
  for (int tries = 0; tries < 2; ++tries) {
    EXPECT_THAT(complaints(), HasSubstr("VLAN 10, taking it out: ")) << "tried " << tries << " times again";
    EXPECT_TRUE(datapath_->againWanted());
    standings_.clear();
    datapath_->againIs();
    settle();
  }
  openDatapath();
  datapath_->vlanIs(kVlan, kWanted);
  awaitReady();
  expectTrapping(false);
}

TEST_F(StandingTest, TakesOverWhatWasLeft) {
  start();
  Lab::bridgeIs("vlan20");
  datapath_->vlanIs(20, {"vlan20", {}});
  datapath_->sharedAddressIs(Lanix::EthAddr({0, 0, 0x5e, 0, 1, 1}));
  awaitReady(20);
  EXPECT_TRUE(Lab::bridgeKnows("vlan10", {0, 0, 0x5e, 0, 1, 1}));
  const std::uint32_t device = Lab::ifIndex("arpsnoop");
  const Lab::Frame frame = request(kHost1, kIp1);
  datapath_.reset();  // as when the process dies
  host1_->send(frame);
  expectTrapped(frame, "access1");

  // A port is no port of the switch any more, and another has changed its role.
  Lab::bridgeIs("elsewhere");
  Lab::portIs("access2", "elsewhere");
  openDatapath();
  datapath_->sharedAddressIs(Lanix::EthAddr({0, 0, 0x5e, 0, 1, 2}));
  datapath_->activeVlanIs(kVlan, true);
  datapath_->vlanIs(kVlan, {"vlan10", {"tunnel1"}});
  standings_.clear();
  awaitReady();
  EXPECT_EQ(Lab::ifIndex("arpsnoop"), device);  // the agent's socket stays good
  EXPECT_EQ(Lab::ifIndex("fabin20"), 0U);
  EXPECT_NE(Lab::ifIndex("fabin10"), 0U);
  EXPECT_FALSE(isHooked("access2", Direction::ingress));
  EXPECT_FALSE(isHooked("tunnel2", Direction::egress));
  EXPECT_TRUE(isHooked("tunnel2", Direction::ingress));
  EXPECT_FALSE(Lab::bridgeKnows("vlan10", {0, 0, 0x5e, 0, 1, 1}));
  EXPECT_TRUE(Lab::bridgeKnows("vlan10", {0, 0, 0x5e, 0, 1, 2}));
  host1_->send(frame);
  expectTrapped(frame, "access1");  // once
  EXPECT_EQ(snoop_->receive(std::chrono::milliseconds(0)), std::nullopt);
  EXPECT_EQ(datapath_->statistics().trapped, 1U);

  ASSERT_TRUE(datapath_->close());
  EXPECT_FALSE(Lab::bridgeKnows("vlan10", {0, 0, 0x5e, 0, 1, 2}));
  for (const char* name : {"arpsnoop", "arpinject", "fabric", "arpsnoop-sw", "fabin10", "fabin10-br"})
    EXPECT_EQ(Lab::ifIndex(name), 0U) << name;
  host1_->send(frame);
  expect(*host1_, {{remote1_.get(), {frame}}});
  for (const char* name : {"access1", "access2", "tunnel1", "tunnel2"}) {
    EXPECT_FALSE(isHooked(name, Direction::ingress)) << name;
    EXPECT_FALSE(isHooked(name, Direction::egress)) << name;
  }
}

TEST_F(StandingTest, LeavesWhatIsOthersAlone) {
  Lab::bridgeIs("arpinject");
  openDatapath();
  datapath_->vlanIs(kVlan, kWanted);
  await(false);
  EXPECT_THAT(standings_[Datapath::kShared].reason, HasSubstr("device arpinject exists, but"));
  ASSERT_TRUE(datapath_->close());
  EXPECT_NE(Lab::ifIndex("arpinject"), 0U);  // it is not ours to remove
  Lab::linkDel("arpinject");
  start();

  // Somebody takes our place on access1.
  Programs others;
  ASSERT_TRUE(others.load());
  Netlink::Message filter(RTM_NEWTFILTER, NLM_F_CREATE);
  filter.header(ourPlace("access1", TC_H_MIN_INGRESS)).string(TCA_KIND, "bpf");
  change(std::move(filter.nest(TCA_OPTIONS, [&](Netlink::Message& options) {
    options.u32(TCA_BPF_FD, static_cast<std::uint32_t>(others.loaded(Program::dropAll).descriptor))
        .string(TCA_BPF_NAME, "guard")
        .u32(TCA_BPF_FLAGS, TCA_BPF_FLAG_ACT_DIRECT);
  })));
  std::uint64_t guarded = 0;
  const auto guards = [&] {
    host1_->send(request(kHost1, kIp1));
    EXPECT_EQ(others.statistics().unexpected, ++guarded);
  };
  settle();
  guards();
  EXPECT_THAT(complaints(),
              HasSubstr("port access1, ingress: attaching the program: priority 135 handle 1 is "
                        "taken by the filter guard"));
  EXPECT_TRUE(standings_[kVlan].ready) << "the other ports are served";
  host2_->send(request(kHost2, kIp2));
  expectTrapped(request(kHost2, kIp2), "access2");
  datapath_->vlanDel(kVlan);
  settle();
  guards();
  // A device of somebody else in the group of ours.
  Lab::bridgeIs("theirs");
  ifinfomsg header{};
  header.ifi_index = static_cast<int>(Lab::ifIndex("theirs"));
  change(std::move(Netlink::Message(RTM_SETLINK).header(header).u32(IFLA_GROUP, Pairs::kGroup)));
  ASSERT_TRUE(datapath_->close());
  guards();
  EXPECT_NE(Lab::ifIndex("theirs"), 0U);
  EXPECT_EQ(Lab::ifIndex("fabric"), 0U);
}

TEST(DatapathNames, OwnDevices) {
  using Kind = Owner::Kind;
  for (const char* name : {"arpsnoop", "arpsnoop-sw", "arpinject", "fabric-sw"})
    EXPECT_EQ(ownerOf(name), Owner{}) << name;
  EXPECT_EQ(ownerOf("fabin1"), (Owner{Kind::vlan, 1}));
  EXPECT_EQ(ownerOf("fabin4094-br"), (Owner{Kind::vlan, 4094}));
  EXPECT_EQ(ownerOf("fabin-4095-br"), (Owner{Kind::bridge, 4095}));
  for (const char* name : {"", "fabin", "fabin0", "fabin01", "fabin4095", "fabin10-sw", "fabinx", "fabric1",
                           "vlan10", "fabin-", "fabin--1", "fabin-07", "fabin-7-sw"})
    EXPECT_EQ(ownerOf(name), std::nullopt) << name;
}

}  // namespace
}  // namespace SoftForward
