// What is done for one VLAN.

#include <algorithm>

#include "SoftForward/Datapath.h"
#include "SoftForward/Shared.h"
#include "SoftForward/WayIn.h"

namespace SoftForward {

std::string Datapath::whyNotServed(std::uint16_t id, const Vlan& vlan, std::string& advice) const {
  if (!vlan.configured) return "it is not configured";
  const Netlink::Link* bridge = links_.find(vlan.wanted.bridge);
  // Where the bridge does not tell VLANs apart, who came first in the configuration has it.
  const bool filters = bridge != nullptr && bridge->filtersVlans;
  const auto taken = [&](const std::string& name) { return !filters && *names_.at(name).begin() != id; };
  const auto refusal = [&](const std::string& what, const std::string& name) {
    advice = "correct the VLANs of the configuration, or have the bridge filter VLANs";
    return what + " " + name + " is " + vlanName(*names_.at(name).begin()) + "'s already";
  };
  if (taken(vlan.wanted.bridge)) return refusal("bridge", vlan.wanted.bridge);
  for (const std::string& port : vlan.wanted.tunnelPorts)
    if (taken(port)) return refusal("tunnel port", port);
  if (bridge == nullptr || bridge->kind != "bridge") {
    advice = "make it, or correct \"bridge\" of the VLAN in the configuration";
    return bridge == nullptr ? "there is no bridge " + vlan.wanted.bridge
                             : "the device " + vlan.wanted.bridge + " is no bridge";
  }
  if (filters && !Trunks::isServed(*bridge)) {
    advice = "ip link set " + bridge->name + " type bridge vlan_protocol 802.1Q";
    return "bridge " + bridge->name + " filters VLANs by tags other than those of 802.1Q";
  }
  if (vlan.wanted.tunnelPorts.size() > SOFT_FORWARD_MAX_TUNNEL_PORTS)
    return std::to_string(vlan.wanted.tunnelPorts.size()) + " tunnel ports, allowed are " +
           std::to_string(SOFT_FORWARD_MAX_TUNNEL_PORTS);
  for (const std::string& port : vlan.wanted.tunnelPorts) {
    const Netlink::Link* link = links_.find(port);
    if (link == nullptr || !link->collectsMetadata) continue;
    advice = "make one vxlan device for each VLAN instead, or a trunk";
    return "tunnel port " + port +
           " is a single vxlan device for all VLANs (external, that is collect metadata): floods cannot be "
           "sent "
           "out of it";
  }
  return {};
}

Standing Datapath::lookVlan(std::uint16_t id, Vlan& vlan) {
  Standing standing;
  standing.reason = whyNotServed(id, vlan, standing.advice);
  if (!standing.reason.empty()) {
    for (const std::string& name : vlan.wanted.tunnelPorts)
      if (links_.find(name) == nullptr) standing.missing.push_back(name);
    withdraw(id, vlan, standing);
    return standing;
  }
  const Netlink::Link bridge = *links_.find(vlan.wanted.bridge);
  if (Trunks::isServed(bridge)) {
    lookTrunk(id, vlan, bridge, standing);
  } else {
    lookPlain(id, vlan, bridge, standing);
  }
  suppressedTwice(vlan, bridge, standing);
  if (!shared_.ready) standing.because(shared_.reason, shared_.passing);
  if (!standing.check(trappedIs(id, vlan, vlan.active && standing.reason.empty())))
    static_cast<void>(trappedIs(id, vlan, false));
  standing.ready = standing.reason.empty();
  return standing;
}

// A port that several VLANs share is told of once: it is the port's own setting.
void Datapath::suppressedTwice(const Vlan& vlan, const Netlink::Link& bridge, Standing& standing) const {
  for (const std::string& name : vlan.wanted.tunnelPorts) {
    const Netlink::Link* link = links_.find(name);
    if (link == nullptr || link->master != bridge.index || !link->port || !link->port->neighSuppress)
      continue;
    standing.complaints.push_back(
        {"tunnel port " + name,
         "the bridge answers for the hosts behind it too (neigh_suppress): who asks for one gets two answers",
         "bridge link set dev " + name + " neigh_suppress off"});
  }
}

void Datapath::lookPlain(std::uint16_t id, Vlan& vlan, const Netlink::Link& bridge, Standing& standing) {
  const Ports ports = portsOf(id, vlan, bridge, standing);
  VlanPaths paths;
  paths.bridge = bridge.index;
  for (const auto& [ifIndex, role] : ports)
    if (role == PortRole::tunnel) paths.tunnelPorts.push_back(ifIndex);
  wayInIs(id, bridge, paths.wayIn, standing);
  standing.check(pathsAre(id, vlan, std::move(paths)));
  portsAre(id, vlan, ports, standing);
  sharedAddressIn(id, vlan, bridge, standing);
}

void Datapath::lookTrunk(std::uint16_t id, Vlan& vlan, const Netlink::Link& bridge, Standing& standing) {
  // What it had of its own while the bridge did not filter.
  const auto plain = pairs_.find(wayInNames(id));
  if (!vlan.ports.empty() || (plain && *plain)) {
    const Pairs::Taken taken = plain && *plain ? Pairs::takenBy((*plain)->outer) : Pairs::Taken();
    standing.complain(vlanName(id) + ", shared gateway MAC", takenBack(taken));
    if (!taken.address.isZero()) trunks_.sharedAddressLost(bridge.index);
    withdraw(id, vlan, standing);
    if (plain && *plain) standing.complain(vlanName(id) + ", its way in", pairs_.del((*plain)->outer));
    dirty_.insert(id);
    return standing.because("bridge " + bridge.name + " filters VLANs now", true);
  }
  standing.check(pathsAre(id, vlan, trunks_.pathsOf(id, vlan.wanted.tunnelPorts, bridge, standing)));
}

// The pair of its way in stays for a bridge that comes back, as long as the VLAN is configured.
void Datapath::withdraw(std::uint16_t id, Vlan& vlan, Standing& standing) {
  const std::string subject = vlanName(id) + ", taking it out";
  standing.complain(subject, trappedIs(id, vlan, false));
  for (const Netlink::IfIndex ifIndex : std::set(vlan.ports)) standing.complain(subject, portDel(ifIndex));
  // What was trapped until now is still on its way through the agent, whose replies and floods go these.
  if (!vlan.lapsed && vlan.paths != VlanPaths()) {
    again_.insert(id);
    return;
  }
  standing.complain(subject, pathsAre(id, vlan, {}));
  vlan.taking = 0;
  if (vlan.configured) return;
  if (const auto pair = pairs_.find(wayInNames(id)); pair && *pair)
    standing.complain(subject, pairs_.del((*pair)->outer));
}

Mox::Result<> Datapath::trappedIs(std::uint16_t id, Vlan& vlan, bool trapped) {
  if (vlan.trapped == trapped) return {};
  auto written = programs_.activeVlanIs(id, trapped);
  if (written) vlan.trapped = trapped;
  if (vlan.trapped) vlan.lapsed = false;
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
  const auto shaped = pairs_.shapeIs({names, WayIn::kMtu, bridge.index, WayIn::addressOfVlan(id)});
  if (!shaped) {
    standing.check(shaped.failure());
    return;
  }
  if (!*shaped) return standing.because(WayIn::name(bridge, names.outer) + " is being made", true);
  const Pair pair = **pairs_.find(names);
  const Hook hook{pair.outer.index, Direction::ingress, names.outer};
  if (!standing.check(filters_.attachedIs(hook, programs_.loaded(Program::dropAll)))) return;
  wayIn = pair.outer.index;
  const auto passes = pairs_.upIs(pair);
  if (passes) return WayIn::judge(bridge, pair, *passes, standing);
  standing.check(passes.failure());
}

void Datapath::sharedAddressIn(std::uint16_t id, Vlan& vlan, const Netlink::Link& bridge,
                               Standing& standing) {
  const auto pair = pairs_.find(wayInNames(id));
  if (!pair || !*pair) return;
  // What an earlier run had made take it is noted at our own device, and goes with it.
  const Netlink::Link& wayIn = (*pair)->outer;
  const Pairs::Taken before = Pairs::takenBy(wayIn);
  const Netlink::Link& taker = interfaceIn(vlan, bridge);
  const Pairs::Taken wanted =
      sharedAddress_.isZero() ? Pairs::Taken() : Pairs::Taken{sharedAddress_, taker.index};
  if (before == wanted && vlan.taking == wanted.device) return;
  Mox::Result<> result;
  if (before != wanted) result = takenBack(before);
  if (result && before != wanted) result = pairs_.takenIs(wayIn, wanted);
  if (result && !sharedAddress_.isZero()) result = pairs_.takesIs(taker, sharedAddress_, true);
  if (result) {
    vlan.taking = wanted.device;
    return;
  }
  standing.refused = true;
  standing.complaints.push_back({vlanName(id) + ", shared gateway MAC", result.error(), {}});
}

// The bridge itself, or its port that the VLAN's interface in another namespace is the other end of.
const Netlink::Link& Datapath::interfaceIn(const Vlan& vlan, const Netlink::Link& bridge) const {
  const Netlink::Link* port = links_.find(vlan.interface.otherEnd);
  const bool leadsThere = port != nullptr && port->kind == "veth" && port->master == bridge.index &&
                          port->peerElsewhere == vlan.interface.ifIndex;
  return leadsThere ? *port : bridge;
}

Mox::Result<> Datapath::takenBack(const Pairs::Taken& taken) {
  const Netlink::Link* taker = links_.find(taken.device);
  return taken.address.isZero() || taker == nullptr ? Mox::Result<>()
                                                    : pairs_.takesIs(*taker, taken.address, false);
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
  for (const Netlink::IfIndex ifIndex : links_.portsOf(bridge.index)) {
    const Netlink::Link& link = *links_.find(ifIndex);
    if (ownerOf(link.name) || isTunnelPort(link.name)) continue;
    ports[ifIndex] = PortRole::access;
    standing.accessPorts.push_back(link.name);
  }
  const std::string accessNames = someOf(standing.accessPorts);
  for (const std::string& name : vlan.wanted.tunnelPorts) {
    const std::string subject = vlanName(id) + ", tunnel port " + name;
    const Netlink::Link* link = links_.find(name);
    if (link == nullptr || link->master != bridge.index) standing.missing.push_back(name);
    if (link == nullptr) {
      standing.complaints.push_back(
          {subject,
           "there is no such device" +
               (accessNames.empty() ? "" : "; the bridge's ports " + accessNames + " count as access ports"),
           "make it, or correct \"tunnelPorts\" of the VLAN in the configuration"});
      continue;
    }
    if (!trunks_.hasBridge(link->master)) ports[link->index] = PortRole::tunnel;
    if (link->master != bridge.index)
      standing.complaints.push_back({subject, "it is no port of bridge " + bridge.name,
                                     "ip link set " + name + " master " + bridge.name});
  }
  return ports;
}

void Datapath::portsAre(std::uint16_t id, Vlan& vlan, const Ports& ports, Standing& standing) {
  const auto complain = [&](const std::string& device, const Mox::Result<>& result) {
    standing.complain(vlanName(id) + ", port " + device, result);
  };
  // A frame that is trapped is kept from the tunnel ports, so these are first to come and last to go.
  for (const PortRole role : {PortRole::tunnel, PortRole::access, PortRole::own}) {
    for (const auto& [ifIndex, wanted] : ports) {
      if (wanted != role) continue;
      const Netlink::Link& link = *links_.find(ifIndex);
      const auto made = portIs(link, id, role);
      if (role == PortRole::tunnel) {
        standing.check(made);
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
  PortTerms terms = access ? termsOf_(link.name) : PortTerms();
  terms.answers = terms.answers && forwards(link);
  const bool told = !fresh && known->second.terms == terms;
  if (fresh) {
    if (auto gone = portDel(link.index); !gone) return gone;
  }
  if (!told) {
    const auto written = programs_.portIs(link.index, id, role, terms.policer, terms.answers);
    if (!written) return written;
    ports_[link.index] = {id, role, terms};
    vlans_[id].ports.insert(link.index);
  }
  if (auto attached = filters_.attachedIs(hook, programs_.loaded(program)); !attached) return attached;
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
  if (link != nullptr) trunks_.linkChanged(*link);  // whose programs may have been there already
  return {};
}

}  // namespace SoftForward
