#include "SoftForward/Trunks.h"

#include <linux/if_ether.h>

#include <utility>

namespace SoftForward {
namespace {

using Netlink::IfIndex;
using Netlink::Link;
using Netlink::VlanIds;

std::uint16_t lowest(const VlanIds& vlans) { return static_cast<std::uint16_t>(vlans._Find_first()); }

std::string text(const Mox::Result<>& result) { return result ? std::string() : result.error(); }

}  // namespace

Trunks::Trunks(const LinkTable& links, Filters& filters, Pairs& pairs, Programs& programs,
               Configuration configuration)
    : links_(links),
      filters_(filters),
      pairs_(pairs),
      programs_(programs),
      configuration_(std::move(configuration)) {}

bool Trunks::isServed(const Link& bridge) {
  return bridge.kind == "bridge" && bridge.filtersVlans && bridge.vlanProtocol == ETH_P_8021Q;
}

// --- What may have changed -----------------------------------------------------------------------------

void Trunks::ownTrappedIs(bool trapped) {
  if (std::exchange(ownTrapped_, trapped) == trapped) return;
  for (const auto& [index, bridge] : bridges_) dirtyPorts_.insert(index);
}

void Trunks::sharedAddressIs(const Lanix::EthAddr& address) {
  if (std::exchange(sharedAddress_, address) == address) return;
  for (const auto& [index, bridge] : bridges_) dirtyBridges_.insert(index);
}

void Trunks::linkChanged(const Link& link) {
  if (isServed(link) || bridges_.contains(link.index)) dirtyBridges_.insert(link.index);
  if (const auto owner = ownerOf(link.name)) {
    if (owner->kind == Owner::Kind::bridge && bridges_.contains(owner->number))
      dirtyBridges_.insert(owner->number);
    return;
  }
  if (ports_.contains(link.index) || bridges_.contains(link.master)) dirtyPorts_.insert(link.index);
}

void Trunks::linkGone(const Link& link) {
  // The kernel took the programs off with the device, and the next one may get its index.
  tables_.forget(link.index);
  if (const auto port = ports_.find(link.index); port != ports_.end()) {
    if (const auto bridge = bridges_.find(port->second.bridge); bridge != bridges_.end())
      bridge->second.failing.erase(link.index);
    changed(port->second.tunnel);
    ports_.erase(port);
    static_cast<void>(programs_.trunkDel(link.index));  // without its device an entry is never asked for
  }
  linkChanged(link);
}

void Trunks::filterChanged(IfIndex ifIndex) {
  if (ports_.contains(ifIndex)) dirtyPorts_.insert(ifIndex);
}

void Trunks::sharedAddressLost(IfIndex bridge) {
  const auto known = bridges_.find(bridge);
  if (known == bridges_.end()) return;
  known->second.taking.reset();
  dirtyBridges_.insert(bridge);
}

void Trunks::allChanged() {
  for (const auto& [index, link] : links_.links())
    if (isServed(link)) dirtyBridges_.insert(index);
  for (const auto& [index, bridge] : bridges_) dirtyBridges_.insert(index);
  for (const auto& [index, port] : ports_) dirtyPorts_.insert(index);
}

// Until its VLANs are read again, it is not known which of them leave the port with a tag.
void Trunks::answersOff(IfIndex index) {
  const auto port = ports_.find(index);
  if (port == ports_.end() || !port->second.trunk || port->second.trunk->answers.none()) return;
  Trunk off = *port->second.trunk;
  off.answers.reset();
  if (programs_.trunkIs(index, off)) port->second.trunk = off;
}

bool Trunks::receive() {
  return tables_.receive([this](IfIndex ifIndex) {
    if (ifIndex == 0) {
      for (const auto& [index, port] : ports_) answersOff(index);
      return allChanged();
    }
    answersOff(ifIndex);
    if (const Link* link = links_.find(ifIndex)) linkChanged(*link);
  });
}

void Trunks::againIs() {
  dirtyBridges_.insert(again_.begin(), again_.end());
  dirtyPorts_.merge(again_);
  again_.clear();
}

void Trunks::changed(const VlanIds& vlans) {
  for (std::size_t vlan = vlans._Find_first(); vlan < vlans.size(); vlan = vlans._Find_next(vlan))
    configuration_.vlanChanged(static_cast<std::uint16_t>(vlan));
}

void Trunks::refused(const Mox::Result<>& result, IfIndex index) {
  if (!result && result.number() != 0) again_.insert(index);
}

bool Trunks::step() {
  if (dirtyBridges_.empty()) return lookPort();
  lookBridge(dirtyBridges_.extract(dirtyBridges_.begin()).value());
  return true;
}

bool Trunks::lookPort() {
  if (dirtyPorts_.empty()) return false;
  lookPort(dirtyPorts_.extract(dirtyPorts_.begin()).value());
  return true;
}

bool Trunks::hasPort(IfIndex ifIndex) const {
  const auto port = ports_.find(ifIndex);
  return port != ports_.end() && port->second.trunk;
}

// --- Ports ---------------------------------------------------------------------------------------------

void Trunks::lookPort(IfIndex index) {
  const Link* link = links_.find(index);
  const bool own = bridges_.contains(index);
  const auto above = link == nullptr ? bridges_.end() : bridges_.find(own ? index : link->master);
  if (above == bridges_.end() || ownerOf(link->name)) return portDel(index);
  Bridge& bridge = above->second;
  const Port before = ports_[index];
  Port& port = ports_[index];
  port.bridge = above->first;
  // What cannot be read again stays as it was known.
  const auto table = tables_.of(index);
  port.read = table ? Mox::Result<>() : Mox::Result<>(table.failure());
  if (table) port.vlans = **table;
  port.tunnel = own ? VlanIds() : configuration_.tunnelVlansOf(link->name) & bridge.vlans;

  const Trunk trunk = trunkOf(port, bridge, *link);
  const bool any = trunk.trapped.any() || trunk.tunnel.any();
  if (any && port.trunk != trunk) {
    const auto written = programs_.trunkIs(index, trunk);
    refused(written, index);
    if (written) port.trunk = trunk;
    if (!written) port.ingress = port.egress = written;
  }
  if (!any || port.trunk == trunk) {
    std::optional<Program> ingress;
    std::optional<Program> egress;
    if (own && any) egress = Program::ownEgress;
    if (!own && trunk.trapped.any()) ingress = Program::accessIngress;
    if (trunk.tunnel.any()) egress = Program::tunnelEgress;
    port.egress = hookIs({index, Direction::egress, link->name}, egress);
    port.ingress = hookIs({index, Direction::ingress, link->name}, ingress);
  }
  if (!any && port.trunk) {
    refused(programs_.trunkDel(index), index);
    port.trunk.reset();
  }
  for (const Mox::Result<>& result : {port.read, port.ingress, port.egress}) refused(result, index);
  portChanged(before, port, bridge, index);
}

Trunk Trunks::trunkOf(const Port& port, const Bridge& bridge, const Link& link) const {
  Trunk trunk;
  const bool own = trunk.own = bridges_.contains(link.index);
  if (!own || ownTrapped_) trunk.trapped = port.vlans.carried & bridge.vlans & ~port.tunnel;
  trunk.tunnel = port.vlans.carried & port.tunnel;
  if (trunk.trapped[port.vlans.pvid]) trunk.pvid = port.vlans.pvid;
  if (own || trunk.trapped.none()) return trunk;
  const PortTerms terms = configuration_.termsOf(link.name);
  trunk.policer = terms.policer;
  trunk.tagged = trunk.trapped & ~port.vlans.untagged;
  if (terms.answers && port.read && forwards(link)) trunk.answers = trunk.trapped & ~port.vlans.blocked;
  return trunk;
}

Mox::Result<> Trunks::hookIs(const Hook& hook, std::optional<Program> program) {
  return program ? filters_.attachedIs(hook, programs_.loaded(*program)) : filters_.detach(hook);
}

VlanIds Trunks::trappedOf(const Port& port) { return port.trunk ? port.trunk->trapped : VlanIds(); }

// The VLANs to which it makes a difference.
void Trunks::portChanged(const Port& before, const Port& now, Bridge& bridge, IfIndex index) {
  const bool own = index == now.bridge;
  VlanIds vlans = (before.vlans.carried ^ now.vlans.carried) | (before.vlans.untagged ^ now.vlans.untagged);
  vlans &= own ? bridge.vlans : before.tunnel | now.tunnel;
  vlans |= before.tunnel ^ now.tunnel;
  if (!own) vlans |= trappedOf(before) ^ trappedOf(now);
  if (text(before.read) != text(now.read) || text(before.egress) != text(now.egress)) vlans |= now.tunnel;
  const bool fails = !now.ingress || !now.read || (own && !now.egress);
  if (fails || bridge.failing.contains(index))
    vlans.set(spokesman(before, bridge)).set(spokesman(now, bridge));
  if (fails) {
    bridge.failing.insert(index);
  } else {
    bridge.failing.erase(index);
  }
  // The bridge takes the shared address on the VLANs that it carries itself.
  if (own && before.vlans.carried != now.vlans.carried) dirtyBridges_.insert(index);
  changed(vlans);
}

// The VLAN that tells of a port's failure: the lowest that it is about.
std::uint16_t Trunks::spokesman(const Port& port, const Bridge& bridge) {
  return lowest(port.trunk && port.trunk->trapped.any() ? port.trunk->trapped : bridge.vlans);
}

void Trunks::portDel(IfIndex index) {
  const auto known = ports_.find(index);
  if (known == ports_.end()) return;
  Port& port = known->second;
  const Link* link = links_.find(index);
  const std::string name = link ? link->name : std::to_string(index);
  Mox::Result<> gone;
  for (const Direction direction : {Direction::ingress, Direction::egress})
    if (gone) gone = filters_.detach({index, direction, name});
  if (gone && port.trunk) gone = programs_.trunkDel(index);
  if (!gone) return refused(gone, index);
  if (const auto bridge = bridges_.find(port.bridge); bridge != bridges_.end())
    bridge->second.failing.erase(index);
  changed(port.tunnel | trappedOf(port));
  tables_.forget(index);
  ports_.erase(known);
}

void Trunks::forEachPort(const std::function<void(IfIndex, std::uint16_t, PortRole)>& visit) const {
  for (const auto& [index, port] : ports_) {
    if (!port.trunk) continue;
    const VlanIds all = port.trunk->trapped | port.trunk->tunnel;
    for (std::size_t vlan = all._Find_first(); vlan < all.size(); vlan = all._Find_next(vlan)) {
      const PortRole role = port.trunk->tunnel[vlan] ? PortRole::tunnel
                            : port.trunk->own        ? PortRole::own
                                                     : PortRole::access;
      visit(index, static_cast<std::uint16_t>(vlan), role);
    }
  }
}

// --- One VLAN ------------------------------------------------------------------------------------------

VlanPaths Trunks::pathsOf(std::uint16_t vlan, const std::vector<std::string>& tunnelPorts, const Link& link,
                          Standing& standing) const {
  VlanPaths paths;
  const auto found = bridges_.find(link.index);
  if (found == bridges_.end() || !found->second.vlans[vlan]) {
    standing.because("bridge " + link.name + " is being looked at", true);
    return paths;
  }
  const Bridge& bridge = found->second;
  paths.bridge = link.index;
  paths.wayIn = bridge.wayIn;
  paths.wayInTagged = true;
  standing.accessPorts = accessPortsOf(vlan, link.index);
  const std::string add = "bridge vlan add vid " + std::to_string(vlan) + " dev ";
  for (const std::string& name : tunnelPorts) {
    const auto complain = [&](const std::string& problem, const std::string& advice) {
      standing.complaints.push_back({vlanName(vlan) + ", tunnel port " + name, problem, advice});
      standing.missing.push_back(name);
    };
    const Link* device = links_.find(name);
    const auto port = device ? ports_.find(device->index) : ports_.end();
    if (device == nullptr) {
      const std::string others = someOf(standing.accessPorts);
      complain("there is no such device" +
                   (others.empty() ? "" : "; the bridge's ports " + others + " count as access ports"),
               "make it, or correct \"tunnelPorts\" of the VLAN in the configuration");
    } else if (device->master != link.index) {
      complain("it is no port of bridge " + link.name, "ip link set " + name + " master " + link.name);
    } else if (port == ports_.end()) {
      standing.because("port " + name + " is being looked at", true);
    } else if (!port->second.read) {
      standing.because("port " + name + ": " + port->second.read.error());
    } else if (!port->second.vlans.carried[vlan]) {
      complain("it does not carry " + vlanName(vlan), add + name);
    } else {
      if (!port->second.egress) standing.because(port->second.egress.error());
      (port->second.vlans.untagged[vlan] ? paths.tunnelPorts : paths.taggedTunnelPorts)
          .push_back(device->index);
    }
  }
  const auto own = ports_.find(link.index);
  if (ownTrapped_ && own != ports_.end() && own->second.read && !own->second.vlans.carried[vlan])
    standing.complaints.push_back(
        {vlanName(vlan) + ", bridge " + link.name,
         "the bridge itself does not carry the VLAN: what the switch itself asks there is not answered here",
         add + link.name + " self"});
  for (const IfIndex index : bridge.failing) {
    const Port& port = ports_.at(index);
    const Link* device = links_.find(index);
    if (device == nullptr || spokesman(port, bridge) != vlan) continue;
    for (const Mox::Result<>& result : {port.read, port.ingress, port.egress}) {
      if (result) continue;
      standing.complaints.push_back({vlanName(vlan) + ", port " + device->name, result.error(), {}});
      break;
    }
  }
  if (lowest(bridge.vlans) == vlan)
    standing.complain("bridge " + link.name + ", shared gateway MAC", bridge.taken);

  if (!bridge.standing.reason.empty() && standing.reason.empty()) {
    standing.because(bridge.standing.reason, bridge.standing.passing);
    standing.toldElsewhere = lowest(bridge.vlans) != vlan;
  } else if (!bridge.wayInVlans[vlan]) {
    standing.because("the way into bridge " + link.name + " is about to carry " + vlanName(vlan), true);
  }
  return paths;
}

std::vector<std::string> Trunks::accessPortsOf(std::uint16_t vlan, IfIndex bridge) const {
  std::vector<std::string> names;
  for (const IfIndex index : links_.portsOf(bridge)) {
    const auto port = ports_.find(index);
    if (port != ports_.end() && port->second.trunk && port->second.trunk->trapped[vlan])
      names.push_back(links_.find(index)->name);
  }
  return names;
}

}  // namespace SoftForward
