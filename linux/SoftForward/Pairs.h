#pragma once

// The network devices that software forwarding makes: veth pairs, one of whose ends may be a port of a
// bridge.
//
//   "arpsnoop", "arpinject", "fabric"   and "-sw": what the agent opens, and the end with the programs
//   "fabin<VLAN>"                       and "-br": where frames are sent to, and a port of the VLAN's bridge
//   "fabin-<bridge's index>"            and "-br": the same into a bridge that filters VLANs, a trunk
//
// Nothing is written that is already so. What is written is in the table of links once the kernel has told of
// it; what it does not tell of a device that is down is read here. The requests are those of one rtnetlink
// socket of the network namespace that holds the devices; each waits at most the socket's timeout.

#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "Lanix/EthAddr.h"
#include "Mox/Result.h"
#include "SoftForward/LinkTable.h"

namespace SoftForward {

inline constexpr const char* kSnoop = "arpsnoop";
inline constexpr const char* kInject = "arpinject";
inline constexpr const char* kFabric = "fabric";

// A pair by its names. `outer` is the end that the agent opens or that frames are sent to.
struct PairNames {
  std::string outer;
  std::string inner;
};
PairNames pairNames(const char* outer);
PairNames wayInNames(std::uint16_t vlan);
PairNames trunkWayInNames(Netlink::IfIndex bridge);

// Whose pair it is: the agent's, or the way in of a VLAN or of a bridge that filters VLANs.
struct Owner {
  enum class Kind : std::uint8_t { agent, vlan, bridge } kind = Kind::agent;
  std::uint32_t number = 0;  // the VLAN; the bridge's interface index
  friend bool operator==(const Owner&, const Owner&) = default;
};
// Whose end a name is; nothing when it is no name of ours.
std::optional<Owner> ownerOf(std::string_view name);

// What a pair should be.
struct PairSpec {
  PairNames names;
  std::uint32_t mtu = 0;
  // The inner end is a port of this bridge that neither learns nor receives floods; 0: of none.
  Netlink::IfIndex bridge = 0;
  Lanix::EthAddr innerAddress;  // when it is made here; zero: the kernel chooses
};

struct Pair {
  Netlink::Link outer;
  Netlink::Link inner;
};

class Pairs {
 public:
  // In this device group are the inner ends of all pairs, so that one request removes them all.
  static constexpr std::uint32_t kGroup = 0x61727073;

  Pairs(Netlink::Socket& requests, LinkTable& links) : requests_(requests), links_(links) {}

  // The pair when both ends stand. A failure without an errno: a name is taken by something else, and that
  // device is left alone.
  Mox::Result<std::optional<Pair>> find(const PairNames& names) const;

  // Makes the pair, or makes the one of these names as specified: with that MTU, without ARP and IPv6, so
  // that the kernel's own stack sends nothing on it. Whether it is so already. An end that is made here is
  // down.
  Mox::Result<bool> shapeIs(const PairSpec& wanted);
  // Both ends up; only for a pair that has its shape. Whether frames pass.
  Mox::Result<bool> upIs(const Pair& pair);
  // The program behind the device's driver, in generic mode: that puts no bound on the MTU and works with
  // every driver. Replaces the one that is there.
  Mox::Result<> xdpIs(const Netlink::Link& link, int program);

  // Frames to this address go to the device: to the bridge itself, besides those to its own address, as after
  // "bridge fdb add ADDRESS dev BRIDGE self permanent", or to the port of a bridge, as after "bridge fdb add
  // ADDRESS dev PORT master static sticky", whatever else sends from that address. Or no longer. `vlan` 0: on
  // all VLANs that the device has now.
  Mox::Result<> takesIs(const Netlink::Link& device, const Lanix::EthAddr& address, bool takes,
                        std::uint16_t vlan = 0);
  // What is noted at the way in: what takes which address in its bridge.
  struct Taken {
    Lanix::EthAddr address;       // zero: nothing does
    Netlink::IfIndex device = 0;  // the bridge or its port
    friend bool operator==(const Taken&, const Taken&) = default;
  };
  static Taken takenBy(const Netlink::Link& wayIn);
  Mox::Result<> takenIs(const Netlink::Link& wayIn, const Taken& taken);

  // The port of a bridge that filters VLANs carries just these, with a tag, and takes no frame without one.
  // Writes a few hundred of the differences, after which the table is to be read again; true: there were
  // none.
  Mox::Result<bool> vlansAre(const Netlink::Link& port, const Netlink::BridgeVlans& table,
                             const Netlink::VlanIds& wanted);

  // Both ends of a pair go with one. No failure if it is gone already.
  Mox::Result<> del(const Netlink::Link& end);
  // All pairs that the table has, in one request where the group has nobody else's device.
  Mox::Result<> delAll(const std::function<void(const std::string& what)>& removed);

  // The device is gone, and its index may be another one's soon.
  void forget(Netlink::IfIndex ifIndex) { quiet_.erase(ifIndex); }

 private:
  Mox::Result<> make(const PairSpec& wanted);
  Mox::Result<bool> endIs(const Netlink::Link& end, const PairSpec& wanted);
  Mox::Result<> readAgain(const Netlink::Link& end);
  Mox::Result<> ipv6Off(const Netlink::Link& end);

  Netlink::Socket& requests_;
  LinkTable& links_;
  std::set<Netlink::IfIndex> quiet_;  // IPv6 is off there
};

}  // namespace SoftForward
