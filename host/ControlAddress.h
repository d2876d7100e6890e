#pragma once

#include <sys/un.h>

#include <cstdio>

#include "host/Protocol.h"

namespace Host {

// The address of the control socket in a directory that is open. Through the descriptor, because the name of
// a run directory may be longer than a socket address can be (unix(7): 108 bytes).
inline sockaddr_un controlAddress(int directory) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::snprintf(address.sun_path, sizeof address.sun_path, "/proc/self/fd/%d/%s", directory, kControlSocket);
  return address;
}

}  // namespace Host
