// A switch in one namespace, its hosts and remote switches in another, and the agent's part played by packet
// sockets.

#include "SoftForward/Datapath.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/pkt_cls.h>
#include <linux/pkt_sched.h>
#include <linux/rtnetlink.h>

#include <optional>

#include "SoftForward/Shared.h"
#include "lab/Lab.h"

namespace SoftForward {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr std::uint16_t kVlan = 10;
constexpr Lab::Mac kHost1{0x02, 0, 0, 0, 0, 0x11};
constexpr Lab::Mac kHost2{0x02, 0, 0, 0, 0, 0x12};
constexpr Lab::Mac kRemote{0x02, 0, 0, 0, 0, 0x21};
constexpr Lab::Ip kIp1{10, 0, 0, 1};
constexpr Lab::Ip kIp2{10, 0, 0, 2};
constexpr Lab::Ip kRemoteIp{10, 0, 0, 3};
constexpr std::uint16_t kSentinelType = 0x88B5;  // for local experiments (IEEE 802)

using Frames = std::vector<Lab::Frame>;

// What the agent reads and writes: the frame with the trap header.
Lab::Frame trapped(const Lab::Frame& frame, std::uint32_t vlan, std::uint32_t port) {
  Lab::Frame result(frame.begin(), frame.begin() + 12);
  for (const std::uint32_t word : {0x81350000U, vlan, port, 0U})
    for (int shift = 24; shift >= 0; shift -= 8)
      result.push_back(static_cast<std::byte>(word >> shift & 0xFF));
  result.insert(result.end(), frame.begin() + 12, frame.end());
  return result;
}

class DatapathTest : public testing::Test {
 protected:
  void SetUp() override {
    Lab::pinToOneCpu();
    Lab::bridgeIs("vlan10");
    for (const char* name : {"access1", "access2", "tunnel1", "tunnel2"}) {
      Lab::vethIs(name, far(name), outside_);
      Lab::portIs(name, "vlan10");
    }
    host1_ = socketOutside("access1");
    host2_ = socketOutside("access2");
    remote1_ = socketOutside("tunnel1");
    remote2_ = socketOutside("tunnel2");
  }

  static std::string far(const std::string& name) { return "far-" + name; }

  std::unique_ptr<Lab::PacketSocket> socketOutside(const std::string& port) {
    const Lab::Entered entered(outside_);
    return std::make_unique<Lab::PacketSocket>(far(port));
  }

  VlanPorts ports(const std::vector<const char*>& access, const std::vector<const char*>& tunnel) {
    VlanPorts result{Lab::ifIndex("vlan10"), {}, {}};
    for (const char* name : access) result.accessPorts.push_back(Lab::ifIndex(name));
    for (const char* name : tunnel) result.tunnelPorts.push_back(Lab::ifIndex(name));
    return result;
  }

  void start() {
    datapath_.emplace();
    ASSERT_EQ(datapath_->open(), std::nullopt);
    ASSERT_EQ(datapath_->vlanIs(kVlan, ports({"access1", "access2"}, {"tunnel1", "tunnel2"})), std::nullopt);
    ASSERT_EQ(datapath_->activeVlanIs(kVlan, true), std::nullopt);
    for (const char* name : {"arpsnoop-sw", "arpinject", "fabric", "fabin10", "fabin10-br"})
      Lab::awaitOperational(name);
    snoop_.emplace("arpsnoop", 0x8135);
  }

  static Lab::Frame request(const Lab::Mac& mac, const Lab::Ip& ip, const Lab::Ip& target = kRemoteIp) {
    return Lab::arpFrame({1, mac, ip, {}, target});
  }

  // Sends a broadcast from `sender` that reaches every other port, and expects what each of those got before
  // it.
  void expect(Lab::PacketSocket& sender,
              const std::vector<std::pair<Lab::PacketSocket*, Frames>>& receivers) {
    const Lab::Frame sentinel = Lab::plainFrame(kHost1, Lab::kBroadcast, kSentinelType, ++sentinels_);
    sender.send(sentinel);
    for (std::size_t i = 0; i < receivers.size(); ++i) {
      SCOPED_TRACE("receiver " + std::to_string(i));
      auto frames = receivers[i].first->receiveUntil(sentinel);
      ASSERT_TRUE(frames.has_value()) << "the sentinel did not come";
      // Sentinels of earlier calls that did not name this receiver.
      std::erase_if(*frames, [](const Lab::Frame& frame) {
        return frame.size() == 60 && frame[12] == std::byte{0x88} && frame[13] == std::byte{0xB5};
      });
      EXPECT_EQ(hex(*frames), hex(receivers[i].second));
    }
  }

