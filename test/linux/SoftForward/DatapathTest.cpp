// A switch in one namespace, its hosts and remote switches in another, and the agent's part played by packet
// sockets.

#include "SoftForward/Datapath.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/if_bridge.h>
#include <linux/pkt_cls.h>
#include <linux/pkt_sched.h>
#include <linux/rtnetlink.h>
#include <poll.h>

#include <optional>

#include "SoftForward/Shared.h"
#include "lab/Lab.h"

namespace SoftForward {
namespace {

using testing::HasSubstr;

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

  // As after a start of the process.
  void openDatapath() {
    datapath_.emplace([this](std::uint16_t vlan, const Standing& standing) {
      standings_[vlan] = standing;
      ++looks_[vlan];
    });
    ASSERT_TRUE(datapath_->open());
  }

  void start() {
    openDatapath();
    datapath_->vlanIs(kVlan, kWanted);
    datapath_->activeVlanIs(kVlan, true);
    awaitReady();
    snoop_.emplace("arpsnoop", 0x8135);
  }

  // Does what there is to do now.
  void settle() {
    while (datapath_->step()) {
    }
  }

  // Until the VLAN is ready, or is not and that will not pass.
  void await(bool ready, std::uint16_t vlan = kVlan) {
    const auto deadline = std::chrono::steady_clock::now() + Lab::kPatience;
    const auto is = [&] {
      settle();
      return ready ? standings_[vlan].ready : !standings_[vlan].reason.empty() && !standings_[vlan].passing;
    };
    while (!is()) {
      ASSERT_TRUE(std::chrono::steady_clock::now() < deadline)
          << vlan << ": " << standings_[vlan].reason << "; " << standings_[Datapath::kShared].reason;
      pollfd wait{datapath_->descriptor(), POLLIN, 0};
      poll(&wait, 1, 100);
    }
  }
  void awaitReady(std::uint16_t vlan = kVlan) { await(true, vlan); }

