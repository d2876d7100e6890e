#include "ArpService/Neighbour.h"

#include <linux/neighbour.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <utility>

#include "Arp/Table.h"

namespace ArpService {
namespace {

using Netlink::Message;

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

bool isOwnStatic(const Netlink::Neighbour& neighbour) {
  return (neighbour.state & NUD_PERMANENT) != 0 && neighbour.protocol == Arp::Table::kArpTypeOwn;
}

bool isStale(const Netlink::Neighbour& neighbour) {
  return (neighbour.state & NUD_STALE) != 0 && !neighbour.isForeign();
}

Verdict judge(const Arp::ArpEntryInput* wanted, const Netlink::Neighbour& actual) {
  const bool own = isOwnStatic(actual);
  if (!wanted) return own ? Verdict::remove : Verdict::leave;
  // An operator's, or another program's.
  if (!own && (actual.isStatic() || actual.isForeign())) return Verdict::leave;
  const bool same = actual.mac == wanted->mac;
  if (own) return same && !wanted->dynamic ? Verdict::leave : Verdict::write;
  if (!actual.isResolved()) return Verdict::write;
  if (wanted->dynamic) return same ? Verdict::leave : Verdict::write;
  // What the kernel resolved by itself serves a local host better: it notices when the host goes. The agent
  // takes its entry back when it sees that.
  return wanted->arpType == Arp::kArpTypeLocal ? Verdict::leave : Verdict::write;
}

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