  static std::vector<std::string> hex(const Frames& frames) {
    std::vector<std::string> result;
    for (const Lab::Frame& frame : frames) result.push_back(Lab::hex(frame));
    return result;
  }

  // The next copy that the agent gets.
  void expectTrapped(const Lab::Frame& frame, const char* port) {
    const auto copy = snoop_->receive();
    ASSERT_TRUE(copy.has_value());
    EXPECT_EQ(Lab::hex(*copy), Lab::hex(trapped(frame, kVlan, Lab::ifIndex(port))));
  }

  // Where our filters are on the device.
  static std::vector<Direction> hooksOf(const std::string& device) {
    Netlink::Socket socket(NETLINK_ROUTE);
    std::vector<Hook> hooks;
    EXPECT_EQ(Filters(socket).attached(hooks), std::nullopt);
    std::vector<Direction> result;
    for (const Hook& hook : hooks)
      if (hook.ifIndex == Lab::ifIndex(device)) result.push_back(hook.direction);
    return result;
  }

  Lab::Namespace switch_;
  Lab::Namespace outside_;
  Lab::Entered entered_{switch_};
  std::unique_ptr<Lab::PacketSocket> host1_, host2_, remote1_, remote2_;
  std::optional<Lab::PacketSocket> snoop_;
  std::optional<Datapath> datapath_;
  std::uint8_t sentinels_ = 0;
};

TEST_F(DatapathTest, TheSwitchsOwnRequestsAreTrappedWhenAskedFor) {
  start();
  auto ports = this->ports({"access1", "access2"}, {"tunnel1", "tunnel2"});
  const auto own = std::make_unique<Lab::PacketSocket>("vlan10");
  const Lab::Frame frame = request(Lab::macOf("vlan10"), kIp1);
  for (const bool trapped : {false, true, false}) {
    SCOPED_TRACE(trapped);
    ports.ownTrapped = trapped;
    ASSERT_EQ(datapath_->vlanIs(kVlan, ports), std::nullopt);
    own->send(frame);
    if (trapped) expectTrapped(frame, "vlan10");
    const Frames remote = trapped ? Frames() : Frames{frame};
    expect(*own, {{&*host1_, {frame}}, {&*host2_, {frame}}, {&*remote1_, remote}, {&*remote2_, remote}});
  }
  EXPECT_THAT(hooksOf("vlan10"), IsEmpty());
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
  ASSERT_EQ(datapath_->activeVlanIs(kVlan, false), std::nullopt);
  host1_->send(inactive);
  ASSERT_EQ(datapath_->activeVlanIs(kVlan, true), std::nullopt);

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

TEST_F(DatapathTest, PortsComeAndGo) {
  start();
  const Lab::Frame frame = request(kHost1, kIp1);

  // A port whose device went and came back is told so.
  const std::uint32_t before = Lab::ifIndex("access1");
  host1_.reset();
  Lab::linkDel("access1");
  ASSERT_EQ(datapath_->portDel(before), std::nullopt);
  Lab::vethIs("access1", far("access1"), outside_);
  Lab::portIs("access1", "vlan10");
  host1_ = socketOutside("access1");
  ASSERT_EQ(datapath_->vlanIs(kVlan, ports({"access1", "access2"}, {"tunnel1", "tunnel2"})), std::nullopt);
  host1_->send(frame);
  expectTrapped(frame, "access1");
  expect(*host1_, {{host2_.get(), {frame}}, {remote1_.get(), {}}, {remote2_.get(), {}}});

  // A tunnel port becomes an access port, and the way in is none although it was named.
  VlanPorts changed = ports({"access1", "tunnel1", "fabin10-br"}, {"tunnel2"});
  ASSERT_EQ(datapath_->vlanIs(kVlan, changed), std::nullopt);
  EXPECT_THAT(hooksOf("fabin10-br"), IsEmpty());
  host1_->send(frame);
  expectTrapped(frame, "access1");
  expect(*host1_, {{host2_.get(), {frame}}, {remote1_.get(), {frame}}, {remote2_.get(), {}}});
  remote1_->send(frame);
  expectTrapped(frame, "tunnel1");
  host2_->send(frame);  // no port of the VLAN any more
  expect(*host2_, {{host1_.get(), {frame, frame}}, {remote1_.get(), {frame}}, {remote2_.get(), {frame}}});

  // Two VLANs claim a port: the last one has it.
  Lab::bridgeIs("vlan20");
  ASSERT_EQ(datapath_->activeVlanIs(20, true), std::nullopt);
  ASSERT_EQ(datapath_->vlanIs(20, {Lab::ifIndex("vlan20"), {Lab::ifIndex("access1")}, {}}), std::nullopt);
  ASSERT_EQ(datapath_->vlanIs(kVlan, ports({"tunnel1"}, {"tunnel2"})), std::nullopt);
  Lab::portIs("access1", "vlan20");
  host1_->send(frame);
  EXPECT_EQ(snoop_->receive(), trapped(frame, 20, Lab::ifIndex("access1")));

  ASSERT_EQ(datapath_->vlanDel(20), std::nullopt);
  EXPECT_EQ(Lab::ifIndex("fabin20"), 0U);
  host1_->send(frame);
  remote1_->send(frame);
  expectTrapped(frame, "tunnel1");  // and none from access1 before it
}

TEST_F(DatapathTest, TakesOverWhatWasLeft) {
  start();
  Lab::bridgeIs("vlan20");
  ASSERT_EQ(datapath_->vlanIs(20, {Lab::ifIndex("vlan20"), {}, {}}), std::nullopt);
  const std::uint32_t device = Lab::ifIndex("arpsnoop");
  const Lab::Frame frame = request(kHost1, kIp1);
  datapath_.reset();  // as when the process dies
  host1_->send(frame);
  expectTrapped(frame, "access1");

  datapath_.emplace();
  ASSERT_EQ(datapath_->open(), std::nullopt);
  EXPECT_EQ(Lab::ifIndex("arpsnoop"), device);  // the agent's socket stays good
  ASSERT_EQ(datapath_->activeVlanIs(kVlan, true), std::nullopt);
  ASSERT_EQ(datapath_->vlanIs(kVlan, ports({"access1"}, {"tunnel1", "tunnel2"})), std::nullopt);
  host2_->send(frame);  // the program of the earlier run is still on this port
  expectTrapped(frame, "access2");
  ASSERT_EQ(datapath_->staleDel(), std::nullopt);
  EXPECT_EQ(Lab::ifIndex("fabin20"), 0U);
  EXPECT_NE(Lab::ifIndex("fabin10"), 0U);
  host2_->send(frame);
  host1_->send(frame);
  expectTrapped(frame, "access1");  // once, and nothing from access2 before
  expect(*host1_, {{remote1_.get(), {frame}}, {remote2_.get(), {frame}}});
  EXPECT_EQ(snoop_->receive(std::chrono::milliseconds(0)), std::nullopt);
  EXPECT_EQ(datapath_->statistics().trapped, 1U);

  ASSERT_EQ(datapath_->close(), std::nullopt);
  for (const char* name : {"arpsnoop", "arpinject", "fabric", "arpsnoop-sw", "fabin10", "fabin10-br"})
    EXPECT_EQ(Lab::ifIndex(name), 0U) << name;
  host1_->send(frame);
  expect(*host1_, {{remote1_.get(), {frame}}, {remote2_.get(), {frame}}});
  for (const char* name : {"access1", "access2", "tunnel1", "tunnel2"}) EXPECT_THAT(hooksOf(name), IsEmpty());
}

TEST_F(DatapathTest, APortMayChangeItsRoleBetweenRuns) {
  start();
  datapath_.emplace();
  ASSERT_EQ(datapath_->open(), std::nullopt);
  ASSERT_EQ(datapath_->vlanIs(kVlan, ports({"tunnel1"}, {"access1"})), std::nullopt);
  EXPECT_THAT(hooksOf("access1"), ElementsAre(Direction::egress));
  EXPECT_THAT(hooksOf("tunnel1"), ElementsAre(Direction::ingress));
}

TEST_F(DatapathTest, RefusesWhatCannotBe) {
  Lab::bridgeIs("arpinject");
  datapath_.emplace();
  EXPECT_THAT(datapath_->open().value_or(""), HasSubstr("device arpinject exists, but"));
  ASSERT_EQ(datapath_->close(), std::nullopt);
  EXPECT_NE(Lab::ifIndex("arpinject"), 0U);  // it is not ours to remove
  Lab::linkDel("arpinject");
  start();

  EXPECT_THAT(datapath_->vlanIs(0, ports({}, {})).value_or(""), HasSubstr("VLAN 0: allowed are 1 to 4094"));
  EXPECT_THAT(datapath_->activeVlanIs(4095, true).value_or(""), HasSubstr("VLAN 4095"));
  VlanPorts many = ports({}, {});
  for (std::uint32_t i = 0; i < 33; ++i) many.tunnelPorts.push_back(1000 + i);
  EXPECT_THAT(datapath_->vlanIs(kVlan, many).value_or(""), HasSubstr("33 tunnel ports, allowed are 32"));
  EXPECT_THAT(datapath_->vlanIs(kVlan, ports({"access1"}, {"access1"})).value_or(""), HasSubstr("both"));
  EXPECT_THAT(datapath_->vlanIs(30, {4000, {}, {}}).value_or(""),
              HasSubstr("device fabin30-br: making it a port"));

  // One port that fails does not keep the others from working, and is tried again.
  VlanPorts broken = ports({"access1", "access2"}, {"tunnel1", "tunnel2"});
  broken.accessPorts.insert(broken.accessPorts.begin(), 4000);
  EXPECT_THAT(datapath_->vlanIs(kVlan, broken).value_or(""),
              HasSubstr("port 4000 ingress: making the clsact qdisc"));
  EXPECT_THAT(datapath_->vlanIs(kVlan, broken).value_or(""), HasSubstr("port 4000"));
  host2_->send(request(kHost2, kIp2));
  expectTrapped(request(kHost2, kIp2), "access2");
}

TEST_F(DatapathTest, LeavesTheFiltersOfOthersAlone) {
  start();
  Programs others;
  ASSERT_EQ(others.load(), std::nullopt);
  tcmsg header{};
  header.tcm_ifindex = static_cast<int>(Lab::ifIndex("access1"));
  header.tcm_handle = Filters::kHandle;
  header.tcm_parent = TC_H_MAKE(TC_H_CLSACT, TC_H_MIN_INGRESS);
  header.tcm_info = TC_H_MAKE(std::uint32_t{Filters::kPriority} << 16, htons(0x0003));  // ETH_P_ALL
  Netlink::Message filter(RTM_NEWTFILTER, NLM_F_CREATE);
  filter.header(header).string(TCA_KIND, "bpf").nest(TCA_OPTIONS, [&](Netlink::Message& options) {
    options.u32(TCA_BPF_FD, static_cast<std::uint32_t>(others.fd(Program::dropAll)))
        .string(TCA_BPF_NAME, "guard")
        .u32(TCA_BPF_FLAGS, TCA_BPF_FLAG_ACT_DIRECT);
  });
  // Somebody takes our place on access1.
  Netlink::Socket socket(NETLINK_ROUTE);
  ASSERT_TRUE(socket.request(filter));

  std::uint64_t guarded = 0;
  const auto guards = [&] {
    host1_->send(request(kHost1, kIp1));
    EXPECT_EQ(others.statistics().unexpected, ++guarded);
  };
  ASSERT_EQ(datapath_->vlanDel(kVlan), std::nullopt);
  guards();
  EXPECT_THAT(datapath_->vlanIs(kVlan, ports({"access1"}, {"tunnel1"})).value_or(""),
              HasSubstr("is taken by the filter guard"));
  guards();
  ASSERT_EQ(datapath_->close(), std::nullopt);
  guards();
}

TEST(DatapathNames, OwnDevices) {
  for (const char* name : {"arpsnoop", "arpsnoop-sw", "arpinject", "fabric-sw", "fabin1", "fabin4094-br"})
    EXPECT_TRUE(Datapath::ownsDevice(name)) << name;
  for (const char* name :
       {"", "fabin", "fabin0", "fabin01", "fabin4095", "fabin10-sw", "fabinx", "fabric1", "vlan10"})
    EXPECT_FALSE(Datapath::ownsDevice(name)) << name;
}

}  // namespace
}  // namespace SoftForward
