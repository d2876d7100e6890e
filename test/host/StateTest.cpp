#include "host/State.h"

#include <gmock/gmock.h>

#include "Arp/InputConfig.h"
#include "Statedb/LogStore.h"
#include "Suppression/RemoteBindingConfig.h"
#include "Suppression/Status.h"
#include "Switch/Config.h"
#include "Vrf/VrfIdMap.h"
#include "test/host/HostFixture.h"

namespace HostTest {
namespace {

using testing::HasSubstr;

constexpr const char* kRemote = "arpSuppression/remoteBindingConfig/evpn";

TEST(State, beginsWithWhatTheConfigurationSays) {
  RunDir runDir;
  HostState host(runDir,
                 {{"vrfs", {{"red", {{"id", 5}, {"networkNamespace", "r"}}}}},
                  {"vlans", {{"10", {{"tunnelPorts", {"core10"}}, {"suppression", false}}}}},
                  {"agents", {"SoftForward"}},
                  {"neverAnswer", {"10.0.0.0/30"}},
                  {"bindings", {{{"vlan", 10}, {"ip", "10.0.0.9"}, {"mac", "02:00:00:00:00:09"}}}},
                  {"softForward", {{"policer", {{"burst", 5}}}, {"ports", {{"e1", {{"answers", false}}}}}}},
                  {"state",
                   {{"evpn/status", {{"mplsConfigured", true}}},
                    {kRemote, {{"remoteBinding", {{"10 10.0.0.8", {{"mac", "02:00:00:00:00:08"}}}}}}},
                    {"vrf/vrfIdMapStatus", {{"vrfIdToName", {{"7", "blue"}}}}},
                    {"kni/ns/red/status", {{"interface", {{"vlan10", {{"ifIndex", 7}}}}}}}}}});
  EXPECT_EQ(host.show("evpn/status")["mplsConfigured"], true);
  EXPECT_EQ(host.show("kni/ns/red/status/"), json({{"interface", {{"vlan10", {{"ifIndex", 7}}}}}}));
  EXPECT_EQ(host.show("vrf/vrfIdMapStatus"),
            json({{"vrfIdToName", {{"0", "default"}, {"5", "red"}, {"7", "blue"}}}}));
  EXPECT_EQ(host.show("switch/config"),
            json({{"agents", {"SoftForward"}},
                  {"neighborRefreshSeconds", 240},
                  {"softForward",
                   {{"failOpenSeconds", 3},
                    {"answers", {{"enabled", true}, {"maxEntries", 1048576}, {"refreshSeconds", 30}}},
                    {"portWithoutAnswers", {{"e1", true}}},
                    {"policer", {{"perSecond", 600}, {"burst", 5}}},
                    {"portPolicer", {{"e1", {{"perSecond", 600}, {"burst", 5}}}}}}},
                  {"evpn", {{"feed", "none"}, {"protocols", {11, 186}}}},
                  {"vrf",
                   {{"default", {{"id", 0}, {"networkNamespace", "default"}, {"device", ""}}},
                    {"red", {{"id", 5}, {"networkNamespace", "r"}, {"device", ""}}}}},
                  {"vlan",
                   {{"10",
                     {{"bridge", "vlan10"},
                      {"tunnelPorts", {"core10"}},
                      {"vrf", ""},
                      {"suppression", false},
                      {"answers", true},
                      {"nd", true}}}}}}));
  EXPECT_EQ(
      host.show(kRemote)["remoteBinding"],
      json({{"10 10.0.0.8", {{"mac", "02:00:00:00:00:08"}, {"localMultihomed", false}, {"router", false}}},
            {"10 10.0.0.9", {{"mac", "02:00:00:00:00:09"}, {"localMultihomed", false}, {"router", false}}}}));
  EXPECT_EQ(host.show("arpSuppression/neverAnswer"), json({{"prefix", {{"10.0.0.0/30", true}}}}));
  EXPECT_EQ(host.show("ip/vrf/status/local"), json({{"vrf", json::object()}}));
  EXPECT_EQ(host.reports, "");
}

TEST(State, leavesRemoteBindingsToKernelEvpn) {
  RunDir runDir;
  HostState host(runDir, {{"agents", {"KernelEvpn"}},
                          {"bindings", {{{"vlan", 10}, {"ip", "10.0.0.9"}, {"mac", "02:00:00:00:00:09"}}}}});
  EXPECT_THAT(host.apply({{kRemote, {{"remoteBinding", nullptr}}}}), HasSubstr("in \"bindings\" of the"));
  EXPECT_FALSE(host.state->remoteBindings());
  const auto evpn = host.state->tree()->entityOf<Switch::Config>(Switch::kConfigPath)->evpn();
  ASSERT_TRUE(evpn->bindings());
  EXPECT_EQ(evpn->bindings()->all.size(), 1u);
}

TEST(State, mergesTablesLikeTheTree) {
  RunDir runDir;
  HostState host(runDir);
  const auto fdb = [&] { return host.show("bridging/status")["fdb"]; };
  ASSERT_EQ(host.apply({{"bridging/status",
                         {{"fdb",
                           {{"10 02:00:00:00:00:01", {{"entryType", "static"}, {"intf", "Ethernet1"}}},
                            {"10 02:00:00:00:00:02", {{"intf", "Ethernet2"}}}}}}}}),
            "");
  ASSERT_EQ(host.apply({{"bridging/status/",
                         {{"fdb",
                           {{"10 02:00:00:00:00:01", {{"intf", "Ethernet3"}}},
                            {"10 02:00:00:00:00:02", nullptr},
                            {"10 02:00:00:00:00:03", nullptr}}}}}}),
            "");
  EXPECT_EQ(fdb(), json({{"10 02:00:00:00:00:01", {{"entryType", "static"}, {"intf", "Ethernet3"}}}}));
  ASSERT_EQ(host.apply({{"bridging/status", {{"fdb", nullptr}}}}), "");
  EXPECT_EQ(fdb(), json::object());
  // The VRF "default" keeps its id.
  ASSERT_EQ(host.apply({{"vrf/vrfIdMapStatus", {{"vrfIdToName", {{"5", "red"}}}}}}), "");
  ASSERT_EQ(host.apply({{"vrf/vrfIdMapStatus", {{"vrfIdToName", nullptr}}}}), "");
  EXPECT_EQ(host.show("vrf/vrfIdMapStatus"), json({{"vrfIdToName", {{"0", "default"}}}}));
}

TEST(State, appliesAllOrNothing) {
  RunDir runDir;
  HostState host(runDir, {{"agents", {"ArpSuppression"}}});
  const json good = {{"mplsConfigured", true}};
  const struct {
    const char* path;
    json content;
    const char* error;
  } cases[] = {
      {"evpn/mplsConfig", {{"controlWord", true}}, "unknown key \"controlWord\""},
      {"kni/ns/a/b/status", json::object(), "there is no such path"},
      {"arpSuppression/counter", json::object(), "ArpSuppression is loaded"},
      {"switch/config", json::object(), "cannot be set; it follows"},
      {"arp/status", {{"arpEntry", {{"5 10.0.0.1", json::object()}}}}, "the key is not \"vrfId ip intf\""},
      {"arp/status",
       {{"arpEntry", {{"5 10.0.0.1 Vlan10", {{"mac", 5}}}}}},
       "[\"5 10.0.0.1 Vlan10\"].mac: 5 is not a MAC"},
      {"arp/status", {{"entries", json::object()}}, "unknown key \"entries\"; allowed: arpEntry"},
      {"arp/status", json::array(), "a list is not an object of arpEntry"},
      {kRemote, {{"remoteBinding", {{"0 10.0.0.1", json::object()}}}}, "the key is not \"vlan ip\""},
      {"vrf/vrfIdMapStatus", {{"vrfIdToName", {{"0", "red"}}}}, "always has the id 0"},
      {"vrf/vrfIdMapStatus", {{"vrfIdToName", {{"3", "default"}}}}, "always has the id 0"},
      {"vrf/vrfIdMapStatus", {{"vrfIdToName", {{"16777215", "red"}}}}, "not a number from 0 to 16777214"},
      {"vrf/vrfIdMapStatus", {{"vrfIdToName", {{"5", std::string(101, 'x')}}}}, "vrfIdToName[\"5\"]"},
  };
  for (const auto& test : cases) {
    // Good content goes before some of the bad ones, and behind others.
    const json state = {{"evpn/status", good},
                        {"bridging/status", {{"fdb", {{"10 02:00:00:00:00:01", json::object()}}}}},
                        {test.path, test.content}};
    EXPECT_THAT(host.apply(state), HasSubstr(test.error)) << test.path << test.content;
    EXPECT_EQ(host.show("evpn/status")["mplsConfigured"], false) << test.path << test.content;
    EXPECT_EQ(host.show("bridging/status")["fdb"], json::object()) << test.path << test.content;
  }
}

// A table outlives its host; the next host says again what it holds, and entries that stay are never missing.
TEST(State, reconcilesTablesOfAnEarlierRun) {
  RunDir runDir;
  {
    HostState host(runDir);
    ASSERT_EQ(host.apply({{kRemote,
                           {{"remoteBinding",
                             {{"10 10.0.0.1", {{"mac", "02:00:00:00:00:01"}}},
                              {"10 10.0.0.2", {{"mac", "02:00:00:00:00:02"}}}}}}}}),
              "");
  }
  HostState host(
      runDir, {{"state", {{kRemote, {{"remoteBinding", {{"10 10.0.0.2", {{"localMultihomed", true}}}}}}}}}});
  EXPECT_EQ(host.show(kRemote),
            json({{"remoteBinding",
                   {{"10 10.0.0.2",
                     {{"mac", "00:00:00:00:00:00"}, {"localMultihomed", true}, {"router", false}}}}}}));
}

// A feed of its own may write an input. That the configuration has no effect there is a problem of the
// switch.
TEST(State, leavesTheTablesOfOthersAlone) {
  RunDir runDir;
  const auto other =
      Memtab::TableWriter<ArpSuppression::RemoteBindingKey, ArpSuppression::RemoteBinding>::open(
          Memtab::Directory::forRunDir(runDir.path()), std::string(kRemote) + ".remoteBinding", {});
  ASSERT_TRUE(other) << other.error();
  HostState host(runDir);
  const json problems = host.show("switch/problems")["problem"];
  ASSERT_TRUE(problems.contains(std::string("agent-host table ") + kRemote)) << problems;
  EXPECT_EQ(problems.size(), 1u);
  EXPECT_THAT(host.apply({{kRemote, {{"remoteBinding", nullptr}}}}),
              HasSubstr("another process writes this table"));
}

// As long as the agent that publishes it is loaded: without it nobody would ever take it back.
TEST(State, keepsWhatAgentsPublishAndNothingElse) {
  RunDir runDir;
  const struct {
    const char* plugin;
    bool kept;  // from the run before
  } runs[] = {{"ArpSuppression", false},
              {"ArpSuppression", true},
              {"ArpService", false},
              {"ArpService", false},
              {"ArpSuppression", false}};
  for (const auto& run : runs) {
    auto store = Statedb::LogStore::open(runDir.path(), {});
    ASSERT_TRUE(store) << store.error();
    HostState host(runDir, {{"agents", {run.plugin}}}, std::move(*store));
    EXPECT_TRUE(
        host.state->tree()->entityIs("arpSuppression/status", "ArpSuppression::ArpSuppressionStatus"));
    EXPECT_TRUE(host.state->tree()->entityIs("arp/input/config/arpSuppression", "Arp::ArpInputConfig"));
    const auto status =
        host.state->tree()->entityOf<ArpSuppression::ArpSuppressionStatus>("arpSuppression/status");
    const auto input = host.state->tree()->entityOf<Arp::ArpInputConfig>("arp/input/config/arpSuppression");
    ASSERT_TRUE(status && input);
    EXPECT_EQ(status->runnable(), run.kept) << run.plugin;
    EXPECT_EQ(input->source(), run.kept ? 110u : 0u) << run.plugin;
    EXPECT_EQ(host.show("evpn/status")["mplsConfigured"], false);
    status->runnableIs(true);
    input->sourceIs(110);
    ASSERT_EQ(host.apply({{"evpn/status", {{"mplsConfigured", true}}}}), "");
    while (host.state->flush()) {
    }
  }
}

TEST(State, reportsAStoreThatCannotBeWritten) {
  struct FullStore final : Statedb::Store, Statedb::Journal {
    explicit FullStore(const Mox::Result<>& written) : written_(written) {}
    std::unique_ptr<Journal> journal(const std::string&) override {
      return std::make_unique<FullStore>(written_);
    }
    void remove(const std::string&) override {}
    Step next(Operation&) override { return Step::end; }
    void write(std::string_view, std::string_view) override {}
    void erase(std::string_view) override {}
    void rewrite() override {}
    bool flush(Statedb::Content&, Extent) override { return false; }
    const Mox::Result<>& written() const override { return written_; }
    const Mox::Result<>& written_;
  };
  RunDir runDir;
  Mox::Result<> written = Mox::Failure{"status.log: no space"};
  HostState host(runDir, {{"agents", {"ArpSuppression"}}}, std::make_unique<FullStore>(written));
  EXPECT_TRUE(host.state->tree()->entityIs("arpSuppression/status", "ArpSuppression::ArpSuppressionStatus"));
  host.state->flush();
  EXPECT_EQ(host.show("switch/problems")["problem"]["agent-host state store"]["problem"], written.error());
  written = {};
  host.state->flush();
  EXPECT_EQ(host.show("switch/problems")["problem"], json::object());
}

// Reading and writing of what a plug-in mounts: its own entities are left to it, the others are there, empty.
TEST(State, createsWhatNobodyOwns) {
  RunDir runDir;
  HostState host(runDir, {{"agents", {"KernelState", "ArpSuppression"}}});
  const auto group = host.state->tree()->mountGroup();
  group->mountIs("ip/status", "Ip::Status", "r");
  const auto reader = host.state->tree()->mountGroup();
  reader->mountIs("arp/input/config/arpSuppression", "Arp::ArpInputConfig", "r");
  reader->doClose();
  group->mountIs("arp/input/config/arpSuppression", "Arp::ArpInputConfig", "wS");
  group->mountIs("evpn/status", "Evpn::EvpnStatus", "r");
  group->doClose();
  host.state->createAbsent();
  host.settle();
  EXPECT_TRUE(group->ready());
  EXPECT_FALSE(host.state->tree()->entity("ip/status"));
  EXPECT_TRUE(host.state->tree()->entity("arp/input/config/arpSuppression"));
  EXPECT_TRUE(host.state->tree()->entity("evpn/status"));
  EXPECT_FALSE(host.state->tables()->writable("arp/status"));
  EXPECT_TRUE(host.state->remoteBindings());
  EXPECT_EQ(host.state->dump("ip/status").error(), "ip/status: nobody has made it yet");
}

// Slices of any size give the same text, and what changes in between never hides what stays.
TEST(State, dumpsInSlices) {
  RunDir runDir;
  HostState host(runDir);
  const auto input = host.state->tree()->entityOf<Arp::ArpInputConfig>("arp/input/config/arpSuppression");
  json bindings;
  for (std::uint32_t i = 0; i < 300; ++i) {
    for (const char* vrf : {"blue", "red"}) {
      input->vrfIs(vrf)->ipv4Is(Lanix::IpAddr(0x0a000000u + i),
                                {Lanix::EthAddr({2, 0, 0, 0, 0, 1}), {}, 1, false});
    }
    bindings["10 10.0.0." + std::to_string(i % 256)] = {{"mac", "02:00:00:00:00:01"}};
  }
  ASSERT_EQ(host.apply({{kRemote, {{"remoteBinding", bindings}}}}), "");
  input->vrfIs("empty");
  for (const char* path :
       {"arp/input/config/arpSuppression", kRemote, "switch/config", "interface/status/all"}) {
    const std::string whole = host.text(path);
    ASSERT_TRUE(json::accept(whole)) << path;
    for (const std::size_t slice : {1u, 2u, 7u, 299u, 300u, 301u})
      EXPECT_EQ(host.text(path, slice), whole) << path << " " << slice;
  }
  EXPECT_EQ(json::parse(host.text("arp/input/config/arpSuppression", 3)),
            host.state->tree()->entityType("arp/input/config/arpSuppression")->toJson(*input));

  std::uint32_t step = 0;
  const json seen =
      json::parse(host.text("arp/input/config/arpSuppression", 5,
                            [&] {
                              // Every odd address of "blue" goes, one of them mostly the next in turn, and
                              // all of "red" goes in between.
                              input->vrf("blue")->ipv4Del(Lanix::IpAddr(0x0a000000u + (step * 2 + 1) % 300));
                              if (++step == 10) input->vrfDel("red");
                            }),
                  nullptr, false);
  ASSERT_TRUE(seen.is_object());
  for (std::uint32_t i = 0; i < 300; i += 2) {
    EXPECT_TRUE(seen["vrf"]["blue"]["ipv4"].contains(Lanix::IpAddr(0x0a000000u + i).toStrep())) << i;
  }
  EXPECT_FALSE(seen["vrf"].contains("red"));
  EXPECT_TRUE(seen["vrf"].contains("empty"));
}

}  // namespace
}  // namespace HostTest
