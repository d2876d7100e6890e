#include "host/Reload.h"

#include <fstream>

#include "Switch/Config.h"
#include "Tracelet/Trace.h"
#include "test/host/HostFixture.h"

namespace HostTest {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;

constexpr const char* kRemote = "arpSuppression/remoteBindingConfig/evpn";

// A host that runs with a configuration file, which is then written anew.
class Running {
 public:
  explicit Running(const json& config) : host_(runDir_, config), file_(runDir_.path() + "/config.json") {
    reload_ = std::make_unique<Host::Reload>(host_.scheduler(), *host_.state, file_, configOf(config),
                                             [this](const std::string& line) { log += line + "\n"; });
  }
  void fileIs(const std::string& text) const { std::ofstream(file_) << text; }
  void begin() {
    reload_->begin([this](const std::vector<std::string>& problems) {
      ++ended;
      for (const std::string& problem : problems) refused += problem + "\n";
    });
  }
  std::string reload(const std::string& text) {
    fileIs(text);
    refused.clear();
    begin();
    host_.settle();
    return refused;
  }
  HostState& host() { return host_; }
  json show(const std::string& path) const { return host_.show(path); }
  std::string all() const {
    std::string text;
    for (const std::string& path : host_.state->paths()) text += path + " " + host_.text(path) + "\n";
    return text;
  }

  int ended = 0;
  std::string refused;
  std::string log;

