#include "ArpSuppression/Explain.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "Orb/JsonObject.h"
#include "Switch/Config.h"
#include "Switch/Forwarding.h"

namespace ArpSuppression {

namespace {

using Sm = ArpSuppressionSm;
using Id = ArpSuppressionCounterId;

const char* textOf(Sm::MacConnectionType type) {
  switch (type) {
    case Sm::MacConnectionType::unknown:
      break;
    case Sm::MacConnectionType::remote:
      return "the owner is behind a remote endpoint";
    case Sm::MacConnectionType::localSinglehomed:
      return "the owner is on a port of this switch and answers itself";
    case Sm::MacConnectionType::localMultihomedDf:
      return "the owner is on an Ethernet segment for which this switch is the designated forwarder";
    case Sm::MacConnectionType::localMultihomedNonDf:
      return "the owner is on an Ethernet segment for which a remote endpoint is the designated forwarder";
  }
  return "the MAC table does not know the owner";
}

// Asks when nobody else is said to: a MAC that no host and no switch has.
constexpr Lanix::EthAddr kSomeHost = Lanix::EthAddr::broadcast();

class Explanation {
 public:
  Explanation(const ArpSuppressionRootSm& rootSm, Bridging::VlanId vlanId, const Lanix::IpGenAddr& ipAddress,
              const std::optional<Lanix::EthAddr>& from)
      : rootSm_(rootSm), mounts_(*rootSm.mounts()), vlanId_(vlanId), ipAddress_(ipAddress), from_(from) {
    result_.add("vlan", vlanId.value()).add("ip", ipAddress.toStrep());
    if (from) result_.add("from", from->toStrep());
  }

  Mox::String text() {
    if (trapped()) decided();
    result_.json("facts", facts_.empty() ? "[]" : facts_ + "]");
    return result_.text();
  }

 private:
  template <class Value>
  void fact(const char* name, const Value& value, const Mox::String& text) {
    facts_ += facts_.empty() ? "[" : ",";
    facts_ += Orb::JsonObject().add("fact", name).add("value", value).add("text", text).text();
  }
  void concluded(const Mox::String& action, const Mox::String& summary, const std::optional<Id>& counter) {
    result_.add("action", action).add("summary", summary);
    if (!counter) return;
    const auto id = static_cast<std::uint32_t>(*counter);
    result_.json("counter", Orb::JsonObject().add("id", id).add("name", kCounterNames[id]).text());
  }
  // A condition without which the agent never sees the request, and nothing is answered for it.
  bool needs(const char* name, bool holds, const char* text, const Mox::String& otherwise,
             const std::optional<Id>& counter = std::nullopt) {
    fact(name, holds, holds ? text : otherwise);
    if (holds) return true;
    if (isSolicitation()) {
      passes(otherwise, std::nullopt);
    } else {
      concluded("notTrapped", "the agent does not see the request: " + otherwise, counter);
    }
    return false;
  }
  void passes(const Mox::String& why, const std::optional<Id>& counter) {
    concluded("pass", "the solicitation passes untouched: " + why, counter);
  }
  bool isSolicitation() const { return ipAddress_.isIpv6(); }

  bool trapped() {
    if (!needs("running", rootSm_.root() != nullptr, "suppression runs",
               "suppression does not run; set \"mplsConfigured\" in evpn/status")) {
      return false;
    }
    const Mox::String vlan = "VLAN " + vlanId_.toStrep();
    const bool active = mounts_.arpSuppressionStatus && mounts_.arpSuppressionStatus->vlanId(vlanId_);
    if (!needs("vlanActive", active, "suppression is active on the VLAN", whyInactive(vlan),
               Id::trapVlanNotEnabled)) {
      return false;
    }
    if (isSolicitation()) return forwarded(vlan) && hasPort();
    const Ptr<MessageTrapSm>& trap = rootSm_.messageTrapSm();
    return forwarded(vlan) &&
           needs("trapSocket", trap && trap->socketOpen(), "the trap device is open",
                 trap && !trap->opened() ? "the agent's packet socket " + trap->opened().error()
                                         : "the trap device is missing or down") &&
           hasPort();
  }

  // Whether the software data plane traps the VLAN. It says nothing where it is not loaded.
  bool forwarded(const Mox::String& vlan) {
    const auto forwarding = mounts_.entityManager->entityOf<Switch::Forwarding>(Switch::kForwardingPath);
    if (!forwarding || forwarding->vlans() == 0) return true;
    const Ptr<Switch::VlanForwarding> status = forwarding->vlan(vlanId_);
    const Mox::String problem = !status ? vlan + " is not among the \"vlans\" of the configuration"
                                : forwarding->failingOpen()
                                    ? "it fails open, as somebody it needs is not ready (switch/readiness)"
                                    : status->reason();
    return needs(
        "forwarding", status && status->ready() && !forwarding->failingOpen(),
        "the software data plane traps the VLAN",
        "the software data plane does not trap the VLAN" + (problem.empty() ? problem : ": " + problem));
  }

