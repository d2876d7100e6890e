#pragma once

#include "Tracelet/Record.h"
#include "Tracelet/Trace.h"

namespace ArpSuppression {

// The default trace handle of every reactor of the agent.
Tracelet::Handle& traceHandle();

inline const char* yesNo(bool value) { return value ? "yes" : "no"; }

}  // namespace ArpSuppression

// A level-8 trace line of a member function: the object, then what is given. The source names its component
// in kSource.
#define TRACE8(...) TRACELET_TRACE(::ArpSuppression::traceHandle(), 8, kSource, *this << " " << __VA_ARGS__)
