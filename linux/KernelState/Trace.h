#pragma once

#include "Tracelet/Record.h"
#include "Tracelet/Trace.h"

namespace KernelState {

// The trace handle of every reactor of the plug-in: "KernelState".
Tracelet::Handle& traceHandle();

}  // namespace KernelState

// Lines of this plug-in; level 0 is what an operator must not miss. The source names its component in
// kSource.
#define KERNEL_STATE_TRACE(level, ...) \
  TRACELET_TRACE(::KernelState::traceHandle(), level, kSource, __VA_ARGS__)
