#include "host/HealthSm.h"

#include <algorithm>

#include "Lanix/IntfId.h"
#include "Statedb/Path.h"
#include "Switch/Event.h"
#include "host/StatePaths.h"

namespace Host {

namespace {

using Switch::Verdict;
using Switch::VlanState;

constexpr unsigned kLevel = 5;
// Changes come in bursts, and are looked at together.
constexpr double kSettleSeconds = 0.1;
constexpr const char* kReporter = "agent-host";
constexpr std::string_view kVlanPrefix = "VLAN ";

constexpr std::string_view kVrfPrefix = "VRF ";

// What a change of a collection or attribute concerns, wherever it is followed. What is not here concerns at
// most the verdict.
enum class Concerns { vlan, vlanOfInterface, vlanOfProblem, allVlans, vrfs };
const std::map<std::string_view, Concerns> kConcerns = {
    {"vlan", Concerns::vlan},
    {"vlanId", Concerns::vlan},
    {"vlanToDot1q", Concerns::vlan},
    {"ipIntfStatus", Concerns::vlanOfInterface},
    {"problem", Concerns::vlanOfProblem},
    {"runnable", Concerns::allVlans},
    {"mplsConfigured", Concerns::allVlans},
    {"vrf", Concerns::vrfs},
};

// Of the subject "VLAN 10, tunnel port core10": 10, and the rest "tunnel port core10".
Bridging::VlanIdOrNone vlanOf(std::string_view subject, std::string_view& rest) {
  if (!subject.starts_with(kVlanPrefix)) return {};
  subject.remove_prefix(kVlanPrefix.size());
  const std::size_t digits = std::min(subject.find(','), subject.size());
  const auto vlanId = Bridging::VlanId::fromStrep(subject.substr(0, digits));
  if (!vlanId) return {};
  rest = subject.substr(std::min(digits + 2, subject.size()));
  return *vlanId;
}

std::string interfaceName(Bridging::VlanId vlanId) { return "vlan" + vlanId.toStrep(); }
std::string interfaceSubject(Bridging::VlanId vlanId) {
  return std::string(kVlanPrefix) + vlanId.toStrep() + ", interface";
}

}  // namespace

HealthSm::HealthSm(const Mox::Ptr<Orb::TaskScheduler>& scheduler,
                   const Mox::Ptr<Statedb::EntityManager>& tree)
    : WalkSmBase(scheduler, "health", kLevel),
      tree_(tree),
      health_(Mox::dynamicPtrCast<Switch::Health>(*tree->entityIs(Switch::kHealthPath, Switch::kHealthType))),
      problems_(tree->entityOf<Switch::Problems>(Switch::kProblemsPath), kReporter),
      slow_(problems_, scheduler->loop(), "event loop"),
      turnEnds_(scheduler->loop().endOfTurn([this, &loop = scheduler->loop()] {
        if (!health_->starting() && loop.clock().now() - loop.now() > kLongTurnSeconds)
          slow_.happened(
              "it is held up for more than a quarter of a second, and nothing is answered meanwhile",
              "is the machine short of processor time? arpsup tech-support has what took long");
      })),
      startEnds_(scheduler->loop(), "health", [this] {
        health_->startingIs(false);
        allVlansChanged();
        vrfsChanged_ = true;
        scheduleWalk();
      }) {
  follow(config_, Switch::kConfigPath, Switch::kConfigType);
  follow(forwarding_, Switch::kForwardingPath, Switch::kForwardingType);
  follow(reported_, Switch::kProblemsPath, Switch::kProblemsType);
  follow(status_, "arpSuppression/status", "ArpSuppression::ArpSuppressionStatus");
  follow(evpn_, "evpn/status", "Evpn::EvpnStatus");
  follow(ip_, "ip/status", "Ip::Status");
  follow(vrfs_, "ip/vrf/status/local", "Ip::AllVrfStatusLocal");
  health_->startingIs(true);
  startEnds_.after(kStartSeconds);
  for (const auto& [key, problem] : reported_->problemCollection()) handleProblem(key);
  allVlansChanged();
  scheduleWalk();
}

HealthSm::~HealthSm() {
  watches_.clear();
  for (const char* path : {"ip/vrf/status/local", "ip/status", "evpn/status", "arpSuppression/status",
                           Switch::kProblemsPath, Switch::kForwardingPath, Switch::kConfigPath})
    tree_->unmount(path);
}

// Also what its plug-in has yet to provide, or never does: then it stays empty.
template <class E>
void HealthSm::follow(Mox::Ptr<E>& entity, const char* path, const char* type) {
  entity = Mox::dynamicPtrCast<E>(*tree_->mount(path, type, "r"));
  watches_.push_back(
      std::make_unique<Statedb::TreeWatch>(entity, tree_->entityType(path)->shape,
                                           [this](const Statedb::Change& change) { handleChange(change); }));
}

bool HealthSm::loaded(const char* plugin) const { return std::ranges::count(config_->agents(), plugin) != 0; }

// --- What changed ----------------------------------------------------------------------------------------

void HealthSm::handleChange(const Statedb::Change& change) {
  scheduleWalk(kSettleSeconds);
  const std::vector<std::string> parts = Statedb::memberPathParts(change.memberPath);
  const auto found = kConcerns.find(parts[0]);
  if (found == kConcerns.end()) return;
  const std::string key = parts.size() > 1 ? parts[1] : change.key ? *change.key : std::string();
  const auto vlanIs = [this](std::string_view number) {
    if (const auto vlanId = Bridging::VlanId::fromStrep(number)) changedVlans_.insert(*vlanId);
  };
  switch (found->second) {
    case Concerns::vlan:
      return vlanIs(key);
    case Concerns::vlanOfInterface:
      if (const auto intf = Lanix::IntfId::fromName(key); intf.isVlan())
        vlanIs(std::to_string(intf.vlanNumber()));
      return;
    case Concerns::vlanOfProblem:
      return handleProblem(key);
    case Concerns::allVlans:
      return allVlansChanged();
    case Concerns::vrfs:
      vrfsChanged_ = true;
      return;
  }
}

void HealthSm::handleProblem(const Mox::String& key) {
  std::string_view rest;
  const auto vlanId = vlanOf(std::string_view(key).substr(key.find(' ') + 1), rest);
  if (!vlanId) return;
  const Bridging::VlanId changed(vlanId.value());
  changedVlans_.insert(changed);
  if (reported_->problemHas(key)) {
    wrong_[changed].insert(key);
  } else if (const auto found = wrong_.find(changed); found != wrong_.end()) {
    found->second.erase(key);
    if (found->second.empty()) wrong_.erase(found);
  }
}

void HealthSm::allVlansChanged() {
  for (const auto& [vlanId, vlan] : config_->vlanCollection()) changedVlans_.insert(vlanId);
}

// --- The walk --------------------------------------------------------------------------------------------

bool HealthSm::walkStartedNotification() {
  const double now = scheduler()->loop().now();
  for (; !absent_.empty() && absent_.front().first <= now; absent_.pop_front()) {
    const Bridging::VlanIdOrNone vlanId = absent_.front().second;
    if (vlanId)
      changedVlans_.insert(Bridging::VlanId(vlanId.value()));
    else
      vrfsChanged_ = true;
  }
  if (std::exchange(vrfsChanged_, false)) {
    tellVrfs();
    lookForVrfs();
  }
  missingIs("EVPN", !evpn_->mplsConfigured() && !config_->vlanCollection().empty(), {},
            "EVPN over MPLS is not configured: requests are flooded as without suppression",
            R"(configure it, or say so by hand: arpsup set evpn/status '{"mplsConfigured": true}')");
  return true;
}

Orb::WalkRet HealthSm::walk() {
  Orb::WalkRet ret;
  while (!changedVlans_.empty()) {
    if (ret.processed != 0 && mustYield()) {
      ret.moreWork = true;
      return ret;
    }
    const Bridging::VlanId vlanId = *changedVlans_.begin();
    changedVlans_.erase(changedVlans_.begin());
    lookAt(vlanId);
    ++ret.processed;
  }
  return ret;
}

void HealthSm::walkFinishedNotification() {
  if (!absent_.empty()) scheduleWalk(absent_.front().first - scheduler()->loop().now());
  Verdict verdict = Verdict::good;
  if (!health_->starting()) {
    if (forwarding_->failingOpen()) verdict = Verdict::failed;
    for (const auto& [key, problem] : reported_->problemCollection())
      verdict = std::max(verdict, problem->stops() ? Verdict::failed : Verdict::degraded);
  }
  if (health_->health() != verdict) Switch::healthEvent(Mox::toStrep(verdict));
  health_->healthIs(verdict);
}

void HealthSm::tellVrfs() {
  std::map<std::string, Ip::VrfState> now;
  for (const auto& [name, vrf] : vrfs_->vrfCollection()) {
    now.emplace(name, vrf->state());
    const auto before = toldVrfs_.find(name);
    if (before == toldVrfs_.end() || before->second != vrf->state())
      Switch::vrfEvent(name, Mox::toStrep(vrf->state()));
  }
  for (const auto& [name, state] : toldVrfs_)
    if (!now.contains(name)) Switch::vrfEvent(name, "gone");
  toldVrfs_ = std::move(now);
}

// --- VLANs -----------------------------------------------------------------------------------------------

void HealthSm::lookAt(Bridging::VlanId vlanId) {
  if (const auto vlan = config_->vlan(vlanId)) {
    lookForInterface(vlanId, *vlan);
    judgeVlan(vlanId, *vlan);
  } else {
    missingDel(interfaceSubject(vlanId));
    health_->vlanDel(vlanId);
  }
}

void HealthSm::judgeVlan(Bridging::VlanId vlanId, const Switch::VlanConfig& config) {
  const auto row = health_->vlanIs(vlanId);
  const auto forwarding = forwarding_->vlan(vlanId);
  const auto interface = ip_->ipIntfStatus(Lanix::IntfId::fromName("Vlan" + vlanId.toStrep()));
  std::string reason;
  const VlanState state = stateOf(vlanId, config, reason);
  row->bridgeIs(config.bridge());
  row->tunnelPortsIs(config.tunnelPorts());
  if (forwarding) {
    row->accessPortsIs(forwarding->accessPorts());
    row->missingIs(forwarding->missing());
  }
  row->vrfIs(interface ? interface->vrfName() : config.vrf());
  row->reasonIs(reason);
  if (row->state() != state) Switch::vlanEvent(vlanId, Mox::toStrep(state), reason);
  row->stateIs(state);
}

VlanState HealthSm::stateOf(Bridging::VlanId vlanId, const Switch::VlanConfig& config,
                            std::string& reason) const {
  const auto is = [&](VlanState state, std::string why) {
    reason = std::move(why);
    return state;
  };
  if (!config.suppression()) return is(VlanState::off, "\"suppression\" of the configuration is false");
  if (!loaded(kArpSuppression)) return is(VlanState::waiting, "the plug-in ArpSuppression is not loaded");
  if (!evpn_->mplsConfigured()) return is(VlanState::waiting, "EVPN over MPLS is not configured");
  if (loaded(kSoftForward)) {
    const auto forwarding = forwarding_->vlan(vlanId);
    if (!forwarding || !forwarding->ready())
      return is(health_->starting() ? VlanState::waiting : VlanState::degraded,
                forwarding && !forwarding->reason().empty() ? forwarding->reason()
                                                            : "its forwarding is being made");
  }
  if (const auto wrong = wrong_.find(vlanId); wrong != wrong_.end() && !health_->starting()) {
    const auto problem = reported_->problem(*wrong->second.begin());
    std::string_view rest;
    static_cast<void>(vlanOf(problem->subject(), rest));
    return is(VlanState::degraded, std::string(rest) + (rest.empty() ? "" : ": ") + problem->problem());
  }
  if (!status_->runnable()) return is(VlanState::waiting, "suppression does not run yet");
  if (status_->vlanId(vlanId)) return VlanState::active;
  return is(VlanState::waiting, evpn_->vlanToDot1qHas(vlanId)
                                    ? "its interface " + interfaceName(vlanId) + " is not usable yet"
                                    : "EVPN does not serve it, and no remote binding is on it");
}

// --- What is missing -------------------------------------------------------------------------------------

void HealthSm::lookForVrfs() {
  if (!loaded(kKernelState)) return;
  for (const auto& [name, vrf] : config_->vrfCollection()) {
    const auto state = vrfs_->vrf(name);
    const bool isDevice = !vrf->device().empty();
    missingIs(
        std::string(kVrfPrefix) + name, !state || state->state() != Ip::VrfState::active, {},
        isDevice ? "there is no VRF device " + vrf->device() + ": its VLANs have no layer 3"
                 : "there is no network namespace " + vrf->networkNamespace() + ": its VLANs have no layer 3",
        isDevice ? "ip link add " + vrf->device() + " type vrf table NUMBER, and set it up"
                 : "ip netns add " + vrf->networkNamespace());
  }
  std::vector<std::string> gone;
  for (auto at = missingSince_.lower_bound(std::string(kVrfPrefix));
       at != missingSince_.end() && at->first.starts_with(kVrfPrefix); ++at)
    if (!config_->vrfHas(at->first.substr(kVrfPrefix.size()))) gone.push_back(at->first);
  for (const std::string& subject : gone) missingDel(subject);
}

void HealthSm::lookForInterface(Bridging::VlanId vlanId, const Switch::VlanConfig& config) {
  const std::string where = config.vrf().empty() ? "" : " in VRF " + config.vrf();
  const std::string name = interfaceName(vlanId);
  missingIs(
      interfaceSubject(vlanId),
      loaded(kKernelState) && config.suppression() &&
          !ip_->ipIntfStatusHas(Lanix::IntfId::fromName("Vlan" + vlanId.toStrep())),
      vlanId,
      "there is no interface " + name + where + ": the VLAN has no layer 3, and its requests are flooded",
      "make it, or give it this name or its place back: a bridge " + name + ", the end " + name +
          " of a veth pair whose other end is a port of the bridge, or an 802.1Q device " + name);
}

void HealthSm::missingIs(const std::string& subject, bool missing, Bridging::VlanIdOrNone vlanId,
                         const std::string& problem, const std::string& advice) {
  if (!missing) return missingDel(subject);
  const double now = scheduler()->loop().now();
  const auto [since, isNew] = missingSince_.try_emplace(subject, now);
  if (isNew) absent_.emplace_back(now + kAbsentSeconds, vlanId);
  // While the host starts nothing is a problem; everything is looked at again when the start is over.
  if (!health_->starting() && now >= since->second + kAbsentSeconds)
    problems_.problemIs(subject, problem, advice);
}

void HealthSm::missingDel(const std::string& subject) {
  missingSince_.erase(subject);
  problems_.problemDel(subject);
}

// --- As JSON ---------------------------------------------------------------------------------------------

nlohmann::ordered_json healthJson(const Switch::Health& health, const Switch::Problems& problems) {
  using nlohmann::ordered_json;
  ordered_json shown = {{"health", Mox::toStrep(health.health())},
                        {"problems", ordered_json::array()},
                        {"vlans", ordered_json::array()}};
  if (!health.starting()) {
    for (const auto& [key, problem] : problems.problemCollection())
      shown["problems"].push_back({{"plugin", problem->plugin()},
                                   {"subject", problem->subject()},
                                   {"since", problem->since()},
                                   {"problem", problem->problem()},
                                   {"advice", problem->advice()}});
  }
  for (const auto& [vlanId, vlan] : health.vlanCollection())
    shown["vlans"].push_back({{"vlan", vlanId.value()},
                              {"state", Mox::toStrep(vlan->state())},
                              {"bridge", vlan->bridge()},
                              {"accessPorts", vlan->accessPorts()},
                              {"tunnelPorts", vlan->tunnelPorts()},
                              {"missing", vlan->missing()},
                              {"vrf", vlan->vrf()},
                              {"reason", vlan->reason()}});
  return shown;
}

}  // namespace Host
