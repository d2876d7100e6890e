#include <functional>

#include "Rig.h"
#include "Suppression/Limits.h"
#include "Switch/PassingProblem.h"

namespace ArpSuppression {
namespace {

std::string address(int host) { return "10.0.0." + std::to_string(host); }
std::string station(int host) { return "02:00:00:00:00:" + std::to_string(host); }

// A request of host 11, 12, ... for 10.0.0.99.
void hosts(Rig& rig, int host, std::uint32_t ifIndex = Rig::kEthernet1) {
  rig.trap(
      Trapped{.ifIndex = ifIndex, .senderMac = station(host).c_str(), .senderIp = address(host).c_str()});
}
bool learned(Rig& rig, int host) {
  for (const auto& binding : rig.root()->localBindingRecord->bindingCollection())
    if (binding->vrfIpAddress().ipAddress == ip(address(host).c_str())) return true;
  return false;
}
void leaves(Rig& rig, int host) {
  rig.fdb(10, station(host).c_str(), Bridging::EntryType::evpnLearned, "core");
  rig.settle();
}
void passes(Rig& rig, double seconds) {
  rig.clock.advance(seconds);
  rig.settle();
}

struct Row {
  const char* subject;  // of the problem
  void (Limits::*limitIs)(std::uint32_t);
  ArpSuppressionCounterId counter;
  std::function<void(Rig&, int)> add;
  std::function<bool(Rig&, int)> has;
  std::function<void(Rig&)> makeRoom;  // for one more
  bool comesByItself;                  // when there is room
};

const Row kRows[] = {
    {"local bindings of port Ethernet1", &Limits::localBindingsPerPortIs,
     ArpSuppressionCounterId::localBindingRefused, [](Rig& rig, int host) { hosts(rig, host); }, learned,
     [](Rig& rig) {
       hosts(rig, 21, Rig::kEthernet2);
       EXPECT_TRUE(learned(rig, 21)) << "another port";
       // The station of host 12 is plugged in over there.
       rig.fdb(10, station(12).c_str(), Bridging::EntryType::learnedDynamic, "Ethernet2");
       rig.settle();
       hosts(rig, 22, Rig::kEthernet2);
       EXPECT_FALSE(learned(rig, 22)) << "it counts where it is now";
     },
     false},
    {"local bindings", &Limits::localBindingsIs, ArpSuppressionCounterId::localBindingRefused,
     [](Rig& rig, int host) { hosts(rig, host, Rig::kEthernet1 + static_cast<std::uint32_t>(host % 2)); },
     learned, [](Rig& rig) { leaves(rig, 12); }, false},
    {"request records", &Limits::requestRecordsIs, ArpSuppressionCounterId::requestRecordRefused,
     [](Rig& rig, int host) { rig.trap(Trapped{.targetIp = address(host).c_str()}); },
     [](Rig& rig, int host) {
       return rig.root()->localRequestRecord->entryHas({Vlan(10), ip(address(host).c_str())});
     },
     [](Rig& rig) { passes(rig, 240); }, false},
    {"remote bindings", &Limits::remoteBindingsIs, ArpSuppressionCounterId::remoteBindingRefused,
     [](Rig& rig, int host) {
       rig.remoteBinding(10, address(host).c_str(), station(host).c_str());
       rig.settle();
     },
     [](Rig& rig, int host) {
       rig.trap(Trapped{.targetIp = address(host).c_str()});
       const std::size_t flooded = rig.reinjected().size();
       EXPECT_EQ(flooded + rig.replies().size(), 1u) << "answered or flooded, one of them";
       const std::string text = rig.command("explain", {"10", address(host)});
       EXPECT_EQ(flooded == 1, text.find("there is no room for more remote bindings") != text.npos) << text;
       return flooded == 0;
     },
     [](Rig& rig) {
       rig.noRemoteBinding(10, address(12).c_str());
       rig.settle();
     },
     true},
};

TEST(Limits, what_is_over_a_limit_is_refused_counted_and_a_problem_until_there_is_room) {
  for (const Row& row : kRows) {
    SCOPED_TRACE(row.subject);
    Rig rig;
    (rig.state<Limits>(kLimitsPath).get()->*row.limitIs)(2);
    rig.start();
    const auto problem = [&] {
      const auto all = rig.state<Switch::Problems>(Switch::kProblemsPath);
      const auto found = all->problem(Mox::String("ArpSuppression ") + row.subject);
      EXPECT_EQ(all->problems(), found ? 1u : 0u);
      return found ? found->problem() + "; " + found->advice() : Mox::String();
    };
    row.add(rig, 11);
    row.add(rig, 12);
    EXPECT_EQ(problem() + std::to_string(rig.counter(row.counter)), "0");
    row.add(rig, 13);
    EXPECT_THAT(problem(), testing::AllOf(HasSubstr("as many"), HasSubstr("of the configuration allows: "),
                                          EndsWith("raise that limit and reload")));
    EXPECT_EQ(rig.counter(row.counter), 1u);
    EXPECT_FALSE(row.has(rig, 13));
    row.add(rig, 12);
    EXPECT_TRUE(row.has(rig, 12) && row.has(rig, 11)) << "what is there stays, and is kept up to date";
    passes(rig, Switch::PassingProblem::kOverSeconds);
    EXPECT_NE(problem(), "") << "still full";

    row.makeRoom(rig);
    if (row.comesByItself) {
      passes(rig, RemoteBindingStatusSm::kRoomSeconds);
    } else {
      row.add(rig, 13);
    }
    EXPECT_TRUE(row.has(rig, 13));
    (rig.state<Limits>(kLimitsPath).get()->*row.limitIs)(20);
    passes(rig, Switch::PassingProblem::kOverSeconds);
    passes(rig, Switch::PassingProblem::kOverSeconds);
    EXPECT_EQ(problem(), "");
    EXPECT_EQ(rig.errors, "");
  }
}

TEST(Limits, a_station_that_changes_on_a_full_port_is_followed) {
  Rig rig;
  rig.state<Limits>(kLimitsPath)->localBindingsPerPortIs(1);
  rig.start();
  hosts(rig, 11);
  rig.trap(Trapped{.senderMac = station(12).c_str(), .senderIp = address(11).c_str()});
  const auto record = rig.root()->localBindingRecord;
  ASSERT_EQ(record->bindings(), 1u);
  EXPECT_TRUE(record->macToIpHas({Vlan(10), mac(station(12).c_str())}));
  EXPECT_EQ(record->bindingsOfPort(intf("Ethernet1")), 1u);
  leaves(rig, 12);
  EXPECT_EQ(record->bindingsOfPort(intf("Ethernet1")), 0u);
}

// What was left out at start comes when the limit is raised, however far a walk had come.
TEST(Limits, remote_bindings_of_a_table_that_is_too_large_are_taken_over_with_a_higher_limit) {
  Rig rig;
  for (int host = 11; host < 99; ++host) rig.remoteBinding(10, address(host).c_str(), station(host).c_str());
  const auto limits = rig.state<Limits>(kLimitsPath);
  limits->remoteBindingsIs(40);
  rig.start();
  const auto status = rig.root()->remoteBindingStatus;
  EXPECT_TRUE(status->initialPopulationComplete() && status->refusing());
  EXPECT_EQ(status->ipToMacs(), 40u);
  EXPECT_EQ(rig.counter(ArpSuppressionCounterId::remoteBindingRefused), 48u);
  rig.tasks().mustYieldForTestIs([] { return true; });
  limits->remoteBindingsIs(60);
  for (int turns = 0; turns < 10; ++turns) rig.turn();
  limits->remoteBindingsIs(100);
  passes(rig, RemoteBindingStatusSm::kRoomSeconds);
  EXPECT_FALSE(status->refusing());
  EXPECT_EQ(status->ipToMacs(), 88u);
  EXPECT_EQ(rig.counter(ArpSuppressionCounterId::remoteBindingRefused), 48u) << "each is counted once";
}

}  // namespace
}  // namespace ArpSuppression
