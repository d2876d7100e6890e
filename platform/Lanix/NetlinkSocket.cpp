#include "Lanix/NetlinkSocket.h"

#include <linux/netlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "Lanix/Descriptor.h"
#include "Lanix/NamespaceGuard.h"

namespace Lanix {

namespace {

NetlinkSockets* replaced_ = nullptr;

}  // namespace

NetlinkSockets& NetlinkSockets::current() {
  static NetlinkSockets kernel;
  return replaced_ ? *replaced_ : kernel;
}

NetlinkSockets* NetlinkSockets::replace(NetlinkSockets* sockets) { return std::exchange(replaced_, sockets); }

int NetlinkSockets::open() {
  return aboveStandard(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE));
}

void NetlinkSockets::close(int socket) { ::close(socket); }

std::uint32_t openNetlinkSocket(const NamespaceName& netNs) {
  int socket = -1;
  int error = 0;
  {
    const NamespaceGuard guard(netNs);
    error = errno;
    if (guard) {
      socket = NetlinkSockets::current().open();
      error = errno;
    }
  }
  errno = error;
  return socket > 0 ? static_cast<std::uint32_t>(socket) : 0;
}

void closeNetlinkSocket(std::uint32_t socket) {
  if (socket != 0) NetlinkSockets::current().close(static_cast<int>(socket));
}

}  // namespace Lanix
