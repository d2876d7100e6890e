// Bridges that filter VLANs, on kernels that have them.

#include "lab/Nd.h"
#include "linux/SoftForward/DatapathRig.h"

namespace SoftForward {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr std::uint16_t kBoth[] = {10, 20};

// VLANs 10 and 20 on one bridge; 30 is none of ours.
//
//   access   10 untagged                     core   10, 20 and 30 tagged; a tunnel port of 10 and 20
//   trunk    10 and 20 tagged, 30 untagged   vx10   10 untagged; a tunnel port of 10
class TrunksTest : public DatapathTest {
 protected:
  void SetUp() override {
    Lab::pinToOneCpu();
    Lab::bridgeIs("br0");
    try {
      filtersIs(true);
    } catch (const Lab::Unsupported& lacking) {
      GTEST_SKIP() << lacking.what();
    }
    for (const char* name : {"access", "trunk", "core", "vx10"}) {
      Lab::vethIs(name, far(name), outside_);
      Lab::portIs(name, "br0");
    }
    Lab::run("for port in access trunk core vx10; do bridge vlan del vid 1 dev $port; done");
    Lab::run(
        "bridge vlan del vid 1 dev br0 self; for vid in 10 20; do bridge vlan add vid $vid dev br0 self; "
        "done");
    Lab::run("for port in access vx10; do bridge vlan add vid 10 dev $port pvid untagged; done");
    Lab::run(
        "for vid in 10 20; do for port in trunk core; do bridge vlan add vid $vid dev $port; done; done");
    Lab::run("bridge vlan add vid 30 dev trunk pvid untagged; bridge vlan add vid 30 dev core");
    access_ = socketOutside("access");
    trunk_ = socketOutside("trunk");
    core_ = socketOutside("core");
    vx10_ = socketOutside("vx10");
  }

  static void filtersIs(bool filters) {
    Lab::run(std::string("ip link set br0 type bridge vlan_filtering ") + (filters ? "1" : "0"));
  }

  void configure() {
    datapath_->vlanIs(10, {"br0", {"core", "vx10"}});
    datapath_->vlanIs(20, {"br0", {"core"}});
    for (const std::uint16_t vlan : kBoth) datapath_->activeVlanIs(vlan, true);
  }
  void startTrunks() {
    openDatapath();
    configure();
    for (const std::uint16_t vlan : kBoth) awaitReady(vlan);
    snoop_.emplace("arpsnoop", 0x8135);
  }

  static Lab::Frame on(const Lab::Frame& frame, std::uint16_t tag) {
    return tag == 0 ? frame : Lab::tagged(frame, tag);
  }
  struct Heard {
    Lab::PacketSocket* socket;
    std::uint16_t tag;  // that frames of the sender's VLAN have there; 0: none
    Frames frames;
  };
  // Sends a broadcast that all of them hear, with that tag, and expects what each got before it.
  void expectHeard(Lab::PacketSocket& sender, std::uint16_t tag, const std::vector<Heard>& receivers) {
    const Lab::Frame sentinel = Lab::plainFrame(kHost1, Lab::kBroadcast, kSentinelType, ++sentinels_);
    sender.send(on(sentinel, tag));
    for (std::size_t i = 0; i < receivers.size(); ++i) {
      SCOPED_TRACE("receiver " + std::to_string(i));
      auto frames = receivers[i].socket->receiveUntil(on(sentinel, receivers[i].tag));
      ASSERT_TRUE(frames.has_value()) << "the sentinel did not come";
      std::erase_if(*frames, isSentinel);
      EXPECT_EQ(hex(*frames), hex(receivers[i].frames));
    }
  }
  static bool isSentinel(const Lab::Frame& frame) {
    return Lab::hex(frame).find("88b5") != std::string::npos;
  }

