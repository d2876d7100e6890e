#pragma once

// A fabric: leaves, each with a routing daemon (FRR's zebra and bgpd) and the whole switch, an underlay
// between them, and hosts at their ports. Hosts are packet sockets: they say what a test has them say.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <optional>

#include "Netlink/Route.h"
#include "Netlink/Socket.h"
#include "lab/LabKernel.h"
#include "lab/Switch.h"

namespace Lab {

using Clock = std::chrono::steady_clock;

inline double secondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}
inline std::string milliseconds(double seconds) {
  return std::to_string(std::lround(seconds * 1000)) + " ms";
}
// Asks until it is so, or kDaemonPatience is over.
bool eventually(const std::function<bool()>& isSo);

std::string textOf(const Mac& mac);
std::string textOf(const Ip& ip);

struct Station {
  Mac mac;
  Ip ip;
};
Frame request(const Station& from, const Station& to);
Frame gratuitous(const Station& station);
Frame reply(const Station& from, const Station& to);

// VLANs 10 and 20: a bridge for each, or one that filters them, with an 802.1Q device for each.
struct FabricLayout {
  const char* name;
  bool filtering;
};
inline constexpr FabricLayout kFabricLayouts[] = {{"bridges", false}, {"vlanAware", true}};
inline std::string nameOf(const testing::TestParamInfo<FabricLayout>& layout) { return layout.param.name; }
inline void PrintTo(const FabricLayout& layout, std::ostream* out) { *out << layout.name; }

// The leaf's VLANs have a VXLAN device each as tunnel, "vxlan10", and their interface is "vlan10". Its port
// "Ethernet1" leads to a device "far-Ethernet1-N" of another namespace; N is the leaf's number.
class Leaf {
 public:
  Leaf(int number, const FabricLayout& layout);
  ~Leaf();

  static std::string lacking();  // why there are no routing daemons here; "": there are

  // The underlay's device being there. Throws Unsupported.
  void networkIs();
  // Starts, or starts again; `ready` is awaited.
  void routingIs(const std::string& program);
  void routingDel(const std::string& program);  // SIGKILL
  void start() { switch_.start(config_); }
  void serves();  // a test failure when it does not come so far
  std::string portIs(int vlan, const std::string& name, const Namespace& outside);  // the far device
  PacketSocket port(int vlan, const std::string& name, const Namespace& outside);
  // In its namespace; what it prints.
  std::string run(const std::string& command) const;
  // Of the interface, for IPv4's neighbours: "gc_stale_time".
  void neighbourSettingIs(const std::string& interface, const std::string& name, int value) const;

  // "10.0.10.11 02:00:00:00:00:11", sorted: "local" or "remote" of the VLAN.
  Strings bindings(const std::string& kind, int vlan = 10) const;
  // The same of what the routing daemon wrote into the kernel.
  Strings routes(int vlan = 10) const;
  bool knows(const Station& station, int vlan = 10) const;  // as a remote host
  Switch& itself() { return switch_; }
  const Namespace& where() const { return switch_.netNs(); }
  std::string all();  // for a failed test

 private:
  std::string bgp() const;
  void memberIs(const std::string& device, int vlan) const;

  const int number_;
  const FabricLayout layout_;
  Switch switch_;
  const std::string folder_;
  json config_;
  std::map<std::string, std::unique_ptr<Process>> daemons_;
};

// All that is said of the leaf's neighbours from its making on.
class Monitor {
 public:
  explicit Monitor(const Leaf& leaf);
  // Whether it goes, and what it is. A test failure when something was lost.
  const std::vector<std::pair<bool, Netlink::Neighbour>>& heard();

 private:
  Netlink::Socket socket_;
  std::vector<std::pair<bool, Netlink::Neighbour>> heard_;
};

// Skips where there is no FRR, or the kernel lacks what the layout needs.
class FabricTest : public testing::TestWithParam<FabricLayout> {
 protected:
  static constexpr Station kHost1{{0x02, 0, 0, 0, 1, 0x11}, {10, 0, 10, 11}};  // on leaf 1
  static constexpr Station kHost2{{0x02, 0, 0, 0, 1, 0x12}, {10, 0, 10, 12}};  // on leaf 2

  void SetUp() override;
  void TearDown() override;

  // Says it again and again, until the leaf knows the station as a remote host: forwarding takes up a new
  // port a moment after it is there.
  static void untilKnown(Leaf& leaf, const Station& station, const std::function<void()>& says,
                         int vlan = 10);
  // One that only asks, and one that only says that it is there.
  void hostsAreKnown();
  // A frame from one to the other, across the overlay.
  static bool arrives(PacketSocket& from, const Station& sender, PacketSocket& to, const Station& receiver);

  // A leaf's host, another port of its leaf, and what leaves that leaf for the overlay.
  struct Side {
    Station station;
    PacketSocket host, spare, overlay;
  };
  // What the host of this side gets that asks for the other: "answered", when nothing of it leaves for the
  // overlay; "flooded", when its request does and nobody answers; "nothing"; or what it was.
  std::string gets(Side& side, const Station& other);

  Leaf one{1, GetParam()}, two{2, GetParam()};
  Namespace outside;
  std::optional<Side> here, there;  // of VLAN 10
  std::uint8_t sentinel = 100;      // of addresses that nobody has
};

}  // namespace Lab
