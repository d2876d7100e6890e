#include <ctime>
#include <random>
#include <set>

#include "Mox/Error.h"
#include "Rig.h"

namespace ArpSuppression {
namespace {

Ptr<Ip::VrfStatusLocal> vrfOf(Rig& rig, const char* name) {
  return rig.state<Ip::AllVrfStatusLocal>("ip/vrf/status/local")->vrf(name);
}
Ptr<Ip::IpIntfStatus> interfaceOf(Rig& rig, std::uint32_t vlan) {
  return rig.ipStatus()->ipIntfStatus(intf(("Vlan" + std::to_string(vlan)).c_str()));
}
void vrfId(Rig& rig, std::uint32_t id, const char* name) {
  const auto map = rig.table<Vrf::VrfIdMap::Status>("vrf/vrfIdMapStatus");
  if (name) {
    map->vrfIdToNameIs(id, Vrf::VrfIdMap::FixedVrfName(name));
  } else {
    map->vrfIdToNameDel(id);
  }
}
// The namespaces of the open netlink sockets.
std::multiset<std::string> netlinkNamespaces(const Rig& rig) {
  std::multiset<std::string> names;
  for (const auto& [socket, netNs] : rig.netlinkSockets.openSockets()) names.insert(netNs);
  return names;
}
// "red 7", "red 0" while it is not usable, "" without an entry.
std::string vlan10(const Rig& rig) {
  const auto info = rig.root()->vlanL3InfoStatus->vlanL3Info(Vlan(10));
  if (!info) return "";
  EXPECT_EQ(info->usable(), info->kniIntfIfIndex() != 0);
  return info->vrfInfo()->vrfName() + " " + std::to_string(info->kniIntfIfIndex());
}

// --- Inputs that come, go and move

class Follows : public testing::Test {
 protected:
  // What is to be found once everything is settled: the entry of VLAN 10, and whether it is published.
  void finds(const char* entry, bool published, const char* when) {
    SCOPED_TRACE(when);
    rig.settle();
    EXPECT_EQ(vlan10(rig), entry);
    EXPECT_EQ(!rig.publishedVlans().empty(), published);
    EXPECT_EQ(rig.errors, "");
  }
  void reactivate(int netlinkError) {
    vrfOf(rig, "red")->stateIs(Ip::VrfState::inactive);
    rig.netlinkSockets.refusesWith(netlinkError);
    vrfOf(rig, "red")->stateIs(Ip::VrfState::active);
  }
  ~Follows() override {
    rig.kill();
    EXPECT_THAT(rig.netlinkSockets.openSockets(), IsEmpty());
    EXPECT_EQ(rig.sockets.openSockets(), 0);
  }
  Rig rig;
};

TEST_F(Follows, vrf_status_and_id) {
  rig.start();
  finds("red 7", true, "start");
  vrfId(rig, 5, nullptr);
  finds("red 0", false, "id withdrawn");
  vrfOf(rig, "red")->stateIs(Ip::VrfState::inactive);
  vrfId(rig, 5, "red");
  finds("red 0", false, "the id is there, the VRF inactive");
  vrfOf(rig, "red")->stateIs(Ip::VrfState::active);
  finds("red 7", true, "active");
  vrfId(rig, 6, "red");
  vrfId(rig, 5, nullptr);
  finds("red 7", true, "another id");
  vrfId(rig, 9, "red");
  finds("red 7", true, "a second id");
  vrfId(rig, 9, nullptr);
  finds("red 7", true, "which goes, and the first one counts again");
  EXPECT_EQ(rig.root()->vlanL3InfoStatus->vrfInfo("red")->vrfId(), 6u);
  vrfOf(rig, "red")->stateIs(Ip::VrfState::inactive);
  rig.noVrf("red");
  finds("red 0", false, "inactive, and gone before that was followed up");
  rig.vrf("red", 6);
  finds("red 7", true, "there again");
  rig.noVrf("red");
  finds("red 0", false, "the status disappears");
  rig.state<Ip::AllVrfStatusLocal>("ip/vrf/status/local")->vrfIs("red")->stateIs(Ip::VrfState::active);
  finds("red 0", false, "a status that is being filled in: active first");
  vrfOf(rig, "red")->networkNamespaceIs("red");
  finds("red 7", true, "then its namespace");
  vrfOf(rig, "red")->networkNamespaceIs("");
  finds("red 0", false, "namespace withdrawn");
  rig.device("blue", "vlan10", 70);
  vrfOf(rig, "red")->networkNamespaceIs("blue");
  finds("red 70", true, "another namespace, with an index of its own");
}

TEST_F(Follows, namespace_that_cannot_be_entered_leaves_the_vrf_unusable) {
  rig.namespaces.loses("red");
  rig.start();
  finds("red 0", false, "no namespace");
  rig.namespaces.has("red");
  finds("red 0", false, "it appears, which nobody tells");
  reactivate(0);
  finds("red 7", true, "the VRF is activated anew");
  reactivate(EMFILE);
  finds("red 0", false, "the kernel refuses");
  reactivate(0);
  finds("red 7", true, "what was never opened is not closed");
  reactivate(EMFILE);
  rig.settle();
  rig.netlinkSockets.refusesWith(0);
  rig.clock.advance(2);
  finds("red 7", true, "the kernel refuses no more");
  rig.device("blue", "vlan10", 70);
  vrfOf(rig, "red")->stateIs(Ip::VrfState::inactive);
  vrfOf(rig, "red")->networkNamespaceIs("blue");
  vrfOf(rig, "red")->stateIs(Ip::VrfState::active);
  EXPECT_EQ(rig.root()->vlanL3InfoStatus->usableVlanL3Info(Vlan(10)), nullptr) << "with the old one's index";
  finds("red 70", true, "another namespace in one turn");
}

TEST(VlanL3Info, second_vrf_in_the_default_namespace_leaves_the_ports_alone) {
  Rig rig;
  rig.start();
  const auto ports = rig.root()->deviceIntfStatusDir->intfStatusAndDeviceNames();
  rig.vrf("lite", 9);
  vrfOf(rig, "lite")->stateIs(Ip::VrfState::inactive);
  vrfOf(rig, "lite")->networkNamespaceIs("default");
  vrfOf(rig, "lite")->stateIs(Ip::VrfState::active);
  rig.device("default", "vlan20", 73);
  rig.vlanInterface(20, "lite", 0);
  rig.evpn()->vlanToDot1qIs(Vlan(20), 20);
  rig.settle();
  EXPECT_THAT(rig.publishedVlans(), ElementsAre(10, 20));
  rig.noVrf("lite");
  rig.settle();
  EXPECT_THAT(rig.publishedVlans(), ElementsAre(10));
  EXPECT_EQ(rig.root()->deviceIntfStatusDir->intfStatusAndDeviceNames(), ports + 1);
}

TEST(VlanL3Info, vrf_name_beyond_the_limit_is_as_good_as_none) {
  Rig rig;
  rig.start();
  const std::string longName(101, 'v');
  for (int i = 0; i < 2; ++i) {
    interfaceOf(rig, 10)->vrfNameIs(longName);
    rig.settle();
    EXPECT_THAT(rig.publishedVlans(), IsEmpty());
    EXPECT_FALSE(rig.root()->vlanL3InfoStatus->vrfInfoHas(longName));
    interfaceOf(rig, 10)->vrfNameIs("red");
    rig.settle();
    EXPECT_THAT(rig.publishedVlans(), ElementsAre(10));
  }
  rig.vrf(longName.c_str(), 0);  // who writes it is not troubled
  rig.settle();
  EXPECT_THAT(rig.publishedVlans(), ElementsAre(10));
  EXPECT_EQ(rig.errors, "");
}

// Raises an error when the entity tells of `event` as `when` says.
template <class E, class Payload>
class Raises {
 public:
  template <class When>
  Raises(Ptr<E> entity, Mox::Event<Payload> event, When when) : watch_(std::move(entity)) {
    watch_.on(event, [when](const Payload& payload) {
      if (when(payload)) throw Mox::RangeError("raised by the test");
    });
  }