 private:
  RunDir runDir_;
  HostState host_;
  const std::string file_;
  std::unique_ptr<Host::Reload> reload_;
};

// Two configurations, what is set by hand in between, and what is shown of a path then.
TEST(Reload, carriesOutWhatIsDifferent) {
  const struct {
    const char* what;
    const char* before;
    const char* byHand;
    const char* now;
    const char* path;
    const char* member;
    const char* shown;
  } cases[] = {
      {"VLANs come, change and go",
       R"({"vlans": {"10": {}, "20": {"bridge": "br0", "tunnelPorts": ["a"], "vrf": "default"}, "30": {}}})",
       "{}", R"({"vlans": {"10": {}, "20": {"tunnelPorts": ["b", "a"]}, "40": {"vrf": "default"}}})",
       "switch/config", "vlan",
       R"({"10": {"bridge": "vlan10", "tunnelPorts": [], "vrf": "", "suppression": true, "answers": true, "nd": true},
           "20": {"bridge": "vlan20", "tunnelPorts": ["b", "a"], "vrf": "", "suppression": true, "answers": true, "nd": true},
           "40": {"bridge": "vlan40", "tunnelPorts": [], "vrf": "default", "suppression": true, "answers": true, "nd": true}})"},
      {"VRFs too",
       R"({"vrfs": {"red": {"id": 5, "networkNamespace": "r"}, "blue": {"id": 6, "device": "b"}}})", "{}",
       R"({"vrfs": {"red": {"id": 6, "device": "b"}, "green": {"id": 5, "networkNamespace": "r"}}})",
       "switch/config", "vrf",
       R"({"default": {"id": 0, "networkNamespace": "default", "device": ""},
           "red": {"id": 6, "networkNamespace": "default", "device": "b"},
           "green": {"id": 5, "networkNamespace": "r", "device": ""}})"},
      {"their numbers, and those set by hand",
       R"({"vrfs": {"red": {"id": 5, "networkNamespace": "r"}, "blue": {"id": 6, "device": "b"}}})",
       R"({"vrf/vrfIdMapStatus": {"vrfIdToName": {"9": "hand"}}})",
       R"({"vrfs": {"red": {"id": 7, "networkNamespace": "r"}}})", "vrf/vrfIdMapStatus", "vrfIdToName",
       R"({"0": "default", "7": "red", "9": "hand"})"},
      {"probing", R"({"neighborRefreshSeconds": 5})", "{}", "{}", "switch/config", "neighborRefreshSeconds",
       "240"},
      {"state: what the file does not say anew stays as it was set by hand",
       R"({"state": {"evpn/status": {"vlanToDot1q": {"10": 10, "20": 20, "30": 30}}}})",
       R"({"evpn/status": {"vlanToDot1q": {"20": 21, "40": 40}}})",
       R"({"state": {"evpn/status/": {"vlanToDot1q": {"10": 11, "20": 20}}}})", "evpn/status", "vlanToDot1q",
       R"({"10": 11, "20": 21, "40": 40})"},
      {"an attribute is as it is made", R"({"state": {"evpn/status": {"mplsConfigured": true}}})", "{}",
       R"({"state": {"evpn/status": {"vlanToDot1q": {"10": 10}}}})", "evpn/status", "mplsConfigured",
       "false"},
      {"a collection that the file no longer has keeps what is by hand",
       R"({"state": {"evpn/status": {"vlanToDot1q": {"10": 10}}}})",
       R"({"evpn/status": {"vlanToDot1q": {"40": 40}}})", "{}", "evpn/status", "vlanToDot1q",
       R"({"40": 40})"},
      {"entities in entities",
       R"({"state": {"kni/ns/red/status": {"interface": {"a": {"ifIndex": 7}, "b": {"ifIndex": 8}}}}})", "{}",
       R"({"state": {"kni/ns/red/status": {"interface": {"b": {"ifIndex": 9}}}}})", "kni/ns/red/status",
       "interface", R"({"b": {"ifIndex": 9}})"},
      {"bindings, and a key in another notation",
       R"({"bindings": [{"vlan": 10, "ip": "10.0.0.1", "mac": "02:00:00:00:00:01"},
                        {"vlan": 10, "ip": "10.0.0.2", "mac": "02:00:00:00:00:02", "localMultihomed": true}],
           "state": {"arpSuppression/remoteBindingConfig/evpn":
                       {"remoteBinding": {"10 2001:db8::1": {"mac": "02:00:00:00:00:03"}}}}})",
       R"({"arpSuppression/remoteBindingConfig/evpn":
             {"remoteBinding": {"10 10.0.0.9": {"mac": "02:00:00:00:00:09"}}}})",
       R"({"bindings": [{"vlan": 10, "ip": "10.0.0.2", "mac": "02:00:00:00:00:02"},
                        {"vlan": 11, "ip": "2001:DB8::2", "mac": "02:00:00:00:00:04"}],
           "state": {"arpSuppression/remoteBindingConfig/evpn":
                       {"remoteBinding": {"10 2001:DB8::1": {"mac": "02:00:00:00:00:03"}}}}})",
       kRemote, "remoteBinding",
       R"({"10 10.0.0.2": {"mac": "02:00:00:00:00:02", "localMultihomed": false, "router": false},
           "10 10.0.0.9": {"mac": "02:00:00:00:00:09", "localMultihomed": false, "router": false},
           "10 2001:db8::1": {"mac": "02:00:00:00:00:03", "localMultihomed": false, "router": false},
           "11 2001:db8::2": {"mac": "02:00:00:00:00:04", "localMultihomed": false, "router": false}})"},
      {"bindings alone: one alike that is otherwise by hand, one that changes, one that goes and one that "
       "comes",
       R"({"bindings": [{"vlan": 10, "ip": "10.0.0.1", "mac": "02:00:00:00:00:01"},
                        {"vlan": 10, "ip": "10.0.0.2", "mac": "02:00:00:00:00:02"},
                        {"vlan": 10, "ip": "10.0.0.3", "mac": "02:00:00:00:00:03"}]})",
       R"({"arpSuppression/remoteBindingConfig/evpn":
             {"remoteBinding": {"10 10.0.0.1": {"mac": "02:00:00:00:00:09"}}}})",
       R"({"bindings": [{"vlan": 10, "ip": "10.0.0.1", "mac": "02:00:00:00:00:01"},
                        {"vlan": 10, "ip": "10.0.0.2", "mac": "02:00:00:00:00:22"},
                        {"vlan": 10, "ip": "10.0.0.4", "mac": "02:00:00:00:00:04"}]})",
       kRemote, "remoteBinding",
       R"({"10 10.0.0.1": {"mac": "02:00:00:00:00:09", "localMultihomed": false, "router": false},
           "10 10.0.0.2": {"mac": "02:00:00:00:00:22", "localMultihomed": false, "router": false},
           "10 10.0.0.4": {"mac": "02:00:00:00:00:04", "localMultihomed": false, "router": false}})"},
      {"the VLANs of a feed, beneath what is said of them",
       R"({"agents": ["KernelEvpn"], "evpn": {"feed": "kernel"}, "vlans": {"10": {}, "20": {}}})", "{}",
       R"({"agents": ["KernelEvpn"], "evpn": {"feed": "kernel"}, "vlans": {"20": {}, "30": {}},
           "state": {"evpn/status": {"vlanToDot1q": {"30": 7}}}})",
       "evpn/status", "vlanToDot1q", R"({"20": 20, "30": 7})"},
      {"excluded addresses", R"({"neverAnswer": ["10.0.0.0/24", "10.0.1.0/24"]})",
       R"({"arpSuppression/neverAnswer": {"prefix": {"10.0.9.0/24": true}}})",
       R"({"neverAnswer": ["10.0.1.0/24"]})", "arpSuppression/neverAnswer", "prefix",
       R"({"10.0.1.0/24": true, "10.0.9.0/24": true})"},
      {"a limit that is back at its default", R"({"limits": {"remoteBindings": 7, "localBindings": 5}})",
       R"({"arpSuppression/limits": {"localBindingsPerPort": 9}})", R"({"limits": {"localBindings": 6}})",
       "arpSuppression/limits", "remoteBindings", "1048576"},
  };
  for (const auto& test : cases) {
    SCOPED_TRACE(test.what);
    Running running(json::parse(test.before));
    ASSERT_EQ(running.host().apply(json::parse(test.byHand)), "");
    EXPECT_EQ(running.reload(test.now), "");
    EXPECT_EQ(running.show(test.path)[test.member], json::parse(test.shown));
    const std::string then = running.all();
    EXPECT_EQ(running.reload(test.now), "");
    EXPECT_EQ(running.all(), then);
  }
}

