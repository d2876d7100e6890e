#pragma once

#include <nlohmann/json.hpp>

namespace Host {

struct Config;

// What a configuration says about state that the host writes, by path without a trailing slash: its `state`,
// its `bindings` and `neverAnswer`, and the VRF ids while no plug-in writes them. Without nulls.
nlohmann::json declaredState(const Config& config);

}  // namespace Host