  // The agent gets this frame that often and nothing else, as "VLAN 10 from access".
  void expectCopies(const Lab::Frame& frame, const std::vector<std::string>& expected) {
    std::vector<std::string> all;
    const auto patience = [&] {
      return all.size() < expected.size() ? Lab::kPatience : std::chrono::milliseconds(0);
    };
    while (const auto copy = snoop_->receive(patience())) {
      std::string text = "something else: " + Lab::hex(*copy);
      for (const std::uint16_t vlan : kBoth)
        for (const char* port : {"access", "trunk", "core", "vx10", "br0"})
          if (Lab::hex(*copy) == Lab::hex(trapped(frame, vlan, Lab::ifIndex(port))))
            text = "VLAN " + std::to_string(vlan) + " from " + port;
      all.push_back(text);
    }
    EXPECT_EQ(all, expected);
  }
  static void expectNext(Lab::PacketSocket& socket, const Lab::Frame& frame) {
    const auto next = socket.receive();
    EXPECT_EQ(next ? Lab::hex(*next) : "nothing", Lab::hex(frame));
  }

  // The VLANs on which the bridge delivers what is for the address to itself.
  static std::set<std::uint16_t> vlansTaking(const Lab::Mac& mac) {
    std::set<std::uint16_t> vlans;
    Netlink::Socket socket(NETLINK_ROUTE);
    EXPECT_TRUE(socket.dump(
        Netlink::neighbourDump(AF_BRIDGE),
        [&](const Netlink::Received& message) {
          const auto entry = Netlink::readNeighbour(message);
          if (entry && entry->mac == Lanix::EthAddr(mac)) vlans.insert(entry->vlan);
        },
        [&] { vlans.clear(); }));
    return vlans;
  }
  static std::string wayIn() { return "fabin-" + std::to_string(Lab::ifIndex("br0")); }
  static Netlink::BridgeVlans tableOf(const std::string& device) {
    VlanTables tables;
    return **tables.of(Lab::ifIndex(device));
  }

