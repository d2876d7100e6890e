#include "host/Config.h"

#include <gmock/gmock.h>

#include "host/JsonText.h"

namespace {

using Host::parseConfig;
using testing::HasSubstr;

std::string errorOf(const std::string& text) {
  std::string lines;
  for (const std::string& problem : parseConfig(text, "agent.json").problems) lines += problem + "\n";
  return lines;
}

TEST(Config, takesEveryKeyAndComments) {
  const Host::ConfigReading reading = parseConfig(R"(// "{[ of a comment counts for nothing
    { /* "nor { here */ "runDirectory": "/tmp/a//b", "hardware": false,
      "agents": ["ArpSuppression", "SoftForward"],
      "vrfs": {"red": {"id": 5, "networkNamespace": "red"}, "blue": {"id": 16777214, "networkNamespace": "b"},
               "green": {"id": 7, "device": "b"}},
      "vlans": {"10": {"bridge": "vlan10", "tunnelPorts": ["core10", "core11"]}, "4094": {"bridge": "br0"},
                "20": {"bridge": "br0", "vrf": "green", "suppression": false}, "30": {"vrf": "default", "answers": false, "nd": false}},
      "softForward": {"ports": {"Ethernet1": {"policer": {"perSecond": 5000}}, "Ethernet2": {"answers": false}},
                      "answers": {"maxEntries": 1048576, "refreshSeconds": 3600},
                      "policer": {"perSecond": 1000000, "burst": 1}, "failOpenSeconds": 60},
      "state": {"bridging/config/": {"bridgeMacAddr": "02:00:00:00:be:ef", "vidToFidMap": {"10": 110}},
                "bridging/status": {"fdb": {"10 02:00:00:00:00:01": {"entryType": "static", "intf": "Ethernet1"}}},
                "kni/ns/red/status": {"interface": {"vlan10": {"ifIndex": 7}}}},
      "featureDirectory": "/etc/f", "neighborRefreshSeconds": 86400, "trace": {"ArpSuppression": 8} // the last
    })",
                                                  "agent.json");
  ASSERT_THAT(reading.problems, testing::IsEmpty());
  const Host::Config& config = reading.config;
  EXPECT_EQ(config.runDirectory, "/tmp/a//b");
  EXPECT_THAT(config.agents, testing::ElementsAre("SoftForward", "ArpSuppression"));
  EXPECT_EQ(config.vrfs.at("red").networkNamespace, "red");
  EXPECT_EQ(config.vrfs.at("blue").id, 16777214u);
  EXPECT_EQ(config.vrfs.at("green").networkNamespace + " " + config.vrfs.at("green").device, "default b");
  EXPECT_EQ(config.vlans.at(20).vrf, "green");
  EXPECT_EQ(config.vlans.at(30).bridge, "vlan30");
  EXPECT_FALSE(config.vlans.at(20).suppression);
  EXPECT_TRUE(config.vlans.at(30).suppression);
  const auto& ports = config.softForward.portPolicers;
  EXPECT_EQ(ports.at("Ethernet1"), (Switch::Policer{5000, 1}));  // what it leaves out is as for all ports
  EXPECT_EQ(ports.at("Ethernet2"), (Switch::Policer{1000000, 1}));
  EXPECT_EQ(config.softForward.failOpenSeconds, 60u);
  EXPECT_TRUE(config.vlans.at(20).answers);
  EXPECT_FALSE(config.vlans.at(30).answers);
  EXPECT_TRUE(config.vlans.at(20).nd);
  EXPECT_FALSE(config.vlans.at(30).nd);
  EXPECT_EQ(config.softForward.answers, (Switch::Answers{true, 1048576, 3600}));
  EXPECT_THAT(config.softForward.portsWithoutAnswers, testing::ElementsAre("Ethernet2"));
  EXPECT_THAT(config.vlans.at(10).tunnelPorts, testing::ElementsAre("core10", "core11"));
  EXPECT_THAT(config.vlans.at(4094).tunnelPorts, testing::IsEmpty());
  EXPECT_EQ(config.state.size(), 3u);
  EXPECT_EQ(config.featureDirectory, "/etc/f");
  EXPECT_EQ(config.neighborRefreshSeconds, 86400u);
  EXPECT_EQ(config.trace.at("ArpSuppression"), 8);
  EXPECT_TRUE(parseConfig("{}", "agent.json").good());
  EXPECT_TRUE(parseConfig(R"({"hardware": true})", "agent.json").config.hardware);
}

// What is wrong, where, and what would be right.
TEST(Config, refusesWithKeyValueAndWhatIsAllowed) {
  const struct {
    const char* text;
    const char* error;
  } cases[] = {
      {"{\n\"agents\": [}", "line 2, column "},
      {"", "line 1, column "},
      {"[]", "agent.json: a list is not an object of agents, bindings, evpn, featureDirectory"},
      {R"({"colour": 1})", "agent.json: colour: unknown key; allowed here: agents, "},
      {R"({"agents": [], "agents": []})", "\"agents\" stands twice"},
      {R"({"runDirectory": "run"})", "runDirectory: \"run\" is not an absolute path"},
      {R"({"hardware": 1})", "hardware: 1 is not true or false"},
      {R"({"agents": ["SoftForward"], "hardware": true})",
       "hardware: true does not go with the agent SoftForward"},
      {R"({"agents": ["Arp"]})",
       "agents[0]: \"Arp\" is not one of KernelState, KernelEvpn, ArpService, SoftForward, ArpSuppression"},
      {R"({"agents": ["SoftForward", "SoftForward"]})", "agents[1]: \"SoftForward\" is there twice"},
      {R"({"vrfs": {"red": {"id": 70000000, "networkNamespace": "r"}}})",
       "agent.json: vrfs.red.id: 70000000 is not a number from 1 to 16777214"},
      {R"({"vrfs": {"red": {"id": 5.5, "networkNamespace": "r"}}})", "vrfs.red.id: 5.5 is not"},
      {R"({"vrfs": {"red": {"networkNamespace": "r"}}})", "vrfs.red.id: is missing"},
      {R"({"vrfs": {"red": {"id": 5, "networkNamespace": "../x"}}})",
       "networkNamespace: \"../x\" is not the name"},
      {R"({"vrfs": {"red": {"id": 5, "networkNamespace": "default"}}})",
       "vrfs.red.networkNamespace: \"default\" is"},
      {R"({"vrfs": {"red": {"id": 5}}})",
       "vrfs.red: neither \"networkNamespace\" nor \"device\" is there; allowed is exactly one"},
      {R"({"vrfs": {"red": {"id": 5, "networkNamespace": "r", "device": "r"}}})",
       "vrfs.red: \"networkNamespace\" and \"device\" are there; allowed is exactly one"},
      {R"({"vrfs": {"red": {"id": 5, "device": "a/b"}}})", "vrfs.red.device: \"a/b\" is not a kernel device"},
      {R"({"vrfs": {"a": {"id": 5, "device": "r"}, "b": {"id": 6, "device": "r"}}})",
       "vrfs.b.device: \"r\" is the device of vrfs.a already"},
      {R"({"vlans": {"20": {"vrf": "red"}}, "vrfs": {"blue": {"id": 5, "device": "red"}}})",
       "vlans.20.vrf: \"red\" is not a VRF of this configuration; allowed: default, blue"},
      {R"({"vlans": {"20": {"vrf": ""}}})", "vlans.20.vrf: \"\" is not the name of a VRF"},
      {R"({"vrfs": {"default": {"id": 5, "networkNamespace": "r"}}})",
       "vrfs.default: the VRF \"default\" is always"},
      {R"({"vrfs": {"a": {"id": 5, "networkNamespace": "r"}, "b": {"id": 5, "networkNamespace": "s"}}})",
       "vrfs.b.id: 5 is the id of vrfs.a already"},
      {R"({"vrfs": {"a": {"id": 5, "networkNamespace": "r"}, "b": {"id": 6, "networkNamespace": "r"}}})",
       "vrfs.b.networkNamespace: \"r\" is the namespace of vrfs.a already"},
      {R"({"vrfs": {"a b": {"id": 5, "networkNamespace": "r"}}})", "\"a b\" is not a VRF name"},
      {R"({"vlans": {"4095": {"bridge": "b"}}})", "vlans: \"4095\" is not a VLAN id from 1 to 4094"},
      {R"({"vlans": {"10": {"bridge": "a-name-that-is-too-long"}}})",
       "vlans.10.bridge: \"a-name-that-is-too-long\" is not"},
      {R"({"vlans": {"10": {"bridge": "b", "tunnelPorts": ["a/b"]}}})",
       "vlans.10.tunnelPorts[0]: \"a/b\" is not"},
      {R"({"vlans": {"10": {"bridge": "b", "tunnelPorts": ["c", "c"]}}})",
       "vlans.10.tunnelPorts[1]: \"c\" is there twice"},
      {R"({"vlans": {"10": {"suppression": "no"}}})", "vlans.10.suppression: \"no\" is not true or false"},
      {R"({"vlans": {"10": {"suppression": false}}})",
       "vlans.10.suppression: false does nothing without the agent SoftForward"},
      {R"({"softForward": {}})", "softForward: does nothing without the agent SoftForward"},
      {R"({"vlans": {"10": {"answers": false}}})",
       "vlans.10.answers: false does nothing without the agent SoftForward"},
      {R"({"vlans": {"10": {"nd": false}}})",
       "vlans.10.nd: false does nothing without the agent SoftForward"},
      {R"({"agents": ["SoftForward"], "softForward": {"answer": {}}})",
       "softForward.answer: unknown key; allowed here: answers, failOpenSeconds, policer, ports"},
      {R"({"agents": ["SoftForward"], "softForward": {"answers": false}})",
       "softForward.answers: false is not an object of enabled, maxEntries, refreshSeconds"},
      {R"({"agents": ["SoftForward"], "softForward": {"answers": {"maxEntries": 1048577}}})",
       "softForward.answers.maxEntries: 1048577 is not a number from 1 to 1048576"},
      {R"({"agents": ["SoftForward"], "softForward": {"answers": {"refreshSeconds": 0}}})",
       "refreshSeconds: 0 is not a number from 1 to 3600; \"enabled\": false switches answers off"},
      {R"({"agents": ["SoftForward"], "softForward": {"ports": {"e1": {"answers": 0}}}})",
       "softForward.ports.e1.answers: 0 is not true or false"},
      {R"({"agents": ["SoftForward"], "softForward": {"failOpenSeconds": 61}})",
       "failOpenSeconds: 61 is not a number from 1 to 60"},
      {R"({"agents": ["SoftForward"], "softForward": {"policer": {"burst": 0}}})",
       "softForward.policer.burst: 0 is not a number from 1 to 1000000"},
      {R"({"agents": ["SoftForward"], "softForward": {"ports": {"a/b": {}}}})",
       "softForward.ports: \"a/b\" is not a kernel device"},
      {R"({"agents": ["SoftForward"], "softForward": {"ports": {"e1": {"policer": 5}}}})",
       "softForward.ports.e1.policer: 5 is not an object of burst, perSecond"},
      {R"({"evpn": {}})", "evpn: does nothing without the agent KernelEvpn"},
      {R"({"agents": ["KernelEvpn"], "evpn": {"feed": "bgp"}})", "evpn.feed: \"bgp\" is not"},
      {R"({"agents": ["KernelEvpn"], "evpn": {"protocols": []}})", "evpn.protocols: is empty"},
      {R"({"agents": ["KernelEvpn"], "evpn": {"protocols": [11, 256]}})",
       "evpn.protocols[1]: 256 is not a number from 1 to 255"},
      {R"({"agents": ["KernelEvpn"], "evpn": {"protocols": [11, 11]}})",
       "evpn.protocols[1]: 11 is there twice"},
      {R"({"neighborRefreshSeconds": 0})", "neighborRefreshSeconds: 0 is not a number from 1 to 86400"},
      {R"({"neverAnswer": ["10.0.0.0/24", "10.0.0.0/24"]})",
       "neverAnswer[1]: \"10.0.0.0/24\" is there twice"},
      {R"({"neverAnswer": ["10.0.0.250/24"]})", "neverAnswer[0]: \"10.0.0.250/24\" is not a network like"},
      {R"({"metrics": {"listen": "10.0.0.1:9341"}})",
       "metrics.listen: \"10.0.0.1:9341\" is not a loopback address"},
      {R"({"metrics": {"listen": "[::1]:0"}})", "metrics.listen: \"[::1]:0\" is not"},
      {R"({"metrics": {}})", "metrics.listen: is missing"},
      {R"({"limits": {"remoteBindings": 0}})", "limits.remoteBindings: 0 is not a number from 1 to 16777216"},
      {R"({"limits": {"remoteBindings": 1}, "bindings": [{"vlan": 10, "ip": "10.0.0.1",
            "mac": "02:00:00:00:00:01"}, {"vlan": 10, "ip": "10.0.0.2", "mac": "02:00:00:00:00:02"}]})",
       "limits.remoteBindings: 1 is less than the 2 \"bindings\""},
      {R"({"limits": {"bindings": 5}})", "limits.bindings: unknown key; allowed here: localBindings, "},
      {R"({"neverAnswer": ["2001:db8::1/64"]})", "neverAnswer[0]: \"2001:db8::1/64\" is not"},
      {R"({"bindings": {}})", "bindings: an object is not a list of bindings"},
      {R"({"bindings": [7]})", "bindings[0]: it is not a JSON object"},
      {R"({"bindings": [{"vlan": 10, "ip": "127.0.0.1", "mac": "02:00:00:00:00:09"}]})",
       "bindings[0]: IP \"127.0.0.1\" is a loopback address"},
      {R"({"bindings": [{"vlan": 10, "ip": "2001:DB8::1", "mac": "02:00:00:00:00:09"},
                        {"vlan": 10, "ip": "2001:db8::1", "mac": "02:00:00:00:00:09"}]})",
       "bindings[1]: there is one of 10 2001:db8::1 already"},
      {R"({"trace": {"Orb": 10}})", "trace.Orb: 10 is not a number from 0 to 9"},
      {R"({"trace": {"a\n": 1}})",
       "trace.a\\x0a: unknown trace handle; allowed here: ArpService, ArpSuppression, "},
      {R"({"state": {"evpn/stat": {}}})", "state: evpn/stat: there is no such path; allowed: arp/"},
      {R"({"state": {"evpn/status": 1}})", "state: evpn/status: 1 is not an object"},
      {R"({"state": {"evpn/status": {"vlanToDot1q": {"5000": 1}}}})", "evpn/status: vlanToDot1q[\"5000\"]"},
      {R"({"state": {"ip/status": {}}, "agents": ["KernelState"]})",
       "ip/status: cannot be set while the plug-in KernelState is loaded"},
  };
  for (const auto& test : cases) {
    const std::string error = errorOf(test.text);
    EXPECT_THAT(error, HasSubstr(test.error)) << test.text;
    EXPECT_EQ(std::ranges::count(error, '\n'), 1) << "once, and nothing that follows from it: " << error;
  }
}

