#include "KernelState/KernelStateAgent.h"

#include "KernelState/Trace.h"

namespace KernelState {
namespace {

constexpr char kSource[] = "KernelState/KernelStateAgent";

constexpr char kIpStatusPath[] = "ip/status";
constexpr char kVrfStatusLocalPath[] = "ip/vrf/status/local";
constexpr char kBridgingConfigPath[] = "bridging/config";
constexpr char kIntfStatusPath[] = "interface/status/all";
constexpr char kIntfStatusLocalPath[] = "interface/status/local";
constexpr unsigned kFindLevel = 3;

}  // namespace

KernelStateRootSm::KernelStateRootSm(Ptr<KernelStateMounts> mounts, const Ptr<Orb::TaskScheduler>& scheduler)
    : tree_(mounts->tree),
      problems_(mounts->problems, "KernelState"),
      states_(Mox::make<NamespaceStates>()),
      vrfs_(Mox::make<VrfPlaces>()),
      owners_(Mox::make<VlanOwners>()),
      neighbourTable_(Mox::make<NeighbourTable>(mounts->arpStatus)),
      reconcileSm_(states_, mounts->arpStatus, mounts->bridgingStatus, mounts->vrfIdMap, mounts->readiness,
                   scheduler),
      vrfSm_(mounts->config, states_, mounts->vrfIdMap, vrfs_, mounts->vrfStatusLocal, problems_, scheduler),
      vlanInterfaceSm_(mounts->config, states_, vrfs_, owners_, mounts->ipStatus, mounts->vlanInterfaces,
                       scheduler),
      intfStatusSm_(states_->stateIs(Lanix::kDefaultNamespace)),
      vlanNameSm_(mounts->config, states_, owners_, problems_, scheduler),
      bridgeMacSm_(owners_, problems_, scheduler),
      fdbSm_(states_->state(Lanix::kDefaultNamespace), mounts->config, mounts->limits,
             Ptr<const Bridging::Config>(), mounts->bridgingStatus, problems_, scheduler),
      findTask_(scheduler, "KernelState entities", kFindLevel, [this] { findEntities(); }) {
  tree_.on(Statedb::EntityManager::entityChanged, [this](const std::string& path) {
    if (path == kIntfStatusPath || path == kIntfStatusLocalPath || path == kBridgingConfigPath)
      findTask_.schedule();
  });
  reconcileSm_.writersAre(neighbourTable_, &vlanInterfaceSm_, &fdbSm_);
  findEntities();
  namespaceManagerSm_.is(Ptr<const VrfPlaces>(vrfs_), Ptr<const VlanOwners>(owners_), &fdbSm_, states_,
                         neighbourTable_, mounts->tree, &problems_, scheduler);
}

// The tables stay as they are for those who read them: the kernel goes on without this plug-in.
KernelStateRootSm::~KernelStateRootSm() { namespaceManagerSm_.del(); }

// Those that others make, and may make later.
void KernelStateRootSm::findEntities() {
  intfStatusSm_.directoriesAre(tree_->entityOf<Interface::AllIntfStatusDir>(kIntfStatusPath),
                               tree_->entityOf<Interface::AllIntfStatusLocalDir>(kIntfStatusLocalPath));
  const auto bridgingConfig = tree_->entityOf<Bridging::Config>(kBridgingConfigPath);
  bridgeMacSm_.bridgingConfigIs(bridgingConfig);
  fdbSm_.bridgingConfigIs(bridgingConfig);
}

Ptr<Plugin::AgentBase> kernelStateAgentFactory(const Mox::String& name) {
  return Mox::make<KernelStateAgent>(name);
}

void KernelStateAgent::doInit() {
  const Ptr<Statedb::MountGroup> group = host().mountGroup(*this);
  group->mountIs(Switch::kConfigPath, Switch::kConfigType, "r");
  group->mountIs(ArpSuppression::kLimitsPath, ArpSuppression::kLimitsType, "r");
  group->mountIs(Switch::kProblemsPath, Switch::kProblemsType, "wc");
  group->mountIs(Switch::kVlanInterfacesPath, Switch::kVlanInterfacesType, "wc");
  group->mountIs(Switch::kReadinessPath, Switch::kReadinessType, "wc");
  group->mountIs(kIpStatusPath, "Ip::Status", "wc");
  group->mountIs(kVrfStatusLocalPath, "Ip::AllVrfStatusLocal", "wc");
  group->mountIs(kBridgingConfigPath, "Bridging::Config", "rwS");
  localEntitiesCreatedIs(true);
  group->doClose(false, "KernelState", 0.0);
}

void KernelStateAgent::doMountsComplete(Statedb::MountStatus /*status*/,
                                        const Ptr<Statedb::EntityManager>& tree) {
  const Ptr<Memtab::EntityManager> tables = host().sharedMemory();
  const auto mounts = Mox::make<KernelStateMounts>();
  mounts->tree = tree;
  mounts->config = tree->entityOf<Switch::Config>(Switch::kConfigPath);
  mounts->limits = tree->entityOf<ArpSuppression::Limits>(ArpSuppression::kLimitsPath);
  mounts->problems = tree->entityOf<Switch::Problems>(Switch::kProblemsPath);
  mounts->readiness = tree->entityOf<Switch::Readiness>(Switch::kReadinessPath);
  mounts->ipStatus = tree->entityOf<Ip::Status>(kIpStatusPath);
  mounts->vrfStatusLocal = tree->entityOf<Ip::AllVrfStatusLocal>(kVrfStatusLocalPath);
  mounts->vlanInterfaces = tree->entityOf<Switch::VlanInterfaces>(Switch::kVlanInterfacesPath);
  if (!mounts->ipStatus || !mounts->vrfStatusLocal || !mounts->vlanInterfaces) {
    KERNEL_STATE_TRACE(0, "KernelState does not run: " << kIpStatusPath << ", " << kVrfStatusLocalPath
                                                       << " or " << Switch::kVlanInterfacesPath
                                                       << " has an entity of another type");
    return;
  }
  const auto written = [&](const char* path, const char* type) {
    return required(tables->mount(path, type, Memtab::MountDescriptor::writer()));
  };
  mounts->vrfIdMap =
      Mox::dynamicPtrCast<Vrf::VrfIdMap::Status>(written("vrf/vrfIdMapStatus", "Vrf::VrfIdMap::Status"));
  mounts->arpStatus = Mox::dynamicPtrCast<Arp::Table::Status>(written("arp/status", "Arp::Table::Status"));
  mounts->bridgingStatus =
      Mox::dynamicPtrCast<Memtab::Bridging::Status>(written("bridging/status", "Memtab::Bridging::Status"));
  rootSm_.is(mounts, taskSchedulerRoot()->scheduler());
}

}  // namespace KernelState

PLUGIN_AGENT(KernelState::kernelStateAgentFactory)
