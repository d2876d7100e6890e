#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <random>
#include <set>

#include "Rig.h"

namespace ArpSuppression {
namespace {

using Answers = std::map<std::string, std::string>;  // "10 10.0.0.99" to "MAC port counter router"
using Bridging::EntryType;

constexpr std::uint16_t kVlans[] = {10, 20};
const char* const kMacs[] = {"02:00:00:00:00:63", "02:00:00:00:00:64", "02:00:00:00:00:65"};
const char* const kAddresses[] = {"10.0.0.1",    "10.0.0.98",    "10.0.0.99",
                                  "2001:db8::1", "2001:db8::98", "2001:db8::99"};
const char* const kPorts[] = {"Ethernet1", "Ethernet2"};

std::string textOf(const Answer& answer) {
  return answer.macAddress.toStrep() + " " + answer.owner.toStrep() + " " + std::to_string(answer.counter) +
         (answer.router ? " router" : "");
}

// The table of answers of a rig, and what should be in it.
class Table {
 public:
  explicit Table(Rig& rig) : rig_(rig) {}

  // What a data plane would answer.
  Answers held() const {
    Answers all;
    const auto vlans = rig_.state<AnswerVlans>(kAnswerVlansPath);
    rig_.table<AnswerStatus>(kAnswerPath)->answerForEach([&](const AnswerKey& key, const Answer& answer) {
      if (vlans->vlanIdHas(key.vlanId))
        all[key.vlanId.toStrep() + " " + key.ipAddress.toStrep()] = textOf(answer);
    });
    return all;
  }
  // What the agent itself would answer a host on a port of its own.
  Answers wanted() const {
    Answers all;
    if (!rig_.root()) return all;
    for (const std::uint32_t vlan : kVlans) {
      for (const char* address : kAddresses) {
        const Lanix::IpGenAddr target = ip(address);
        const ArpSuppressionSm::Request request{Vlan(vlan),
                                                ip(target.isIpv4() ? "10.0.0.77" : "2001:db8::77"),
                                                mac("02:00:00:00:00:77"), target, intf("Ethernet7")};
        const ArpSuppressionSm& requests = *rig_.rootSm()->arpSuppressionSm();
        const ArpSuppressionSm::Facts facts = requests.gather(request);
        const Outcome outcome = requests.decide(request, facts);
        if (!inUse(vlan) || outcome.action() != Action::reply) continue;
        if (target.isIpv6() && !withNd(vlan)) continue;
        const auto counter = target.isIpv4() ? *outcome.answerCounter : ArpSuppressionCounterId::ndAnswered;
        all[std::to_string(vlan) + " " + address] =
            textOf({outcome.macAddress, facts.fdbEntry.intf, static_cast<std::uint8_t>(counter),
                    target.isIpv6() && facts.router});
      }
    }
    return all;
  }
  // Published, and with answers by the configuration.
  bool inUse(std::uint32_t vlan) const {
    const auto config = rig_.state<Switch::Config>(Switch::kConfigPath);
    const auto ofVlan = config->vlan(Vlan(vlan));
    return rig_.published()->vlanId(Vlan(vlan)) && config->softForward()->answers().enabled &&
           (!ofVlan || ofVlan->answers());
  }
  bool withNd(std::uint32_t vlan) const {
    const auto ofVlan = rig_.state<Switch::Config>(Switch::kConfigPath)->vlan(Vlan(vlan));
    return !ofVlan || ofVlan->nd();
  }
  std::set<std::uint16_t> answering() const {
    std::set<std::uint16_t> vlans;
    for (const auto& [vlanId, in] : rig_.state<AnswerVlans>(kAnswerVlansPath)->vlanIdCollection())
      vlans.insert(vlanId);
    return vlans;
  }

