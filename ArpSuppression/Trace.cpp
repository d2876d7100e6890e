#include "ArpSuppression/Trace.h"

namespace ArpSuppression {

Tracelet::Handle& traceHandle() {
  static Tracelet::Handle handle("ArpSuppression");
  return handle;
}

}  // namespace ArpSuppression
