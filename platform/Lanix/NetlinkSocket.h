#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "Lanix/NamespaceName.h"
#include "Lanix/Seam.h"
#include "Mox/Result.h"

namespace Lanix {

// The kernel's route netlink sockets (rtnetlink(7)); the seam that tests replace with
// Replaced<NetlinkSockets>.
class NetlinkSockets {
 public:
  virtual ~NetlinkSockets() = default;
  static NetlinkSockets& current();
  static NetlinkSockets* replace(NetlinkSockets* sockets);

  // A non-blocking close-on-exec socket of the namespace that the thread is in, never one of the descriptors
  // 0 to 2; -1 with errno on failure.
  virtual int open();
  virtual void close(int socket);
  // One datagram of one or more messages to the kernel: true, or false with errno.
  virtual bool send(int socket, std::span<const std::byte> message);
  // The next datagram that the kernel sent: its size, of which `into` holds what fits; -1 with errno (EAGAIN:
  // there is none). What other processes send is thrown away.
  virtual ssize_t receive(int socket, std::span<std::byte> into);
};

// A route netlink socket in a network namespace, to be closed with closeNetlinkSocket: its descriptor, which
// is never 0.
Mox::Result<std::uint32_t> openNetlinkSocket(const NamespaceName& netNs);
// 0 is no socket: nothing happens.
void closeNetlinkSocket(std::uint32_t socket);

// Requests for one socket that go to the kernel together. Route netlink handles them within the send, one
// after the other, and queues an answer for each: nothing is waited for, and an answer that is not there
// after the send was lost.
class NetlinkBatch {
 public:
  // So many answers fit into a socket's receive queue at its default size, each taking about 800 bytes of it.
  static constexpr std::size_t kMost = 64;

  // A descriptor of openNetlinkSocket; 0 is none, and every request is refused with ENOTCONN.
  explicit NetlinkBatch(std::uint32_t socket) : socket_(socket) {}

  // Appends a request: struct nlmsghdr of linux/netlink.h and what follows it, a multiple of four bytes. The
  // length, NLM_F_REQUEST, NLM_F_ACK and the sequence number are filled in here. The batch must not be full.
  void add(std::span<const std::byte> message);
  std::size_t size() const { return sequences_.size(); }
  bool full() const { return size() == kMost; }

  // Sends all of it and says of each request, in order, whether the kernel did it; the failure's number is
  // the kernel's errno, that of the send when nothing could be sent, or ETIMEDOUT when the answer was lost.
  // The batch is empty afterwards. Answers to earlier batches that are found on the way are passed over.
  std::vector<Mox::Result<>> send();

 private:
  std::uint32_t socket_;
  std::vector<std::byte> bytes_;
  std::vector<std::uint32_t> sequences_;  // of the requests
};

}  // namespace Lanix
