#include "host/HealthSm.h"

#include <gmock/gmock.h>

#include "host/EventLog.h"
#include "test/host/HostFixture.h"

// How a switch is judged by what its plug-ins publish; nothing of them is loaded here.

namespace HostTest {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;

class HealthTest : public testing::Test {
 protected:
  HealthTest() {
    is("ip/vrf/status/local", {{"vrf",
                                {{"default", {{"state", "active"}, {"networkNamespace", "default"}}},
                                 {"red", {{"state", "active"}, {"networkNamespace", "red"}}}}}});
    is("ip/status", {{"ipIntfStatus", {{"Vlan10", {{"vrfName", "red"}}}}}});
    is("evpn/status", {{"mplsConfigured", true}, {"vlanToDot1q", {{"10", 10}}}});
    is("arpSuppression/status", {{"runnable", true}, {"vlanId", {{"10", true}}}});
    is("switch/forwarding", {{"vlan", {{"10", {{"ready", true}, {"accessPorts", {"Ethernet1"}}}}}}});
    settle();
  }

  // Merges as the plug-in that writes the path would.
  void is(const std::string& path, const json& content) {
    const auto entity = host_.state->tree()->entity(path);
    ASSERT_TRUE(entity) << path;
    auto plan = host_.state->tree()->entityType(path)->planMerge(entity, content, path);
    ASSERT_TRUE(plan) << plan.error();
    plan->apply();
  }
  void settle(double seconds = 0.5) {
    clock_.advance(seconds);
    host_.settle();
    clock_.advance(0.5);
    host_.settle();
  }
  json health() const {
    return json::parse(
        Host::healthJson(*host_.state->tree()->entityOf<Switch::Health>(Switch::kHealthPath),
                         *host_.state->tree()->entityOf<Switch::Problems>(Switch::kProblemsPath))
            .dump());
  }
  // "good active", "degraded waiting agent-host EVPN"
  std::string summary() const {
    const json shown = health();
    std::string text =
        shown["health"].get<std::string>() + " " + shown["vlans"][0]["state"].get<std::string>();
    for (const json& problem : shown["problems"])
      text += " " + problem["plugin"].get<std::string>() + " " + problem["subject"].get<std::string>();
    return text;
  }

