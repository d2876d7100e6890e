#include "ArpService/ArpServiceAgent.h"

#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <cerrno>
#include <map>
#include <vector>

#include "Arp/Table.h"
#include "ArpService/Trace.h"
#include "L3/VrfName.h"
#include "Statedb/EntityManager.h"
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

ArpServiceRootSm::ArpServiceRootSm(Ptr<const Switch::Config> config,
                                   Ptr<const Arp::ArpInputConfig> arpInputConfig,
                                   Ptr<const Ip::AllVrfStatusLocal> vrfStatusLocal,
                                   Ptr<Arp::ServiceStatus> status, Ptr<Arp::Confirmation> confirmation,
                                   Ptr<Switch::Problems> problems, const NamespaceSm::Settings& settings,
                                   const Ptr<Orb::TaskScheduler>& scheduler)
    : config_(std::move(config), [this] { updateTask_.schedule(); }),
      arpInputConfig_(std::move(arpInputConfig)),
      vrfStatusLocal_(std::move(vrfStatusLocal)),
      status_(std::move(status)),
      confirmation_(std::move(confirmation)),
      problems_(std::move(problems), "ArpService"),
      settings_(settings),
      scheduler_(scheduler),
      updateTask_(scheduler, "ArpService VRFs", kUpdateLevel, [this] { update(); }) {
  vrfStatusLocal_.on(Ip::AllVrfStatusLocal::vrfChanged, [this](const Mox::String& name) { follow(name); });
  status_->vrfDelAll();
  confirmation_->silentDelAll();
  for (const auto& [name, vrf] : vrfStatusLocal_->vrfCollection()) follow(name);
  update();
}

void ArpServiceRootSm::follow(const Mox::String& name) {
  updateTask_.schedule();
  auto& watch = vrfs_[name];
  const Ptr<const Ip::VrfStatusLocal> vrf = vrfStatusLocal_->vrf(name);
  if (!vrf) {
    vrfs_.erase(name);
  } else if (!watch) {
    watch = std::make_unique<Mox::Notifiee<const Ip::VrfStatusLocal>>(vrf);
    watch->on(Ip::VrfStatusLocal::networkNamespaceChanged, [this] { updateTask_.schedule(); });
  } else {
    watch->notifierIs(vrf);
  }
}

// Of several VRFs that are one namespace the first by name has it, and "default" has its own.
void ArpServiceRootSm::update() {
  std::map<Lanix::NamespaceName, Places> wanted;
  for (const auto& [name, watch] : vrfs_) {
    const Ptr<const Ip::VrfStatusLocal> vrf = watch->notifier();
    if (vrf->networkNamespace().empty()) continue;
    const auto config = config_ ? config_->vrf(name) : nullptr;
    Places& places = wanted[vrf->networkNamespace()];
    places.vrfs.insert(name);
    if (config && !config->device().empty()) {
      places.devices.emplace(config->device(), name);
    } else if (!places.own || name == L3::VrfName::kDefault) {
      places.own = vrf;
    }
  }
  std::erase_if(namespaces_, [&](const auto& served) { return !wanted.contains(served.first); });
  const Feed feed = config_ ? Feed::of(*config_.operator->()) : Feed();
  for (auto& [netNs, places] : wanted) {
    Ptr<NamespaceSm>& served = namespaces_[netNs];
    if (!served) {
      served = Mox::make<NamespaceSm>(netNs, arpInputConfig_, status_, confirmation_, problems_,
                                      idleHostProblems_, settings_, scheduler_);
    }
    if (netNs == Lanix::kDefaultNamespace) places.feed = feed;
    served->hasFeedIs(!feed.bridges.empty());
    served->placesAre(std::move(places));
    if (config_) served->refreshSecondsIs(config_->neighborRefreshSeconds());
  }
  std::vector<Mox::String> gone;
  for (const auto& [name, status] : status_->vrfCollection()) {
    if (!vrfs_.contains(name)) gone.push_back(name);
  }
  for (const Mox::String& name : gone) status_->vrfDel(name);
}

Ptr<Plugin::AgentBase> arpServiceAgentFactory(const Mox::String& name) {
  return Mox::make<ArpServiceAgent>(name);
}

