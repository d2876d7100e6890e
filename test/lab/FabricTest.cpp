// Two leaves of a real fabric, each with a routing daemon (FRR's zebra and bgpd) and the whole switch, with an
// underlay between them and hosts at their ports. Hosts are packet sockets.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/neighbour.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iostream>
#include <optional>

#include "lab/LabKernel.h"
#include "lab/Switch.h"

namespace Lab {
namespace {

using Texts = std::vector<std::string>;

constexpr const char* kBindings = "arpSuppression/remoteBindingConfig/evpn";
constexpr std::uint16_t kPlainType = 0x88B5;  // for local experiments (IEEE 802)
constexpr int kVlans[] = {10, 20};

std::string textOf(const Mac& mac) {
  char text[18];
  std::snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2], mac[3], mac[4],
                mac[5]);
  return text;
}

struct Station {
  Mac mac;
  Ip ip;
  std::string text() const {
    std::string address;
    for (const std::uint8_t byte : ip) address += (address.empty() ? "" : ".") + std::to_string(byte);
    return address;
  }
};

// The VLANs' bridges, each with a port for a host and, as tunnel, a VXLAN device.
class Leaf {
 public:
  explicit Leaf(int number) : number_(number), folder_(switch_.runDirectory() + "-frr") {
    std::filesystem::create_directories(folder_);
  }
  ~Leaf() {
    daemons_.clear();
    std::error_code ignored;
    std::filesystem::remove_all(folder_, ignored);
  }

  // In its namespace, the underlay's device being there.
  void networkIs() {
    const Entered entered(switch_.netNs());
    run("ip link set lo up");
    KernelState::addressIs("underlay", address() + "/30");
    for (const int vlan : kVlans) {
      const std::string number = std::to_string(vlan), bridge = "vlan" + number, tunnel = "vxlan" + number;
      bridgeIs(bridge);
      run("ip link set " + bridge + " address 02:00:00:00:01:0" + std::to_string(number_));
      KernelState::addressIs(bridge, "10.0." + number + "." + std::to_string(number_) + "/24");
      run("ip link add " + tunnel + " type vxlan id " + number + " local " + address() +
          " dstport 4789 nolearning");
      portIs(tunnel, bridge);
      run("ip link set " + tunnel + " up");
      run("bridge link set dev " + tunnel + " learning off");
      config_["vlans"][number] = {{"tunnelPorts", {tunnel}}};
    }
  }
  // Starts, or starts again, and kills.
  void routingIs(const std::string& program) {
    std::ofstream(folder_ + "/" + program + ".conf") << (program == "zebra" ? "" : bgp());
    const Entered entered(switch_.netNs());
    daemons_[program] = std::make_unique<Process>(Strings{
        FRR_RUN, program, "-u", "root", "-g", "root", "-i", folder_ + "/" + program + ".pid", "-z",
        folder_ + "/zserv.api", "--vty_socket", folder_, "-f", folder_ + "/" + program + ".conf", "-P", "0"});
    if (program != "zebra") return;
    const auto deadline = std::chrono::steady_clock::now() + kDaemonPatience;
    while (!std::filesystem::exists(folder_ + "/zserv.api") && std::chrono::steady_clock::now() < deadline)
      if (!daemons_[program]->read(std::chrono::milliseconds(20))) break;
  }
  void routingDel(const std::string& program) {
    daemons_.at(program)->signal(SIGKILL);
    daemons_.at(program)->wait();
    if (program == "zebra") std::filesystem::remove(folder_ + "/zserv.api");
  }
  void start() { switch_.start(config_); }
  void serves() {
    const json vlans = {{"activeVlans", kVlans}};
    ASSERT_EQ(switch_.status(vlans), vlans) << switch_.daemon().error;
    for (const int vlan : kVlans) {
      const std::string ready = "/vlan/" + std::to_string(vlan) + "/ready";
      ASSERT_EQ(switch_.state("switch/forwarding", ready.c_str(), true), json(true));
    }
  }
  Switch& itself() { return switch_; }
  PacketSocket tunnel(int vlan) {
    const Entered entered(switch_.netNs());
    return PacketSocket("vxlan" + std::to_string(vlan));
  }
  PacketSocket port(int vlan, const std::string& name, const Namespace& outside) {
    const Entered entered(switch_.netNs());
    vethIs(name, "far-" + name + std::to_string(number_), outside);
    portIs(name, "vlan" + std::to_string(vlan));
    const Entered there(outside);
    return PacketSocket("far-" + name + std::to_string(number_));
  }
  // Waits until the leaf knows just this of a remote host; null: nothing.
  void expectRemote(int vlan, const Station& station, bool known = true) {
    const std::string at = "/remoteBinding/" + std::to_string(vlan) + " " + station.text() + "/mac";
    const json wanted = known ? json(textOf(station.mac)) : json();
    EXPECT_EQ(switch_.state(kBindings, at.c_str(), wanted), wanted) << "leaf " << number_ << ", " << at;
  }
  // For a failed test.
  std::string all() {
    const Entered entered(switch_.netNs());
    std::string text = run("ip neigh") + run("bridge fdb show br vlan10") +
                       switch_.arpsup({"health"}).output + switch_.arpsup({"bindings", "local"}).output +
                       switch_.arpsup({"counters", "--nonzero"}).output;
    for (const auto& [name, process] : daemons_) {
      process->read(std::chrono::milliseconds(0));
      text += name + ": " + process->output + process->error;
    }
    return text;
  }
  bool knows(int vlan, const Station& station) const {
    return switch_.shown({"show", kBindings})["remoteBinding"].contains(std::to_string(vlan) + " " +
                                                                        station.text());
  }

