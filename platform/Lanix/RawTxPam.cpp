#include "Lanix/RawTxPam.h"

#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include "Lanix/PacketSockets.h"

namespace Lanix {

RawTxPam::~RawTxPam() { close(); }

void RawTxPam::close() {
  if (!enabled()) return;
  PacketSockets::current().close(socket_);
  socket_ = -1;
}

Mox::Result<> RawTxPam::enabledIs(bool enabled) {
  if (!enabled) close();
  if (enabled == this->enabled()) return {};
  socket_ = PacketSockets::current().open(SOCK_RAW, 0);
  if (socket_ >= 0) return {};
  const int error = errno;
  return Mox::Failure{name_ + ": packet socket: " + std::strerror(error), error};
}

bool RawTxPam::send(std::uint32_t ifIndex, const Mox::Ptr<const Pkt>& pkt) {
  if (!enabled()) {
    errno = ENOTCONN;
    return false;
  }
  ssize_t sent;
  do {
    sent = PacketSockets::current().sendTo(socket_, {ifIndex, pkt->headData()}, ethProtocol_);
  } while (sent < 0 && errno == EINTR);
  return sent >= 0;
}

std::size_t RawTxPam::sendBatch(std::span<const Frame> frames) {
  if (!enabled()) {
    errno = ENOTCONN;
    return 0;
  }
  std::array<PacketSockets::OutFrame, PacketSockets::kBatch> batch;
  std::size_t done = 0;
  while (done < frames.size()) {
    const std::size_t count = std::min(frames.size() - done, batch.size());
    for (std::size_t i = 0; i < count; ++i) {
      batch[i] = {frames[done + i].ifIndex, frames[done + i].pkt->headData()};
    }
    const int sent = PacketSockets::current().sendBatch(socket_, std::span(batch).first(count), ethProtocol_);
    if (sent < 0 && errno == EINTR) continue;
    if (sent <= 0) break;
    done += static_cast<std::size_t>(sent);  // after a part of a batch the next call reports what stopped it
  }
  return done;
}

}  // namespace Lanix
