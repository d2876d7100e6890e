#include "lab/WholeSwitch.h"

// What `arpsup health` says of the whole switch when something is broken, and that it is good again once that
// is mended.

namespace Lab {
namespace {

std::string textOf(const Mac& mac) {
  std::string text;
  char digits[4];
  for (const std::uint8_t byte : mac) {
    std::snprintf(digits, sizeof digits, ":%02x", static_cast<unsigned>(byte));
    text += digits;
  }
  return text.substr(1);
}

class Health : public WholeSwitch {
 protected:
  // "good", or the verdict and each problem's plug-in and subject; waits until it is what is wanted.
  std::string health(const std::string& wanted) {
    const auto deadline = std::chrono::steady_clock::now() + kDaemonPatience;
    while (true) {
      const Result result = switch_.arpsup({"health", "--json"});
      const json shown = json::parse(result.output, nullptr, false);
      if (!shown.is_object()) return result.error;
      std::string had = shown["health"];
      EXPECT_EQ(result.status, had == "good" ? 0 : had == "degraded" ? 1 : 2);
      for (const json& problem : shown["problems"])
        had += "; " + problem["plugin"].get<std::string>() + " " + problem["subject"].get<std::string>();
      if (had == wanted || std::chrono::steady_clock::now() > deadline) return had;
      switch_.daemon().read(std::chrono::milliseconds(50));
    }
  }
  // In the namespace of the VLAN's interface.
  static void inside(const Vlan& vlan, const std::string& command) {
    const Entered entered(*vlan.where);
    run(command);
  }
};

TEST_P(Health, SaysWhatIsBrokenUntilItIsMended) {
  vlan20Is();
  start({{"agents", {"KernelState", "ArpService", "SoftForward", "ArpSuppression"}}}, {10, 20});
  const std::string gone = "ip link set vlan10 down; ip link set vlan10 name gone";
  const std::string back = "ip link set gone name vlan10; ip link set vlan10 up";
  const struct {
    const char* broken;
    std::function<void()> doBreak, mend;
  } rows[] = {
      {"degraded; SoftForward VLAN 10, tunnel port core11",
       [] { KernelState::renameLink("core11", "core99"); },
       [] { KernelState::renameLink("core99", "core11"); }},
      {"degraded; SoftForward VLAN 10, tunnel port core11", [] { run("ip link set core11 nomaster"); },
       [&] { portIs("core11", vlan10_.bridge); }},
      {"degraded; agent-host EVPN",
       [&] {
         switch_.set("evpn/status", {{"mplsConfigured", false}});
       },
       [&] {
         switch_.set("evpn/status", {{"mplsConfigured", true}});
       }},
      {"degraded; agent-host VLAN 10, interface", [&] { inside(vlan10_, gone); },
       [&] { inside(vlan10_, back); }},
      {"degraded; KernelState VLAN interfaces",
       [&] { inside(vlan20_, "ip link set vlan20 address 02:00:00:00:00:66"); },
       [&] { inside(vlan20_, "ip link set vlan20 address " + textOf(macOf(vlan10_))); }},
  };
  for (const auto& row : rows) {
    row.doBreak();
    EXPECT_EQ(health(row.broken), row.broken);
    row.mend();
    EXPECT_EQ(health("good"), "good") << row.broken;
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

}  // namespace
}  // namespace Lab
