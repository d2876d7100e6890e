#include <linux/neighbour.h>

#include <ctime>

#include "Fixture.h"

namespace KernelState {
namespace {

constexpr char kHost[] = "02:00:00:00:00:01";

class FdbTest : public AgentTest {
 protected:
  FdbTest() {
    auto& host = kernel.in();
    host.addLink("vlan10", 10);
    host.addLink("Ethernet1", 1);
    host.addLink("Ethernet2", 2);
    host.addLink("core10", 3);
    host.addLink("br0", 20);
  }
};

TEST_F(FdbTest, EntriesOfTheKernelBecomeEntries) {
  starts();
  const struct {
    const char* what;
    const char* bridge;
    FakeKernel::Mac mac;
    const char* entry;  // null: none
  } cases[] = {
      {"learned", "vlan10", {"Ethernet1", NUD_REACHABLE, 0, 0}, "learnedDynamic Ethernet1"},
      {"learned, old", "vlan10", {"Ethernet1", NUD_STALE, 0, 0}, "learnedDynamic Ethernet1"},
      {"by hand", "vlan10", {"Ethernet2", NUD_NOARP, 0, 0}, "static Ethernet2"},
      {"learned from the overlay", "vlan10", {"core10", NUD_REACHABLE, 0, 0}, "evpnLearned core10"},
      {"by hand, overlay", "vlan10", {"core10", NUD_NOARP, 0, 0}, "evpnLearned core10"},
      {"externally", "vlan10", {"Ethernet1", NUD_REACHABLE, NTF_EXT_LEARNED, 0}, "evpnLearned Ethernet1"},
      {"the port's own", "vlan10", {"Ethernet1", NUD_PERMANENT, 0, 0}, nullptr},
      {"the tunnel port's own", "vlan10", {"core10", NUD_PERMANENT, 0, 0}, nullptr},
      {"the bridge's own", "vlan10", {"vlan10", NUD_REACHABLE, 0, 0}, nullptr},
      {"no bridge above", "", {"Ethernet1", NUD_REACHABLE, 0, 0}, nullptr},
      {"the device's filter", "vlan10", {"Ethernet1", NUD_REACHABLE, NTF_SELF, 0}, nullptr},
      {"a VLAN inside the bridge", "vlan10", {"Ethernet1", NUD_REACHABLE, 0, 7}, nullptr},
      {"a bridge of no VLAN", "br0", {"Ethernet1", NUD_REACHABLE, 0, 0}, nullptr},
  };
  for (const auto& item : cases) {
    SCOPED_TRACE(item.what);
    kernel.in().addMac(item.bridge, kHost, item.mac);
    settle();
    std::vector<std::string> expected;
    if (item.entry) expected.push_back(std::string("10 ") + kHost + " " + item.entry);
    EXPECT_EQ(rig->macs(), expected);
    kernel.in().delMac(item.bridge, kHost, item.mac.vlan);
    settle();
    EXPECT_THAT(rig->macs(), IsEmpty());
  }
  kernel.in().addMac("vlan10", "01:00:5e:00:00:01", {"Ethernet1", NUD_NOARP, 0, 0});
  settle();
  EXPECT_THAT(rig->macs(), IsEmpty());
}

TEST_F(FdbTest, MovesArriveInOrderAndTheTableIsReadOnce) {
  kernel.in().addMac("vlan10", kHost, {"Ethernet1"});
  starts();
  const auto fdb = Mox::dynamicPtrCast<Memtab::Bridging::Status>(*rig->sharedMemory()->mount(
      "bridging/status", "Memtab::Bridging::Status", Memtab::MountDescriptor::reader()));
  // Readers hear of every change, and then see the last of those that came in one go.
  std::vector<std::string> told;
  Mox::Notifiee<Memtab::Bridging::Status> watch(fdb);
  watch.on(Memtab::Bridging::Status::fdbChanged, [&](const Bridging::HostKey& key) {
    const auto now = fdb->fdbEntry(key);
    told.push_back(now ? Mox::toStrep(*now) : "gone");
  });
  const auto heard = [&] {
    settle();
    return std::exchange(told, {});
  };
  kernel.in().delMac("vlan10", kHost);
  kernel.in().addMac("vlan10", kHost, {"core10"});
  EXPECT_THAT(heard(), ElementsAre("evpnLearned core10", "evpnLearned core10"));
  kernel.in().addMac("vlan10", kHost, {"Ethernet1"});
  kernel.in().delMac("vlan10", kHost);
  EXPECT_THAT(heard(), ElementsAre("gone", "gone"));
  for (const char* port : {"Ethernet1", "core10", "Ethernet1"}) {
    kernel.in().addMac("vlan10", kHost, {port});
    EXPECT_THAT(heard(), ElementsAre(testing::EndsWith(port)));
  }
  kernel.in().addMac("vlan10", kHost, {"Ethernet2", NUD_PERMANENT, 0, 0});  // the station is the switch now
  settle();
  EXPECT_THAT(rig->macs(), IsEmpty());
  EXPECT_EQ(kernel.in().dumps(Table::macs), 1);
}

TEST_F(FdbTest, PublicationFollowsConfigurationAndNames) {
  const auto config = rig->at<Bridging::Config>("bridging/config");
  kernel.in().addMac("vlan10", kHost, {"Ethernet1"});
  kernel.in().addMac("br0", kHost, {"Ethernet2"});
  starts();
  // Of the one station there is: where it is, by forwarding database.
  const auto places = [&] {
    std::string text;
    for (const std::string& line : rig->macs())
      text += line.substr(0, line.find(' ')) + line.substr(line.find(kHost) + sizeof kHost - 1) + ", ";
    return text;
  };
  const struct {
    const char* what;
    std::function<void()> happens;
    const char* places;
  } cases[] = {
      {"at first", [] {}, "10 learnedDynamic Ethernet1, "},
      {"mapped", [&] { config->vidToFidMapIs(Bridging::VlanId(10), 110); }, "110 learnedDynamic Ethernet1, "},
      {"another VLAN", [&] { rig->vlanIs(20, "br0"); },
       "110 learnedDynamic Ethernet1, 20 learnedDynamic Ethernet2, "},
      {"port becomes a tunnel port", [&] { rig->vlanIs(20, "br0", {"Ethernet2"}); },
       "110 learnedDynamic Ethernet1, 20 evpnLearned Ethernet2, "},
      {"VLAN gone", [&] { rig->config()->vlanDel(Bridging::VlanId(20)); }, "110 learnedDynamic Ethernet1, "},
      {"port renamed", [&] { kernel.in().renameLink("Ethernet1", "uplink1"); },
       "110 learnedDynamic uplink1, "},
      {"port renamed to a tunnel port's name",
       [&] { kernel.in().delLink("core10"), kernel.in().renameLink("uplink1", "core10"); },
       "110 evpnLearned core10, "},
      {"bridge renamed away", [&] { kernel.in().renameLink("vlan10", "x"); }, ""},
      {"and another one comes to be it", [&] { kernel.in().renameLink("br0", "vlan10"); },
       "110 learnedDynamic Ethernet2, "},
      {"one forwarding database for two",
       [&] { rig->vlanIs(30, "x", {"core10"}), config->vidToFidMapIs(Bridging::VlanId(30), 110); },
       nullptr},  // either's
      {"and one of them left", [&] { kernel.in().delMac("x", kHost); }, "110 learnedDynamic Ethernet2, "},
  };
  for (const auto& item : cases) {
    SCOPED_TRACE(item.what);
    item.happens();
    settle();
    if (item.places) {
      EXPECT_EQ(places(), item.places);
    } else {
      EXPECT_EQ(rig->macs().size(), 1u);
    }
  }
}

TEST_F(FdbTest, BridgeThatFiltersVlans) {
  auto& host = kernel.in();
  const auto config = rig->at<Bridging::Config>("bridging/config");
  rig->vlanIs(10, "br0", {"core10"});
  rig->vlanIs(20, "br0");
  host.filtersVlans("br0", true);
  starts();
  const struct {
    const char* what;
    std::function<void()> happens;
    std::vector<std::string> entries;  // without the address, which is the same
  } cases[] = {
      {"an entry of one VLAN",
       [&] {
         host.addMac("br0", kHost, {"Ethernet1", NUD_REACHABLE, 0, 20});
       },
       {"20 learnedDynamic Ethernet1"}},
      {"the same address in another",
       [&] {
         host.addMac("br0", kHost, {"core10", NUD_REACHABLE, 0, 10});
       },
       {"10 evpnLearned core10", "20 learnedDynamic Ethernet1"}},
      {"one's tunnel port is the other's access port",
       [&] {
         host.addMac("br0", kHost, {"core10", NUD_REACHABLE, 0, 20});
       },
       {"10 evpnLearned core10", "20 learnedDynamic core10"}},
      {"of a VLAN that is not configured, and of none",
       [&] {
         host.addMac("br0", kHost, {"Ethernet1", NUD_REACHABLE, 0, 30});
         host.addMac("br0", kHost, {"Ethernet2", NUD_REACHABLE, 0, 0});
       },
       {"10 evpnLearned core10", "20 learnedDynamic core10"}},
      {"mapped",
       [&] { config->vidToFidMapIs(Bridging::VlanId(20), 120); },
       {"10 evpnLearned core10", "120 learnedDynamic core10"}},
      {"it filters no longer: the lowest VLAN's",
       [&] { host.filtersVlans("br0", false); },
       {"10 learnedDynamic Ethernet2"}},
      {"and again",
       [&] { host.filtersVlans("br0", true); },
       {"10 evpnLearned core10", "120 learnedDynamic core10"}},
      {"shared forwarding database", [&] { config->vidToFidMapIs(Bridging::VlanId(10), 120); }, {""}},
      {"one left", [&] { host.delMac("br0", kHost, 10); }, {"120 learnedDynamic core10"}},
      {"gone", [&] { host.delMac("br0", kHost, 20); }, {}},
  };
  for (const auto& item : cases) {
    SCOPED_TRACE(item.what);
    item.happens();
    settle();
    std::vector<std::string> entries;
    for (std::string line : rig->macs()) entries.push_back(line.erase(line.find(kHost), sizeof kHost));
    if (item.entries == std::vector<std::string>{""}) {
      EXPECT_EQ(entries.size(), 1u);  // either's
    } else {
      EXPECT_EQ(entries, item.entries);
    }
  }
}

TEST_F(FdbTest, BridgeThatComesLaterAndLostNotifications) {
  kernel.in().delLink("vlan10");
  starts();
  kernel.in().addLink("vlan10", 11);
  kernel.in().addMac("vlan10", kHost, {"core10"});
  settle();
  EXPECT_EQ(rig->macs().size(), 1u);
  kernel.in().loses();
  kernel.in().delMac("vlan10", kHost);
  kernel.in().addMac("vlan10", "02:00:00:00:00:02", {"Ethernet1"});
  kernel.in().overrun();
  settle();
  EXPECT_THAT(rig->macs(), ElementsAre("10 02:00:00:00:00:02 learnedDynamic Ethernet1"));
}

class FullPortTest : public FdbTest {
 protected:
  FullPortTest() {
    for (const char* port : {"Ethernet1", "Ethernet2", "core10"}) kernel.in().portIs(port, "vlan10");
    limitIs(2);
  }
  void limitIs(std::uint32_t limit) {
    rig->at<ArpSuppression::Limits>(ArpSuppression::kLimitsPath)->macTablePerPortIs(limit);
  }
  void learns(int station, const std::string& port, std::uint16_t state = NUD_REACHABLE,
              std::uint8_t flags = 0) {
    kernel.in().addMac("vlan10", mac(station), {port, state, flags, 0});
  }
  void forgets(int station) { kernel.in().delMac("vlan10", mac(station)); }
  // The stations below 100 that are known, by port, and whether there is a problem.
  std::string known() const {
    std::map<std::string, std::string> ports;
    for (const std::string& line : rig->macs()) {
      const int station = std::stoi(line.substr(line.find("02:00") + 12, 5).erase(2, 1), nullptr, 16);
      if (station < 100) ports[line.substr(line.rfind(' ') + 1)] += " " + std::to_string(station);
    }
    std::string text;
    for (const auto& [port, stations] : ports) text += port + stations + ", ";
    const auto problems = rig->at<Switch::Problems>(Switch::kProblemsPath);
    return text + (problems->problem("KernelState MAC table of port Ethernet1") ? "full" : "");
  }
  static std::string mac(int station) {
    char text[18];
    std::snprintf(text, sizeof text, "02:00:00:00:%02x:%02x", station >> 8, station & 0xff);
    return text;
  }
};

TEST_F(FullPortTest, RefusesWhatTheBridgeLearnsBeyondTheLimit) {
  starts();
  const struct {
    const char* what;
    std::function<void()> happens;
    const char* known;
  } cases[] = {
      {"as many as are allowed", [&] { learns(1, "Ethernet1"), learns(2, "Ethernet1"); }, "Ethernet1 1 2, "},
      {"one more", [&] { learns(3, "Ethernet1"); }, "Ethernet1 1 2, full"},
      {"those of the overlay, and by hand",
       [&] {
         for (const int station : {20, 21, 22}) learns(station, "core10");
         learns(23, "Ethernet1", NUD_NOARP);
         learns(24, "Ethernet1", NUD_REACHABLE, NTF_EXT_LEARNED);
       },
       "Ethernet1 1 2 23 24, core10 20 21 22, full"},
      {"a known one comes from another port",
       [&] { learns(4, "Ethernet2"), settle(), learns(4, "Ethernet1"); },
       "Ethernet1 1 2 4 23 24, core10 20 21 22, full"},
      {"and goes on to the next", [&] { learns(4, "Ethernet2"); },
       "Ethernet1 1 2 23 24, Ethernet2 4, core10 20 21 22, full"},
      {"a refused one goes, another comes",
       [&] { forgets(3), learns(5, "Ethernet1"), learns(6, "Ethernet1"); },
       "Ethernet1 1 2 23 24, Ethernet2 4, core10 20 21 22, full"},
      {"one goes: read again, not at once", [&] { forgets(1); },
       "Ethernet1 2 23 24, Ethernet2 4, core10 20 21 22, full"},
      {"but soon", [&] { passes(2); }, "Ethernet1 2 5 23 24, Ethernet2 4, core10 20 21 22, full"},
      {"the limit is raised", [&] { limitIs(3), passes(4); },
       "Ethernet1 2 5 6 23 24, Ethernet2 4, core10 20 21 22, "},
      {"full again, and then it is a tunnel port",
       [&] {
         learns(7, "Ethernet1"), settle();
         EXPECT_THAT(known(), testing::EndsWith("full"));
         rig->vlanIs(10, "vlan10", {"core10", "Ethernet1"}), settle(), passes(2);
       },
       "Ethernet1 2 5 6 7 23 24, Ethernet2 4, core10 20 21 22, "},
  };
  for (const auto& item : cases) {
    SCOPED_TRACE(item.what);
    item.happens();
    settle();
    EXPECT_EQ(known(), item.known);
  }
}

// A table of which far more is on one port than there is room for is not read to its end; and still what is
// known of it is right afterwards, whatever notifications were lost.
TEST_F(FullPortTest, IsNotReadToItsEnd) {
  for (int station = 100; station < 10000; ++station) learns(station, "Ethernet1");
  learns(1, "Ethernet2");
  learns(2, "core10");
  starts();
  EXPECT_EQ(known(), "Ethernet2 1, core10 2, full");
  EXPECT_EQ(rig->macs().size(), 4u);
  EXPECT_EQ(kernel.in().dumps(Table::macs), 3) << "all, and the two other ports";
  kernel.in().loses();
  forgets(100);
  learns(3, "Ethernet2");
  kernel.in().overrun();
  settle();
  EXPECT_EQ(known(), "Ethernet2 1 3, core10 2, full");
  const auto isThere = [&](int station) {
    return std::ranges::any_of(rig->macs(),
                               [&](const auto& line) { return line.find(mac(station)) != line.npos; });
  };
  EXPECT_FALSE(isThere(100)) << "it went unheard";
  EXPECT_TRUE(isThere(101)) << "it was first";
  const int dumps = kernel.in().dumps(Table::macs);
  for (int i = 0; i < 3; ++i) passes(300);
  EXPECT_EQ(rig->macs().size(), 5u) << "another one instead";
  EXPECT_EQ(kernel.in().dumps(Table::macs), dumps + 1) << "without room nothing is read again";
}

// A tunnel port's are as many as the overlay has hosts: where the others are is what matters.
TEST_F(FullPortTest, TunnelPortIsNotReadToItsEnd) {
  for (int station = 100; station < 10000; ++station) learns(station, "core10");
  learns(1, "Ethernet1");
  starts();
  EXPECT_EQ(known(), "Ethernet1 1, ");
  EXPECT_LT(rig->macs().size(), 6000u);
  learns(2, "core10");
  settle();
  EXPECT_EQ(known(), "Ethernet1 1, core10 2, ");
  limitIs(20000);
  rig->vlanIs(10, "vlan10", {});
  settle(), passes(2);
  EXPECT_EQ(known(), "Ethernet1 1, core10 2, ");
  EXPECT_EQ(rig->macs().size(), 9902u) << "its hosts are this switch's own now";
}

// Seconds of CPU that a start with so many VLANs takes.
double costOfStart(std::uint32_t vlans) {
  FakeKernel kernel;
  const Orb::ManualClock clock;
  const ScratchTables tables;
  AgentRig rig(clock, tables.directory());
  for (std::uint32_t id = 2; id < vlans + 2; ++id) {
    kernel.in().addLink("vlan" + std::to_string(id), id);
    rig.vlanIs(static_cast<std::uint16_t>(id), "vlan" + std::to_string(id));
  }
  const auto now = [] { return static_cast<double>(std::clock()) / CLOCKS_PER_SEC; };
  const double begin = now();
  rig.start();
  EXPECT_TRUE(rig.settle());
  EXPECT_EQ(rig.at<Ip::Status>("ip/status")->ipIntfStatuss(), vlans);
  return now() - begin;
}

// Eight times the VLANs are eight times the work, or a little more, and not sixty-four times.
TEST(FdbScale, WorkIsInProportionToVlans) { EXPECT_LT(costOfStart(4000), costOfStart(500) * 24); }

}  // namespace
}  // namespace KernelState
