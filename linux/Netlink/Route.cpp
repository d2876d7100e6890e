#include "Netlink/Route.h"

#include <arpa/inet.h>
#include <linux/if_addr.h>
#include <linux/if_bridge.h>
#include <linux/if_link.h>
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <utility>

namespace Netlink {
namespace {

constexpr std::uint16_t kDeviceName = 16;       // IFNAMSIZ, with the NUL
constexpr std::uint16_t kHardwareAddress = 32;  // MAX_ADDR_LEN of the kernel
constexpr std::uint16_t kKindName = 64;
constexpr std::uint8_t kOperationalUp = 6;  // IF_OPER_UP of linux/if.h, which does not go with net/if.h
constexpr std::uint16_t kAlias = 256;       // IFALIASZ, with the NUL

constexpr Policy kLinkPolicy[] = {{IFLA_IFNAME, Kind::string, 2, kDeviceName},
                                  {IFLA_ADDRESS, Kind::bytes, 0, kHardwareAddress},
                                  {IFLA_MASTER, Kind::u32},
                                  {IFLA_LINK, Kind::u32},
                                  {IFLA_LINK_NETNSID, Kind::u32},
                                  {IFLA_OPERSTATE, Kind::u8},
                                  {IFLA_MTU, Kind::u32},
                                  {IFLA_GROUP, Kind::u32},
                                  {IFLA_IFALIAS, Kind::string, 0, kAlias},
                                  {IFLA_XDP, Kind::nested},
                                  {IFLA_LINKINFO, Kind::nested},
                                  {IFLA_PROTINFO, Kind::nested}};
constexpr Policy kXdpPolicy[] = {{IFLA_XDP_PROG_ID, Kind::u32}};
constexpr Policy kInfoPolicy[] = {{IFLA_INFO_KIND, Kind::string, 1, kKindName},
                                  {IFLA_INFO_DATA, Kind::nested},
                                  {IFLA_INFO_SLAVE_KIND, Kind::string, 1, kKindName},
                                  {IFLA_INFO_SLAVE_DATA, Kind::nested}};
constexpr Policy kBridgePolicy[] = {{IFLA_BR_VLAN_FILTERING, Kind::u8}, {IFLA_BR_VLAN_PROTOCOL, Kind::u16}};
constexpr Policy kVlanPolicy[] = {{IFLA_VLAN_ID, Kind::u16}};
constexpr Policy kVxlanPolicy[] = {{IFLA_VXLAN_COLLECT_METADATA, Kind::u8}};
constexpr Policy kVlanEntryPolicy[] = {
    {BRIDGE_VLANDB_ENTRY_INFO, Kind::bytes, sizeof(bridge_vlan_info), sizeof(bridge_vlan_info)},
    {BRIDGE_VLANDB_ENTRY_RANGE, Kind::u16},
    {BRIDGE_VLANDB_ENTRY_STATE, Kind::u8}};
constexpr Policy kPortPolicy[] = {
    {IFLA_BRPORT_STATE, Kind::u8},         {IFLA_BRPORT_LEARNING, Kind::u8},
    {IFLA_BRPORT_UNICAST_FLOOD, Kind::u8}, {IFLA_BRPORT_MCAST_FLOOD, Kind::u8},
    {IFLA_BRPORT_BCAST_FLOOD, Kind::u8},   {IFLA_BRPORT_NEIGH_SUPPRESS, Kind::u8},
    {IFLA_BRPORT_LOCKED, Kind::u8}};
constexpr Policy kAddressPolicy[] = {
    {IFA_ADDRESS, Kind::bytes, 4, 4}, {IFA_LOCAL, Kind::bytes, 4, 4}, {IFA_FLAGS, Kind::u32}};
constexpr Policy kNeighbourPolicy[] = {
    {NDA_DST, Kind::bytes, 4, 16}, {NDA_LLADDR, Kind::bytes, 0, kHardwareAddress},
    {NDA_PROTOCOL, Kind::u8},      {NDA_MASTER, Kind::u32},
    {NDA_VLAN, Kind::u16},         {NDA_CACHEINFO, Kind::bytes, sizeof(nda_cacheinfo), 0}};

constexpr Policy kNeighbourTablePolicy[] = {
    {NDTA_THRESH1, Kind::u32}, {NDTA_CONFIG, Kind::bytes, sizeof(ndt_config), 0}, {NDTA_PARMS, Kind::nested}};
constexpr Policy kNeighbourParametersPolicy[] = {{NDTPA_IFINDEX, Kind::u32}, {NDTPA_GC_STALETIME, Kind::u64}};

template <class Address>
std::optional<Address> addressOf(const std::optional<Bytes>& bytes) {
  typename Address::Bytes array;
  if (!bytes || bytes->size() != array.size()) return std::nullopt;
  std::memcpy(array.data(), bytes->data(), array.size());
  return Address(array);
}

std::optional<BridgePort> portOf(const Attributes& attributes) {
  const auto state = attributes.u8(IFLA_BRPORT_STATE);
  if (!state) return std::nullopt;
  const auto isSet = [&](std::uint16_t flag) { return attributes.u8(flag).value_or(0) != 0; };
  return BridgePort{*state,
                    isSet(IFLA_BRPORT_LEARNING),
                    isSet(IFLA_BRPORT_UNICAST_FLOOD),
                    isSet(IFLA_BRPORT_MCAST_FLOOD),
                    isSet(IFLA_BRPORT_BCAST_FLOOD),
                    isSet(IFLA_BRPORT_NEIGH_SUPPRESS),
                    isSet(IFLA_BRPORT_LOCKED)};
}

}  // namespace

std::optional<Link> readLink(const Received& message) {
  const auto header = message.header<ifinfomsg>();
  if (!header || header->ifi_index <= 0) return std::nullopt;
  if (header->ifi_family != AF_UNSPEC && header->ifi_family != AF_BRIDGE) return std::nullopt;
  const Attributes attributes(message.attributes(sizeof(ifinfomsg)), kLinkPolicy);
  const auto name = attributes.string(IFLA_IFNAME);
  if (!name || name->empty() || name->size() >= kDeviceName) return std::nullopt;
  Link link;
  link.index = static_cast<IfIndex>(header->ifi_index);
  link.master = attributes.u32(IFLA_MASTER).value_or(0);
  (attributes.has(IFLA_LINK_NETNSID) ? link.peerElsewhere : link.peer) =
      attributes.u32(IFLA_LINK).value_or(0);
  link.flags = header->ifi_flags;
  link.operational = attributes.u8(IFLA_OPERSTATE) == kOperationalUp;
  link.mtu = attributes.u32(IFLA_MTU).value_or(0);
  link.group = attributes.u32(IFLA_GROUP).value_or(0);
  link.xdpProgram = attributes.nested(IFLA_XDP, kXdpPolicy).u32(IFLA_XDP_PROG_ID).value_or(0);
  link.name = *name;
  link.alias = attributes.string(IFLA_IFALIAS).value_or("");
  link.mac = addressOf<Lanix::EthAddr>(attributes.bytes(IFLA_ADDRESS)).value_or(Lanix::EthAddr());
  link.ofBridge = header->ifi_family == AF_BRIDGE;
  const Attributes info = attributes.nested(IFLA_LINKINFO, kInfoPolicy);
  link.kind = info.string(IFLA_INFO_KIND).value_or("");
  link.masterKind = info.string(IFLA_INFO_SLAVE_KIND).value_or("");
  if (link.kind == "bridge") {
    const Attributes bridge = info.nested(IFLA_INFO_DATA, kBridgePolicy);
    link.filtersVlans = bridge.u8(IFLA_BR_VLAN_FILTERING).value_or(0) != 0;
    link.vlanProtocol = ntohs(bridge.u16(IFLA_BR_VLAN_PROTOCOL).value_or(0));
  } else if (link.kind == "vxlan") {
    link.collectsMetadata =
        info.nested(IFLA_INFO_DATA, kVxlanPolicy).u8(IFLA_VXLAN_COLLECT_METADATA).value_or(0) != 0;
  } else if (link.kind == "vlan") {
    link.vlanId = info.nested(IFLA_INFO_DATA, kVlanPolicy).u16(IFLA_VLAN_ID).value_or(0);
    link.lower = attributes.u32(IFLA_LINK).value_or(0);
  }
  if (link.ofBridge) {
    link.port = portOf(attributes.nested(IFLA_PROTINFO, kPortPolicy));
  } else if (link.masterKind == "bridge") {
    link.port = portOf(info.nested(IFLA_INFO_SLAVE_DATA, kPortPolicy));
  }
  return link;
}

bool isFeedDevice(const Link& device, const Link& bridge, std::uint16_t vlanId) {
  if (bridge.kind != "bridge") return false;
  if (!bridge.filtersVlans) return device.index == bridge.index;
  // `peer` is the device below it only where that is in the same namespace.
  return device.kind == "vlan" && device.vlanId == vlanId && device.peer == bridge.index;
}

std::optional<Address> readAddress(const Received& message) {
  const auto header = message.header<ifaddrmsg>();
  if (!header || header->ifa_family != AF_INET || header->ifa_prefixlen > 32) return std::nullopt;
  if (header->ifa_index == 0 || header->ifa_index > INT32_MAX) return std::nullopt;
  const Attributes attributes(message.attributes(sizeof(ifaddrmsg)), kAddressPolicy);
  // On a point-to-point device IFA_ADDRESS is the other end.
  const auto local =
      addressOf<Lanix::IpAddr>(attributes.bytes(attributes.has(IFA_LOCAL) ? IFA_LOCAL : IFA_ADDRESS));
  if (!local || local->isUnspecified()) return std::nullopt;
  const std::uint32_t flags = attributes.u32(IFA_FLAGS).value_or(header->ifa_flags);
  return Address{header->ifa_index, *local, header->ifa_prefixlen, (flags & IFA_F_SECONDARY) != 0};
}

bool Neighbour::isStatic() const { return (state & (NUD_PERMANENT | NUD_NOARP)) != 0; }

bool Neighbour::isResolved() const {
  return (state & (NUD_REACHABLE | NUD_STALE | NUD_DELAY | NUD_PROBE)) != 0;
}

bool Neighbour::isForeign() const { return (flags & (NTF_EXT_LEARNED | NTF_PROXY)) != 0; }

std::optional<Neighbour> readNeighbour(const Received& message) {
  static const double ticksPerSecond = static_cast<double>(sysconf(_SC_CLK_TCK));
  const auto header = message.header<ndmsg>();
  if (!header || header->ndm_ifindex <= 0) return std::nullopt;
  const Attributes attributes(message.attributes(sizeof(ndmsg)), kNeighbourPolicy);
  if (attributes.malformed()) return std::nullopt;
  Neighbour neighbour;
  const auto destination = attributes.bytes(NDA_DST);
  if (header->ndm_family == AF_INET) {
    if (const auto four = addressOf<Lanix::IpAddr>(destination)) neighbour.address = *four;
  } else if (header->ndm_family == AF_INET6) {
    if (const auto six = addressOf<Lanix::Ip6Addr>(destination)) neighbour.address = *six;
  } else if (header->ndm_family == AF_BRIDGE) {
    neighbour.bridge = attributes.u32(NDA_MASTER).value_or(0);
  }
  if (!neighbour.address && header->ndm_family != AF_BRIDGE) return std::nullopt;
  neighbour.ifIndex = static_cast<IfIndex>(header->ndm_ifindex);
  neighbour.mac = addressOf<Lanix::EthAddr>(attributes.bytes(NDA_LLADDR)).value_or(Lanix::EthAddr());
  neighbour.state = header->ndm_state;
  neighbour.flags = header->ndm_flags;
  neighbour.protocol = attributes.u8(NDA_PROTOCOL).value_or(0);
  neighbour.vlan = attributes.u16(NDA_VLAN).value_or(0);
  if (const auto bytes = attributes.bytes(NDA_CACHEINFO)) {
    nda_cacheinfo times;
    std::memcpy(&times, bytes->data(), sizeof times);
    neighbour.confirmedAgo = times.ndm_confirmed / ticksPerSecond;
    neighbour.usedAgo = times.ndm_used / ticksPerSecond;
  }
  return neighbour;
}

std::optional<NeighbourTable> readNeighbourTable(const Received& message) {
  constexpr double kMilliseconds = 1e3;
  const auto header = message.header<ndtmsg>();
  if (!header || (header->ndtm_family != AF_INET && header->ndtm_family != AF_INET6)) return std::nullopt;
  const Attributes attributes(message.attributes(sizeof(ndtmsg)), kNeighbourTablePolicy);
  const Attributes parameters = attributes.nested(NDTA_PARMS, kNeighbourParametersPolicy);
  const auto stale = parameters.u64(NDTPA_GC_STALETIME);
  if (!stale) return std::nullopt;
  NeighbourTable table;
  table.isIpv4 = header->ndtm_family == AF_INET;
  table.ifIndex = parameters.u32(NDTPA_IFINDEX).value_or(0);
  table.gcThreshold1 = attributes.u32(NDTA_THRESH1).value_or(0);
  table.gcStaleSeconds = static_cast<double>(*stale) / kMilliseconds;
  if (const auto bytes = attributes.bytes(NDTA_CONFIG)) {
    ndt_config config;
    std::memcpy(&config, bytes->data(), sizeof config);
    table.entries = config.ndtc_entries;
  }
  return table;
}

std::optional<BridgeVlans> readBridgeVlans(const Received& message) {
  constexpr std::uint16_t kHighest = 4094;
  const auto header = message.header<br_vlan_msg>();
  if (!header || header->family != AF_BRIDGE || header->ifindex == 0) return std::nullopt;
  BridgeVlans vlans;
  vlans.ifIndex = header->ifindex;
  bool sound = true;
  const bool whole =
      Attributes::each(message.attributes(sizeof(br_vlan_msg)), BRIDGE_VLANDB_ENTRY, kVlanEntryPolicy,
                       [&](const Attributes& entry) {
                         const auto bytes = entry.bytes(BRIDGE_VLANDB_ENTRY_INFO);
                         if (!bytes) return;
                         bridge_vlan_info info;
                         std::memcpy(&info, bytes->data(), sizeof info);
                         // Without a state it is the port's.
                         const auto state = entry.u8(BRIDGE_VLANDB_ENTRY_STATE).value_or(BR_STATE_FORWARDING);
                         const std::uint16_t last = entry.u16(BRIDGE_VLANDB_ENTRY_RANGE).value_or(info.vid);
                         sound = sound && info.vid >= 1 && info.vid <= last && last <= kHighest;
                         if (!sound) return;
                         if ((info.flags & BRIDGE_VLAN_INFO_PVID) != 0) vlans.pvid = info.vid;
                         for (std::size_t vid = info.vid; vid <= last; ++vid) {
                           vlans.carried.set(vid);
                           if ((info.flags & BRIDGE_VLAN_INFO_UNTAGGED) != 0) vlans.untagged.set(vid);
                           if (state != BR_STATE_FORWARDING) vlans.blocked.set(vid);
                         }
                       });
  if (!whole || !sound) return std::nullopt;
  return vlans;
}

const char* nameOf(Table table) {
  constexpr const char* kNames[] = {"devices", "addresses", "neighbours", "MAC tables"};
  return kNames[static_cast<std::size_t>(table)];
}

Message dumpRequest(Table table) {
  switch (table) {
    case Table::links:
      return linkDump();
    case Table::addresses: {
      ifaddrmsg header{};
      header.ifa_family = AF_INET;
      return std::move(Message(RTM_GETADDR).header(header));
    }
    case Table::neighbours:
      return neighbourDump(AF_UNSPEC);
    case Table::macs:
      break;
  }
  return neighbourDump(AF_BRIDGE);
}

Message bridgeVlansDump(IfIndex ifIndex) {
  br_vlan_msg header{};
  header.family = AF_BRIDGE;
  header.ifindex = ifIndex;
  return std::move(Message(RTM_GETVLAN).header(header));
}

Message linkDump() {
  return std::move(Message(RTM_GETLINK).header(ifinfomsg{}).u32(IFLA_EXT_MASK, RTEXT_FILTER_SKIP_STATS));
}

Message neighbourTableDump() { return std::move(Message(RTM_GETNEIGHTBL).header(ndtmsg{})); }

Message neighbourDump(std::uint8_t family) {
  ndmsg header{};
  header.ndm_family = family;
  return std::move(Message(RTM_GETNEIGH).header(header));
}

Message neighbourGet(IfIndex ifIndex, const Lanix::IpGenAddr& address) {
  ndmsg header{};
  header.ndm_family = address.isIpv4() ? AF_INET : AF_INET6;
  header.ndm_ifindex = static_cast<int>(ifIndex);
  const auto bytes = address.bytes();
  Message message(RTM_GETNEIGH);
  message.header(header).bytes(NDA_DST, std::as_bytes(std::span(bytes)).first(address.isIpv4() ? 4 : 16));
  return message;
}

Message macDump(IfIndex port) {
  ndmsg header{};
  header.ndm_family = AF_BRIDGE;
  header.ndm_ifindex = static_cast<int>(port);
  return std::move(Message(RTM_GETNEIGH).header(header));
}

Message macGet(IfIndex bridge, const Lanix::EthAddr& mac, std::uint16_t vlan) {
  ndmsg header{};
  header.ndm_family = AF_BRIDGE;
  Message message(RTM_GETNEIGH);
  const auto bytes = mac.bytes();
  message.header(header).u32(NDA_MASTER, bridge).bytes(NDA_LLADDR, std::as_bytes(std::span(bytes)));
  if (vlan != 0) message.u16(NDA_VLAN, vlan);
  return message;
}

}  // namespace Netlink
