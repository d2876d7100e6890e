#include "Lanix/NetlinkSocket.h"

#include <linux/netlink.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <utility>

#include "Lanix/Descriptor.h"
#include "Lanix/NamespaceGuard.h"

namespace Lanix {

namespace {

NetlinkSockets* replaced_ = nullptr;
std::uint32_t sequence_ = 0;  // of the last request of any socket

// Reads one message header at `at` of a datagram, whose alignment is not known.
template <class T>
bool readAt(std::span<const std::byte> datagram, std::size_t at, T& value) {
  if (at > datagram.size() || sizeof value > datagram.size() - at) return false;
  std::memcpy(&value, datagram.data() + at, sizeof value);
  return true;
}

// The answer to request `sequence` in a datagram: 0 or an errno; -1 when it is not in there.
int acknowledgement(std::span<const std::byte> datagram, std::uint32_t sequence) {
  nlmsghdr header{};
  for (std::size_t at = 0; readAt(datagram, at, header); at += NLMSG_ALIGN(header.nlmsg_len)) {
    if (header.nlmsg_len < sizeof header || header.nlmsg_len > datagram.size() - at) break;
    std::int32_t error = 0;
    if (header.nlmsg_type == NLMSG_ERROR && header.nlmsg_seq == sequence &&
        readAt(datagram, at + NLMSG_HDRLEN, error)) {
      // Errors are negative; anything else but 0 is nothing that the kernel says.
      return error == 0 ? 0 : error < 0 && error > -4096 ? -error : EBADMSG;
    }
  }
  return -1;
}

}  // namespace

NetlinkSockets& NetlinkSockets::current() {
  static NetlinkSockets kernel;
  return replaced_ ? *replaced_ : kernel;
}

NetlinkSockets* NetlinkSockets::replace(NetlinkSockets* sockets) { return std::exchange(replaced_, sockets); }

int NetlinkSockets::open() {
  return aboveStandard(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE));
}

void NetlinkSockets::close(int socket) { ::close(socket); }

bool NetlinkSockets::send(int socket, std::span<const std::byte> message) {
  sockaddr_nl kernel{};
  kernel.nl_family = AF_NETLINK;
  return ::sendto(socket, message.data(), message.size(), MSG_DONTWAIT | MSG_NOSIGNAL,
                  reinterpret_cast<const sockaddr*>(&kernel),
                  sizeof kernel) == static_cast<ssize_t>(message.size());
}

ssize_t NetlinkSockets::receive(int socket, std::span<std::byte> into) {
  while (true) {
    sockaddr_nl from{};
    socklen_t size = sizeof from;
    const ssize_t got = ::recvfrom(socket, into.data(), into.size(), MSG_DONTWAIT | MSG_TRUNC,
                                   reinterpret_cast<sockaddr*>(&from), &size);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0 || (size == sizeof from && from.nl_pid == 0)) return got;
  }
}

bool NetlinkSockets::waitReadable(int socket, int milliseconds) {
  pollfd wait{socket, POLLIN, 0};
  return ::poll(&wait, 1, milliseconds) != 0;  // after an error receive says what it is
}

std::uint32_t openNetlinkSocket(const NamespaceName& netNs) {
  int socket = -1;
  int error = 0;
  {
    const NamespaceGuard guard(netNs);
    error = guard.entered().number();
    if (guard) {
      socket = NetlinkSockets::current().open();
      error = errno;
    }
  }
  errno = error;
  return socket > 0 ? static_cast<std::uint32_t>(socket) : 0;
}

void closeNetlinkSocket(std::uint32_t socket) {
  if (socket != 0) NetlinkSockets::current().close(static_cast<int>(socket));
}

int netlinkRequest(std::uint32_t socket, std::span<std::byte> message) {
  using Clock = std::chrono::steady_clock;
  if (socket == 0) return ENOTCONN;
  nlmsghdr header{};
  if (!readAt(message, 0, header)) return EINVAL;
  header.nlmsg_len = static_cast<std::uint32_t>(message.size());
  header.nlmsg_flags |= NLM_F_REQUEST | NLM_F_ACK;
  header.nlmsg_seq = ++sequence_;
  header.nlmsg_pid = 0;
  std::memcpy(message.data(), &header, sizeof header);

  NetlinkSockets& sockets = NetlinkSockets::current();
  const int descriptor = static_cast<int>(socket);
  if (!sockets.send(descriptor, message)) return errno;
  const auto end = Clock::now() + std::chrono::milliseconds(kNetlinkPatienceMs);
  std::array<std::byte, 4096> datagram;
  while (true) {
    const ssize_t got = sockets.receive(descriptor, datagram);
    if (got >= 0) {
      const std::size_t size = std::min(datagram.size(), static_cast<std::size_t>(got));
      const int answer = acknowledgement(std::span(datagram).first(size), header.nlmsg_seq);
      if (answer >= 0) return answer;
    } else if (errno != EAGAIN && errno != ENOBUFS) {  // ENOBUFS: something was lost, maybe not this one
      return errno;
    }
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()).count();
    if (left <= 0) return ETIMEDOUT;
    // Other datagrams may be there already: they are taken first.
    if (got < 0 && !sockets.waitReadable(descriptor, static_cast<int>(left))) return ETIMEDOUT;
  }
}

}  // namespace Lanix
