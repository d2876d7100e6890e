#include "LabKernel.h"

#include <linux/if_addr.h>
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <stdexcept>

#include "Lanix/EthAddr.h"
#include "Lanix/IpGenPrefix.h"
#include "Netlink/Socket.h"

namespace KernelState {
namespace {

using Netlink::Message;

Message addressMessage(std::uint16_t type, std::uint16_t flags, const std::string& device,
                       const std::string& text) {
  const auto prefix = Lanix::IpGenPrefix::fromStrep(text).value();
  ifaddrmsg header{};
  header.ifa_family = AF_INET;
  header.ifa_prefixlen = static_cast<std::uint8_t>(prefix.length());
  header.ifa_index = Lab::ifIndex(device);
  const auto bytes = prefix.address().ipv4().bytes();
  Message message(type, flags);
  message.header(header)
      .bytes(IFA_LOCAL, std::as_bytes(std::span(bytes)))
      .bytes(IFA_ADDRESS, std::as_bytes(std::span(bytes)));
  return message;
}

void putMac(Message& message, const std::string& mac) {
  const auto bytes = Lanix::EthAddr::fromStrep(mac).value().bytes();
  message.bytes(NDA_LLADDR, std::as_bytes(std::span(bytes)));
}

}  // namespace

void request(Message message) {
  Netlink::Socket socket(NETLINK_ROUTE);
  if (const auto done = socket.request(std::move(message)); !done)
    throw std::runtime_error("lab: " + done.error());
}

std::size_t requestAll(std::vector<Message>& messages) {
  std::size_t taken = 0;
  Netlink::Socket socket(NETLINK_ROUTE);
  socket.batch(messages, [&](std::size_t, const Mox::Result<>& result) { taken += result ? 1 : 0; });
  return taken;
}

void addressIs(const std::string& device, const std::string& prefix) {
  request(addressMessage(RTM_NEWADDR, NLM_F_CREATE | NLM_F_REPLACE, device, prefix));
}

void addressDel(const std::string& device, const std::string& prefix) {
  request(addressMessage(RTM_DELADDR, 0, device, prefix));
}

Message neighbourMessage(const std::string& device, const std::string& ip, const std::string& mac,
                         std::uint16_t state, std::uint8_t protocol, std::uint8_t flags) {
  const auto address = Lanix::IpGenAddr::fromStrep(ip).value();
  const std::size_t size = address.isIpv4() ? sizeof(in_addr) : sizeof(in6_addr);
  ndmsg header{};
  header.ndm_family = address.isIpv4() ? AF_INET : AF_INET6;
  header.ndm_ifindex = static_cast<int>(Lab::ifIndex(device));
  header.ndm_state = state;
  header.ndm_flags = flags;
  Message message(RTM_NEWNEIGH, NLM_F_CREATE | NLM_F_REPLACE);
  message.header(header).bytes(NDA_DST, std::as_bytes(std::span(address.bytes())).first(size));
  putMac(message, mac);
  if (protocol != 0) message.u8(NDA_PROTOCOL, protocol);
  return message;
}

Message macMessage(const std::string& port, const std::string& mac, std::uint16_t state, std::uint8_t flags) {
  ndmsg header{};
  header.ndm_family = AF_BRIDGE;
  header.ndm_ifindex = static_cast<int>(Lab::ifIndex(port));
  header.ndm_state = state;
  header.ndm_flags = static_cast<std::uint8_t>(flags | NTF_MASTER);
  Message message(RTM_NEWNEIGH, NLM_F_CREATE | NLM_F_REPLACE);
  putMac(message.header(header), mac);
  return message;
}

void renameLink(const std::string& device, const std::string& newName) {
  ifinfomsg header{};
  header.ifi_index = static_cast<int>(Lab::ifIndex(device));
  Lab::upIs(device, false);
  request(std::move(Message(RTM_SETLINK).header(header).string(IFLA_IFNAME, newName)));
  Lab::upIs(newName);
}

}  // namespace KernelState