  std::unique_ptr<Lab::PacketSocket> access_, trunk_, core_, vx10_;
};

TEST_F(TrunksTest, TheTagOrThePortsPvidIsTheVlan) {
  startTrunks();
  const Lab::Frame frame = request(kHost1, kIp1);
  Lab::Frame provider = Lab::tagged(frame, 10);
  provider[12] = std::byte{0x88};
  provider[13] = std::byte{0xA8};
  const Lab::Frame in10 = Lab::tagged(frame, 10);
  const auto given = [&](const char* what, Lab::PacketSocket& from, const Lab::Frame& sent,
                         const std::vector<std::string>& copies, std::uint16_t tag,
                         const std::vector<Heard>& heard) {
    SCOPED_TRACE(what);
    from.send(sent);
    expectHeard(from, tag, heard);
    expectCopies(frame, copies);
  };
  given("an access port", *access_, frame, {"VLAN 10 from access"}, 0,
        {{&*trunk_, 10, {in10}}, {&*core_, 10, {}}, {&*vx10_, 0, {}}});
  given("with a priority", *access_, Lab::tagged(frame, 0xE000), {"VLAN 10 from access"}, 0,
        {{&*trunk_, 10, {Lab::tagged(frame, 0xE00A)}}, {&*core_, 10, {}}, {&*vx10_, 0, {}}});
  given("a trunk", *trunk_, in10, {"VLAN 10 from trunk"}, 10,
        {{&*access_, 0, {frame}}, {&*core_, 10, {}}, {&*vx10_, 0, {}}});
  given("another VLAN of it", *trunk_, Lab::tagged(frame, 20), {"VLAN 20 from trunk"}, 20,
        {{&*core_, 20, {}}});
  given("a VLAN that is not suppressed", *trunk_, frame, {}, 0, {{&*core_, 30, {Lab::tagged(frame, 30)}}});
  given("the same, from the overlay", *core_, Lab::tagged(frame, 30), {}, 30, {{&*trunk_, 0, {frame}}});
  given("the overlay", *core_, in10, {}, 10,
        {{&*access_, 0, {frame}}, {&*trunk_, 10, {in10}}, {&*vx10_, 0, {frame}}});
  given("a VLAN that the port does not carry", *access_, Lab::tagged(frame, 20), {}, 0,
        {{&*trunk_, 10, {}}, {&*core_, 10, {}}});
  given("a provider's tag", *access_, provider, {}, 0,
        {{&*trunk_, 10, {Lab::tagged(provider, 10)}}, {&*core_, 10, {Lab::tagged(provider, 10)}}});
  EXPECT_EQ(datapath_->statistics().unexpected, 0U);
}

// A port answers what comes as the answer would leave, and nothing while its VLANs are not known.
TEST_F(TrunksTest, AnswersWithTheTagOfTheRequest) {
  startTrunks();
  datapath_->portTermsAre([](const std::string&) { return PortTerms{{}, true}; });
  datapath_->answerTermsAre({3'600'000'000'000, {}});
  settle();
  const Lab::Ip6 asker = Lab::ip6("2001:db8::1"), target = Lab::ip6("2001:db8::3");
  for (const std::uint16_t vlan : kBoth) {
    const PlacedAnswer answers[] = {
        {vlan, Lanix::IpAddr(kRemoteIp), Lanix::EthAddr(kRemote)},
        {vlan, Lanix::Ip6Addr(target), Lanix::EthAddr(kRemote), PlacedAnswer::Kind::nd}};
    AnswersRefused refused;
    ASSERT_TRUE(programs_->answersAre(answers, refused));
    programs_->answersHoldIs(vlan, true);
  }
  const std::pair<Lab::Frame, Lab::Frame> exchanges[] = {
      {request(kHost1, kIp1), Lab::arpFrame({2, kRemote, kRemoteIp, kHost1, kIp1}, kHost1)},
      {Lab::solicitation(kHost1, asker, target), Lab::advertisement(kRemote, target, kHost1, asker, false)}};
  // The second request is answered at the port, and goes no further; of solicitations the first already.
  const auto isAnswered = [&](Lab::PacketSocket& from, std::uint16_t tag, bool wanted, const char* what) {
    SCOPED_TRACE(what);
    for (const auto& [frame, reply] : exchanges) {
      for (int time = 0; time < 2; ++time) from.send(on(frame, tag));
      const auto next = from.receive(wanted ? Lab::kPatience : std::chrono::milliseconds(100));
      EXPECT_EQ(next ? Lab::hex(*next) : "nothing", wanted ? Lab::hex(on(reply, tag)) : "nothing");
      for (Lab::PacketSocket* socket : {&*snoop_, &*access_, &*trunk_}) {
        while (socket->receive(std::chrono::milliseconds(0))) {
        }
      }
    }
  };
  const auto settled = [&](const char* command) {
    Lab::run(command);
    while (datapath_->followVlans()) {
    }
    settle();
  };
  isAnswered(*access_, 0, true, "the access port's VLAN");
  isAnswered(*trunk_, 20, true, "a VLAN with its tag");
  isAnswered(*access_, 10, false, "a tag where answers leave without");
  settled("bridge vlan add vid 20 dev trunk untagged");
  isAnswered(*trunk_, 20, false, "a tag of a VLAN that leaves without now");
  settled("bridge vlan add vid 20 dev trunk");
  isAnswered(*trunk_, 20, true, "and with it again");
  settled("bridge link set dev trunk locked on");
  isAnswered(*trunk_, 20, false, "a locked port");
  settled("bridge link set dev trunk locked off");
  settled("bridge vlan set vid 20 dev trunk state blocking");
  isAnswered(*trunk_, 20, false, "a VLAN that its spanning tree blocks");
  settled("bridge vlan set vid 20 dev trunk state forwarding");
  isAnswered(*trunk_, 20, true, "and forwards again");
}

TEST_F(TrunksTest, WhatTheAgentSendsIsTaggedAsEachPortWantsIt) {
  startTrunks();
  Lab::PacketSocket inject("arpinject", 0x8135);
  Lab::PacketSocket fabric("fabric");
  const Lab::Frame flood = request(kHost1, kIp1);
  inject.send(trapped(flood, 10, 5));
  inject.send(trapped(flood, 20, 5));
  expectNext(*core_, Lab::tagged(flood, 10));
  expectNext(*core_, Lab::tagged(flood, 20));
  expectNext(*vx10_, flood);
  expectHeard(*access_, 0, {{&*core_, 10, {}}, {&*vx10_, 0, {}}, {&*trunk_, 10, {}}});

  // Answers go where the bridge learned the requesters, one on each kind of port.
  const Lab::Frame other = request(kHost2, kIp2);
  access_->send(flood);
  trunk_->send(Lab::tagged(other, 10));
  trunk_->send(Lab::tagged(flood, 20));
  expectNext(*trunk_, Lab::tagged(flood, 10));
  expectNext(*access_, other);
  const Lab::Frame reply1 = Lab::arpFrame({2, kRemote, kRemoteIp, kHost1, kIp1}, kHost1);
  const Lab::Frame reply2 = Lab::arpFrame({2, kRemote, kRemoteIp, kHost2, kIp2}, kHost2);
  fabric.send(Lab::tagged(reply1, 10));
  fabric.send(Lab::tagged(reply2, 10));
  fabric.send(Lab::tagged(reply1, 20));  // the same address in another VLAN is another host
  expectNext(*access_, reply1);
  expectNext(*trunk_, Lab::tagged(reply2, 10));
  expectNext(*trunk_, Lab::tagged(reply1, 20));
  expectHeard(*access_, 0, {{&*trunk_, 10, {}}, {&*core_, 10, {}}, {&*vx10_, 0, {}}});
  EXPECT_EQ(datapath_->statistics().replied, 3U);
  fabric.send(Lab::tagged(reply1, 30));
  expectHeard(*access_, 0, {{&*trunk_, 10, {}}});
  EXPECT_EQ(datapath_->statistics().unexpected, 1U);
  EXPECT_THAT(vlansTaking(kRemote), IsEmpty()) << "the bridge learned from an answer";

  const auto table = tableOf(wayIn() + "-br");
  EXPECT_EQ(table.carried, Netlink::VlanIds().set(10).set(20));
  EXPECT_TRUE(table.untagged.none());
  EXPECT_EQ(table.pvid, 0);
}

TEST_F(TrunksTest, FollowsTheBridgesTables) {
  startTrunks();
  Lab::PacketSocket inject("arpinject", 0x8135);
  const Lab::Frame frame = request(kHost1, kIp1);
  const auto trapsAs = [&](Lab::PacketSocket& from, std::uint16_t tag, std::vector<std::string> expected) {
    from.send(on(frame, tag));
    expectCopies(frame, expected);
  };
  const auto follow = [&] {  // what is urgent, and nothing else
    while (datapath_->followVlans()) {
    }
  };
  Lab::run("bridge vlan add vid 20 dev access pvid untagged");
  follow();
  trapsAs(*access_, 0, {"VLAN 20 from access"});
  trapsAs(*access_, 10, {"VLAN 10 from access"});
  Lab::run("bridge vlan del vid 20 dev access");
  follow();
  trapsAs(*access_, 0, {});
  Lab::run("bridge vlan add vid 10 dev access pvid untagged");
  Lab::run("bridge vlan del vid 10 dev trunk");
  follow();
  trapsAs(*access_, 0, {"VLAN 10 from access"});
  trapsAs(*trunk_, 10, {});
  Lab::run("bridge vlan add vid 10 dev trunk");
  follow();
  trapsAs(*trunk_, 10, {"VLAN 10 from trunk"});

  // A tunnel port that gets a VLAN without its tag, and then loses it.
  Lab::run("bridge vlan add vid 20 dev core untagged");
  settle();
  core_ = socketOutside("core");
  inject.send(trapped(frame, 20, 5));
  expectNext(*core_, frame);
  Lab::run("bridge vlan del vid 20 dev core");
  settle();
  EXPECT_EQ(complaints(20), "VLAN 20, tunnel port core: it does not carry VLAN 20\n");
  inject.send(trapped(frame, 20, 5));
  inject.send(trapped(frame, 10, 5));
  expectNext(*core_, Lab::tagged(frame, 10));
  Lab::run("bridge vlan add vid 20 dev core");
  settle();
  EXPECT_EQ(complaints(20), "");
  trapsAs(*trunk_, 20, {"VLAN 20 from trunk"});

  // A port that is no port any more, and one that is new.
  Lab::bridgeIs("elsewhere");
  Lab::portIs("trunk", "elsewhere");
  settle();
  EXPECT_FALSE(isHooked("trunk", Direction::ingress));
  trapsAs(*trunk_, 10, {});
  Lab::portIs("trunk", "br0");
  Lab::run("bridge vlan add vid 20 dev trunk pvid untagged");
  settle();
  trapsAs(*trunk_, 0, {"VLAN 20 from trunk"});
}

TEST_F(TrunksTest, FilteringIsSwitchedOffAndOn) {
  startTrunks();
  datapath_->sharedAddressIs(Lanix::EthAddr(kRemote));
  settle();
  EXPECT_THAT(vlansTaking(kRemote), ElementsAre(10, 20));
  const Lab::Frame frame = request(kHost1, kIp1);
  for (int round = 0; round < 2; ++round) {
    SCOPED_TRACE(round);
    filtersIs(false);
    await(false, 20);
    awaitReady(10);
    EXPECT_EQ(standings_[20].reason, "bridge br0 is VLAN 10's already");
    EXPECT_NE(Lab::ifIndex("fabin10"), 0U);
    EXPECT_EQ(Lab::ifIndex(wayIn()), 0U);
    EXPECT_EQ(vlansTaking(kRemote).count(0), 1U);
    trunk_->send(frame);
    expectCopies(frame, {"VLAN 10 from trunk"});

    filtersIs(true);
    settle();
    for (const std::uint16_t vlan : kBoth) awaitReady(vlan);
    EXPECT_EQ(Lab::ifIndex("fabin10"), 0U);
    EXPECT_NE(Lab::ifIndex(wayIn()), 0U);
    EXPECT_THAT(vlansTaking(kRemote), ElementsAre(10, 20));
    trunk_->send(frame);
    trunk_->send(Lab::tagged(frame, 20));
    expectCopies(frame, {"VLAN 20 from trunk"});
    for (const char* port : {"access", "trunk"}) EXPECT_TRUE(isHooked(port, Direction::ingress)) << port;
    for (const char* port : {"core", "vx10"}) EXPECT_TRUE(isHooked(port, Direction::egress)) << port;
  }
}

TEST_F(TrunksTest, TheSwitchsOwnRequestsAreTrappedWhereTheBridgeCarriesTheVlan) {
  startTrunks();
  for (const char* vid : {"10", "20"})
    Lab::run(std::string("ip link add vlan") + vid + " link br0 type vlan id " + vid + "; ip link set vlan" +
             vid + " up");
  Lab::PacketSocket own10("vlan10");
  Lab::PacketSocket own20("vlan20");
  const Lab::Frame frame = request(Lab::macOf("br0"), kIp1);
  own10.send(frame);
  expectCopies(frame, {});
  datapath_->ownTrappedIs(true);
  settle();
  own10.send(frame);
  own20.send(frame);
  expectCopies(frame, {"VLAN 10 from br0", "VLAN 20 from br0"});
  EXPECT_EQ(complaints(20), "");
  Lab::run("bridge vlan del vid 20 dev br0 self");
  settle();
  own20.send(frame);
  expectCopies(frame, {});
  EXPECT_THAT(complaints(20), HasSubstr("VLAN 20, bridge br0: the bridge itself does not carry the VLAN"));
  EXPECT_TRUE(standings_[20].ready);
}

TEST_F(TrunksTest, WhatIsTakenAwayIsMadeAgain) {
  startTrunks();
  const Breakage kCases[] = {
      {"the way in", [] { Lab::linkDel(wayIn()); }},
      {"the way in is down", [] { Lab::upIs(wayIn(), false); }},
      {"a VLAN of the way in", [] { Lab::run("bridge vlan del vid 20 dev " + wayIn() + "-br"); }},
      {"the way in takes frames without a tag",
       [] { Lab::run("bridge vlan add vid 7 pvid untagged dev " + wayIn() + "-br"); }},
      {"the programs of a tunnel port", [&] { qdiscDel("core"); }},
      {"the programs of an access port", [&] { qdiscDel("trunk"); }},
  };
  const Lab::Frame frame = request(kHost1, kIp1);
  for (const Breakage& test : kCases) {
    SCOPED_TRACE(test.what);
    test.breaks();
    settle();
    for (const std::uint16_t vlan : kBoth) awaitReady(vlan);
    settle();
    const auto table = tableOf(wayIn() + "-br");
    EXPECT_EQ(table.carried, Netlink::VlanIds().set(10).set(20));
    EXPECT_EQ(table.pvid, 0);
    trunk_->send(Lab::tagged(frame, 20));
    expectHeard(*trunk_, 20, {{&*core_, 20, {}}});
    expectCopies(frame, {"VLAN 20 from trunk"});
  }
}

TEST_F(TrunksTest, SaysWhatIsWrong) {
  openDatapath();
  configure();
  datapath_->vlanIs(20, {"br0", {"access", "cor", "vxlan0"}});
  datapath_->vlanIs(40, {"br40", {}});
  datapath_->vlanIs(50, {"br0", {"vx10", "far"}});
  Lab::bridgeIs("far");
  Lab::run("ip link add br40 type bridge vlan_filtering 1 vlan_protocol 802.1ad");
  datapath_->vlanDel(10);
  awaitReady(20);
  awaitReady(50);
  await(false, 40);
  EXPECT_EQ(complaints(20),
            "VLAN 20, tunnel port access: it does not carry VLAN 20\n"
            "VLAN 20, tunnel port cor: there is no such device; the bridge's ports trunk, core count as "
            "access ports\n"
            "VLAN 20, tunnel port vxlan0: there is no such device; the bridge's ports trunk, core count as "
            "access ports\n");
  EXPECT_EQ(complaints(50),
            "VLAN 50, tunnel port vx10: it does not carry VLAN 50\n"
            "VLAN 50, tunnel port far: it is no port of bridge br0\n");
  EXPECT_EQ(standings_[40].reason, "bridge br40 filters VLANs by tags other than those of 802.1Q");

  Lab::run("ip link add vxlan0 type vxlan external dstport 4789");
  settle();
  await(false, 20);
  EXPECT_THAT(standings_[20].reason, HasSubstr("tunnel port vxlan0 is a single vxlan device for all VLANs"));
  const Lab::Frame frame = request(kHost1, kIp1);
  trunk_->send(Lab::tagged(frame, 20));
  expectHeard(*trunk_, 20, {{&*core_, 20, {Lab::tagged(frame, 20)}}});
  EXPECT_EQ(datapath_->statistics().trapped, 0U);

  // What all VLANs of the bridge wait for is one VLAN's to tell.
  Lab::upIs("br0", false);
  settle();
  await(false, 50);
  EXPECT_EQ(standings_[50].reason, "bridge br0 is down");
  datapath_->vlanIs(20, {"br0", {}});
  settle();
  await(false, 20);
  EXPECT_FALSE(standings_[20].toldElsewhere);
  EXPECT_TRUE(standings_[50].toldElsewhere);
}

TEST_F(TrunksTest, TakesOverWhatWasLeft) {
  startTrunks();
  datapath_->sharedAddressIs(Lanix::EthAddr(kRemote));
  settle();
  const std::uint32_t before = Lab::ifIndex(wayIn());
  openDatapath();  // as after a crash
  datapath_->sharedAddressIs(Lanix::EthAddr(kHost2));
  datapath_->vlanIs(20, {"br0", {"core"}});
  datapath_->activeVlanIs(20, true);
  standings_.clear();
  awaitReady(20);
  settle();
  EXPECT_EQ(Lab::ifIndex(wayIn()), before);
  EXPECT_EQ(tableOf(wayIn() + "-br").carried, Netlink::VlanIds().set(20));
  EXPECT_THAT(vlansTaking(kRemote), IsEmpty());
  EXPECT_THAT(vlansTaking(kHost2), ElementsAre(20));
  EXPECT_FALSE(isHooked("access", Direction::ingress));
  EXPECT_FALSE(isHooked("vx10", Direction::egress));
  const Lab::Frame frame = request(kHost1, kIp1);
  trunk_->send(Lab::tagged(frame, 20));
  trunk_->send(Lab::tagged(frame, 10));
  expectCopies(frame, {"VLAN 20 from trunk"});

  ASSERT_TRUE(datapath_->close());
  EXPECT_EQ(Lab::ifIndex(wayIn()), 0U);
  EXPECT_THAT(vlansTaking(kHost2), IsEmpty());
  for (const char* port : {"access", "trunk", "core", "vx10"})
    EXPECT_FALSE(isHooked(port, Direction::ingress) || isHooked(port, Direction::egress)) << port;
}

// A thousand VLANs come up in pieces, and then there is nothing to do.
TEST_F(TrunksTest, AThousandVlansComeToRest) {
  constexpr std::uint16_t kFirst = 1000;
  constexpr std::uint16_t kLast = 1999;
  Lab::run("for port in trunk core; do bridge vlan add vid 1000-1999 dev $port; done");
  openDatapath();
  for (std::uint16_t vlan = kFirst; vlan <= kLast; ++vlan) {
    datapath_->vlanIs(vlan, {"br0", {"core"}});
    datapath_->activeVlanIs(vlan, true);
  }
  awaitReady(kLast);
  settle();
  for (std::uint16_t vlan = kFirst; vlan <= kLast; ++vlan) ASSERT_TRUE(standings_[vlan].ready) << vlan;
  Netlink::Socket monitor(NETLINK_ROUTE);
  for (const unsigned group : {RTNLGRP_LINK, RTNLGRP_TC, RTNLGRP_NEIGH, RTNLGRP_BRVLAN})
    ASSERT_TRUE(monitor.join(group));
  const auto heard = [&] {
    std::size_t messages = 0;
    static_cast<void>(monitor.receive([&](const Netlink::Received&) { ++messages; }, 10'000));
    return messages;
  };
  EXPECT_FALSE(datapath_->step());
  // A VLAN of one port concerns that VLAN, and an access port's none.
  looks_.clear();
  Lab::run("bridge vlan add vid 1000 dev core untagged");
  Lab::run("bridge vlan del vid 1000 dev trunk");
  EXPECT_GT(heard(), 0U);
  settle();
  EXPECT_EQ(looks_.size(), 1U);
  EXPECT_EQ(looks_[kFirst], 1);
  Lab::mtuIs("br0", 1400);
  EXPECT_GT(heard(), 0U);
  settle();
  EXPECT_GT(looks_.size(), 100U);
  EXPECT_EQ(heard(), 0U) << "a look at VLANs that are as they should be";
}

}  // namespace
}  // namespace SoftForward
