#include "SoftForward/Datapath.h"

#include <linux/netlink.h>

#include <algorithm>
#include <charconv>
#include <utility>

#include "SoftForward/Shared.h"

namespace SoftForward {
namespace {

constexpr const char* kSnoop = "arpsnoop";
constexpr const char* kInject = "arpinject";
constexpr const char* kFabric = "fabric";
constexpr std::string_view kInnerSuffix = "-sw";
constexpr std::string_view kWayIn = "fabin";
constexpr std::string_view kPortSuffix = "-br";

constexpr std::uint16_t kMaxVlan = 4094;

// Frames on the pairs are up to SOFT_FORWARD_TRAP_PUSH longer than what is trapped; a device's MTU leaves the
// Ethernet header out of the count.
constexpr std::uint32_t kPairMtu = SOFT_FORWARD_MAX_FRAME + SOFT_FORWARD_TRAP_PUSH;

// A bridge takes the least MTU of its ports: with the greatest there is, ours never decides.
constexpr std::uint32_t kWayInMtu = 65535;

PairNames pairNames(const std::string& outer) { return {outer, outer + std::string(kInnerSuffix)}; }

PairNames wayInNames(std::uint16_t vlan) {
  const std::string outer = std::string(kWayIn) + std::to_string(vlan);
  return {outer, outer + std::string(kPortSuffix)};
}

// The VLAN of a way in by its outer end's name, 0 when the name is none.
std::uint16_t wayInVlan(std::string_view name) {
  if (!name.starts_with(kWayIn)) return 0;
  name.remove_prefix(kWayIn.size());
  std::uint16_t vlan = 0;
  const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), vlan);
  const bool whole = error == std::errc() && end == name.data() + name.size() && name[0] != '0';
  return whole && vlan <= kMaxVlan ? vlan : std::uint16_t{0};
}

// A bridge takes the least of its ports' addresses: ours is greater than any that a device comes with, and
// differs from VLAN to VLAN.
MacAddress wayInAddress(std::uint16_t vlan) {
  return {std::byte{0xFE},
          std::byte{0xFF},
          std::byte{0xFF},
          std::byte{0xFF},
          static_cast<std::byte>(vlan >> 8),
          static_cast<std::byte>(vlan & 0xFF)};
}

Failure joined(Failure first, Failure second) {
  if (!first || !second) return first ? first : second;
  return *first + "; " + *second;
}

bool contains(const std::vector<std::uint32_t>& list, std::uint32_t ifIndex) {
  return std::ranges::find(list, ifIndex) != list.end();
}

}  // namespace

Datapath::Datapath() : socket_(NETLINK_ROUTE), links_(socket_), filters_(socket_) {}

bool Datapath::ownsDevice(std::string_view name) {
  for (const char* outer : {kSnoop, kInject, kFabric}) {
    const PairNames names = pairNames(outer);
    if (name == names.outer || name == names.inner) return true;
  }
  if (name.starts_with(kWayIn) && name.ends_with(kPortSuffix)) name.remove_suffix(kPortSuffix.size());
  return wayInVlan(name) != 0;
}

Failure Datapath::attach(std::uint32_t ifIndex, Direction direction, Program program) {
  return filters_.attach({ifIndex, direction}, programs_.fd(program), toString(program));
}

Failure Datapath::pairIs(const PairNames& names, std::uint32_t mtu,
                         const std::optional<MacAddress>& innerAddress, Pair& pair) {
  if (Failure failure = links_.pairIs(names, mtu, innerAddress, pair)) return failure;
  if (Failure failure = links_.quietIs(names.outer, pair.outer)) return failure;
  return links_.quietIs(names.inner, pair.inner);
}

Failure Datapath::open() {
  if (!socket_.opened()) return Netlink::describe("opening a netlink socket", socket_.opened()).error();
  if (Failure failure = programs_.load()) return failure;

  struct Peer {
    const char* outer;
    Program ingress;
    Program egress;
    bool strips;  // the trap header, before ingress
  };
  constexpr Peer kPeers[] = {{kSnoop, Program::dropAll, Program::trapEgress, false},
                             {kInject, Program::injectIngress, Program::dropAll, true},
                             {kFabric, Program::fabricIngress, Program::dropAll, false}};
  for (const Peer& peer : kPeers) {
    const PairNames names = pairNames(peer.outer);
    Pair pair;
    if (Failure failure = pairIs(names, kPairMtu, std::nullopt, pair)) return failure;
    pairs_[peer.outer] = pair;
    // The programs come first, so that no frame passes an inner end without them.
    if (Failure failure = attach(pair.inner, Direction::ingress, peer.ingress)) return failure;
    if (Failure failure = attach(pair.inner, Direction::egress, peer.egress)) return failure;
    if (peer.strips) {
      if (Failure failure = links_.xdpIs(names.inner, pair.inner, programs_.fd(Program::injectStrip)))
        return failure;
    }
    if (Failure failure = links_.upIs(names.inner, pair.inner)) return failure;
    if (Failure failure = links_.upIs(names.outer, pair.outer)) return failure;
  }
  return programs_.trapPeerIs(pairs_[kSnoop].inner);
}

