#pragma once

#include <cstdint>

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
};

// A route netlink socket in a network namespace, to be closed with closeNetlinkSocket: its descriptor, which
// is never 0. 0 with errno when the namespace cannot be entered or the kernel refuses.
std::uint32_t openNetlinkSocket(const NamespaceName& netNs);
// 0 is no socket: nothing happens.
void closeNetlinkSocket(std::uint32_t socket);

}  // namespace Lanix
