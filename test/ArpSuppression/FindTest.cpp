#include "Rig.h"
#include "Suppression/BindingOrigin.h"

namespace ArpSuppression {
namespace {

using testing::HasSubstr;

// What of the elements of a command's list matters: "10 10.0.0.5 local", in order.
std::vector<std::string> hosts(const std::string& answer) {
  std::vector<std::string> hosts;
  for (std::size_t at = answer.find('{'); at != std::string::npos; at = answer.find('{', at + 1)) {
    const std::string element = answer.substr(at, answer.find('}', at) - at);
    const auto of = [&](const std::string& key) {
      const std::size_t begin = element.find("\"" + key + "\":");
      if (begin == std::string::npos) return std::string("-");
      const std::size_t from = begin + key.size() + 3;
      std::string value = element.substr(from, element.find(',', from) - from);
      std::erase(value, '"');
      return value;
    };
    hosts.push_back(of("vlan") + " " + of("ip") + " " + of("table") + " " + of("interface"));
  }
  return hosts;
}

TEST(Find, hosts_are_found_in_every_table_by_either_address) {
  Rig rig;
  const char* const kOtherMac = "02:00:00:00:00:64";
  const char* const kAt20 = "02:00:00:00:00:77";
  rig.fdb(10, kHostMac, Bridging::EntryType::learnedDynamic, "Ethernet1");
  rig.fdb(10, kOtherMac, Bridging::EntryType::evpnLearned, "core10");
  rig.remoteBinding(20, "10.0.0.7", kAt20);
  rig.remoteBinding(10, "10.0.0.30", kOtherMac);
  rig.remoteBinding(10, "10.0.0.4", kOtherMac);
  rig.start();
  const auto info = rig.root()->vlanL3InfoStatus->vlanL3Info(Vlan(10));
  for (const char* ip : {"10.0.0.20", "10.0.0.3"})
    rig.root()->localBindingRecord->createLocalBinding(
        VrfIpAddress::fromVlanL3Info(*info, *Lanix::IpGenAddr::fromStrep(ip)), {Vlan(10), mac(kHostMac)});
  rig.neighbour("10.0.0.3", kHostMac);
  const struct {
    const char* command;
    std::vector<Mox::String> arguments;
    std::vector<std::string> hosts;
  } cases[] = {
      {"bindings", {"local"}, {"10 10.0.0.3 - Ethernet1", "10 10.0.0.20 - Ethernet1"}},
      {"bindings", {"remote"}, {"10 10.0.0.4 - -", "10 10.0.0.30 - -", "20 10.0.0.7 - -"}},
      {"bindings", {"both", "vlan=10", "ip=10.0.0.20"}, {"10 10.0.0.20 local Ethernet1"}},
      {"bindings", {"both", std::string("mac=") + kAt20}, {"20 10.0.0.7 remote -"}},
      {"bindings", {"both", "vrf=none"}, {}},
      {"bindings", {"local", "interface=Ethernet2"}, {}},
      {"bindings", {"both", "interface=Ethernet1", "ip=10.0.0.3"}, {"10 10.0.0.3 local Ethernet1"}},
      {"find",
       {"10.0.0.3"},
       {"10 10.0.0.3 local Ethernet1", "10 10.0.0.3 kernel Vlan10", "10  mac Ethernet1"}},
      {"find", {"10.0.0.4"}, {"10 10.0.0.4 remote -", "10  mac core10"}},
      {"find", {kAt20}, {"20 10.0.0.7 remote -"}},
      {"find", {"10.0.0.99"}, {}},
  };
  for (const auto& test : cases) {
    const std::string answer = rig.command(test.command, test.arguments);
    EXPECT_EQ(hosts(answer), test.hosts) << answer;
  }
  rig.state<BindingOrigin>(kBindingOriginPath)->askIs([](const RemoteBindingKey& key) {
    const bool asked = key == RemoteBindingKey{Vlan(10), ip("10.0.0.4")};
    return asked ? std::optional(BindingOrigin::Origin{"zebra", 7}) : std::nullopt;
  });
  EXPECT_THAT(
      rig.command("find", {kOtherMac}),
      testing::AllOf(HasSubstr(R"("source":"zebra","ageSeconds":7)"),
                     HasSubstr(R"("10.0.0.30","mac":"02:00:00:00:00:64","table":"remote","vrf":"red",)"
                               R"("source":"by hand"})")));
  // Heard on two ports in turn, the latest time 5 s ago.
  for (const char* sender : {kHostMac, kOtherMac, kOtherMac}) {
    rig.trap(Trapped{.senderMac = sender, .senderIp = "10.0.0.40"});
    rig.clock.advance(5);
  }
  rig.settle();
  for (const char* command : {"bindings", "find"}) {
    EXPECT_THAT(rig.command(command, command[0] == 'f' ? std::vector<Mox::String>{"10.0.0.40"}
                                                       : std::vector<Mox::String>{"local", "ip=10.0.0.40"}),
                HasSubstr(R"("ageSeconds":10,"lastSeenSeconds":5,"moves":1})"));
  }
  const struct {
    const char* command;
    std::vector<Mox::String> arguments;
    const char* refusal;
  } refused[] = {
      {"bindings", {"all"}, "\"all\" is not local, remote or both"},
      {"bindings", {"local", "vlan=0"}, "vlan \"0\" is not a VLAN id from 1 to 4094"},
      {"bindings", {"local", "mac=x"}, "mac \"x\" is not a MAC address"},
      {"bindings", {"local", "10"}, "\"10\" is not vlan=, ip="},
      {"find", {"x"}, "find takes a MAC address"},
  };
  for (const auto& test : refused)
    EXPECT_THAT(rig.command(test.command, test.arguments), HasSubstr(test.refusal));
}

}  // namespace
}  // namespace ArpSuppression
