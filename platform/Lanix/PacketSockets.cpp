#include "Lanix/PacketSockets.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/if_packet.h>
#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>

#include "Lanix/Descriptor.h"

namespace Lanix {

namespace {

PacketSockets* replaced_ = nullptr;

sockaddr_ll addressOf(std::uint32_t ifIndex, std::uint16_t protocol) {
  sockaddr_ll address{};
  address.sll_family = AF_PACKET;
  address.sll_protocol = htons(protocol);
  address.sll_ifindex = static_cast<int>(ifIndex);
  return address;
}

const sockaddr* generic(const sockaddr_ll& address) {
  const void* any = &address;
  return static_cast<const sockaddr*>(any);
}

}  // namespace

PacketSockets& PacketSockets::current() {
  static PacketSockets kernel;
  return replaced_ ? *replaced_ : kernel;
}

PacketSockets* PacketSockets::replace(PacketSockets* sockets) { return std::exchange(replaced_, sockets); }

int PacketSockets::open(int type, std::uint16_t protocol) {
  return aboveStandard(::socket(AF_PACKET, type | SOCK_CLOEXEC, htons(protocol)));
}

int PacketSockets::bind(int socket, std::uint32_t ifIndex, std::uint16_t protocol) {
  const sockaddr_ll address = addressOf(ifIndex, protocol);
  return ::bind(socket, generic(address), sizeof address);
}

int PacketSockets::nonBlockingIs(int socket, bool nonBlocking) {
  const int flags = fcntl(socket, F_GETFL);
  if (flags < 0) return -1;
  return fcntl(socket, F_SETFL, nonBlocking ? flags | O_NONBLOCK : flags & ~O_NONBLOCK);
}

int PacketSockets::receiveBufferIs(int socket, int bytes) {
  if (setsockopt(socket, SOL_SOCKET, SO_RCVBUFFORCE, &bytes, sizeof bytes) == 0) return 0;
  return setsockopt(socket, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes);
}

std::uint32_t PacketSockets::takeDropped(int socket) {
  tpacket_stats counts{};  // since the last call: asking clears them
  socklen_t size = sizeof counts;
  return getsockopt(socket, SOL_PACKET, PACKET_STATISTICS, &counts, &size) == 0 ? counts.tp_drops : 0;
}

int PacketSockets::takeError(int socket) {
  int error = 0;
  socklen_t size = sizeof error;
  return getsockopt(socket, SOL_SOCKET, SO_ERROR, &error, &size) == 0 ? error : 0;
}

int PacketSockets::unsent(int socket) {
  int bytes = 0;
  return ioctl(socket, SIOCOUTQ, &bytes) == 0 ? bytes : 0;
}

ssize_t PacketSockets::read(int socket, std::span<std::byte> buffer) {
  return ::read(socket, buffer.data(), buffer.size());
}

ssize_t PacketSockets::write(int socket, std::span<const std::byte> frame) {
  return ::write(socket, frame.data(), frame.size());
}

ssize_t PacketSockets::sendTo(int socket, const OutFrame& frame, std::uint16_t protocol) {
  const sockaddr_ll address = addressOf(frame.ifIndex, protocol);
  return ::sendto(socket, frame.bytes.data(), frame.bytes.size(), MSG_DONTWAIT, generic(address),
                  sizeof address);
}

int PacketSockets::receiveBatch(int socket, std::span<InFrame> frames) {
  std::array<mmsghdr, kBatch> messages;
  std::array<iovec, kBatch> parts;
  const std::size_t count = std::min(frames.size(), kBatch);
  for (std::size_t i = 0; i < count; ++i) {
    parts[i] = {frames[i].buffer.data(), frames[i].buffer.size()};
    messages[i] = {};
    messages[i].msg_hdr.msg_iov = &parts[i];
    messages[i].msg_hdr.msg_iovlen = 1;
  }
  const int received =
      ::recvmmsg(socket, messages.data(), static_cast<unsigned>(count), MSG_DONTWAIT, nullptr);
  for (int i = 0; i < received; ++i) {
    const auto at = static_cast<std::size_t>(i);
    frames[at].size = messages[at].msg_len;
  }
  return received;
}

int PacketSockets::sendBatch(int socket, std::span<const OutFrame> frames, std::uint16_t protocol) {
  std::array<mmsghdr, kBatch> messages;
  std::array<iovec, kBatch> parts;
  std::array<sockaddr_ll, kBatch> addresses;
  const std::size_t count = std::min(frames.size(), kBatch);
  for (std::size_t i = 0; i < count; ++i) {
    parts[i] = {const_cast<std::byte*>(frames[i].bytes.data()), frames[i].bytes.size()};
    addresses[i] = addressOf(frames[i].ifIndex, protocol);
    messages[i] = {};
    messages[i].msg_hdr.msg_name = &addresses[i];
    messages[i].msg_hdr.msg_namelen = sizeof addresses[i];
    messages[i].msg_hdr.msg_iov = &parts[i];
    messages[i].msg_hdr.msg_iovlen = 1;
  }
  return ::sendmmsg(socket, messages.data(), static_cast<unsigned>(count), MSG_DONTWAIT);
}

void PacketSockets::close(int socket) { ::close(socket); }

}  // namespace Lanix
