#pragma once

// The whole switch: the daemon with all that makes a Linux machine one, hosts at its ports, and the far end
// of the overlay behind tunnel ports. Hosts and the far end are packet sockets.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/rtnetlink.h>

#include <optional>

#include "lab/LabKernel.h"
#include "lab/Switch.h"

namespace Lab {

using Texts = std::vector<std::string>;

// The ways in which people build a switch. Where the interface of a VLAN is:
enum class Placed { inDefaultVrf, inNamespace, belowVrfDevice };
struct Layout {
  const char* name;
  bool filtering;  // one bridge for all VLANs, and trunks among its ports; else a bridge for each
  Placed vlan10, vlan20;
};
inline constexpr Layout kLayouts[] = {
    {"bridges", false, Placed::inDefaultVrf, Placed::inNamespace},
    {"namespaces", false, Placed::inNamespace, Placed::inNamespace},
    {"vrfDevices", false, Placed::belowVrfDevice, Placed::belowVrfDevice},
    {"vlanAware", true, Placed::inDefaultVrf, Placed::belowVrfDevice},
    {"vlanAwareNamespaces", true, Placed::inNamespace, Placed::belowVrfDevice},
    {"vlanAwareVrfDevices", true, Placed::belowVrfDevice, Placed::belowVrfDevice},
};
inline void PrintTo(const Layout& layout, std::ostream* out) { *out << layout.name; }
inline std::string nameOf(const testing::TestParamInfo<Layout>& layout) { return layout.param.name; }

class WholeSwitch : public testing::TestWithParam<Layout> {
 public:
  // A VLAN of the switch, and its interface.
  struct Vlan {
    std::uint16_t id;
    std::string bridge;
    std::string device;      // the interface: "vlan10"
    const Namespace* where;  // that it is in
    std::string vrf;
    int vrfId;
  };

 protected:
  static constexpr std::uint16_t kSentinelType = 0x88B5;  // for local experiments (IEEE 802)
  static constexpr Mac kHost1{0x02, 0, 0, 0, 0, 0x11};
  static constexpr Mac kHost2{0x02, 0, 0, 0, 0, 0x12};
  static constexpr Mac kRemote{0x02, 0, 0, 0, 0, 0x99};
  static constexpr Ip kHost1Ip{10, 0, 10, 11};
  static constexpr Ip kHost2Ip{10, 0, 10, 12};
  static constexpr Ip kGatewayIp{10, 0, 10, 1};
  static constexpr Ip kRemoteIp{10, 0, 10, 99};

  static Frame request(const Ip& target) { return arpFrame({1, kHost1, kHost1Ip, {}, target}); }
  static Frame reply(const Mac& mac, const Ip& ip) {
    return arpFrame({2, mac, ip, kHost1, kHost1Ip}, kHost1);
  }

  static Texts hexOf(const std::optional<std::vector<Frame>>& frames) {
    if (!frames) return {"the sentinel did not come"};
    Texts texts;
    for (const Frame& frame : *frames) texts.push_back(hex(frame));
    return texts;
  }

  void SetUp() override;  // VLAN 10 with all its ports; skips where the kernel lacks what the layout needs

  static constexpr const char* kBindings = "arpSuppression/remoteBindingConfig/evpn";

  // `more` is merged into the configuration, which then serves these VLANs.
  void start(const json& more = json::object(), const std::vector<int>& vlans = {10}) {
    json config = config_;
    config.merge_patch(more);
    switch_.start(config);
    const json running = {{"runnable", true},
                          {"activeVlans", vlans},
                          {"remoteBindings", config["state"][kBindings]["remoteBinding"].size()},
                          {"trapSocket", "open"},
                          {"reinjectSocket", "open"}};
    ASSERT_EQ(switch_.status(running), running);
    for (const int vlan : vlans) {
      const std::string ready = "/vlan/" + std::to_string(vlan) + "/ready";
      ASSERT_EQ(switch_.state("switch/forwarding", ready.c_str(), true), json(true));
    }
    awaitFirstTrap();
  }

