#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <span>

#include "Lanix/NamespaceName.h"
#include "Lanix/Seam.h"

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
  // One message to the kernel: true, or false with errno.
  virtual bool send(int socket, std::span<const std::byte> message);
  // The next datagram that the kernel sent: its size, of which `into` holds what fits; -1 with errno (EAGAIN:
  // there is none). What other processes send is thrown away.
  virtual ssize_t receive(int socket, std::span<std::byte> into);
  // Waits until it is worth trying to receive; false when there is nothing after that time.
  virtual bool waitReadable(int socket, int milliseconds);
};

// A route netlink socket in a network namespace, to be closed with closeNetlinkSocket: its descriptor, which
// is never 0. 0 with errno when the namespace cannot be entered or the kernel refuses.
std::uint32_t openNetlinkSocket(const NamespaceName& netNs);
// 0 is no socket: nothing happens.
void closeNetlinkSocket(std::uint32_t socket);

// The longest that a request waits for its acknowledgement. The kernel acknowledges from within the send, so
// that this is a bound and not a habit.
inline constexpr int kNetlinkPatienceMs = 100;

// Sends one request (struct nlmsghdr of linux/netlink.h and what follows it) and takes its acknowledgement.
// NLM_F_REQUEST, NLM_F_ACK, the length and the sequence number are filled in here. Acknowledgements of
// earlier requests, given up by then, are passed over by their sequence numbers. Returns 0 or an errno: the
// kernel's own, ENOTCONN without a socket, ETIMEDOUT when there was no acknowledgement in time.
int netlinkRequest(std::uint32_t socket, std::span<std::byte> message);

}  // namespace Lanix
