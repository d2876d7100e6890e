#include "ArpService/Neighbour.h"

#include <linux/neighbour.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <cerrno>
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

bool isFull(const Mox::Failure& failure) {
  return failure.number == ENOBUFS || failure.number == ENOMEM || failure.number == ENOSPC;
}

bool isOwnStatic(const Netlink::Neighbour& neighbour) {
  return (neighbour.state & NUD_PERMANENT) != 0 && neighbour.protocol == Arp::Table::kArpTypeOwn;
}

bool isStale(const Netlink::Neighbour& neighbour) {
  return (neighbour.state & NUD_STALE) != 0 && !neighbour.isForeign();
}

Verdict judge(const Wish& wish, const Netlink::Neighbour& actual) {
  using Kind = Wish::Kind;
  const bool own = isOwnStatic(actual);
  if (wish.kind == Kind::nothing) return own ? Verdict::remove : Verdict::leave;
  // An operator's, or another program's.
  if (!own && (actual.isStatic() || actual.isForeign())) return Verdict::leave;
  const bool same = actual.mac == wish.mac;
  if (wish.kind == Kind::answered) {
    if (own) return Verdict::remove;
    const bool underWay = (actual.state & NUD_INCOMPLETE) != 0;
    return underWay || actual.isResolved() ? Verdict::leave : Verdict::write;
  }
  if (own) return same && wish.kind == Kind::permanent ? Verdict::leave : Verdict::write;
  if (!actual.isResolved()) return Verdict::write;
  // What the kernel resolved by itself serves a local host better: it notices when the host goes. The agent
  // takes its entry back when it sees that.
  if (wish.yields) return Verdict::leave;
  return same && wish.kind == Kind::reachable ? Verdict::leave : Verdict::write;
}

Message removeRequest(IfIndex ifIndex, const Lanix::IpGenAddr& address) {
  return request(RTM_DELNEIGH, 0, ifIndex, address);
}

Message writeRequest(IfIndex ifIndex, const Lanix::IpGenAddr& address, const Wish& wish,
                     std::uint16_t flags) {
  const auto all = static_cast<std::uint16_t>(NLM_F_CREATE | flags);
  const bool asks = wish.kind == Wish::Kind::answered;
  const std::uint16_t state = asks ? 0 : wish.kind == Wish::Kind::reachable ? NUD_REACHABLE : NUD_PERMANENT;
  Message message = request(RTM_NEWNEIGH, all, ifIndex, address, state, asks ? NTF_USE : 0);
  if (!asks) message.bytes(NDA_LLADDR, std::as_bytes(std::span(wish.mac.bytes())));
  message.u8(NDA_PROTOCOL, Arp::Table::kArpTypeOwn);
  return message;
}

Message probeRequest(IfIndex ifIndex, const Lanix::IpGenAddr& address) {
  return request(RTM_NEWNEIGH, 0, ifIndex, address, 0, NTF_USE);
}

}  // namespace ArpService