  // Makes VLAN 20 with the address 10.0.20.1, another VRF than VLAN 10's, a tunnel to "far-core20" and one
  // remote binding.
  void vlan20Is();
  // A port of the VLAN, and who is at its other end. Tagged: on a trunk, where the layout has any.
  enum class Tags { never, onTrunks };
  PacketSocket portOf(const Vlan& vlan, const std::string& port, Tags tags = Tags::never);
  // What it has got for itself.
  static Mac macOf(const Vlan& vlan) {
    const Entered entered(*vlan.where);
    return Lab::macOf(vlan.device);
  }
  // The devices that SoftForward makes.
  Texts devices() const {
    return {"arpsnoop", "arpinject", "fabric",
            GetParam().filtering ? "fabin-" + std::to_string(ifIndex("br0")) : "fabin10"};
  }

  // The forwarding follows the agent's status a moment later. From then on a flooded request comes to the far
  // end as the agent sent it, and not from the bridge.
  void awaitFirstTrap() {
    const auto deadline = std::chrono::steady_clock::now() + kDaemonPatience;
    while (!switch_.counters().contains("trappedRequest")) {
      ASSERT_LT(std::chrono::steady_clock::now(), deadline) << "nothing is trapped";
      host1_->send(request({10, 0, 10, 250}));
    }
    quiet();
  }

  // What came to the far ends and to the hosts until now; nothing is on its way afterwards.
  struct Seen {
    Texts far, far2, host1, host2;
  };
  // A request for nobody goes by way of the agent to the far ends, behind everything that the agent does for
  // earlier ones; then a broadcast of each host comes to the other one, behind everything that was sent to
  // it.
  Seen quiet() {
    Seen seen;
    const Frame flooded = request({10, 0, 11, ++sentinels_});
    host1_->send(flooded);
    seen.far = hexOf(far_->receiveUntil(flooded));
    seen.far2 = hexOf(far2_->receiveUntil(flooded));
    const Frame second = plainFrame(kHost2, kBroadcast, kSentinelType, sentinels_);
    const Frame first = plainFrame(kHost1, kBroadcast, kSentinelType, sentinels_);
    host2_->send(second);
    seen.host1 = hexOf(host1_->receiveUntil(second));
    host1_->send(first);
    seen.host2 = hexOf(host2_->receiveUntil(first));
    std::erase(seen.host2, hex(flooded));
    far_->receiveUntil(first);
    far2_->receiveUntil(first);
    return seen;
  }

  bool suppresses() {
    const Frame unknown = request({10, 0, 10, 200});
    host1_->send(request(kRemoteIp));
    const Seen answered = quiet();
    host1_->send(unknown);
    const Seen flooded = quiet();
    return answered.host1 == Texts{hex(reply(kRemote, kRemoteIp))} && answered.far.empty() &&
           flooded.host1.empty() && flooded.far == Texts{hex(unknown)};
  }

  void expectSuppression() {
    host1_->send(request(kRemoteIp));
    Seen seen = quiet();
    EXPECT_THAT(seen.host1, testing::ElementsAre(hex(reply(kRemote, kRemoteIp))));
    // Local hosts hear what the agent is shown, but not what the kernel answers again at the port.
    EXPECT_THAT(seen.host2,
                testing::AnyOf(testing::IsEmpty(), testing::ElementsAre(hex(request(kRemoteIp)))));
    EXPECT_THAT(seen.far, testing::IsEmpty());

    host1_->send(request({10, 0, 10, 200}));
    seen = quiet();
    EXPECT_THAT(seen.host1, testing::IsEmpty());
    EXPECT_THAT(seen.far, testing::ElementsAre(hex(request({10, 0, 10, 200}))));
  }

  Namespace outside_;
  Switch switch_;
  Entered entered_{switch_.netNs()};
  Vlan vlan10_, vlan20_;
  json config_ = {{"agents", {"KernelState", "SoftForward", "ArpSuppression"}},
                  {"state", {{"evpn/status", {{"mplsConfigured", true}}}}}};
  std::optional<PacketSocket> host1_, host2_, far_, far2_, far20_;  // far: the ends of tunnels
  std::uint8_t sentinels_ = 0;
  std::map<std::string, Namespace> vrfs_;  // those that are namespaces

 private:
  // Makes the VLAN and its interface with an address, and remembers the configuration of both, with a remote
  // binding of the host 99 there.
  Vlan vlanIs(std::uint16_t id, Placed placed, const std::string& vrf, int vrfId, const Strings& tunnelPorts);
};

}  // namespace Lab
