#pragma once

#include <deque>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "Evpn/Status.h"
#include "Ip/Status.h"
#include "Orb/WalkSm.h"
#include "Statedb/EntityManager.h"
#include "Statedb/Watch.h"
#include "Suppression/Status.h"
#include "Switch/Config.h"
#include "Switch/Forwarding.h"
#include "Switch/Health.h"
#include "Switch/PassingProblem.h"
#include "Switch/ProblemReporter.h"

namespace Host {

// Judges how the switch is, from what its plug-ins publish and report, and publishes that at "switch/health".
// It looks again at what changed, VLAN by VLAN, and otherwise rests.
//
// Reports itself what no plug-in can know alone: a configured VRF that is not there, a configured VLAN
// without an interface, EVPN that is not configured, and an event loop that is held up. For a time after its
// start nothing is a problem: what is not there yet may be on its way.
class HealthSm final : public Orb::WalkSmBase {
 public:
  static constexpr double kStartSeconds = 10;
  // A turn of the event loop that takes longer is a problem: nothing is answered meanwhile.
  static constexpr double kLongTurnSeconds = 0.25;
  // For so long something may be missing later on, while it is made anew for one.
  static constexpr double kAbsentSeconds = 2;

  // After every plug-in has begun its start.
  HealthSm(const Mox::Ptr<Orb::TaskScheduler>& scheduler, const Mox::Ptr<Statedb::EntityManager>& tree);
  ~HealthSm() override;

 private:
  template <class E>
  void follow(Mox::Ptr<E>& entity, const char* path, const char* type);
  Orb::WalkRet walk() override;
  bool walkStartedNotification() override;
  void walkFinishedNotification() override;
  bool allowWalkRestarts() const override { return true; }

  bool loaded(const char* plugin) const;
  void handleChange(const Statedb::Change& change);
  void handleProblem(const Mox::String& key);
  void allVlansChanged();
  void lookAt(Bridging::VlanId vlanId);
  void judgeVlan(Bridging::VlanId vlanId, const Switch::VlanConfig& config);
  Switch::VlanState stateOf(Bridging::VlanId vlanId, const Switch::VlanConfig& config,
                            std::string& reason) const;
  void lookForVrfs();
  void tellVrfs();
  void lookForInterface(Bridging::VlanId vlanId, const Switch::VlanConfig& config);
  // `vlanId`: the VLAN to look at again when it has been missing for long enough; none: the VRFs.
  void missingIs(const std::string& subject, bool missing, Bridging::VlanIdOrNone vlanId,
                 const std::string& problem, const std::string& advice);
  void missingDel(const std::string& subject);

  const Mox::Ptr<Statedb::EntityManager> tree_;
  std::vector<std::unique_ptr<Statedb::TreeWatch>> watches_;
  Mox::Ptr<Switch::Config> config_;
  Mox::Ptr<Switch::Forwarding> forwarding_;
  Mox::Ptr<Switch::Problems> reported_;
  Mox::Ptr<ArpSuppression::ArpSuppressionStatus> status_;
  Mox::Ptr<Evpn::EvpnStatus> evpn_;
  Mox::Ptr<Ip::Status> ip_;
  Mox::Ptr<Ip::AllVrfStatusLocal> vrfs_;
  const Mox::Ptr<Switch::Health> health_;
  Switch::ProblemReporter problems_;
  Switch::PassingProblem slow_;
  Orb::EventLoop::HookHandle turnEnds_;
  Orb::Timer startEnds_;
  // What the walk to come, or in hand, has to look at.
  std::set<Bridging::VlanId> changedVlans_;
  bool vrfsChanged_ = true;
  std::map<Bridging::VlanId, std::set<Mox::String>> wrong_;  // the keys of what is reported of a VLAN
  std::map<std::string, double> missingSince_;               // by subject
  // When what is missing has been for long enough, in this order, and what is to be looked at then.
  std::deque<std::pair<double, Bridging::VlanIdOrNone>> absent_;
  std::map<std::string, Ip::VrfState> toldVrfs_;
};

// The health and its problems as `arpsup` shows them: {"health", "problems": [...], "vlans": [...]}. No
// problems while the host has just begun.
nlohmann::ordered_json healthJson(const Switch::Health& health, const Switch::Problems& problems);

}  // namespace Host