Failure Datapath::close() {
  Failure failure;
  // Ports first: as long as one traps, the pairs must be there to carry its copies.
  while (!vlans_.empty()) {
    const std::uint16_t vlan = vlans_.begin()->first;
    failure = joined(failure, vlanDel(vlan));
    vlans_.erase(vlan);
  }
  ports_.clear();
  failure = joined(failure, staleDel());
  for (const auto& [name, pair] : pairs_) failure = joined(failure, links_.linkDel(name, pair.outer));
  pairs_.clear();
  return failure;
}

Failure Datapath::wayInIs(std::uint16_t vlan, std::uint32_t bridge, Pair& pair) {
  const PairNames names = wayInNames(vlan);
  if (Failure failure = pairIs(names, kWayInMtu, wayInAddress(vlan), pair)) return failure;
  if (Failure failure = attach(pair.outer, Direction::ingress, Program::dropAll)) return failure;
  // Up only as a silent port, so that it neither learns nor floods for a moment.
  if (Failure failure = links_.silentPortIs(names.inner, pair.inner, bridge)) return failure;
  if (Failure failure = links_.upIs(names.inner, pair.inner)) return failure;
  return links_.upIs(names.outer, pair.outer);
}

bool Datapath::isWayIn(std::uint32_t ifIndex) const {
  return std::ranges::any_of(vlans_, [&](const auto& entry) {
    return entry.second.wayIn.inner == ifIndex || entry.second.wayIn.outer == ifIndex;
  });
}

Failure Datapath::portIs(std::uint32_t ifIndex, std::uint16_t vlan, PortRole role) {
  const auto known = ports_.find(ifIndex);
  if (known != ports_.end() && known->second.vlan == vlan && known->second.role == role) return std::nullopt;
  if (known != ports_.end()) {
    if (Failure failure = portDel(ifIndex)) return failure;
  }
  if (Failure failure = programs_.portIs(ifIndex, vlan, role)) return failure;
  const bool access = role == PortRole::access;
  const Program egress = role == PortRole::own ? Program::ownEgress : Program::tunnelEgress;
  if (Failure failure = attach(ifIndex, access ? Direction::ingress : Direction::egress,
                               access ? Program::accessIngress : egress))
    return joined(failure, programs_.portDel(ifIndex));
  ports_[ifIndex] = {vlan, role};
  // What an earlier run may have left in the other direction, when the port had the other role.
  return filters_.detach({ifIndex, access ? Direction::egress : Direction::ingress});
}

Failure Datapath::portDel(std::uint32_t ifIndex) {
  const auto known = ports_.find(ifIndex);
  if (known == ports_.end()) return std::nullopt;
  const Port port = known->second;
  ports_.erase(known);
  Failure failure =
      filters_.detach({ifIndex, port.role == PortRole::access ? Direction::ingress : Direction::egress});
  failure = joined(failure, programs_.portDel(ifIndex));
  const auto vlan = vlans_.find(port.vlan);
  if (port.role == PortRole::tunnel && vlan != vlans_.end()) {
    std::vector<std::uint32_t> rest = vlan->second.tunnelPorts;
    std::erase(rest, ifIndex);
    failure = joined(failure, tunnelPortsIs(port.vlan, std::move(rest)));
  }
  return failure;
}

Failure Datapath::portsDel(std::uint16_t vlan, PortRole role, const std::vector<std::uint32_t>& keep) {
  std::vector<std::uint32_t> gone;
  for (const auto& [ifIndex, port] : ports_)
    if (port.vlan == vlan && port.role == role && !contains(keep, ifIndex)) gone.push_back(ifIndex);
  Failure failure;
  for (const std::uint32_t ifIndex : gone) failure = joined(failure, portDel(ifIndex));
  return failure;
}

Failure Datapath::tunnelPortsIs(std::uint16_t vlan, std::vector<std::uint32_t> tunnelPorts) {
  Vlan& entry = vlans_[vlan];
  entry.tunnelPorts = std::move(tunnelPorts);
  return programs_.vlanPathsIs(vlan, entry.wayIn.outer, entry.tunnelPorts, entry.bridge);
}

