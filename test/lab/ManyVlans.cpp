#include "lab/ManyVlans.h"

#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <linux/veth.h>
#include <net/if.h>

#include "Netlink/Socket.h"

namespace Lab {

namespace {

using Netlink::Message;

constexpr std::uint32_t kGroup = 2;             // all of the network's devices, so that they go together
constexpr Mac kOwnMac{0x02, 0, 0, 0, 0, 0x01};  // VLAN interfaces share it

std::string bridgeName(unsigned vlan) { return "vlan" + std::to_string(vlan); }
std::string accessName(unsigned vlan) { return "Ethernet" + std::to_string(vlan); }
std::string tunnelName(unsigned vlan) { return "core" + std::to_string(vlan); }

void requestAll(std::vector<Message> messages) {
  Netlink::Socket socket(NETLINK_ROUTE, {.receiveTimeoutMilliseconds = 10'000});
  socket.batch(messages, [](std::size_t at, const Netlink::Result<>& result) {
    if (!result)
      throw std::runtime_error("making the network, request " + std::to_string(at) + ": " + result.error());
  });
}

Message upMessage(const std::string& device) {
  ifinfomsg header{};
  header.ifi_flags = header.ifi_change = IFF_UP;
  return std::move(Message(RTM_NEWLINK).header(header).string(IFLA_IFNAME, device));
}

}  // namespace

ManyVlans::ManyVlans(unsigned vlans, const Namespace& outside) : vlans_(vlans) {
  std::vector<Message> bridges;
  std::vector<Message> ports;
  std::vector<Message> far;
  for (unsigned vlan = 1; vlan <= vlans; ++vlan) {
    Message bridge(RTM_NEWLINK, NLM_F_CREATE | NLM_F_EXCL);
    ifinfomsg up{};
    up.ifi_flags = up.ifi_change = IFF_UP;
    bridge.header(up)
        .string(IFLA_IFNAME, bridgeName(vlan))
        .u32(IFLA_GROUP, kGroup)
        .bytes(IFLA_ADDRESS, std::as_bytes(std::span(kOwnMac)))
        .nest(IFLA_LINKINFO, [](Message& info) {
          info.string(IFLA_INFO_KIND, "bridge").nest(IFLA_INFO_DATA, [](Message& data) {
            data.u8(IFLA_BR_MCAST_SNOOPING, 0);
          });
        });
    bridges.push_back(std::move(bridge));
  }
  requestAll(std::move(bridges));
  for (unsigned vlan = 1; vlan <= vlans; ++vlan) {
    const std::uint32_t master = ifIndex(bridgeName(vlan));
    for (const std::string& name : {accessName(vlan), tunnelName(vlan)}) {
      Message port(RTM_NEWLINK, NLM_F_CREATE | NLM_F_EXCL);
      port.header(ifinfomsg{}).string(IFLA_IFNAME, name).u32(IFLA_MASTER, master).u32(IFLA_GROUP, kGroup);
      ports.push_back(std::move(port.nest(IFLA_LINKINFO, [&](Message& info) {
        info.string(IFLA_INFO_KIND, "veth").nest(IFLA_INFO_DATA, [&](Message& data) {
          data.nest(VETH_INFO_PEER, [&](Message& peer) {
            peer.header(ifinfomsg{})
                .string(IFLA_IFNAME, "f-" + name)
                .u32(IFLA_NET_NS_FD, static_cast<std::uint32_t>(outside.fd()));
          });
        });
      })));
      ports.push_back(upMessage(name));
      far.push_back(upMessage("f-" + name));
    }
  }
  requestAll(std::move(ports));
  const Entered entered(outside);
  requestAll(std::move(far));
}

ManyVlans::~ManyVlans() {
  try {
    requestAll({std::move(Message(RTM_DELLINK).header(ifinfomsg{}).u32(IFLA_GROUP, kGroup))});
  } catch (const std::runtime_error&) {  // they go with the namespace
  }
}

std::string ManyVlans::configuration() const {
  std::string list;
  std::string tags;
  for (unsigned vlan = 1; vlan <= vlans_; ++vlan) {
    const std::string id = std::to_string(vlan);
    list += (vlan == 1 ? "\"" : ",\"") + id + "\":{\"bridge\":\"" + bridgeName(vlan) +
            "\",\"tunnelPorts\":[\"" + tunnelName(vlan) + "\"]}";
    tags += (vlan == 1 ? "" : ",") + ("\"" + id + "\":" + id);
  }
  return "\"vlans\":{" + list + "},\"state\":{\"evpn/status\":{\"mplsConfigured\":true,\"vlanToDot1q\":{" +
         tags + "}}}";
}

}  // namespace Lab
