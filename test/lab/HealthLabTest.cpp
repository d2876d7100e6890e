// What `arpsup health` says of the whole switch when something is broken, and that it is good again once that
// is mended. What becomes a problem by what hosts send is with the unit tests, which have their own clock: it
// is over a minute after it happened last.

#include "lab/ManyVlans.h"
#include "lab/WholeSwitch.h"

namespace Lab {
namespace {

using Clock = std::chrono::steady_clock;

std::string textOf(const Mac& mac) {
  std::string text;
  char digits[4];
  for (const std::uint8_t byte : mac) {
    std::snprintf(digits, sizeof digits, ":%02x", static_cast<unsigned>(byte));
    text += digits;
  }
  return text.substr(1);
}

// "degraded; VLAN 10 degraded; SoftForward VLAN 10, tunnel port core11": the verdict, the VLANs that are not
// active, and each problem's plug-in and subject. A machine that is busy with something else may hold the
// event loop up, which is told for a minute and left out here.
std::string summaryOf(const json& health) {
  std::string text;
  for (const json& vlan : health["vlans"])
    if (vlan["state"] != "active")
      text += "; VLAN " + vlan["vlan"].dump() + " " + vlan["state"].get<std::string>();
  for (const json& problem : health["problems"])
    if (problem["subject"] != "event loop")
      text += "; " + problem["plugin"].get<std::string>() + " " + problem["subject"].get<std::string>();
  const std::string verdict = health["health"];
  return (verdict == "degraded" && text.empty() ? "good" : verdict) + text;
}

// Waits until the switch's health is `wanted`, and returns what it is then, as above and as an operator sees
// it.
struct Shown {
  std::string summary, text;
  json health;
};
Shown healthOf(Switch& its, const std::string& wanted) {
  const auto deadline = Clock::now() + kDaemonPatience;
  while (true) {
    const Result result = its.arpsup({"health", "--json"});
    Shown shown{result.error, {}, json::parse(result.output, nullptr, false)};
    if (!shown.health.is_object()) return shown;
    shown.summary = summaryOf(shown.health);
    const std::string verdict = shown.health["health"];
    EXPECT_EQ(result.status, verdict == "good" ? 0 : verdict == "degraded" ? 1 : 2);
    if (shown.summary == wanted || Clock::now() > deadline) {
      shown.text = its.arpsup({"health"}).output;
      return shown;
    }
    its.daemon().read(std::chrono::milliseconds(50));
  }
}

// Something that breaks, what is said of it, and what mends it.
struct Stumble {
  const char* summary;
  const char* text;  // in what an operator sees
  std::function<void()> doBreak, mend;
};

// Before the daemon can look.
void unseen(Switch& its, const std::string& commands) {
  its.daemon().signal(SIGSTOP);
  run(commands);
  its.daemon().signal(SIGCONT);
}

std::string renamed(const std::string& device, const std::string& name) {
  return "ip link set " + device + " down; ip link set " + device + " name " + name + "; ip link set " +
         name + " up";
}

// Somebody else's filter where one of ours was.
std::string taken(const std::string& port) {
  return "tc filter del dev " + port + " ingress pref 135; tc filter add dev " + port +
         " ingress pref 135 handle 1 protocol all bpf bytecode '1,6 0 0 0,'";
}

class Health : public WholeSwitch {
 protected:
  // In the namespace of the VLAN's interface.
  static void inside(const Vlan& vlan, const std::string& command) {
    const Entered entered(*vlan.where);
    run(command);
  }
  void vrfOfVlan20Is() {
    while (ifIndex("to-vlan20") != 0) switch_.daemon().read(kPatience / 100);
    vlan20_.where = &vrfs_.try_emplace("red", "red").first->second;
    vethIs("to-vlan20", "vlan20", *vlan20_.where);
    portIs("to-vlan20", vlan20_.bridge);
    inside(vlan20_, "ip addr add 10.0.20.1/24 dev vlan20; ip link set vlan20 address " +
                        textOf(macOf(vlan10_)) + " up");
  }
};

TEST_P(Health, SaysWhatIsBrokenUntilItIsMended) {
  vlan20Is();
  start({{"agents", {"KernelState", "ArpService", "SoftForward", "ArpSuppression"}},
         {"vlans", {{"20", {{"vrf", "red"}}}}}},
        {10, 20});
  const Stumble rows[] = {
      {"degraded; VLAN 10 degraded; SoftForward VLAN 10, tunnel port core11", "there is no such device",
       [] { run(renamed("core11", "core99")); }, [] { run(renamed("core99", "core11")); }},
      {"degraded; VLAN 10 degraded; SoftForward VLAN 10, tunnel port core11", "it is no port of bridge br10",
       [] { run("ip link set core11 nomaster"); }, [&] { portIs("core11", vlan10_.bridge); }},
      {"degraded; VLAN 10 degraded; SoftForward VLAN 10",
       "requests are flooded as without suppression: there is no bridge br10",
       [] { run(renamed("br10", "br99")); }, [] { run(renamed("br99", "br10")); }},
      {"degraded; VLAN 10 waiting; VLAN 20 waiting; agent-host EVPN", "EVPN over MPLS is not configured",
       [&] {
         switch_.set("evpn/status", {{"mplsConfigured", false}});
       },
       [&] {
         switch_.set("evpn/status", {{"mplsConfigured", true}});
       }},
      {"degraded; VLAN 10 degraded; agent-host VLAN 10, interface", "there is no interface vlan10",
       [&] { inside(vlan10_, renamed("vlan10", "gone")); },
       [&] { inside(vlan10_, renamed("gone", "vlan10")); }},
      {"degraded; KernelState VLAN interfaces", "give all VLAN interfaces the same",
       [&] { inside(vlan20_, "ip link set vlan20 address 02:00:00:00:00:66"); },
       [&] { inside(vlan20_, "ip link set vlan20 address " + textOf(macOf(vlan10_))); }},
      {"degraded; VLAN 20 degraded; agent-host VLAN 20, interface; agent-host VRF red",
       "there is no network namespace red", [&] { vrfs_.erase("red"); }, [&] { vrfOfVlan20Is(); }},
      {"degraded; VLAN 10 degraded; SoftForward VLAN 10, port Ethernet2", "is taken by the filter",
       [&] { unseen(switch_, taken("Ethernet2")); },
       [] { run("tc filter del dev Ethernet2 ingress pref 135"); }},
      {"degraded; VLAN 20 degraded; SoftForward VLAN 20", "device fabin20 exists, but",
       [&] { unseen(switch_, "ip link del fabin20; ip link add fabin20 type bridge"); },
       [] { linkDel("fabin20"); }},
      {"failed; VLAN 10 degraded; VLAN 20 degraded; SoftForward all VLANs", "device arpsnoop exists, but",
       [&] { unseen(switch_, "ip link del arpsnoop; ip link add arpsnoop type bridge"); },
       [] { linkDel("arpsnoop"); }},
  };
  for (const Stumble& row : rows) {
    SCOPED_TRACE(row.summary);
    row.doBreak();
    const Shown broken = healthOf(switch_, row.summary);
    EXPECT_EQ(broken.summary, row.summary);
    EXPECT_THAT(broken.text, testing::HasSubstr(row.text));
    row.mend();
    EXPECT_EQ(healthOf(switch_, "good").summary, "good");
  }
  const json shown = switch_.shown({"status"});
  EXPECT_EQ(shown["health"], "good");
  const json vlan = {{"vlan", 10},
                     {"state", "active"},
                     {"bridge", vlan10_.bridge},
                     {"accessPorts", {"to-vlan10", "Ethernet1", "Ethernet2"}},
                     {"tunnelPorts", {"core10", "core11"}},
                     {"missing", json::array()},
                     {"vrf", vlan10_.vrf},
                     {"reason", ""},
                     {"bindings", {{"local", 0}, {"remote", 1}}}};
  EXPECT_EQ(shown["vlans"][0], vlan);
}

INSTANTIATE_TEST_SUITE_P(Layouts, Health, testing::Values(kLayouts[1]), nameOf);

// Where there are many VLANs, what is broken is told at once, of the VLAN that it is broken of, and concerns no
// other one.
TEST(HealthOfMany, IsThatOfTheVlanConcerned) {
  const unsigned vlans = patienceFactor() > 1 ? 100 : 1000;
  Switch its;
  const Entered entered(its.netNs());
  const Namespace outside;
  const ManyVlans network(vlans, outside);
  json config = json::parse("{" + network.configuration() + "}");
  config["agents"] = {"KernelState", "ArpService", "SoftForward", "ArpSuppression"};
  its.start(config);
  Shown before = healthOf(its, "good");
  for (int more = 0; more < 4 && before.summary != "good"; ++more) before = healthOf(its, "good");
  ASSERT_EQ(before.summary, "good");
  const json good = before.health;
  ASSERT_EQ(good["vlans"].size(), vlans);
  const Stumble rows[] = {
      {"degraded; VLAN 50 degraded; SoftForward VLAN 50, tunnel port core50", "there is no such device",
       [] { run(renamed("core50", "core9999")); }, [] { run(renamed("core9999", "core50")); }},
      {"degraded; VLAN 50 degraded; SoftForward VLAN 50; agent-host VLAN 50, interface",
       "there is no bridge vlan50", [] { run(renamed("vlan50", "gone")); },
       [] { run(renamed("gone", "vlan50")); }},
      {"degraded; VLAN 50 degraded; SoftForward VLAN 50, port Ethernet50", "is taken by the filter",
       [&] { unseen(its, taken("Ethernet50")); },
       [] { run("tc filter del dev Ethernet50 ingress pref 135"); }},
  };
  for (const Stumble& row : rows) {
    SCOPED_TRACE(row.summary);
    row.doBreak();
    const auto begin = Clock::now();
    Shown broken = healthOf(its, row.summary);
    const double took = std::chrono::duration<double>(Clock::now() - begin).count();
    EXPECT_EQ(broken.summary, row.summary);
    EXPECT_THAT(broken.text, testing::HasSubstr(row.text));
    json& ofVlan50 = broken.health["vlans"][49];
    ofVlan50 = good["vlans"][49];
    EXPECT_EQ(broken.health["vlans"], good["vlans"]) << "of the others";
    row.mend();
    EXPECT_EQ(healthOf(its, "good").health["vlans"], good["vlans"]);
    printf("%s: told after %.2f s\n", row.summary, took);
  }
}

}  // namespace
}  // namespace Lab