TEST(Config, saysEverythingThatIsWrongAtOnce) {
  const std::string all = errorOf(R"({
      "agents": ["KernelState"], "hardware": 1, "colour": 2,
      "vrfs": {"a": {"id": 0}, "b": {"id": 5, "device": "r"}, "c": {"id": 5, "device": "r"}},
      "vlans": {"9": {"bridge": "", "tunnelPorts": ["a/b", "c", "c"]}, "8": {"vrf": "d", "suppression": false}},
      "state": {"ip/status": {}, "evpn/status": {"mplsConfigured": 1, "vlanToDot1q": {"10": 10, "5000": 1, "9": "x"}}}
    })");
  const char* const lines[] = {"colour: unknown",         "hardware: 1 is",
                               "vrfs.a.id: 0 is",         "vrfs.c.id: 5 is the id of vrfs.b",
                               "vrfs.c.device: \"r\" is", "vlans.9.bridge: \"\" is",
                               "tunnelPorts[0]",          "tunnelPorts[2]",
                               "vlans.8.suppression",     "state: ip/status",
                               "mplsConfigured: 1",       "vlanToDot1q[\"5000\"]",
                               "vlanToDot1q[\"9\"]"};
  for (const char* line : lines) EXPECT_THAT(all, HasSubstr(line));
  EXPECT_EQ(std::ranges::count(all, '\n'), std::ssize(lines)) << all;
  std::string many = R"({"vlans": {)";
  for (int vlan = 5000; vlan < 5150; ++vlan) many += "\"" + std::to_string(vlan) + "\": {},";
  many += R"("1": {}}})";
  EXPECT_THAT(errorOf(many), testing::EndsWith("\"5099\" is not a VLAN id from 1 to 4094\n"
                                               "agent.json: and 50 more problems\n"));
}

