#include <linux/neighbour.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>

#include "Lanix/EthAddr.h"
#include "Lanix/IpGenAddr.h"
#include "support/FakeNamespaces.h"

namespace TestSupport {

namespace {

template <class T>
T readAt(std::span<const std::byte> bytes, std::size_t at) {
  T value{};
  std::memcpy(&value, bytes.subspan(at).data(), sizeof value);
  return value;
}

}  // namespace

std::vector<std::string> FakeNetlinkSockets::neighbours() const {
  std::vector<std::string> lines;
  for (const auto& [key, value] : neighbours_) {
    lines.push_back(std::get<0>(key) + " " + std::to_string(std::get<1>(key)) + " " + std::get<2>(key) + " " +
                    value);
  }
  return lines;
}

bool FakeNetlinkSockets::send(int socket, std::span<const std::byte> messages) {
  if (sendError_ != 0) {
    errno = sendError_;
    return false;
  }
  int count = 0;
  for (; messages.size() >= sizeof(nlmsghdr); ++count) {
    const auto length = std::min<std::size_t>(readAt<nlmsghdr>(messages, 0).nlmsg_len, messages.size());
    request(socket, messages.first(length));
    messages = messages.subspan(length);
  }
  datagrams_.push_back(count);
  silent_ = late_ > 0;
  if (silent_) --late_;
  return true;
}

// As the kernel reads RTM_NEWNEIGH, but it wants all three attributes.
void FakeNetlinkSockets::request(int socket, std::span<const std::byte> message) {
  const auto header = readAt<nlmsghdr>(message, 0);
  const auto neighbour = readAt<ndmsg>(message, NLMSG_HDRLEN);
  std::string address, mac, protocol;
  for (std::size_t at = NLMSG_HDRLEN + sizeof neighbour; at < message.size();) {
    const auto attribute = readAt<nlattr>(message, at);
    const std::size_t value = at + NLA_HDRLEN;
    if (attribute.nla_type == NDA_DST) {
      address = (neighbour.ndm_family == AF_INET ? Lanix::IpGenAddr(readAt<Lanix::IpAddr>(message, value))
                                                 : Lanix::IpGenAddr(readAt<Lanix::Ip6Addr>(message, value)))
                    .toStrep();
    } else if (attribute.nla_type == NDA_LLADDR) {
      mac = readAt<Lanix::EthAddr>(message, value).toStrep();
    } else if (attribute.nla_type == NDA_PROTOCOL) {
      protocol = std::to_string(readAt<std::uint8_t>(message, value));
    }
    at += NLA_ALIGN(attribute.nla_len);
  }
  int error = requestError_;
  constexpr int kFlags = NLM_F_REQUEST | NLM_F_ACK | NLM_F_CREATE | NLM_F_REPLACE;
  if (header.nlmsg_type != RTM_NEWNEIGH || header.nlmsg_len != message.size() ||
      header.nlmsg_flags != kFlags || address.empty() || mac.empty() || protocol.empty())
    error = EINVAL;
  if (error == 0) {
    neighbours_[{sockets_[socket], neighbour.ndm_ifindex, address}] =
        mac + " state=" + std::to_string(neighbour.ndm_state) + " protocol=" + protocol;
  }
  struct {
    nlmsghdr header{sizeof(nlmsghdr) + sizeof(nlmsgerr), NLMSG_ERROR, 0, 0, 0};
    nlmsgerr body{};
  } answer;
  answer.header.nlmsg_seq = header.nlmsg_seq;
  answer.body.error = -error;
  const auto bytes = std::as_bytes(std::span(&answer, 1));
  answers_.emplace_back(bytes.begin(), bytes.end());
}

ssize_t FakeNetlinkSockets::receive(int /*socket*/, std::span<std::byte> into) {
  if (silent_ || answers_.empty()) {
    errno = EAGAIN;
    return -1;
  }
  const std::vector<std::byte> datagram = answers_.front();
  answers_.pop_front();
  std::copy_n(datagram.begin(), std::min(datagram.size(), into.size()), into.begin());
  return static_cast<ssize_t>(datagram.size());
}

}  // namespace TestSupport
