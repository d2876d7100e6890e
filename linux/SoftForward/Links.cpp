#include "SoftForward/Links.h"

#include <fcntl.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <linux/veth.h>
#include <net/if.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

namespace SoftForward {
namespace {

using Netlink::Kind;
using Netlink::Message;

constexpr Netlink::Policy kLinkPolicy[] = {{IFLA_IFNAME, Kind::string, 1, IFNAMSIZ},
                                           {IFLA_LINK, Kind::u32},
                                           {IFLA_LINK_NETNSID, Kind::u32},
                                           {IFLA_MASTER, Kind::u32},
                                           {IFLA_LINKINFO, Kind::nested}};
constexpr Netlink::Policy kLinkInfoPolicy[] = {{IFLA_INFO_KIND, Kind::string, 1, 64}};

ifinfomsg byIndex(std::uint32_t index) {
  ifinfomsg header{};
  header.ifi_index = static_cast<int>(index);
  return header;
}

std::optional<Link> linkOf(const Netlink::Received& message) {
  const auto header = message.header<ifinfomsg>();
  if (message.type() != RTM_NEWLINK || !header || header->ifi_index <= 0) return std::nullopt;
  const Netlink::Attributes attributes(message.attributes(sizeof(ifinfomsg)), kLinkPolicy);
  const auto name = attributes.string(IFLA_IFNAME);
  if (!name) return std::nullopt;
  Link link;
  link.index = static_cast<std::uint32_t>(header->ifi_index);
  link.name = *name;
  link.master = attributes.u32(IFLA_MASTER).value_or(0);
  if (!attributes.has(IFLA_LINK_NETNSID)) link.peer = attributes.u32(IFLA_LINK).value_or(0);
  const Netlink::Attributes info = attributes.nested(IFLA_LINKINFO, kLinkInfoPolicy);
  link.kind = info.string(IFLA_INFO_KIND).value_or("");
  return link;
}

Failure failed(const std::string& name, const std::string& step, const Mox::Result<>& result) {
  if (result) return std::nullopt;
  return Netlink::describe("device " + name + ": " + step, result).error();
}

}  // namespace

std::optional<Link> Links::find(const std::string& name, Failure& failure) {
  std::optional<Link> link;
  const Mox::Result<> result =
      socket_.get(std::move(Message(RTM_GETLINK).header(ifinfomsg{}).string(IFLA_IFNAME, name)),
                  [&](const Netlink::Received& message) { link = linkOf(message); });
  failure.reset();
  if (result && link) return link;
  if (result.number() == ENODEV) return std::nullopt;
  failure = !result ? failed(name, "looking it up", result)
                    : "device " + name + ": the kernel's description is malformed";
  return std::nullopt;
}

Failure Links::forEach(const std::function<void(const Link&)>& visit) {
  std::vector<Link> links;
  const Mox::Result<> result = socket_.dump(
      Message(RTM_GETLINK).header(ifinfomsg{}),
      [&](const Netlink::Received& message) {
        if (auto link = linkOf(message)) links.push_back(std::move(*link));
      },
      [&] { links.clear(); });
  if (!result) return Netlink::describe("listing network devices", result).error();
  for (const Link& link : links) visit(link);
  return std::nullopt;
}

Failure Links::mtuIs(const std::string& name, std::uint32_t index, std::uint32_t mtu) {
  return failed(name, "setting its MTU to " + std::to_string(mtu),
                socket_.request(std::move(Message(RTM_SETLINK).header(byIndex(index)).u32(IFLA_MTU, mtu))));
}

Failure Links::pairIs(const PairNames& names, std::uint32_t mtu,
                      const std::optional<MacAddress>& innerAddress, Pair& pair) {
  Failure failure;
  std::optional<Link> outer = find(names.outer, failure);
  if (failure) return failure;
  std::optional<Link> inner = find(names.inner, failure);
  if (failure) return failure;
  if (!outer && !inner) {
    Message message(RTM_NEWLINK, NLM_F_CREATE | NLM_F_EXCL);
    message.header(ifinfomsg{}).string(IFLA_IFNAME, names.outer).nest(IFLA_LINKINFO, [&](Message& info) {
      info.string(IFLA_INFO_KIND, "veth").nest(IFLA_INFO_DATA, [&](Message& data) {
        data.nest(VETH_INFO_PEER, [&](Message& peer) {
          peer.header(ifinfomsg{}).string(IFLA_IFNAME, names.inner);
          if (innerAddress) peer.bytes(IFLA_ADDRESS, *innerAddress);
        });
      });
    });
    if (failure = failed(names.outer, "making the veth pair with " + names.inner,
                         socket_.request(std::move(message)));
        failure)
      return failure;
    outer = find(names.outer, failure);
    if (failure) return failure;
    inner = find(names.inner, failure);
    if (failure) return failure;
  }
  if (!outer || !inner || outer->kind != "veth" || inner->kind != "veth" || outer->peer != inner->index ||
      inner->peer != outer->index) {
    return "device " + (outer ? names.outer : names.inner) + " exists, but " + names.outer + " and " +
           names.inner + " are not the two ends of one veth pair: rename or remove it";
  }
  pair = {outer->index, inner->index};
  if (failure = mtuIs(names.outer, pair.outer, mtu); failure) return failure;
  return mtuIs(names.inner, pair.inner, mtu);
}

Failure Links::quietIs(const std::string& name, std::uint32_t index) {
  ifinfomsg header = byIndex(index);
  header.ifi_flags = header.ifi_change = IFF_NOARP;
  if (Failure failure =
          failed(name, "turning ARP off", socket_.request(std::move(Message(RTM_SETLINK).header(header)))))
    return failure;
  const std::string path = "/proc/sys/net/ipv6/conf/" + name + "/disable_ipv6";
  const int file = open(path.c_str(), O_WRONLY | O_CLOEXEC);
  if (file < 0 && errno == ENOENT) return std::nullopt;  // a kernel without IPv6
  const bool written = file >= 0 && write(file, "1", 1) == 1;
  const int number = errno;
  if (file >= 0) close(file);
  if (!written) return "device " + name + ": turning IPv6 off by " + path + ": " + std::strerror(number);
  return std::nullopt;
}

Failure Links::upIs(const std::string& name, std::uint32_t index) {
  ifinfomsg header = byIndex(index);
  header.ifi_flags = header.ifi_change = IFF_UP;
  return failed(name, "bringing it up", socket_.request(std::move(Message(RTM_SETLINK).header(header))));
}

Failure Links::silentPortIs(const std::string& name, std::uint32_t index, std::uint32_t bridge) {
  if (Failure failure = failed(
          name, "making it a port of the bridge with index " + std::to_string(bridge),
          socket_.request(std::move(Message(RTM_SETLINK).header(byIndex(index)).u32(IFLA_MASTER, bridge)))))
    return failure;
  Message message(RTM_NEWLINK);
  message.header(byIndex(index)).nest(IFLA_LINKINFO, [](Message& info) {
    info.string(IFLA_INFO_SLAVE_KIND, "bridge").nest(IFLA_INFO_SLAVE_DATA, [](Message& data) {
      for (const std::uint16_t flag : {IFLA_BRPORT_LEARNING, IFLA_BRPORT_UNICAST_FLOOD,
                                       IFLA_BRPORT_MCAST_FLOOD, IFLA_BRPORT_BCAST_FLOOD})
        data.u8(flag, 0);
    });
  });
  return failed(name, "turning learning and flooding off", socket_.request(std::move(message)));
}

Failure Links::bridgeTakes(const std::string& name, std::uint32_t index, const MacAddress& address,
                           bool takes) {
  ndmsg header{};
  header.ndm_family = AF_BRIDGE;
  header.ndm_ifindex = static_cast<int>(index);
  header.ndm_state = NUD_PERMANENT;
  header.ndm_flags = NTF_SELF;
  Message message(takes ? RTM_NEWNEIGH : RTM_DELNEIGH, takes ? NLM_F_CREATE : 0);
  const Mox::Result<> result = socket_.request(std::move(message.header(header).bytes(NDA_LLADDR, address)));
  if (!takes && (result.number() == ENOENT || result.number() == ENODEV)) return std::nullopt;
  return failed(name, takes ? "taking frames to the shared gateway MAC" : "leaving the shared gateway MAC",
                result);
}

Failure Links::xdpIs(const std::string& name, std::uint32_t index, int program) {
  Message message(RTM_SETLINK);
  message.header(byIndex(index)).nest(IFLA_XDP, [&](Message& xdp) {
    xdp.u32(IFLA_XDP_FD, static_cast<std::uint32_t>(program)).u32(IFLA_XDP_FLAGS, XDP_FLAGS_SKB_MODE);
  });
  return failed(name, "attaching the XDP program", socket_.request(std::move(message)));
}

Failure Links::linkDel(const std::string& name, std::uint32_t index) {
  const Mox::Result<> result = socket_.request(std::move(Message(RTM_DELLINK).header(byIndex(index))));
  if (result.number() == ENODEV) return std::nullopt;
  return failed(name, "removing it", result);
}

}  // namespace SoftForward
