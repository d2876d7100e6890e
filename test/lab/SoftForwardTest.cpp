// The data plane of the whole switch.

#include <arpa/inet.h>
#include <linux/pkt_sched.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "Netlink/Socket.h"
#include "lab/WholeSwitch.h"

namespace Lab {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

// How many tc filters the device has.
int filtersOf(const std::string& device) {
  int filters = 0;
  Netlink::Socket socket(NETLINK_ROUTE);
  for (const std::uint32_t direction : {TC_H_MIN_INGRESS, TC_H_MIN_EGRESS}) {
    tcmsg header{};
    header.tcm_ifindex = static_cast<int>(ifIndex(device));
    header.tcm_parent = TC_H_MAKE(TC_H_CLSACT, direction);
    int found = 0;
    // Refused where there is no qdisc to have any.
    const auto dumped = socket.dump(
        Netlink::Message(RTM_GETTFILTER).header(header),
        [&](const Netlink::Received& message) {
          const auto filter = message.header<tcmsg>();
          found += filter && filter->tcm_handle != 0 ? 1 : 0;
        },
        [&] { found = 0; });
    if (dumped) filters += found;
  }
  return filters;
}

TEST_P(WholeSwitch, KeepsRequestsOffTheOverlay) {
  start();
  expectSuppression();

  host1_->send(request(kGatewayIp));
  Seen seen = quiet();
  EXPECT_THAT(seen.host1, ElementsAre(hex(reply(macOf(vlan10_), kGatewayIp))));
  EXPECT_THAT(seen.far, IsEmpty());

  // The switch has seen host 2 and so knows that it is here; it answers for itself.
  EXPECT_EQ(switch_.state("bridging/status", "/fdb/10 02:00:00:00:00:12/intf", "Ethernet2"), "Ethernet2");
  const Result added = switch_.arpsup({"remote", "add", "10", "10.0.10.12", "02:00:00:00:00:12"});
  EXPECT_EQ(added.status, 0) << added.error;
  host1_->send(request(kHost2Ip));
  const auto heard = host2_->receive();
  ASSERT_TRUE(heard.has_value());
  EXPECT_EQ(hex(*heard), hex(request(kHost2Ip)));
  host2_->send(reply(kHost2, kHost2Ip));
  seen = quiet();
  EXPECT_THAT(seen.host1, ElementsAre(hex(reply(kHost2, kHost2Ip))));
  EXPECT_THAT(seen.far, IsEmpty());

  const Frame gratuitous = arpFrame({2, kHost1, kHost1Ip, kHost1, kHost1Ip});
  const Frame announcement = arpFrame({1, kHost1, kHost1Ip, {}, kHost1Ip});
  const Frame probe = arpFrame({1, kHost1, {}, {}, kRemoteIp});
  for (const Frame& frame : {gratuitous, announcement, probe}) {
    SCOPED_TRACE(hex(frame));
    host1_->send(frame);
    seen = quiet();
    EXPECT_THAT(seen.far, ElementsAre(hex(frame)));
    EXPECT_THAT(seen.host2, ElementsAre(hex(frame)));
    EXPECT_THAT(seen.host1, IsEmpty());
  }

  // What comes from the overlay is neither answered nor sent back.
  const Frame fromFar = arpFrame({1, kRemote, kRemoteIp, {}, {10, 0, 10, 200}});
  far_->send(fromFar);
  seen = quiet();
  EXPECT_THAT(seen.host1, ElementsAre(hex(fromFar)));
  EXPECT_THAT(seen.far, IsEmpty());
}

TEST_P(WholeSwitch, WhatNobodyKnowsReachesEveryEndpointOnceAndTheAnswerComesBack) {
  start();
  Texts asked;
  for (std::uint8_t i = 1; i <= 40; ++i) {
    const Frame frame = request({10, 0, 12, i});
    host1_->send(frame);
    asked.push_back(hex(frame));
  }
  // Also what is not a question.
  for (const auto operation : std::to_array<std::uint16_t>({1, 2})) {
    const Frame frame = arpFrame({operation, kHost1, kHost1Ip, kHost1, kHost1Ip});
    host1_->send(frame);
    asked.push_back(hex(frame));
  }
  Seen seen = quiet();
  EXPECT_EQ(seen.far, asked);
  EXPECT_EQ(seen.far2, asked);
  EXPECT_EQ(seen.host2, asked);
  EXPECT_THAT(seen.host1, IsEmpty()) << "its own question came back";

  const Mac owner{0x02, 0, 0, 0, 0, 0x77};
  const Frame answer = reply(owner, {10, 0, 12, 7});
  far2_->send(answer);
  seen = quiet();
  EXPECT_THAT(seen.host1, ElementsAre(hex(answer)));
  EXPECT_THAT(seen.host2, IsEmpty());
  EXPECT_THAT(seen.far, IsEmpty());
  EXPECT_THAT(seen.far2, IsEmpty());
}

// A bridge delivers to itself, and to its port that leads to the interface, only what it is told to.
TEST_P(WholeSwitch, RepliesToTheSharedMacAreTheSwitchsOwn) {
  constexpr Mac kShared{0, 0, 0x5e, 0, 1, 1};
  const bool hasPort = vlan10_.where != &switch_.netNs() && !GetParam().filtering;
  const auto taken = [&] {
    return run("bridge fdb show br " + vlan10_.bridge)
               .find("00:00:5e:00:01:01 dev " + (hasPort ? "to-vlan10" : vlan10_.bridge)) !=
           std::string::npos;
  };
  start({{"state", {{"routing/fhrp/vrMacStatus", {{"vgwVirtualMac", "00:00:5e:00:01:01"}}}}}});
  const Frame answer = arpFrame({2, kHost1, kHost1Ip, kShared, kGatewayIp}, kShared);
  const auto deadline = std::chrono::steady_clock::now() + kDaemonPatience;
  while (switch_.counters()["vgwReplyAccepted"] == 0 && std::chrono::steady_clock::now() < deadline)
    host1_->send(answer);
  EXPECT_EQ(switch_.status({{"localBindings", 1}}), json({{"localBindings", 1}}));
  EXPECT_TRUE(taken());
  const auto accepted = switch_.counters()["vgwReplyAccepted"];
  host1_->send(answer);
  while (switch_.counters()["vgwReplyAccepted"] == accepted && std::chrono::steady_clock::now() < deadline) {
  }
  EXPECT_GT(switch_.counters()["vgwReplyAccepted"], accepted) << "when the bridge knows it";
  if (hasPort) {
    run("ip link set to-vlan10 nomaster && ip link set to-vlan10 master " + vlan10_.bridge);
    while (!taken() && std::chrono::steady_clock::now() < deadline) {
    }
    EXPECT_TRUE(taken()) << "again, after its port was out of the bridge";
  }
  switch_.set("routing/fhrp/vrMacStatus", {{"vgwVirtualMac", "00:00:00:00:00:00"}});
  while (taken() && std::chrono::steady_clock::now() < deadline) {
  }
  EXPECT_FALSE(taken());
  switch_.set("routing/fhrp/vrMacStatus", {{"vgwVirtualMac", "00:00:5e:00:01:01"}});
  while (!taken() && std::chrono::steady_clock::now() < deadline) {
  }
  switch_.stop();
  EXPECT_FALSE(taken());
}

// What the switch itself asks for: its own datagrams make it resolve an address.
void datagramTo(const Ip& ip, const WholeSwitch::Vlan& vlan) {
  const Entered entered(*vlan.where);
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_port = htons(9);  // discard
  std::memcpy(&to.sin_addr, ip.data(), ip.size());
  const int descriptor = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  setsockopt(descriptor, SOL_SOCKET, SO_BINDTODEVICE, vlan.device.data(),
             static_cast<socklen_t>(vlan.device.size()));
  EXPECT_EQ(sendto(descriptor, "", 1, 0, reinterpret_cast<const sockaddr*>(&to), sizeof to), 1);
  close(descriptor);
}

TEST_P(WholeSwitch, ItsOwnRequestsToo) {
  vlan20Is();
  json more;
  more["state"]["routing/l2vpn/config"] = {{"selectiveArpInstall", true}};  // only what is asked for
  const Mac own = macOf(vlan10_);
  const Ip remote20{10, 0, 20, 99};
  const Frame asks10 = arpFrame({1, own, kGatewayIp, {}, kRemoteIp});
  const Frame asks20 = arpFrame({1, own, {10, 0, 20, 1}, {}, remote20});
  const auto heard20 = [&] {
    const Frame last = plainFrame(own, kBroadcast, kSentinelType, ++sentinels_);
    const Entered entered(*vlan20_.where);
    PacketSocket("vlan20").send(last);
    return hexOf(far20_->receiveUntil(last));
  };
  for (const bool served : {false, true}) {
    SCOPED_TRACE(served ? "ArpService" : "no ArpService");
    if (served) more["agents"] = {"KernelState", "ArpService", "SoftForward", "ArpSuppression"};
    start(more, {10, 20});
    quiet(), heard20();
    datagramTo(kRemoteIp, vlan10_);
    datagramTo(remote20, vlan20_);
    Seen seen = quiet();
    EXPECT_THAT(seen.host1, Contains(hex(asks10))) << "local hosts hear it";
    EXPECT_EQ(std::ranges::count(seen.far, hex(asks10)) == 0, served);
    EXPECT_EQ(std::ranges::count(heard20(), hex(asks20)) == 0, served);
    const auto raised = switch_.counters()["staticBindingEvent"];  // more when the kernel asks again
    EXPECT_TRUE(served ? raised >= 2 : raised == 0) << raised;

    const Ip& local = served ? kHost2Ip : kHost1Ip;
    const Mac& mac = served ? kHost2 : kHost1;
    datagramTo(local, vlan10_);
    (served ? host2_ : host1_)->send(arpFrame({2, mac, local, own, kGatewayIp}, own));
    const std::string key =
        "/arpEntry/" + std::to_string(vlan10_.vrfId) + " 10.0.10." + std::to_string(local[3]) + " Vlan10/mac";
    const json expected = "02:00:00:00:00:" + std::to_string(served ? 12 : 11);
    EXPECT_EQ(switch_.state("arp/status", key.c_str(), expected), expected) << "found by flooding";
    switch_.stop();
    EXPECT_EQ(filtersOf(vlan10_.bridge), 0);
    for (const Vlan& vlan : {vlan10_, vlan20_}) {
      // What is still being asked for would be heard in the next round.
      const Entered entered(*vlan.where);
      upIs(vlan.device, false);
      upIs(vlan.device);
      awaitOperational(vlan.device);
    }
  }
}

TEST_P(WholeSwitch, IsAPlainSwitchAgainAfterTheDaemon) {
  start();
  EXPECT_GT(filtersOf("Ethernet1"), 0);
  EXPECT_GT(filtersOf("core10"), 0);
  expectSuppression();
  const Texts made = devices();
  switch_.stop();
  for (const std::string& device : made) EXPECT_EQ(ifIndex(device), 0U) << device;
  for (const std::string port : {"Ethernet1", "Ethernet2", "core10", "core11", vlan10_.bridge.c_str()})
    EXPECT_EQ(filtersOf(port), 0) << port;
  host1_->send(request(kRemoteIp));
  const Seen seen = quiet();
  EXPECT_THAT(seen.far, ElementsAre(hex(request(kRemoteIp))));
  EXPECT_THAT(seen.host1, IsEmpty());
}

// Whatever wakes the plug-ins: they write nothing that is so already.
TEST_P(WholeSwitch, CausesNoNotificationAtRest) {
  start();
  quiet();
  Netlink::Socket monitor(NETLINK_ROUTE);
  for (const unsigned group : {RTNLGRP_LINK, RTNLGRP_TC}) ASSERT_TRUE(monitor.join(group));
  std::map<std::string, int> heard;
  const auto listen = [&] {
    const auto batch = monitor.receive(
        [&](const Netlink::Received& message) {
          const auto header = message.header<ifinfomsg>();  // as far as tcmsg is the same
          char name[IF_NAMESIZE] = "";
          if (header) if_indextoname(static_cast<unsigned>(header->ifi_index), name);
          ++heard[name + (message.type() < RTM_NEWQDISC ? std::string() : " tc")];
        },
        10'000);
    EXPECT_FALSE(batch.overrun);
  };
  const json ready = true;
  for (std::uint32_t i = 1; i <= 20; ++i) {
    mtuIs("Ethernet2", 1600 + i);  // a port of the VLAN: its look is due
    EXPECT_EQ(switch_.state("switch/forwarding", "/vlan/10/ready", ready), ready);
    listen();
  }
  quiet();
  listen();
  EXPECT_GE(heard["Ethernet2"], 20);
  heard.erase("Ethernet2");
  // The kernel itself tells once more of what has settled, of a new bridge or, Debian's, of its ports.
  EXPECT_THAT(heard, testing::Each(testing::Pair(testing::_, testing::Le(1))));
}

TEST_P(WholeSwitch, WhatIsRemovedComesBack) {
  start();
  for (const std::string& device : devices()) {
    SCOPED_TRACE(device);
    const std::uint32_t before = ifIndex(device);
    linkDel(device);
    const auto deadline = std::chrono::steady_clock::now() + kDaemonPatience;
    const auto inTime = [&] { return std::chrono::steady_clock::now() < deadline; };
    while (ifIndex(device) == before || ifIndex(device) == 0) ASSERT_TRUE(inTime()) << switch_.daemon().error;
    awaitOperational(device);
    // Trapping pauses and comes back in its own time.
    while (!suppresses()) ASSERT_TRUE(inTime()) << switch_.daemon().error;
  }
  expectSuppression();
}

INSTANTIATE_TEST_SUITE_P(Layouts, WholeSwitch, testing::ValuesIn(kLayouts), nameOf);

}  // namespace
}  // namespace Lab