  RunDir runDir_;
  Orb::ManualClock clock_;
  HostState host_{runDir_,
                  {{"agents", {"KernelState", "SoftForward", "ArpSuppression"}},
                   {"vrfs", {{"red", {{"id", 5}, {"networkNamespace", "red"}}}}},
                   {"vlans", {{"10", {{"tunnelPorts", {"core10", "core11"}}, {"vrf", "red"}}}}}},
                  nullptr,
                  clock_};
  const Mox::Ptr<Host::HealthSm> health_ = Mox::make<Host::HealthSm>(host_.scheduler(), host_.state->tree());
};

TEST_F(HealthTest, SaysWhatIsWrongUntilItIsMended) {
  settle(Host::HealthSm::kStartSeconds);
  ASSERT_EQ(summary(), "good active");
  struct Row {
    const char* path;
    json broken;
    const char* summary;
    const char* reason;  // of the VLAN
    json mended;
  };
  const auto vlan = [](const json& members) { return json{{"vlan", {{"10", members}}}}; };
  const auto problem = [](const char* subject, bool stops) {
    const json torn = {{"plugin", "P"}, {"subject", subject}, {"problem", "torn"}, {"stops", stops}};
    return json{{"problem", {{std::string("P ") + subject, torn}}}};
  };
  const auto noProblem = [](const char* subject) {
    return json{{"problem", {{std::string("P ") + subject, nullptr}}}};
  };
  const Row rows[] = {
      {"evpn/status",
       {{"mplsConfigured", false}},
       "degraded waiting agent-host EVPN",
       "EVPN over MPLS is not configured",
       {{"mplsConfigured", true}}},
      {"arpSuppression/status",
       {{"vlanId", {{"10", nullptr}}}},
       "good waiting",
       "its interface vlan10 is not usable yet",
       {{"vlanId", {{"10", true}}}}},
      {"arpSuppression/status",
       {{"runnable", false}},
       "good waiting",
       "suppression does not run yet",
       {{"runnable", true}}},
      {"switch/forwarding", vlan({{"ready", false}, {"reason", "there is no bridge vlan10"}}),
       "good degraded", "there is no bridge vlan10", vlan({{"ready", true}, {"reason", ""}})},
      {"switch/forwarding", {{"failingOpen", true}}, "failed active", "", {{"failingOpen", false}}},
      {"ip/vrf/status/local",
       {{"vrf", {{"red", {{"state", "inactive"}}}}}},
       "degraded active agent-host VRF red",
       "",
       {{"vrf", {{"red", {{"state", "active"}}}}}}},
      {"ip/status",
       {{"ipIntfStatus", {{"Vlan10", nullptr}}}},
       "degraded degraded agent-host VLAN 10, interface",
       "interface: there is no interface vlan10 in VRF red: the VLAN has no layer 3, and its requests are "
       "flooded",
       {{"ipIntfStatus", {{"Vlan10", {{"vrfName", "red"}}}}}}},
      {"switch/problems", problem("VLAN 10, tunnel port core11", false),
       "degraded degraded P VLAN 10, tunnel port core11", "tunnel port core11: torn",
       noProblem("VLAN 10, tunnel port core11")},
      {"switch/config", vlan({{"suppression", false}}), "good off",
       "\"suppression\" of the configuration is false", vlan({{"suppression", true}})},
      {"switch/problems", problem("VLAN 100", false), "degraded active P VLAN 100", "",
       noProblem("VLAN 100")},
      {"switch/problems", problem("all VLANs", true), "failed active P all VLANs", "",
       noProblem("all VLANs")},
  };
  for (const Row& row : rows) {
    is(row.path, row.broken);
    settle();
    settle(Host::HealthSm::kAbsentSeconds);
    EXPECT_EQ(summary(), row.summary);
    EXPECT_EQ(health()["vlans"][0]["reason"], row.reason);
    is(row.path, row.mended);
    settle();
    EXPECT_EQ(summary(), "good active") << row.summary;
  }
}

TEST_F(HealthTest, ChangesStandInTheLogButNotWithoutEnd) {
  std::vector<std::string> lines;
  Tracelet::textSinkIs([&](std::string_view line) { lines.emplace_back(line); });
  {
    const Host::EventLog log(host_.loop);
    settle(Host::HealthSm::kStartSeconds);
    const auto vlanIs = [&](bool ready) {
      is("switch/forwarding", {{"vlan", {{"10", {{"ready", ready}, {"reason", ready ? "" : "torn"}}}}}});
      settle();
    };
    vlanIs(false);
    is("ip/vrf/status/local", {{"vrf", {{"red", {{"state", "inactive"}}}}}});
    is("switch/forwarding", {{"failingOpen", true}});
    settle();
    EXPECT_THAT(lines,
                testing::ElementsAre("agent-host: VLAN 10 is degraded: torn",
                                     "agent-host: VRF red is inactive", "agent-host: health is failed"));
    lines.clear();
    for (int i = 0; i < 10; ++i) vlanIs(i % 2 == 0);
    EXPECT_EQ(std::ranges::count(lines, "agent-host: VLAN 10 is active"), 5);
    EXPECT_EQ(std::ranges::count(lines, "agent-host: VLAN 10 is degraded: torn"), 4) << "one was before";
    settle(Host::EventLog::kWindowSeconds);
    EXPECT_EQ(lines.back(),
              "agent-host: 1 more events \"vlan\" in the last minute; `arpsup events` has the latest");
    EXPECT_EQ(log.count(Switch::EventKind::vlan), 11u);
  }
  Tracelet::textSinkIs({});
}

TEST_F(HealthTest, AStormHasOneLineWhenItBeginsAndOneWhenItIsOver) {
  using enum Switch::Origin;
  std::vector<std::string> lines;
  Tracelet::textSinkIs([&](std::string_view line) { lines.emplace_back(line); });
  {
    const Host::EventLog log(host_.loop);
    Switch::ProblemReporter problems(host_.state->tree()->entityOf<Switch::Problems>(Switch::kProblemsPath),
                                     "P");
    settle(Host::HealthSm::kStartSeconds);
    const auto told = [&] { return std::exchange(lines, {}); };
    const auto hostIs = [](Switch::EventKind kind, const char* port) {
      Switch::bindingEvent(kind, {Switch::EventTable::local, Bridging::VlanId(10), {}, {}, port});
    };
    const auto problemIs = [&](const char* subject, Switch::Origin origin) {
      problems.problemIs(subject, "full", {}, Switch::ProblemReporter::Left::some, origin);
    };
    // What it brings about may come before it is noticed, and last longer.
    for (unsigned i = 0; i < 2 * Host::EventLog::kLines; ++i) hostIs(Switch::EventKind::learned, "Ethernet1");
    problemIs("MAC table of port Ethernet1", perhapsStorm);
    settle();
    problemIs("port Ethernet1", storm);
    problemIs("neighbours", perhapsStorm);
    for (int i = 0; i < 3; ++i) {
      hostIs(Switch::EventKind::learned, "Ethernet1");
      settle(Host::EventLog::kWindowSeconds);
    }
    EXPECT_EQ(summary(), "degraded active P MAC table of port Ethernet1 P neighbours P port Ethernet1");
    EXPECT_THAT(told(), testing::ElementsAre("P: port Ethernet1: full"));
    problemIs("pairs", itself);
    problemIs("MAC table of port Ethernet2", perhapsStorm);
    hostIs(Switch::EventKind::learned, "Ethernet2");
    settle(Host::EventLog::kStormNoticedSeconds);
    EXPECT_THAT(told(), testing::ElementsAre("P: pairs: full", "P: MAC table of port Ethernet2: full",
                                             HasSubstr("local binding learned")));
    problems.problemDel("port Ethernet1");
    settle(Host::EventLog::kStormNoticedSeconds);
    problems.problemDel("pairs");
    problems.problemDel("MAC table of port Ethernet2");
    for (const char* subject : {"neighbours", "MAC table of port Ethernet1"}) problems.problemDel(subject);
    hostIs(Switch::EventKind::withdrawn, "Ethernet1");
    settle();
    EXPECT_EQ(summary(), "good active");
    settle(Host::EventLog::kStormForgottenSeconds);
    EXPECT_THAT(told(), testing::ElementsAre("P: port Ethernet1: good again", "P: pairs: good again",
                                             "P: MAC table of port Ethernet2: good again"));
    // Without a storm each has its own, and the verdict too.
    problemIs("MAC table of port Ethernet1", perhapsStorm);
    settle();
    hostIs(Switch::EventKind::withdrawn, "Ethernet1");
    settle(Host::EventLog::kStormNoticedSeconds);
    EXPECT_THAT(told(), testing::UnorderedElementsAre(HasSubstr("MAC table of port"), HasSubstr("withdrawn"),
                                                      "agent-host: health is degraded"));
  }
  Tracelet::textSinkIs({});
}

TEST_F(HealthTest, ALoopThatIsHeldUpIsAProblemForAMinute) {
  settle(Host::HealthSm::kStartSeconds);
  host_.loop.post([this] { clock_.advance(Host::HealthSm::kLongTurnSeconds + 0.1); });
  settle(0);
  settle();
  EXPECT_EQ(summary(), "degraded active agent-host event loop");
  settle(Switch::PassingProblem::kOverSeconds);
  EXPECT_EQ(summary(), "good active");
}

TEST_F(HealthTest, WhatIsNotThereYetIsNoProblem) {
  is("ip/status", {{"ipIntfStatus", {{"Vlan10", nullptr}}}});
  is("switch/forwarding", {{"vlan", {{"10", {{"ready", false}, {"missing", {"core11"}}}}}}});
  is("switch/problems", {{"problem", {{"P VLAN 10", {{"plugin", "P"}, {"subject", "VLAN 10"}}}}}});
  settle(Host::HealthSm::kStartSeconds - 2);
  EXPECT_EQ(summary(), "good waiting");
  // Away for less than what counts, later on.
  is("switch/problems", {{"problem", {{"P VLAN 10", nullptr}}}});
  is("ip/status", {{"ipIntfStatus", {{"Vlan10", {{"vrfName", "red"}}}}}});
  settle(2);
  is("ip/status", {{"ipIntfStatus", {{"Vlan10", nullptr}}}});
  settle();
  EXPECT_EQ(summary(), "good degraded");
  EXPECT_EQ(health()["vlans"], json::parse(R"([{"vlan": 10, "state": "degraded", "bridge": "vlan10",
      "accessPorts": ["Ethernet1"], "tunnelPorts": ["core10", "core11"], "missing": ["core11"], "vrf": "red",
      "reason": "its forwarding is being made"}])"));
  // It rests.
  is("ip/vrf/status/local", {{"vrf", {{"red", {{"state", "inactive"}}}}}});
  settle(Host::HealthSm::kAbsentSeconds);
  settle(Host::HealthSm::kAbsentSeconds);
  EXPECT_EQ(summary(), "degraded degraded agent-host VLAN 10, interface agent-host VRF red");
  settle();
  EXPECT_FALSE(host_.loop.step());
  EXPECT_FALSE(health_->walkScheduled());
  // Neither is there any more to be missed.
  is("switch/config", {{"vlan", {{"10", nullptr}}}, {"vrf", {{"red", nullptr}}}});
  settle();
  EXPECT_EQ(health(), json::parse(R"({"health": "good", "problems": [], "vlans": []})"));
}

}  // namespace
}  // namespace HostTest
