#pragma once

// A switch in one namespace, its hosts and remote switches in another, and the agent's part played by packet
// sockets.

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/pkt_cls.h>
#include <linux/pkt_sched.h>
#include <linux/rtnetlink.h>
#include <poll.h>

#include <optional>

#include "SoftForward/Datapath.h"
#include "SoftForward/Shared.h"
#include "lab/Lab.h"

namespace SoftForward {

inline constexpr std::uint16_t kVlan = 10;
inline constexpr Lab::Mac kHost1{0x02, 0, 0, 0, 0, 0x11};
inline constexpr Lab::Mac kHost2{0x02, 0, 0, 0, 0, 0x12};
inline constexpr Lab::Mac kRemote{0x02, 0, 0, 0, 0, 0x21};
inline constexpr Lab::Ip kIp1{10, 0, 0, 1};
inline constexpr Lab::Ip kIp2{10, 0, 0, 2};
inline constexpr Lab::Ip kRemoteIp{10, 0, 0, 3};
inline constexpr std::uint16_t kSentinelType = 0x88B5;  // for local experiments (IEEE 802)

using Frames = std::vector<Lab::Frame>;

using Lab::trapped;

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
  void openDatapath(bool trusted = true) {
    datapath_.reset();
    programs_.emplace();
    datapath_.emplace(*programs_, [this](std::uint16_t vlan, const Standing& standing) {
      standings_[vlan] = standing;
      ++looks_[vlan];
      ++looked_;
    });
    ASSERT_TRUE(datapath_->open());
    if (trusted) programs_->trustedUntilIs(~std::uint64_t{0});
  }

  void start() {
    openDatapath();
    datapath_->vlanIs(kVlan, kWanted);
    datapath_->activeVlanIs(kVlan, true);
    awaitReady();
    snoop_.emplace("arpsnoop", 0x8135);
  }

  // Does what there is to do now, one VLAN at a time.
  void settle() {
    for (int before = looked_; datapath_->step(); before = looked_) EXPECT_LE(looked_ - before, 1);
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

  static void qdiscDel(const char* device) {
    tcmsg header{};
    header.tcm_ifindex = static_cast<int>(Lab::ifIndex(device));
    header.tcm_handle = TC_H_MAKE(TC_H_CLSACT, 0);
    header.tcm_parent = TC_H_CLSACT;
    change(std::move(Netlink::Message(RTM_DELQDISC).header(header)));
  }
  // Something that is taken away.
  struct Breakage {
    const char* what;
    std::function<void()> breaks;
  };

  inline static const VlanWanted kWanted{"vlan10", {"tunnel1", "tunnel2"}};

  Lab::Namespace switch_;
  Lab::Namespace outside_;
  Lab::Entered entered_{switch_};
  std::unique_ptr<Lab::PacketSocket> host1_, host2_, remote1_, remote2_;
  std::optional<Lab::PacketSocket> snoop_;
  std::map<std::uint16_t, Standing> standings_;
  std::map<std::uint16_t, int> looks_;
  int looked_ = 0;
  std::optional<Programs> programs_;
  std::optional<Datapath> datapath_;
  std::uint8_t sentinels_ = 0;
};

}  // namespace SoftForward
