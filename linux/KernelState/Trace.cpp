#include "KernelState/Trace.h"

namespace KernelState {

Tracelet::Handle& traceHandle() {
  static Tracelet::Handle handle("KernelState");
  return handle;
}

}  // namespace KernelState
