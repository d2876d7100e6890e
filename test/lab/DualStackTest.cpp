// Hosts with a kernel of their own behind two leaves, by IPv4 and by IPv6: they find each other without a word on
// the overlay, whoever moves, routes or takes an address that somebody has.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <fstream>

#include "lab/Fabric.h"
#include "lab/Nd.h"

namespace Lab {
namespace {

constexpr std::uint16_t kPort = 7777;

// In a namespace of its own, at one leaf at a time. Its addresses are 10.0.10.N and 2001:db8:10::N, in decimal.
class DualHost {
 public:
  explicit DualHost(std::uint8_t number) : mac{0x02, 0, 0, 0, 3, number}, number_(std::to_string(number)) {}

  // Behind a new port of the leaf.
  void isAt(Leaf& leaf, const std::string& port) {
    const std::string device = leaf.portIs(10, port, where);
    const Entered entered(where);
    if (!device_.empty()) run("ip link set " + device_ + " down");
    device_ = device;
    run("ip link set " + device_ + " address " + textOf(mac));
    std::ofstream("/proc/sys/net/ipv6/conf/" + device_ + "/disable_ipv6") << 0;
    KernelState::addressIs(device_, "10.0.10." + number_ + "/24");
    run("ip -6 addr add " + ip6Text() + "/64 dev " + device_ + " nodad");
  }
  void forwards() const {
    const Entered entered(where);
    std::ofstream("/proc/sys/net/ipv6/conf/all/forwarding") << 1;
  }

  std::string ip6Text() const { return "2001:db8:10::" + number_; }
  std::string ip4Text() const { return "10.0.10." + number_; }
  std::string inHere(const std::string& command) const {
    const Entered entered(where);
    return run(command);
  }
  // What its kernel knows of the other's IPv6 address.
  std::string neighbour(const DualHost& other) const {
    return inHere("ip -6 neigh show " + other.ip6Text() + " dev " + device_);
  }
  void forgets(const DualHost& other) const {
    inHere("ip neigh flush to " + other.ip4Text() + " dev " + device_);
    inHere("ip -6 neigh flush to " + other.ip6Text() + " dev " + device_);
  }
  // Sends a datagram there; nobody has to be there.
  void sends(const std::string& to) const { exchange(to, nullptr); }
  // Whether one arrives at the other host.
  bool reaches(const DualHost& other) const {
    for (const std::string& to : {"::ffff:" + other.ip4Text(), other.ip6Text()})
      if (!exchange(to, &other)) return false;
    return true;
  }
  const std::string& device() const { return device_; }

  const Mac mac;
  Namespace where;

 private:
  class Socket {
   public:
    explicit Socket(const Namespace& where) {
      const Entered entered(where);
      fd_ = socket(AF_INET6, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
      sockaddr_in6 own = address("::");
      const int on = 1;
      setsockopt(fd_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
      if (bind(fd_, reinterpret_cast<const sockaddr*>(&own), sizeof own) != 0)
        throw std::runtime_error("lab: no datagrams");
    }
    ~Socket() { close(fd_); }
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;
    static sockaddr_in6 address(const std::string& text) {
      sockaddr_in6 to{};
      to.sin6_family = AF_INET6;
      to.sin6_port = htons(kPort);
      inet_pton(AF_INET6, text.c_str(), &to.sin6_addr);
      return to;
    }
    void send(const std::string& text) const {
      const sockaddr_in6 to = address(text);
      sendto(fd_, "?", 1, 0, reinterpret_cast<const sockaddr*>(&to), sizeof to);
    }
    bool receives() const {
      char byte = 0;
      return recv(fd_, &byte, 1, 0) == 1;
    }

   private:
    int fd_;
  };
  bool exchange(const std::string& to, const DualHost* other) const {
    const Socket mine(where);
    if (other == nullptr) return mine.send(to), true;
    const Socket theirs(other->where);
    return eventually([&] {
      mine.send(to);
      return theirs.receives();
    });
  }

  const std::string number_;
  std::string device_;
};

class DualStack : public FabricTest {
 protected:
  void SetUp() override {
    FabricTest::SetUp();
    if (IsSkipped()) return;
    for (Leaf* leaf : {&one, &two}) {
      const Entered entered(leaf->where());
      // Probes follow at once where the kernel waits for seconds.
      std::ofstream("/proc/sys/net/ipv6/neigh/vlan10/delay_first_probe_time") << 0;
      run("ip -6 addr add " + gatewayOf(*leaf) + "/64 dev vlan10 nodad");
    }
  }
  std::string gatewayOf(const Leaf& leaf) const {
    return &leaf == &one ? "2001:db8:10::1" : "2001:db8:10::2";
  }

