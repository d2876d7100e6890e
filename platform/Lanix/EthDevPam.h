#pragma once

#include <cstdint>

#include "Lanix/NamespaceName.h"
#include "Lanix/Pkt.h"
#include "Mox/Attribute.h"
#include "Mox/Notifiee.h"
#include "Mox/Result.h"
#include "Mox/Strep.h"
#include "Orb/FileDescriptor.h"

namespace Orb {
class EventLoop;
}

namespace Lanix {

// Receives the frames of one Ethernet protocol on one device of a network namespace, its own sent ones
// included when the protocol is 3 (all). Protocol and namespace are those of the moment of enabling. A device
// that goes away leaves it enabled and silent: whoever watches the device disables it and enables it again.
class EthDevPam : public Mox::Entity {
 public:
  EthDevPam(Orb::EventLoop& loop, Mox::String deviceName);
  ~EthDevPam() override;

  const Mox::String& deviceName() const { return deviceName_; }
  // In host order.
  std::uint16_t ethProtocol() const { return ethProtocol_; }
  void ethProtocolIs(std::uint16_t protocol) { ethProtocol_ = protocol; }
  const NamespaceName& netNs() const { return netNs_; }
  void netNsIs(const NamespaceName& netNs) { netNs_ = netNs; }

  // Opens or closes the device. It stays disabled when the namespace or the device is not there or the kernel
  // refuses.
  bool enabled() const { return socket_ >= 0; }
  Mox::Result<> enabledIs(bool enabled);

  // Grows each time when frames arrive after there were none: read until rxPkt gives null, or come back by
  // yourself.
  MOX_ATTRIBUTE(std::uint64_t, readableCount, 0)

  // The next frame, cut to Pkt::kPooled bytes; null when none waits.
  Mox::Ptr<Pkt> rxPkt();

 private:
  void close();
  // In the namespace: the bound socket.
  Mox::Result<int> openSocket() const;

  Orb::EventLoop& loop_;
  Mox::String deviceName_;
  std::uint16_t ethProtocol_ = 3;
  NamespaceName netNs_ = kDefaultNamespace;
  int socket_ = -1;
  Mox::Notifiee<Orb::FileDescriptor> fileDescriptor_;
};

}  // namespace Lanix