 private:
  std::string address() const { return "192.0.2." + std::to_string(number_); }
  std::string bgp() const {
    const std::string peer = " neighbor 192.0.2." + std::to_string(3 - number_) + " ";
    return "router bgp 65000\n bgp router-id " + address() + "\n no bgp default ipv4-unicast\n" + peer +
           "remote-as 65000\n" + peer + "timers 1 3\n" + peer + "timers connect 1\n" + peer +
           "advertisement-interval 0\n address-family l2vpn evpn\n " + peer +
           "activate\n  advertise-all-vni\n exit-address-family\n";
  }

  const int number_;
  Switch switch_;
  const std::string folder_;
  json config_ = {{"agents", {"KernelState", "KernelEvpn", "ArpService", "SoftForward", "ArpSuppression"}},
                  {"evpn", {{"feed", "kernel"}}},
                  {"neighborRefreshSeconds", 86400}};
  std::map<std::string, std::unique_ptr<Process>> daemons_;
};

class Fabric : public testing::Test {
 protected:
  static constexpr Station kHost1{{0x02, 0, 0, 0, 1, 0x11}, {10, 0, 10, 11}};  // on leaf 1
  static constexpr Station kHost2{{0x02, 0, 0, 0, 1, 0x12}, {10, 0, 10, 12}};  // on leaf 2
  static constexpr Station kOther1{{0x02, 0, 0, 0, 2, 0x11}, {10, 0, 20, 11}};
  static constexpr Station kOther2{{0x02, 0, 0, 0, 2, 0x12}, {10, 0, 20, 12}};

  void SetUp() override {
    Process there({FRR_RUN, "zebra", "--version"});
    if (there.wait() != 0) GTEST_SKIP() << there.error;
    pinToOneCpu();
    {
      const Entered entered(one.itself().netNs());
      vethIs("underlay", "underlay", two.itself().netNs());
    }
    for (Leaf* leaf : {&one, &two}) {
      leaf->networkIs();
      leaf->routingIs("zebra");
      leaf->routingIs("bgpd");
      leaf->start();
    }
    for (Leaf* leaf : {&one, &two}) leaf->serves();
    host1.emplace(one.port(10, "Ethernet1", outside));
    host2.emplace(two.port(10, "Ethernet1", outside));
    other1.emplace(one.port(20, "Ethernet2", outside));
    other2.emplace(two.port(20, "Ethernet2", outside));
    far.emplace(two.tunnel(10));
  }

  void TearDown() override {
    if (HasFailure()) std::cerr << "leaf 1:\n" << one.all() << "leaf 2:\n" << two.all();
  }

