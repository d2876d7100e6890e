#include "ArpService/ArpServiceAgent.h"

#include "ArpService/Trace.h"
#include "Statedb/EntityManager.h"
#include "Statedb/Path.h"
#include "Switch/Config.h"

namespace ArpService {

Tracelet::Handle& traceHandle() {
  static Tracelet::Handle handle("ArpService");
  return handle;
}

namespace {

constexpr char kSource[] = "ArpService/ArpServiceAgent";
constexpr char kInputPath[] = "arp/input/config/arpSuppression";
constexpr char kStatusPath[] = "arp/service/status";
constexpr char kVrfStatusLocalPath[] = "ip/vrf/status/local";
constexpr unsigned kUpdateLevel = 3;

}  // namespace

ArpServiceRootSm::ArpServiceRootSm(Ptr<const Arp::ArpInputConfig> arpInputConfig,
                                   Ptr<const Ip::AllVrfStatusLocal> vrfStatusLocal,
                                   Ptr<Arp::ServiceStatus> status, Ptr<Switch::Problems> problems,
                                   const VrfSm::Settings& settings, const Ptr<Orb::TaskScheduler>& scheduler)
    : arpInputConfig_(std::move(arpInputConfig)),
      vrfStatusLocal_(std::move(vrfStatusLocal)),
      status_(std::move(status)),
      problems_(std::move(problems), "ArpService"),
      settings_(settings),
      scheduler_(scheduler),
      updateTask_(scheduler, "ArpService VRFs", kUpdateLevel, [this] { update(); }) {
  vrfStatusLocal_.on(Ip::AllVrfStatusLocal::vrfChanged, [this] { updateTask_.schedule(); });
  status_->vrfDelAll();
  update();
}

void ArpServiceRootSm::update() {
  for (auto at = vrfs_.begin(); at != vrfs_.end();) {
    const auto& [name, served] = *at;
    if (vrfStatusLocal_->vrf(name) == served.first) {
      ++at;
      continue;
    }
    status_->vrfDel(name);
    at = vrfs_.erase(at);
  }
  for (const auto& [name, vrf] : vrfStatusLocal_->vrfCollection()) {
    if (vrfs_.contains(name)) continue;
    vrfs_[name] = {
        vrf, Mox::make<VrfSm>(arpInputConfig_, vrf, status_->vrfIs(name), problems_, settings_, scheduler_)};
  }
}

Ptr<Plugin::AgentBase> arpServiceAgentFactory(const Mox::String& name) {
  return Mox::make<ArpServiceAgent>(name);
}

void ArpServiceAgent::doInit() {
  const Ptr<Statedb::MountGroup> group = host().mountGroup(*this);
  group->mountIs(Switch::kConfigPath, Switch::kConfigType, "r");
  group->mountIs(Switch::kProblemsPath, Switch::kProblemsType, "wc");
  group->mountIs(kInputPath, "Arp::ArpInputConfig", "r");
  group->mountIs(Statedb::cellPath(kVrfStatusLocalPath), "Ip::AllVrfStatusLocal", "r");
  group->mountIs(kStatusPath, "Arp::ServiceStatus", "wc");
  localEntitiesCreatedIs(true);
  group->doClose(false, "ArpService", 0.0);
}

// What an earlier run configured is part of the input from the beginning, so that the kernel can be compared
// with it at once.
void ArpServiceAgent::doMountsComplete(Statedb::MountStatus /*status*/,
                                       const Ptr<Statedb::EntityManager>& tree) {
  const auto switchConfig = tree->entityOf<Switch::Config>(Switch::kConfigPath);
  const auto input = tree->entityOf<Arp::ArpInputConfig>(kInputPath);
  const auto vrfs = tree->entityOf<Ip::AllVrfStatusLocal>(Statedb::cellPath(kVrfStatusLocalPath));
  const auto status = tree->entityOf<Arp::ServiceStatus>(kStatusPath);
  if (!switchConfig || !input || !vrfs || !status) {
    ARP_SERVICE_TRACE(0, "ArpService does not run: " << kInputPath << ", " << kVrfStatusLocalPath << " or "
                                                     << kStatusPath << " has an entity of another type");
    return;
  }
  VrfSm::Settings settings;
  settings.refreshSeconds = switchConfig->neighborRefreshSeconds();
  rootSm_ = Mox::make<ArpServiceRootSm>(input, vrfs, status,
                                        tree->entityOf<Switch::Problems>(Switch::kProblemsPath), settings,
                                        taskSchedulerRoot()->scheduler());
}

}  // namespace ArpService

PLUGIN_AGENT(ArpService::arpServiceAgentFactory)