 private:
  Mox::Notifiee<E> watch_;
};

TEST(VlanL3Info, error_in_a_walk_costs_the_entry_that_met_it) {
  Rig rig;
  for (const std::uint32_t vlan : {11u, 12u}) rig.vlanInterface(vlan, "red", vlan);
  const auto configured = Mox::make<ArpSuppressionStatus>();
  for (const std::uint32_t vlan : {10u, 11u, 12u}) configured->vlanIdIs(Vlan(vlan), true);
  const auto ids = Mox::make<Vrf::VrfIdMap::NameToIdMap>();
  ids->vrfNameToIdIs("red", 5);
  const auto status = Mox::make<VlanL3InfoStatus>();
  const Raises raises(status, VlanL3InfoStatus::vlanL3InfoChanged,
                      [](const Vlan& vlan) { return vlan.value() == 11; });
  const auto sm = Mox::make<VlanL3InfoSm>(
      rig.tasks().scheduler(), configured, Mox::make<EnabledVlans>(),
      rig.state<Ip::AllVrfStatusLocal>("ip/vrf/status/local"), rig.ipStatus(), ids,
      rig.state<Interface::AllIntfStatusDir>("interface/status/all"),
      Ptr<const Interface::AllIntfStatusLocalDir>(), Mox::make<Interface::DeviceIntfStatusDir>("default"),
      status, Ptr<Statedb::EntityManager>(&rig.tree()));
  rig.settle();
  EXPECT_TRUE(status->initialArpSuppressionStatusSync());
  EXPECT_EQ(rig.errors, "VlanL3InfoSm: raised by the test\n");
  for (const std::uint32_t vlan : {10u, 12u}) EXPECT_TRUE(status->usableVlanL3Info(Vlan(vlan))) << vlan;

  // The same in the walk over the watches of a VRF.
  rig.errors.clear();
  const Raises again(status->vlanL3Info(Vlan(10)), VlanL3Info::kniIntfIfIndexChanged,
                     [](std::uint32_t ifIndex) { return ifIndex != 0; });
  vrfOf(rig, "red")->stateIs(Ip::VrfState::inactive);
  rig.settle();
  vrfOf(rig, "red")->stateIs(Ip::VrfState::active);
  rig.settle();
  EXPECT_EQ(rig.errors, "VrfInfoSm: raised by the test\n");
  EXPECT_TRUE(status->usableVlanL3Info(Vlan(12)));
}

// What a device costs does not depend on how many others are watched in its VRF.
TEST(VlanL3Info, device_among_thousands_costs_as_much_as_one_among_few) {
  const auto secondsOfDevices = [](int watches) {
    Rig rig;
    rig.start();
    for (int i = 0; i < watches; ++i)
      rig.root()->vlanL3InfoStatus->findOrCreateVrfInterfaceWatch("red", "Port" + std::to_string(i));
    rig.settle();
    const std::clock_t start = std::clock();
    for (std::uint32_t i = 0; i < 4000; ++i)
      rig.device("red", ("port" + std::to_string(i % 40)).c_str(), 10000 + i);
    const std::clock_t used = std::clock() - start;
    EXPECT_EQ(rig.root()->vlanL3InfoStatus->vrfInterfaceWatch("Port39")->kniIntfIfIndex(), 13999u);
    return static_cast<double>(used);
  };
  const double few = secondsOfDevices(40);
  EXPECT_LT(secondsOfDevices(4000), 5 * few);
}

TEST(VlanL3Info, addresses_in_use_follow_the_interface) {
  Rig rig;
  rig.start();
  const auto prefix = [](const char* text) { return *Lanix::IpGenPrefix::fromStrep(text); };
  const auto addresses = [&] {
    std::vector<std::string> texts;
    if (const auto info = rig.root()->vlanL3InfoStatus->vlanL3Info(Vlan(10))) {
      for (const auto& [address, active] : info->ipAddressCollection()) texts.push_back(address.toStrep());
    }
    return texts;
  };
  EXPECT_THAT(addresses(), ElementsAre("10.0.0.1"));
  const auto interface = interfaceOf(rig, 10);
  interface->activeSecondaryAddrIs({prefix("10.0.1.1/24"), prefix("10.0.2.1/24")});
  EXPECT_THAT(addresses(), ElementsAre("10.0.0.1", "10.0.1.1", "10.0.2.1"));
  interface->activeAddrIs(prefix("10.0.3.1/24"));
  interface->activeSecondaryAddrIs({prefix("10.0.2.1/24")});
  EXPECT_THAT(addresses(), ElementsAre("10.0.2.1", "10.0.3.1"));
  interface->activeAddrIs({});
  EXPECT_THAT(addresses(), ElementsAre("10.0.2.1"));
  interface->vrfNameIs("blue");
  EXPECT_THAT(addresses(), ElementsAre("10.0.2.1")) << "a new entry has them at once";
  interface->activeSecondaryAddrIs({});
  EXPECT_THAT(addresses(), IsEmpty());
  rig.noVlanInterface(10);
  interface->activeAddrIs(prefix("10.0.9.1/24"));
  rig.vlanInterface(10, "red", Rig::kVlan10, "10.0.4.1/24");
  EXPECT_THAT(addresses(), ElementsAre("10.0.4.1"));
}

// --- The same by chance: every input in any order, against what the inputs alone say

class Chance {
 public:
  explicit Chance(unsigned seed) : random_(seed) {
    rig.tasks().mustYieldForTestIs([this] { return pick(3) != 0; });
    rig.start();
  }
  std::uint32_t pick(std::uint32_t n) { return static_cast<std::uint32_t>(random_() % n); }
  void step();
  void changeVrf(const char* name);
  void expectTrue();

