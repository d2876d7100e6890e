#pragma once

// A switch on which the agent is alone: whoever runs the test is its kernel and its data plane. The devices
// "arpsnoop", "arpinject" and "fabric" are real, and packet sockets sit at their other ends; all other inputs
// are set by hand. VLAN 10 (Vlan10, 10.0.0.1/24) is in the VRF red, with the hosts' ports Ethernet1 and
// Ethernet2, and VLAN 20 (Vlan20) is there for EVPN to serve or not.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>

#include "lab/Switch.h"

namespace Lab {

inline constexpr Mac kHost{0x02, 0, 0, 0, 0, 0x0a};  // asks, on Ethernet1
inline constexpr Ip kHostIp{10, 0, 0, 10};
inline constexpr Mac kRemote{0x02, 0, 0, 0, 0, 0x63};
inline constexpr Ip kRemoteIp{10, 0, 0, 99};
inline constexpr std::uint32_t kEthernet1 = 1030;

inline Frame trapped(const Frame& frame, std::uint32_t vlan = 10) { return trapped(frame, vlan, kEthernet1); }

inline Frame requestFor(const Ip& target) { return arpFrame({1, kHost, kHostIp, {}, target}); }

class AgentSwitch : public testing::Test {
 protected:
  AgentSwitch() {
    for (const char* device : {"arpsnoop", "arpinject", "fabric"})
      vethIs(device, std::string("far-") + device, outside_);
    const Entered entered(outside_);
    snoop_.emplace("far-arpsnoop");
    inject_.emplace("far-arpinject");
    fabric_.emplace("far-fabric");
  }

  // What others than the agent publish, by path. Remote bindings are not part of it.
  json inputs() const {
    json interfaces;
    for (const char* device : {"arpsnoop", "arpinject", "fabric"})
      interfaces[device] = {{"ifIndex", ifIndex(device)}};
    interfaces["Ethernet1"] = {{"ifIndex", kEthernet1}};
    interfaces["Ethernet2"] = {{"ifIndex", kEthernet1 + 1}};
    const json none = json::object();
    return {{"kni/ns/default/status", {{"interface", interfaces}}},
            {"kni/ns/" + red_.name() + "/status",
             {{"interface", {{"vlan10", {{"ifIndex", 7}}}, {"vlan20", {{"ifIndex", 8}}}}}}},
            {"interface/status/all", {{"intfStatus", {{"Ethernet1", none}, {"Ethernet2", none}}}}},
            {"ip/vrf/status/local",
             {{"vrf", {{"red", {{"state", "active"}, {"networkNamespace", red_.name()}}}}}}},
            {"vrf/vrfIdMapStatus", {{"vrfIdToName", {{"5", "red"}}}}},
            {"ip/status",
             {{"ipIntfStatus",
               {{"Vlan10", {{"vrfName", "red"}, {"activeAddr", "10.0.0.1/24"}}},
                {"Vlan20", {{"vrfName", "red"}}}}}}},
            {"bridging/config", {{"bridgeMacAddr", "02:00:00:00:be:ef"}}},
            {"bridging/status",
             {{"fdb", {{"10 02:00:00:00:00:64", {{"entryType", "learnedDynamic"}, {"intf", "Ethernet2"}}}}}}},
            {"arp/status", {{"arpEntry", {{"5 10.0.0.98 Vlan10", {{"mac", "02:00:00:00:00:62"}}}}}}},
            {"evpn/status", evpn({10})}};
  }
  static json evpn(const std::vector<int>& vlans, bool mplsConfigured = true) {
    json content = {{"mplsConfigured", mplsConfigured}, {"vlanToDot1q", json::object()}};
    for (const int vlan : vlans) content["vlanToDot1q"][std::to_string(vlan)] = vlan;
    return content;
  }
  // The inputs and the binding of kRemote as the configuration of a daemon.
  json config() const {
    json state = inputs();
    state["arpSuppression/remoteBindingConfig/evpn"] = {
        {"remoteBinding", {{"10 10.0.0.99", {{"mac", "02:00:00:00:00:63"}}}}}};
    return {{"agents", {"ArpSuppression"}}, {"state", state}};
  }

  static json runningOn(const std::vector<int>& vlans) {
    return {{"runnable", true}, {"activeVlans", vlans}, {"trapSocket", "open"}, {"reinjectSocket", "open"}};
  }
  static json notRunning() {
    return {{"runnable", false},
            {"activeVlans", json::array()},
            {"trapSocket", "closed"},
            {"reinjectSocket", "closed"}};
  }

  // The answer to kHost's request, as it goes to "fabric".
  static Frame replyOf(const Mac& mac, const Ip& ip) {
    return tagged(arpFrame({2, mac, ip, kHost, kHostIp}, kHost), 10);
  }
  void expectAnswered() {
    snoop_->send(trapped(requestFor(kRemoteIp)));
    const auto reply = fabric_->receive(kDaemonPatience);
    ASSERT_TRUE(reply.has_value());
    EXPECT_EQ(hex(*reply), hex(replyOf(kRemote, kRemoteIp)));
  }

  Switch switch_;
  Namespace outside_;
  Namespace red_{"red"};
  Entered entered_{switch_.netNs()};
  std::optional<PacketSocket> snoop_, inject_, fabric_;
};

}  // namespace Lab
