#include "SoftForward/Pairs.h"

#include <fcntl.h>
#include <linux/if_bridge.h>
#include <linux/if_link.h>
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>
#include <linux/veth.h>
#include <net/if.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <utility>
#include <vector>

namespace SoftForward {
namespace {

using Mox::Failure;
using Netlink::Link;
using Netlink::Message;

constexpr std::string_view kInnerSuffix = "-sw";
constexpr std::string_view kWayIn = "fabin";
constexpr std::string_view kPortSuffix = "-br";
constexpr std::uint16_t kMaxVlan = 4094;
constexpr std::string_view kTakes = "shared gateway MAC ";  // and what takes it
// One request is not to hold up the event loop: the kernel takes some microseconds for a VLAN.
constexpr std::size_t kVlansAtOnce = 256;

ifinfomsg byIndex(Netlink::IfIndex index, std::uint32_t flagsOn = 0) {
  ifinfomsg header{};
  header.ifi_index = static_cast<int>(index);
  header.ifi_flags = header.ifi_change = flagsOn;
  return header;
}

Mox::Result<> named(const Link& link, const std::string& step, const Mox::Result<>& result) {
  return Netlink::describe("device " + link.name + ": " + step, result);
}

bool isSilent(const std::optional<Netlink::BridgePort>& port) {
  return port && !port->learning && !port->unicastFlood && !port->multicastFlood && !port->broadcastFlood;
}

void silence(Message& message) {
  message.nest(IFLA_LINKINFO, [](Message& info) {
    info.string(IFLA_INFO_SLAVE_KIND, "bridge").nest(IFLA_INFO_SLAVE_DATA, [](Message& data) {
      for (const std::uint16_t flag : {IFLA_BRPORT_LEARNING, IFLA_BRPORT_UNICAST_FLOOD,
                                       IFLA_BRPORT_MCAST_FLOOD, IFLA_BRPORT_BCAST_FLOOD})
        data.u8(flag, 0);
    });
  });
}

}  // namespace

PairNames pairNames(const char* outer) { return {outer, outer + std::string(kInnerSuffix)}; }

PairNames wayInNames(std::uint16_t vlan) {
  const std::string outer = std::string(kWayIn) + std::to_string(vlan);
  return {outer, outer + std::string(kPortSuffix)};
}

PairNames trunkWayInNames(Netlink::IfIndex bridge) {
  const std::string outer = std::string(kWayIn) + "-" + std::to_string(bridge);
  return {outer, outer + std::string(kPortSuffix)};
}

std::optional<Owner> ownerOf(std::string_view name) {
  for (const char* outer : {kSnoop, kInject, kFabric}) {
    if (name.starts_with(outer) &&
        (name.substr(std::strlen(outer)).empty() || name.substr(std::strlen(outer)) == kInnerSuffix))
      return Owner{};
  }
  if (!name.starts_with(kWayIn)) return std::nullopt;
  name.remove_prefix(kWayIn.size());
  if (name.ends_with(kPortSuffix)) name.remove_suffix(kPortSuffix.size());
  const bool ofBridge = name.starts_with('-');
  if (ofBridge) name.remove_prefix(1);
  Owner owner{ofBridge ? Owner::Kind::bridge : Owner::Kind::vlan, 0};
  const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), owner.number);
  const bool whole = error == std::errc() && end == name.data() + name.size() && name[0] != '0';
  if (!whole || (!ofBridge && owner.number > kMaxVlan)) return std::nullopt;
  return owner;
}

Mox::Result<std::optional<Pair>> Pairs::find(const PairNames& names) const {
  const Link* outer = links_.find(names.outer);
  const Link* inner = links_.find(names.inner);
  if (outer == nullptr && inner == nullptr) return std::optional<Pair>();
  // While a pair is being made, one end is told of before it knows the other.
  const bool paired = outer != nullptr && inner != nullptr && outer->kind == "veth" &&
                      inner->kind == "veth" && (outer->peer == inner->index || outer->peer == 0) &&
                      (inner->peer == outer->index || inner->peer == 0) && outer->peer + inner->peer != 0;
  if (!paired)
    return Failure{"device " + (outer ? names.outer : names.inner) + " exists, but " + names.outer + " and " +
                   names.inner + " are not the two ends of one veth pair: rename or remove it"};
  return std::optional<Pair>({*outer, *inner});
}

