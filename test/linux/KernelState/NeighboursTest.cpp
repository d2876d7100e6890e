#include <linux/neighbour.h>

#include "Fixture.h"

namespace KernelState {
namespace {

class NeighboursTest : public AgentTest {
 protected:
  NeighboursTest() { redComes(); }
};

TEST_F(NeighboursTest, StatesOfTheKernelBecomeEntries) {
  starts();
  const std::string mac = "02:00:00:00:00:01";
  const struct {
    const char* what;
    FakeKernel::Neighbour neighbour;
    const char* entry;  // behind the key; null: none
  } cases[] = {
      {"reachable", {mac, NUD_REACHABLE, 0, {}}, "02:00:00:00:00:01 false 0"},
      {"stale", {mac, NUD_STALE, 0, {}}, "02:00:00:00:00:01 false 0"},
      {"delay", {mac, NUD_DELAY, 0, {}}, "02:00:00:00:00:01 false 0"},
      {"probe", {mac, NUD_PROBE, 0, {}}, "02:00:00:00:00:01 false 0"},
      {"dynamic of this system", {mac, NUD_REACHABLE, 0, 110}, "02:00:00:00:00:01 false 0"},
      {"permanent", {mac, NUD_PERMANENT, 0, {}}, "02:00:00:00:00:01 true 255"},
      {"permanent of this system", {mac, NUD_PERMANENT, 0, 110}, "02:00:00:00:00:01 true 110"},
      {"permanent of another", {mac, NUD_PERMANENT, 0, 186}, "02:00:00:00:00:01 true 255"},
      {"no ARP", {mac, NUD_NOARP, 0, {}}, "02:00:00:00:00:01 true 255"},
      {"resolving", {"", NUD_INCOMPLETE, 0, {}}, nullptr},
      {"failed", {"", NUD_FAILED, 0, {}}, nullptr},
      {"failed, still with its address", {mac, NUD_FAILED, 0, {}}, nullptr},
      {"none", {mac, NUD_NONE, 0, {}}, nullptr},
      {"remote", {mac, NUD_NOARP, NTF_EXT_LEARNED, {}}, nullptr},
      {"proxy", {mac, NUD_PERMANENT, NTF_PROXY, {}}, nullptr},
  };
  auto& red = kernel.in("red");
  for (const auto& item : cases) {
    SCOPED_TRACE(item.what);
    for (const std::string ip : {"10.0.0.9", "fe80::9"}) {
      red.addNeighbour("vlan10", ip);  // each takes the place of a good one
      settle();
      ASSERT_THAT(rig->neighbours(), ElementsAre("5 " + ip + " Vlan10 02:00:00:00:00:01 false 0"));
      red.addNeighbour("vlan10", ip, item.neighbour);
      settle();
      std::vector<std::string> expected;
      if (item.entry) expected.push_back("5 " + ip + " Vlan10 " + item.entry);
      EXPECT_EQ(rig->neighbours(), expected);
      red.delNeighbour("vlan10", ip);
      settle();
      EXPECT_THAT(rig->neighbours(), IsEmpty());
    }
  }
  // Who said that it is a router is one, as far as that is IPv6.
  for (const std::uint8_t flags : std::initializer_list<std::uint8_t>{NTF_ROUTER, 0}) {
    for (const char* ip : {"10.0.0.9", "fe80::9"})
      red.addNeighbour("vlan10", ip, {mac, NUD_STALE, flags, {}});
    settle();
    rig->table<Arp::Table::Status>("arp/status")->arpEntryForEach([&](const auto& key, const auto& entry) {
      EXPECT_EQ(entry.router, key.addr.isIpv6() && flags != 0) << key.addr.toStrep();
    });
    ASSERT_EQ(rig->neighbours().size(), 2u);
  }
  for (const char* ip : {"10.0.0.9", "fe80::9"}) red.delNeighbour("vlan10", ip);
  settle();
  red.addNeighbour("vlan10", "224.0.0.22", {"01:00:5e:00:00:16", NUD_NOARP, 0, {}});
  settle();
  EXPECT_THAT(rig->neighbours(), IsEmpty());
}

TEST_F(NeighboursTest, EntriesFollowTheirDeviceAndVrf) {
  auto& red = kernel.in("red");
  red.addNeighbour("vlan10", "10.0.0.9");
  red.addLink("eth0", 20);
  red.addNeighbour("eth0", "10.0.0.9", {"02:00:00:00:00:02", NUD_STALE, 0, {}});
  starts();
  const std::string first = " 10.0.0.9 Vlan10 02:00:00:00:00:01 false 0";
  const std::string other = " 10.0.0.9 Vlan10 02:00:00:00:00:02 false 0";
  const struct {
    const char* what;
    std::function<void()> happens;
    std::vector<std::string> entries;
  } cases[] = {
      {"at first", [] {}, {"5" + first}},
      {"number changes", [&] { rig->vrfIs("red", 6, "red"); }, {"6" + first}},
      {"device renamed away", [&] { red.renameLink("vlan10", "away"); }, {}},
      {"another one renamed", [&] { red.renameLink("eth0", "vlan10"); }, {"6" + other}},
      {"the first one back", [&] { red.delLink("vlan10"), red.renameLink("away", "vlan10"); }, {"6" + first}},
      {"VRF gone", [&] { rig->config()->vrfDel("red"); }, {}},
      {"VRF back", [&] { rig->vrfIs("red", 7, "red"); }, {"7" + first}},
      {"namespace gone", [&] { kernel.delNamespace("red"); }, {}},
  };
  for (const auto& item : cases) {
    SCOPED_TRACE(item.what);
    item.happens();
    settle();
    EXPECT_EQ(rig->neighbours(), item.entries);
  }
}

// Two VRFs exchange their numbers, or an interface, so a key passes from one namespace to the other while
// each brings its own entries in step.
TEST_F(NeighboursTest, KeyThatPassesToAnotherNamespaceStays) {
  rig->vrfIs("blue", 6, "blue");
  kernel.in("red").addNeighbour("vlan10", "10.0.0.9");
  auto& blue = kernel.addNamespace("blue");
  starts();
  blue.addLink("vlan10", 30);
  blue.addNeighbour("vlan10", "10.0.0.9", {"02:00:00:00:00:02", NUD_STALE, 0, {}});
  rig->vrfIs("red", 99, "red");
  rig->vrfIs("blue", 5, "blue");
  settle();
  EXPECT_THAT(rig->neighbours(), ElementsAre("5 10.0.0.9 Vlan10 02:00:00:00:00:02 false 0"));
  kernel.in("red").delLink("vlan10");
  settle();
  EXPECT_THAT(rig->neighbours(), ElementsAre("5 10.0.0.9 Vlan10 02:00:00:00:00:02 false 0"));
  // Unheard, the device is made again with a neighbour of the same address.
  blue.loses();
  blue.delLink("vlan10");
  blue.addLink("vlan10", 31);
  blue.addNeighbour("vlan10", "10.0.0.9");
  blue.overrun();
  settle();
  EXPECT_THAT(rig->neighbours(), ElementsAre("5 10.0.0.9 Vlan10 02:00:00:00:00:01 false 0"));
}

// What the kernel drops while the socket is still being emptied, it does not mention again.
TEST_F(NeighboursTest, ChangesBetweenOverrunAndEmptySocketAreFound) {
  starts();
  auto& red = kernel.in("red");
  rig->taskSchedulerRoot()->mustYieldForTestIs([] { return true; });
  for (int turns = 1; turns < 40; ++turns) {
    for (int i = 0; i < 300; ++i) red.addNeighbour("vlan10", "10.0.0.1");
    red.overrun();
    for (int i = 0; i < turns; ++i) rig->loop().step(0);
    red.addNeighbour("vlan10", "10.0.1." + std::to_string(turns));
    settle();
    EXPECT_EQ(rig->neighbours().size(), 1u + static_cast<unsigned>(turns));
  }
  // A round that is under way does not make good what is lost of a table that it has behind it.
  std::string before = "10.0.0.1/24";
  for (int turns = 1; turns < 40; ++turns) {
    red.overrun();
    for (int i = 0; i < turns; ++i) rig->loop().step(0);
    red.loses();
    red.delAddress("vlan10", std::exchange(before, "10.0." + std::to_string(turns) + ".1/24"));
    red.addAddress("vlan10", before);
    red.overrun();
    settle();
    EXPECT_EQ(rig->ip("Vlan10"), "red " + before) << turns;
  }
}

TEST_F(NeighboursTest, TableThatWasDisturbedOrRefusedIsReadAgain) {
  auto& red = kernel.in("red");
  for (const char* ip : {"10.0.0.1", "10.0.0.2", "10.0.0.3"}) red.addNeighbour("vlan10", ip);
  red.disturbs(Table::neighbours, 3);
  starts();
  EXPECT_EQ(red.dumps(Table::neighbours), 4);
  EXPECT_TRUE(rig->agent()->rootSm()->reconciled());

  // What could not be read stays, and is read after a pause.
  Reports reports;
  for (const auto& trouble : {std::function<void()>([&] { red.refuses(Table::neighbours, ENOMEM); }),
                              std::function<void()>([&] { red.disturbs(Table::neighbours, 8); })}) {
    reports.lines.clear();
    red.loses();
    red.delNeighbour("vlan10", "10.0.0.1");
    red.addNeighbour("vlan10", "10.0.0.2", {"02:00:00:00:00:02", NUD_STALE, 0, {}});
    red.addNeighbour("vlan10", "10.0.0.4");
    trouble();
    red.overrun();
    settle();
    EXPECT_THAT(rig->neighbours(), testing::Contains("5 10.0.0.1 Vlan10 02:00:00:00:00:01 false 0"));
    EXPECT_THAT(reports.lines,
                ElementsAre(testing::HasSubstr("network namespace red: reading neighbours: ")));
    passes(0.2);
    EXPECT_THAT(rig->neighbours(), ElementsAre("5 10.0.0.2 Vlan10 02:00:00:00:00:02 false 0",
                                               "5 10.0.0.3 Vlan10 02:00:00:00:00:01 false 0",
                                               "5 10.0.0.4 Vlan10 02:00:00:00:00:01 false 0"));
    for (const char* ip : {"10.0.0.1", "10.0.0.2"}) red.addNeighbour("vlan10", ip);
    red.delNeighbour("vlan10", "10.0.0.4");
    settle();
  }
}

// An index belongs to a device of one namespace: those of others that have it are other devices.
TEST_F(NeighboursTest, EqualIndicesInTwoNamespaces) {
  auto& host = kernel.in();
  host.addLink("vlan20", 7);  // as "vlan10" in "red"
  host.addAddress("vlan20", "10.0.20.1/24");
  host.addNeighbour("vlan20", "10.0.0.9", {"02:00:00:00:00:02", NUD_STALE, 0, {}});
  host.addMac("vlan20", "02:00:00:00:00:03", {"vlan20"});
  kernel.in("red").addNeighbour("vlan10", "10.0.0.9");
  starts();
  EXPECT_THAT(rig->neighbours(), ElementsAre("0 10.0.0.9 Vlan20 02:00:00:00:00:02 false 0",
                                             "5 10.0.0.9 Vlan10 02:00:00:00:00:01 false 0"));
  EXPECT_EQ(rig->ip("Vlan20"), "default 10.0.20.1/24");
  host.delNeighbour("vlan20", "10.0.0.9");
  settle();
  EXPECT_THAT(rig->neighbours(), ElementsAre("5 10.0.0.9 Vlan10 02:00:00:00:00:01 false 0"));
  host.delLink("vlan20");
  settle();
  EXPECT_EQ(rig->neighbours().size(), 1u);
  EXPECT_EQ(rig->ip("Vlan10"), "red 10.0.0.1/24");
  EXPECT_EQ(rig->ip("Vlan20"), "");
  // And a name at another index in the other one.
  kernel.in("red").delLink("vlan10");
  host.addLink("vlan10", 7);
  settle();
  EXPECT_THAT(rig->neighbours(), IsEmpty());
  EXPECT_EQ(rig->ip("Vlan10"), "default ");
}

TEST_F(NeighboursTest, EntriesOfAnEarlierRunAreTakenOver) {
  auto& red = kernel.in("red");
  for (const char* ip : {"10.0.0.1", "10.0.0.2"}) red.addNeighbour("vlan10", ip);
  kernel.in().addLink("vlan20", 3);
  kernel.in().addNeighbour("vlan20", "10.0.20.1");
  // More than one batch, published after all other namespaces' were.
  constexpr unsigned kMore = 200;
  for (unsigned i = 0; i < kMore; ++i) kernel.in().addNeighbour("vlan20", "10.0.21." + std::to_string(i));
  starts();
  rig->vrfIs("blue", 6, "blue");
  settle();
  ASSERT_THAT(rig->ids(), ElementsAre("0 default", "5 red", "6 blue"));
  red.delNeighbour("vlan10", "10.0.0.1");
  restarts();
  red.addNeighbour("vlan10", "10.0.0.3");

  const auto arp = Mox::dynamicPtrCast<Arp::Table::Status>(
      *rig->sharedMemory()->mount("arp/status", "Arp::Table::Status", Memtab::MountDescriptor::reader()));
  std::vector<std::string> changes;
  Mox::Notifiee<Arp::Table::Status> watch(arp);
  watch.on(Arp::Table::Status::arpEntryChanged, [&](const Arp::Table::ArpKey& key) {
    changes.push_back(key.addr.toStrep() + (arp->arpEntryEntry(key) ? " is" : " gone"));
  });
  rig->taskSchedulerRoot()->mustYieldForTestIs([] { return true; });
  rig->start();
  // No entry that still holds is ever missing.
  const Arp::Table::ArpKey held[] = {
      {5, *Lanix::IpAddr::fromStrep("10.0.0.2"), Lanix::IntfId::fromName("Vlan10")},
      {0, *Lanix::IpAddr::fromStrep("10.0.20.1"), Lanix::IntfId::fromName("Vlan20")}};
  for (int turn = 0; turn < 100000 && rig->loop().step(0); ++turn) {
    for (const auto& key : held) ASSERT_TRUE(arp->arpEntryEntry(key)) << "turn " << turn;
    ASSERT_GE(arp->arpEntrys(), kMore + 2) << "turn " << turn;
  }
  passes(0.1);
  EXPECT_TRUE(rig->agent()->rootSm()->reconciled());
  EXPECT_THAT(changes, testing::UnorderedElementsAre("10.0.0.1 gone", "10.0.0.3 is"));
  EXPECT_THAT(rig->ids(), ElementsAre("0 default", "5 red"));
  EXPECT_EQ(rig->neighbours().size(), kMore + 3);
}

}  // namespace
}  // namespace KernelState
