#include <filesystem>

#include "Rig.h"
#include "Statedb/LogStore.h"
#include "Tracelet/Trace.h"

namespace ArpSuppression {
namespace {

using testing::Not;

void expectStopped(Rig& rig) {
  EXPECT_EQ(rig.root(), nullptr);
  EXPECT_EQ(rig.awaited(), "EVPN over MPLS to be configured");
  EXPECT_EQ(rig.rootSm()->messageTrapSm(), nullptr);
  EXPECT_FALSE(rig.published()->runnable());
  EXPECT_THAT(rig.publishedVlans(), IsEmpty());
  EXPECT_EQ(rig.sockets.openSockets(), 0);
  EXPECT_THAT(rig.netlinkSockets.openSockets(), IsEmpty());
}

void expectRunning(Rig& rig) {
  EXPECT_NE(rig.root(), nullptr);
  EXPECT_EQ(rig.awaited(), "");
  EXPECT_TRUE(rig.published()->runnable());
  EXPECT_THAT(rig.publishedVlans(), ElementsAre(10));
}

TEST(Lifecycle, suppression_runs_while_evpn_is_configured_each_time_with_empty_tables) {
  Rig rig;
  rig.remoteBinding(10, "10.0.0.99", kHostMac);
  rig.evpn()->mplsConfiguredIs(false);
  rig.start();
  expectStopped(rig);
  std::vector<Ptr<ArpSuppressionRoot>> roots;
  for (int run = 0; run < 3; ++run) {
    rig.evpn()->mplsConfiguredIs(true);
    ASSERT_NE(rig.root(), nullptr);
    EXPECT_EQ(rig.awaited(), "the first reading of the remote bindings");
    for (const auto& earlier : roots) EXPECT_NE(rig.root(), earlier);
    EXPECT_EQ(rig.root()->remoteBindingStatus->macToIps(), 0u);
    EXPECT_EQ(rig.root()->enabledVlans->vlanIds(), 0u);
    roots.push_back(rig.root());
    rig.settle();
    expectRunning(rig);
    EXPECT_EQ(rig.root()->remoteBindingStatus->macToIps(), 1u);
    rig.trap(Trapped{});
    EXPECT_EQ(rig.replies().size(), 1u);
    rig.evpn()->mplsConfiguredIs(false);
    expectStopped(rig);
    rig.settle();
    rig.trap(Trapped{});
    EXPECT_THAT(rig.replies(), IsEmpty());
  }
  EXPECT_EQ(rig.errors, "");
}

// What an earlier run left, and what is configured.
TEST(Lifecycle, start_over_what_a_killed_run_left) {
  for (const bool configured : {false, true}) {
    SCOPED_TRACE(configured);
    Rig rig;
    EXPECT_TRUE(rig.tree().entityIs("arpSuppression/status", "ArpSuppression::ArpSuppressionStatus"));
    rig.published()->runnableIs(true);
    for (const std::uint32_t vlan : {10u, 77u}) rig.published()->vlanIdIs(Vlan(vlan), true);
    const auto output = rig.state<Arp::ArpInputConfig>("arp/input/config/arpSuppression");
    output->vrfIs("red")->ipv4Is(ip("10.0.0.99").ipv4(), {mac(kHostMac), intf("Vlan10"), 0, false});
    rig.evpn()->mplsConfiguredIs(configured);
    std::vector<bool> runnable;
    Mox::Notifiee<ArpSuppressionStatus> watch(rig.published());
    watch.on(ArpSuppressionStatus::runnableChanged, [&](bool value) { runnable.push_back(value); })
        .on(ArpSuppressionStatus::vlanIdChanged, [&](Vlan vlan) {
          if (vlan == Vlan(77)) {
            EXPECT_EQ(rig.rootSm(), nullptr) << "emptied before anything runs";
          }
        });
    rig.start();
    if (configured) {
      expectRunning(rig);
      EXPECT_THAT(runnable, IsEmpty());
    } else {
      expectStopped(rig);
      EXPECT_THAT(runnable, ElementsAre(false));
      EXPECT_EQ(output->vrfs(), 0u) << "its kernel neighbours too";
    }
    EXPECT_EQ(rig.errors, "");
  }
}

TEST(Lifecycle, killed_agent_finds_its_flag_in_the_store_and_cleans_up_or_runs) {
  char directory[] = "/tmp/arp-suppression-store-XXXXXX";
  ASSERT_NE(mkdtemp(directory), nullptr);
  for (const bool configured : {true, true, false, true}) {
    SCOPED_TRACE(configured);
    auto store = Statedb::LogStore::open(directory, {});
    ASSERT_EQ(store.error(), "");
    Rig rig(std::move(*store));
    rig.evpn()->mplsConfiguredIs(configured);
    rig.start();
    if (configured) {
      expectRunning(rig);
    } else {
      expectStopped(rig);
    }
    rig.kill();
    EXPECT_EQ(rig.published()->runnable(), configured) << "only a stop clears the flag";
    EXPECT_EQ(rig.sockets.openSockets(), 0);
    rig.tree().flushAll();
  }
  std::filesystem::remove_all(directory);
}

TEST(Lifecycle, stop_while_the_agent_is_still_to_be_told_of_another_change) {
  Rig rig;
  Mox::Notifiee<Evpn::EvpnStatus> evpn(rig.evpn());
  evpn.on(Evpn::EvpnStatus::vlanToDot1qChanged, [&](Vlan) { rig.evpn()->mplsConfiguredIs(false); });
  rig.start();  // its watchers come behind that one
  expectRunning(rig);
  rig.evpn()->vlanToDot1qIs(Vlan(30), 30);
  expectStopped(rig);
  rig.settle();
  EXPECT_EQ(rig.errors, "");
}

TEST(Lifecycle, start_and_stop_within_one_turn_leave_nothing_scheduled) {
  Rig rig;
  rig.evpn()->mplsConfiguredIs(false);
  rig.start();
  for (int i = 0; i < 5; ++i) {
    rig.evpn()->mplsConfiguredIs(true);
    rig.evpn()->mplsConfiguredIs(false);
  }
  EXPECT_THAT(rig.tasks().debugText(), HasSubstr("ready: 0"));
  rig.settle();
  expectStopped(rig);
}

TEST(LifecycleDeathTest, runnable_flag_cleared_by_somebody_else) {
  Rig rig;
  rig.start();
  rig.published()->runnableIs(false);
  rig.settle();
  EXPECT_DEATH(
      rig.rootSm()->runnableForTestIs(true),
      brokenInvariant("ArpSuppression/ArpSuppressionAgent", "mounts()->arpSuppressionStatus()->runnable()"));
}

TEST(LifecycleDeathTest, kernel_input_left_by_another_owner) {
  Rig rig;
  rig.start();
  rig.rootSm()->arpInputConfigSm()->skipArpInputCleanupForTestIs(true);
  rig.state<Arp::ArpInputConfig>("arp/input/config/arpSuppression")->vrfIs("red");
  EXPECT_DEATH(
      rig.evpn()->mplsConfiguredIs(false),
      brokenInvariant("ArpSuppression/ArpSuppressionAgent", "0 == mounts()->arpInputConfig()->vrfs()"));
}

TEST(LifecycleDeathTest, inputs_without_which_there_is_no_agent) {
  const char* requests = "remoteBindingConfig() && bridgingConfig() && bridgingStatus() && fhrpVrMacStatus()";
  const struct {
    const char *path, *source, *expression;
  } cases[] = {{"arp/input/config/arpSuppression", "ArpSuppression/ArpSuppressionAgent", "arpInputConfig"},
               {"bridging/config", "ArpSuppression/ArpSuppressionSm", requests},
               {"routing/fhrp/vrMacStatus", "ArpSuppression/ArpSuppressionSm", requests}};
  for (const auto& c : cases) {
    Rig rig;
    rig.tree().entityDel(c.path);
    EXPECT_DEATH(rig.start(), brokenInvariant(c.source, c.expression));
  }
}

TEST(Lifecycle, paths_that_nobody_has_are_tolerated) {
  const struct {
    const char* path;
    bool runs, published;
  } cases[] = {{"evpn/status", false, false},
               {"evpn/mplsConfig", true, true},
               {"ip/status", true, false},
               {"routing/l2vpn/config", true, true},
               {"ip/vrf/status/local", true, false}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.path);
    Rig rig;
    rig.remoteBinding(10, "10.0.0.98", kHostMac);
    rig.settle();
    rig.tree().entityDel(c.path);
    rig.start();
    ASSERT_EQ(rig.root() != nullptr, c.runs);
    EXPECT_EQ(rig.published()->runnable(), c.runs);
    if (!c.runs) continue;
    rig.noRemoteBinding(10, "10.0.0.98");
    rig.settle();
    EXPECT_EQ(rig.publishedVlans().size(), c.published ? 1u : 0u);
    rig.remoteBinding(10, "10.0.0.99", kHostMac);
    rig.settle();
    rig.trap(Trapped{});
    EXPECT_EQ(rig.replies().size(), 1u);
    EXPECT_NE(rig.command("showTechSupport"), "");
    rig.evpn()->mplsConfiguredIs(false);
    expectStopped(rig);
    EXPECT_EQ(rig.errors, "");
  }
}

// Switches traces on while it lives.
class Traces {
 public:
  Traces() {
    Tracelet::textSinkIs([this](std::string_view line) { text.append(line).push_back('\n'); });
    Tracelet::levelIs("ArpSuppression", 8);
  }
  ~Traces() {
    Tracelet::levelIs("ArpSuppression", Tracelet::kErrorsOnly);
    Tracelet::textSinkIs({});
  }
  std::string text;
};

TEST(Lifecycle, everything_works_while_it_is_traced) {
  Traces traces;
  {
    Rig rig;
    rig.remoteBinding(10, "10.0.0.99", kHostMac);
    rig.start();
    rig.trap(Trapped{});
    EXPECT_EQ(rig.replies().size(), 1u);
    rig.trap(Trapped{.targetIp = "10.0.0.50"});
    EXPECT_EQ(rig.reinjected().size(), 1u);
    rig.remoteBinding(10, "10.0.0.99", "02:00:00:00:00:64", true);
    rig.vrf("blue", 6);
    rig.vlanInterface(10, "blue", 9, "10.0.0.2/24");
    rig.settle();
    rig.noVrf("blue");
    rig.noRemoteBinding(10, "10.0.0.99");
    rig.noVlanInterface(10);
    rig.settle();
    rig.root()->localBindingRecord->createLocalBinding({nullptr, ip("10.0.0.3"), {}},
                                                       {Vlan(10), mac(kHostMac)});
    rig.evpn()->mplsConfiguredIs(false);
    expectStopped(rig);
  }
  for (const char* words :
       {"evpnMplsIsConfigured=true weHaveNotCleanedUp=false", "handleVlan vlanId 10 inEvpnStatus=true",
        "no kniIntfIfIndex", "oldVlanL3Info=<vrfName=red vlanId=10> vrfName=blue",
        "using made up vrfStatusLocal for default VRF", " wasActive=false nowActive=true",
        "add macToIp newVlanIdMacAddress=<10;02:00:00:00:00:63> ipAddress=10.0.0.99",
        "delete macToIp=<10;02:00:00:00:00:63> ipAddress=10.0.0.99", "walkStage=walkRemoteBindingStatus",
        "req=<request vlanId=10", "existingBinding=NULL", "finished processed="}) {
    EXPECT_THAT(traces.text, HasSubstr(words));
  }
  EXPECT_THAT(traces.text, HasSubstr("ArpSuppression/ArpSuppressionAgent:"));
  EXPECT_THAT(traces.text, HasSubstr(" void ArpSuppression::ArpSuppressionRootSm::handleInitialized() "));
}

std::size_t linesOf(const std::string& text, const std::string& line) {
  std::size_t count = 0;
  for (std::size_t at = text.find(line); at != std::string::npos; at = text.find(line, at + 1)) ++count;
  return count;
}

TEST(Lifecycle, dump_of_a_running_agent_shows_shared_objects_once) {
  Rig rig;
  rig.remoteBinding(10, "10.0.0.99", kHostMac);
  rig.start();
  rig.trap(Trapped{});
  const std::string dump = rig.command("showTechSupport");
  EXPECT_THAT(dump, testing::StartsWith("ArpSuppressionRootSm\n  ArpSuppressionRoot\n"
                                        "    RemoteBindingStatus #macToIps=1 #ipToMacs=1\n"
                                        "    initialPopulationComplete=true\n"));
  EXPECT_THAT(dump, Not(HasSubstr("NULL\n")));
  EXPECT_EQ(linesOf(dump, "RemoteBindingStatus #macToIps="), 1u);
  EXPECT_EQ(linesOf(dump, " VlanL3InfoStatus\n"), 1u);
  EXPECT_THAT(dump, HasSubstr("    RemoteBindingStatus dumped at line 3\n"));
  EXPECT_THAT(dump, HasSubstr("    VlanL3InfoStatus dumped at line "));
  for (const char* words :
       {"  initializationStage=complete\n", "    EnabledVlans #1: 10\n", "  VlanL3InfoSm\n",
        "walkStage=complete\n", "LocalBindingRecord\n", "MessageTrap\n", "MessageQueue #messages=0\n",
        "LocalRequestRecord #entry=1\n", "  BindingDiscoverySm\n  vgwReplySm #0\n",
        "VrfInfo red usable=true #user=3 #interfaceWatch=1:\n", "netNs red\n"}) {
    EXPECT_THAT(dump, HasSubstr(words));
  }
  EXPECT_THAT(dump, testing::ContainsRegex("\n  [0-9]+ 1\n")) << "a counter that moved";
}

}  // namespace
}  // namespace ArpSuppression