  static Frame request(const Station& from, const Station& to) {
    return arpFrame({1, from.mac, from.ip, {}, to.ip});
  }
  static Frame gratuitous(const Station& station) {
    return arpFrame({1, station.mac, station.ip, {}, station.ip});
  }
  static Frame reply(const Station& from, const Station& to) {
    return arpFrame({2, from.mac, from.ip, to.mac, to.ip}, to.mac);
  }
  static bool arrives(PacketSocket& from, const Station& sender, PacketSocket& to, const Station& receiver) {
    static std::uint8_t fill = 0;
    const Frame frame = plainFrame(sender.mac, receiver.mac, kPlainType, ++fill);
    from.send(frame);
    return to.receiveUntil(frame).has_value();
  }
  // What host 1 gets, and what comes to leaf 2's end of the tunnel, when it sends the frame.
  struct Heard {
    Texts host, far;
    bool operator==(const Heard&) const = default;
  };
  friend void PrintTo(const Heard& heard, std::ostream* out) {
    *out << "host: " << testing::PrintToString(heard.host)
         << ", tunnel: " << testing::PrintToString(heard.far);
  }
  Heard heard(const Frame& frame) {
    host1->send(frame);
    Heard heard;
    const auto arp = [](const std::optional<std::vector<Frame>>& frames, Texts& texts) {
      for (const Frame& each : frames.value_or(std::vector<Frame>{}))
        if (each[12] == std::byte{8} && each[13] == std::byte{6}) texts.push_back(hex(each));
    };
    // Behind all that follows from it: a round trip through the agent and through the tunnel.
    sentinel = sentinel < 250 ? static_cast<std::uint8_t>(sentinel + 1) : std::uint8_t{100};
    const Station nobody{{}, {10, 0, 10, sentinel}};
    const Frame last = request(kHost1, nobody);
    host1->send(last);
    arp(far->receiveUntil(last), heard.far);
    const Frame echo = plainFrame(kHost2.mac, kBroadcast, kPlainType, sentinel);
    host2->send(echo);
    arp(host1->receiveUntil(echo), heard.host);
    std::erase(heard.far, hex(echo));
    return heard;
  }
  void expectHeard(const Frame& frame, const Heard& wanted) {
    const auto deadline = std::chrono::steady_clock::now() + kDaemonPatience;
    Heard last;
    do last = heard(frame);
    while (!(last == wanted) && std::chrono::steady_clock::now() < deadline);
    EXPECT_EQ(last, wanted);
  }
  const Heard kAnswered{{hex(reply(kHost2, kHost1))}, {}};
  const Heard kFlooded{{}, {hex(request(kHost1, kHost2))}};

  // One that only asks, and one that only says that it is there.
  void hostsAreKnown() {
    untilKnown(two, 10, kHost1, [&] { host1->send(request(kHost1, kHost2)); });
    untilKnown(one, 10, kHost2, [&] { host2->send(gratuitous(kHost2)); });
  }
  // Again and again at first, since forwarding follows the agent's status a moment later.
  static void untilKnown(Leaf& leaf, int vlan, const Station& station, const std::function<void()>& says) {
    const auto deadline = std::chrono::steady_clock::now() + kDaemonPatience;
    do says();
    while (!leaf.knows(vlan, station) && std::chrono::steady_clock::now() < deadline);
    leaf.expectRemote(vlan, station);
  }

  Leaf one{1}, two{2};
  Namespace outside;
  std::optional<PacketSocket> host1, host2, other1, other2, far;
  std::uint8_t sentinel = 100;  // of addresses that nobody has
};

