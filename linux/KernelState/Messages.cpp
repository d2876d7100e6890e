#include "KernelState/Messages.h"

#include <linux/if_addr.h>
#include <linux/if_link.h>
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <algorithm>

namespace KernelState {
namespace {

using Netlink::Attributes;
using Netlink::Kind;
using Netlink::Policy;

constexpr std::uint16_t kDeviceName = 16;       // IFNAMSIZ, with the NUL
constexpr std::uint16_t kHardwareAddress = 32;  // MAX_ADDR_LEN of the kernel

constexpr Policy kLinkPolicy[] = {{IFLA_IFNAME, Kind::string, 2, kDeviceName},
                                  {IFLA_ADDRESS, Kind::bytes, 0, kHardwareAddress}};
constexpr Policy kAddressPolicy[] = {
    {IFA_ADDRESS, Kind::bytes, 4, 4}, {IFA_LOCAL, Kind::bytes, 4, 4}, {IFA_FLAGS, Kind::u32}};
constexpr Policy kNeighbourPolicy[] = {{NDA_DST, Kind::bytes, 4, 16},
                                       {NDA_LLADDR, Kind::bytes, 0, kHardwareAddress},
                                       {NDA_PROTOCOL, Kind::u8},
                                       {NDA_MASTER, Kind::u32},
                                       {NDA_VLAN, Kind::u16}};

template <std::size_t N>
std::optional<std::array<std::uint8_t, N>> arrayOf(const std::optional<Netlink::Bytes>& bytes) {
  if (!bytes || bytes->size() != N) return std::nullopt;
  std::array<std::uint8_t, N> array;
  std::memcpy(array.data(), bytes->data(), N);
  return array;
}

std::optional<Lanix::EthAddr> macOf(const std::optional<Netlink::Bytes>& bytes) {
  const auto array = arrayOf<6>(bytes);
  if (!array) return std::nullopt;
  return Lanix::EthAddr(*array);
}

// 0 for an index that no device has.
IfIndex indexOf(int index) { return index > 0 ? static_cast<IfIndex>(index) : 0; }

std::optional<Lanix::IpGenAddr> neighbourAddress(std::uint8_t family,
                                                 const std::optional<Netlink::Bytes>& bytes) {
  if (family == AF_INET) {
    if (const auto four = arrayOf<4>(bytes)) return Lanix::IpAddr(*four);
  } else if (family == AF_INET6) {
    if (const auto six = arrayOf<16>(bytes)) return Lanix::Ip6Addr(*six);
  }
  return std::nullopt;
}

std::optional<Arp::Table::ArpEntry> neighbourEntry(const ndmsg& header, const Attributes& attributes,
                                                   const Lanix::IpGenAddr& address) {
  constexpr unsigned kStatic = NUD_PERMANENT | NUD_NOARP;
  constexpr unsigned kDynamic = NUD_REACHABLE | NUD_STALE | NUD_DELAY | NUD_PROBE;
  if ((header.ndm_flags & (NTF_EXT_LEARNED | NTF_PROXY)) != 0) return std::nullopt;
  if (address.isMulticast() || address.isUnspecified()) return std::nullopt;
  const auto mac = macOf(attributes.bytes(NDA_LLADDR));
  if (!mac || mac->isZero() || (header.ndm_state & (kStatic | kDynamic)) == 0) return std::nullopt;
  Arp::Table::ArpEntry entry{*mac, (header.ndm_state & kStatic) != 0, 0};
  if (entry.isStatic) {
    const bool own = attributes.u8(NDA_PROTOCOL).value_or(0) == Arp::Table::kArpTypeOwn;
    entry.arpType = own ? Arp::Table::kArpTypeOwn : Arp::Table::kArpTypeForeign;
  }
  return entry;
}

}  // namespace

std::optional<LinkMessage> readLink(const Netlink::Received& message) {
  const auto header = message.header<ifinfomsg>();
  if (!header || header->ifi_family != AF_UNSPEC || header->ifi_index <= 0) return std::nullopt;
  const Attributes attributes(message.attributes(sizeof(ifinfomsg)), kLinkPolicy);
  const auto name = attributes.string(IFLA_IFNAME);
  if (!name || name->empty() || name->size() >= kDeviceName) return std::nullopt;
  return LinkMessage{indexOf(header->ifi_index),
                     {Mox::String(*name), macOf(attributes.bytes(IFLA_ADDRESS)).value_or(Lanix::EthAddr())}};
}

std::optional<AddressMessage> readAddress(const Netlink::Received& message) {
  const auto header = message.header<ifaddrmsg>();
  if (!header || header->ifa_family != AF_INET || header->ifa_prefixlen > 32) return std::nullopt;
  if (header->ifa_index == 0 || header->ifa_index > INT32_MAX) return std::nullopt;
  const Attributes attributes(message.attributes(sizeof(ifaddrmsg)), kAddressPolicy);
  // On a point-to-point device IFA_ADDRESS is the other end.
  const auto local =
      arrayOf<4>(attributes.has(IFA_LOCAL) ? attributes.bytes(IFA_LOCAL) : attributes.bytes(IFA_ADDRESS));
  if (!local || Lanix::IpAddr(*local).isUnspecified()) return std::nullopt;
  const std::uint32_t flags = attributes.u32(IFA_FLAGS).value_or(header->ifa_flags);
  return AddressMessage{header->ifa_index, Lanix::IpAddr(*local), header->ifa_prefixlen,
                        (flags & IFA_F_SECONDARY) != 0};
}

std::optional<NeighbourMessage> readNeighbour(const Netlink::Received& message) {
  const auto header = message.header<ndmsg>();
  if (!header || header->ndm_ifindex <= 0) return std::nullopt;
  const Attributes attributes(message.attributes(sizeof(ndmsg)), kNeighbourPolicy);
  const auto address = neighbourAddress(header->ndm_family, attributes.bytes(NDA_DST));
  if (!address) return std::nullopt;
  return NeighbourMessage{indexOf(header->ndm_ifindex), *address,
                          neighbourEntry(*header, attributes, *address)};
}

bool isMacMessage(const Netlink::Received& message) {
  const auto header = message.header<ndmsg>();
  return header && header->ndm_family == AF_BRIDGE;
}

std::optional<MacMessage> readMac(const Netlink::Received& message) {
  const auto header = message.header<ndmsg>();
  if (!header || header->ndm_family != AF_BRIDGE || header->ndm_ifindex <= 0) return std::nullopt;
  const Attributes attributes(message.attributes(sizeof(ndmsg)), kNeighbourPolicy);
  const auto bridge = attributes.u32(NDA_MASTER);
  const auto mac = macOf(attributes.bytes(NDA_LLADDR));
  if (!bridge || *bridge == 0 || !mac || mac->isZero() || mac->isMulticast()) return std::nullopt;
  if ((header->ndm_flags & NTF_SELF) != 0 || attributes.u16(NDA_VLAN).value_or(0) != 0) return std::nullopt;
  MacMessage result{*bridge, indexOf(header->ndm_ifindex), *mac, MacMessage::Kind::learned};
  if ((header->ndm_state & NUD_PERMANENT) != 0 || result.port == result.bridge) {
    result.kind = MacMessage::Kind::own;
  } else if ((header->ndm_flags & NTF_EXT_LEARNED) != 0) {
    result.kind = MacMessage::Kind::externally;
  } else if ((header->ndm_state & NUD_NOARP) != 0) {
    result.kind = MacMessage::Kind::configured;
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
      return std::move(
          Netlink::Message(RTM_GETLINK).header(ifinfomsg{}).u32(IFLA_EXT_MASK, RTEXT_FILTER_SKIP_STATS));
    case Table::addresses: {
      ifaddrmsg header{};
      header.ifa_family = AF_INET;
      return std::move(Netlink::Message(RTM_GETADDR).header(header));
    }
    case Table::neighbours:
      return std::move(Netlink::Message(RTM_GETNEIGH).header(ndmsg{}));
    case Table::macs:
      break;
  }
  ndmsg header{};
  header.ndm_family = AF_BRIDGE;
  return std::move(Netlink::Message(RTM_GETNEIGH).header(header));
}

}  // namespace KernelState
