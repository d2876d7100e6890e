#pragma once

#include "Tracelet/Record.h"
#include "Tracelet/Trace.h"

namespace ArpService {

// The trace handle of every reactor of the plug-in: "ArpService".
Tracelet::Handle& traceHandle();

}  // namespace ArpService

// Lines of this plug-in; level 0 is what an operator must not miss. The source names its component in
// kSource.
#define ARP_SERVICE_TRACE(level, ...) TRACELET_TRACE(::ArpService::traceHandle(), level, kSource, __VA_ARGS__)