  // As another switch's, with both addresses: hosts talk to their gateways, which know them from then on.
  void untilAdvertised(Leaf& to, const DualHost& host, Leaf& at) {
    const std::string gateway4 = &at == &one ? "::ffff:10.0.10.1" : "::ffff:10.0.10.2";
    EXPECT_TRUE(eventually([&] {
      host.sends(gatewayOf(at));
      host.sends(gateway4);
      const Strings known = to.bindings("remote"), here = at.bindings("remote");
      const auto has = [&](const Strings& all, const std::string& ip) {
        return std::ranges::count(all, ip + " " + textOf(host.mac)) != 0;
      };
      return has(known, host.ip6Text()) && has(known, host.ip4Text()) && !has(here, host.ip6Text()) &&
             !has(here, host.ip4Text());
    })) << host.ip6Text()
        << " " << testing::PrintToString(to.bindings("remote"));
  }
  // What of ARP and neighbour discovery has left for the overlay from these stations, for an address of these.
  static Strings askedOnOverlay(Side& side, const std::vector<const DualHost*>& hosts) {
    Strings asked;
    while (const auto frame = side.overlay.receive(std::chrono::milliseconds(0))) {
      const std::string text = hex(*frame);
      const bool ofHost = std::ranges::any_of(hosts, [&](const DualHost* host) {
        Frame mac(6);
        std::ranges::transform(host->mac, mac.begin(), [](std::uint8_t byte) { return std::byte{byte}; });
        return text.substr(12, 12) == hex(mac);
      });
      const bool toHost = std::ranges::any_of(hosts, [&](const DualHost* host) {
        const Ip6 target = ip6(host->ip6Text().c_str());
        return frame->size() >= Nd::kTarget + target.size() &&
               std::ranges::equal(std::as_bytes(std::span(target)),
                                  std::span(*frame).subspan(Nd::kTarget, target.size()));
      });
      const bool isArp = text.substr(24, 4) == "0806";
      const bool isSolicitation = text.substr(24, 4) == "86dd" &&
                                  (*frame)[Nd::kNextHeader] == std::byte{58} &&
                                  (*frame)[Nd::kType] == std::byte{135} && (*frame)[0] == std::byte{0x33};
      if (ofHost && (isArp || (isSolicitation && toHost))) asked.push_back(text);
    }
    return asked;
  }
  std::int64_t answered(Leaf& leaf) { return leaf.itself().shown({"forwarding"})["answers"]["nd"]["hits"]; }
};

TEST_P(DualStack, HostsFindEachOtherWithoutAWordOnTheOverlay) {
  DualHost a(21), b(22);
  a.isAt(one, "Ethernet3");
  b.isAt(two, "Ethernet3");
  untilAdvertised(two, a, one);
  untilAdvertised(one, b, two);
  const auto finds = [&](const DualHost& from, const DualHost& to, Leaf& leaf, Side& side) {
    // The agent is to have both tables together before anybody asks.
    EXPECT_TRUE(eventually([&] {
      return leaf.itself().shown({"explain", "10", to.ip6Text()}).value("action", "") == "reply";
    })) << leaf.itself().shown({"explain", "10", to.ip6Text()});
    from.forgets(to);
    askedOnOverlay(side, {});
    const std::int64_t before = answered(leaf);
    EXPECT_TRUE(from.reaches(to));
    EXPECT_EQ(askedOnOverlay(side, {&from, &to}), Strings{});
    EXPECT_GE(answered(leaf), before + 1);
    EXPECT_THAT(from.neighbour(to), testing::HasSubstr(textOf(to.mac)));
    EXPECT_THAT(from.neighbour(to), testing::Not(testing::HasSubstr("router")));
  };
  finds(a, b, one, *here);
  finds(b, a, two, *there);

  // Moved: found at its new port, and from where it was before.
  b.isAt(one, "Ethernet4");
  untilAdvertised(two, b, one);
  EXPECT_TRUE(eventually([&] {
    const json told = one.itself().shown({"explain", "10", b.ip6Text()});
    return told.value("action", "") == "pass";
  }));
  a.forgets(b);
  EXPECT_TRUE(a.reaches(b));
  EXPECT_TRUE(b.reaches(a));
  DualHost c(23);
  c.isAt(two, "Ethernet4");
  untilAdvertised(one, c, two);
  finds(c, b, two, *there);
}

TEST_P(DualStack, AnAddressThatSomebodyHasIsNotTaken) {
  DualHost a(21), newcomer(31);
  a.isAt(one, "Ethernet3");
  newcomer.isAt(two, "Ethernet3");
  untilAdvertised(two, a, one);
  EXPECT_TRUE(eventually([&] {
    return two.itself().shown({"explain", "10", a.ip6Text()}).value("action", "") == "reply";
  }));
  newcomer.inHere("ip -6 addr add " + a.ip6Text() + "/64 dev " + newcomer.device());
  EXPECT_TRUE(eventually([&] {
    return newcomer.inHere("ip -6 addr show dev " + newcomer.device()).find("dadfailed") != std::string::npos;
  })) << newcomer.inHere("ip -6 addr show dev " + newcomer.device());
}

TEST_P(DualStack, ARouterStaysARouter) {
  DualHost a(21), router(22);
  a.isAt(one, "Ethernet3");
  router.forwards();
  router.isAt(two, "Ethernet3");
  untilAdvertised(one, router, two);
  untilAdvertised(two, a, one);
  const auto isKnown = [&] {
    router.sends(gatewayOf(two));
    for (const json& binding : one.itself().shown({"find", router.ip6Text()}))
      if (binding.value("table", "") == "remote" && binding.value("router", false)) return true;
    return false;
  };
  ASSERT_TRUE(eventually(isKnown)) << one.itself().shown({"find", router.ip6Text()})
                                   << two.run("ip -6 neigh show");
  for (int times = 0; times < 3; ++times) {
    a.forgets(router);
    const std::int64_t before = answered(one);
    EXPECT_TRUE(a.reaches(router));
    EXPECT_GE(answered(one), before + 1);
    EXPECT_THAT(a.neighbour(router), testing::HasSubstr("router"));
  }
}

INSTANTIATE_TEST_SUITE_P(Layouts, DualStack, testing::ValuesIn(kFabricLayouts), nameOf);

}  // namespace
}  // namespace Lab
