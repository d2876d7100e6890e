#pragma once

#include "Tracelet/Record.h"
#include "Tracelet/Trace.h"

namespace Netlink {

// The trace handle of what this folder does for any plug-in: "Netlink".
Tracelet::Handle& traceHandle();

}  // namespace Netlink

// Lines of this folder; level 0 is what an operator must not miss. The source names its component in
// kSource.
#define NETLINK_TRACE(level, ...) TRACELET_TRACE(::Netlink::traceHandle(), level, kSource, __VA_ARGS__)
