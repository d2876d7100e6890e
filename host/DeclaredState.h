#pragma once

#include <nlohmann/json.hpp>

namespace Host {

struct Config;

// What a configuration says about state that the host writes, by path without a trailing slash: its `state`,
// beneath that what follows for "evpn/status" from a feed of routes, its `neverAnswer` and `limits`, and, while
// no plug-in writes them, its `bindings` and the VRF ids. Without nulls.
nlohmann::json declaredState(const Config& config);

// What brings the state that the first declares to what the second does, to be merged one after the other: in
// `gone` everything is null. What neither names, or both alike, is in neither part.
struct StateDifference {
  nlohmann::json gone = nlohmann::json::object();
  nlohmann::json changed = nlohmann::json::object();
};
StateDifference difference(const nlohmann::json& before, const nlohmann::json& now);
// Of what two configurations declare. `bindings` that both have alike, of which there may be many, cost a look-up each.
StateDifference difference(const Config& before, const Config& now);

}  // namespace Host
