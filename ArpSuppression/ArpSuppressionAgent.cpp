#include "ArpSuppression/ArpSuppressionAgent.h"

#include <cstdlib>

#include "ArpSuppression/AgentCommands.h"
#include "ArpSuppression/Problems.h"
#include "ArpSuppression/Trace.h"
#include "Mox/Assert.h"
#include "Suppression/BindingOrigin.h"
#include "Suppression/Limits.h"
#include "Switch/Forwarding.h"
#include "Tracelet/Tracelet.h"

namespace ArpSuppression {

namespace {

constexpr char kSource[] = "ArpSuppression/ArpSuppressionAgent";

constexpr char kStatusPath[] = "arpSuppression/status";
constexpr char kArpInputConfigPath[] = "arp/input/config/arpSuppression";
constexpr char kRemoteBindingPath[] = "arpSuppression/remoteBindingConfig/evpn";
constexpr char kVrfStatusLocalPath[] = "ip/vrf/status/local";
constexpr char kIntfStatusLocalPath[] = "interface/status/local";

// Readers of other processes look at counters now and then; they are not woken for every request.
constexpr double kCounterDoorbellDelay = 0.2;

}  // namespace

// --- The agent -------------------------------------------------------------------------------------------

Ptr<Plugin::AgentBase> arpSuppressionAgentFactory(const Mox::String& name) {
  return Mox::make<ArpSuppressionAgent>(name);
}

ArpSuppressionAgent::~ArpSuppressionAgent() {
  agentCommandCallbackDelAll();  // they hold the root reactor
  mounts_ = nullptr;
  vrfIdReverseMapper_ = nullptr;
  rootSm_.del();
  problemsAre(nullptr);
}

Mox::String ArpSuppressionAgent::traceletInit(const Mox::String& agentName) {
  Mox::String fileName = agentName;
  if (!std::getenv("TRACELETDIR")) fileName += "-%d";
  fileName += ".tl";
  Tracelet::TraceParams params;
  params.fileName = fileName;
  params.levelKiB = {8, 32, 256, 128, 512, 512};
  params.options = 0;
  params.files = 24;
  params.singleThreaded = true;
  params.recordAssertions = true;
  params.maxRecordBytes = 512;
  return Tracelet::initialize(params);
}

void ArpSuppressionAgent::doInit() {
  TRACE8("");
  traceletInit(name());
  activityManager().useEpollIs(true);
  const Ptr<Statedb::MountGroup> group = host().mountGroup(*this);
  group->mountIs(kStatusPath, "ArpSuppression::ArpSuppressionStatus", "wc");
  group->mountIs("ip/status", "Ip::Status", "r");
  group->mountIs("bridging/config/", "Bridging::Config", "r");
  group->mountIs("evpn/status", "Evpn::EvpnStatus", "r");
  group->mountIs("evpn/mplsConfig", "Evpn::MplsConfig", "r");
  group->mountIs("routing/fhrp/vrMacStatus", "Routing::Fhrp::VirtualRouterMacStatus", "r");
  group->mountIs(kVrfStatusLocalPath, "Ip::AllVrfStatusLocal", "r");
  group->mountIs("routing/l2vpn/config", "Routing::L2Vpn::Config", "r");
  group->mountIs(kArpInputConfigPath, "Arp::ArpInputConfig", "wS");
  group->mountIs(Arp::kConfirmationPath, Arp::kConfirmationType, "r");
  group->mountIs(kBindingOriginPath, kBindingOriginType, "r");  // for `find`
  group->mountIs(kLimitsPath, kLimitsType, "r");
  group->mountIs(kNeverAnswerPath, kNeverAnswerType, "r");
  group->mountIs(Switch::kConfigPath, Switch::kConfigType, "r");
  group->mountIs(Switch::kForwardingPath, Switch::kForwardingType, "r");  // for `explain`
  group->mountIs(kDataPlaneAnswersPath, kDataPlaneAnswersType, "r");
  group->mountIs(kAnswerVlansPath, kAnswerVlansType, "wc");
  group->mountIs(Switch::kReadinessPath, Switch::kReadinessType, "wc");
  createLocalEntity("AllIntfStatusDir", "Interface::AllIntfStatusDir", "interface/status/all");
  createLocalEntity("AllIntfStatusLocalDir", "Interface::AllIntfStatusLocalDir", kIntfStatusLocalPath);
  localEntitiesCreatedIs(true);
  group->doClose(false, "", 0.0);
}

void ArpSuppressionAgent::doMountsComplete(Statedb::MountStatus /*status*/,
                                           const Ptr<Statedb::EntityManager>& tree) {
  TRACE8("");
  using Memtab::MountDescriptor;
  const auto arpSuppressionStatus = tree->entityOf<ArpSuppressionStatus>(kStatusPath);
  // What an earlier run published does not hold any more. Its `runnable` flag is read later.
  if (arpSuppressionStatus) arpSuppressionStatus->vlanIdDelAll();

  const Ptr<Memtab::EntityManager> tables = host().sharedMemory();
  required(tables->mount("vrf/vrfIdMapStatus", "Vrf::VrfIdMap::Status", MountDescriptor::reader()));
  required(tables->mount("arp/status", "Arp::Table::Status", MountDescriptor::reader()));
  required(tables->mount("arpSuppression/counter", "ArpSuppression::ArpSuppressionCounterStatus",
                         MountDescriptor::writer({{"counter", kCounters}}, kCounterDoorbellDelay)));
  required(tables->mount("bridging/status", "Memtab::Bridging::Status", MountDescriptor::reader()));
  if (!isPhysicalHardware()) required(tables->mount(kAnswerPath, kAnswerType, MountDescriptor::writer()));
  const Ptr<MoxSharedMem::MountGroup> remoteBindingGroup = tables->mountGroup();
  required(remoteBindingGroup->mountIs(kRemoteBindingPath, "ArpSuppression::RemoteBindingConfig",
                                       MountDescriptor::reader()));
  remoteBindingGroup->close();

  const auto counters = tables->entityOf<ArpSuppressionCounterStatus>("arpSuppression/counter");
  MOX_ASSERT(kSource, "arpSuppressionCounterStatus", counters != nullptr);
  counters->clear();

  const auto vrfIdMap = tables->entityOf<Vrf::VrfIdMap::Status>("vrf/vrfIdMapStatus");
  const auto vrfNameToIdMap = Mox::make<Vrf::VrfIdMap::NameToIdMap>();
  vrfIdReverseMapper_ = Mox::make<Vrf::VrfIdMap::ReverseMapper>(vrfIdMap, vrfNameToIdMap);

  const auto arpInputConfig = tree->entityOf<Arp::ArpInputConfig>(kArpInputConfigPath);
  MOX_ASSERT(kSource, "arpInputConfig", arpInputConfig != nullptr);
  arpInputConfig->sourceIs(Arp::kSourceArpSuppression);

  mountsIs(Mox::make<ArpSuppressionMounts>(
      tree, tables->entityOf<RemoteBindingConfig>(kRemoteBindingPath), remoteBindingGroup,
      arpSuppressionStatus, counters, tree->entityOf<Ip::AllVrfStatusLocal>(kVrfStatusLocalPath), vrfIdMap,
      vrfNameToIdMap, tables->entityOf<Arp::Table::Status>("arp/status"),
      tree->entityOf<Ip::Status>("ip/status"), tree->entityOf<Bridging::Config>("bridging/config"),
      tables->entityOf<Memtab::Bridging::Status>("bridging/status"),
      tree->entityOf<Evpn::EvpnStatus>("evpn/status"), tree->entityOf<Evpn::MplsConfig>("evpn/mplsConfig"),
      tree->entityOf<Routing::Fhrp::VirtualRouterMacStatus>("routing/fhrp/vrMacStatus"), arpInputConfig,
      tree->entityOf<Interface::AllIntfStatusDir>("interface/status/all"),
      tree->entityOf<Interface::AllIntfStatusLocalDir>(kIntfStatusLocalPath),
      tree->entityOf<Routing::L2Vpn::Config>("routing/l2vpn/config"),
      tree->entityOf<Switch::Readiness>(Switch::kReadinessPath),
      tables->entityOf<AnswerStatus>(kAnswerPath)));
  problemsAre(tree->entityOf<Switch::Problems>(Switch::kProblemsPath));
  rootSmIs(mounts_, isPhysicalHardware(), taskSchedulerRoot());
  for (const auto& command : makeAgentCommands(rootSm(), activityManager())) agentCommandCallbackIs(command);
}

void ArpSuppressionAgent::dumpState(Orb::DumpContext& context, int indent) const {
  context.line(indent, "ArpSuppressionAgent");
  context.child(indent + 2, rootSm(), "ArpSuppressionRootSm");
}

ArpSuppressionMounts::ArpSuppressionMounts(
    Ptr<Statedb::EntityManager> entityManager, Ptr<const RemoteBindingConfig> remoteBindingConfig,
    Ptr<const MoxSharedMem::MountGroup> remoteBindingConfigMountGroup,
    Ptr<ArpSuppressionStatus> arpSuppressionStatus,
    Ptr<ArpSuppressionCounterStatus> arpSuppressionCounterStatus,
    Ptr<const Ip::AllVrfStatusLocal> allVrfStatusLocal, Ptr<const Vrf::VrfIdMap::Status> vrfIdMap,
    Ptr<const Vrf::VrfIdMap::NameToIdMap> vrfNameToIdMap, Ptr<const Arp::Table::Status> arpStatus,
    Ptr<const Ip::Status> ipStatus, Ptr<const Bridging::Config> bridgingConfig,
    Ptr<const Memtab::Bridging::Status> bridgingStatus, Ptr<const Evpn::EvpnStatus> evpnStatus,
    Ptr<const Evpn::MplsConfig> evpnMplsConfig,
    Ptr<const Routing::Fhrp::VirtualRouterMacStatus> fhrpVrMacStatus, Ptr<Arp::ArpInputConfig> arpInputConfig,
    Ptr<const Interface::AllIntfStatusDir> allIntfStatusDir,
    Ptr<const Interface::AllIntfStatusLocalDir> allIntfStatusLocalDir,
    Ptr<const Routing::L2Vpn::Config> l2VpnConfig, Ptr<Switch::Readiness> readiness,
    Ptr<AnswerStatus> answerStatus)
    : entityManager(std::move(entityManager)),
      remoteBindingConfig(std::move(remoteBindingConfig)),
      remoteBindingConfigMountGroup(std::move(remoteBindingConfigMountGroup)),
      arpSuppressionStatus(std::move(arpSuppressionStatus)),
      arpSuppressionCounterStatus(std::move(arpSuppressionCounterStatus)),
      allVrfStatusLocal(std::move(allVrfStatusLocal)),
      vrfIdMap(std::move(vrfIdMap)),
      vrfNameToIdMap(std::move(vrfNameToIdMap)),
      arpStatus(std::move(arpStatus)),
      ipStatus(std::move(ipStatus)),
      bridgingConfig(std::move(bridgingConfig)),
      bridgingStatus(std::move(bridgingStatus)),
      evpnStatus(std::move(evpnStatus)),
      evpnMplsConfig(std::move(evpnMplsConfig)),
      fhrpVrMacStatus(std::move(fhrpVrMacStatus)),
      arpInputConfig(std::move(arpInputConfig)),
      allIntfStatusDir(std::move(allIntfStatusDir)),
      allIntfStatusLocalDir(std::move(allIntfStatusLocalDir)),
      l2VpnConfig(std::move(l2VpnConfig)),
      readiness(std::move(readiness)),
      answerStatus(std::move(answerStatus)) {}

// --- The run-time state ----------------------------------------------------------------------------------

ArpSuppressionRoot::ArpSuppressionRoot()
    : enabledVlans(Mox::make<EnabledVlans>()),
      vlanL3InfoStatus(Mox::make<VlanL3InfoStatus>()),
      localBindingRecord(localBindingRecordFactory(vlanL3InfoStatus)),
      remoteBindingStatus(Mox::make<RemoteBindingStatus>(vlanL3InfoStatus)),
      receivedRequestTrap(messageTrapFactory()),
      reinjectMessageQueue(messageQueueFactory()),
      localRequestRecord(localRequestRecordFactory()),
      arpInputConfigTrigger(Mox::make<ArpInputConfigTrigger>()),
      deviceIntfStatusDir(Mox::make<Interface::DeviceIntfStatusDir>("")) {}

void ArpSuppressionRoot::dumpState(Orb::DumpContext& context, int indent) const {
  context.line(indent, "ArpSuppressionRoot");
  context.child(indent + 2, remoteBindingStatus, "RemoteBindingStatus");
  context.child(indent + 2, vlanL3InfoStatus, "VlanL3InfoStatus");
  context.child(indent + 2, localBindingRecord, "LocalBindingRecord");
  context.child(indent + 2, receivedRequestTrap, "MessageTrap");
  context.child(indent + 2, reinjectMessageQueue, "MessageQueue");
  context.child(indent + 2, localRequestRecord, "LocalRequestRecord");
}

// --- The root reactor ------------------------------------------------------------------------------------

ArpSuppressionRootSm::ArpSuppressionRootSm(Ptr<ArpSuppressionMounts> mounts, bool isPhysicalHardware,
                                           Ptr<Orb::TaskSchedulerRoot> taskSchedulerRoot)
    : mounts_(std::move(mounts)),
      isPhysicalHardware_(isPhysicalHardware),
      taskSchedulerRoot_(std::move(taskSchedulerRoot)) {
  if (mounts_ && mounts_->readiness) ReadinessSm::notRunning(*mounts_->readiness);
  handleInitialized();
  if (mounts_ && mounts_->answerStatus) {
    answerCounterSm_.is(mounts_->entityManager->entityOf<const DataPlaneAnswers>(kDataPlaneAnswersPath),
                        mounts_->arpSuppressionCounterStatus);
  }
  handleRunnable();
  evpnStatus_.on(Evpn::EvpnStatus::mplsConfiguredChanged, [this] { handleRunnable(); });
  if (mounts_) evpnStatus_.notifierIs(mounts_->evpnStatus);
}

ArpSuppressionRootSm::~ArpSuppressionRootSm() { dropReactors(); }

void ArpSuppressionRootSm::handleInitialized() { TRACE8(""); }

void ArpSuppressionRootSm::runnableForTestIs(bool runnable) {
  if (runnable == runnableForTest_) return;
  runnableForTest_ = runnable;
  handleRunnable();
}

void ArpSuppressionRootSm::publishRunnable(bool runnable) {
  if (mounts_->arpSuppressionStatus) mounts_->arpSuppressionStatus->runnableIs(runnable);
}

void ArpSuppressionRootSm::handleRunnable() {
  if (!mounts_) return;
  const bool evpnMplsIsConfigured = mounts_->evpnStatus && mounts_->evpnStatus->mplsConfigured();
  const bool weHaveNotCleanedUp = mounts_->arpSuppressionStatus && mounts_->arpSuppressionStatus->runnable();
  TRACE8("evpnMplsIsConfigured=" << evpnMplsIsConfigured << " weHaveNotCleanedUp=" << weHaveNotCleanedUp);
  if (evpnMplsIsConfigured || runnableForTest_) {
    if (root_) {
      MOX_ASSERT(kSource, "mounts()->arpSuppressionStatus()->runnable()", weHaveNotCleanedUp);
      return;
    }
    publishRunnable(true);
    arpSuppressionStart();
  } else if (root_) {
    arpSuppressionStop();
    publishRunnable(false);
  } else if (weHaveNotCleanedUp) {
    // The ends of the reactors take back what the earlier run left.
    arpSuppressionStart();
    arpSuppressionStop();
    publishRunnable(false);
  }
}

void ArpSuppressionRootSm::arpSuppressionStart() {
  TRACE8(" mounts=" << mounts_);
  if (root_) return;
  const Ptr<Orb::TaskScheduler> scheduler = taskSchedulerRoot_->scheduler();
  const ArpSuppressionMounts& m = *mounts_;
  root_ = Mox::make<ArpSuppressionRoot>();
  const ArpSuppressionRoot& r = *root_;
  using ConstRemoteBindings = Ptr<const RemoteBindingStatus>;
  using ConstVlanL3Info = Ptr<const VlanL3InfoStatus>;
  using ConstStatus = Ptr<const ArpSuppressionStatus>;
  using ConstDevices = Ptr<const Interface::DeviceIntfStatusDir>;
  const auto limits = m.entityManager->entityOf<const Limits>(kLimitsPath);
  const auto confirmation = m.entityManager->entityOf<const Arp::Confirmation>(Arp::kConfirmationPath);

  arpSuppressionStatusSm_.is(scheduler, m.evpnStatus, ConstRemoteBindings(r.remoteBindingStatus),
                             ConstVlanL3Info(r.vlanL3InfoStatus), m.arpSuppressionStatus, r.enabledVlans);
  localRequestRecordSm_.is(scheduler, Ptr<const MessageTrap>(r.receivedRequestTrap), r.localRequestRecord,
                           limits, m.arpSuppressionCounterStatus);
  vlanL3InfoSm_.is(scheduler, ConstStatus(m.arpSuppressionStatus), Ptr<const EnabledVlans>(r.enabledVlans),
                   m.allVrfStatusLocal, m.ipStatus, m.vrfNameToIdMap, m.allIntfStatusDir,
                   m.allIntfStatusLocalDir, r.deviceIntfStatusDir, r.vlanL3InfoStatus, m.entityManager);
  remoteBindingStatusSm_.is(scheduler, m.remoteBindingConfig, m.remoteBindingConfigMountGroup,
                            r.vlanL3InfoStatus, r.remoteBindingStatus, limits, m.arpSuppressionCounterStatus);
  arpInputConfigSm_.is(
      scheduler, m.l2VpnConfig, r.localBindingRecord, ConstRemoteBindings(r.remoteBindingStatus),
      Ptr<const ArpInputConfigTrigger>(r.arpInputConfigTrigger), ConstVlanL3Info(r.vlanL3InfoStatus),
      m.arpStatus, m.arpInputConfig, m.arpSuppressionCounterStatus, Ptr<const Switch::Readiness>(m.readiness),
      confirmation);
  arpSuppressionSm_.is(r.receivedRequestTrap, r.reinjectMessageQueue, m.arpSuppressionCounterStatus,
                       r.localRequestRecord, m.remoteBindingConfig, r.vlanL3InfoStatus, m.arpStatus,
                       m.bridgingConfig, m.bridgingStatus, m.evpnStatus, m.fhrpVrMacStatus, m.vrfNameToIdMap,
                       r.arpInputConfigTrigger,
                       m.entityManager->entityOf<const NeverAnswer>(kNeverAnswerPath),
                       ConstRemoteBindings(r.remoteBindingStatus));
  if (m.answerStatus) {
    answerSm_.is(
        scheduler,
        AnswerSm::Inputs{.arpSuppressionSm = arpSuppressionSm(),
                         .arpSuppressionStatus = m.arpSuppressionStatus,
                         .remoteBindingConfig = m.remoteBindingConfig,
                         .remoteBindingStatus = r.remoteBindingStatus,
                         .remoteBindingStatusSm = remoteBindingStatusSm(),
                         .vlanL3InfoStatus = r.vlanL3InfoStatus,
                         .arpStatus = m.arpStatus,
                         .bridgingConfig = m.bridgingConfig,
                         .bridgingStatus = m.bridgingStatus,
                         .evpnStatus = m.evpnStatus,
                         .neverAnswer = m.entityManager->entityOf<const NeverAnswer>(kNeverAnswerPath),
                         .config = m.entityManager->entityOf<const Switch::Config>(Switch::kConfigPath)},
        AnswerSm::Outputs{.answerStatus = m.answerStatus,
                          .answerVlans = m.entityManager->entityOf<AnswerVlans>(kAnswerVlansPath)});
  }
  bindingDiscoverySm_.is(taskSchedulerRoot_, Ptr<const MessageTrap>(r.receivedRequestTrap), m.bridgingConfig,
                         m.bridgingStatus, m.arpSuppressionCounterStatus, r.vlanL3InfoStatus,
                         ConstRemoteBindings(r.remoteBindingStatus), m.arpStatus, m.fhrpVrMacStatus,
                         Ptr<const Arp::ArpInputConfig>(m.arpInputConfig), r.localBindingRecord, m.evpnStatus,
                         r.arpInputConfigTrigger, limits, confirmation);
  if (isPhysicalHardware_) {
    messageReinjectSm_.is<MessageReinjectSmPhysical>(scheduler, r.vlanL3InfoStatus, r.reinjectMessageQueue,
                                                     m.arpSuppressionCounterStatus, m.evpnStatus,
                                                     m.evpnMplsConfig, m.bridgingConfig);
    messageTrapSm_.is<MessageTrapSmPhysical>(scheduler, r.vlanL3InfoStatus, r.receivedRequestTrap,
                                             r.reinjectMessageQueue, ConstStatus(m.arpSuppressionStatus),
                                             m.arpSuppressionCounterStatus,
                                             ConstDevices(r.deviceIntfStatusDir));
  } else {
    messageReinjectSm_.is<MessageReinjectSmSimfwd>(scheduler, r.vlanL3InfoStatus, r.reinjectMessageQueue,
                                                   m.arpSuppressionCounterStatus);
    messageTrapSm_.is<MessageTrapSmSimfwd>(scheduler, r.vlanL3InfoStatus, r.receivedRequestTrap,
                                           r.reinjectMessageQueue, ConstStatus(m.arpSuppressionStatus),
                                           m.arpSuppressionCounterStatus,
                                           ConstDevices(r.deviceIntfStatusDir));
  }
  if (m.readiness) {
    readinessSm_.is(Ptr<const MessageTrapSm>(messageTrapSm()),
                    Ptr<const MessageReinjectSmBase>(messageReinjectSm()),
                    ConstRemoteBindings(r.remoteBindingStatus), r.vlanL3InfoStatus, m.readiness);
  }
}

void ArpSuppressionRootSm::dropReactors() {
  readinessSm_.del();  // from now on nobody is to rely on the others
  messageTrapSm_.del();
  messageReinjectSm_.del();
  bindingDiscoverySm_.del();
  answerSm_.del();
  arpSuppressionSm_.del();
  vlanL3InfoSm_.del();
  arpSuppressionStatusSm_.del();
  remoteBindingStatusSm_.del();
  arpInputConfigSm_.del();
  root_ = nullptr;
}

void ArpSuppressionRootSm::arpSuppressionStop() {
  TRACE8("");
  dropReactors();
  MOX_ASSERT(kSource, "0 == mounts()->arpSuppressionStatus()->vlanIds()",
             !mounts_->arpSuppressionStatus || mounts_->arpSuppressionStatus->vlanIds() == 0);
  MOX_ASSERT(kSource, "0 == mounts()->arpInputConfig()->vrfs()",
             !mounts_->arpInputConfig || mounts_->arpInputConfig->vrfs() == 0);
}

bool ArpSuppressionRootSm::idle() const {
  return !root_ || (!messageTrapSm()->walkScheduled() && root_->reinjectMessageQueue->messages() == 0);
}

void ArpSuppressionRootSm::dumpState(Orb::DumpContext& context, int indent) const {
  context.line(indent, "ArpSuppressionRootSm");
  context.child(indent + 2, root_, "ArpSuppressionRoot");
  context.child(indent + 2, arpSuppressionStatusSm_.child(), "ArpSuppressionStatusSm");
  context.child(indent + 2, remoteBindingStatusSm_.child(), "RemoteBindingStatusSm");
  context.child(indent + 2, arpInputConfigSm_.child(), "ArpInputConfigSm");
  context.child(indent + 2, arpSuppressionSm_.child(), "ArpSuppressionSm");
  context.child(indent + 2, answerSm_.child(), "AnswerSm");
  context.child(indent + 2, bindingDiscoverySm_.child(), "BindingDiscoverySm");
  context.child(indent + 2, messageReinjectSm_.child(), "MessageReinjectSm");
  context.child(indent + 2, messageTrapSm_.child(), "MessageTrapSm");
  context.child(indent + 2, vlanL3InfoSm_.child(), "VlanL3InfoSm");
  context.raw(indent + 2, taskSchedulerRoot_->debugText());
}

}  // namespace ArpSuppression

namespace {
Mox::Ptr<Plugin::AgentBase> make(const char* name) {
  return ArpSuppression::arpSuppressionAgentFactory(name);
}
}  // namespace

PLUGIN_AGENT(make)
