#include <algorithm>
#include <functional>

#include "ArpSuppression/Problems.h"
#include "Lanix/NetlinkSocket.h"
#include "Mox/Error.h"
#include "Orb/FeatureSwitch.h"
#include "Rig.h"

namespace ArpSuppression {
namespace {

using Lines = std::vector<std::string>;

constexpr char kMac1[] = "02:00:00:00:00:01";
constexpr char kMac2[] = "02:00:00:00:00:02";

// A running agent with EVPN on VLANs 10 and 20. VLAN 20 (Vlan20, index 8) is in red as well.
class ArpInput : public testing::Test {
 protected:
  void SetUp() override {
    rig.evpn()->vlanToDot1qIs(Vlan(20), 20);
    rig.vlanInterface(20, "red", 8, "10.0.20.1/24");
  }
  void TearDown() override {
    EXPECT_EQ(rig.errors, "");
    Orb::FeatureSwitch::sourceIs({});
  }
  void start() {
    rig.start();
    rig.takeCounters(Rig::Of::arpInput);
  }

  Ptr<Arp::ArpInputConfig> output() {
    return rig.state<Arp::ArpInputConfig>("arp/input/config/arpSuppression");
  }
  // "red 10.0.0.5 Vlan10 02:... 0", with " dynamic" behind it where it is; in order.
  Lines entries() {
    Lines lines;
    const auto add = [&](const std::string& vrf, const std::string& address,
                         const Arp::ArpEntryInput& entry) {
      lines.push_back(vrf + " " + address + " " + entry.intf.toStrep() + " " + entry.mac.toStrep() + " " +
                      std::to_string(entry.arpType) + (entry.dynamic ? " dynamic" : ""));
    };
    for (const auto& [vrf, config] : output()->vrfCollection()) {
      for (const auto& [address, entry] : config->ipv4Collection()) add(vrf, address.toStrep(), entry);
      for (const auto& [key, entry] : config->ipv6Collection()) {
        EXPECT_EQ(key.intf, entry.intf);
        add(vrf, key.addr.toStrep(), entry);
      }
    }
    std::sort(lines.begin(), lines.end());
    return lines;
  }
  VrfIpAddress key(std::uint32_t vlan, const char* address) {
    return VrfIpAddress::fromVlanL3Info(*rig.root()->vlanL3InfoStatus->vlanL3Info(Vlan(vlan)), ip(address));
  }
  Ptr<LocalBinding> local(std::uint32_t vlan, const char* address, const char* macText = kMac1) {
    const auto binding =
        rig.root()->localBindingRecord->createLocalBinding(key(vlan, address), {Vlan(vlan), mac(macText)});
    rig.settle();
    return binding;
  }
  void remote(std::uint32_t vlan, const char* address, const char* macText, bool multihomed = false) {
    rig.remoteBinding(vlan, address, macText, multihomed);
    rig.settle();
  }
  void noRemote(std::uint32_t vlan, const char* address) {
    rig.noRemoteBinding(vlan, address);
    rig.settle();
  }
  Ptr<Arp::Table::Status> kernel() { return rig.table<Arp::Table::Status>("arp/status"); }
  void selective(bool on) {
    rig.state<Routing::L2Vpn::Config>("routing/l2vpn/config")->selectiveArpInstallIs(on);
    rig.settle();
  }
  // The named switch is off.
  void off(const char* name) {
    Orb::FeatureSwitch::sourceIs([name](const std::string&, const std::string& asked) -> std::optional<bool> {
      return asked == name ? std::optional(false) : std::nullopt;
    });
  }