TEST(Config, remarksOnWhatDoesNothing) {
  const auto remarks = [](const char* text) { return Host::remarks(parseConfig(text, "").config); };
  EXPECT_THAT(remarks("{}"), testing::ElementsAre(HasSubstr("no plug-in")));
  EXPECT_THAT(remarks(R"({"agents": ["SoftForward"]})"), testing::ElementsAre(HasSubstr("no VLAN")));
  EXPECT_THAT(remarks(R"({"agents": ["SoftForward"], "vlans": {"1": {}}})"), testing::IsEmpty());
  EXPECT_THAT(remarks(R"({"agents": ["ArpSuppression"]})"), testing::IsEmpty());
}

TEST(Config, survivesHostileText) {
  std::string deep = R"({"state": {"evpn/status": )";
  for (int i = 0; i < 200000; ++i) deep += "{\"a\":";
  EXPECT_THAT(errorOf(deep), HasSubstr("nested deeper than 32"));
  EXPECT_THAT(errorOf(std::string(200000, '[')), HasSubstr("nested deeper"));
  EXPECT_THAT(errorOf("{\"runDirectory\": \"/\xff\xfe\"}"), HasSubstr(R"(last read: '"/\xff')"));
  EXPECT_FALSE(errorOf("{ /* open").empty());
  // Brackets that a string or a comment seems to hide count where the parser sees them.
  EXPECT_THAT(errorOf("{//\"\n\"state\":" + std::string(100, '[')), HasSubstr("nested deeper"));
}

}  // namespace
