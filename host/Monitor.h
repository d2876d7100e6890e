#pragma once

#include <memory>
#include <string>
#include <vector>

#include "Mox/Result.h"
#include "Orb/EventLoop.h"
#include "host/ControlCommands.h"
#include "host/State.h"

namespace Host {

// Follows state, that of the tree and shared-memory tables alike, and writes what changes, a line a change:
//
//   {"time": 1790000000.123, "path": "evpn/status", "change": {"vlanToDot1q": {"10": 10, "11": null}}}
//
// `time` is in seconds since 1970. `change` is a JSON merge patch (RFC 7396) by member names, with what is
// there when the line is written: null for what has gone, and null as a whole when the path has. Changes of
// one moment are one line; what changes again before it could be written appears once. What is there at the
// beginning is not written.
//
// A client that reads slowly costs bounded memory: shared-memory tables keep their changes themselves, and of
// an entity of the tree up to `kKeptChanges` changed members are kept by name. Beyond that they are
// forgotten, and the line is {"time": ..., "path": ..., "lost": true}: `show` has the state then.
inline constexpr std::size_t kKeptChanges = 4096;

// Never done: ends with its client. No path: all, those that come later too. When one is unknown the refusal
// names those that there are. Loop and state must outlive it.
Mox::Result<std::unique_ptr<ControlJob>> makeMonitor(State& state, Orb::EventLoop& loop,
                                                     const std::vector<std::string>& paths);

}  // namespace Host
