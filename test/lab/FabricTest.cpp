// Hosts behind two leaves: who is answered, who is advertised, hosts that move and hosts that are silent.

#include <linux/neighbour.h>

#include <iostream>

#include "lab/Fabric.h"

namespace Lab {
namespace {

class Hosts : public FabricTest {};

TEST_P(Hosts, AreAnsweredForByTheOtherLeaf) {
  constexpr Station kOther1{{0x02, 0, 0, 0, 2, 0x11}, {10, 0, 20, 11}},
      kOther2{{0x02, 0, 0, 0, 2, 0x12}, {10, 0, 20, 12}};
  hostsAreKnown();
  EXPECT_TRUE(eventually([&] { return gets(*here, kHost2) == "answered"; })) << gets(*here, kHost2);
  EXPECT_TRUE(eventually([&] { return gets(*there, kHost1) == "answered"; })) << gets(*there, kHost1);
  EXPECT_TRUE(arrives(here->host, kHost1, there->host, kHost2));
  EXPECT_TRUE(arrives(there->host, kHost2, here->host, kHost1));
  // The other VLAN is its own.
  PacketSocket other1 = one.port(20, "Ethernet3", outside), other2 = two.port(20, "Ethernet3", outside);
  untilKnown(
      two, kOther1, [&] { other1.send(request(kOther1, kOther2)); }, 20);
  untilKnown(
      one, kOther2, [&] { other2.send(gratuitous(kOther2)); }, 20);
  EXPECT_TRUE(arrives(other1, kOther1, other2, kOther2));
  EXPECT_EQ(one.bindings("remote"), Strings{textOf(kHost2.ip) + " " + textOf(kHost2.mac)});
}

// Each time it says its address once, and again only when nothing came of that.
TEST_P(Hosts, AreFollowedWhenTheyMove) {
  hostsAreKnown();
  std::vector<double> seconds;
  const auto moves = [&](Leaf& to, Leaf& from, PacketSocket& host) {
    const auto start = Clock::now();
    auto says = start;
    EXPECT_TRUE(eventually([&] {
      if (Clock::now() >= says) {
        host.send(gratuitous(kHost2));
        says += kPatience / 5;
      }
      return from.knows(kHost2) && !to.knows(kHost2);
    }));
    seconds.push_back(secondsSince(start));
  };
  for (int round = 0; round < 10; ++round) {
    SCOPED_TRACE(round);
    moves(one, two, here->spare);
    moves(two, one, there->host);
  }
  std::ranges::sort(seconds);
  std::cout << "20 moves, until both leaves agree: median " << milliseconds(seconds[seconds.size() / 2])
            << ", longest " << milliseconds(seconds.back()) << "\n";
  EXPECT_TRUE(eventually([&] { return gets(*here, kHost2) == "answered"; }));
  EXPECT_TRUE(arrives(here->host, kHost1, there->host, kHost2));

  // One of its addresses stays behind, where nobody answers for it: nobody is told that it moved too.
  constexpr Station kSecond{kHost2.mac, {10, 0, 10, 22}};
  untilKnown(one, kSecond, [&] { there->host.send(gratuitous(kSecond)); });
  one.neighbourSettingIs("vlan10", "retrans_time_ms", 100);
  Monitor monitor(one), farMonitor(two);
  const auto heard = [&](Monitor& by, const std::function<bool(const Netlink::Neighbour&)>& isSo) {
    return std::ranges::any_of(by.heard(), [&](const auto& word) {
      return !word.first && word.second.address.toStrep() == textOf(kSecond.ip) && isSo(word.second);
    });
  };
  moves(one, two, here->spare);
  EXPECT_TRUE(eventually([&] {
    return heard(monitor, [](const Netlink::Neighbour& word) {
      return word.state == NUD_FAILED && word.protocol == 110;
    });
  }));
  EXPECT_TRUE(eventually([&] { return one.bindings("local").size() == 2; }))
      << testing::PrintToString(one.bindings("local"));
  EXPECT_FALSE(heard(
      monitor, [](const Netlink::Neighbour& word) { return word.isResolved() && word.protocol == 110; }));
  EXPECT_FALSE(heard(farMonitor, [](const Netlink::Neighbour& word) { return word.isForeign(); }));
}

// Seconds instead of the kernel's minute, more neighbours than it keeps without dropping idle ones, and two
// hosts that nobody talks to: when it drops the one that nobody asks either, it has looked at the other too.
TEST_P(Hosts, AreKeptWhenTheyAreIdle) {
  const int stale = 2 + patienceFactor();
  constexpr int kTimes = 10;  // so often, ten minutes with the kernel's own setting
  constexpr Station kIdle{{0x02, 0, 0, 0, 2, 0x13}, {10, 0, 20, 13}};
  const std::string witness = "10.9.0.1";
  Namespace host;
  const std::string device = one.portIs(20, "Ethernet3", host);
  std::vector<Netlink::Message> crowd;
  {
    const Entered entered(one.where());
    bridgeIs("crowd");
    for (std::uint32_t i = 0; i < 4096; ++i)
      crowd.push_back(KernelState::neighbourMessage("crowd", Lanix::IpAddr(0x0a0a0000U + i).toStrep(),
                                                    "02:00:00:00:09:01", NUD_PERMANENT));
    EXPECT_EQ(KernelState::requestAll(crowd), crowd.size());
  }
  one.neighbourSettingIs("crowd", "gc_stale_time", stale);
  Monitor monitor(one);
  one.run("ip neigh add " + witness + " dev crowd lladdr 02:00:00:00:09:02 nud stale");
  for (const auto& [name, value] :
       {std::pair("base_reachable_time_ms", 500), {"delay_first_probe_time", 0}, {"gc_stale_time", stale}})
    one.neighbourSettingIs("vlan20", name, value);
  one.itself().stop();  // settings are read now and then
  one.start();
  one.serves();
  const Entered entered(host);
  run("ip link set " + device + " address " + textOf(kIdle.mac));
  KernelState::addressIs(device, textOf(kIdle.ip) + "/24");
  PacketSocket socket(device);
  untilKnown(
      two, kIdle, [&] { socket.send(gratuitous(kIdle)); }, 20);
  Monitor farMonitor(two);
  const auto goes = [](Monitor& by, const std::string& ip) {
    return std::ranges::any_of(
        by.heard(), [&](const auto& word) { return word.first && word.second.address.toStrep() == ip; });
  };
  const auto start = Clock::now();
  EXPECT_TRUE(eventually([&] { return goes(monitor, witness) && secondsSince(start) > stale * kTimes; }));
  EXPECT_FALSE(goes(farMonitor, textOf(kIdle.ip)));
  EXPECT_TRUE(two.knows(kIdle, 20));
}

INSTANTIATE_TEST_SUITE_P(Layouts, Hosts, testing::ValuesIn(kFabricLayouts), nameOf);

}  // namespace
}  // namespace Lab
