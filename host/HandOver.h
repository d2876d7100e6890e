#pragma once

#include <functional>
#include <nlohmann/json.hpp>
#include <set>
#include <string>

#include "Mox/Result.h"

namespace Host {

// What an agent-host that hands over tells the next one, so that what was set by hand stays. A file of the run
// directory: {"declared": {...}, "state": {...}, "tables": [...]}.
struct HandOver {
  // What its configuration said of state (DeclaredState.h). What the next one's does not say any more goes.
  nlohmann::json declared = nlohmann::json::object();
  // By path: what was set by hand of the state tree.
  nlohmann::json state = nlohmann::json::object();
  // The paths of the shared-memory tables that it wrote itself; their content is still there.
  std::set<std::string> tables;
};

// The file appears whole or not at all.
Mox::Result<> writeHandOver(const HandOver& handOver, const std::string& file);
// Nothing of anything when there is no such file; and when it cannot be used, which is reported.
HandOver readHandOver(const std::string& file, const std::function<void(const std::string&)>& report);

}  // namespace Host
