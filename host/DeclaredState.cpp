#include "host/DeclaredState.h"

#include <algorithm>
#include <string>

#include "L3/VrfName.h"
#include "Statedb/Json.h"
#include "Statedb/Path.h"
#include "Suppression/Limits.h"
#include "host/Config.h"
#include "host/StatePaths.h"

namespace Host {

using nlohmann::json;

namespace {

// Paths, members of an entity and keys of a collection take turns: what is gone is a key, or a member that is
// no collection. Of a path and of a collection the rest stays, which may have been set by hand.
json goneOf(const json& before, const json& now, bool ofKeys) {
  json gone = json::object();
  for (auto item = before.begin(); item != before.end(); ++item) {
    const auto kept = now.find(item.key());
    const bool isKept = kept != now.end() && (kept->is_object() || !item->is_object());
    if (!item->is_object() || (ofKeys && !isKept)) {
      if (!isKept) gone[item.key()] = nullptr;
      continue;
    }
    json below = goneOf(*item, isKept ? *kept : json::object(), !ofKeys);
    if (!below.empty()) gone[item.key()] = std::move(below);
  }
  return gone;
}

json changedOf(const json& before, const json& now) {
  json changed = json::object();
  for (auto item = now.begin(); item != now.end(); ++item) {
    const auto known = before.find(item.key());
    if (known != before.end() && known->is_object() && item->is_object()) {
      json below = changedOf(*known, *item);
      if (!below.empty()) changed[item.key()] = std::move(below);
    } else if (known == before.end() || *known != *item) {
      changed[item.key()] = *item;
    }
  }
  return changed;
}

json declared(const Config& config, const Switch::RemoteBindings& bindings) {
  json all = json::object();
  if (!config.has(kKernelState)) {
    json& names = all[kVrfIdPath][kVrfIdToName];
    names["0"] = L3::VrfName::kDefault;
    for (const auto& [name, vrf] : config.vrfs) names[std::to_string(vrf.id)] = name;
  }
  if (config.evpn.feed == Switch::EvpnFeed::kernel) {
    json& evpn = all["evpn/status"];
    evpn["mplsConfigured"] = true;
    evpn["vlanToDot1q"] = json::object();
    for (const auto& [vlanId, vlan] : config.vlans) evpn["vlanToDot1q"][std::to_string(vlanId)] = vlanId;
  }
  // A path may be named in more than one way ("bridging/config" and "bridging/config/").
  for (auto item = config.state.begin(); item != config.state.end(); ++item)
    all[std::string(Statedb::normalPath(item.key()))].merge_patch(item.value());
  for (const auto& [key, binding] : bindings) {
    if (config.has(kKernelEvpn)) break;  // it writes them itself
    all[kRemoteBindingPath]["remoteBinding"][Mox::toStrep(key)] = Statedb::valueToJson(binding);
  }
  for (const ArpSuppression::IpNetwork& network : config.neverAnswer)
    all[ArpSuppression::kNeverAnswerPath]["prefix"][network.toStrep()] = true;
  for (const auto& [name, limit] : config.limits) all[ArpSuppression::kLimitsPath][name] = limit;
  return all;
}

}  // namespace

StateDifference difference(const json& before, const json& now) {
  StateDifference difference;
  for (auto path = before.begin(); path != before.end(); ++path) {
    json gone = goneOf(*path, now.value(path.key(), json::object()), false);
    if (!gone.empty()) difference.gone[path.key()] = std::move(gone);
  }
  difference.changed = changedOf(before, now);
  return difference;
}

json declaredState(const Config& config) { return declared(config, config.bindings); }

StateDifference difference(const Config& before, const Config& now) {
  // What `state` says of a binding is beneath those: then all of them count.
  const auto inState = [](const Config& config) {
    return std::ranges::any_of(config.state.items(), [](const auto& item) {
      return Statedb::normalPath(item.key()) == kRemoteBindingPath;
    });
  };
  if (inState(before) || inState(now)) return difference(declaredState(before), declaredState(now));
  const auto others = [](const Switch::RemoteBindings& all, const Switch::RemoteBindings& known) {
    Switch::RemoteBindings others;
    for (const auto& binding : all) {
      const auto same = known.find(binding.first);
      if (same == known.end() || same->second != binding.second) others.insert(others.end(), binding);
    }
    return others;
  };
  return difference(declared(before, others(before.bindings, now.bindings)),
                    declared(now, others(now.bindings, before.bindings)));
}

}  // namespace Host
