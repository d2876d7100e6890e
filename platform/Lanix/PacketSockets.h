#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <span>

#include "Lanix/Seam.h"

namespace Lanix {

// The kernel's packet sockets (packet(7)); the seam that tests replace with Replaced<PacketSockets>. Results
// are those of the system calls: -1 with errno set on failure. Ethernet protocols are in host order here.
class PacketSockets {
 public:
  // A frame that is sent on the interface of this kernel index.
  struct OutFrame {
    std::uint32_t ifIndex;
    std::span<const std::byte> bytes;
  };
  // Where a frame is received: `size` becomes what arrived, cut to the buffer.
  struct InFrame {
    std::span<std::byte> buffer;
    std::size_t size = 0;
  };
  // Frames that one system call handles at most.
  static constexpr std::size_t kBatch = 64;

  virtual ~PacketSockets() = default;
  static PacketSockets& current();
  static PacketSockets* replace(PacketSockets* sockets);

  // A close-on-exec socket of AF_PACKET, never one of the descriptors 0 to 2. With protocol 0 it receives
  // nothing until it is bound.
  virtual int open(int type, std::uint16_t protocol);
  virtual int bind(int socket, std::uint32_t ifIndex, std::uint16_t protocol);
  virtual int nonBlockingIs(int socket, bool nonBlocking);
  // How many bytes may wait to be received, as the kernel counts them: it doubles what is asked for and has a
  // least size of its own. Only a process without CAP_NET_ADMIN is held to net.core.rmem_max.
  virtual int receiveBufferIs(int socket, int bytes);
  // Frames that the receive buffer had no room for since this was asked last.
  virtual std::uint32_t takeDropped(int socket);
  // The error that waits to be reported in place of the next frame (ENETDOWN after the device was down), or
  // 0. It is not reported any more then.
  virtual int takeError(int socket);
  // Bytes that were sent and still wait in the device's queue.
  virtual int unsent(int socket);
  virtual ssize_t read(int socket, std::span<std::byte> buffer);
  virtual ssize_t write(int socket, std::span<const std::byte> frame);
  // Sends without waiting.
  virtual ssize_t sendTo(int socket, const OutFrame& frame, std::uint16_t protocol);
  // Receives what is there, without waiting, up to kBatch frames: how many, or -1.
  virtual int receiveBatch(int socket, std::span<InFrame> frames);
  // Sends up to kBatch frames without waiting: how many, or -1 when the first was refused.
  virtual int sendBatch(int socket, std::span<const OutFrame> frames, std::uint16_t protocol);
  virtual void close(int socket);
};

}  // namespace Lanix