Mox::Result<> Pairs::make(const PairSpec& wanted) {
  const ifinfomsg down = byIndex(0, IFF_NOARP);
  Message message(RTM_NEWLINK, NLM_F_CREATE | NLM_F_EXCL);
  message.header(down)
      .string(IFLA_IFNAME, wanted.names.inner)
      .u32(IFLA_MTU, wanted.mtu)
      .u32(IFLA_GROUP, kGroup);
  if (wanted.bridge != 0) message.u32(IFLA_MASTER, wanted.bridge);
  if (!wanted.innerAddress.isZero())
    message.bytes(IFLA_ADDRESS, std::as_bytes(std::span(wanted.innerAddress.bytes())));
  message.nest(IFLA_LINKINFO, [&](Message& info) {
    info.string(IFLA_INFO_KIND, "veth").nest(IFLA_INFO_DATA, [&](Message& data) {
      data.nest(VETH_INFO_PEER, [&](Message& peer) {
        peer.header(down).string(IFLA_IFNAME, wanted.names.outer).u32(IFLA_MTU, wanted.mtu);
      });
    });
  });
  return Netlink::describe(
      "device " + wanted.names.outer + ": making the veth pair with " + wanted.names.inner,
      requests_.request(std::move(message)));
}

Mox::Result<> Pairs::ipv6Off(const Link& end) {
  if (quiet_.contains(end.index)) return {};
  const std::string path = "/proc/sys/net/ipv6/conf/" + end.name + "/disable_ipv6";
  const int file = open(path.c_str(), O_RDWR | O_CLOEXEC);
  int number = errno;
  bool off = file < 0 && number == ENOENT;  // a kernel without IPv6
  if (file >= 0) {
    char value = 0;
    off = (read(file, &value, 1) == 1 && value == '1') || pwrite(file, "1", 1, 0) == 1;
    number = errno;
    close(file);
  }
  if (!off)
    return Failure{"device " + end.name + ": turning IPv6 off by " + path + ": " + std::strerror(number),
                   number};
  quiet_.insert(end.index);
  return {};
}

Mox::Result<> Pairs::readAgain(const Link& end) {
  return named(end, "reading it",
               requests_.get(std::move(Message(RTM_GETLINK).header(byIndex(end.index))),
                             [this](const Netlink::Received& message) { links_.apply(message); }));
}

Mox::Result<bool> Pairs::endIs(const Link& end, const PairSpec& wanted) {
  if (const auto off = ipv6Off(end); !off) return off.failure();
  const bool inner = end.name == wanted.names.inner;
  const std::uint32_t master = inner ? wanted.bridge : 0;
  bool stands = true;
  const auto write = [&](const char* step, Message&& message) -> Mox::Result<> {
    stands = false;
    return named(end, step, requests_.request(std::move(message)));
  };
  Mox::Result<> result;
  if (result && (end.flags & IFF_NOARP) == 0)
    result = write("turning ARP off", std::move(Message(RTM_SETLINK).header(byIndex(end.index, IFF_NOARP))));
  if (result && end.mtu != wanted.mtu)
    result = write("setting its MTU",
                   std::move(Message(RTM_SETLINK).header(byIndex(end.index)).u32(IFLA_MTU, wanted.mtu)));
  if (result && inner && end.group != kGroup)
    result = write("putting it into the group of the pairs",
                   std::move(Message(RTM_SETLINK).header(byIndex(end.index)).u32(IFLA_GROUP, kGroup)));
  if (result && end.master != master)
    result = write("making it a port of the VLAN's bridge",
                   std::move(Message(RTM_SETLINK).header(byIndex(end.index)).u32(IFLA_MASTER, master)));
  // Once the bridge has it, and before it is up: it neither learns nor floods for a moment.
  if (result && master != 0 && !isSilent(end.port)) {
    Message message(RTM_NEWLINK);
    message.header(byIndex(end.index));
    silence(message);
    result = write("turning learning and flooding off", std::move(message));
  }
  if (result && !stands && (end.flags & IFF_UP) == 0) result = readAgain(end);
  if (!result) return result.failure();
  return stands;
}

