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

// The kernel drops what was below a VRF device that goes into the default VRF: nothing works there until it
// is placed anew, or the configuration says where it belongs.
TEST_F(KernelFollow, VrfDevicesComeAndGo) {
  try {
    run("ip link add red up type vrf table 5");
  } catch (const Unsupported& lacking) {
    GTEST_SKIP() << lacking.what();
  }
  KernelState::renameLink("br10", "vlan10");
  KernelState::addressIs("vlan10", "10.0.0.1/24");
  for (const bool configured : {false, true}) {
    SCOPED_TRACE(configured);
    run("ip link set vlan10 master red");
    json vlan = {{"bridge", "vlan10"}};
    if (configured) vlan["vrf"] = "red";
    switch_.start({{"agents", {"KernelState", "ArpService", "SoftForward", "ArpSuppression"}},
                   {"vrfs", {{"red", {{"id", 5}, {"device", "red"}}}}},
                   {"vlans", {{"10", vlan}}},
                   {"state",
                    {{"evpn/status", {{"mplsConfigured", true}, {"vlanToDot1q", {{"10", 10}}}}},
                     {"arpSuppression/remoteBindingConfig/evpn",
                      {{"remoteBinding", {{"10 10.0.0.99", {{"mac", "02:00:00:00:00:99"}}}}}}}}}});
    const auto expectNeighbour = [&](bool there) {
      const json wanted = there ? json("02:00:00:00:00:99") : json();
      EXPECT_EQ(switch_.state("arp/status", "/arpEntry/5 10.0.0.99 Vlan10/mac", wanted), wanted);
    };
    expectRed("active");
    expectVlan10("/vrfName", "red");
    expectNeighbour(true);
    run("ip link del red");
    expectRed("inactive");
    expectVlan10("", nullptr);
    expectNeighbour(false);
    run("ip link add red up type vrf table 5");
    expectRed("active");
    run("ip link set vlan10 master red");
    expectVlan10("/vrfName", "red");
    expectVlan10("/activeAddr", "10.0.0.1/24");
    expectVlans({10});
    expectNeighbour(true);
    run("ip link set vlan10 nomaster");
    expectVlan10("/vrfName", configured ? json() : json("default"));
    expectNeighbour(false);
    switch_.stop();
  }
}

}  // namespace
}  // namespace Lab
