#include "test/support/FakePacketSockets.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "Lanix/Wire.h"

namespace TestSupport {

namespace {

std::uint16_t typeOf(const Frame& frame) {
  if (frame.size() < sizeof(Lanix::EthHdr)) return 0;
  return static_cast<std::uint16_t>(std::to_integer<unsigned>(frame[12]) << 8 |
                                    std::to_integer<unsigned>(frame[13]));
}

}  // namespace

Frame frameOf(const std::vector<unsigned>& bytes) {
  Frame frame;
  for (const unsigned byte : bytes) frame.push_back(static_cast<std::byte>(byte));
  return frame;
}

int FakeDevice::receives(const Frame& frame) {
  int delivered = 0;
  for (auto& [descriptor, socket] : sockets_->sockets_) {
    const bool wanted = socket.protocol == Lanix::kEtherTypeAll || socket.protocol == typeOf(frame);
    if (socket.ifIndex != ifIndex_ || !wanted) continue;
    if (::send(socket.far, frame.data(), frame.size(), MSG_DONTWAIT) >= 0) {
      ++delivered;
    } else {
      ++socket.dropped;
    }
  }
  return delivered;
}

void FakeDevice::fullIs(bool full) {
  if (full == full_) return;
  full_ = full;
  for (const auto& [descriptor, socket] : sockets_->sockets_) {
    if (socket.ifIndex != ifIndex_) continue;
    if (full) {
      sockets_->fill(descriptor);
    } else {
      sockets_->drain(socket.far);
    }
  }
}

void FakeDevice::flaps() {
  for (auto& [descriptor, socket] : sockets_->sockets_) {
    if (socket.ifIndex == ifIndex_) socket.error = ENETDOWN;
  }
}

int FakeDevice::receiveBuffer() const {
  int bytes = -1;
  for (const auto& [descriptor, socket] : sockets_->sockets_) {
    if (socket.ifIndex == ifIndex_) bytes = socket.receiveBuffer;
  }
  return bytes;
}

int FakeDevice::bound() const {
  return static_cast<int>(
      std::count_if(sockets_->sockets_.begin(), sockets_->sockets_.end(),
                    [this](const auto& entry) { return entry.second.ifIndex == ifIndex_; }));
}

FakePacketSockets::~FakePacketSockets() {
  while (!sockets_.empty()) close(sockets_.begin()->first);
}

FakeDevice& FakePacketSockets::device(std::uint32_t ifIndex) {
  auto& device = devices_[ifIndex];
  if (!device) {
    device = std::make_unique<FakeDevice>();
    device->sockets_ = this;
    device->ifIndex_ = ifIndex;
  }
  return *device;
}

bool FakePacketSockets::failing(Call call) {
  const auto at = failures_.find(call);
  if (at == failures_.end() || at->second.times == 0) return false;
  --at->second.times;
  errno = at->second.error;
  return true;
}

int FakePacketSockets::open(int, std::uint16_t protocol) {
  if (failing(Call::open)) return -1;
  int pair[2];
  if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair) != 0) return -1;
  sockets_[pair[0]] = {pair[1], 0, protocol};
  return pair[0];
}

int FakePacketSockets::bind(int socket, std::uint32_t ifIndex, std::uint16_t protocol) {
  if (failing(Call::bind)) return -1;
  const auto at = sockets_.find(socket);
  if (at == sockets_.end()) {
    errno = EBADF;
    return -1;
  }
  if (!beforeBinding_.empty()) device(0).receives(beforeBinding_);
  at->second.ifIndex = ifIndex;
  at->second.protocol = protocol;
  if (device(ifIndex).full_) fill(socket);
  return 0;
}

int FakePacketSockets::nonBlockingIs(int socket, bool nonBlocking) {
  return failing(Call::nonBlocking) ? -1 : PacketSockets::nonBlockingIs(socket, nonBlocking);
}

int FakePacketSockets::receiveBufferIs(int socket, int bytes) {
  if (failing(Call::receiveBuffer)) return -1;
  sockets_.at(socket).receiveBuffer = bytes;
  return 0;
}

