#include "AnswerChanges.h"

#include "Suppression/NeverAnswer.h"
#include "Switch/Config.h"

namespace ArpSuppression {

using Bridging::EntryType;

AnswerTable::Answers AnswerTable::held() const {
  Answers all;
  const auto vlans = rig_.state<AnswerVlans>(kAnswerVlansPath);
  rig_.table<AnswerStatus>(kAnswerPath)->answerForEach([&](const AnswerKey& key, const Answer& answer) {
    if (vlans->vlanIdHas(key.vlanId)) all[key] = answer;
  });
  return all;
}

AnswerTable::Answers AnswerTable::wanted() const {
  Answers all;
  if (!rig_.root()) return all;
  const auto config = rig_.state<Switch::Config>(Switch::kConfigPath);
  for (const std::uint16_t vlan : inUse()) {
    const auto ofVlan = config->vlan(Vlan(vlan));
    for (const char* address : kAddresses) {
      const Lanix::IpGenAddr target = ip(address);
      const ArpSuppressionSm::Request request{Vlan(vlan), ip(target.isIpv4() ? "10.0.0.77" : "2001:db8::77"),
                                              mac("02:00:00:00:00:77"), target, intf("Ethernet7")};
      const ArpSuppressionSm& requests = *rig_.rootSm()->arpSuppressionSm();
      const ArpSuppressionSm::Facts facts = requests.gather(request);
      const Outcome outcome = requests.decide(request, facts);
      if (outcome.action() != Action::reply) continue;
      if (target.isIpv6() && ofVlan && !ofVlan->nd()) continue;
      const auto counter = target.isIpv4() ? *outcome.answerCounter : ArpSuppressionCounterId::ndAnswered;
      all[{Vlan(vlan), target}] = {outcome.macAddress, facts.fdbEntry.intf,
                                   static_cast<std::uint8_t>(counter), target.isIpv6() && facts.router};
    }
  }
  return all;
}

std::set<std::uint16_t> AnswerTable::answering() const {
  std::set<std::uint16_t> vlans;
  for (const auto& [vlanId, in] : rig_.state<AnswerVlans>(kAnswerVlansPath)->vlanIdCollection())
    vlans.insert(vlanId.value());
  return vlans;
}

std::set<std::uint16_t> AnswerTable::inUse() const {
  std::set<std::uint16_t> vlans;
  if (!rig_.root()) return vlans;
  const auto config = rig_.state<Switch::Config>(Switch::kConfigPath);
  for (const std::uint16_t vlan : kVlans) {
    const auto ofVlan = config->vlan(Vlan(vlan));
    if (rig_.published()->vlanId(Vlan(vlan)) && config->softForward()->answers().enabled &&
        (!ofVlan || ofVlan->answers()))
      vlans.insert(vlan);
  }
  return vlans;
}

AnswerChanges::AnswerChanges(Rig& rig, std::uint32_t seed) : rig_(rig), random_(seed) {
  const auto chance = [this](std::uint32_t of) { return random_() % of != 0; };
  const auto config = [this] { return rig_.state<Switch::Config>(Switch::kConfigPath); };
  naming_ = {
      {"binding", [=, this] { rig_.remoteBinding(anyVlan().value(), anyAddress(), anyMac(), chance(2)); }},
      {"binding that may be a router's",
       [=, this] {
         rig_.table<RemoteBindingConfig>("arpSuppression/remoteBindingConfig/evpn")
             ->remoteBindingIs({anyVlan(), ip(anyAddress())},
                               {mac(anyMac()), false, BindingSource::feed, chance(2)});
       }},
      {"no binding", [this] { rig_.noRemoteBinding(anyVlan().value(), anyAddress()); }},
      {"neighbour",
       [=, this] {
         rig_.table<Arp::Table::Status>("arp/status")
             ->arpEntryIs({5, ip(anyAddress()), intf("Vlan10")}, {mac(anyMac()), false, 0, chance(2)});
       }},
      {"no neighbour",
       [this] {
         rig_.table<Arp::Table::Status>("arp/status")->arpEntryDel({5, ip(anyAddress()), intf("Vlan10")});
       }},
      {"station",
       [=, this] {
         rig_.fdb(anyFid(), anyMac(), chance(3) ? EntryType::learnedDynamic : EntryType::evpnLearned,
                  anyPort());
       }},
      {"no station",
       [this] {
         rig_.table<Memtab::Bridging::Status>("bridging/status")->fdbDel({anyFid(), mac(anyMac())});
       }},
  };
  others_ = {
      {"segment",
       [=, this] {
         const auto segment = rig_.evpn()->segmentStatusIs(intf(anyPort()));
         segment->designatedForwarderTepIs(anyVlan(), chance(2) ? intf("Tep1") : Lanix::IntfId());
       }},
      {"no segment", [this] { rig_.evpn()->segmentStatusDel(intf(anyPort())); }},
      {"FID",
       [=, this] {
         const auto bridging = rig_.state<Bridging::Config>("bridging/config");
         chance(2) ? bridging->vidToFidMapIs(anyVlan(), 100) : void(bridging->vidToFidMapDel(anyVlan()));
       }},
      {"own address",
       [this] { rig_.vlanInterface(10, "red", Rig::kVlan10, (anyAddress() + std::string("/24")).c_str()); }},
      {"VLAN served",
       [=, this] {
         const Vlan vlan = anyVlan();
         chance(2) ? rig_.evpn()->vlanToDot1qIs(vlan, vlan) : void(rig_.evpn()->vlanToDot1qDel(vlan));
       }},
      {"VLAN interface", [=, this] { rig_.device("red", "vlan10", chance(2) ? Rig::kVlan10 : 0); }},
      {"VRF", [=, this] { rig_.vrf("red", 5, chance(2) ? Ip::VrfState::active : Ip::VrfState::inactive); }},
      {"fabric", [=, this] { rig_.device("default", "fabric", chance(2) ? Rig::kFabric : 0); }},
      {"excluded",
       [this] {
         const auto excluded = rig_.state<NeverAnswer>(kNeverAnswerPath);
         const Lanix::IpGenAddr address = ip(anyAddress());
         const IpNetwork network(address, address.isIpv4() ? 32 : 128);
         excluded->prefixHas(network) ? void(excluded->prefixDel(network)) : excluded->prefixIs(network);
       }},
      {"answers of a VLAN",
       [=, this] {
         const Vlan vlan = anyVlan();
         chance(3) ? config()->vlanIs(vlan)->answersIs(chance(2)) : void(config()->vlanDel(vlan));
       }},
      {"solicitations of a VLAN", [=, this] { config()->vlanIs(anyVlan())->ndIs(chance(2)); }},
      {"answers", [=] { config()->softForward()->answersIs({.enabled = chance(4)}); }},
      {"room", [=, this] { rig_.state<Limits>(kLimitsPath)->remoteBindingsIs(chance(2) ? 2 : 100); }},
      {"time", [this] { rig_.clock.advance(RemoteBindingStatusSm::kRoomSeconds); }},
      {"EVPN", [=, this] { rig_.evpn()->mplsConfiguredIs(chance(4)); }},
  };
}

void AnswerChanges::some(const std::function<void()>& restart) {
  for (std::size_t together = 1 + random_() % 3; together > 0; --together) {
    const std::size_t at = random_() % (random_() % 8 ? naming_.size() : naming_.size() + others_.size() + 1);
    if (at == naming_.size() + others_.size()) {
      history_ += " restart";
      restart();
    } else {
      const auto& [name, change] = at < naming_.size() ? naming_[at] : others_[at - naming_.size()];
      history_ += std::string(" ") + name;
      change();
    }
    if (random_() % 4 == 0) rig_.turn();
  }
}

}  // namespace ArpSuppression
