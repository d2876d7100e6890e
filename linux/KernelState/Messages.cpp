#include "KernelState/Messages.h"

#include <linux/if_addr.h>
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <utility>

namespace KernelState {
namespace {

using Netlink::Kind;

constexpr Netlink::Policy kAddressPolicy[] = {
    {IFA_ADDRESS, Kind::bytes, 4, 4}, {IFA_LOCAL, Kind::bytes, 4, 4}, {IFA_FLAGS, Kind::u32}};

}  // namespace

std::optional<AddressMessage> readAddress(const Netlink::Received& message) {
  const auto header = message.header<ifaddrmsg>();
  if (!header || header->ifa_family != AF_INET || header->ifa_prefixlen > 32) return std::nullopt;
  if (header->ifa_index == 0 || header->ifa_index > INT32_MAX) return std::nullopt;
  const Netlink::Attributes attributes(message.attributes(sizeof(ifaddrmsg)), kAddressPolicy);
  // On a point-to-point device IFA_ADDRESS is the other end.
  const auto bytes = attributes.has(IFA_LOCAL) ? attributes.bytes(IFA_LOCAL) : attributes.bytes(IFA_ADDRESS);
  if (!bytes) return std::nullopt;
  Lanix::IpAddr::Bytes four;
  std::memcpy(four.data(), bytes->data(), four.size());
  const Lanix::IpAddr local(four);
  if (local.isUnspecified()) return std::nullopt;
  const std::uint32_t flags = attributes.u32(IFA_FLAGS).value_or(header->ifa_flags);
  return AddressMessage{header->ifa_index, local, header->ifa_prefixlen, (flags & IFA_F_SECONDARY) != 0};
}

std::optional<Arp::Table::ArpEntry> entryOf(const Netlink::Neighbour& neighbour) {
  if (neighbour.isForeign() || neighbour.address.isMulticast() || neighbour.address.isUnspecified())
    return std::nullopt;
  const bool isStatic = neighbour.isStatic();
  if (neighbour.mac.isZero() || !(isStatic || neighbour.isResolved())) return std::nullopt;
  Arp::Table::ArpEntry entry{neighbour.mac, isStatic, 0};
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

const char* nameOf(Table table) {
  constexpr const char* kNames[] = {"devices", "addresses", "neighbours", "MAC tables"};
  return kNames[static_cast<std::size_t>(table)];
}

Netlink::Message dumpRequest(Table table) {
  switch (table) {
    case Table::links:
      return Netlink::linkDump();
    case Table::addresses: {
      ifaddrmsg header{};
      header.ifa_family = AF_INET;
      return std::move(Netlink::Message(RTM_GETADDR).header(header));
    }
    case Table::neighbours:
      return Netlink::neighbourDump(AF_UNSPEC);
    case Table::macs:
      break;
  }
  return Netlink::neighbourDump(AF_BRIDGE);
}

}  // namespace KernelState