  Mox::String whyInactive(const Mox::String& vlan) const {
    const Mox::String inactive = "suppression is not active on " + vlan + ": ";
    if (!mounts_.evpnStatus || !mounts_.evpnStatus->vlanToDot1qHas(vlanId_)) {
      return inactive + "it is not in \"vlanToDot1q\" of evpn/status and has no remote binding";
    }
    if (!rootSm_.root()->vlanL3InfoStatus->usableVlanL3Info(vlanId_)) {
      return inactive +
             "its VLAN interface or its VRF is missing or not usable, and it has no remote binding";
    }
    return inactive + "the remote bindings are still being read";
  }

  // Where the request comes from.
  bool hasPort() {
    if (!from_ || rootSm_.arpSuppressionSm()->localArpRequest(*from_)) return true;
    const Memtab::Bridging::MemtabFdbStatus entry =
        mounts_.bridgingStatus->fdb({rootSm_.arpSuppressionSm()->fidOf(vlanId_), *from_});
    if (entry == Memtab::Bridging::MemtabFdbStatus{}) {
      fact("sourcePort", "",
           "the MAC table does not know who asks; another port than the owner's is assumed");
      return true;
    }
    sourcePort_ = entry.intf;
    return needs("sourceIsLocal", entry.isLocal(), "who asks is on a port of this switch",
                 "who asks is behind the overlay, and what comes from there is never trapped") &&
           (fact("sourcePort", entry.intf.toStrep(), "it comes from " + entry.intf.toStrep()), true);
  }

  void decided() {
    const Sm& sm = *rootSm_.arpSuppressionSm();
    const Sm::Request request{vlanId_, {}, from_.value_or(kSomeHost), ipAddress_, sourcePort_};
    const Sm::Facts facts = sm.gather(request);
    tell(facts);
    const Outcome outcome = sm.decide(request, facts);
    if (isSolicitation()) return decidedOnSolicitation(outcome, facts);
    if (outcome.answerCounter) {
      if (!facts.localArpReq) {
        fact("fabricUsable", sm.fabricUsable(),
             sm.fabricUsable() ? "answers can leave by \"fabric\"" : "answers cannot leave by \"fabric\"");
      }
      result_.add("mac", outcome.macAddress.toStrep());
    }
    if (mounts_.answerStatus) tellOfDataPlane(outcome, facts);
    if (!cannotSend(outcome)) concluded(Mox::toStrep(outcome.action()), outcome.summary(), outcome.toldBy());
  }

  // Nobody but the data plane answers it.
  void decidedOnSolicitation(const Outcome& outcome, const Sm::Facts& facts) {
    const Mox::String obstacle =
        mounts_.answerStatus ? dataPlaneObstacle(outcome, facts) : "no data plane answers it here";
    fact("dataPlane", obstacle.empty(),
         obstacle.empty() ? "the data plane answers hosts that solicit its group" : "it passes: " + obstacle);
    if (!obstacle.empty()) {
      const bool nobody = outcome.kind != Outcome::Kind::answered;
      return passes(nobody ? outcome.summary() : obstacle,
                    answersHold() ? std::optional(Id::ndPassed) : std::nullopt);
    }
    result_.add("mac", outcome.macAddress.toStrep()).add("router", facts.router);
    concluded(Mox::toStrep(Action::reply),
              facts.router ? "the switch advertises the owner, a router" : "the switch advertises the owner",
              Id::ndAnswered);
  }

  // Whether what was decided ends for want of a socket to send by.
  bool cannotSend(const Outcome& outcome) {
    const bool reply = outcome.action() == Action::reply;
    const Ptr<MessageReinjectSmBase>& reinject = rootSm_.messageReinjectSm();
    Mox::Result<> socket;
    if (reply) {
      socket = rootSm_.arpSuppressionSm()->replySocket();
    } else if (outcome.action() == Action::flood && !reinject->socketOpen()) {
      socket = reinject->opened();
      if (socket)
        socket = Mox::Failure{"the device \"" + reinject->interfaceName() + "\" is missing or down"};
    }
    if (socket) return false;
    fact(reply ? "replySocket" : "reinjectSocket", false, "there is no socket to send by: " + socket.error());
    const Mox::String what =
        reply ? "no answer: " : "the request should go to the remote endpoints and is lost: ";
    concluded(Mox::toStrep(Action::leave), what + "the agent has no socket to send by: " + socket.error(),
              reply ? std::optional(Id::replySendFailed) : std::nullopt);
    return true;
  }

