#pragma once

#include <map>
#include <set>

#include "Ip/Status.h"
#include "KernelState/StateWatch.h"
#include "KernelState/Tables.h"
#include "Orb/TaskScheduler.h"
#include "Switch/ConfigWatch.h"
#include "Switch/ProblemReporter.h"
#include "Vrf/VrfIdMap.h"

namespace KernelState {

// Publishes the configured VRFs and their numbers, and which of them are active: those whose namespace has
// been entered and has its devices published, their own among them if they have one. The VRF "default" is
// always there, with number 0. A VRF that gets another namespace is inactive first, and has the new one in a
// later turn. Of several VRFs that claim one number, one namespace or one device the first
// by name has it.
class VrfSm final : public Mox::Entity {
 public:
  // `vrfIdMap` may be null.
  VrfSm(Ptr<const Switch::Config> config, Ptr<const NamespaceStates> states,
        Ptr<Vrf::VrfIdMap::Status> vrfIdMap, Ptr<VrfPlaces> vrfs, Ptr<Ip::AllVrfStatusLocal> vrfStatusLocal,
        Switch::ProblemReporter& problems, const Ptr<Orb::TaskScheduler>& scheduler);

 private:
  struct Vrf {
    ::Vrf::VrfIdMap::VrfId id = ::Vrf::VrfIdMap::kNoVrfId;
    Lanix::NamespaceName netNs;
    Mox::String device;  // "": it is the namespace
  };
  using Vrfs = std::map<Mox::String, Vrf>;

  Vrfs configured();
  // What is wrong with the configuration at `where` ("vrfs.red.id"), until an update does not say it again.
  void wrong(const Mox::String& where, const Mox::String& problem, const Mox::String& allowed = {});
  void update();
  void publishIds(const Vrfs& wanted);
  void publishPlaces(const Vrfs& wanted);
  void publishStates();
  bool isThere(const Ip::VrfStatusLocal& vrf);

  Switch::ConfigWatch config_;
  StateWatch states_;
  Ptr<::Vrf::VrfIdMap::Status> vrfIdMap_;
  Ptr<VrfPlaces> vrfs_;
  Ptr<Ip::AllVrfStatusLocal> vrfStatusLocal_;
  Switch::ProblemReporter& problems_;
  std::map<::Vrf::VrfIdMap::VrfId, Mox::String> ids_;  // as published
  std::set<Mox::String> wrong_;                        // in this update
  std::map<Mox::String, Mox::String> devices_;         // of the VRFs that have one
  std::set<Mox::String> moving_;                       // have another namespace in the next turn
  Orb::Task updateTask_;
};

}  // namespace KernelState
