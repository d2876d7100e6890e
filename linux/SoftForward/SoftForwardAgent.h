#pragma once

#include "Plugin/AgentBase.h"
#include "SoftForward/SoftForwardSm.h"
#include "Statedb/EntityManager.h"

namespace SoftForward {

class SoftForwardAgent final : public Plugin::AgentBase {
 public:
  explicit SoftForwardAgent(Mox::String name);
  ~SoftForwardAgent() override;
  void doInit() override;
  void doMountsComplete(Statedb::MountStatus status,
                        const Mox::Ptr<Statedb::EntityManager>& entityManager) override;
  void endBegins() override {
    if (softForwardSm_) softForwardSm_->endBegins();
  }
  void cleanUp(const Plugin::CleanUpReport& report) override;
  bool finished() const override { return !softForwardSm_ || softForwardSm_->finished(); }

 private:
  Programs programs_;
  Mox::Ptr<SoftForwardSm> softForwardSm_;
};

}  // namespace SoftForward
