#pragma once

#include <optional>

#include "KernelEvpn/FeedSm.h"
#include "Memtab/EntityManager.h"
#include "Plugin/AgentBase.h"
#include "Statedb/EntityManager.h"
#include "Switch/ProblemReporter.h"

namespace KernelEvpn {

// The plug-in that makes remote bindings of what a routing daemon writes into the kernel. While it is loaded
// nobody else writes the table of remote bindings.
class KernelEvpnAgent final : public Plugin::AgentBase {
 public:
  explicit KernelEvpnAgent(Mox::String name) : AgentBase(std::move(name)) {}
  ~KernelEvpnAgent() override;

  void doInit() override;
  void doMountsComplete(Statedb::MountStatus status, const Ptr<Statedb::EntityManager>& tree) override;

 private:
  Mox::Notifiee<Statedb::EntityManager> tree_;
  std::optional<Switch::ProblemReporter> problems_;
  Ptr<FeedSm> feedSm_;
  Ptr<ArpSuppression::BindingOrigin> origin_;
};

Ptr<Plugin::AgentBase> kernelEvpnAgentFactory(const Mox::String& name);

}  // namespace KernelEvpn
