#include "ArpSuppression/AgentCommands.h"

#include "ArpSuppression/ArpSuppressionAgent.h"
#include "ArpSuppression/Explain.h"
#include "ArpSuppression/FindCommands.h"
#include "Orb/DumpContext.h"
#include "Orb/JsonObject.h"

namespace ArpSuppression {

namespace {

class CliCallback final : public Plugin::AgentCommandCallback {
 public:
  explicit CliCallback(Ptr<const ArpSuppressionRootSm> rootSm)
      : AgentCommandCallback("", "showTechSupport", Answer::large), rootSm_(std::move(rootSm)) {}

  void handleCommand(int descriptor, const std::vector<Mox::String>& /*arguments*/) override {
    Orb::DumpContext context(descriptor);
    rootSm_->dumpState(context, 0);
    Memtab::dumpTables(*rootSm_->mounts()->arpSuppressionCounterStatus, context, 0);
  }

 private:
  Ptr<const ArpSuppressionRootSm> rootSm_;
};

template <class Value>
Mox::Result<> isA(const char* what, const Mox::String& text, const char* allowed) {
  if (Value::fromStrep(text)) return {};
  return Mox::Failure{Mox::String(what) + " \"" + text + "\" is not " + allowed};
}

class ExplainCommand final : public Plugin::AgentCommandCallback {
 public:
  explicit ExplainCommand(Ptr<const ArpSuppressionRootSm> rootSm)
      : AgentCommandCallback("", "explain"), rootSm_(std::move(rootSm)) {}

  Mox::Result<> check(const std::vector<Mox::String>& arguments) const override {
    if (arguments.size() != 2 && arguments.size() != 3)
      return Mox::Failure{"explain takes a VLAN, an IP address and perhaps the MAC that asks"};
    auto good = isA<Bridging::VlanId>("the VLAN", arguments[0], "a VLAN id from 1 to 4094");
    if (good)
      good = isA<Lanix::IpGenAddr>("the address", arguments[1], "an IPv4 or IPv6 address like 10.0.0.9");
    if (good && arguments.size() == 3)
      good = isA<Lanix::EthAddr>("the MAC", arguments[2], "a MAC address like 02:00:00:00:00:09");
    return good;
  }

  void handleCommand(int descriptor, const std::vector<Mox::String>& arguments) override {
    std::optional<Lanix::EthAddr> from;
    if (arguments.size() == 3) from = Lanix::EthAddr::fromStrep(arguments[2]);
    Orb::DumpContext(descriptor)
        .line(0, explain(*rootSm_, *Bridging::VlanId::fromStrep(arguments[0]),
                         *Lanix::IpGenAddr::fromStrep(arguments[1]), from));
  }

 private:
  Ptr<const ArpSuppressionRootSm> rootSm_;
};

class StatusCommand final : public Plugin::AgentCommandCallback {
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
    Orb::JsonObject status;
    status.add("runnable", mounts.arpSuppressionStatus && mounts.arpSuppressionStatus->runnable())
        .json("activeVlans", "[" + vlans + "]")
        .add("localBindings", root ? root->localBindingRecord->bindings() : 0)
        .add("remoteBindings", mounts.remoteBindingConfig ? mounts.remoteBindingConfig->remoteBindings() : 0)
        .add("trapSocket", state(rootSm_->messageTrapSm()))
        .add("reinjectSocket", state(rootSm_->messageReinjectSm()))
        .add("reinjectQueue", root ? root->reinjectMessageQueue->messages() : 0)
        .add("uptimeSeconds", static_cast<std::uint64_t>(loop_.now() - start_))
        .json("vlanBindings", vlanBindings());
    Orb::DumpContext(descriptor).line(0, status.text());
  }

 private:
  // {"10": {"local": 1, "remote": 2}}
  Mox::String vlanBindings() const {
    struct Counts {
      std::size_t local = 0;
      std::size_t remote = 0;
    };
    std::map<Bridging::VlanId, Counts> counts;
    if (rootSm_->root()) {
      for (const auto& [vlanId, count] : rootSm_->root()->localBindingRecord->bindingsOfVlans())
        counts[vlanId].local = count;
      for (const auto& [vlanId, count] : rootSm_->remoteBindingStatusSm()->vlanBindingCountCollection())
        counts[vlanId].remote = static_cast<std::size_t>(count);
    }
    Mox::String members;
    for (const auto& [vlanId, count] : counts)
      members += (members.empty() ? "\"" : ",\"") + vlanId.toStrep() +
                 "\":" + Orb::JsonObject().add("local", count.local).add("remote", count.remote).text();
    return "{" + members + "}";
  }

  template <class Reactor>
  static const char* state(const Ptr<Reactor>& reactor) {
    return reactor && reactor->socketOpen() ? "open" : "closed";
  }

  Ptr<const ArpSuppressionRootSm> rootSm_;
  Orb::EventLoop& loop_;
  double start_;
};

}  // namespace

std::vector<Ptr<Plugin::AgentCommandCallback>> makeAgentCommands(const Ptr<ArpSuppressionRootSm>& rootSm,
                                                                 Orb::EventLoop& loop) {
  return {Mox::make<CliCallback>(rootSm), Mox::make<StatusCommand>(rootSm, loop), makeBindingsCommand(rootSm),
          makeFindCommand(rootSm), Mox::make<ExplainCommand>(rootSm)};
}

}  // namespace ArpSuppression
