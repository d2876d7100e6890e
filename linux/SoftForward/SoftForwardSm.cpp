#include "SoftForward/SoftForwardSm.h"

#include <algorithm>
#include <utility>

#include "Netlink/RouteFeed.h"

namespace SoftForward {

namespace {

// Changes of links come in bursts; they are looked at together after this many seconds.
constexpr double kSettleSeconds = 0.02;
// What was refused is tried again after this many seconds.
constexpr double kRetrySeconds = 3;
// What is on its way gets this many seconds before it counts as a problem.
constexpr double kGraceSeconds = 1;
constexpr unsigned kLevel = 3;
constexpr unsigned kMostUrgent = 0;

constexpr char kArpService[] = "ArpService";
// Without the first nobody answers; without the second it would not know enough to, where that is loaded.
constexpr char kArpSuppression[] = "ArpSuppression";
constexpr char kKernelState[] = "KernelState";
// A start takes a while, and so does a device that is made again: failing open is a problem after so many
// seconds.
constexpr double kFailingSeconds = 10;
constexpr char kFailingOpen[] = "failing open";
constexpr char kAllVlans[] = "all VLANs";
constexpr char kAnswers[] = "answers in the data plane";

}  // namespace

SoftForwardSm::SoftForwardSm(const Mox::Ptr<Orb::TaskScheduler>& scheduler, Programs& programs,
                             Mox::Ptr<const Switch::Config> switchConfig,
                             Mox::Ptr<const ArpSuppression::ArpSuppressionStatus> arpSuppressionStatus,
                             Mox::Ptr<const Bridging::Config> bridgingConfig,
                             Mox::Ptr<const Routing::Fhrp::VirtualRouterMacStatus> fhrpVrMacStatus,
                             Mox::Ptr<const Switch::VlanInterfaces> vlanInterfaces,
                             Mox::Ptr<const Switch::Readiness> readiness,
                             Mox::Ptr<Switch::Forwarding> forwarding, Answering answering,
                             Mox::Ptr<Switch::Problems> problems)
    : WalkSmBase(scheduler, "SoftForward", kLevel),
      switchConfig_(std::move(switchConfig), [this] { followConfig_.schedule(); }),
      arpSuppressionStatus_(std::move(arpSuppressionStatus)),
      bridgingConfig_(std::move(bridgingConfig)),
      fhrpVrMacStatus_(std::move(fhrpVrMacStatus)),
      vlanInterfaces_(std::move(vlanInterfaces)),
      readiness_(std::move(readiness)),
      forwarding_(std::move(forwarding)),
      answering_(std::move(answering)),
      problems_(std::move(problems), "SoftForward"),
      ownTrapped_(std::ranges::count(switchConfig_->agents(), kArpService) != 0),
      programs_(programs),
      datapath_(programs, [this](std::uint16_t id, const Standing& standing) { handleLooked(id, standing); }),
      policerWatch_(programs, datapath_, problems_),
      heartbeat_(
          scheduler->loop(), programs,
          [this] {
            if (answerMirror_) answerMirror_->withhold();
          },
          [this] { policerWatch_.look(this->scheduler()->loop().clock().now()); }),
      answerTally_(scheduler->loop(), programs, answering_.dataPlaneAnswers),
      again_(scheduler, "SoftForward again", kLevel,
             [this] {
               datapath_.againIs();
               scheduleWalk();
             }),
      followVlans_(scheduler, "SoftForward VLANs", kMostUrgent, [this] { followVlans(); }),
      followReadiness_(scheduler, "SoftForward readiness", kLevel, [this] { followReadiness(); }),
      followConfig_(scheduler, "SoftForward configuration", kLevel, [this] { followConfig(); }) {
  arpSuppressionStatus_.on(ArpSuppression::ArpSuppressionStatus::vlanIdChanged,
                           [this](Bridging::VlanId vlanId) { handleVlanId(vlanId); });
  bridgingConfig_.on(Bridging::Config::bridgeMacAddrChanged, [this] { handleAddresses(); });
  fhrpVrMacStatus_.on(Routing::Fhrp::VirtualRouterMacStatus::vgwVirtualMacChanged,
                      [this] { handleAddresses(); });
  if (vlanInterfaces_) {
    vlanInterfaces_.on(Switch::VlanInterfaces::vlanChanged,
                       [this](Bridging::VlanId vlanId) { handleVlanInterface(vlanId); });
    for (const auto& [vlanId, interface] : vlanInterfaces_->vlanCollection()) handleVlanInterface(vlanId);
  }
  readiness_.on(Switch::Readiness::awaitedChanged, [this] { handleReadiness(); });
  datapath_.ownTrappedIs(ownTrapped_);
  datapath_.deviceChangedIs([this](const std::string& device) {
    if (answerMirror_) answerMirror_->handleDevice(device);
  });
  handleAddresses();
  followConfig();
  open();  // here at first: loading the programs takes longer than a turn of the loop may
  handleReadiness();
}

SoftForwardSm::~SoftForwardSm() {
  for (auto* descriptor : {&descriptor_, &vlanDescriptor_})
    if (*descriptor) (*descriptor)->descriptorIs(-1);
  heartbeat_.beatingIs(false);
  answerMirror_.reset();
  if (open_) problems_.check("removing the devices and programs", datapath_.close());
  forwarding_->vlanDelAll();
  forwarding_->failingOpenIs(false);
}

bool SoftForwardSm::open() {
  Mox::Result<> opened = datapath_.open();
  if (opened) opened = follow();
  open_ = problems_.check("eBPF programs and kernel notifications", opened, {},
                          Switch::ProblemReporter::Left::nothing);
  if (!open_) {
    again_.schedule(kRetrySeconds);
    return false;
  }
  followReadiness_.schedule();
  answerTally_.count();
  if (answering_.answerStatus && answering_.answerVlans) {
    answerMirror_.emplace(
        scheduler(), programs_, answering_.answerStatus, answering_.answerVlans,
        AnswerMirror::Surroundings{
            [this](const std::string& device) { return datapath_.deviceIndex(device); },
            [this] { return datapath_.reconciled() && Netlink::RouteFeed::outdated() == 0; },
            [this](const Mox::Result<>& written) { problems_.check(kAnswers, written); },
            [this] { followHolding(); }});
    followAnswers();
  }
  return true;
}

Mox::Result<> SoftForwardSm::follow() try {
  const auto follow = [this](Mox::Notifiee<Orb::FileDescriptor>& notifiee, int number, auto handler) {
    if (notifiee) return;
    const auto descriptor = Mox::make<Orb::FileDescriptor>(scheduler()->loop(), "SoftForward");
    descriptor->descriptorIs(number);
    descriptor->notifyOnReadableIs(true);
    notifiee.on(Orb::FileDescriptor::readableCountChanged, handler);
    notifiee.notifierIs(descriptor);
  };
  follow(descriptor_, datapath_.descriptor(), [this] { scheduleWalk(kSettleSeconds); });
  follow(vlanDescriptor_, datapath_.vlanDescriptor(), [this] { followVlans_.schedule(); });
  return {};
} catch (const Mox::Error& error) {
  return Mox::Failure{error.what()};
}

void SoftForwardSm::followVlans() {
  bool more = true;
  while (more && !mustYield()) more = datapath_.followVlans();
  if (more) return followVlans_.schedule();
  scheduleWalk();
}

void SoftForwardSm::followConfig() {
  std::map<Bridging::VlanId, VlanWanted> wanted;
  for (const auto& [vlanId, vlan] : switchConfig_->vlanCollection()) {
    const auto shown = forwarding_->vlanIs(vlanId);
    if (vlan->suppression()) {
      wanted[vlanId] = {vlan->bridge(), vlan->tunnelPorts()};
    } else {
      shown->readyIs(false);
      shown->reasonIs("\"suppression\" of the VLAN is false in the configuration");
    }
  }
  std::vector<Bridging::VlanId> others;
  for (const auto& [vlanId, shown] : forwarding_->vlanCollection())
    if (!switchConfig_->vlanHas(vlanId)) others.push_back(vlanId);
  for (const Bridging::VlanId vlanId : others) forwarding_->vlanDel(vlanId);
  Standing gone;
  gone.ready = true;  // nothing is wrong with it any more
  for (const auto& [vlanId, before] : wanted_) {
    if (wanted.contains(vlanId)) continue;
    datapath_.vlanDel(vlanId);
    notReadySince_.erase(vlanId);
    report(vlanId, gone, false);
    reported_.erase(vlanId);
  }
  for (const auto& [vlanId, now] : wanted) {
    if (const auto before = wanted_.find(vlanId); before == wanted_.end() || !(before->second == now))
      datapath_.vlanIs(vlanId, now);
  }
  wanted_ = std::move(wanted);
  for (const auto& [vlanId, active] : arpSuppressionStatus_->vlanIdCollection()) handleVlanId(vlanId);
  heartbeat_.secondsIs(switchConfig_->softForward()->failOpenSeconds());
  datapath_.portTermsAre([settings = switchConfig_->softForward()](const std::string& device) {
    const Switch::Policer policer = settings->policerOf(device);
    return PortTerms{{policer.perSecond, policer.burst}, !settings->portWithoutAnswersHas(device)};
  });
  followAnswers();
  scheduleWalk();
}

Orb::WalkRet SoftForwardSm::walk() {
  Orb::WalkRet ret;
  if (!open_) {
    ret.moreWork = open();
    return ret;
  }
  do {
    ++ret.processed;
    ret.moreWork = datapath_.step();
  } while (ret.moreWork && !mustYield());
  return ret;
}

void SoftForwardSm::walkFinishedNotification() {
  if (!open_ || !datapath_.againWanted()) return;
  const bool grace = std::ranges::any_of(notReadySince_, [&](const auto& entry) {
    return scheduler()->loop().clock().now() < entry.second + kGraceSeconds;
  });
  again_.schedule(grace ? kGraceSeconds : kRetrySeconds);
}

void SoftForwardSm::handleAddresses() {
  // Nobody acts on what the switch asks for.
  const bool passed = !ownTrapped_ && bridgingConfig_;
  datapath_.passedAddressIs(passed ? bridgingConfig_->bridgeMacAddr() : Lanix::EthAddr());
  datapath_.sharedAddressIs(fhrpVrMacStatus_ ? fhrpVrMacStatus_->vgwVirtualMac() : Lanix::EthAddr());
  followAnswers();
  scheduleWalk();
}

void SoftForwardSm::followAnswers() {
  constexpr std::uint64_t kNanoseconds = 1'000'000'000;
  const Switch::Answers answers = switchConfig_->softForward()->answers();
  datapath_.answerTermsAre({answers.enabled ? answers.refreshSeconds * kNanoseconds : 0,
                            {bridgingConfig_ ? bridgingConfig_->bridgeMacAddr() : Lanix::EthAddr(),
                             fhrpVrMacStatus_ ? fhrpVrMacStatus_->vgwVirtualMac() : Lanix::EthAddr()}});
  if (!answerMirror_) return;
  Netlink::VlanIds excluded;
  if (!answers.enabled) excluded.set();
  for (const auto& [vlanId, vlan] : switchConfig_->vlanCollection())
    if (!vlan->answers()) excluded.set(vlanId.value());
  answerMirror_->excludedIs(excluded);
  answerMirror_->roomIs(answers.enabled ? answers.maxEntries : 0);
}

void SoftForwardSm::followHolding() {
  answerTally_.holdingIs(answerMirror_ && answerMirror_->holding().any() && heartbeat_.beating());
}

void SoftForwardSm::handleVlanId(Bridging::VlanId vlanId) {
  datapath_.activeVlanIs(vlanId, arpSuppressionStatus_->vlanId(vlanId));
  scheduleWalk();
  followReadiness_.schedule();
}

// What answers wait for; "": they are made.
Mox::String SoftForwardSm::awaited() const {
  for (const char* plugin : {kKernelState, kArpSuppression}) {
    const bool loaded = std::ranges::count(switchConfig_->agents(), plugin) != 0;
    if (!loaded && plugin == kKernelState) continue;  // its tables are written by hand
    if (!loaded) return "the plug-in ArpSuppression, which answers requests, is not loaded";
    if (readiness_->ready(plugin)) continue;
    return Mox::String(plugin) + " waits for " +
           (readiness_->awaitedHas(plugin) ? readiness_->awaited(plugin) : "its start");
  }
  return {};
}

// Who may not be relied on any more is not, also when the loop does not turn again: at the end.
void SoftForwardSm::handleReadiness() {
  if (!awaited().empty()) heartbeat_.beatingIs(false);
  followHolding();
  followReadiness_.schedule();
}

void SoftForwardSm::followReadiness() {
  const Mox::String awaited = this->awaited();
  heartbeat_.beatingIs(open_ && awaited.empty());
  followHolding();
  const bool wanted = std::ranges::any_of(forwarding_->vlanCollection(), [&](const auto& vlan) {
    const auto configured = switchConfig_->vlan(vlan.first);
    return configured && configured->suppression() && arpSuppressionStatus_->vlanId(vlan.first);
  });
  const bool failing = wanted && !heartbeat_.beating();
  const double now = scheduler()->loop().clock().now();
  if (failing && !forwarding_->failingOpen()) failingSince_ = now;
  forwarding_->failingOpenIs(failing);
  if (!failing || !open_) return problems_.problemDel(kFailingOpen);  // not open: that is a problem already
  const double left = failingSince_ + kFailingSeconds - now;
  if (left > 0) return followReadiness_.schedule(left);
  problems_.problemIs(kFailingOpen, "requests are flooded as without suppression: " + awaited);
}

void SoftForwardSm::handleVlanInterface(Bridging::VlanId vlanId) {
  datapath_.interfaceIs(vlanId, vlanInterfaces_->vlan(vlanId));
  scheduleWalk();
}

// What is on its way is no problem yet.
bool SoftForwardSm::isToReport(std::uint16_t id, const Standing& standing) {
  if (standing.ready) {
    notReadySince_.erase(id);
    return false;
  }
  const double now = scheduler()->loop().clock().now();
  const double since = notReadySince_.try_emplace(id, now).first->second;
  return !standing.passing || now >= since + kGraceSeconds;
}

void SoftForwardSm::handleLooked(std::uint16_t id, const Standing& standing) {
  const bool toReport = isToReport(id, standing);
  if (id == Datapath::kShared) {
    sharedReady_ = standing.ready;
    report(id, standing, toReport);
    return;
  }
  if (!wanted_.contains(Bridging::VlanId(id))) return report(id, standing, false);
  if (const auto vlan = forwarding_->vlan(Bridging::VlanId(id))) {
    vlan->reasonIs(standing.reason);
    vlan->accessPortsIs(standing.accessPorts);
    vlan->missingIs(standing.missing);
    vlan->readyIs(standing.ready);
  }
  // What all VLANs share, or several, is reported once.
  report(id, standing, toReport && sharedReady_ && !standing.toldElsewhere);
}

void SoftForwardSm::report(std::uint16_t id, const Standing& standing, bool main) {
  std::set<std::string> now;
  const auto is = [&](const Complaint& complaint) {
    now.insert(complaint.subject);
    const bool all = complaint.subject == kAllVlans;
    problems_.problemIs(complaint.subject, complaint.problem, complaint.advice,
                        all ? Switch::ProblemReporter::Left::nothing : Switch::ProblemReporter::Left::some);
  };
  const std::string subject = id == Datapath::kShared ? kAllVlans : "VLAN " + std::to_string(id);
  if (main) {
    is({subject, "requests are flooded as without suppression: " + standing.reason, standing.advice});
  } else if (!standing.ready && reported_[id].contains(subject)) {
    now.insert(subject);  // not over yet
  }
  for (const Complaint& complaint : standing.complaints) is(complaint);
  const std::set<std::string> last = std::exchange(reported_[id], std::move(now));
  for (const std::string& before : last) {
    const bool lasts = std::ranges::any_of(
        reported_, [&](const auto& reported) { return reported.second.contains(before); });
    if (!lasts) problems_.problemDel(before);
  }
}

void SoftForwardSm::dumpState(Orb::DumpContext& context, int indent) const {
  context.line(indent, "SoftForwardSm");
  context.attribute(indent, "open", open_);
  context.attribute(indent, "ready", sharedReady_);
  for (const auto& [vlanId, vlan] : forwarding_->vlanCollection())
    context.line(indent + 2, "VLAN " + vlanId.toStrep() + ": " + (vlan->ready() ? "ready" : vlan->reason()));
}

}  // namespace SoftForward
