#include "SoftForward/SoftForwardAgent.h"

#include "Memtab/EntityManager.h"

namespace SoftForward {

namespace {
constexpr char kStatusPath[] = "arpSuppression/status";
constexpr char kBridgingConfigPath[] = "bridging/config";
constexpr char kVrMacPath[] = "routing/fhrp/vrMacStatus";

// Its answer is small: a copy of the process would have no descriptor to ask the kernel's maps by.
class ForwardingCommand final : public Plugin::AgentCommandCallback {
 public:
  explicit ForwardingCommand(Mox::Ptr<const SoftForwardSm> softForwardSm)
      : AgentCommandCallback("", "forwarding"), softForwardSm_(std::move(softForwardSm)) {}

  // With the argument "counters" without ports and pairs, of which there may be thousands.
  void handleCommand(int descriptor, const std::vector<Mox::String>& arguments) override {
    Orb::DumpContext answer(descriptor);
    softForwardSm_->show(answer, arguments != std::vector<Mox::String>{"counters"});
  }

 private:
  Mox::Ptr<const SoftForwardSm> softForwardSm_;
};

}  // namespace

SoftForwardAgent::SoftForwardAgent(Mox::String name) : AgentBase(std::move(name)) {
  // Takes longer than a turn of the event loop may, so it is done before the first. Should it fail, the
  // reactor tries again, and reports it.
  static_cast<void>(programs_.load());
}

SoftForwardAgent::~SoftForwardAgent() { agentCommandCallbackDelAll(); }  // which hold the reactor

void SoftForwardAgent::doInit() {
  const Mox::Ptr<Statedb::MountGroup> group = host().mountGroup(*this);
  group->mountIs(Switch::kConfigPath, Switch::kConfigType, "r");
  group->mountIs(Switch::kForwardingPath, Switch::kForwardingType, "wc");
  group->mountIs(Switch::kVlanInterfacesPath, Switch::kVlanInterfacesType, "r");
  group->mountIs(Switch::kReadinessPath, Switch::kReadinessType, "wc");
  group->mountIs(ArpSuppression::kDataPlaneAnswersPath, ArpSuppression::kDataPlaneAnswersType, "wc");
  group->mountIs(kBridgingConfigPath, "Bridging::Config", "r");
  group->mountIs(kVrMacPath, "Routing::Fhrp::VirtualRouterMacStatus", "r");
  localEntitiesCreatedIs(true);
  group->doClose();
}

void SoftForwardAgent::cleanUp(const Plugin::CleanUpReport& report) {
  Datapath datapath(programs_, [](std::uint16_t, const Standing&) {});
  if (const auto done = datapath.removeAll(report.removed); !done) report.refused(done.error());
}

void SoftForwardAgent::doMountsComplete(Statedb::MountStatus, const Mox::Ptr<Statedb::EntityManager>& tree) {
  const auto found = []<class E>(Mox::Ptr<E> entity, const char* path) {
    using Found = Mox::Result<Mox::Ptr<E>>;
    return required(entity ? Found(entity) : Found(Mox::Failure{std::string(path) + " is of another type"}));
  };
  const auto switchConfig =
      found(tree->entityOf<const Switch::Config>(Switch::kConfigPath), Switch::kConfigPath);
  const auto forwarding =
      found(tree->entityOf<Switch::Forwarding>(Switch::kForwardingPath), Switch::kForwardingPath);
  const auto readiness =
      found(tree->entityOf<const Switch::Readiness>(Switch::kReadinessPath), Switch::kReadinessPath);
  // Whoever publishes the status finds this entity, if it is not there already.
  const auto status = found(Mox::dynamicPtrCast<const ArpSuppression::ArpSuppressionStatus>(required(
                                tree->mount(kStatusPath, "ArpSuppression::ArpSuppressionStatus", "r"))),
                            kStatusPath);
  const auto answerVlans = found(
      Mox::dynamicPtrCast<const ArpSuppression::AnswerVlans>(
          required(tree->mount(ArpSuppression::kAnswerVlansPath, ArpSuppression::kAnswerVlansType, "r"))),
      ArpSuppression::kAnswerVlansPath);
  const auto answerStatus = found(
      Mox::dynamicPtrCast<const ArpSuppression::AnswerStatus>(
          required(host().sharedMemory()->mount(ArpSuppression::kAnswerPath, ArpSuppression::kAnswerType,
                                                Memtab::MountDescriptor::urgentReader()))),
      ArpSuppression::kAnswerPath);
  softForwardSm_ = Mox::make<SoftForwardSm>(
      taskSchedulerRoot()->scheduler(), programs_, switchConfig, status,
      tree->entityOf<const Bridging::Config>(kBridgingConfigPath),
      tree->entityOf<const Routing::Fhrp::VirtualRouterMacStatus>(kVrMacPath),
      tree->entityOf<const Switch::VlanInterfaces>(Switch::kVlanInterfacesPath), readiness, forwarding,
      SoftForwardSm::Answering{
          answerStatus, answerVlans,
          tree->entityOf<ArpSuppression::DataPlaneAnswers>(ArpSuppression::kDataPlaneAnswersPath)},
      tree->entityOf<Switch::Problems>(Switch::kProblemsPath));
  agentCommandCallbackIs(Mox::make<ForwardingCommand>(softForwardSm_));
}

}  // namespace SoftForward

namespace {
Mox::Ptr<Plugin::AgentBase> make(const char* name) { return Mox::make<SoftForward::SoftForwardAgent>(name); }
}  // namespace

PLUGIN_AGENT(make)