  Rig rig;

 private:
  // The namespace that a VRF is served in, "" when it is not.
  std::string served(const std::string& vrf) {
    const bool known =
        rig.table<Vrf::VrfIdMap::Status>("vrf/vrfIdMapStatus")->vrfIdToNameEntry(idOf(vrf)).has_value();
    const auto status = vrfOf(rig, vrf.c_str());
    if (!status) return known && vrf == "default" ? vrf : "";
    return known && status->state() == Ip::VrfState::active ? status->networkNamespace() : "";
  }
  std::uint32_t indexOf(const std::string& netNs, std::uint32_t vlan) {
    const auto kni = rig.state<KernelNetInfo::Status>(("kni/ns/" + netNs + "/status").c_str());
    return kni ? kni->interface("vlan" + std::to_string(vlan)).ifIndex : 0;
  }
  static std::uint32_t idOf(const std::string& vrf) { return vrf == "default" ? 0 : vrf == "red" ? 5 : 6; }

  std::mt19937 random_;
  std::uint32_t nextIndex_ = 100;
};

// Each VRF has its own namespace, now and then none; it does not change while the VRF is active.
void Chance::changeVrf(const char* name) {
  const auto all = rig.state<Ip::AllVrfStatusLocal>("ip/vrf/status/local");
  const auto status = all->vrfIs(name);
  if (pick(4) == 0) {
    all->vrfDel(name);
  } else if (pick(3) == 0 &&
             (status->state() == Ip::VrfState::inactive || status->networkNamespace().empty())) {
    status->networkNamespaceIs(pick(4) == 0 ? "" : name);
  } else {
    status->stateIs(pick(4) == 0 ? Ip::VrfState::inactive : Ip::VrfState::active);
  }
}

void Chance::step() {
  const std::uint32_t vlan = 10 + pick(4);
  const auto interface = intf(("Vlan" + std::to_string(vlan)).c_str());
  const char* const vrfs[] = {"red", "blue", "default"};
  const char* vrf = vrfs[pick(3)];
  const bool removed = pick(3) == 0;
  switch (pick(7)) {
    case 0:
      removed ? static_cast<void>(rig.evpn()->vlanToDot1qDel(Vlan(vlan)))
              : rig.evpn()->vlanToDot1qIs(Vlan(vlan), 1);
      break;
    case 1:
      removed ? rig.remoteBinding(vlan, "10.0.0.99", kHostMac) : rig.noRemoteBinding(vlan, "10.0.0.99");
      break;
    case 2:
      changeVrf(vrf);
      break;
    case 3:
      vrfId(rig, idOf(vrf), removed ? nullptr : vrf);
      break;
    case 4:
      rig.device(vrf, ("vlan" + std::to_string(vlan)).c_str(), removed ? 0 : nextIndex_++);
      break;
    case 5:
      removed ? static_cast<void>(rig.ipStatus()->ipIntfStatusDel(interface))
              : rig.ipStatus()->ipIntfStatusIs(interface)->vrfNameIs(pick(8) == 0 ? "" : vrf);
      break;
    default:
      if (pick(6) == 0) rig.evpn()->mplsConfiguredIs(!rig.evpn()->mplsConfigured());
  }
  if (pick(3) == 0) rig.turn();
}

void Chance::expectTrue() {
  rig.settle();
  EXPECT_EQ(rig.errors, "");
  EXPECT_EQ(rig.published()->runnable(), rig.evpn()->mplsConfigured());
  std::vector<std::uint16_t> published;
  std::set<std::string> vrfs;
  std::multiset<std::string> sockets;
  if (rig.evpn()->mplsConfigured()) {
    const VlanL3InfoStatus& status = *rig.root()->vlanL3InfoStatus;
    vrfs.insert("default");  // the fabric devices are watched there
    for (std::uint32_t vlan = 10; vlan < 14; ++vlan) {
      SCOPED_TRACE(vlan);
      const bool inEvpn = rig.evpn()->vlanToDot1qHas(Vlan(vlan));
      const bool bound = rig.table<RemoteBindingConfig>("arpSuppression/remoteBindingConfig/evpn")
                             ->remoteBindingEntry({Vlan(vlan), ip("10.0.0.99")})
                             .has_value();
      const auto interface = interfaceOf(rig, vlan);
      const std::string vrf = (inEvpn || bound) && interface ? interface->vrfName() : "";
      const std::uint32_t index = served(vrf).empty() ? 0 : indexOf(served(vrf), vlan);
      if ((inEvpn && index != 0) || bound) published.push_back(static_cast<std::uint16_t>(vlan));
      EXPECT_EQ(rig.root()->enabledVlans->vlanIdHas(Vlan(vlan)), inEvpn || bound);
      const auto info = status.vlanL3Info(Vlan(vlan));
      ASSERT_EQ(info != nullptr, !vrf.empty());
      if (!info) continue;
      vrfs.insert(vrf);
      EXPECT_EQ(info->vrfInfo()->vrfName(), vrf);
      EXPECT_EQ(info->vrfInfo(), status.vrfInfo(vrf));
      EXPECT_EQ(info->kniIntfIfIndex(), index);
    }
    EXPECT_EQ(status.vrfInfos(), vrfs.size()) << "VRFs that nothing uses are gone";
  } else {
    EXPECT_EQ(rig.sockets.openSockets(), 0);
  }
  for (const auto& vrf : vrfs) {
    if (!served(vrf).empty()) sockets.insert(served(vrf));
  }
  EXPECT_EQ(rig.publishedVlans(), published);
  EXPECT_EQ(netlinkNamespaces(rig), sockets);
}

TEST(VlanL3Info, inputs_in_any_order_end_where_the_inputs_say) {
  for (unsigned seed = 1; seed <= 12; ++seed) {
    SCOPED_TRACE(seed);
    Chance chance(seed);
    for (int round = 0; round < 60; ++round) {
      const std::uint32_t steps = 1 + chance.pick(12);
      for (std::uint32_t i = 0; i < steps; ++i) chance.step();
      chance.expectTrue();
      ASSERT_FALSE(testing::Test::HasFailure()) << "round " << round;
    }
    chance.rig.kill();
    EXPECT_THAT(chance.rig.netlinkSockets.openSockets(), IsEmpty());
    EXPECT_EQ(chance.rig.sockets.openSockets(), 0);
  }
}

TEST(VlanL3InfoSmDeathTest, namespace_of_an_active_vrf_must_not_change) {
  Rig rig;
  rig.start();
  EXPECT_DEATH(vrfOf(rig, "red")->networkNamespaceIs("blue"),
               brokenInvariant("ArpSuppression/VlanL3InfoSm",
                               "!wasActive || vrfInfo()->netNs() == vrfStatusLocal()->networkNamespace()"));
}

}  // namespace
}  // namespace ArpSuppression
