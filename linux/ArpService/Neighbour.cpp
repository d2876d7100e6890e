#include "ArpService/Neighbour.h"

#include <linux/if_link.h>
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

#include "Arp/Table.h"
#include "Bridging/VlanId.h"

namespace ArpService {
namespace {

using Netlink::Kind;
using Netlink::Message;
using Netlink::Policy;

constexpr std::uint16_t kDeviceName = 16;       // IFNAMSIZ, with the NUL
constexpr std::uint16_t kHardwareAddress = 32;  // MAX_ADDR_LEN of the kernel
constexpr unsigned kStatic = NUD_PERMANENT | NUD_NOARP;
constexpr unsigned kResolved = NUD_REACHABLE | NUD_STALE | NUD_DELAY | NUD_PROBE;

// Arp::ArpEntryInput::arpType
constexpr std::uint8_t kLocalBinding = 1;

constexpr Policy kLinkPolicy[] = {{IFLA_IFNAME, Kind::string, 2, kDeviceName}};
constexpr Policy kNeighbourPolicy[] = {{NDA_DST, Kind::bytes, 4, 16},
                                       {NDA_LLADDR, Kind::bytes, 0, kHardwareAddress},
                                       {NDA_PROTOCOL, Kind::u8},
                                       {NDA_CACHEINFO, Kind::bytes, sizeof(nda_cacheinfo), 0}};

std::optional<Lanix::IpGenAddr> addressOf(std::uint8_t family, const std::optional<Netlink::Bytes>& bytes) {
  if (!bytes) return std::nullopt;
  if (family == AF_INET && bytes->size() == 4) {
    Lanix::IpAddr::Bytes four;
    std::memcpy(four.data(), bytes->data(), four.size());
    return Lanix::IpAddr(four);
  }
  if (family == AF_INET6 && bytes->size() == 16) {
    Lanix::Ip6Addr::Bytes six;
    std::memcpy(six.data(), bytes->data(), six.size());
    return Lanix::Ip6Addr(six);
  }
  return std::nullopt;
}

Message request(std::uint16_t type, std::uint16_t flags, IfIndex ifIndex, const Lanix::IpGenAddr& address,
                std::uint16_t state = 0, std::uint8_t neighbourFlags = 0) {
  ndmsg header{};
  header.ndm_family = address.isIpv4() ? AF_INET : AF_INET6;
  header.ndm_ifindex = static_cast<int>(ifIndex);
  header.ndm_state = state;
  header.ndm_flags = neighbourFlags;
  Message message(type, flags);
  message.header(header).bytes(NDA_DST,
                               std::as_bytes(std::span(address.bytes())).first(address.isIpv4() ? 4 : 16));
  return message;
}

}  // namespace

std::optional<Device> readDevice(const Netlink::Received& message) {
  const auto header = message.header<ifinfomsg>();
  if (!header || header->ifi_family != AF_UNSPEC || header->ifi_index <= 0) return std::nullopt;
  const Netlink::Attributes attributes(message.attributes(sizeof(ifinfomsg)), kLinkPolicy);
  const auto name = attributes.string(IFLA_IFNAME);
  if (!name) return std::nullopt;
  Device device{static_cast<IfIndex>(header->ifi_index), Lanix::IntfId::fromName(*name)};
  if (!Bridging::VlanId::valid(device.intf.vlanNumber()) || device.intf.kernelName() != *name)
    device.intf = Lanix::IntfId();
  return device;
}

bool Neighbour::isStatic() const { return (state & kStatic) != 0; }

bool Neighbour::isOwnStatic() const {
  return (state & NUD_PERMANENT) != 0 && protocol == Arp::Table::kArpTypeOwn;
}

bool Neighbour::isStale() const {
  return (state & NUD_STALE) != 0 && (flags & (NTF_EXT_LEARNED | NTF_PROXY)) == 0;
}

std::optional<Neighbour> readNeighbour(const Netlink::Received& message) {
  static const double ticksPerSecond = static_cast<double>(sysconf(_SC_CLK_TCK));
  const auto header = message.header<ndmsg>();
  if (!header || header->ndm_ifindex <= 0) return std::nullopt;
  const Netlink::Attributes attributes(message.attributes(sizeof(ndmsg)), kNeighbourPolicy);
  const auto address = addressOf(header->ndm_family, attributes.bytes(NDA_DST));
  if (!address) return std::nullopt;
  Neighbour neighbour{
      static_cast<IfIndex>(header->ndm_ifindex), *address, {}, header->ndm_state, header->ndm_flags,
      attributes.u8(NDA_PROTOCOL).value_or(0)};
  if (const auto mac = attributes.bytes(NDA_LLADDR); mac && mac->size() == 6) {
    Lanix::EthAddr::Bytes bytes;
    std::memcpy(bytes.data(), mac->data(), bytes.size());
    neighbour.mac = Lanix::EthAddr(bytes);
  }
  if (const auto bytes = attributes.bytes(NDA_CACHEINFO)) {
    nda_cacheinfo times;
    std::memcpy(&times, bytes->data(), sizeof times);
    neighbour.confirmedAgo = times.ndm_confirmed / ticksPerSecond;
  }
  return neighbour;
}

Verdict judge(const Arp::ArpEntryInput* wanted, const Neighbour& actual) {
  const bool own = actual.isOwnStatic();
  if (!wanted) return own ? Verdict::remove : Verdict::leave;
  // An operator's, or another program's.
  if (!own && (actual.isStatic() || (actual.flags & (NTF_EXT_LEARNED | NTF_PROXY)) != 0))
    return Verdict::leave;
  const bool same = actual.mac == wanted->mac;
  if (own) return same && !wanted->dynamic ? Verdict::leave : Verdict::write;
  if ((actual.state & kResolved) == 0) return Verdict::write;
  if (wanted->dynamic) return same ? Verdict::leave : Verdict::write;
  // What the kernel resolved by itself serves a local host better: it notices when the host goes. The agent
  // takes its entry back when it sees that.
  return wanted->arpType == kLocalBinding ? Verdict::leave : Verdict::write;
}

Message deviceDump() {
  return std::move(Message(RTM_GETLINK).header(ifinfomsg{}).u32(IFLA_EXT_MASK, RTEXT_FILTER_SKIP_STATS));
}

Message neighbourDump() { return std::move(Message(RTM_GETNEIGH).header(ndmsg{})); }

Message lookRequest(IfIndex ifIndex, const Lanix::IpGenAddr& address) {
  return request(RTM_GETNEIGH, 0, ifIndex, address);
}

Message removeRequest(IfIndex ifIndex, const Lanix::IpGenAddr& address) {
  return request(RTM_DELNEIGH, 0, ifIndex, address);
}

Message writeRequest(IfIndex ifIndex, const Lanix::IpGenAddr& address, const Arp::ArpEntryInput& wanted,
                     std::uint16_t flags) {
  Message message = request(RTM_NEWNEIGH, static_cast<std::uint16_t>(NLM_F_CREATE | flags), ifIndex, address,
                            wanted.dynamic ? NUD_REACHABLE : NUD_PERMANENT);
  message.bytes(NDA_LLADDR, std::as_bytes(std::span(wanted.mac.bytes())))
      .u8(NDA_PROTOCOL, Arp::Table::kArpTypeOwn);
  return message;
}

Message probeRequest(IfIndex ifIndex, const Lanix::IpGenAddr& address) {
  return request(RTM_NEWNEIGH, 0, ifIndex, address, 0, NTF_USE);
}

}  // namespace ArpService
