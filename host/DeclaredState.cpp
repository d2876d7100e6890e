#include "host/DeclaredState.h"

#include <string>

#include "L3/VrfName.h"
#include "Statedb/Json.h"
#include "Statedb/Path.h"
#include "host/Config.h"
#include "host/StatePaths.h"

namespace Host {

using nlohmann::json;

json declaredState(const Config& config) {
  json all = json::object();
  if (!config.has(kKernelState)) {
    json& names = all[kVrfIdPath][kVrfIdToName];
    names["0"] = L3::VrfName::kDefault;
    for (const auto& [name, vrf] : config.vrfs) names[std::to_string(vrf.id)] = name;
  }
  // A path may be named in more than one way ("bridging/config" and "bridging/config/").
  for (auto item = config.state.begin(); item != config.state.end(); ++item)
    all[std::string(Statedb::normalPath(item.key()))].merge_patch(item.value());
  for (const auto& [key, binding] : config.bindings)
    all[kRemoteBindingPath]["remoteBinding"][Mox::toStrep(key)] = Statedb::valueToJson(binding);
  for (const ArpSuppression::Ip4Network& network : config.neverAnswer)
    all[ArpSuppression::kNeverAnswerPath]["prefix"][network.toStrep()] = true;
  return all;
}

}  // namespace Host