Mox::Result<bool> Pairs::shapeIs(const PairSpec& wanted) {
  const auto pair = find(wanted.names);
  if (!pair) return pair.failure();
  if (!*pair) {
    if (const auto made = make(wanted); !made) return made.failure();
    return false;
  }
  const auto outer = endIs((*pair)->outer, wanted);
  if (!outer) return outer;
  const auto inner = endIs((*pair)->inner, wanted);
  if (!inner) return inner;
  return *outer && *inner;
}

Mox::Result<bool> Pairs::upIs(const Pair& pair) {
  bool passes = true;
  for (const Link* end : {&pair.inner, &pair.outer}) {
    passes = passes && end->operational;
    if ((end->flags & IFF_UP) != 0) continue;
    passes = false;
    const auto up =
        named(*end, "bringing it up",
              requests_.request(std::move(Message(RTM_SETLINK).header(byIndex(end->index, IFF_UP)))));
    if (!up) return up.failure();
  }
  return passes;
}

Mox::Result<> Pairs::xdpIs(const Link& link, int program) {
  Message message(RTM_SETLINK);
  message.header(byIndex(link.index)).nest(IFLA_XDP, [&](Message& xdp) {
    xdp.u32(IFLA_XDP_FD, static_cast<std::uint32_t>(program)).u32(IFLA_XDP_FLAGS, XDP_FLAGS_SKB_MODE);
  });
  auto attached = named(link, "attaching the XDP program", requests_.request(std::move(message)));
  return attached ? readAgain(link) : attached;
}

Pairs::Taken Pairs::takenBy(const Link& wayIn) {
  std::string_view alias = wayIn.alias;
  const auto space = alias.rfind(' ');
  if (!alias.starts_with(kTakes) || space < kTakes.size()) return {};
  const std::string_view number = alias.substr(space + 1);
  Taken taken;
  const auto read = std::from_chars(number.data(), number.data() + number.size(), taken.device);
  const auto address = Lanix::EthAddr::fromStrep(alias.substr(kTakes.size(), space - kTakes.size()));
  if (read.ec != std::errc() || !address) return {};
  taken.address = *address;
  return taken;
}

Mox::Result<> Pairs::takenIs(const Link& wayIn, const Taken& taken) {
  const std::string text = taken.address.isZero() ? ""
                                                  : std::string(kTakes) + taken.address.toStrep() + ' ' +
                                                        std::to_string(taken.device);
  Message message(RTM_SETLINK);
  message.header(byIndex(wayIn.index)).bytes(IFLA_IFALIAS, std::as_bytes(std::span(text)));
  return named(wayIn, "setting its alias", requests_.request(std::move(message)));
}

Mox::Result<> Pairs::takesIs(const Link& device, const Lanix::EthAddr& address, bool takes,
                             std::uint16_t vlan) {
  const bool self = device.kind == "bridge";
  ndmsg header{};
  header.ndm_family = AF_BRIDGE;
  header.ndm_ifindex = static_cast<int>(device.index);
  header.ndm_state = self ? NUD_PERMANENT : NUD_NOARP;
  header.ndm_flags = self ? NTF_SELF : NTF_MASTER | NTF_STICKY;
  Message message(takes ? RTM_NEWNEIGH : RTM_DELNEIGH, takes ? NLM_F_CREATE | NLM_F_REPLACE : 0);
  message.header(header).bytes(NDA_LLADDR, std::as_bytes(std::span(address.bytes())));
  if (vlan != 0) message.u16(NDA_VLAN, vlan);
  const auto result = requests_.request(std::move(message));
  // A port that has left its bridge has no entries.
  const auto isGone = [](int number) { return number == ENOENT || number == ENODEV || number == EOPNOTSUPP; };
  if (!takes && isGone(result.number())) return {};
  return named(device, takes ? "taking frames to the shared gateway MAC" : "leaving the shared gateway MAC",
               result);
}