TEST(Reload, followsWhatIsOfNoPath) {
  Running running(
      {{"agents", {"SoftForward"}},
       {"trace", {{"Orb", 5}, {"Memtab", 5}}},
       {"softForward",
        {{"ports", {{"e1", {{"policer", {{"burst", 7}}}, {"answers", false}}}, {"e2", json::object()}}}}}});
  Tracelet::levelIs("Orb", 5);
  EXPECT_EQ(running.reload(
                R"({"agents": ["SoftForward"], "trace": {"Memtab": 3}, "vlans": {"10": {"answers": false}},
                               "softForward": {"failOpenSeconds": 9, "policer": {"burst": 8}, "answers": {"enabled": false},
                                               "ports": {"e2": {"answers": false}}}})"),
            "");
  const auto config = running.host().state->tree()->entityOf<Switch::Config>(Switch::kConfigPath);
  const auto softForward = config->softForward();
  EXPECT_EQ(softForward->failOpenSeconds(), 9u);
  EXPECT_EQ(softForward->portPolicers(), 1u);
  EXPECT_EQ(softForward->policerOf("e1").burst, 8u);
  EXPECT_FALSE(softForward->answers().enabled);
  EXPECT_FALSE(softForward->portWithoutAnswersHas("e1"));
  EXPECT_TRUE(softForward->portWithoutAnswersHas("e2"));
  EXPECT_FALSE(config->vlan(Bridging::VlanId(10))->answers());
  EXPECT_EQ(Tracelet::level("Orb"), 0);
  EXPECT_EQ(Tracelet::level("Memtab"), 3);
  EXPECT_THAT(running.log, testing::EndsWith("/config.json is in force\n"));
  Tracelet::levelIs("Memtab", 0);
}

TEST(Reload, refusesAsAWhole) {
  const json interface = {{"vrfName", "default"}, {"activeAddr", "10.0.0.254/24"}};
  Running running(json{{"vlans", {{"10", json::object()}}},
                       {"state", {{"ip/status", {{"ipIntfStatus", {{"Vlan10", interface}}}}}}}});
  const std::string before = running.all();
  const struct {
    const char* text;
    const char* refused;
  } cases[] = {
      {R"({"vlans": {}, "hardware": true})", "hardware: true needs a restart; false is in force"},
      {R"({"vlans": {}, "runDirectory": "/x"})", "runDirectory: \"/x\" needs a restart"},
      {R"({"vlans": {}, "agents": ["ArpService"]})",
       "agents: [\"ArpService\"] needs a restart; [] is in force"},
      {R"({"vlans": {}, "metrics": {"listen": "[::1]:9341"}})",
       "metrics.listen: \"[::1]:9341\" needs a restart"},
      {R"({"vlans": {}, "colour": 1, "hardware": 2})", "hardware: 2 is not"},
      {R"({"vlans": {}, "bindings": [{"vlan": 10, "ip": "10.0.0.254", "mac": "02:00:00:00:00:01"}]})",
       "bindings: IP \"10.0.0.254\" on VLAN 10 is the address of Vlan10 of this switch"},
      {R"({"vlans": {)", "line 1, column"},
  };
  for (const auto& test : cases) {
    EXPECT_THAT(running.reload(test.text), HasSubstr(test.refused));
    EXPECT_EQ(running.all(), before);
  }
  EXPECT_THAT(running.log,
              HasSubstr("/config.json is refused: the configuration before it stays in force\n"));
  EXPECT_EQ(running.reload(R"({"vlans": {"20": {}}})"), "") << "what was refused is no obstacle";
}

// What is asked for meanwhile sees the file as it is then.
TEST(Reload, oneAfterTheOther) {
  Running running(json::object());
  json many = json::array();
  for (int i = 0; i < 2000; ++i)
    many.push_back({{"vlan", 10},
                    {"ip", "10.0." + std::to_string(i / 250) + "." + std::to_string(1 + i % 250)},
                    {"mac", "02:00:00:00:00:01"}});
  running.host().scheduler()->root().mustYieldForTestIs([] { return true; });
  running.fileIs(json({{"bindings", many}}).dump());
  running.begin(), running.begin();
  running.host().loop.step();
  running.host().loop.step();
  EXPECT_EQ(running.ended, 0);
  running.fileIs("{}");
  running.begin();
  running.host().settle();
  EXPECT_EQ(running.ended, 3);
  EXPECT_EQ(running.refused, "");
  EXPECT_THAT(running.show(kRemote)["remoteBinding"], IsEmpty());
}

}  // namespace
}  // namespace HostTest
