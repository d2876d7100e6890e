#include "Fixture.h"

namespace KernelState {
namespace {

class InterfacesTest : public AgentTest {
 protected:
  InterfacesTest() {
    redComes();
    starts();
  }
};

class DevicesTest : public AgentTest {};

TEST_F(DevicesTest, DeletionAndCreationAreNeverMerged) {
  kernel.in().addLink("lo", 1);
  redComes();
  starts();
  EXPECT_THAT(rig->devices("default"), ElementsAre("lo 1"));
  EXPECT_THAT(rig->devices("red"), ElementsAre("vlan10 7"));
  auto& red = kernel.in("red");
  std::vector<std::string> told;
  Mox::Notifiee<KernelNetInfo::Status> watch(rig->at<KernelNetInfo::Status>("kni/ns/red/status"));
  watch.on(KernelNetInfo::Status::interfaceChanged, [&](const Mox::String& name) {
    told.push_back(name +
                   (watch->interfaceHas(name) ? " " + std::to_string(watch->interface(name).ifIndex) : ""));
  });
  const struct {
    const char* what;
    std::function<void()> happens;
    std::vector<std::string> told;
  } cases[] = {
      {"made again", [&] { red.delLink("vlan10"), red.addLink("vlan10", 8); }, {"vlan10", "vlan10 8"}},
      {"under its own index",
       [&] { red.delLink("vlan10"), red.addLink("vlan10", 8); },
       {"vlan10", "vlan10 8"}},
      {"renamed", [&] { red.renameLink("vlan10", "eth0"); }, {"vlan10", "eth0 8"}},
      {"renamed back, and another one",
       [&] { red.renameLink("eth0", "vlan10"), red.addLink("eth0", 9); },
       {"eth0", "vlan10 8", "eth0 9"}},
      {"told again", [&] { red.macIs("eth0", "02:00:00:00:00:99"); }, {}},
      {"made again, unheard",
       [&] { red.loses(), red.delLink("vlan10"), red.addLink("vlan10", 11), red.overrun(); },
       {"vlan10", "vlan10 11"}},
      {"names swapped, unheard",
       [&] {
         red.loses(), red.renameLink("eth0", "x"), red.renameLink("vlan10", "eth0"),
             red.renameLink("x", "vlan10");
         red.overrun();
       },
       {"eth0", "vlan10", "vlan10 9", "eth0 11"}},
      {"gone, unheard", [&] { red.loses(), red.delLink("eth0"), red.overrun(); }, {"eth0"}},
  };
  for (const auto& item : cases) {
    SCOPED_TRACE(item.what);
    told.clear();
    item.happens();
    settle();
    EXPECT_EQ(told, item.told);
  }
}

TEST_F(DevicesTest, InterfaceDirectoriesAreFilledWheneverTheyCome) {
  kernel.in().addLink("Ethernet1", 2);
  kernel.in().addLink("vlan10", 3);
  starts();
  EXPECT_TRUE(rig->tree()->entityIs("interface/status/all", "Interface::AllIntfStatusDir"));
  settle();
  kernel.in().addLink("Ethernet2", 4);
  settle();
  EXPECT_TRUE(rig->tree()->entityIs("interface/status/local", "Interface::AllIntfStatusLocalDir"));
  kernel.in().delLink("Ethernet1");
  settle();
  const auto expectBoth = [](const auto& directory) {
    std::string names;
    for (const auto& [intf, status] : directory->intfStatusCollection()) names += intf.toStrep() + " ";
    EXPECT_EQ(names, "Ethernet2 Vlan10 ");
  };
  expectBoth(rig->at<Interface::AllIntfStatusDir>("interface/status/all"));
  expectBoth(rig->at<Interface::AllIntfStatusLocalDir>("interface/status/local"));
}

TEST_F(InterfacesTest, AddressesFollowTheKernel) {
  auto& red = kernel.in("red");
  const struct {
    const char* what;
    std::function<void()> happens;
    const char* ip;
  } cases[] = {
      {"primary", [] {}, "red 10.0.0.1/24"},
      {"secondary", [&] { red.addAddress("vlan10", "10.0.0.2/24", true); }, "red 10.0.0.1/24 10.0.0.2/24"},
      {"another network", [&] { red.addAddress("vlan10", "10.0.1.1/24"); },
       "red 10.0.0.1/24 10.0.1.1/24 10.0.0.2/24"},
      {"secondary promoted",
       [&] { red.delAddress("vlan10", "10.0.0.1/24"), red.addAddress("vlan10", "10.0.0.2/24", false); },
       "red 10.0.0.2/24 10.0.1.1/24"},
      {"lost and found", [&] { red.loses(), red.delAddress("vlan10", "10.0.0.2/24"), red.overrun(); },
       "red 10.0.1.1/24"},
      {"none", [&] { red.delAddress("vlan10", "10.0.1.1/24"); }, "red "},
      {"device gone", [&] { red.delLink("vlan10"); }, ""},
      {"device without an address", [&] { red.addLink("vlan10", 8); }, "red "},
      {"renamed away", [&] { red.renameLink("vlan10", "x"); }, ""},
      {"address while it is something else", [&] { red.addAddress("x", "10.9.0.1/16"); }, ""},
      {"renamed back", [&] { red.renameLink("x", "vlan10"); }, "red 10.9.0.1/16"},
  };
  for (const auto& item : cases) {
    SCOPED_TRACE(item.what);
    item.happens();
    settle();
    EXPECT_EQ(rig->ip("Vlan10"), item.ip);
  }
}

TEST_F(InterfacesTest, ConfiguredVrfWinsOverTheBridge) {
  kernel.in().addLink("vlan10", 3);
  kernel.in().addAddress("vlan10", "192.0.2.1/24");
  kernel.in().addLink("vlan20", 4);
  kernel.in().addAddress("vlan20", "192.0.3.1/24");
  settle();
  EXPECT_EQ(rig->ip("Vlan10"), "red 10.0.0.1/24");
  EXPECT_EQ(rig->ip("Vlan20"), "default 192.0.3.1/24");

  // The device moves to another VRF, told of by either namespace first.
  rig->vrfIs("blue", 6, "blue");
  kernel.addNamespace("blue").addLink("vlan10", 9);
  settle();
  EXPECT_EQ(rig->ip("Vlan10"), "blue ");
  kernel.in("red").delLink("vlan10");
  settle();
  EXPECT_EQ(rig->ip("Vlan10"), "blue ");
  kernel.in("blue").delLink("vlan10");
  settle();
  EXPECT_EQ(rig->ip("Vlan10"), "default 192.0.2.1/24");
}

TEST_F(DevicesTest, BridgeIsNotTakenForTheInterfaceWhileNamespacesAreRead) {
  kernel.in().addLink("vlan10", 3);
  redComes();
  std::vector<std::string> seen;
  Mox::Notifiee<Ip::Status> watch(
      Mox::dynamicPtrCast<Ip::Status>(*rig->tree()->entityIs("ip/status", "Ip::Status")));
  Mox::Notifiee<Ip::IpIntfStatus> vlan;
  vlan.on(Ip::IpIntfStatus::vrfNameChanged, [&](const Mox::String& name) { seen.push_back(name); });
  watch.on(Ip::Status::ipIntfStatusChanged,
           [&](const Lanix::IntfId& intf) { vlan.notifierIs(watch->ipIntfStatus(intf)); });
  starts();
  EXPECT_THAT(seen, ElementsAre("red"));
}

// VLAN 20 is one of br0, with the index 20; its interface is known by its name.
TEST_F(DevicesTest, InterfacesOfOtherNamesAreReported) {
  auto& host = kernel.in();
  rig->vlanIs(20, "br0");
  host.addLink("br0", 20), host.filtersVlans("br0", true);
  redComes();
  starts();
  const auto problem = [&] {
    const auto found = rig->at<Switch::Problems>(Switch::kProblemsPath)->problem("KernelState VLAN 20");
    return found ? found->problem() + "; " + found->advice() : "";
  };
  auto& red = kernel.in("red");
  const struct {
    const char* what;
    std::function<void()> happens;
    const char* problem;  // "": none
  } cases[] = {
      {"another VLAN's", [&] { host.addVlan("br0.30", 30, 20, 30); }, ""},
      {"another bridge's", [&] { host.addVlan("eth0.20", 31, 21, 20); }, ""},
      {"under another name", [&] { host.addVlan("br0.20", 32, 20, 20); },
       "br0.20 is its interface on bridge br0, but has another name than vlan20, so that the VLAN has no "
       "layer 3; "
       "ip link set br0.20 down; ip link set br0.20 name vlan20; ip link set vlan20 up"},
      {"renamed", [&] { host.renameLink("br0.20", "vlan20"); }, ""},
      {"in its VRF's namespace", [&] { host.delLink("vlan20"), red.addVlan("br0.20", 32, 20, 20); },
       "br0.20 in network namespace red is its interface"},
      {"beside the interface", [&] { red.addLink("vlan20", 40); }, ""},
      {"which goes", [&] { red.delLink("vlan20"); }, "br0.20 in network namespace red"},
      {"a bridge that filters no more", [&] { host.filtersVlans("br0", false); }, ""},
      {"and again", [&] { host.filtersVlans("br0", true); }, "br0.20 in network namespace red"},
      {"with its namespace", [&] { kernel.delNamespace("red"); }, ""},
  };
  const Reports reports;
  for (const auto& item : cases) {
    SCOPED_TRACE(item.what);
    item.happens();
    settle();
    passes(2);
    EXPECT_THAT(problem(), testing::StartsWith(item.problem));
    EXPECT_EQ(problem().empty(), item.problem[0] == '\0');
  }
}

TEST_F(DevicesTest, BridgeMacAddressIsTheOneThatInterfacesShare) {
  const auto config = rig->at<Bridging::Config>("bridging/config");
  const auto mac = [&] { return config->bridgeMacAddr().toStrep(); };
  Reports reports;
  starts();
  EXPECT_EQ(mac(), "00:00:00:00:00:00");
  redComes();
  settle();
  EXPECT_EQ(mac(), "02:00:00:00:be:ef");
  kernel.in("red").addLink("vlan20", 8, "02:00:00:00:00:20");
  kernel.in("red").addLink("vlan30", 9, "02:00:00:00:00:30");
  passes(2);
  kernel.in("red").addAddress("vlan20", "10.0.20.1/24");
  kernel.in("red").delLink("vlan20");
  settle();
  kernel.in("red").addLink("vlan20", 8, "02:00:00:00:00:20");
  passes(2);
  EXPECT_EQ(mac(), "02:00:00:00:be:ef");
  EXPECT_THAT(reports.lines,
              ElementsAre(testing::AllOf(testing::HasSubstr("Vlan20 has the MAC address 02:00:00:00:00:20"),
                                         testing::HasSubstr("(and 1 more have others)"))));

  kernel.in("red").macIs("vlan10", "02:00:00:00:00:10");  // nobody has the one that was given any more
  settle();
  EXPECT_EQ(mac(), "02:00:00:00:00:10");
  config->bridgeMacAddrIs(*Lanix::EthAddr::fromStrep("02:00:00:00:00:77"));  // the operator's stays
  kernel.in("red").macIs("vlan10", "02:00:00:00:00:11");
  settle();
  EXPECT_EQ(mac(), "02:00:00:00:00:77");
}

}  // namespace
}  // namespace KernelState