Mox::Result<bool> Pairs::vlansAre(const Link& port, const Netlink::BridgeVlans& table,
                                  const Netlink::VlanIds& wanted) {
  Netlink::VlanIds good = table.carried & ~table.untagged;
  if (table.pvid != 0) good.reset(table.pvid);
  const Netlink::VlanIds extra = table.carried & ~wanted;
  const Netlink::VlanIds missing = wanted & ~good;  // of these the flags may be wrong only
  if (extra.none() && missing.none()) return true;
  const bool takes = extra.any();
  const Netlink::VlanIds& differing = takes ? extra : missing;
  ifinfomsg header = byIndex(port.index);
  header.ifi_family = AF_BRIDGE;
  Message message(takes ? RTM_DELLINK : RTM_SETLINK);
  message.header(header).nest(IFLA_AF_SPEC, [&](Message& inside) {
    std::size_t vlans = 0;
    for (std::size_t first = 1; first < differing.size() && vlans < kVlansAtOnce; ++first) {
      if (!differing[first]) continue;
      std::size_t last = first;
      while (last + 1 < differing.size() && differing[last + 1] && last - first + vlans < kVlansAtOnce)
        ++last;
      for (const std::size_t vlan : {first, last}) {
        bridge_vlan_info info{0, static_cast<std::uint16_t>(vlan)};
        if (first != last)
          info.flags = vlan == first ? BRIDGE_VLAN_INFO_RANGE_BEGIN : BRIDGE_VLAN_INFO_RANGE_END;
        inside.bytes(IFLA_BRIDGE_VLAN_INFO, std::as_bytes(std::span(&info, 1)));
        if (first == last) break;
      }
      vlans += last - first + 1;
      first = last;
    }
  });
  if (const auto written = named(port, "setting its VLANs", requests_.request(std::move(message))); !written)
    return written.failure();
  return false;
}

Mox::Result<> Pairs::del(const Link& end) {
  const auto result = requests_.request(std::move(Message(RTM_DELLINK).header(byIndex(end.index))));
  if (result.number() == ENODEV) return {};
  return named(end, "removing it", result);
}

Mox::Result<> Pairs::delAll(const std::function<void(const std::string& what)>& removed) {
  std::vector<std::pair<Link, std::string>> ours;  // and the name of the other end
  bool alone = true;
  for (const auto& [index, link] : links_.links()) {
    const Link* peer = link.kind == "veth" ? links_.find(link.peer) : nullptr;
    const bool inner = peer != nullptr && ownerOf(link.name) && ownerOf(link.name) == ownerOf(peer->name) &&
                       link.name.size() > peer->name.size();
    if (inner) ours.emplace_back(link, peer->name);
    if (!inner && link.group == kGroup) alone = false;
  }
  const auto inGroup = [](const auto& pair) { return pair.first.group == kGroup; };
  bool groupGone = false;
  if (alone && std::ranges::any_of(ours, inGroup))
    groupGone = static_cast<bool>(
        requests_.request(std::move(Message(RTM_DELLINK).header(byIndex(0)).u32(IFLA_GROUP, kGroup))));
  Mox::Result<> failed;
  for (const auto& pair : ours) {
    const auto gone = groupGone && inGroup(pair) ? Mox::Result<>() : del(pair.first);
    if (gone) removed("device " + pair.second);
    if (!gone && failed) failed = gone;
  }
  return failed;
}

}  // namespace SoftForward