  // In the order in which the decision looks at them.
  void tell(const Sm::Facts& facts) {
    fact(
        "targetIsMine", facts.targetIsMine,
        facts.targetIsMine ? "the address is one of the VLAN interface's own" : "the address is not our own");
    if (facts.neverAnswer) fact("neverAnswer", true, "hosts are never answered for the address");
    const auto macFact = [&](const char* name, const Lanix::EthAddr& mac, const Mox::String& known,
                             const char* unknown) {
      const Mox::String text = mac.isZero() ? Mox::String() : mac.toStrep();
      fact(name, text, text.empty() ? unknown : known + text);
    };
    macFact("localBinding", facts.localBindingMac, "the kernel's neighbour table says ",
            "the kernel's neighbour table does not know the owner");
    macFact("remoteBinding", facts.remoteBinding.macAddress,
            facts.remoteBinding.localMultihomed
                ? "another switch, on a segment that is attached here too, advertises "
                : "another switch advertises ",
            facts.noRoom
                ? "another switch advertises the owner, but there is no room for more remote bindings"
                : "no other switch advertises the owner");
    macFact("owner", facts.bindingMac, "so the owner is ", "so no owner is known");
    if (facts.fid != vlanId_.value()) {
      fact("fid", facts.fid, "the MAC table has the VLAN as " + std::to_string(facts.fid));
    }
    if (facts.fdbEntry.intf) {
      const Mox::String port = facts.fdbEntry.intf.toStrep();
      fact("ownerPort", port, "the MAC table has the owner on " + port);
    }
    fact("connectionType", Mox::toStrep(facts.connectionType), textOf(facts.connectionType));
    if (isSolicitation() && !facts.bindingMac.isZero())
      fact("router", facts.router, facts.router ? "the owner is a router" : "the owner is no router");
    fact("localArpReq", facts.localArpReq, facts.localArpReq ? "the switch itself asks" : "a host asks");
  }

  // Whether the request is answered before it reaches the agent, as soon as the agent has seen its sender.
  void tellOfDataPlane(const Outcome& outcome, const Sm::Facts& facts) {
    const Mox::String obstacle = dataPlaneObstacle(outcome, facts);
    fact("dataPlane", obstacle.empty(),
         obstacle.empty() ? "the data plane answers whoever the agent has seen ask lately"
                          : "it goes to the agent: " + obstacle);
  }

  // Whether the data plane answers on the VLAN, and counts what it does not answer.
  bool answersHold() const {
    const auto vlans = mounts_.entityManager->entityOf<AnswerVlans>(kAnswerVlansPath);
    const auto dataPlane = mounts_.entityManager->entityOf<DataPlaneAnswers>(kDataPlaneAnswersPath);
    return vlans && vlans->vlanIdHas(vlanId_) && dataPlane && dataPlane->holding();
  }

  // Why the data plane does not answer; "": it does.
  Mox::String dataPlaneObstacle(const Outcome& outcome, const Sm::Facts& facts) const {
    const auto& tree = *mounts_.entityManager;
    const auto config = tree.entityOf<Switch::Config>(Switch::kConfigPath);
    const auto vlan = config ? config->vlan(vlanId_) : nullptr;
    const auto vlans = tree.entityOf<AnswerVlans>(kAnswerVlansPath);
    const auto dataPlane = tree.entityOf<DataPlaneAnswers>(kDataPlaneAnswersPath);
    const Mox::String port = sourcePort_.toStrep();
    const std::pair<bool, Mox::String> obstacles[] = {
        {facts.localArpReq,
         isSolicitation() ? "the switch itself asks" : "what the switch itself asks is the agent's to see"},
        {outcome.kind != Outcome::Kind::answered, "nobody here answers it"},
        {config && !config->softForward()->answers().enabled,
         "\"softForward.answers.enabled\" of the configuration is false"},
        {vlan && !vlan->answers(), "\"answers\" of the VLAN is false in the configuration"},
        {isSolicitation() && vlan && !vlan->nd(), "\"nd\" of the VLAN is false in the configuration"},
        {config && config->softForward()->portWithoutAnswersHas(port),
         "\"answers\" of " + port + " is false in the configuration"},
        {!vlans || !vlans->vlanIdHas(vlanId_), "the VLAN's answers are being brought up to date"},
        {!mounts_.answerStatus->answer({vlanId_, ipAddress_}), "the table of answers does not hold it"},
        {!dataPlane || !dataPlane->holding(), "the forwarding programs answer nothing now"}};
    const auto* const obstacle = std::ranges::find_if(obstacles, [](const auto& one) { return one.first; });
    return obstacle == std::end(obstacles) ? Mox::String() : obstacle->second;
  }

  const ArpSuppressionRootSm& rootSm_;
  const ArpSuppressionMounts& mounts_;
  const Bridging::VlanId vlanId_;
  const Lanix::IpGenAddr& ipAddress_;
  const std::optional<Lanix::EthAddr>& from_;
  // No device can have the name of the port that is assumed.
  Lanix::IntfId sourcePort_ = Lanix::IntfId::fromName("any/other");
  Orb::JsonObject result_;
  Mox::String facts_;
};

}  // namespace

Mox::String explain(const ArpSuppressionRootSm& rootSm, Bridging::VlanId vlanId,
                    const Lanix::IpGenAddr& ipAddress, const std::optional<Lanix::EthAddr>& from) {
  return Explanation(rootSm, vlanId, ipAddress, from).text();
}

}  // namespace ArpSuppression
