#include "Lanix/NetlinkSocket.h"

#include <linux/netlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

#include "Lanix/Descriptor.h"
#include "Lanix/NamespaceGuard.h"
#include "Mox/Assert.h"

namespace Lanix {

namespace {

NetlinkSockets* replaced_ = nullptr;
std::uint32_t sequence_ = 0;  // of the last request of any socket

constexpr char kSource[] = "Lanix/NetlinkSocket";

// Reads one message header at `at` of a datagram, whose alignment is not known.
template <class T>
bool readAt(std::span<const std::byte> datagram, std::size_t at, T& value) {
  if (at > datagram.size() || sizeof value > datagram.size() - at) return false;
  std::memcpy(&value, datagram.data() + at, sizeof value);
  return true;
}

// Calls back with the sequence number and the error, 0 or an errno, of each answer in a datagram.
template <class Callback>
void forEachAnswer(std::span<const std::byte> datagram, const Callback& callback) {
  nlmsghdr header{};
  for (std::size_t at = 0; readAt(datagram, at, header); at += NLMSG_ALIGN(header.nlmsg_len)) {
    if (header.nlmsg_len < sizeof header || header.nlmsg_len > datagram.size() - at) break;
    std::int32_t error = 0;
    if (header.nlmsg_type != NLMSG_ERROR || !readAt(datagram, at + NLMSG_HDRLEN, error)) continue;
    // Errors are negative; anything else but 0 is nothing that the kernel says.
    callback(header.nlmsg_seq, error == 0 ? 0 : error < 0 && error > -4096 ? -error : EBADMSG);
  }
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

Mox::Result<std::uint32_t> openNetlinkSocket(const NamespaceName& netNs) {
  const NamespaceGuard guard(netNs);
  if (!guard) return guard.entered().failure();
  const int socket = NetlinkSockets::current().open();
  if (socket > 0) return static_cast<std::uint32_t>(socket);
  const int error = errno;
  return Mox::Failure{"network namespace \"" + netNs + "\": opening netlink: " + std::strerror(error), error};
}

void closeNetlinkSocket(std::uint32_t socket) {
  if (socket != 0) NetlinkSockets::current().close(static_cast<int>(socket));
}

void NetlinkBatch::add(std::span<const std::byte> message) {
  nlmsghdr header{};
  MOX_ASSERT(kSource, "!full() && message.size() % NLMSG_ALIGNTO == 0",
             !full() && message.size() % NLMSG_ALIGNTO == 0 && readAt(message, 0, header));
  header.nlmsg_len = static_cast<std::uint32_t>(message.size());
  header.nlmsg_flags |= NLM_F_REQUEST | NLM_F_ACK;
  header.nlmsg_seq = ++sequence_;
  header.nlmsg_pid = 0;
  const std::size_t at = bytes_.size();
  bytes_.insert(bytes_.end(), message.begin(), message.end());
  std::memcpy(&bytes_[at], &header, sizeof header);
  sequences_.push_back(header.nlmsg_seq);
}

std::vector<Mox::Result<>> NetlinkBatch::send() {
  NetlinkSockets& sockets = NetlinkSockets::current();
  const int descriptor = static_cast<int>(socket_);
  constexpr int kNoAnswer = -1;
  std::vector<int> errors(size(), kNoAnswer);
  std::size_t awaited = size();
  if (socket_ == 0 || !sockets.send(descriptor, bytes_)) {
    errors.assign(size(), socket_ == 0 ? ENOTCONN : errno);
    awaited = 0;
  }
  std::array<std::byte, 4096> datagram;
  while (awaited != 0) {
    const ssize_t got = sockets.receive(descriptor, datagram);
    if (got < 0) {
      if (errno == ENOBUFS) continue;  // told once: some were lost, those that are there come next
      break;
    }
    const std::size_t used = std::min(datagram.size(), static_cast<std::size_t>(got));
    forEachAnswer(std::span(datagram).first(used), [&](std::uint32_t sequence, int error) {
      const auto of = std::find(sequences_.begin(), sequences_.end(), sequence);
      if (of == sequences_.end()) return;
      int& answer = errors[static_cast<std::size_t>(of - sequences_.begin())];
      if (answer == kNoAnswer) --awaited;
      answer = error;
    });
  }
  bytes_.clear();
  sequences_.clear();
  std::vector<Mox::Result<>> results;
  results.reserve(errors.size());
  for (const int answer : errors) {
    const int error = answer == kNoAnswer ? ETIMEDOUT : answer;
    results.push_back(error == 0 ? Mox::Result<>() : Mox::Failure{std::strerror(error), error});
  }
  return results;
}

}  // namespace Lanix
