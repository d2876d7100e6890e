// A leaf whose only peer says what a test has it say: its bindings are those that its routing daemon chose.

#include <arpa/inet.h>
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <fstream>
#include <iostream>
#include <sstream>

#include "Netlink/Route.h"
#include "Netlink/Socket.h"
#include "lab/Fabric.h"

namespace Lab {
namespace {

// Of a station, as another leaf advertises it (RFC 7432, MAC/IP advertisement).
struct Route {
  int leaf;  // 192.0.2.3
  int station;
  std::string ip;              // "": the station alone
  std::int64_t sequence = -1;  // of its moves; -1: none is said; kGone: it is withdrawn
  bool isSticky = false;
};
constexpr std::int64_t kGone = -2;

std::string macOf(int station) {
  return textOf(
      Mac{0x02, 0, 0, std::uint8_t(station >> 16), std::uint8_t(station >> 8), std::uint8_t(station)});
}

// Numbers, each in so many bytes.
std::string bytes(std::initializer_list<std::pair<std::uint64_t, int>> numbers) {
  std::string text;
  for (auto [value, count] : numbers)
    while (count-- > 0) text += static_cast<char>(value >> 8 * count);
  return text;
}
// With its length before it, in so many bytes.
std::string sized(const std::string& text, int count) { return bytes({{text.size(), count}}) + text; }

// A BGP speaker at 192.0.2.2 with routes of the leaves behind it, as a route reflector has them. It has no
// hold time, so that neither side has to say that it is still there, and does not read what it is told.
class Peer {
 public:
  explicit Peer(const Namespace& where) {
    const Entered entered(where);
    listening_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    sockaddr_in own{};
    own.sin_family = AF_INET;
    own.sin_port = htons(179);
    if (bind(listening_, reinterpret_cast<const sockaddr*>(&own), sizeof own) != 0 ||
        listen(listening_, 1) != 0)
      throw std::runtime_error("lab: no BGP listener");
  }
  ~Peer() {
    close(session_);
    close(listening_);
  }
  void await() {
    pollfd entry{listening_, POLLIN, 0};
    poll(&entry, 1, static_cast<int>(std::chrono::milliseconds(kDaemonPatience).count()));
    session_ = accept4(listening_, nullptr, nullptr, SOCK_CLOEXEC);
    ASSERT_GE(session_, 0);
    const std::string capabilities = bytes({{0x0104, 2}, {kEvpn, 4}, {0x4104, 2}, {kAs, 4}});
    says(1, bytes({{4, 1}, {kAs, 2}, {0, 2}, {kUnderlay + 2, 4}}) +
                sized(bytes({{2, 1}}) + sized(capabilities, 1), 1));
    says(4, "");
  }
  void says(const Route& route) {
    const bool is6 = route.ip.find(':') != std::string::npos;
    std::string ip(route.ip.empty() ? 0 : is6 ? 16 : 4, 0);
    inet_pton(is6 ? AF_INET6 : AF_INET, route.ip.c_str(), ip.data());
    const auto leaf = kUnderlay + static_cast<std::uint64_t>(route.leaf);
    const auto station = 0x0200'0000'0000 + static_cast<std::uint64_t>(route.station);
    // Who distinguishes it, no Ethernet segment and no tag, the addresses and the VNI.
    const std::string named =
        bytes({{2, 1}}) + sized(bytes({{1, 2}, {leaf, 4}, {kVni, 2}, {0, 8}, {0, 6}, {48, 1}, {station, 6}}) +
                                    bytes({{8 * ip.size(), 1}}) + ip + bytes({{kVni, 3}}),
                                1);
    const std::string family = bytes({{kEvpn >> 16, 2}, {kEvpn & 0xFF, 1}});
    if (route.sequence == kGone) return update(bytes({{0x900F, 2}}) + sized(family + named, 2));
    // The target, VXLAN, and how often the station moved.
    std::string communities = bytes({{2, 2}, {kAs, 2}, {kVni, 4}, {0x030C, 2}, {8, 6}});
    if (route.sequence >= 0)
      communities +=
          bytes({{0x0600, 2}, {route.isSticky ? 1 : 0, 1}, {static_cast<std::uint64_t>(route.sequence), 5}});
    // Origin, path (none: of this very AS), local preference.
    update(bytes({{0x4001'0100, 4}, {0x4002'00, 3}, {0x4005'0400'0000'64, 7}, {0x900E, 2}}) +
           sized(family + bytes({{4, 1}, {leaf, 4}, {0, 1}}) + named, 2) + bytes({{0xC010, 2}}) +
           sized(communities, 1));
  }

 private:
  static constexpr std::uint64_t kAs = 65000, kVni = 10, kUnderlay = 0xC000'0200, kEvpn = 0x0019'0046;

  void update(const std::string& attributes) { says(2, bytes({{0, 2}}) + sized(attributes, 2)); }
  void says(std::uint64_t type, const std::string& body) {
    const std::string message = std::string(16, '\xFF') + bytes({{19 + body.size(), 2}, {type, 1}}) + body;
    if (send(session_, message.data(), message.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(message.size()))
      throw std::runtime_error("lab: the leaf has closed the BGP session");
  }

  int listening_ = -1, session_ = -1;
};

class Feed : public testing::TestWithParam<FabricLayout> {
 protected:
  void SetUp() override {
    if (const std::string lacking = Leaf::lacking(); !lacking.empty()) GTEST_SKIP() << lacking;
    pinToOneCpu();
    {
      const Entered entered(leaf.where());
      vethIs("underlay", "underlay", beyond);
    }
    {
      const Entered entered(beyond);
      KernelState::addressIs("underlay", "192.0.2.2/29");
    }
    try {
      leaf.networkIs();
    } catch (const Unsupported& lacking) {
      GTEST_SKIP() << lacking.what();
    }
    leaf.routingIs("zebra");
    leaf.routingIs("bgpd");
    leaf.start();
    leaf.serves();
    peer.await();
  }
  void TearDown() override {
    if (HasFailure()) std::cerr << leaf.all();
  }

  // The leaf has taken up what the station says, which is no sooner than its port is trapped.
  void untilTrapped(PacketSocket& port, const Station& station) {
    const auto trapped = [&] { return leaf.itself().counters()["trappedRequest"]; };
    const auto before = trapped();
    EXPECT_TRUE(eventually([&] {
      port.send(gratuitous(station));
      return trapped() > before;
    }));
  }
  // By sockets of the leaf's namespace.
  long lostNotifications() const {
    const Entered entered(leaf.where());
    std::ifstream sockets("/proc/thread-self/net/netlink");
    std::string line, word;
    long lost = 0;
    std::getline(sockets, line);
    while (std::getline(sockets, line)) {
      std::istringstream words(line);
      for (int column = 0; column < 9 && words >> word; ++column) {
      }
      lost += std::stol(word);
    }
    return lost;
  }

  Namespace beyond;
  Leaf leaf{1, GetParam()};
  Peer peer{beyond};
};

TEST_P(Feed, IsWhatTheRoutingDaemonChose) {
  const auto has = [](int host, int station) {
    return "10.0.10." + std::to_string(host) + " " + macOf(station);
  };
  const Station local{{0x02, 0, 0, 0, 0, 6}, {10, 0, 10, 36}};
  PacketSocket port = leaf.port(10, "Ethernet1", beyond);
  const std::string linkLocal = "fe80::3 " + macOf(3);
  const struct Row {
    const char* what;
    std::vector<Route> said;
    Strings bindings;
    int station = 0, behind = 0;  // which leaf it is behind, as the kernel has it
    std::optional<Station> here = {};
    Strings local = {};
  } rows[] = {
      {"one leaf", {{3, 1, "10.0.10.31"}}, {has(31, 1)}, 1, 3},
      {"another one has the same", {{4, 1, "10.0.10.31"}}, {has(31, 1)}, 1, 3},
      {"and another station with the address", {{4, 2, "10.0.10.31"}}, {has(31, 2)}, 2, 4},
      {"which goes", {{4, 2, "10.0.10.31", kGone}}, {}},
      {"a station without an address", {{3, 3, ""}}, {}, 3, 3},
      {"an address of the link", {{3, 3, "fe80::3"}}, {linkLocal}, 3, 3},
      {"which goes, but the station does not", {{3, 3, "fe80::3", kGone}}, {}, 3, 3},
      {"a host that moved", {{3, 4, "10.0.10.34"}, {4, 4, "10.0.10.34", 5}}, {has(34, 4)}, 4, 4},
      {"its old leaf with a lower number", {{3, 4, "10.0.10.34", 3}}, {has(34, 4)}, 4, 4},
      {"a higher one", {{3, 4, "10.0.10.34", 6}}, {has(34, 4)}, 4, 3},
      {"it goes", {{4, 4, "10.0.10.34", kGone}, {3, 4, "10.0.10.34", kGone}}, {}},
      {"one that does not move", {{3, 5, "10.0.10.35", 0, true}}, {has(35, 5)}, 5, 3},
      {"whom another leaf claims", {{4, 5, "10.0.10.35", 9}}, {has(35, 5)}, 5, 3},
      {"a host of this leaf", {}, {has(35, 5)}, 0, 0, local, {has(36, 6)}},
      {"moves away", {{3, 6, "10.0.10.36", 1}}, {has(35, 5), has(36, 6)}, 6, 3},
      {"and comes back", {}, {has(35, 5)}, 0, 0, local, {has(36, 6)}},
  };
  int number = 200;
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    for (const Route& route : row.said) peer.says(route);
    if (row.here) untilTrapped(port, *row.here);
    // Behind all that the routing daemon makes of these.
    const Route last{5, 0xFF, "10.0.10." + std::to_string(number)};
    peer.says(last);
    Strings wanted = row.bindings;
    wanted.push_back(has(number++, 0xFF));
    std::ranges::sort(wanted);
    EXPECT_TRUE(eventually([&] {
      return leaf.bindings("remote") == wanted && leaf.bindings("local") == row.local &&
             (row.behind == 0 || leaf.run("bridge fdb show dev vxlan10")
                                         .find(macOf(row.station) + " dst 192.0.2." +
                                               std::to_string(row.behind)) != std::string::npos);
    })) << testing::PrintToString(leaf.bindings("remote"))
        << testing::PrintToString(leaf.bindings("local")) << leaf.run("bridge fdb show dev vxlan10");
    EXPECT_EQ(leaf.routes(), leaf.bindings("remote"));
    peer.says({last.leaf, last.station, last.ip, kGone});
  }
}

// Nothing of this switch's own ever stands there for an address of the feed.
TEST_P(Feed, HasItsNeighboursForItself) {
  constexpr int kHosts = 1000;
  Monitor monitor(leaf);
  const auto all = [&](int by, std::int64_t sequence) {
    for (int i = 0; i < kHosts; ++i)
      peer.says({by, 0x1000 + i + (by << 16),
                 "10.1." + std::to_string(i / 250) + "." + std::to_string(i % 250 + 1), sequence});
  };
  const auto expectBindings = [&](int count) {
    const json wanted = {{"remoteBindings", count}};
    EXPECT_EQ(leaf.itself().status(wanted), wanted);
  };
  all(3, 0);
  expectBindings(kHosts);
  all(4, 0);
  all(3, kGone);
  all(4, kGone);
  expectBindings(0);
  all(3, 0);
  expectBindings(kHosts);
  // They go while the agent does not listen, and more is said than waits for it.
  for (const char* program : {"bgpd", "zebra"}) leaf.routingDel(program);
  leaf.itself().daemon().signal(SIGSTOP);
  {
    const Entered entered(leaf.where());
    bridgeIs("noise");
    std::vector<Netlink::Message> noise;
    for (std::uint32_t i = 0; i < 30000; ++i)
      noise.push_back(KernelState::neighbourMessage("noise", Lanix::IpAddr(0x0a090001U + i).toStrep(),
                                                    "02:00:00:00:09:01", NUD_PERMANENT));
    EXPECT_EQ(KernelState::requestAll(noise), 30000U);
  }
  leaf.run("ip neigh flush dev vlan10 nud noarp proto zebra");
  EXPECT_GT(lostNotifications(), 0);
  leaf.itself().daemon().signal(SIGCONT);
  expectBindings(0);
  int gone = 0, ours = 0;
  for (const auto& [isGone, neighbour] : monitor.heard()) {
    if (!neighbour.address.toStrep().starts_with("10.1.")) continue;
    if (isGone) ++gone;
    if (neighbour.protocol == 110) ++ours;
  }
  EXPECT_EQ(gone, 2 * kHosts);
  EXPECT_EQ(ours, 0);
}

INSTANTIATE_TEST_SUITE_P(Layouts, Feed, testing::ValuesIn(kFabricLayouts), nameOf);

}  // namespace
}  // namespace Lab
