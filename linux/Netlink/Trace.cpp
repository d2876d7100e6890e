#include "Netlink/Trace.h"

namespace Netlink {

Tracelet::Handle& traceHandle() {
  static Tracelet::Handle handle("Netlink");
  return handle;
}

}  // namespace Netlink
