// The way into a bridge that filters VLANs, and the bridge's life.

#include <tuple>
#include <utility>

#include "SoftForward/Trunks.h"
#include "SoftForward/WayIn.h"

namespace SoftForward {
namespace {

using Netlink::IfIndex;
using Netlink::Link;
using Netlink::VlanIds;

// Each is a request of its own.
constexpr std::size_t kTakenAtOnce = 64;

bool isSame(const Standing& a, const Standing& b) { return a.reason == b.reason && a.passing == b.passing; }

}  // namespace

void Trunks::lookBridge(IfIndex index) {
  const Link* found = links_.find(index);
  const VlanIds wanted = found && isServed(*found) ? configuration_.vlansOf(found->name) : VlanIds();
  if (wanted.none()) return bridgeDel(index);
  const Link link = *found;
  Bridge& bridge = bridges_[index];
  if (bridge.vlans != wanted) {
    changed(bridge.vlans ^ wanted);
    bridge.vlans = wanted;
    dirtyPorts_.insert(index);
    for (const IfIndex port : links_.portsOf(index)) dirtyPorts_.insert(port);
  }
  const auto before = std::tuple(bridge.wayIn, bridge.wayInVlans, bridge.standing, bridge.taken);
  bridge.standing = {};
  wayInIs(link, bridge);
  sharedAddressIn(link, bridge);
  if (bridge.standing.refused || !bridge.taken) again_.insert(index);
  const auto& [wayIn, wayInVlans, standing, taken] = before;
  if (wayIn != bridge.wayIn || !isSame(standing, bridge.standing)) return changed(bridge.vlans);
  VlanIds concerned = (wayInVlans ^ bridge.wayInVlans) & bridge.vlans;
  if (taken.error() != bridge.taken.error()) concerned.set(bridge.vlans._Find_first());  // which tells of it
  changed(concerned);
}

// The bridge has gone, filters no longer, or none of its VLANs is configured.
void Trunks::bridgeDel(IfIndex index) {
  refused(wayInDel(index), index);
  const auto known = bridges_.extract(index);
  if (known.empty()) return;
  for (const auto& [port, state] : ports_)
    if (state.bridge == index) dirtyPorts_.insert(port);
  changed(known.mapped().vlans);
}

void Trunks::wayInIs(const Link& link, Bridge& bridge) {
  Standing& standing = bridge.standing;
  bridge.wayIn = 0;
  const PairNames names = trunkWayInNames(link.index);
  const auto shaped = pairs_.shapeIs({names, WayIn::kMtu, link.index, WayIn::addressOfBridge(link.index)});
  if (!shaped) {
    standing.check(shaped.failure());
    return;
  }
  if (!*shaped) return standing.because(WayIn::name(link, names.outer) + " is being made", true);
  const Pair pair = **pairs_.find(names);
  if (!standing.check(filters_.attachedIs({pair.outer.index, Direction::ingress, names.outer},
                                          programs_.loaded(Program::dropAll))))
    return;
  if (!wayInVlansAre(pair.inner, bridge)) return;
  bridge.wayIn = pair.outer.index;
  const auto passes = pairs_.upIs(pair);
  if (!standing.check(passes ? Mox::Result<>() : Mox::Result<>(passes.failure()))) return;
  WayIn::judge(link, pair, *passes, standing);
}

// Whether it may be up: it takes no frame without a tag.
bool Trunks::wayInVlansAre(const Link& port, Bridge& bridge) {
  const auto table = tables_.of(port.index);
  if (!table) return bridge.standing.check(table.failure());
  const Netlink::BridgeVlans now = **table;
  bridge.wayInVlans = now.carried & ~now.untagged;
  const auto stands = pairs_.vlansAre(port, now, bridge.vlans);
  if (!stands) return bridge.standing.check(stands.failure());
  if (!*stands) {
    tables_.forget(port.index);
    dirtyBridges_.insert(port.master);
  }
  if (now.pvid == 0) return true;
  bridge.standing.because(WayIn::name(*links_.find(port.master), port.name) + " is being made", true);
  return false;
}

void Trunks::sharedAddressIn(const Link& link, Bridge& bridge) {
  const auto pair = pairs_.find(trunkWayInNames(link.index));
  const auto own = tables_.of(link.index);
  if (!pair || !*pair || !own) return;
  // What an earlier run made the bridge take is noted at our own device, and goes with it.
  const Link& wayIn = (*pair)->outer;
  const Lanix::EthAddr before = Pairs::takenBy(wayIn).address;
  bridge.taken = {};
  if (before != sharedAddress_) {
    bridge.taking.reset();
    if (!before.isZero()) bridge.taken = pairs_.takesIs(link, before, false);
    if (bridge.taken) bridge.taken = pairs_.takenIs(wayIn, {sharedAddress_, link.index});
  }
  bridge.taking &= (*own)->carried;
  if (sharedAddress_.isZero()) return;
  // An entry without a VLAN would be for those that the bridge has now.
  const VlanIds missing = bridge.vlans & (*own)->carried & ~bridge.taking;
  std::size_t vlan = missing._Find_first();
  for (std::size_t i = 0; vlan < missing.size() && bridge.taken; vlan = missing._Find_next(vlan)) {
    if (i++ == kTakenAtOnce) {
      dirtyBridges_.insert(link.index);
      return;
    }
    bridge.taken = pairs_.takesIs(link, sharedAddress_, true, static_cast<std::uint16_t>(vlan));
    if (bridge.taken) bridge.taking.set(vlan);
  }
}

Mox::Result<> Trunks::sharedAddressBack(IfIndex index) {
  const auto pair = pairs_.find(trunkWayInNames(index));
  const Link* link = links_.find(index);
  if (link == nullptr || !pair || !*pair) return {};
  const Lanix::EthAddr taken = Pairs::takenBy((*pair)->outer).address;
  return taken.isZero() ? Mox::Result<>() : pairs_.takesIs(*link, taken, false);
}

Mox::Result<> Trunks::wayInDel(IfIndex index) {
  auto done = sharedAddressBack(index);
  const auto pair = pairs_.find(trunkWayInNames(index));
  if (!pair || !*pair) return done;
  const auto gone = pairs_.del((*pair)->outer);
  return done ? gone : done;
}

}  // namespace SoftForward