// What a routing daemon would write, written by hand: so many neighbours at once.
TEST(KernelFeed, FollowsAThousandRoutesThatComeAndGo) {
  constexpr int kRoutes = 1000;
  Namespace outside;
  Leaf leaf(1);
  const Entered entered(leaf.itself().netNs());
  vethIs("underlay", "underlay", outside);
  leaf.networkIs();
  leaf.start();
  leaf.serves();
  Process monitor({"/bin/sh", "-c", "exec ip monitor neigh"});
  const auto all = [&](const std::string& verb, const std::string& rest) {
    const std::string file = leaf.itself().runDirectory() + "/routes";
    std::ofstream out(file);
    for (int i = 0; i < kRoutes; ++i)
      out << "neigh " << verb << " 10.0.10." << 20 + i % 200 << " dev vlan" << 10 + i / 500 * 10 << rest
          << "\n";
    out.close();
    run("ip -batch " + file);
  };
  const std::string route = " lladdr 02:00:00:00:09:09 nud noarp extern_learn proto 11";
  const auto expectBindings = [&](int count) {
    const json wanted = {{"remoteBindings", count}};
    EXPECT_EQ(leaf.itself().status(wanted), wanted);
  };
  all("replace", route);
  expectBindings(400);  // 200 addresses in each of two VLANs
  all("replace", " lladdr 02:00:00:00:09:0a nud noarp extern_learn proto 11");
  run("ip neigh replace 10.0.10.250 dev vlan10 lladdr 02:00:00:00:09:09 nud noarp extern_learn proto 42");
  run("ip neigh flush dev vlan10 nud noarp proto 11");
  expectBindings(200);
  run("ip neigh flush dev vlan20 nud noarp proto 11");
  expectBindings(0);
  // Nothing of this switch's own ever stood there for an address of the feed.
  run("ip neigh replace 10.0.10.251 dev vlan10 lladdr 02:00:00:00:09:09 nud permanent");
  const auto deadline = std::chrono::steady_clock::now() + kDaemonPatience;
  while (monitor.output.find("10.0.10.251") == std::string::npos &&
         std::chrono::steady_clock::now() < deadline && monitor.read(kPatience)) {
  }
  EXPECT_NE(monitor.output.find("Deleted"), std::string::npos);
  EXPECT_EQ(monitor.output.find("proto 110"), std::string::npos);
}

TEST_F(Fabric, AnswersForHostsBehindTheOtherLeaf) {
  hostsAreKnown();
  expectHeard(request(kHost1, kHost2), kAnswered);
  EXPECT_TRUE(arrives(*host1, kHost1, *host2, kHost2));
  EXPECT_TRUE(arrives(*host2, kHost2, *host1, kHost1));
  // The other VLAN is its own.
  untilKnown(two, 20, kOther1, [&] { other1->send(request(kOther1, kOther2)); });
  untilKnown(one, 20, kOther2, [&] { other2->send(gratuitous(kOther2)); });
  EXPECT_TRUE(arrives(*other1, kOther1, *other2, kOther2));
}

TEST_F(Fabric, FollowsAHostThatMoves) {
  hostsAreKnown();
  PacketSocket here = one.port(10, "Ethernet3", outside);
  for (int round = 0; round < 5; ++round) {
    SCOPED_TRACE(round);
    untilKnown(two, 10, kHost2, [&] { here.send(gratuitous(kHost2)); });
    one.expectRemote(10, kHost2, false);
    untilKnown(one, 10, kHost2, [&] { host2->send(gratuitous(kHost2)); });
    two.expectRemote(10, kHost2, false);
  }
  expectHeard(request(kHost1, kHost2), kAnswered);
}

TEST_F(Fabric, FloodsForThoseThatTheRoutingDaemonNoLongerKnows) {
  hostsAreKnown();
  expectHeard(request(kHost1, kHost2), kAnswered);
  two.routingDel("bgpd");
  one.expectRemote(10, kHost2, false);
  two.routingIs("bgpd");
  one.expectRemote(10, kHost2);
  expectHeard(request(kHost1, kHost2), kAnswered);
  // What zebra wrote stays while it is away.
  one.routingDel("zebra");
  expectHeard(request(kHost1, kHost2), kAnswered);
}

TEST_F(Fabric, IsServedAgainAfterTheAgentWasKilled) {
  hostsAreKnown();
  expectHeard(request(kHost1, kHost2), kAnswered);
  one.itself().kill();
  expectHeard(request(kHost1, kHost2), kFlooded);
  one.start();
  one.serves();
  expectHeard(request(kHost1, kHost2), kAnswered);
}

}  // namespace
}  // namespace Lab
