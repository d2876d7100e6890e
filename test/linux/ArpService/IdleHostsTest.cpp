#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>

#include <chrono>
#include <fstream>
#include <map>
#include <optional>

#include "Lanix/Namespaces.h"
#include "ServiceRig.h"
#include "lab/LabKernel.h"

namespace ArpService {
namespace {

TEST(IdleHosts, AreAskedBeforeTheKernelDropsThem) {
  const struct {
    const char* what;
    std::uint32_t entries, threshold;
    bool feed;
    double deviceStale;  // 0: none of its own
    double confirmed, used;
    bool asked;
    double period;
    double took = 0;  // the round
  } cases[] = {
      {"few neighbours", 10, 128, false, 0, 200, 200, false, 60},
      {"and after the refresh time", 10, 128, false, 0, 240, 0, true, 60},
      {"many", 128, 128, false, 0, 30, 30, true, 15},
      {"nearly many", 96, 128, false, 0, 30, 30, true, 15},
      {"many, used lately", 128, 128, false, 0, 200, 29, false, 15},
      {"many, seen lately", 128, 128, false, 0, 29, 200, false, 15},
      {"many, and a device with another time", 128, 128, false, 8, 4, 4, true, 2},
      {"a feed may bring many", 10, 128, true, 0, 30, 30, true, 15},
      {"a feed, and a threshold that was raised", 10, 65536, true, 0, 30, 30, false, 60},
      {"a threshold of none", 1, 0, false, 0, 30, 30, true, 15},
      {"a round that is soon done", 10, 128, false, 0, 240, 240, true, 60, 0.6},
      {"one that is not", 1000000, 1U << 22, false, 0, 240, 240, true, 400, 4},
      {"one that is not, where hosts are lost", 1000000, 128, false, 0, 30, 30, true, 15, 4},
  };
  for (const auto& item : cases) {
    SCOPED_TRACE(item.what);
    IdleHosts hosts;
    hosts.hasFeedIs(item.feed);
    hosts.roundBegins();
    hosts.handleTable({true, 0, item.entries, item.threshold, 60});
    if (item.deviceStale != 0) hosts.handleTable({true, 7, 0, 0, item.deviceStale});
    Netlink::Neighbour neighbour;
    neighbour.ifIndex = 7;
    neighbour.address = ServiceRig::ip("10.0.0.1");
    neighbour.state = NUD_STALE;
    neighbour.confirmedAgo = item.confirmed;
    neighbour.usedAgo = item.used;
    hosts.handleNeighbour(neighbour);
    hosts.roundEnds(item.took);
    EXPECT_EQ(hosts.take().size(), item.asked ? 1U : 0U);
    EXPECT_EQ(hosts.period(), item.period);
  }
}

TEST(IdleHosts, AreSpreadAndReported) {
  IdleHosts hosts;
  const auto round = [&](std::uint32_t entries, std::uint32_t idle) {
    hosts.roundBegins();
    hosts.handleTable({true, 0, entries, 128, 60});
    for (std::uint32_t i = 0; i < idle; ++i) {
      Netlink::Neighbour neighbour;
      neighbour.address = Lanix::IpAddr(0x0a000000U + i);
      neighbour.state = NUD_STALE;
      neighbour.confirmedAgo = neighbour.usedAgo = 30 + i % 1000 * 0.02;
      hosts.handleNeighbour(neighbour);
    }
    hosts.roundEnds(0);
  };
  round(1000, 6400);
  EXPECT_NEAR(hosts.delay() * 100, hosts.period(), 0.01) << "a hundred batches until the next round";
  double before = 1e9;
  while (!hosts.empty()) {
    const auto batch = hosts.take();
    EXPECT_EQ(batch.size(), IdleHosts::kAtOnce);
    EXPECT_LE(batch.back().idle, before) << "those first that were idle longest";
    before = batch.front().idle;
  }
  round(1000, 200000);
  EXPECT_GE(hosts.delay(), IdleHosts::kAtOnce / IdleHosts::kMostASecond);

  const auto wanted = [&] { return hosts.advice(true) ? hosts.advice(true)->wanted : 0; };
  EXPECT_EQ(wanted(), 2048U);
  round(500, 1);
  EXPECT_EQ(wanted(), 2048U) << "not less while it lasts";
  round(96, 1);
  EXPECT_EQ(wanted(), 2048U);
  round(95, 1);
  EXPECT_EQ(wanted(), 0U);
  round(200, 1);
  EXPECT_EQ(wanted(), 0U) << "once may be by chance";
  round(200, 0);
  round(200, 0);
  EXPECT_EQ(wanted(), 0U) << "there is no host to lose";
}

// More neighbours than the kernel keeps without dropping idle ones, and seconds instead of a minute. When the
// kernel drops the host that nobody asks, it has looked at the other one too.
TEST(IdleHosts, StayInACrowdedTable) {
  const Lab::Namespace leaf;
  const Lab::Entered entered(leaf);
  Lanix::Namespaces namespaces;  // whose home is where this thread is now
  const Lanix::Replaced<Lanix::Namespaces> replaced(namespaces);
  const Lab::Namespace red("red");
  std::uint32_t threshold = 0;
  Netlink::Socket tables(NETLINK_ROUTE);
  const auto read = tables.dump(
      Netlink::neighbourTableDump(),
      [&](const Netlink::Received& message) {
        const auto table = Netlink::readNeighbourTable(message);
        if (table && table->isIpv4 && table->ifIndex == 0) threshold = table->gcThreshold1;
      },
      [] {});
  ASSERT_TRUE(read) << read.error();
  constexpr std::uint32_t kMost = 4096;
  if (threshold > kMost) GTEST_SKIP() << "gc_thresh1 is " << threshold << ", and the machine's to set";
  Lab::bridgeIs("crowd");
  std::vector<Netlink::Message> crowd;
  for (std::uint32_t i = 0; i < threshold; ++i) {
    crowd.push_back(KernelState::neighbourMessage("crowd", Lanix::IpAddr(0x0a090001U + i).toStrep(),
                                                  "02:00:00:00:09:01", NUD_PERMANENT));
  }
  ASSERT_EQ(KernelState::requestAll(crowd), threshold);

  // A host behind each interface, of which only the first is a VLAN's.
  std::map<std::string, std::uint32_t> interfaces;
  for (const auto& [device, network] : {std::pair("vlan10", "10.0.10."), std::pair("other", "10.0.11.")}) {
    const std::string end = std::string("to-") + device;
    Lab::vethIs(end, device, red);
    KernelState::addressIs(end, std::string(network) + "2/24");
    const Lab::Entered there(red);
    const auto set = [name = std::string(device)](const char* what, int value) {
      std::ofstream("/proc/sys/net/ipv4/neigh/" + name + "/" + what) << value;
    };
    set("gc_stale_time", 4), set("base_reachable_time_ms", 500), set("delay_first_probe_time", 0);
    KernelState::addressIs(device, std::string(network) + "1/24");
    Lab::run(std::string("ip neigh add ") + network + "2 use dev " + device);
    interfaces[device] = Lab::ifIndex(device);
  }
  std::optional<Netlink::Socket> monitor;
  {
    const Lab::Entered there(red);
    ASSERT_TRUE(monitor.emplace(NETLINK_ROUTE).join(RTNLGRP_NEIGH));
  }
  ServiceRig rig;
  rig.vrfIs("red", red.name());
  rig.start();
  std::map<std::uint32_t, int> gone;
  const auto deadline = std::chrono::steady_clock::now() + 12 * Lab::kPatience;
  while (!gone.contains(interfaces["other"]) && std::chrono::steady_clock::now() < deadline) {
    rig.loop.step(0.1);
    monitor->receive([&](const Netlink::Received& message) {
      const auto neighbour = Netlink::readNeighbour(message);
      if (neighbour && message.type() == RTM_DELNEIGH) ++gone[neighbour->ifIndex];
    });
  }
  EXPECT_TRUE(gone.contains(interfaces["other"])) << "the kernel drops whom nobody asks";
  EXPECT_FALSE(gone.contains(interfaces["vlan10"]));
  EXPECT_GE(rig.status->vrf("red")->probes(), 2U);
  const auto problem = rig.problems->problem("ArpService idle IPv4 hosts");
  ASSERT_TRUE(problem);
  EXPECT_THAT(problem->advice(), testing::StartsWith("sysctl -w net.ipv4.neigh.default.gc_thresh1="));
}

}  // namespace
}  // namespace ArpService