std::uint32_t FakePacketSockets::takeDropped(int socket) {
  return std::exchange(sockets_.at(socket).dropped, 0);
}

int FakePacketSockets::takeError(int socket) { return std::exchange(sockets_.at(socket).error, 0); }

int FakePacketSockets::unsent(int socket) {
  std::deque<int>& answers = device(sockets_.at(socket).ifIndex).unsent_;
  const int bytes = answers.empty() ? 0 : answers.front();
  if (answers.size() > 1) answers.pop_front();
  return bytes;
}

ssize_t FakePacketSockets::read(int socket, std::span<std::byte> buffer) {
  return failing(Call::read) ? -1 : ::read(socket, buffer.data(), buffer.size());
}

ssize_t FakePacketSockets::send(std::uint32_t ifIndex, std::span<const std::byte> bytes) {
  FakeDevice& out = device(ifIndex);
  if (out.full_) {
    errno = EAGAIN;
    return -1;
  }
  out.sent_.emplace_back(bytes.begin(), bytes.end());
  return static_cast<ssize_t>(bytes.size());
}

ssize_t FakePacketSockets::write(int socket, std::span<const std::byte> frame) {
  ++sendCalls_;
  const bool refused = failing(Call::send);
  const auto at = sockets_.find(socket);
  if (!refused && (at == sockets_.end() || at->second.ifIndex == 0)) {
    errno = at == sockets_.end() ? EBADF : ENXIO;
    return -1;
  }
  if (at != sockets_.end() && at->second.error != 0) {
    errno = std::exchange(at->second.error, 0);
    return -1;
  }
  const ssize_t written = refused ? -1 : send(at->second.ifIndex, frame);
  const int error = errno;
  // A frame that the kernel took wakes the socket when it is done with, also when the device had no place.
  if (written >= 0 || error == ENOBUFS) {
    const std::byte done{};
    ::send(socket, &done, 1, MSG_DONTWAIT);
    drain(at->second.far);
  }
  errno = error;
  return written;
}

ssize_t FakePacketSockets::sendTo(int socket, const OutFrame& frame, std::uint16_t) {
  ++sendCalls_;
  if (failing(Call::send)) return -1;
  if (!sockets_.contains(socket)) {
    errno = EBADF;
    return -1;
  }
  return send(frame.ifIndex, frame.bytes);
}

int FakePacketSockets::receiveBatch(int socket, std::span<InFrame> frames) {
  int received = 0;
  for (InFrame& frame : frames.first(std::min(frames.size(), kBatch))) {
    const ssize_t size =
        failing(Call::read) ? -1 : ::recv(socket, frame.buffer.data(), frame.buffer.size(), MSG_DONTWAIT);
    if (size < 0) return received == 0 ? -1 : received;
    frame.size = static_cast<std::size_t>(size);
    ++received;
  }
  return received;
}

int FakePacketSockets::sendBatch(int socket, std::span<const OutFrame> frames, std::uint16_t) {
  ++sendCalls_;
  if (!sockets_.contains(socket)) {
    errno = EBADF;
    return -1;
  }
  int sent = 0;
  for (const OutFrame& frame : frames.first(std::min(frames.size(), kBatch))) {
    if (failing(Call::send) || send(frame.ifIndex, frame.bytes) < 0) return sent == 0 ? -1 : sent;
    ++sent;
  }
  return sent;
}

void FakePacketSockets::close(int socket) {
  const auto at = sockets_.find(socket);
  if (at == sockets_.end()) return;
  ::close(at->second.far);
  ::close(socket);
  sockets_.erase(at);
}

// Nobody reads the far ends otherwise, so a full queue stays one.
void FakePacketSockets::fill(int socket) {
  const std::byte junk[1024] = {};
  while (::send(socket, junk, sizeof junk, MSG_DONTWAIT) >= 0) {
  }
}

void FakePacketSockets::drain(int far) {
  std::byte junk[1024];
  while (::recv(far, junk, sizeof junk, MSG_DONTWAIT) > 0) {
  }
}

}  // namespace TestSupport
