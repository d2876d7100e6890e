#include "Lanix/EthDevPam.h"

#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "Lanix/NamespaceGuard.h"
#include "Lanix/Namespaces.h"
#include "Lanix/PacketSockets.h"
#include "Mox/Error.h"
#include "Orb/EventLoop.h"

namespace Lanix {

EthDevPam::EthDevPam(Orb::EventLoop& loop, Mox::String deviceName)
    : loop_(loop), deviceName_(std::move(deviceName)) {
  fileDescriptor_.on(Orb::FileDescriptor::readableCountChanged,
                     [this] { readableCountIs(readableCount() + 1); });
}

EthDevPam::~EthDevPam() { close(); }

Mox::Result<int> EthDevPam::openSocket() const {
  const auto failure = [&](const std::string& reason, int number) {
    return Mox::Failure{deviceName_ + " in network namespace " + netNs_ + ": " + reason, number};
  };
  const auto refused = [&](const std::string& what, int number) {
    return failure(what + ": " + std::strerror(number), number);
  };
  PacketSockets& sockets = PacketSockets::current();
  const NamespaceGuard guard(netNs_);
  if (!guard) return failure(guard.error(), guard.entered().number());
  const std::uint32_t ifIndex = Namespaces::current().interfaceIndex(deviceName_);
  if (ifIndex == 0) return refused("no such device", errno);
  // Protocol 0 until it is bound: frames of other devices must not get in between.
  const int socket = sockets.open(SOCK_RAW, 0);
  if (socket < 0) return refused("packet socket", errno);
  if (sockets.nonBlockingIs(socket, true) < 0 || sockets.bind(socket, ifIndex, ethProtocol_) < 0) {
    const int error = errno;
    sockets.close(socket);
    return refused("packet socket cannot be bound", error);
  }
  return socket;
}

void EthDevPam::close() {
  if (!enabled()) return;
  fileDescriptor_->descriptorIs(-1);
  fileDescriptor_.notifierIs(nullptr);
  PacketSockets::current().close(socket_);
  socket_ = -1;
}

Mox::Result<> EthDevPam::enabledIs(bool enabled) {
  if (!enabled) close();
  if (enabled == this->enabled()) return {};
  const Mox::Result<int> socket = openSocket();
  if (!socket) return socket.failure();
  auto fileDescriptor = Mox::make<Orb::FileDescriptor>(loop_, deviceName_);
  try {
    fileDescriptor->descriptorIs(*socket);
    fileDescriptor->notifyOnReadableIs(true);
  } catch (const Mox::Error& error) {
    fileDescriptor = nullptr;
    PacketSockets::current().close(*socket);
    return Mox::Failure{error.what()};
  }
  socket_ = *socket;
  fileDescriptor_.notifierIs(fileDescriptor);
  return {};
}

Mox::Ptr<Pkt> EthDevPam::rxPkt() {
  if (!enabled()) return {};
  Mox::Ptr<Pkt> pkt = PktManager::global().newUnsetPkt(Pkt::kPooled);
  // A signal, or a device that went down meanwhile, is reported once, in place of the frames that wait.
  for (int reported = 0; reported < 4; ++reported) {
    const ssize_t size = PacketSockets::current().read(socket_, pkt->headData());
    if (size >= 0) {
      pkt->sizeIs(static_cast<std::size_t>(size));
      return pkt;
    }
    if (errno != EINTR && errno != ENETDOWN) break;
  }
  return {};
}

}  // namespace Lanix
