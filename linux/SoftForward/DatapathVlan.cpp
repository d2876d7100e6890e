// What is done for one VLAN.

#include <linux/if_bridge.h>
#include <net/if.h>

#include <algorithm>

#include "SoftForward/Datapath.h"
#include "SoftForward/Shared.h"

namespace SoftForward {
namespace {

// A bridge takes the least MTU of its ports: with the greatest there is, ours never decides.
constexpr std::uint32_t kWayInMtu = 65535;
constexpr std::string_view kTakes = "bridge takes ";
constexpr std::size_t kNamesShown = 8;

// A bridge takes the least of its ports' addresses: ours is greater than any that a device comes with, and
// differs from VLAN to VLAN.
Lanix::EthAddr wayInAddress(std::uint16_t vlan) {
  return Lanix::EthAddr(
      {0xFE, 0xFF, 0xFF, 0xFF, static_cast<std::uint8_t>(vlan >> 8), static_cast<std::uint8_t>(vlan & 0xFF)});
}

std::string vlanName(std::uint16_t id) { return "VLAN " + std::to_string(id); }

// The first reason stands.
void because(Standing& standing, const std::string& reason, bool passing = false) {
  if (!standing.reason.empty()) return;
  standing.reason = reason;
  standing.passing = passing;
}

bool isGood(Standing& standing, const Mox::Result<>& result) {
  if (result) return true;
  standing.refused = standing.refused || result.number() != 0;
  because(standing, result.error());
  return false;
}

}  // namespace

std::string Datapath::whyNotServed(std::uint16_t id, const Vlan& vlan, std::string& advice) const {
  if (!vlan.configured) return "it is not configured";
  // Who came first in the configuration has it.
  const auto taken = [&](const std::string& name) { return *names_.at(name).begin() != id; };
  const auto refusal = [&](const std::string& what, const std::string& name) {
    advice = "correct the VLANs of the configuration";
    return what + " " + name + " is " + vlanName(*names_.at(name).begin()) + "'s already";
  };
  if (taken(vlan.wanted.bridge)) return refusal("bridge", vlan.wanted.bridge);
  for (const std::string& port : vlan.wanted.tunnelPorts)
    if (taken(port)) return refusal("tunnel port", port);
  const Netlink::Link* bridge = links_.find(vlan.wanted.bridge);
  if (bridge == nullptr || bridge->kind != "bridge") {
    advice = "make it, or correct \"bridge\" of the VLAN in the configuration";
    return bridge == nullptr ? "there is no bridge " + vlan.wanted.bridge
                             : "the device " + vlan.wanted.bridge + " is no bridge";
  }
  if (vlan.wanted.tunnelPorts.size() > SOFT_FORWARD_MAX_TUNNEL_PORTS)
    return std::to_string(vlan.wanted.tunnelPorts.size()) + " tunnel ports, allowed are " +
           std::to_string(SOFT_FORWARD_MAX_TUNNEL_PORTS);
  return {};
}

Standing Datapath::lookVlan(std::uint16_t id, Vlan& vlan) {
  Standing standing;
  standing.reason = whyNotServed(id, vlan, standing.advice);
  if (!standing.reason.empty()) {
    withdraw(id, vlan, standing);
    return standing;
  }
  const Netlink::Link bridge = *links_.find(vlan.wanted.bridge);
  const Ports ports = portsOf(id, vlan, bridge, standing);
  VlanPaths paths;
  paths.bridge = bridge.index;
  for (const auto& [ifIndex, role] : ports)
    if (role == PortRole::tunnel) paths.tunnelPorts.push_back(ifIndex);
  wayInIs(id, bridge, paths.wayIn, standing);
  isGood(standing, pathsAre(id, vlan, std::move(paths)));
  portsAre(id, vlan, ports, standing);
  sharedAddressIn(id, vlan, bridge, standing);
  if (!shared_.ready) because(standing, shared_.reason, shared_.passing);
  if (!isGood(standing, trappedIs(id, vlan, vlan.active && standing.reason.empty())))
    static_cast<void>(trappedIs(id, vlan, false));
  standing.ready = standing.reason.empty();
  return standing;
}

// The pair of its way in stays for a bridge that comes back, as long as the VLAN is configured.
void Datapath::withdraw(std::uint16_t id, Vlan& vlan, Standing& standing) {
  const auto note = [&](const Mox::Result<>& result) {
    if (result) return;
    standing.refused = standing.refused || result.number() != 0;
    standing.complaints.push_back({vlanName(id) + ", taking it out", result.error(), {}});
  };
  note(trappedIs(id, vlan, false));
  for (const Netlink::IfIndex ifIndex : std::set(vlan.ports)) note(portDel(ifIndex));
  note(pathsAre(id, vlan, {}));
  vlan.takingBridge = 0;
  if (vlan.configured) return;
  if (const auto pair = pairs_.find(wayInNames(id)); pair && *pair) note(pairs_.del((*pair)->outer));
}

Mox::Result<> Datapath::trappedIs(std::uint16_t id, Vlan& vlan, bool trapped) {
  if (vlan.trapped == trapped) return {};
  auto written = programs_.activeVlanIs(id, trapped);
  if (written) vlan.trapped = trapped;
  return written;
}

Mox::Result<> Datapath::pathsAre(std::uint16_t id, Vlan& vlan, VlanPaths paths) {
  if (vlan.paths == paths) return {};
  auto written = paths == VlanPaths() ? programs_.vlanPathsDel(id) : programs_.vlanPathsIs(id, paths);
  if (written) vlan.paths = std::move(paths);
  return written;
}

// --- The way in ----------------------------------------------------------------------------------------

void Datapath::wayInIs(std::uint16_t id, const Netlink::Link& bridge, Netlink::IfIndex& wayIn,
                       Standing& standing) {
  const PairNames names = wayInNames(id);
  const auto shaped = pairs_.shapeIs({names, kWayInMtu, bridge.index, wayInAddress(id)});
  if (!shaped) {
    isGood(standing, shaped.failure());
    return;
  }
  const std::string what = "the way into bridge " + bridge.name;
  if (!*shaped) return because(standing, what + " (" + names.outer + ") is being made", true);
  const Pair pair = **pairs_.find(names);
  if (!isGood(standing, attached({pair.outer.index, Direction::ingress, names.outer}, Program::dropAll)))
    return;
  wayIn = pair.outer.index;
  const auto passes = pairs_.upIs(pair);
  if (!passes) {
    isGood(standing, passes.failure());
    return;
  }
  const std::uint8_t state = pair.inner.port ? pair.inner.port->state : std::uint8_t{BR_STATE_DISABLED};
  if (*passes && state == BR_STATE_FORWARDING) return;
  if ((bridge.flags & IFF_UP) == 0) {
    because(standing, "bridge " + bridge.name + " is down");
  } else if (state == BR_STATE_LISTENING || state == BR_STATE_LEARNING) {
    because(standing, "spanning tree has " + what + " (" + names.inner + ") wait before it forwards");
  } else if (state == BR_STATE_BLOCKING) {
    because(standing, "spanning tree blocks " + what + " (" + names.inner + ")");
  } else {
    because(standing, what + " (" + names.outer + ") does not come up", true);
  }
}

void Datapath::sharedAddressIn(std::uint16_t id, Vlan& vlan, const Netlink::Link& bridge,
                               Standing& standing) {
  const auto pair = pairs_.find(wayInNames(id));
  if (!pair || !*pair) return;
  // What an earlier run made the bridge take is noted at our own device, and goes with it.
  const Netlink::Link& wayIn = (*pair)->outer;
  const std::string_view alias = wayIn.alias;
  const auto noted =
      alias.starts_with(kTakes) ? Lanix::EthAddr::fromStrep(alias.substr(kTakes.size())) : std::nullopt;
  const Lanix::EthAddr before = noted.value_or(Lanix::EthAddr());
  if (before == sharedAddress_ && (before.isZero() || vlan.takingBridge == bridge.index)) return;
  Mox::Result<> result;
  if (!before.isZero() && before != sharedAddress_) result = pairs_.bridgeTakes(bridge, before, false);
  if (result && before != sharedAddress_)
    result =
        pairs_.aliasIs(wayIn, sharedAddress_.isZero() ? "" : std::string(kTakes) + sharedAddress_.toStrep());
  if (result && !sharedAddress_.isZero()) result = pairs_.bridgeTakes(bridge, sharedAddress_, true);
  if (result) {
    vlan.takingBridge = bridge.index;
    return;
  }
  standing.refused = true;
  standing.complaints.push_back({vlanName(id) + ", shared gateway MAC", result.error(), {}});
}

// --- Ports ---------------------------------------------------------------------------------------------

bool Datapath::isTunnelPort(const std::string& device) const {
  const auto named = names_.find(device);
  return named != names_.end() && std::ranges::any_of(named->second, [&](std::uint16_t id) {
           return std::ranges::count(vlans_.at(id).wanted.tunnelPorts, device) != 0;
         });
}

Datapath::Ports Datapath::portsOf(std::uint16_t id, const Vlan& vlan, const Netlink::Link& bridge,
                                  Standing& standing) const {
  Ports ports;
  if (ownTrapped_) ports[bridge.index] = PortRole::own;
  std::string accessNames;
  std::size_t shown = 0;
  for (const Netlink::IfIndex ifIndex : links_.portsOf(bridge.index)) {
    const Netlink::Link& link = *links_.find(ifIndex);
    if (ownerOf(link.name) || isTunnelPort(link.name)) continue;
    ports[ifIndex] = PortRole::access;
    if (++shown <= kNamesShown) accessNames += (shown == 1 ? "" : ", ") + link.name;
  }
  if (shown > kNamesShown) accessNames += " and " + std::to_string(shown - kNamesShown) + " more";
  for (const std::string& name : vlan.wanted.tunnelPorts) {
    const std::string subject = vlanName(id) + ", tunnel port " + name;
    const Netlink::Link* link = links_.find(name);
    if (link == nullptr) {
      standing.complaints.push_back(
          {subject,
           "there is no such device" +
               (accessNames.empty() ? "" : "; the bridge's ports " + accessNames + " count as access ports"),
           "make it, or correct \"tunnelPorts\" of the VLAN in the configuration"});
      continue;
    }
    ports[link->index] = PortRole::tunnel;
    if (link->master != bridge.index)
      standing.complaints.push_back({subject, "it is no port of bridge " + bridge.name,
                                     "ip link set " + name + " master " + bridge.name});
  }
  return ports;
}

void Datapath::portsAre(std::uint16_t id, Vlan& vlan, const Ports& ports, Standing& standing) {
  const auto complain = [&](const std::string& device, const Mox::Result<>& result) {
    if (result) return;
    standing.refused = standing.refused || result.number() != 0;
    standing.complaints.push_back({vlanName(id) + ", port " + device, result.error(), {}});
  };
  // A frame that is trapped is kept from the tunnel ports, so these are first to come and last to go.
  for (const PortRole role : {PortRole::tunnel, PortRole::access, PortRole::own}) {
    for (const auto& [ifIndex, wanted] : ports) {
      if (wanted != role) continue;
      const Netlink::Link& link = *links_.find(ifIndex);
      const auto made = portIs(link, id, role);
      if (role == PortRole::tunnel) {
        isGood(standing, made);
      } else {
        complain(link.name, made);
      }
    }
  }
  for (const Netlink::IfIndex ifIndex : std::set(vlan.ports))
    if (!ports.contains(ifIndex)) complain(std::to_string(ifIndex), portDel(ifIndex));
}

Mox::Result<> Datapath::portIs(const Netlink::Link& link, std::uint16_t id, PortRole role) {
  const bool access = role == PortRole::access;
  const Program program = access                  ? Program::accessIngress
                          : role == PortRole::own ? Program::ownEgress
                                                  : Program::tunnelEgress;
  const Hook hook{link.index, access ? Direction::ingress : Direction::egress, link.name};
  const auto known = ports_.find(link.index);
  const bool fresh = known == ports_.end() || known->second.vlan != id || known->second.role != role;
  if (fresh) {
    if (auto gone = portDel(link.index); !gone) return gone;
    if (auto written = programs_.portIs(link.index, id, role); !written) return written;
    ports_[link.index] = {id, role};
    vlans_[id].ports.insert(link.index);
  }
  if (auto attached = this->attached(hook, program); !attached) return attached;
  // What an earlier run may have left in the other direction, when the port had the other role.
  const Direction other = access ? Direction::egress : Direction::ingress;
  return fresh ? filters_.detach({link.index, other, link.name}) : Mox::Result<>();
}

Mox::Result<> Datapath::portDel(Netlink::IfIndex ifIndex) {
  const auto known = ports_.find(ifIndex);
  if (known == ports_.end()) return {};
  const Port port = known->second;
  const Netlink::Link* link = links_.find(ifIndex);
  const Direction direction = port.role == PortRole::access ? Direction::ingress : Direction::egress;
  if (auto gone = filters_.detach({ifIndex, direction, link ? link->name : std::to_string(ifIndex)}); !gone)
    return gone;
  if (auto gone = programs_.portDel(ifIndex); !gone) return gone;
  vlans_[port.vlan].ports.erase(ifIndex);
  ports_.erase(ifIndex);
  return {};
}

}  // namespace SoftForward
