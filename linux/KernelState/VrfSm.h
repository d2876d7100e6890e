#pragma once

#include <map>
#include <set>

#include "Ip/Status.h"
#include "KernelState/ConfigWatch.h"
#include "KernelState/StateWatch.h"
#include "KernelState/Tables.h"
#include "Orb/TaskScheduler.h"
#include "Switch/ProblemReporter.h"
#include "Vrf/VrfIdMap.h"

namespace KernelState {

// Publishes the configured VRFs and their numbers, and which of them are active: those whose namespace has
// been entered and has its devices published. The VRF "default" is always there, with number 0. Of several
// VRFs that claim one number or one namespace the first by name has it.
class VrfSm final : public Mox::Entity {
 public:
  // `vrfIdMap` may be null.
  VrfSm(Ptr<const Switch::Config> config, Ptr<const NamespaceStates> states,
        Ptr<Vrf::VrfIdMap::Status> vrfIdMap, Ptr<NamespaceVrfs> vrfs,
        Ptr<Ip::AllVrfStatusLocal> vrfStatusLocal, Switch::ProblemReporter& problems,
        const Ptr<Orb::TaskScheduler>& scheduler);

 private:
  struct Vrf {
    ::Vrf::VrfIdMap::VrfId id = ::Vrf::VrfIdMap::kNoVrfId;
    Lanix::NamespaceName netNs;
  };
  using Vrfs = std::map<Mox::String, Vrf>;

  Vrfs configured();
  // What is wrong with the configuration at `where` ("vrfs.red.id"), until an update does not say it again.
  void wrong(const Mox::String& where, const Mox::String& problem, const Mox::String& allowed = {});
  void update();
  void publishIds(const Vrfs& wanted);
  void publishNamespaces(const Vrfs& wanted);
  void publishStates();

  ConfigWatch config_;
  StateWatch states_;
  Ptr<::Vrf::VrfIdMap::Status> vrfIdMap_;
  Ptr<NamespaceVrfs> vrfs_;
  Ptr<Ip::AllVrfStatusLocal> vrfStatusLocal_;
  Switch::ProblemReporter& problems_;
  std::map<::Vrf::VrfIdMap::VrfId, Mox::String> ids_;  // as published
  std::set<Mox::String> wrong_;                        // in this update
  Orb::Task updateTask_;
};

}  // namespace KernelState
