// The daemon on a kernel whose VRFs and VLAN interfaces come and go.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/rtnetlink.h>

#include <optional>

#include "lab/LabKernel.h"
#include "lab/Switch.h"

namespace Lab {
namespace {

constexpr const char* kVlan10 = "/ipIntfStatus/Vlan10";

class KernelFollow : public testing::Test {
 protected:
  KernelFollow() {
    const Namespace first("red");  // only its name counts here
    redName_ = first.name();
    bridgeIs("br10");
  }

  static json vlans(const std::vector<int>& vlans) { return {{"runnable", true}, {"activeVlans", vlans}}; }
  void expectVlans(const std::vector<int>& ids) { EXPECT_EQ(switch_.status(vlans(ids)), vlans(ids)); }
  void expectVlan10(const char* member, const json& wanted) {
    const std::string at = std::string(kVlan10) + member;
    EXPECT_EQ(switch_.state("ip/status", at.c_str(), wanted), wanted) << at;
  }
  void expectRed(const json& wanted) {
    EXPECT_EQ(switch_.state("ip/vrf/status/local", "/vrf/red/state", wanted), wanted);
  }
  // VLAN 10's interface in a namespace, and the bridge's port that leads to it.
  void vlan10Is(const Namespace& where) {
    vethIs("to-vlan10", "vlan10", where);
    portIs("to-vlan10", "br10");
  }

  Switch switch_;
  Entered entered_{switch_.netNs()};
  std::string redName_;
  std::optional<Namespace> red_;
};

TEST_F(KernelFollow, VrfsAndVlanInterfacesComeAndGo) {
  switch_.start({{"agents", {"KernelState", "SoftForward", "ArpSuppression"}},
                 {"vrfs", {{"red", {{"id", 5}, {"networkNamespace", redName_}}}}},
                 {"vlans", {{"10", {{"bridge", "br10"}}}}},
                 {"state", {{"evpn/status", {{"mplsConfigured", true}, {"vlanToDot1q", {{"10", 10}}}}}}}});
  const json ready = {{"activeVlans", json::array()}, {"trapSocket", "open"}, {"reinjectSocket", "open"}};
  ASSERT_EQ(switch_.status(ready), ready);
  // The first round opens what is kept for good; no further one may leave more than it found.
  std::size_t descriptors = 0;
  for (int round = 0; round < 3; ++round) {
    SCOPED_TRACE(round);
    expectRed("inactive");
    red_.emplace("red");
    expectRed("active");
    expectVlans({});

    // In the default VRF first, then moved.
    vlan10Is(switch_.netNs());
    expectVlan10("/vrfName", "default");
    expectVlans({10});
    ifinfomsg link{};
    link.ifi_index = static_cast<int>(ifIndex("vlan10"));
    KernelState::request(std::move(Netlink::Message(RTM_SETLINK)
                                       .header(link)
                                       .u32(IFLA_NET_NS_FD, static_cast<std::uint32_t>(red_->fd()))));
    expectVlan10("/vrfName", "red");
    expectVlans({10});

    {
      const Entered entered(*red_);
      upIs("vlan10");
      KernelState::addressIs("vlan10", "10.0.0.1/24");
      expectVlan10("/activeAddr", "10.0.0.1/24");
      KernelState::addressIs("vlan10", "10.0.1.1/24");
      expectVlan10("/activeSecondaryAddr", {"10.0.1.1/24"});
      KernelState::addressDel("vlan10", "10.0.0.1/24");
      expectVlan10("/activeAddr", "10.0.1.1/24");
      expectVlan10("/activeSecondaryAddr", json::array());
      linkDel("vlan10");
    }
    expectVlan10("", nullptr);
    expectVlans({});
    vlan10Is(*red_);
    expectVlan10("/vrfName", "red");
    expectVlans({10});

    red_.reset();
    expectRed("inactive");
    expectVlans({});
    expectVlan10("", nullptr);
    EXPECT_TRUE(switch_.running()) << switch_.daemon().error;
    std::size_t now = switch_.descriptors();
    const auto deadline = std::chrono::steady_clock::now() + kDaemonPatience;
    while (round != 0 && now > descriptors && std::chrono::steady_clock::now() < deadline &&
           switch_.daemon().read(kPatience / 100))
      now = switch_.descriptors();
    if (round != 0) {
      EXPECT_LE(now, descriptors);
    }
    // The namespace goes when nothing of the daemon holds it any more, and takes its devices along.
    while (ifIndex("to-vlan10") != 0 && std::chrono::steady_clock::now() < deadline &&
           switch_.daemon().read(kPatience / 100)) {
    }
    ASSERT_EQ(ifIndex("to-vlan10"), 0U);
    descriptors = switch_.descriptors();
  }
  switch_.stop();
}

}  // namespace
}  // namespace Lab
