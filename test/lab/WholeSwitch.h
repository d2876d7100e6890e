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

class WholeSwitch : public testing::Test {
 protected:
  static constexpr std::uint16_t kSentinelType = 0x88B5;  // for local experiments (IEEE 802)
  static constexpr Mac kHost1{0x02, 0, 0, 0, 0, 0x11};
  static constexpr Mac kHost2{0x02, 0, 0, 0, 0, 0x12};
  static constexpr Mac kRemote{0x02, 0, 0, 0, 0, 0x99};
  static constexpr Ip kHost1Ip{10, 0, 10, 11};
  static constexpr Ip kHost2Ip{10, 0, 10, 12};
  static constexpr Ip kGatewayIp{10, 0, 10, 1};
  static constexpr Ip kRemoteIp{10, 0, 10, 99};

  static constexpr const char* kDevices[] = {"arpsnoop", "arpinject", "fabric", "fabin10"};

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

  WholeSwitch() {
    pinToOneCpu();  // the daemon too: frames arrive in the order of sending
    bridgeIs("vlan10");
    KernelState::addressIs("vlan10", "10.0.10.1/24");
    for (const char* port : {"Ethernet1", "Ethernet2", "core10", "core11"}) {
      vethIs(port, std::string("far-") + port, outside_);
      portIs(port, "vlan10");
    }
    const Entered entered(outside_);
    host1_.emplace("far-Ethernet1");
    host2_.emplace("far-Ethernet2");
    far_.emplace("far-core10");
    far2_.emplace("far-core11");
  }

  static constexpr const char* kBindings = "arpSuppression/remoteBindingConfig/evpn";

  // `more` is merged into the configuration, which then serves these VLANs.
  void start(const json& more = json::object(), const std::vector<int>& vlans = {10}) {
    json config = {{"agents", {"KernelState", "SoftForward", "ArpSuppression"}},
                   {"vlans", {{"10", {{"bridge", "vlan10"}, {"tunnelPorts", {"core10", "core11"}}}}}},
                   {"state",
                    {{"evpn/status", {{"mplsConfigured", true}, {"vlanToDot1q", {{"10", 10}}}}},
                     {kBindings, {{"remoteBinding", {{"10 10.0.10.99", {{"mac", "02:00:00:00:00:99"}}}}}}}}}};
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

  // Makes VLAN 20, which is the VRF red's and behind a bridge of another name, with the address 10.0.20.1 and
  // a tunnel to "far-core20". The result is what start() has to be told of it; one remote binding is with it.
  json vlan20Is(const Namespace& red) {
    bridgeIs("br20");
    vethIs("to-vlan20", "vlan20", red);
    portIs("to-vlan20", "br20");
    vethIs("core20", "far-core20", outside_);
    portIs("core20", "br20");
    const Mac own = macOf("vlan10");
    const Entered entered(red);
    ifinfomsg link{};
    link.ifi_index = static_cast<int>(ifIndex("vlan20"));
    KernelState::request(std::move(
        Netlink::Message(RTM_SETLINK).header(link).bytes(IFLA_ADDRESS, std::as_bytes(std::span(own)))));
    KernelState::addressIs("vlan20", "10.0.20.1/24");
    return {{"vrfs", {{"red", {{"id", 5}, {"networkNamespace", red.name()}}}}},
            {"vlans", {{"20", {{"bridge", "br20"}, {"tunnelPorts", {"core20"}}}}}},
            {"state",
             {{"evpn/status", {{"vlanToDot1q", {{"20", 20}}}}},
              {kBindings, {{"remoteBinding", {{"20 10.0.20.99", {{"mac", "02:00:00:00:00:98"}}}}}}}}}};
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
    if (!seen.host2.empty() && seen.host2.back() == hex(flooded)) seen.host2.pop_back();
    far_->receiveUntil(first);
    far2_->receiveUntil(first);
    return seen;
  }

  void expectSuppression() {
    host1_->send(request(kRemoteIp));
    Seen seen = quiet();
    EXPECT_THAT(seen.host1, testing::ElementsAre(hex(reply(kRemote, kRemoteIp))));
    EXPECT_THAT(seen.host2, testing::ElementsAre(hex(request(kRemoteIp)))) << "local hosts hear it";
    EXPECT_THAT(seen.far, testing::IsEmpty());

    host1_->send(request({10, 0, 10, 200}));
    seen = quiet();
    EXPECT_THAT(seen.host1, testing::IsEmpty());
    EXPECT_THAT(seen.far, testing::ElementsAre(hex(request({10, 0, 10, 200}))));
  }

  Namespace outside_;
  Switch switch_;
  Entered entered_{switch_.netNs()};
  std::optional<PacketSocket> host1_, host2_, far_, far2_;  // far: the ends of two tunnels
  std::uint8_t sentinels_ = 0;
};

}  // namespace Lab
