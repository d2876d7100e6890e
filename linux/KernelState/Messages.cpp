#include "KernelState/Messages.h"

#include <linux/neighbour.h>

namespace KernelState {

std::optional<Arp::Table::ArpEntry> entryOf(const Netlink::Neighbour& neighbour) {
  if (neighbour.isForeign() || neighbour.address.isMulticast() || neighbour.address.isUnspecified())
    return std::nullopt;
  const bool isStatic = neighbour.isStatic();
  if (neighbour.mac.isZero() || !(isStatic || neighbour.isResolved())) return std::nullopt;
  const bool router = neighbour.address.isIpv6() && (neighbour.flags & NTF_ROUTER) != 0;
  Arp::Table::ArpEntry entry{neighbour.mac, isStatic, 0, router};
  if (isStatic) {
    const bool own = neighbour.protocol == Arp::Table::kArpTypeOwn;
    entry.arpType = own ? Arp::Table::kArpTypeOwn : Arp::Table::kArpTypeForeign;
  }
  return entry;
}

std::optional<MacEntry> macEntryOf(const Netlink::Neighbour& entry) {
  if (entry.bridge == 0 || entry.mac.isZero() || entry.mac.isMulticast()) return std::nullopt;
  if ((entry.flags & NTF_SELF) != 0) return std::nullopt;
  MacEntry result{entry.bridge, entry.ifIndex, entry.vlan, entry.mac, MacEntry::Kind::learned};
  if ((entry.state & NUD_PERMANENT) != 0 || result.port == result.bridge) {
    result.kind = MacEntry::Kind::own;
  } else if ((entry.flags & NTF_EXT_LEARNED) != 0) {
    result.kind = MacEntry::Kind::externally;
  } else if ((entry.state & NUD_NOARP) != 0) {
    result.kind = MacEntry::Kind::configured;
  }
  return result;
}

}  // namespace KernelState
