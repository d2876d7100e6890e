#include <gtest/gtest.h>

#include "AnswerChanges.h"

namespace ArpSuppression {
namespace {

constexpr auto& kMacs = AnswerTable::kMacs;
constexpr auto& kAddresses = AnswerTable::kAddresses;
using Bridging::EntryType;

// Changes of all kinds, in any order: what the table says is what the agent would do, as soon as all is settled.
TEST(Answers, EqualTheDecisionWhateverChanges) {
  for (const std::uint32_t seed : {1U, 2U, 3U, 4U}) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    Rig rig;
    const AnswerTable table(rig);
    rig.start();
    AnswerChanges changes(rig, seed);
    rig.tasks().mustYieldForTestIs([] { return true; });
    for (int step = 0; step < 2000; ++step) {
      changes.some([&rig] {
        rig.kill();
        rig.start();
      });
      rig.settle();
      SCOPED_TRACE("step " + std::to_string(step) + ":" + changes.takeHistory());
      ASSERT_EQ(table.held(), table.wanted());
      ASSERT_EQ(table.answering(), table.inUse());
    }
    EXPECT_EQ(rig.errors, "");
  }
}

// A VLAN that changes once more while it is gone over holds again only when that change is gone over too.
TEST(Answers, HoldOnlyAfterTheLastChange) {
  Rig rig;
  const AnswerTable table(rig);
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
  rig.table<RemoteBindingConfig>("arpSuppression/remoteBindingConfig/evpn")
      ->remoteBindingIs({Vlan(10), ip("2001:db8::99")}, {mac(kMacs[0]), false, BindingSource::feed, true});
  EXPECT_THAT(solicited("2001:db8::99"),
              AllOf(HasSubstr("\"router\":true"), HasSubstr("the owner is a router")));
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
