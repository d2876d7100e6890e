#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "Lanix/Pkt.h"
#include "Mox/Entity.h"
#include "Mox/Result.h"
#include "Mox/Strep.h"

namespace Lanix {

// Sends whole Ethernet frames on an interface of the host's own network namespace, given by its kernel index.
// Its socket receives nothing: the protocol goes with what is sent only.
class RawTxPam final : public Mox::Entity {
 public:
  explicit RawTxPam(Mox::String name) : name_(std::move(name)) {}
  ~RawTxPam() override;

  const Mox::String& name() const { return name_; }

  // The Ethernet protocol that frames are sent as, in host order; 3 (all) by default.
  std::uint16_t ethProtocol() const { return ethProtocol_; }
  void ethProtocolIs(std::uint16_t protocol) { ethProtocol_ = protocol; }

  // Opens or closes the socket. It stays disabled when it cannot be opened.
  bool enabled() const { return socket_ >= 0; }
  Mox::Result<> enabledIs(bool enabled);

  // False with errno when the kernel did not take the frame (ENOBUFS or EAGAIN: its queue is full; ENOTCONN:
  // not enabled). Never waits.
  bool send(std::uint32_t ifIndex, const Mox::Ptr<const Pkt>& pkt);

  struct Frame {
    std::uint32_t ifIndex;
    Mox::Ptr<const Pkt> pkt;
  };
  // Sends in order, many in a system call: how many the kernel took. The first that it did not take is the
  // one after them, errno being its own; those behind that were not tried.
  std::size_t sendBatch(std::span<const Frame> frames);

 private:
  void close();

  Mox::String name_;
  std::uint16_t ethProtocol_ = 3;
  int socket_ = -1;
};

}  // namespace Lanix
