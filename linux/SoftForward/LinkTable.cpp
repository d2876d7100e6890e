#include "SoftForward/LinkTable.h"

#include <linux/if_bridge.h>
#include <linux/rtnetlink.h>
#include <net/if.h>

#include <tuple>
#include <utility>

namespace SoftForward {
namespace {

constexpr std::uint32_t kFlags = IFF_UP | IFF_NOARP;

bool isSame(const Netlink::Link& a, const Netlink::Link& b) {
  const auto parts = [](const Netlink::Link& link) {
    return std::tie(link.name, link.kind, link.master, link.peer, link.peerElsewhere, link.operational,
                    link.mtu, link.group, link.xdpProgram, link.alias, link.port, link.filtersVlans,
                    link.vlanProtocol, link.collectsMetadata);
  };
  return parts(a) == parts(b) && (a.flags & kFlags) == (b.flags & kFlags);
}

}  // namespace

bool forwards(const Netlink::Link& port) {
  return port.port && port.port->state == BR_STATE_FORWARDING && !port.port->locked;
}

const Netlink::Link* LinkTable::find(Netlink::IfIndex index) const {
  const auto found = links_.find(index);
  return found == links_.end() ? nullptr : &found->second;
}

const Netlink::Link* LinkTable::find(const std::string& name) const {
  const auto found = names_.find(name);
  return found == names_.end() ? nullptr : find(found->second);
}

const std::set<Netlink::IfIndex>& LinkTable::portsOf(Netlink::IfIndex bridge) const {
  static const std::set<Netlink::IfIndex> none;
  const auto found = ports_.find(bridge);
  return found == ports_.end() ? none : found->second;
}

void LinkTable::apply(const Netlink::Received& message) {
  const bool gone = message.type() == RTM_DELLINK;
  if (!gone && message.type() != RTM_NEWLINK) return;
  std::optional<Netlink::Link> link = Netlink::readLink(message);
  if (!link) return;
  if (!link->ofBridge) {
    if (gone) {
      erase(link->index);
    } else {
      put(std::move(*link));
    }
    return;
  }
  // The bridge tells of its port. The device itself may be new to us, or have moved on: it is told of too.
  const Netlink::Link* known = find(link->index);
  if (known == nullptr || known->master != link->master || (!gone && !link->port)) return;
  Netlink::Link changed = *known;
  if (gone) {
    changed.master = 0;
    changed.port.reset();
  } else {
    changed.port = link->port;
  }
  put(std::move(changed));
}

void LinkTable::put(Netlink::Link link) {
  unread_.erase(link.index);
  std::optional<Netlink::Link> before;
  if (const Netlink::Link* known = find(link.index)) {
    if (isSame(*known, link)) return;
    before = *known;
    unindex(*known);
  }
  names_[link.name] = link.index;
  if (link.master != 0) ports_[link.master].insert(link.index);
  const Netlink::IfIndex index = link.index;
  links_[index] = std::move(link);
  if (before) changed_(*before, Change::became);
  if (const Netlink::Link* now = find(index)) changed_(*now, Change::became);
}

void LinkTable::erase(Netlink::IfIndex index) {
  const auto found = links_.find(index);
  if (found == links_.end()) return;
  const Netlink::Link before = std::move(found->second);
  unindex(before);
  links_.erase(found);
  changed_(before, Change::gone);
}

void LinkTable::unindex(const Netlink::Link& link) {
  // Another device may have the name by now.
  if (const auto name = names_.find(link.name); name != names_.end() && name->second == link.index)
    names_.erase(name);
  const auto above = ports_.find(link.master);
  if (above == ports_.end()) return;
  above->second.erase(link.index);
  if (above->second.empty()) ports_.erase(above);
}

void LinkTable::readingBegins() {
  unread_.clear();
  for (const auto& [index, link] : links_) unread_.insert(index);
}

void LinkTable::readingEnds() {
  for (const Netlink::IfIndex index : std::exchange(unread_, {})) erase(index);
}

}  // namespace SoftForward
