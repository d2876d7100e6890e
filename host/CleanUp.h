#pragma once

#include <functional>
#include <optional>
#include <string>

#include "host/Config.h"

namespace Host {

// Where what became of things is told, a line each.
struct CleanUpLines {
  std::function<void(const std::string&)> removed;
  std::function<void(const std::string&)> refused;
};

// Removes what any run of an agent-host left: what its plug-ins put into the network namespaces (each is asked,
// Plugin/AgentBase.h), shared-memory tables, and its own files in the run directory and of locks. Tells each
// thing that it removes, and that there was nothing.
//
// Namespaces are the one that this process is in and those of the configuration's VRFs; without a configuration
// every one that has a name. Refused while an agent-host serves the first of these, or has the run directory; of
// the others one that is served is left alone, which is told. Needs root.
//
// Whether nothing is left.
bool cleanUp(const std::optional<Config>& config, const CleanUpLines& lines);

}  // namespace Host
