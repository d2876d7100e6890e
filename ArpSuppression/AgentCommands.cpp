#include "ArpSuppression/AgentCommands.h"

#include "ArpSuppression/ArpSuppressionAgent.h"
#include "Orb/DumpContext.h"

namespace ArpSuppression {

namespace {

class CliCallback final : public Orb::AgentCommandCallback {
 public:
  explicit CliCallback(Ptr<const ArpSuppressionRootSm> rootSm)
      : AgentCommandCallback("", "showTechSupport"), rootSm_(std::move(rootSm)) {}

  void handleCommand(int descriptor, const std::vector<Mox::String>& /*arguments*/) override {
    Orb::DumpContext context(descriptor);
    rootSm_->dumpState(context, 0);
    Memtab::dumpTables(*rootSm_->mounts()->arpSuppressionCounterStatus, context, 0);
  }

 private:
  Ptr<const ArpSuppressionRootSm> rootSm_;
};

class StatusCommand final : public Orb::AgentCommandCallback {
 public:
  StatusCommand(Ptr<const ArpSuppressionRootSm> rootSm, Orb::EventLoop& loop)
      : AgentCommandCallback("", "status"), rootSm_(std::move(rootSm)), loop_(loop), start_(loop.now()) {}

  void handleCommand(int descriptor, const std::vector<Mox::String>& /*arguments*/) override {
    const ArpSuppressionMounts& mounts = *rootSm_->mounts();
    const Ptr<ArpSuppressionRoot>& root = rootSm_->root();
    Mox::String vlans;
    if (mounts.arpSuppressionStatus) {
      for (const auto& [vlanId, active] : mounts.arpSuppressionStatus->vlanIdCollection()) {
        if (active) vlans += (vlans.empty() ? "" : ",") + vlanId.toStrep();
      }
    }
    const bool runnable = mounts.arpSuppressionStatus && mounts.arpSuppressionStatus->runnable();
    Orb::DumpContext answer(descriptor);
    answer.line(
        0, Mox::String("{\"runnable\":") + Mox::toStrep(runnable) + ",\"activeVlans\":[" + vlans +
               "],\"localBindings\":" + std::to_string(root ? root->localBindingRecord->bindings() : 0) +
               ",\"remoteBindings\":" +
               std::to_string(mounts.remoteBindingConfig ? mounts.remoteBindingConfig->remoteBindings() : 0) +
               ",\"trapSocket\":\"" + state(rootSm_->messageTrapSm()) + "\",\"reinjectSocket\":\"" +
               state(rootSm_->messageReinjectSm()) + "\",\"uptimeSeconds\":" +
               std::to_string(static_cast<std::uint64_t>(loop_.now() - start_)) + "}");
  }

 private:
  template <class Reactor>
  static const char* state(const Ptr<Reactor>& reactor) {
    return reactor && reactor->socketOpen() ? "open" : "closed";
  }

  Ptr<const ArpSuppressionRootSm> rootSm_;
  Orb::EventLoop& loop_;
  double start_;
};

}  // namespace

std::vector<Ptr<Orb::AgentCommandCallback>> makeAgentCommands(const Ptr<ArpSuppressionRootSm>& rootSm,
                                                              Orb::EventLoop& loop) {
  return {Mox::make<CliCallback>(rootSm), Mox::make<StatusCommand>(rootSm, loop)};
}

}  // namespace ArpSuppression
