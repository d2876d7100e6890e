// Trunks, and the VLANs of bridges that filter them, which change at any time.

#include <set>

#include "lab/WholeSwitch.h"

namespace Lab {
namespace {

using testing::IsEmpty;

constexpr Mac kRemote20{0x02, 0, 0, 0, 0, 0x98};

class Trunks : public WholeSwitch {
 protected:
  // Another socket at the far end of a port: with `vlan` the one on a trunk, else for whole frames.
  PacketSocket beside(const std::string& port, std::optional<std::uint16_t> vlan = {}) {
    const Entered entered(outside_);
    PacketSocket socket("far-" + port);
    if (vlan) socket.vlanIs(*vlan);
    return socket;
  }
  // What a host hears first when it asks for the address that is remote on both VLANs; empty: nothing in a
  // while.
  std::string answerTo(PacketSocket& asker, const Mac& mac, const Ip& ip) {
    while (asker.receive(std::chrono::milliseconds(0))) {
    }
    asker.send(arpFrame({1, mac, ip, {}, kRemoteIp}));
    const auto answer = asker.receive(kPatience / 20);
    return answer ? hex(*answer) : std::string();
  }
  template <class Condition>
  static bool eventually(const Condition& condition) {
    const auto deadline = std::chrono::steady_clock::now() + kDaemonPatience;
    while (std::chrono::steady_clock::now() < deadline)
      if (condition()) return true;
    return false;
  }
  void expectAnswer(PacketSocket& asker, const Mac& mac, const Ip& ip, const Mac& owner) {
    const std::string wanted = hex(arpFrame({2, owner, kRemoteIp, mac, ip}, mac));
    EXPECT_TRUE(eventually([&] { return answerTo(asker, mac, ip) == wanted; })) << wanted;
  }
  // With VLAN 20 on the same trunks, and the remote host's address there too.
  void startBoth() {
    vlan20Is();
    run("bridge vlan add vid 20 dev Ethernet2");
    start(
        {{"state", {{kBindings, {{"remoteBinding", {{"20 10.0.10.99", {{"mac", "02:00:00:00:00:98"}}}}}}}}}},
        {10, 20});
  }
};

// The same addresses on two VLANs, whose hosts are on one trunk.
TEST_P(Trunks, HostsOnATrunkAreHostsOfTheirVlans) {
  startBoth();
  expectSuppression();
  PacketSocket on20 = beside("Ethernet2", 20);
  expectAnswer(*host2_, kHost2, kHost2Ip, kRemote);
  expectAnswer(on20, kHost2, kHost2Ip, kRemote20);
  const auto places = [&] {
    std::set<std::string> texts;
    for (const json& binding : switch_.shown({"bindings", "local"}))
      if (binding["ip"] == "10.0.10.12")
        texts.insert(binding["vrf"].get<std::string>() + " " + binding["vlan"].dump());
    return texts;
  };
  const std::set<std::string> both = {vlan10_.vrf + " 10", vlan20_.vrf + " 20"};
  EXPECT_EQ(places(), both);
  switch_.stop();
}

TEST_P(Trunks, APortMayChangeItsPvidUnderTraffic) {
  startBoth();
  for (const bool to20 : {true, false}) {
    const auto burst = [&] {
      for (std::uint8_t i = 0; i < 100; ++i) host1_->send(request({10, 0, 13, i}));
    };
    burst();
    run(std::string("bridge vlan add dev Ethernet1 pvid untagged vid ") + (to20 ? "20" : "10"));
    burst();
    run(std::string("bridge vlan del dev Ethernet1 vid ") + (to20 ? "10" : "20"));
    burst();
    expectAnswer(*host1_, kHost1, kHost1Ip, to20 ? kRemote20 : kRemote);
  }
  quiet();
  expectSuppression();
}

TEST_P(Trunks, APortLeavesAVlanAndComesBack) {
  start();
  expectAnswer(*host2_, kHost2, kHost2Ip, kRemote);
  const char* ports[] = {"Ethernet2", "core10"};
  for (const char* port : ports) run(std::string("bridge vlan del vid 10 dev ") + port);
  EXPECT_TRUE(answerTo(*host2_, kHost2, kHost2Ip).empty());
  const auto floods = [&](PacketSocket& far) {
    const Frame flooded = request({10, 0, 13, ++sentinels_});
    host1_->send(flooded);
    const auto heard = far.receive(kPatience / 20);
    return heard && *heard == flooded;
  };
  EXPECT_FALSE(floods(*far_));
  while (far2_->receive(std::chrono::milliseconds(0))) {
  }
  EXPECT_TRUE(floods(*far2_));
  for (const char* port : ports) run(std::string("bridge vlan add vid 10 dev ") + port);
  expectAnswer(*host2_, kHost2, kHost2Ip, kRemote);
  EXPECT_TRUE(eventually([&] { return floods(*far_); }));
  quiet();
  expectSuppression();
}

class Tags : public Trunks {};

// Also where the bridge does not look at tags.
TEST_P(Tags, FramesOfOtherVlansPassUntouched) {
  if (GetParam().filtering) {
    for (const char* port : {"Ethernet2", "core10"}) run(std::string("bridge vlan add vid 30 dev ") + port);
  }
  start();
  PacketSocket host = beside("Ethernet2");
  PacketSocket far = beside("core10");
  const Frame all[] = {request(kRemoteIp), arpFrame({2, kHost1, kHost1Ip, kHost1, kHost1Ip}),
                       plainFrame(kHost1, kBroadcast, 0x0800, 0x45)};
  const Counters before = switch_.counters();
  for (const Frame& untagged : all) {
    const Frame frame = tagged(untagged, 0xA01E);  // VLAN 30, priority 5
    SCOPED_TRACE(hex(frame));
    for (auto& [from, to] : {std::pair(&host, &far), {&far, &host}}) {
      from->send(frame);
      EXPECT_THAT(hexOf(to->receiveUntil(frame)), IsEmpty());
    }
  }
  EXPECT_EQ(difference(before, switch_.counters()), "");
}

class Stacked : public Trunks {};

// Plain bridges on trunks, bonds and teams.
TEST_P(Stacked, DevicesOnDevicesArePorts) {
  vethIs("Ethernet3", "far-Ethernet3", outside_);
  vethIs("core12", "far-core12", outside_);
  const struct {
    const char* device;
    const char* member;
    const char* made;
  } kAggregates[] = {
      {"bond0", "Ethernet4", "ip link add bond0 type bond mode active-backup miimon 10"},
      {"team0", "Ethernet5", "ip link add team0 type team && teamnl team0 setoption mode roundrobin"},
  };
  for (const auto& aggregate : kAggregates)
    vethIs(aggregate.member, std::string("far-") + aggregate.member, outside_);
  try {
    for (const char* trunk : {"Ethernet3", "core12"}) {
      const std::string device = std::string(trunk) + ".10";
      run(std::string("ip link add link ") + trunk + " up name " + device + " type vlan id 10");
      run("ip link set " + device + " master vlan10");
    }
    for (const auto& [device, member, made] : kAggregates) {
      run(std::string("ip link set ") + member + " down");
      run(made);
      run(std::string("ip link set ") + member + " master " + device);
      run(std::string("ip link set ") + member + " up");
      run(std::string("ip link set ") + device + " up master vlan10");
      awaitOperational(device);
    }
  } catch (const Unsupported& lacking) {
    GTEST_SKIP() << lacking.what();
  }
  start({{"vlans", {{"10", {{"tunnelPorts", {"core10", "core11", "core12.10"}}}}}}});
  PacketSocket trunk = beside("Ethernet3", 10);
  PacketSocket bond = beside("Ethernet4");
  PacketSocket team = beside("Ethernet5");
  PacketSocket far = beside("core12", 10);
  expectAnswer(trunk, kHost1, kHost1Ip, kRemote);
  expectAnswer(bond, kHost2, kHost2Ip, kRemote);
  expectAnswer(team, {0x02, 0, 0, 0, 0, 0x13}, {10, 0, 10, 13}, kRemote);
  for (PacketSocket* const asker : {&trunk, &bond, &team}) {
    const Frame flooded = request({10, 0, 13, ++sentinels_});
    asker->send(flooded);
    EXPECT_THAT(hexOf(far.receiveUntil(flooded)), IsEmpty()) << "what was answered, or twice";
  }
  quiet();  // all ports have heard that
  expectSuppression();
}

INSTANTIATE_TEST_SUITE_P(Layouts, Trunks, testing::Values(kLayouts[3], kLayouts[5]), nameOf);
INSTANTIATE_TEST_SUITE_P(Layouts, Tags, testing::ValuesIn(kLayouts), nameOf);
INSTANTIATE_TEST_SUITE_P(Layouts, Stacked, testing::Values(kLayouts[0]), nameOf);

}  // namespace
}  // namespace Lab
