#include "Lanix/Neighbour.h"

#include <linux/neighbour.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <array>
#include <span>

namespace Arp {

namespace {

// RTM_NEWNEIGH of linux/rtnetlink.h: each attribute starts at a multiple of four bytes.
template <class Address>
struct NewNeighbour {
  nlmsghdr header{};
  ndmsg neighbour{};
  nlattr destination{NLA_HDRLEN + sizeof(Address), NDA_DST};
  Address address;
  nlattr linkLayer{NLA_HDRLEN + sizeof(Lanix::EthAddr), NDA_LLADDR};
  Lanix::EthAddr mac;
  std::uint16_t padding = 0;
  nlattr protocol{NLA_HDRLEN + 1, NDA_PROTOCOL};
  std::array<std::uint8_t, 4> protocolValue{};
};
static_assert(sizeof(NewNeighbour<Lanix::IpAddr>) == 56 && sizeof(NewNeighbour<Lanix::Ip6Addr>) == 68);

template <class Address>
void neighAdd(std::uint8_t family, Lanix::NetlinkBatch& batch, std::uint32_t ifIndex, const Address& address,
              const Lanix::EthAddr& mac, std::uint16_t state, std::uint8_t protocol) {
  NewNeighbour<Address> request;
  request.header.nlmsg_type = RTM_NEWNEIGH;
  request.header.nlmsg_flags = NLM_F_CREATE | NLM_F_REPLACE;
  request.neighbour.ndm_family = family;
  request.neighbour.ndm_ifindex = static_cast<std::int32_t>(ifIndex);
  request.neighbour.ndm_state = state;
  request.address = address;
  request.mac = mac;
  request.protocolValue[0] = protocol;
  batch.add(std::as_bytes(std::span(&request, 1)));
}

}  // namespace

void ipNeighAdd(Lanix::NetlinkBatch& batch, std::uint32_t ifIndex, const Lanix::IpAddr& address,
                const Lanix::EthAddr& mac, std::uint16_t state, std::uint8_t protocol) {
  neighAdd(AF_INET, batch, ifIndex, address, mac, state, protocol);
}

void ip6NeighAdd(Lanix::NetlinkBatch& batch, std::uint32_t ifIndex, const Lanix::Ip6Addr& address,
                 const Lanix::EthAddr& mac, std::uint16_t state, std::uint8_t protocol) {
  neighAdd(AF_INET6, batch, ifIndex, address, mac, state, protocol);
}

}  // namespace Arp