Failure Datapath::vlanIs(std::uint16_t vlan, const VlanPorts& ports) {
  const std::string what = "VLAN " + std::to_string(vlan);
  if (vlan == 0 || vlan > kMaxVlan) return what + ": allowed are 1 to " + std::to_string(kMaxVlan);
  std::vector<std::uint32_t> tunnelPorts = ports.tunnelPorts;
  std::ranges::sort(tunnelPorts);
  tunnelPorts.erase(std::unique(tunnelPorts.begin(), tunnelPorts.end()), tunnelPorts.end());
  if (tunnelPorts.size() > SOFT_FORWARD_MAX_TUNNEL_PORTS)
    return what + ": " + std::to_string(tunnelPorts.size()) + " tunnel ports, allowed are " +
           std::to_string(SOFT_FORWARD_MAX_TUNNEL_PORTS);
  for (const std::uint32_t ifIndex : ports.accessPorts)
    if (contains(tunnelPorts, ifIndex))
      return what + ": port " + std::to_string(ifIndex) + " is both an access port and a tunnel port";

  Pair wayIn = vlans_[vlan].wayIn;
  Failure failure = wayInIs(vlan, ports.bridgeIfIndex, wayIn);
  vlans_[vlan].wayIn = failure ? Pair{} : wayIn;
  vlans_[vlan].bridge = ports.bridgeIfIndex;
  std::vector<std::uint32_t> accessPorts = ports.accessPorts;
  std::erase_if(accessPorts,
                [&](std::uint32_t ifIndex) { return isWayIn(ifIndex) || ifIndex == wayIn.inner; });

  // A frame that is trapped is kept from the tunnel ports, so these are first to come and last to go.
  for (const std::uint32_t ifIndex : tunnelPorts)
    failure = joined(failure, portIs(ifIndex, vlan, PortRole::tunnel));
  failure = joined(failure, tunnelPortsIs(vlan, tunnelPorts));
  for (const std::uint32_t ifIndex : accessPorts)
    failure = joined(failure, portIs(ifIndex, vlan, PortRole::access));
  if (ports.ownTrapped) failure = joined(failure, portIs(ports.bridgeIfIndex, vlan, PortRole::own));
  failure = joined(
      failure, portsDel(vlan, PortRole::own,
                        ports.ownTrapped ? std::vector{ports.bridgeIfIndex} : std::vector<std::uint32_t>()));
  failure = joined(failure, portsDel(vlan, PortRole::access, accessPorts));
  return joined(failure, portsDel(vlan, PortRole::tunnel, tunnelPorts));
}

Failure Datapath::vlanDel(std::uint16_t vlan) {
  if (!vlans_.contains(vlan)) return std::nullopt;
  Failure failure = portsDel(vlan, PortRole::own, {});
  failure = joined(failure, portsDel(vlan, PortRole::access, {}));
  failure = joined(failure, portsDel(vlan, PortRole::tunnel, {}));
  failure = joined(failure, programs_.vlanPathsDel(vlan));
  const Pair wayIn = vlans_[vlan].wayIn;
  vlans_.erase(vlan);
  if (wayIn.outer != 0) failure = joined(failure, links_.linkDel(wayInNames(vlan).outer, wayIn.outer));
  return failure;
}

Failure Datapath::activeVlanIs(std::uint16_t vlan, bool active) {
  if (vlan == 0 || vlan > kMaxVlan)
    return "VLAN " + std::to_string(vlan) + ": allowed are 1 to " + std::to_string(kMaxVlan);
  return programs_.activeVlanIs(vlan, active);
}

Failure Datapath::staleDel() {
  std::vector<Link> stale;
  Failure failure = links_.forEach([&](const Link& link) {
    const std::uint16_t vlan = link.kind == "veth" ? wayInVlan(link.name) : std::uint16_t{0};
    if (vlan != 0 && !vlans_.contains(vlan)) stale.push_back(link);
  });
  for (const Link& link : stale) failure = joined(failure, links_.linkDel(link.name, link.index));

  std::vector<Hook> hooks;
  failure = joined(failure, filters_.attached(hooks));
  for (const Hook& hook : hooks) {
    const bool pair =
        std::ranges::any_of(pairs_, [&](const auto& entry) { return entry.second.inner == hook.ifIndex; });
    if (pair || isWayIn(hook.ifIndex) || ports_.contains(hook.ifIndex)) continue;
    failure = joined(failure, filters_.detach(hook));
  }
  return failure;
}

}  // namespace SoftForward
