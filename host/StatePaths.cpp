#include "host/StatePaths.h"

#include <algorithm>

#include "Arp/Confirmation.h"
#include "Statedb/Path.h"
#include "Suppression/Answer.h"
#include "Suppression/BindingOrigin.h"
#include "Suppression/DataPlaneAnswers.h"
#include "Suppression/Limits.h"
#include "Suppression/NeverAnswer.h"
#include "Switch/Config.h"
#include "Switch/Forwarding.h"
#include "Switch/Health.h"
#include "Switch/Problems.h"
#include "Switch/Readiness.h"
#include "Switch/VlanInterfaces.h"

namespace Host {

namespace {

constexpr std::string_view kKniPrefix = "kni/ns/";
constexpr std::string_view kKniSuffix = "/status";

StatePath kniPath(std::string path) {
  return {std::move(path), "KernelNetInfo::Status", Storage::tree, Writing::byPlugin, kKernelState, false};
}

}  // namespace

const std::vector<StatePath>& statePaths() {
  using enum Storage;
  using enum Writing;
  // clang-format off
  static const std::vector<StatePath> paths = {
      {"arp/input/config/arpSuppression", "Arp::ArpInputConfig", tree, byPlugin, kArpSuppression, true},
      {Arp::kConfirmationPath, Arp::kConfirmationType, tree, byPlugin, kArpService, false},
      {"arp/service/status", "Arp::ServiceStatus", tree, byPlugin, kArpService, false},
      {"arp/status", "Arp::Table::Status", sharedMemory, byPlugin, kKernelState, false},
      {ArpSuppression::kAnswerPath, ArpSuppression::kAnswerType, sharedMemory, byPlugin, kArpSuppression, false},
      {ArpSuppression::kAnswerVlansPath, ArpSuppression::kAnswerVlansType, tree, byPlugin, kArpSuppression, false},
      {"arpSuppression/counter", "ArpSuppression::ArpSuppressionCounterStatus", sharedMemory, byPlugin, kArpSuppression, false},
      {ArpSuppression::kLimitsPath, ArpSuppression::kLimitsType, tree, byHost, nullptr, false},
      {ArpSuppression::kNeverAnswerPath, ArpSuppression::kNeverAnswerType, tree, byHost, nullptr, false},
      {ArpSuppression::kBindingOriginPath, ArpSuppression::kBindingOriginType, tree, byPlugin, kKernelEvpn, false},
      {kRemoteBindingPath, "ArpSuppression::RemoteBindingConfig", sharedMemory, byPlugin, kKernelEvpn, false},
      {"arpSuppression/status", "ArpSuppression::ArpSuppressionStatus", tree, byPlugin, kArpSuppression, true},
      {"bridging/config", "Bridging::Config", tree, byHost, nullptr, false},
      {"bridging/status", "Memtab::Bridging::Status", sharedMemory, byPlugin, kKernelState, false},
      {"evpn/mplsConfig", "Evpn::MplsConfig", tree, byHost, nullptr, false},
      {"evpn/status", "Evpn::EvpnStatus", tree, byHost, nullptr, false},
      {"interface/status/all", "Interface::AllIntfStatusDir", tree, byPlugin, kKernelState, false},
      {"interface/status/local", "Interface::AllIntfStatusLocalDir", tree, byPlugin, kKernelState, false},
      {"ip/status", "Ip::Status", tree, byPlugin, kKernelState, false},
      {"ip/vrf/status/local", "Ip::AllVrfStatusLocal", tree, byPlugin, kKernelState, false},
      {"routing/fhrp/vrMacStatus", "Routing::Fhrp::VirtualRouterMacStatus", tree, byHost, nullptr, false},
      {"routing/l2vpn/config", "Routing::L2Vpn::Config", tree, byHost, nullptr, false},
      {ArpSuppression::kDataPlaneAnswersPath, ArpSuppression::kDataPlaneAnswersType, tree, byPlugin, kSoftForward, false},
      {Switch::kConfigPath, Switch::kConfigType, tree, fixed, nullptr, false},
      {Switch::kForwardingPath, Switch::kForwardingType, tree, byPlugin, kSoftForward, false},
      {Switch::kHealthPath, Switch::kHealthType, tree, fixed, nullptr, false},
      {Switch::kProblemsPath, Switch::kProblemsType, tree, fixed, nullptr, false},
      {Switch::kReadinessPath, Switch::kReadinessType, tree, fixed, nullptr, false},
      {Switch::kVlanInterfacesPath, Switch::kVlanInterfacesType, tree, byPlugin, kKernelState, false},
      {kVrfIdPath, "Vrf::VrfIdMap::Status", sharedMemory, byPlugin, kKernelState, false},
  };
  // clang-format on
  return paths;
}

std::optional<StatePath> findStatePath(std::string_view given) {
  const std::string_view path = Statedb::normalPath(given);
  for (const StatePath& state : statePaths()) {
    if (state.path == path) return state;
  }
  if (!path.starts_with(kKniPrefix) || !path.ends_with(kKniSuffix)) return std::nullopt;
  if (path.size() <= kKniPrefix.size() + kKniSuffix.size()) return std::nullopt;
  const std::string_view netNs =
      path.substr(kKniPrefix.size(), path.size() - kKniPrefix.size() - kKniSuffix.size());
  constexpr std::size_t kLongestFileName = 255;
  if (netNs.find('/') != std::string_view::npos || netNs.size() > kLongestFileName) return std::nullopt;
  return kniPath(std::string(path));
}

std::string statePathNames() {
  std::string names;
  for (const StatePath& state : statePaths()) names += state.path + ", ";
  return names + "kni/ns/<namespace>/status";
}

bool writtenByPlugin(const StatePath& state, const std::vector<std::string>& loadedPlugins) {
  return state.writing == Writing::byPlugin &&
         std::find(loadedPlugins.begin(), loadedPlugins.end(), state.writer) != loadedPlugins.end();
}

Mox::Result<> settable(const StatePath& state, const std::vector<std::string>& loadedPlugins) {
  if (state.writing == Writing::fixed) {
    return Mox::Failure{state.path == Switch::kConfigPath
                            ? "cannot be set; it follows \"vrfs\" and \"vlans\" of the configuration file"
                            : "cannot be set; it says what the plug-ins found"};
  }
  if (!writtenByPlugin(state, loadedPlugins)) return {};
  const std::string loaded =
      "cannot be set while the plug-in " + std::string(state.writer) + " is loaded, which writes it; ";
  if (state.path == kRemoteBindingPath) {
    return Mox::Failure{loaded +
                        "name bindings of your own in \"bindings\" of the configuration file, and reload"};
  }
  return Mox::Failure{loaded + "take it out of \"agents\" in the configuration file to set it by hand"};
}

}  // namespace Host
