#include "KernelEvpn/KernelEvpnAgent.h"

#include "Orb/DumpContext.h"

namespace KernelEvpn {
namespace {

constexpr char kRemoteBindingPath[] = "arpSuppression/remoteBindingConfig/evpn";
constexpr char kIpStatusPath[] = "ip/status";

class FeedCommand final : public Plugin::AgentCommandCallback {
 public:
  explicit FeedCommand(Ptr<const FeedSm> feedSm)
      : AgentCommandCallback("", "feed"), feedSm_(std::move(feedSm)) {}
  void handleCommand(int descriptor, const std::vector<Mox::String>& /*arguments*/) override {
    Orb::DumpContext(descriptor).line(0, feedSm_->status());
  }

 private:
  Ptr<const FeedSm> feedSm_;
};

}  // namespace

Ptr<Plugin::AgentBase> kernelEvpnAgentFactory(const Mox::String& name) {
  return Mox::make<KernelEvpnAgent>(name);
}

KernelEvpnAgent::~KernelEvpnAgent() {
  agentCommandCallbackDelAll();  // which hold the reactor
  if (origin_) origin_->askIs({});
}

void KernelEvpnAgent::doInit() {
  host().sharedMemory()->heldBackIs(kRemoteBindingPath, true);
  const Ptr<Statedb::MountGroup> group = host().mountGroup(*this);
  group->mountIs(Switch::kConfigPath, Switch::kConfigType, "r");
  group->mountIs(Switch::kProblemsPath, Switch::kProblemsType, "wc");
  group->mountIs(Switch::kReadinessPath, Switch::kReadinessType, "wc");
  group->mountIs(ArpSuppression::kBindingOriginPath, ArpSuppression::kBindingOriginType, "wc");
  localEntitiesCreatedIs(true);
  group->doClose(false, "KernelEvpn", 0.0);
}

void KernelEvpnAgent::doMountsComplete(Statedb::MountStatus /*status*/,
                                       const Ptr<Statedb::EntityManager>& tree) {
  const Ptr<Memtab::EntityManager> tables = host().sharedMemory();
  problems_.emplace(tree->entityOf<Switch::Problems>(Switch::kProblemsPath), name());
  FeedSm::Inputs inputs{
      tree->entityOf<Switch::Config>(Switch::kConfigPath), tree->entityOf<Ip::Status>(kIpStatusPath),
      Mox::dynamicPtrCast<RemoteBindingConfig>(required(tables->mount(
          kRemoteBindingPath, "ArpSuppression::RemoteBindingConfig", Memtab::MountDescriptor::writer()))),
      tree->entityOf<Switch::Readiness>(Switch::kReadinessPath),
      [tables] { tables->heldBackIs(kRemoteBindingPath, false); }};
  feedSm_ = Mox::make<FeedSm>(std::move(inputs), *problems_, taskSchedulerRoot()->scheduler());
  agentCommandCallbackIs(Mox::make<FeedCommand>(feedSm_));
  origin_ = tree->entityOf<ArpSuppression::BindingOrigin>(ArpSuppression::kBindingOriginPath);
  if (origin_) origin_->askIs([this](const RemoteBindingKey& key) { return feedSm_->originOf(key); });
  // Whoever publishes the addresses may come later.
  tree_.notifierIs(tree);
  tree_.on(Statedb::EntityManager::entityChanged, [this](const std::string& path) {
    if (path == kIpStatusPath) feedSm_->ipStatusIs(tree_->entityOf<Ip::Status>(kIpStatusPath));
  });
}

}  // namespace KernelEvpn

PLUGIN_AGENT(KernelEvpn::kernelEvpnAgentFactory)