  Rig rig;
};

TEST_F(ArpInput, bindingsOfBothFamiliesAreProgrammedInTheVrfOfTheirVlan) {
  start();
  remote(10, "10.0.0.5", kMac1);
  remote(10, "2001:db8::5", kMac1);
  remote(10, "fe80::5", kMac1);
  remote(20, "fe80::5", kMac2);
  EXPECT_THAT(
      entries(),
      ElementsAre("red 10.0.0.5 Vlan10 02:00:00:00:00:01 0", "red 2001:db8::5 Vlan10 02:00:00:00:00:01 0",
                  "red fe80::5 Vlan10 02:00:00:00:00:01 0", "red fe80::5 Vlan20 02:00:00:00:00:02 0"));
  EXPECT_EQ(rig.takeCounters(Rig::Of::arpInput), "arpInputNewRemote=4");
  // Everything again: nothing is written.
  rig.rootSm()->arpInputConfigSm()->reevaluate();
  rig.settle();
  EXPECT_EQ(rig.takeCounters(Rig::Of::arpInput), "");
  EXPECT_THAT(rig.netlinkSockets.neighbours(), IsEmpty());

  // A global address that moves to another VLAN leaves nothing behind; the link-local one of a VLAN goes
  // alone.
  rig.noRemoteBinding(10, "2001:db8::5");
  remote(20, "2001:db8::5", kMac1);
  noRemote(10, "fe80::5");
  EXPECT_THAT(entries(), ElementsAre("red 10.0.0.5 Vlan10 02:00:00:00:00:01 0",
                                     "red 2001:db8::5 Vlan20 02:00:00:00:00:01 0",
                                     "red fe80::5 Vlan20 02:00:00:00:00:02 0"));
  noRemote(10, "10.0.0.5");
  EXPECT_EQ(entries().size(), 2u) << "the last IPv4 neighbour of a VRF takes none of IPv6 along";
  // Entries on no interface, which somebody else left, hide none of the address and go with it.
  for (const char* address : {"2001:db8::5", "2001:db8::6", "fe80::6"}) {
    for (const Lanix::IntfId& where : {Lanix::IntfId(), intf("Vlan10")})
      output()->vrf("red")->ipv6Is({ip(address).ipv6(), where}, {mac(kMac2), where, 0, false});
  }
  rig.rootSm()->arpInputConfigSm()->reevaluate();
  rig.settle();
  EXPECT_THAT(entries(), ElementsAre("red 2001:db8::5 Vlan20 02:00:00:00:00:01 0",
                                     "red fe80::5 Vlan20 02:00:00:00:00:02 0"));
  noRemote(20, "2001:db8::5");
  noRemote(20, "fe80::5");
  EXPECT_EQ(output()->vrfs(), 0u);
}

TEST_F(ArpInput, theFirstStationOfAnAddressCountsUntilItIsWithdrawn) {
  start();
  remote(20, "10.0.0.5", kMac2);
  remote(10, "10.0.0.5", kMac1);
  EXPECT_THAT(entries(), ElementsAre("red 10.0.0.5 Vlan20 02:00:00:00:00:02 0"));
  noRemote(20, "10.0.0.5");
  EXPECT_THAT(entries(), ElementsAre("red 10.0.0.5 Vlan10 02:00:00:00:00:01 0"));
  remote(10, "10.0.0.5", kMac2);
  EXPECT_THAT(entries(), ElementsAre("red 10.0.0.5 Vlan10 02:00:00:00:00:02 0"));
  EXPECT_EQ(rig.takeCounters(Rig::Of::arpInput), "arpInputNewRemote=1 arpInputUpdatedRemote=2");
}

TEST_F(ArpInput, aLocalBindingWinsAndGoesIntoTheKernelAtOnce) {
  start();
  remote(10, "10.0.0.5", kMac2);
  const auto binding = local(10, "10.0.0.5");
  local(10, "fe80::7");
  EXPECT_THAT(entries(), ElementsAre("red 10.0.0.5 Vlan10 02:00:00:00:00:01 1",
                                     "red fe80::7 Vlan10 02:00:00:00:00:01 1"));
  EXPECT_THAT(rig.netlinkSockets.neighbours(),
              ElementsAre("red 7 10.0.0.5 02:00:00:00:00:01 state=2 protocol=110",
                          "red 7 fe80::7 02:00:00:00:00:01 state=2 protocol=110"));
  EXPECT_EQ(rig.takeCounters(Rig::Of::arpInput),
            "kernelInstallSuccess=2 arpInputNewLocal=1 arpInputNewRemote=1 arpInputUpdatedLocal=1");
  rig.root()->localBindingRecord->deleteLocalBinding(binding);
  EXPECT_THAT(entries(), ElementsAre("red 10.0.0.5 Vlan10 02:00:00:00:00:02 0",
                                     "red fe80::7 Vlan10 02:00:00:00:00:01 1"));
  // What the kernel refuses, or does not answer in time, is configured all the same.
  rig.netlinkSockets.refusesRequestsWith(ENOBUFS);
  local(10, "10.0.0.8");
  EXPECT_TRUE(problems().has("kernel neighbours of local hosts"));
  rig.netlinkSockets.refusesRequestsWith(0);
  rig.netlinkSockets.answersLate(1);
  local(10, "10.0.0.9");
  EXPECT_EQ(entries().size(), 4u);
  EXPECT_EQ(rig.takeCounters(Rig::Of::arpInput),
            "kernelInstallFailed=2 arpInputNewLocal=2 arpInputUpdatedRemote=1");
  // The late answer is not taken for the next one's.
  rig.netlinkSockets.refusesRequestsWith(EPERM);
  rig.netlinkSockets.says({std::byte{1}});
  rig.netlinkSockets.says(std::vector<std::byte>(16, std::byte{0xff}));
  local(10, "10.0.0.10");
  EXPECT_EQ(rig.takeCounters(Rig::Of::arpInput), "kernelInstallFailed=1 arpInputNewLocal=1");
}

// What one turn asks for goes to the kernel together and nothing is waited for; what is too much for a turn,
// with the next ones. A VRF that has left by then gets nothing.
TEST_F(ArpInput, neighboursOfATurnGoIntoTheKernelTogether) {
  rig.vrf("blue", 6);
  rig.vlanInterface(20, "blue", 8, "10.0.20.1/24");
  start();
  const auto learn = [&](std::uint32_t vlan, int bindings) {
    static int number = 0;
    for (int i = 0; i < bindings; ++i, ++number) {
      const std::string address = "10.1." + std::to_string(number / 250) + "." + std::to_string(number % 250);
      rig.root()->localBindingRecord->createLocalBinding(key(vlan, address.c_str()),
                                                         {Vlan(vlan), mac(kMac1)});
    }
  };
  const struct {
    const char* what;
    int sendError;
    bool vrfLeaves;
    std::vector<int> datagrams;
    const char* counters;
  } cases[] = {
      {"one datagram a VRF", 0, false, {3, 3}, "kernelInstallSuccess=6"},
      {"the socket refuses", EPERM, false, {}, "kernelInstallFailed=6"},
      {"blue has left", 0, true, {3}, "kernelInstallSuccess=3 kernelInstallFailed=3"},
  };
  for (const auto& test : cases) {
    SCOPED_TRACE(test.what);
    for (int i = 0; i < 3; ++i) {
      learn(10, 1);
      learn(20, 1);
    }
    rig.netlinkSockets.failsToSendWith(test.sendError);
    if (test.vrfLeaves) rig.noVrf("blue");
    rig.turn();
    EXPECT_EQ(rig.netlinkSockets.takeDatagrams(), test.datagrams);
    EXPECT_THAT(rig.takeCounters(Rig::Of::arpInput), testing::HasSubstr(test.counters));
    rig.netlinkSockets.failsToSendWith(0);
    rig.settle();
    rig.takeCounters(Rig::Of::arpInput);
  }
  learn(10, 300);
  rig.settle();
  EXPECT_THAT(rig.netlinkSockets.takeDatagrams(), ElementsAre(64, 64, 64, 64, 44));
  EXPECT_EQ(rig.takeCounters(Rig::Of::arpInput), "kernelInstallSuccess=300 arpInputNewLocal=300");
}

// What the kernel has for the address of a local binding decides whether an entry is needed.
TEST_F(ArpInput, theKernelsOwnNeighbourTakesOver) {
  start();
  const struct {
    const char* what;
    Arp::Table::ArpEntry entry;
    bool programmed;
    bool dynamicSeen;
  } cases[] = {{"dynamic", {mac(kMac1), false, 0}, false, true},
               {"an operator's", {mac(kMac1), true, Arp::Table::kArpTypeForeign}, false, false},
               {"our own", {mac(kMac1), true, Arp::Table::kArpTypeOwn}, true, false}};
  for (const auto& test : cases) {
    const Arp::Table::ArpKey arpKey{5, ip("10.0.0.5"), intf("Vlan10")};
    for (const bool before : {false, true}) {  // it was there before the binding
      if (before) kernel()->arpEntryIs(arpKey, test.entry);
      rig.settle();
      auto binding = local(10, "10.0.0.5");
      if (!before) kernel()->arpEntryIs(arpKey, test.entry);
      rig.settle();
      EXPECT_EQ(entries().size(), test.programmed ? 1u : 0u) << test.what;
      EXPECT_EQ(binding->arpStatusHasDynamicEntry(), test.dynamicSeen) << test.what;
      kernel()->arpEntryDel(arpKey);
      rig.settle();
      // With the dynamic neighbour goes the binding; otherwise its entry is needed again.
      binding = rig.root()->localBindingRecord->binding(key(10, "10.0.0.5"));
      EXPECT_EQ(binding == nullptr, test.dynamicSeen) << test.what;
      EXPECT_EQ(entries().size(), test.dynamicSeen ? 0u : 1u) << test.what;
      if (binding) rig.root()->localBindingRecord->deleteLocalBinding(binding);
      EXPECT_THAT(entries(), IsEmpty()) << test.what;
    }
  }
  // A dynamic neighbour that becomes static ends the binding too.
  const auto binding = local(10, "10.0.0.5");
  rig.neighbour("10.0.0.5", kMac1);
  rig.settle();
  rig.neighbour("10.0.0.5", kMac1, true);
  rig.settle();
  EXPECT_EQ(rig.root()->localBindingRecord->bindings(), 0u);
}

TEST_F(ArpInput, neighboursElsewhereSayNothingAboutABinding) {
  start();
  const auto binding = local(10, "10.0.0.5");
  for (const auto& [vrfId, address, intfName] : {std::tuple{6u, ip("10.0.0.5"), "Vlan10"},
                                                 {5u, ip("10.0.0.5"), "Vlan20"},
                                                 {5u, ip("10.0.0.5"), "Ethernet1"},
                                                 {5u, Lanix::IpGenAddr(), "Vlan10"},
                                                 {5u, ip("10.0.0.6"), "Vlan10"}}) {
    kernel()->arpEntryIs({vrfId, address, intf(intfName)}, {mac(kMac2), false, 0});
    rig.settle();
    kernel()->arpEntryDel({vrfId, address, intf(intfName)});
    rig.settle();
  }
  EXPECT_FALSE(binding->arpStatusHasDynamicEntry());
  EXPECT_THAT(entries(), ElementsAre("red 10.0.0.5 Vlan10 02:00:00:00:00:01 1"));
}

TEST_F(ArpInput, selectiveInstallationOnlyUpdatesWhatIsThere) {
  start();
  remote(10, "10.0.0.5", kMac1);
  local(10, "10.0.0.6");
  selective(true);
  remote(10, "10.0.0.5", kMac2);        // updates
  remote(10, "10.0.0.6", kMac2);        // the entry of the local binding stays
  remote(10, "10.0.0.7", kMac1);        // creates nothing
  remote(10, "10.0.0.8", kMac1, true);  // the host is behind this switch as well
  remote(10, "10.0.0.9", kMac1, true);  // so is this one, but it is claimed twice
  remote(20, "10.0.0.9", kMac2);
  rig.root()->arpInputConfigTrigger->event(key(10, "10.0.0.11"), true);  // nothing known: nothing happens
  const Lines expected{"red 10.0.0.5 Vlan10 02:00:00:00:00:02 0", "red 10.0.0.6 Vlan10 02:00:00:00:00:01 1",
                       "red 10.0.0.8 Vlan10 02:00:00:00:00:01 0", "red 10.0.0.9 Vlan10 02:00:00:00:00:01 0"};
  EXPECT_EQ(entries(), expected);
  // The switch itself asks for the address.
  rig.root()->arpInputConfigTrigger->event(key(10, "10.0.0.7"), true);
  EXPECT_EQ(entries().size(), 5u);
  noRemote(10, "10.0.0.7");
  // Of two members the first is behind this switch as well; only when it is alone it counts.
  remote(10, "10.0.0.13", kMac1);
  remote(20, "10.0.0.13", kMac2);
  remote(10, "10.0.0.13", kMac1, true);
  EXPECT_EQ(entries(), expected);
  noRemote(20, "10.0.0.13");
  EXPECT_EQ(entries().size(), 5u);
  noRemote(10, "10.0.0.13");
  remote(10, "10.0.0.13", kMac1);  // not behind this switch any more: nothing is refreshed when it goes
  noRemote(10, "10.0.0.13");
  EXPECT_EQ(entries(), expected);
  off("LocalMultihomeSelectiveArpInstall");
  remote(10, "10.0.0.12", kMac1, true);
  EXPECT_EQ(entries(), expected);
  selective(false);
  EXPECT_EQ(entries().size(), 5u);
}

// The other switch of the segment withdraws; the kernel here is left to find out whether the host still is
// there.
TEST_F(ArpInput, aMultihomedHostIsRefreshedOnceWhenItsRemoteBindingGoes) {
  start();
  for (const char* address : {"10.0.0.5", "2001:db8::5", "fe80::5"}) {
    remote(10, address, kMac1, true);
    rig.takeCounters(Rig::Of::arpInput);
    noRemote(10, address);
    EXPECT_THAT(entries(),
                ElementsAre(std::string("red ") + address + " Vlan10 02:00:00:00:00:01 1 dynamic"));
    EXPECT_EQ(rig.takeCounters(Rig::Of::arpInput), "kernelInstallSuccess=1 arpInputUpdatedLocal=1");
    rig.rootSm()->arpInputConfigSm()->reevaluate();
    rig.settle();
    EXPECT_THAT(entries(), IsEmpty());
  }
  EXPECT_EQ(rig.netlinkSockets.neighbours().size(), 3u);
  EXPECT_EQ(rig.rootSm()->arpInputConfigSm()->localMultihomedRemoteBindings(), 0u);

  // Not when it was not on a shared segment any more, when the switch is off, or in another VRF than it was.
  remote(10, "10.0.0.6", kMac1, true);
  remote(10, "10.0.0.6", kMac1, false);
  noRemote(10, "10.0.0.6");
  EXPECT_THAT(entries(), IsEmpty());
  remote(10, "10.0.0.7", kMac1, true);
  off("EvpnMplsProxyArpRefresh");
  noRemote(10, "10.0.0.7");
  EXPECT_THAT(entries(), IsEmpty());
  Orb::FeatureSwitch::sourceIs({});
  rig.vrf("blue", 6);
  rig.device("blue", "vlan10", 9);
  remote(10, "10.0.0.8", kMac1, true);
  rig.vlanInterface(10, "blue", 9);
  rig.settle();
  EXPECT_THAT(entries(), ElementsAre("blue 10.0.0.8 Vlan10 02:00:00:00:00:01 0"));
}

TEST_F(ArpInput, entriesFollowTheirVlanThroughVrfsAndOutOfThem) {
  rig.vrf("blue", 6);
  rig.device("blue", "vlan10", 9);
  start();
  remote(10, "10.0.0.5", kMac1);
  local(10, "10.0.0.6");
  local(20, "10.0.20.6");
  rig.vlanInterface(10, "blue", 9);
  rig.settle();
  // The local binding stays under the VRF that it was learned in, where its VLAN is not any more.
  EXPECT_THAT(entries(), ElementsAre("blue 10.0.0.5 Vlan10 02:00:00:00:00:01 0",
                                     "red 10.0.20.6 Vlan20 02:00:00:00:00:01 1"));
  EXPECT_NE(rig.counter(ArpSuppressionCounterId::arpInputNoVlanL3Info), 0u);
  EXPECT_EQ(rig.netlinkSockets.neighbours().size(), 2u);

  for (const bool usable : {false, true}) {  // the device goes, and comes back as another
    rig.device("blue", "vlan10", usable ? 11 : 0);
    rig.settle();
    EXPECT_EQ(entries().size(), usable ? 2u : 1u);
  }
  rig.noVrf("red");
  rig.settle();
  EXPECT_THAT(entries(), ElementsAre("blue 10.0.0.5 Vlan10 02:00:00:00:00:01 0"));
  rig.noVlanInterface(10);
  rig.settle();
  EXPECT_EQ(output()->vrfs(), 0u);
}

// An earlier run left entries. The VRF may come late, as from a kernel that is still being read, and so may
// the remote bindings: they are read an entry a slice, when VLANs and VRFs have long been looked at.
TEST_F(ArpInput, aRestartRemovesExactlyWhatIsStale) {
  const Arp::ArpEntryInput good{mac(kMac1), intf("Vlan10"), 0, false};
  enum class Late { nothing, vrf, bindings, kernel };  // the last: what is read of it never comes
  for (const Late what : {Late::nothing, Late::vrf, Late::bindings, Late::kernel}) {
    SCOPED_TRACE(static_cast<int>(what));
    const bool vrfLate = what == Late::vrf || what == Late::kernel;
    Rig late;
    const auto readiness = Mox::dynamicPtrCast<Switch::Readiness>(
        *late.tree().entityIs(Switch::kReadinessPath, Switch::kReadinessType));
    if (vrfLate) readiness->awaitedIs("KernelState", "the kernel");
    if (what == Late::bindings) late.tasks().mustYieldForTestIs([] { return true; });
    const auto left = late.state<Arp::ArpInputConfig>("arp/input/config/arpSuppression");
    const auto red = left->vrfIs("red");
    red->ipv4Is(ip("10.0.0.5").ipv4(), good);
    red->ipv4Is(ip("10.0.0.6").ipv4(), good);
    red->ipv6Is({ip("2001:db8::5").ipv6(), intf("Vlan10")}, good);
    red->ipv6Is({ip("2001:db8::5").ipv6(), intf("Vlan20")}, good);
    red->ipv6Is({ip("2001:db8::6").ipv6(), intf("Vlan10")}, good);
    left->vrfIs("gone")->ipv4Is(ip("10.0.0.5").ipv4(), good);
    left->vrfIs("");
    late.remoteBinding(10, "10.0.0.5", kMac1);
    late.remoteBinding(10, "2001:db8::5", kMac1);
    late.remoteBinding(10, "10.0.0.7", kMac1);
    for (int i = 1; i <= 100; ++i) {
      const std::string address = "10.0.1." + std::to_string(i);
      red->ipv4Is(ip(address.c_str()).ipv4(), good);
      late.remoteBinding(10, address.c_str(), kMac1);
    }
    if (vrfLate) late.noVrf("red");
    bool absent = false;
    Mox::Notifiee<Arp::ArpInputVrfConfig> watch(red);
    watch.on(Arp::ArpInputVrfConfig::ipv4Changed, [&](const Lanix::IpAddr& address) {
      absent = absent || (address != ip("10.0.0.6").ipv4() && address != ip("10.0.0.7").ipv4());
    });
    late.start();
    if (vrfLate) {
      late.clock.advance(ArpInputConfigSm::kLongestTakeOverSeconds / 2);
      late.settle();
      EXPECT_EQ(red->ipv4s(), 102u);
      if (what == Late::kernel) {
        late.clock.advance(ArpInputConfigSm::kLongestTakeOverSeconds / 2);
        late.settle();
        EXPECT_EQ(left->vrfs(), 0u);
        continue;
      }
      readiness->awaitedIs("KernelState", "");
      late.vrf("red", 5);
      late.settle();
    }
    EXPECT_FALSE(absent);
    EXPECT_EQ(left->vrf("red"), red);
    EXPECT_FALSE(red->ipv4Has(ip("10.0.0.6").ipv4()));
    EXPECT_TRUE(red->ipv4Has(ip("10.0.0.7").ipv4()));
    EXPECT_EQ(red->ipv6s(), 1u);
    EXPECT_TRUE(red->ipv6Has({ip("2001:db8::5").ipv6(), intf("Vlan10")}));
    late.clock.advance(ArpInputConfigSm::kTakeOverSeconds);
    late.settle();
    EXPECT_EQ(left->vrfs(), 1u);
    EXPECT_EQ(late.errors, "");
  }
}

// The walk gives way after every entry; what its bookmark names goes before the next slice.
TEST_F(ArpInput, theWalkResumesInEveryStageWhateverGoesMeanwhile) {
  start();
  for (int i = 1; i <= 20; ++i) {
    const std::string last = std::to_string(i);
    rig.remoteBinding(10, ("10.0.0." + last).c_str(), kMac1);
    rig.remoteBinding(10, ("2001:db8::" + last).c_str(), kMac1);
    rig.root()->localBindingRecord->createLocalBinding(key(20, ("10.0.20." + last).c_str()),
                                                       {Vlan(20), mac(kMac1)});
  }
  rig.settle();
  const Lines before = entries();
  ASSERT_EQ(before.size(), 60u);
  const auto sm = rig.rootSm()->arpInputConfigSm();
  const auto stale = [&] {
    for (const char* vrf : {"aaa", "red", "zzz"}) {
      const auto config = output()->vrfIs(vrf);
      for (int i = 1; i <= 9; ++i) {
        config->ipv4Is(ip(("10.9.0." + std::to_string(i)).c_str()).ipv4(),
                       {mac(kMac2), intf("Vlan10"), 0, false});
        config->ipv6Is({ip(("fe80::" + std::to_string(i)).c_str()).ipv6(), intf("Vlan20")},
                       {mac(kMac2), intf("Vlan20"), 0, false});
      }
    }
  };
  rig.tasks().mustYieldForTestIs([] { return true; });
  stale();
  sm->reevaluate();
  rig.settle();
  EXPECT_EQ(entries(), before);

  // The entry that the walk would resume at goes, and now and then its VRF.
  stale();
  rig.root()->vlanL3InfoStatus->vrfInfoIs("aaa");
  sm->reevaluate();
  std::array<int, 3> slices{};
  bool ipv6Bookmark = false;
  for (int turns = 0; rig.turn() && turns < 1000; ++turns) {
    ++slices[static_cast<std::size_t>(sm->walkStage())];
    const ArpInputConfigBookmark bookmark = sm->arpInputConfigBookmark();
    ipv6Bookmark = ipv6Bookmark || bookmark.ipAddress.isIpv6();
    if (turns % 3 != 0 || bookmark.vrfName.empty()) continue;
    const auto config = output()->vrf(bookmark.vrfName);
    ASSERT_TRUE(config);
    if (bookmark.vrfName != "red")
      output()->vrfDel(bookmark.vrfName);
    else if (bookmark.ipAddress.toStrep().starts_with("10.9."))
      config->ipv4Del(bookmark.ipAddress.ipv4());
  }
  EXPECT_EQ(entries(), before);
  EXPECT_TRUE(ipv6Bookmark);
  for (const int count : slices) EXPECT_GE(count, 5);  // two slices a turn
}

// Everything is decided again, whatever the walk has behind it in any of its stages.
TEST_F(ArpInput, reevaluationInTheMiddleOfAWalkBeginsAgain) {
  start();
  for (int i = 1; i <= 20; ++i) {
    rig.remoteBinding(10, ("10.0.0." + std::to_string(i)).c_str(), kMac1);
    rig.root()->localBindingRecord->createLocalBinding(key(20, ("10.0.20." + std::to_string(i)).c_str()),
                                                       {Vlan(20), mac(kMac1)});
  }
  rig.settle();
  const Lines all = entries();
  ASSERT_EQ(all.size(), 40u);
  const auto sm = rig.rootSm()->arpInputConfigSm();
  rig.tasks().mustYieldForTestIs([] { return true; });
  for (const WalkStage stage : {WalkStage::walkLocalBindingRecord, WalkStage::walkRemoteBindingStatus,
                                WalkStage::walkArpInputConfig}) {
    SCOPED_TRACE(static_cast<int>(stage));
    sm->reevaluate();
    while (sm->walkStage() != stage && rig.turn()) {
    }
    for (int turns = 0; turns < 3; ++turns) rig.turn();
    ASSERT_EQ(sm->walkStage(), stage);
    output()->vrfDelAll();
    sm->reevaluate();
    rig.settle();
    EXPECT_EQ(entries(), all);
  }
}

// A station with a remote binding moves here, on a VLAN whose neighbours are advertised to other switches.
TEST_F(ArpInput, whatMovesHereIsAskedForWhereNeighboursAreAdvertised) {
  const auto confirmation = rig.state<Arp::Confirmation>(Arp::kConfirmationPath);
  const Arp::HostAddress asked{Vlan(10), ip("10.0.0.5")};
  confirmation->vlanIs(Vlan(10));
  start();
  const auto moved = [&](std::uint32_t vlan = 10) {
    rig.fdb(static_cast<Bridging::Fid>(vlan), kMac1, Bridging::EntryType::learnedDynamic, "Ethernet1");
    rig.settle();
  };
  const std::string entry = "red 10.0.0.5 Vlan10 02:00:00:00:00:01 ";
  const struct {
    const char* what;
    std::function<void()> happens;
    std::size_t bindings;
    Lines entries;
    std::uint64_t installed;  // in the kernel, straight
  } cases[] = {
      {"nothing yet", [] {}, 1, {entry + "2"}, 0},
      {"the MAC is heard of again", [&] { moved(); }, 1, {entry + "2"}, 0},
      {"nobody answers", [&] { confirmation->silentIs(asked); }, 0, {}, 0},
      {"an address of another VLAN is silent",
       [&] {
         confirmation->silentIs({Vlan(20), asked.address});
       },
       1,
       {entry + "2"},
       0},
      {"silent for a moment",
       [&] { confirmation->silentIs(asked), confirmation->silentDel(asked); },
       1,
       {entry + "2"},
       0},
      {"its own request",
       [&] { rig.trap(Trapped{.senderMac = kMac1, .senderIp = "10.0.0.5"}); },
       1,
       {entry + "1"},
       1},
      {"silent after its own request",
       [&] { rig.trap(Trapped{.senderMac = kMac1, .senderIp = "10.0.0.5"}), confirmation->silentIs(asked); },
       1,
       {entry + "1"},
       1},
      {"it answers", [&] { rig.neighbour("10.0.0.5", kMac1); }, 1, {}, 0},
      {"it answers, and goes later",
       [&] {
         rig.neighbour("10.0.0.5", kMac1), rig.settle();
         kernel()->arpEntryDel({5, asked.address, intf("Vlan10"), {}});
       },
       0,
       {},
       0},
      {"another station answers", [&] { rig.neighbour("10.0.0.5", kMac2); }, 0, {}, 0},
      {"neighbours are not advertised any more",
       [&] { confirmation->vlanDel(Vlan(10)); },
       1,
       {entry + "1"},
       1},
  };
  for (const auto& item : cases) {
    SCOPED_TRACE(item.what);
    const auto installs = [&] { return rig.counter(ArpSuppressionCounterId::kernelInstallSuccess); };
    const std::uint64_t before = installs();
    remote(10, "10.0.0.5", kMac1);
    moved();
    noRemote(10, "10.0.0.5");
    item.happens();
    rig.settle();
    EXPECT_EQ(rig.root()->localBindingRecord->bindings(), item.bindings);
    EXPECT_EQ(entries(), item.entries);
    EXPECT_EQ(installs() - before, item.installed);
    rig.table<Memtab::Bridging::Status>("bridging/status")->fdbDel({10, mac(kMac1)});
    kernel()->arpEntryDel({5, asked.address, intf("Vlan10"), {}});
    confirmation->silentDelAll();
    rig.settle();
    ASSERT_EQ(rig.root()->localBindingRecord->bindings(), 0u);
  }
  // On a VLAN whose neighbours stay on this switch it is believed at once.
  remote(20, "10.0.20.5", kMac1);
  moved(20);
  EXPECT_THAT(entries(), ElementsAre("red 10.0.20.5 Vlan20 02:00:00:00:00:01 1"));
}

TEST_F(ArpInput, anErrorInAWalkCostsTheEntryThatMetIt) {
  const auto red = output()->vrfIs("red");
  for (const char* address : {"10.9.0.1", "10.9.0.2", "10.9.0.3"})
    red->ipv4Is(ip(address).ipv4(), {mac(kMac2), intf("Vlan10"), 0, false});
  int raised = 0;
  Mox::Notifiee<Arp::ArpInputVrfConfig> raises(red);
  raises.on(Arp::ArpInputVrfConfig::ipv4Changed, [&](const Lanix::IpAddr& address) {
    if (address != ip("10.0.0.5").ipv4() && ++raised == 1) throw Mox::RangeError("raised by the test");
  });
  rig.remoteBinding(10, "10.0.0.5", kMac1);
  start();
  EXPECT_THAT(entries(), ElementsAre("red 10.0.0.5 Vlan10 02:00:00:00:00:01 0"));
  EXPECT_EQ(raised, 3);
  EXPECT_EQ(std::exchange(rig.errors, ""), "ArpInputConfigSm: raised by the test\n");
}

}  // namespace
}  // namespace ArpSuppression