 private:
  Rig& rig_;
};

// Changes of all kinds, in any order: what the table says is what the agent would do, as soon as all is settled.
TEST(Answers, EqualTheDecisionWhateverChanges) {
  for (const std::uint32_t seed : {1U, 2U, 3U, 4U}) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    const auto any = [&](const auto& of) { return of[random() % std::size(of)]; };
    const auto anyFid = [&]() -> Bridging::Fid { return random() % 2 ? any(kVlans) : std::uint16_t{100}; };
    Rig rig;
    const Table table(rig);
    rig.start();
    const std::pair<const char*, std::function<void()>> changes[] = {
        {"binding", [&] { rig.remoteBinding(any(kVlans), any(kAddresses), any(kMacs), random() % 2); }},
        {"binding that may be a router's",
         [&] {
           rig.table<RemoteBindingConfig>("arpSuppression/remoteBindingConfig/evpn")
               ->remoteBindingIs({Vlan(any(kVlans)), ip(any(kAddresses))},
                                 {mac(any(kMacs)), false, BindingSource::feed, random() % 2 == 0});
         }},
        {"no binding", [&] { rig.noRemoteBinding(any(kVlans), any(kAddresses)); }},
        {"neighbour",
         [&] {
           rig.table<Arp::Table::Status>("arp/status")
               ->arpEntryIs({5, ip(any(kAddresses)), intf("Vlan10")},
                            {mac(any(kMacs)), false, 0, random() % 2 == 0});
         }},
        {"no neighbour",
         [&] {
           rig.table<Arp::Table::Status>("arp/status")->arpEntryDel({5, ip(any(kAddresses)), intf("Vlan10")});
         }},
        {"station",
         [&] {
           rig.fdb(anyFid(), any(kMacs), random() % 3 ? EntryType::learnedDynamic : EntryType::evpnLearned,
                   any(kPorts));
         }},
        {"no station",
         [&] {
           rig.table<Memtab::Bridging::Status>("bridging/status")->fdbDel({anyFid(), mac(any(kMacs))});
         }},
        {"segment",
         [&] {
           const auto segment = rig.evpn()->segmentStatusIs(intf(any(kPorts)));
           segment->designatedForwarderTepIs(Vlan(any(kVlans)),
                                             random() % 2 ? intf("Tep1") : Lanix::IntfId());
         }},
        {"no segment", [&] { rig.evpn()->segmentStatusDel(intf(any(kPorts))); }},
        {"FID",
         [&] {
           const auto config = rig.state<Bridging::Config>("bridging/config");
           random() % 2 ? config->vidToFidMapIs(Vlan(any(kVlans)), 100)
                        : void(config->vidToFidMapDel(Vlan(any(kVlans))));
         }},
        {"own address",
         [&] { rig.vlanInterface(10, "red", Rig::kVlan10, (any(kAddresses) + std::string("/24")).c_str()); }},
        {"VLAN served",
         [&] {
           const Vlan vlan(any(kVlans));
           random() % 2 ? rig.evpn()->vlanToDot1qIs(vlan, vlan) : void(rig.evpn()->vlanToDot1qDel(vlan));
         }},
        {"VLAN interface", [&] { rig.device("red", "vlan10", random() % 2 ? Rig::kVlan10 : 0); }},
        {"VRF", [&] { rig.vrf("red", 5, random() % 2 ? Ip::VrfState::active : Ip::VrfState::inactive); }},
        {"fabric", [&] { rig.device("default", "fabric", random() % 2 ? Rig::kFabric : 0); }},
        {"excluded",
         [&] {
           const auto excluded = rig.state<NeverAnswer>(kNeverAnswerPath);
           const Lanix::IpGenAddr address = ip(any(kAddresses));
           const IpNetwork network(address, address.isIpv4() ? 32 : 128);
           excluded->prefixHas(network) ? void(excluded->prefixDel(network)) : excluded->prefixIs(network);
         }},
        {"answers of a VLAN",
         [&] {
           const auto config = rig.state<Switch::Config>(Switch::kConfigPath);
           const Vlan vlan(any(kVlans));
           random() % 3 ? config->vlanIs(vlan)->answersIs(random() % 2) : void(config->vlanDel(vlan));
         }},
        {"solicitations of a VLAN",
         [&] {
           const auto config = rig.state<Switch::Config>(Switch::kConfigPath);
           config->vlanIs(Vlan(any(kVlans)))->ndIs(random() % 2);
         }},
        {"answers",
         [&] {
           const auto config = rig.state<Switch::Config>(Switch::kConfigPath)->softForward();
           config->answersIs({.enabled = random() % 4 != 0});
         }},
        {"room", [&] { rig.state<Limits>(kLimitsPath)->remoteBindingsIs(random() % 2 ? 2 : 100); }},
        {"time", [&] { rig.clock.advance(RemoteBindingStatusSm::kRoomSeconds); }},
        {"EVPN", [&] { rig.evpn()->mplsConfiguredIs(random() % 4 != 0); }},
        {"restart",
         [&] {
           rig.kill();
           rig.start();
         }},
    };
    // Most changes name their address: the others bring all addresses up to date, whatever was missed before.
    constexpr std::size_t kNaming = 7;
    rig.tasks().mustYieldForTestIs([] { return true; });
    std::string history;
    for (int step = 0; step < 2000; ++step) {
      // Several together, so that one meets what another has not finished.
      for (std::size_t together = 1 + random() % 3; together > 0; --together) {
        const auto& [name, change] = changes[random() % (random() % 8 ? kNaming : std::size(changes))];
        history += std::string(" ") + name;
        change();
        if (random() % 4 == 0) rig.turn();
      }
      rig.settle();
      ASSERT_EQ(table.held(), table.wanted()) << "step " << step << ":" << history;
      std::set<std::uint16_t> inUse;
      for (const std::uint16_t vlan : kVlans) {
        if (rig.root() && table.inUse(vlan)) inUse.insert(vlan);
      }
      ASSERT_EQ(table.answering(), inUse) << "step " << step << ":" << history;
      history.clear();
    }
    EXPECT_EQ(rig.errors, "");
  }
}

// A VLAN that changes once more while it is gone over holds again only when that change is gone over too.
TEST(Answers, HoldOnlyAfterTheLastChange) {
  Rig rig;
  const Table table(rig);
  for (const char* address : kAddresses) rig.remoteBinding(10, address, kMacs[0]);
  rig.start();
  rig.tasks().mustYieldForTestIs([] { return true; });
  const auto excluded = rig.state<NeverAnswer>(kNeverAnswerPath);
  Mox::Notifiee<const AnswerVlans> vlans(rig.state<AnswerVlans>(kAnswerVlansPath));
  vlans.on(AnswerVlans::vlanIdChanged, [&](Vlan vlanId) {
    if (vlans->vlanIdHas(vlanId)) {
      EXPECT_EQ(table.held(), table.wanted());
    }
  });
  for (int turns = 0; turns < 8; ++turns) {
    SCOPED_TRACE(std::to_string(turns) + " turns in between");
    excluded->prefixDelAll();
    rig.settle();
    ASSERT_EQ(table.held().size(), 5u);  // the other address is the switch's own
    excluded->prefixIs({ip("10.0.0.98"), 32});
    for (int turn = 0; turn < turns; ++turn) rig.eventLoop().step(0);
    excluded->prefixIs({ip("10.0.0.99"), 32});
    EXPECT_THAT(table.held(), IsEmpty());
    rig.settle();
    EXPECT_EQ(table.held().size(), 3u);
  }
}

// VLANs without answers take no room, nor does IPv6 where it has none.
TEST(Answers, AreOfVlansThatAreToHaveThem) {
  Rig rig;
  const auto config = rig.state<Switch::Config>(Switch::kConfigPath);
  config->vlanIs(Vlan(10))->answersIs(false);
  rig.remoteBinding(10, "10.0.0.99", kMacs[0]);
  rig.remoteBinding(10, "2001:db8::99", kMacs[0]);
  rig.start();
  const auto entries = [&] {
    rig.settle();
    return rig.table<AnswerStatus>(kAnswerPath)->answers();
  };
  EXPECT_EQ(entries(), 0u);
  config->vlan(Vlan(10))->answersIs(true);
  EXPECT_EQ(entries(), 2u);
  config->vlan(Vlan(10))->ndIs(false);
  EXPECT_EQ(entries(), 1u);
  config->softForward()->answersIs({.enabled = false});
  EXPECT_EQ(entries(), 0u);
}

TEST(Answers, OfTheDataPlaneCountAsTheAgentsOwn) {
  Rig rig;
  const auto dataPlane = rig.state<DataPlaneAnswers>(kDataPlaneAnswersPath);
  dataPlane->sumsIs({7, 100, 100, 100});
  rig.start();
  const struct {
    const char* what;
    AnswerSums sums;
    const char* counters;
  } readings[] = {
      {"more", {7, 105, 100, 101}, "replyRemote=5 replyMultihomedNonDf=1 answeredInDataPlane=6"},
      {"nothing was counted yet", {}, ""},
      {"less", {7, 90, 103, 101}, "replyMultihomedDf=3 answeredInDataPlane=3"},
      {"no more than before", {7, 105, 103, 101}, ""},
      {"more again", {7, 106, 103, 101}, "replyRemote=1 answeredInDataPlane=1"},
      {"other programs", {8, 50, 0, 0}, ""},
      {"more of these", {8, 52, 0, 1}, "replyRemote=2 replyMultihomedNonDf=1 answeredInDataPlane=3"},
      {"those before", {7, 107, 103, 101}, "replyRemote=1 answeredInDataPlane=1"},
      {"solicitations", {7, 107, 103, 101, 2, 3}, "ndAnswered=2 ndPassed=3"},
  };
  rig.takeCounters();
  for (const auto& reading : readings) {
    dataPlane->sumsIs(reading.sums);
    EXPECT_EQ(rig.takeCounters(), reading.counters) << reading.what;
  }
  // What it did until suppression ended is told later.
  rig.evpn()->mplsConfiguredIs(false);
  rig.settle();
  dataPlane->sumsIs({7, 110, 103, 101, 2, 3});
  EXPECT_EQ(rig.takeCounters(), "replyRemote=3 answeredInDataPlane=3");
}

// What `explain` says of a request that the agent answers, as what keeps it from the data plane goes.
TEST(Answers, AreExplained) {
  Rig rig;
  rig.remoteBinding(10, "10.0.0.99", kMacs[0]);
  rig.fdb(10, kMacs[1], EntryType::learnedDynamic, "Ethernet1");
  const auto config = rig.state<Switch::Config>(Switch::kConfigPath);
  const auto softForward = config->softForward();
  config->vlanIs(Vlan(10))->answersIs(false);
  softForward->answersIs({.enabled = false});
  softForward->portWithoutAnswersIs("Ethernet1");
  rig.start();
  rig.remoteBinding(10, "2001:db8::99", kMacs[0]);
  const auto dataPlane = [&](const char* target, const char* from) {
    rig.settle();
    const std::string text = rig.command("explain", {"10", target, from});
    const std::size_t at = text.find("\"dataPlane\"");
    return at == std::string::npos ? "" : text.substr(at, text.find('}', at) - at);
  };
  const auto ofHost = [&] { return dataPlane("10.0.0.99", kMacs[1]); };
  EXPECT_THAT(dataPlane("10.0.0.99", "02:00:00:00:be:ef"), HasSubstr("what the switch itself asks"));
  EXPECT_THAT(dataPlane("10.0.0.98", kMacs[1]), HasSubstr("nobody here answers it"));
  EXPECT_THAT(ofHost(), HasSubstr("enabled\\\" of the configuration is false"));
  softForward->answersIs({});
  EXPECT_THAT(ofHost(), HasSubstr("of the VLAN is false"));
  config->vlan(Vlan(10))->answersIs(true);
  config->vlan(Vlan(10))->ndIs(false);
  EXPECT_THAT(dataPlane("2001:db8::99", kMacs[1]), HasSubstr("\\\"nd\\\" of the VLAN is false"));
  config->vlanDel(Vlan(10));
  EXPECT_THAT(ofHost(), HasSubstr("of Ethernet1 is false"));
  softForward->portWithoutAnswersDelAll();
  EXPECT_THAT(ofHost(), HasSubstr("the forwarding programs answer nothing now"));
  rig.state<DataPlaneAnswers>(kDataPlaneAnswersPath)->holdingIs(true);
  EXPECT_THAT(ofHost(), HasSubstr("\"value\":true"));
  // Of a solicitation that is all there is.
  const auto solicited = [&](const char* target, const char* from = kMacs[1]) {
    rig.settle();
    return rig.command("explain", {"10", target, from});
  };
  EXPECT_THAT(solicited("2001:db8::99"),
              AllOf(HasSubstr("\"action\":\"reply\""), HasSubstr("\"mac\":\"02:00:00:00:00:63\""),
                    HasSubstr("\"router\":false"), HasSubstr("\"name\":\"ndAnswered\"")));
  EXPECT_THAT(solicited("2001:db8::98"),
              AllOf(HasSubstr("\"action\":\"pass\""), HasSubstr("nothing says who has the address"),
                    HasSubstr("\"name\":\"ndPassed\"")));
  EXPECT_THAT(solicited("2001:db8::99", "02:00:00:00:be:ef"), HasSubstr("\"action\":\"pass\""));
  rig.state<NeverAnswer>(kNeverAnswerPath)->prefixIs(*IpNetwork::fromStrep("2001:db8::/64"));
  EXPECT_THAT(solicited("2001:db8::99"), AllOf(HasSubstr("\"action\":\"pass\""), HasSubstr("neverAnswer")));
  rig.state<NeverAnswer>(kNeverAnswerPath)->prefixDelAll();
  rig.settle();
  rig.state<AnswerVlans>(kAnswerVlansPath)->vlanIdDelAll();
  EXPECT_THAT(ofHost(), HasSubstr("being brought up to date"));
  EXPECT_THAT(rig.command("explain", {"10", "2001:db8::99"}),
              AllOf(HasSubstr("\"action\":\"pass\""), testing::Not(HasSubstr("ndPassed"))));
}

}  // namespace
}  // namespace ArpSuppression
