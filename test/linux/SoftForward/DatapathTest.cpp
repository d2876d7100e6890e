// What becomes of frames.

#include "linux/SoftForward/DatapathRig.h"
#include "linux/SoftForward/Maps.h"

namespace SoftForward {
namespace {

TEST_F(DatapathTest, TheSwitchsOwnRequestsAreTrappedWhenAskedFor) {
  start();
  const auto own = std::make_unique<Lab::PacketSocket>("vlan10");
  const Lab::Frame frame = request(Lab::macOf("vlan10"), kIp1);
  for (const bool trapped : {false, true, false}) {
    SCOPED_TRACE(trapped);
    datapath_->ownTrappedIs(trapped);
    settle();
    own->send(frame);
    if (trapped) expectTrapped(frame, "vlan10");
    const Frames remote = trapped ? Frames() : Frames{frame};
    expect(*own, {{&*host1_, {frame}}, {&*host2_, {frame}}, {&*remote1_, remote}, {&*remote2_, remote}});
  }
  EXPECT_FALSE(isHooked("vlan10", Direction::egress));
}

TEST_F(DatapathTest, FramesOfTheGreatestLengthAreTrappedAndLongerOnesFlooded) {
  for (const char* name : {"access1", "access2", "tunnel1", "tunnel2"}) {
    Lab::mtuIs(name, 9500);
    const Lab::Entered entered(outside_);
    Lab::mtuIs(far(name), 9500);
  }
  Lab::mtuIs("vlan10", 9500);
  start();
  Lab::Frame longest = request(kHost1, kIp1);
  longest.resize(SOFT_FORWARD_MAX_FRAME, std::byte{0x77});
  Lab::Frame longer = longest;
  longer.push_back(std::byte{0x77});
  host1_->send(longer);
  host1_->send(longest);
  expectTrapped(longest, "access1");
  expect(*host1_,
         {{host2_.get(), {longer, longest}}, {remote1_.get(), {longer}}, {remote2_.get(), {longer}}});
  Lab::PacketSocket inject("arpinject");
  inject.send(trapped(longest, kVlan, 1));
  expect(*host1_, {{remote1_.get(), {longest}}, {remote2_.get(), {longest}}});
}

TEST_F(DatapathTest, WhatIsNotTrappedPassesUntouched) {
  start();
  const Lab::Frame inactive = request(kHost1, kIp1, kIp2);
  const Lab::Frame active = request(kHost1, kIp1);
  datapath_->activeVlanIs(kVlan, false);  // at once
  host1_->send(inactive);
  datapath_->activeVlanIs(kVlan, true);
  settle();

  // A tag that the receiving device takes off does not make the frame this VLAN's.
  const Lab::Frame tagged = Lab::tagged(active, 77);
  const Lab::Frame unicast = Lab::arpFrame({1, kHost1, kIp1, {}, kRemoteIp}, kRemote);
  const Lab::Frame other = Lab::plainFrame(kHost1, Lab::kBroadcast, 0x88B6, 1);
  for (const Lab::Frame& frame : {tagged, unicast, other}) host1_->send(frame);
  const Frames all{inactive, tagged, unicast, other};
  expect(*host1_, {{host2_.get(), all}, {remote1_.get(), all}, {remote2_.get(), all}});

  // What comes out of the overlay reaches the hosts and not the agent.
  const Lab::Frame overlay = request(kRemote, kRemoteIp, kIp1);
  remote1_->send(overlay);
  expect(*remote1_, {{host1_.get(), {overlay}}, {host2_.get(), {overlay}}, {remote2_.get(), {overlay}}});

  host1_->send(active);
  expectTrapped(active, "access1");  // the first and only copy
  EXPECT_EQ(datapath_->statistics().trapped, 1U);
  // A tag with a priority and no VLAN says nothing about the VLAN, and the agent gets the frame without.
  const Lab::Frame priority = Lab::tagged(active, 0xE000);
  host1_->send(priority);
  expectTrapped(active, "access1");
  expect(*host1_, {{host2_.get(), {active, priority}}, {remote1_.get(), {}}, {remote2_.get(), {}}});
}

TEST_F(DatapathTest, FramesPassWhileTheAgentCannotGetThem) {
  start();
  const Lab::Frame frame = request(kHost1, kIp1);
  const auto passes = [&](std::uint64_t failures) {
    host1_->send(frame);
    expect(*host1_, {{host2_.get(), {frame}}, {remote1_.get(), {frame}}});
    EXPECT_EQ(datapath_->statistics().trapFailed, failures);
  };
  Lab::upIs("arpsnoop", false);
  passes(1);
  Lab::upIs("arpsnoop", true);
  Lab::awaitOperational("arpsnoop-sw");
  host1_->send(frame);
  EXPECT_EQ(datapath_->statistics().trapped, 1U);
  expect(*host1_, {{host2_.get(), {frame}}, {remote1_.get(), {}}});
  snoop_.reset();
  Lab::linkDel("arpsnoop");
  passes(2);
}

// While the programs of a run that was killed are replaced one by one, nobody hears a request twice, and it is
// lost only to a run that nobody knows yet to be dead.
TEST_F(DatapathTest, OverAKillEachRequestIsTrappedOrFlooded) {
  start();
  const Lab::Frame frame = request(kHost1, kIp1);
  std::vector<bool> trapped;
  const auto ask = [&] {
    const Lab::Frame last = Lab::plainFrame(kHost1, Lab::kBroadcast, kSentinelType, ++sentinels_);
    host1_->send(frame);
    host1_->send(last);
    const auto flooded = remote1_->receiveUntil(last);
    trapped.push_back(snoop_->receive(std::chrono::milliseconds(0)).has_value());
    ASSERT_TRUE(flooded);
    EXPECT_EQ(flooded->size(), trapped.back() ? 0U : 1U);
  };
  ask();
  openDatapath(false);
  datapath_->vlanIs(kVlan, kWanted);
  datapath_->activeVlanIs(kVlan, true);
  ask();
  while (datapath_->step()) ask();
  awaitReady();
  const auto old = std::ranges::find(trapped, false);
  EXPECT_NE(old, trapped.end());
  EXPECT_EQ(std::ranges::count(old, trapped.end(), true), 0) << "what took over traps for nobody";
  programs_->trustedUntilIs(~std::uint64_t{0});
  ask();
  EXPECT_TRUE(trapped.back());
}

TEST_F(DatapathTest, InjectedFramesLeaveOnEachTunnelPortOnce) {
  start();
  Lab::PacketSocket inject("arpinject", 0x8135);
  const Lab::Frame plain = request(kHost1, kIp1);
  const Lab::Frame tagged = Lab::tagged(plain, 0x2005);
  Lab::Frame padded = plain;
  padded.resize(60);
  inject.send(trapped(plain, kVlan, 5));
  inject.send(trapped(tagged, kVlan, 5));
  inject.markIs(SOFT_FORWARD_MARK | kVlan);  // a mark of the sender's does not keep the frame in
  inject.send(trapped(padded, kVlan, 5));
  EXPECT_EQ(datapath_->statistics().injected, 3U);

  inject.send(trapped(plain, kVlan + 1, 5));  // leaves nowhere
  EXPECT_EQ(datapath_->statistics().unexpected, 1U);

  const Frames all{plain, tagged, padded};
  expect(*host1_, {{host2_.get(), {}}, {remote1_.get(), all}, {remote2_.get(), all}});
  expect(*host2_, {{host1_.get(), {}}});

  // A tunnel port that is gone does not keep the frame from the others.
  Lab::linkDel("tunnel1");
  inject.send(trapped(plain, kVlan, 5));
  expect(*host1_, {{remote2_.get(), {plain}}});
  EXPECT_EQ(datapath_->statistics().injectSendFailed, 1U);
}

TEST_F(DatapathTest, RepliesReachTheRequesterAndTeachTheBridgeNothing) {
  start();
  Lab::PacketSocket fabric("fabric");
  host1_->send(request(kHost1, kIp1));  // by which the bridge learns where host 1 is
  expect(*host1_, {{host2_.get(), {request(kHost1, kIp1)}}, {remote1_.get(), {}}, {remote2_.get(), {}}});

  const Lab::Frame reply = Lab::arpFrame({2, kRemote, kRemoteIp, kHost1, kIp1}, kHost1);
  ASSERT_EQ(Lab::tagged(reply, kVlan).size(), 46U);
  fabric.send(Lab::tagged(reply, kVlan));
  expect(*host2_, {{host1_.get(), {reply}}, {remote1_.get(), {}}, {remote2_.get(), {}}});
  expect(*host1_, {{host2_.get(), {}}});
  EXPECT_TRUE(Lab::bridgeKnows("vlan10", kHost1));
  EXPECT_FALSE(Lab::bridgeKnows("vlan10", kRemote));

  // The bridge does not know where this requester is: the hosts get the answer, the overlay does not.
  const Lab::Frame unknown = Lab::arpFrame({2, kRemote, kRemoteIp, kHost2, kIp2}, kHost2);
  fabric.send(Lab::tagged(unknown, kVlan));
  expect(*host1_, {{host2_.get(), {unknown}}, {remote1_.get(), {}}, {remote2_.get(), {}}});
  EXPECT_EQ(datapath_->statistics().replied, 2U);

  fabric.send(Lab::tagged(reply, kVlan + 1));
  EXPECT_EQ(datapath_->statistics().unexpected, 1U);
  expect(*host2_, {{remote1_.get(), {}}});
}

TEST_F(DatapathTest, PeersAndWaysInPassNothingElse) {
  start();
  const Lab::Frame frame = Lab::plainFrame(kHost1, Lab::kBroadcast, kSentinelType, 0xEE);
  std::uint64_t unexpected = 0;
  for (const char* device :
       {"arpsnoop", "arpsnoop-sw", "arpinject", "arpinject-sw", "fabric", "fabric-sw", "fabin10-br"}) {
    SCOPED_TRACE(device);
    Lab::PacketSocket(device).trySend(frame);  // the sender of what is dropped on the way out is told so
    EXPECT_EQ(datapath_->statistics().unexpected, ++unexpected);
  }
  // No flood enters the way in.
  Lab::PacketSocket wayIn("fabin10");
  expect(*host1_, {{host2_.get(), {}}});
  host1_->send(request(kHost1, kIp1));
  EXPECT_EQ(wayIn.receive(std::chrono::milliseconds(0)), std::nullopt);
}

TEST_F(DatapathTest, TheBridgeKeepsItsAddressAndMtu) {
  for (const char* name : {"access1", "access2", "tunnel1", "tunnel2"}) Lab::mtuIs(name, 4000);
  const Lab::Mac mac = Lab::macOf("vlan10");
  ASSERT_EQ(Lab::mtuOf("vlan10"), 4000U);
  start();
  EXPECT_EQ(Lab::macOf("vlan10"), mac);
  EXPECT_EQ(Lab::mtuOf("vlan10"), 4000U);
}

// Hosts are answered at a port only while the bridge would take their request and give them the reply.
TEST_F(DatapathTest, WhichPortsAnswer) {
  start();
  datapath_->portTermsAre([](const std::string&) { return PortTerms{{1000, 1000}, true}; });
  const auto answers = [&](const char* device) {
    settle();
    return Map(*programs_, "ports").at<SoftForwardPort>(Lab::ifIndex(device)).answers == 1;
  };
  EXPECT_TRUE(answers("access1"));
  EXPECT_FALSE(answers("tunnel1"));
  for (const auto& [off, on] : {std::pair("locked on", "locked off"), std::pair("state 1", "state 3")}) {
    SCOPED_TRACE(off);
    Lab::run(std::string("bridge link set dev access1 ") + off);
    EXPECT_FALSE(answers("access1"));
    EXPECT_TRUE(answers("access2"));
    Lab::run(std::string("bridge link set dev access1 ") + on);
    EXPECT_TRUE(answers("access1"));
  }
  datapath_->portTermsAre([](const std::string& device) { return PortTerms{{}, device != "access1"}; });
  EXPECT_FALSE(answers("access1"));
}

TEST_F(DatapathTest, PortsComeAndGo) {
  start();
  const Lab::Frame frame = request(kHost1, kIp1);
  Lab::bridgeIs("vlan20");
  datapath_->vlanIs(20, {"vlan20", {}});
  datapath_->activeVlanIs(20, true);
  awaitReady(20);
  Lab::awaitOperational("vlan20");  // which the kernel tells of later
  settle();
  looks_.clear();
  host1_.reset();
  Lab::linkDel("access1");
  Lab::vethIs("access1", far("access1"), outside_);
  Lab::portIs("access1", "vlan10");
  settle();
  EXPECT_EQ(looks_.count(20), 0U) << "it is VLAN 10's port";
  host1_ = socketOutside("access1");
  host1_->send(frame);
  expectTrapped(frame, "access1");
  expect(*host1_, {{host2_.get(), {frame}}, {remote1_.get(), {}}, {remote2_.get(), {}}});

  // A tunnel port becomes an access port.
  datapath_->vlanIs(kVlan, {"vlan10", {"tunnel2"}});
  settle();
  EXPECT_FALSE(isHooked("fabin10-br", Direction::ingress));
  host1_->send(frame);
  expectTrapped(frame, "access1");
  expect(*host1_, {{host2_.get(), {frame}}, {remote1_.get(), {frame}}, {remote2_.get(), {}}});
  remote1_->send(frame);
  expectTrapped(frame, "tunnel1");
  host1_->receive(), host2_->receive();

  // A port moves to another VLAN.
  Lab::portIs("access1", "vlan20");
  settle();
  host1_->send(frame);
  EXPECT_EQ(snoop_->receive(), trapped(frame, 20, Lab::ifIndex("access1")));
  datapath_->vlanDel(20);
  settle();
  EXPECT_NE(Lab::ifIndex("fabin20"), 0U) << "what was trapped is still to be answered";
  EXPECT_TRUE(datapath_->againWanted());
  datapath_->againIs();
  settle();
  EXPECT_FALSE(datapath_->againWanted());
  EXPECT_EQ(Lab::ifIndex("fabin20"), 0U);
  EXPECT_FALSE(isHooked("access1", Direction::ingress));
  host1_->send(frame);
  remote1_->send(frame);
  expectTrapped(frame, "tunnel1");  // and none from access1 before it
}

}  // namespace
}  // namespace SoftForward