  std::string complaints(std::uint16_t vlan = kVlan) {
    std::string text;
    for (const Complaint& complaint : standings_[vlan].complaints)
      text += complaint.subject + ": " + complaint.problem + "\n";
    return text;
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

  // What host 1 asks goes to the agent and to local hosts only; or to everybody and not to the agent.
  void expectTrapping(bool traps) {
    const auto before = datapath_->statistics().trapped;
    const Lab::Frame frame = request(kHost1, kIp1);
    host1_->send(frame);
    const Frames remote = traps ? Frames() : Frames{frame};
    expect(*host1_, {{host2_.get(), {frame}}, {remote1_.get(), remote}, {remote2_.get(), remote}});
    EXPECT_EQ(datapath_->statistics().trapped - before, traps ? 1U : 0U);
  }

  static void change(Netlink::Message message) {
    Netlink::Socket socket(NETLINK_ROUTE);
    const auto result = socket.request(std::move(message));
    ASSERT_TRUE(result) << result.error();
  }

  // Whether it has a filter of ours there.
  static bool isHooked(const std::string& device, Direction direction) {
    Netlink::Socket socket(NETLINK_ROUTE);
    bool found = false;
    tcmsg header{};
    header.tcm_ifindex = static_cast<int>(Lab::ifIndex(device));
    header.tcm_parent =
        TC_H_MAKE(TC_H_CLSACT, direction == Direction::ingress ? TC_H_MIN_INGRESS : TC_H_MIN_EGRESS);
    // Refused where there is no qdisc to have any.
    const auto refused = socket.dump(
        std::move(Netlink::Message(RTM_GETTFILTER).header(header)),
        [&](const Netlink::Received& message) {
          const auto filter = message.header<tcmsg>();
          found = found || (filter && filter->tcm_handle == Filters::kHandle);
        },
        [&] { found = false; });
    return found && refused;
  }

  static tcmsg ourPlace(const char* device, std::uint32_t direction) {
    tcmsg header{};
    header.tcm_ifindex = static_cast<int>(Lab::ifIndex(device));
    header.tcm_handle = Filters::kHandle;
    header.tcm_parent = TC_H_MAKE(TC_H_CLSACT, direction);
    header.tcm_info = TC_H_MAKE(std::uint32_t{Filters::kPriority} << 16, htons(0x0003));  // ETH_P_ALL
    return header;
  }

  inline static const VlanWanted kWanted{"vlan10", {"tunnel1", "tunnel2"}};

  Lab::Namespace switch_;
  Lab::Namespace outside_;
  Lab::Entered entered_{switch_};
  std::unique_ptr<Lab::PacketSocket> host1_, host2_, remote1_, remote2_;
  std::optional<Lab::PacketSocket> snoop_;
  std::map<std::uint16_t, Standing> standings_;
  std::map<std::uint16_t, int> looks_;
  std::optional<Datapath> datapath_;
  std::uint8_t sentinels_ = 0;
};

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
  datapath_->activeVlanIs(kVlan, false);
  settle();
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
  Lab::bridgeIs("vlan20");
  datapath_->vlanIs(20, {"vlan20", {}});
  datapath_->activeVlanIs(20, true);
  awaitReady(20);
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
  EXPECT_EQ(Lab::ifIndex("fabin20"), 0U);
  EXPECT_FALSE(isHooked("access1", Direction::ingress));
  host1_->send(frame);
  remote1_->send(frame);
  expectTrapped(frame, "tunnel1");  // and none from access1 before it
}

TEST_F(DatapathTest, WhatIsTakenAwayIsMadeAgain) {
  start();
  const auto filterDel = [](const char* device, std::uint32_t direction) {
    change(std::move(
        Netlink::Message(RTM_DELTFILTER).header(ourPlace(device, direction)).string(TCA_KIND, "bpf")));
  };
  const auto qdiscDel = [](const char* device) {
    tcmsg header{};
    header.tcm_ifindex = static_cast<int>(Lab::ifIndex(device));
    header.tcm_handle = TC_H_MAKE(TC_H_CLSACT, 0);
    header.tcm_parent = TC_H_CLSACT;
    change(std::move(Netlink::Message(RTM_DELQDISC).header(header)));
  };
  struct Case {
    const char* what;
    std::function<void()> breaks;
  };
  const Case kCases[] = {
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
  for (const Case& test : kCases) {
    SCOPED_TRACE(test.what);
    test.breaks();
    settle();
    awaitReady();
    for (const char* device : {"arpsnoop", "fabric", "arpinject"}) Lab::awaitOperational(device);
    expectTrapping(true);
  }
}

TEST_F(DatapathTest, TrapsOnlyWhileTheWayBackStands) {
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

TEST_F(DatapathTest, SaysWhatIsWrongWithTheConfiguration) {
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
  EXPECT_EQ(complaints(),
            "VLAN 10, tunnel port tunel2: there is no such device; the bridge's ports access1, access2 count "
            "as access ports\n");
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
TEST_F(DatapathTest, AtRestItWritesNothing) {
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
}

TEST_F(DatapathTest, TakesOverWhatWasLeft) {
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

TEST_F(DatapathTest, LeavesWhatIsOthersAlone) {
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
  for (const char* name : {"arpsnoop", "arpsnoop-sw", "arpinject", "fabric-sw"})
    EXPECT_EQ(ownerOf(name), Datapath::kShared) << name;
  EXPECT_EQ(ownerOf("fabin1"), 1);
  EXPECT_EQ(ownerOf("fabin4094-br"), 4094);
  for (const char* name :
       {"", "fabin", "fabin0", "fabin01", "fabin4095", "fabin10-sw", "fabinx", "fabric1", "vlan10"})
    EXPECT_EQ(ownerOf(name), std::nullopt) << name;
}

}  // namespace
}  // namespace SoftForward