void ArpServiceAgent::doInit() {
  const Ptr<Statedb::MountGroup> group = host().mountGroup(*this);
  group->mountIs(Switch::kConfigPath, Switch::kConfigType, "r");
  group->mountIs(Switch::kProblemsPath, Switch::kProblemsType, "wc");
  group->mountIs(kInputPath, "Arp::ArpInputConfig", "r");
  group->mountIs(kVrfStatusLocalPath, "Ip::AllVrfStatusLocal", "r");
  group->mountIs(kStatusPath, "Arp::ServiceStatus", "wc");
  group->mountIs(Arp::kConfirmationPath, Arp::kConfirmationType, "wc");
  localEntitiesCreatedIs(true);
  group->doClose(false, "ArpService", 0.0);
}

// What an earlier run configured is part of the input from the beginning, so that the kernel can be compared
// with it at once.
void ArpServiceAgent::doMountsComplete(Statedb::MountStatus /*status*/,
                                       const Ptr<Statedb::EntityManager>& tree) {
  const auto switchConfig = tree->entityOf<Switch::Config>(Switch::kConfigPath);
  const auto input = tree->entityOf<Arp::ArpInputConfig>(kInputPath);
  const auto vrfs = tree->entityOf<Ip::AllVrfStatusLocal>(kVrfStatusLocalPath);
  const auto status = tree->entityOf<Arp::ServiceStatus>(kStatusPath);
  const auto confirmation = tree->entityOf<Arp::Confirmation>(Arp::kConfirmationPath);
  if (!switchConfig || !input || !vrfs || !status || !confirmation) {
    ARP_SERVICE_TRACE(0, "ArpService does not run: " << kInputPath << ", " << kVrfStatusLocalPath << " or "
                                                     << kStatusPath << " has an entity of another type");
    return;
  }
  rootSm_ = Mox::make<ArpServiceRootSm>(switchConfig, input, vrfs, status, confirmation,
                                        tree->entityOf<Switch::Problems>(Switch::kProblemsPath),
                                        NamespaceSm::Settings(), taskSchedulerRoot()->scheduler());
}

void ArpServiceAgent::cleanUp(const Plugin::CleanUpReport& report) {
  Netlink::Socket requests(NETLINK_ROUTE);
  Netlink::Socket dumps(NETLINK_ROUTE);
  std::map<IfIndex, std::string> names;
  std::vector<Netlink::Neighbour> ours;
  auto read = dumps.dump(
      Netlink::linkDump(),
      [&](const Netlink::Received& message) {
        if (const auto link = Netlink::readLink(message)) names[link->index] = link->name;
      },
      [] {});
  if (read) {
    read = dumps.dump(
        Netlink::neighbourDump(AF_UNSPEC),
        [&](const Netlink::Received& message) {
          const auto neighbour = Netlink::readNeighbour(message);
          if (neighbour && !neighbour->isMacEntry() && neighbour->protocol == Arp::Table::kArpTypeOwn)
            ours.push_back(*neighbour);
        },
        [&] { ours.clear(); });
  }
  if (!read) return report.refused("reading the kernel's neighbours: " + read.error());
  std::vector<Netlink::Message> messages;
  for (const Netlink::Neighbour& neighbour : ours)
    messages.push_back(removeRequest(neighbour.ifIndex, neighbour.address));
  std::map<IfIndex, std::size_t> gone;
  Mox::Result<> failed;
  requests.batch(messages, [&](std::size_t i, const Mox::Result<>& result) {
    if (result) {
      ++gone[ours[i].ifIndex];
    } else if (result.number() != ENOENT && failed) {
      failed =
          Mox::Failure{"neighbour " + ours[i].address.toStrep() + ": " + result.error(), result.number()};
    }
  });
  for (const auto& [ifIndex, count] : gone)
    report.removed(std::to_string(count) + (count == 1 ? " neighbour" : " neighbours") +
                   " of protocol 110 of device " + names[ifIndex]);
  if (!failed) report.refused(failed.error());
}

}  // namespace ArpService

PLUGIN_AGENT(ArpService::arpServiceAgentFactory)
