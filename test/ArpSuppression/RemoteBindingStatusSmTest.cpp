#include <array>
#include <bit>
#include <map>
#include <random>
#include <set>

#include "Mox/Error.h"
#include "Rig.h"

namespace ArpSuppression {
namespace {

using Stage = RemoteBindingStatusSm::WalkStage;

constexpr char kType[] = "ArpSuppression::RemoteBindingConfig";
constexpr char kPath[] = "arpSuppression/remoteBindingConfig/evpn";
constexpr char kMac1[] = "02:00:00:00:00:01";
constexpr char kMac2[] = "02:00:00:00:00:02";

// The reactor alone over a table in shared memory, with VLANs that the test puts into VRFs. Every VRF is
// kept in the status by a watch.
class Reactor {
 public:
  // `alsoAwaited`: a table without which the group is not ready.
  explicit Reactor(const char* alsoAwaited = nullptr) {
    group = rig.tables().mountGroup();
    for (const char* path : {kPath, alsoAwaited}) {
      if (!path) continue;
      EXPECT_TRUE(group->mountIs(path, kType, Memtab::MountDescriptor::reader()));
    }
    group->close();
    table_ = rig.table<RemoteBindingConfig>(kPath);
    for (const char* vrf : {"red", "blue"}) vlans->findOrCreateVrfInterfaceWatch(vrf, vrf);
    sm = Mox::make<RemoteBindingStatusSm>(rig.tasks().scheduler(), Ptr<const RemoteBindingConfig>(table_),
                                          Ptr<const MoxSharedMem::MountGroup>(group), vlans,
                                          status.notifier());
    status.on(RemoteBindingStatus::lastVrfIpAddressChangeChanged, [this](const VrfIpAddress& key) {
      if (key) changes.push_back(key.vrfInfo->vrfName() + " " + key.ipAddress.toStrep());
    });
  }

  // As the layer-3 reactor does it; null takes the VLAN out of its VRF.
  void vlan(std::uint32_t number, const char* vrf) {
    if (const auto old = vlans->vlanL3Info(Vlan(number))) {
      vlans->delVrfInterfaceWatch(old);
      vlans->vlanL3InfoDel(Vlan(number));
    }
    if (vrf) vlans->addVrfInterfaceWatch(vlans->vlanL3InfoIs(vlans->vrfInfoIs(vrf), Vlan(number)));
  }
  void settle() {
    rig.settle();
    EXPECT_EQ(rig.errors, "");
    expectTrue();
  }
  // "10/1* 20/2": VLAN and last byte of each station of an address, a star for local-multihomed ones.
  std::string stations(const char* vrf, const char* address) const {
    std::string text;
    const auto entry = status->ipToMac({vlans->vrfInfo(vrf), ip(address), {}});
    if (!entry) return text;
    for (const auto& [station, localMultihomed] : entry->vlanIdMacAddressCollection()) {
      text += (text.empty() ? "" : " ") + station.vlanId.toStrep() + "/" +
              std::to_string(station.macAddress.bytes()[5]) + (localMultihomed ? "*" : "");
    }
    return text;
  }
  std::vector<std::string> takeChanges() { return std::exchange(changes, {}); }
  // What the status has to hold follows from the table and the VLANs alone.
  void expectTrue() const;

  Rig rig;
  Ptr<VlanL3InfoStatus> vlans = Mox::make<VlanL3InfoStatus>();
  Mox::Notifiee<RemoteBindingStatus> status{Mox::make<RemoteBindingStatus>(vlans)};
  Ptr<MoxSharedMem::MountGroup> group;
  Ptr<RemoteBindingStatusSm> sm;
  std::vector<std::string> changes;

 private:
  Ptr<RemoteBindingConfig> table_;
};

void Reactor::expectTrue() const {
  std::multiset<std::string> wantedStations, wantedFiled, stations, filed;
  std::map<Vlan, int> wantedCounts;
  table_->remoteBindingForEach([&](const RemoteBindingKey& key, const RemoteBinding& binding) {
    if (!key.vlanId.sound() || !key.ipAddress || !key.ipAddress.sound() || key.padding != 0 || !binding)
      return;
    const VlanIdMacAddress station{key.vlanId, binding.macAddress};
    wantedStations.insert(station.toStrep() + key.ipAddress.toStrep());
    ++wantedCounts[key.vlanId];
    if (const auto info = vlans->vlanL3Info(key.vlanId)) {
      wantedFiled.insert(VrfIpAddress::fromVlanL3Info(*info, key.ipAddress).toStrep() + station.toStrep() +
                         (binding.localMultihomed ? "*" : ""));
    }
  });
  for (const auto& entry : status->macToIpCollection()) {
    EXPECT_NE(entry->ipAddresss(), 0u);
    for (const auto& address : entry->ipAddress().keys())
      stations.insert(entry->vlanIdMacAddress().toStrep() + address.toStrep());
  }
  std::map<const VrfInfo*, std::uint32_t> entriesOf;
  for (const auto& entry : status->ipToMacCollection()) {
    EXPECT_NE(entry->vlanIdMacAddresss(), 0u);
    ++entriesOf[entry->vrfIpAddress().vrfInfo.get()];
    for (const auto& [station, localMultihomed] : entry->vlanIdMacAddressCollection()) {
      filed.insert(entry->vrfIpAddress().toStrep() + station.toStrep() + (localMultihomed ? "*" : ""));
    }
  }
  EXPECT_EQ(stations, wantedStations);
  EXPECT_EQ(filed, wantedFiled);
  EXPECT_EQ(status->vrfReferenceCounts(), entriesOf.size());
  for (const auto& [vrf, entries] : entriesOf) EXPECT_EQ(status->vrfReferenceCount(vrf), entries);
  EXPECT_EQ(status->vlanIds(), wantedCounts.size());
  EXPECT_EQ(sm->vlanBindingCounts(), wantedCounts.size());
  for (const auto& [vlanId, count] : wantedCounts) {
    EXPECT_TRUE(status->vlanIdHas(vlanId));
    EXPECT_EQ(sm->vlanBindingCount(vlanId), count);
  }
  EXPECT_EQ(sm->knownBindings(), wantedStations.size());
}

TEST(RemoteBindingStatusSm, each_change_is_applied_as_an_exact_difference) {
  const struct {
    const char* name;
    std::uint32_t vlan;
    const char* address;
    const char* mac;  // null: withdrawn
    bool localMultihomed;
    const char* stations;
    std::size_t changes;
  } steps[] = {
      {"new", 10, "10.0.0.1", kMac1, false, "10/1", 1},
      {"the same again", 10, "10.0.0.1", kMac1, false, "10/1", 0},
      {"another flag", 10, "10.0.0.1", kMac1, true, "10/1*", 1},
      {"another address of the station", 10, "10.0.0.2", kMac1, false, "10/1*", 1},
      {"the host moves, and both halves are told", 10, "10.0.0.1", kMac2, false, "10/2", 2},
      {"through another VLAN too", 20, "10.0.0.1", kMac1, false, "10/2 20/1", 1},
      {"a changed flag does not change who is first", 10, "10.0.0.1", kMac2, true, "10/2* 20/1", 1},
      {"the first is withdrawn", 10, "10.0.0.1", nullptr, false, "20/1", 1},
      {"one that is not there is withdrawn", 10, "10.0.0.1", nullptr, false, "20/1", 0},
      {"the zero MAC withdraws", 20, "10.0.0.1", "00:00:00:00:00:00", false, "", 1},
  };
  Reactor r;
  r.vlan(10, "red");
  r.vlan(20, "red");
  r.settle();
  for (const auto& step : steps) {
    SCOPED_TRACE(step.name);
    if (step.mac) {
      r.rig.remoteBinding(step.vlan, step.address, step.mac, step.localMultihomed);
    } else {
      r.rig.noRemoteBinding(step.vlan, step.address);
    }
    r.settle();
    EXPECT_EQ(r.stations("red", "10.0.0.1"), step.stations);
    EXPECT_EQ(r.takeChanges(), std::vector<std::string>(step.changes, std::string("red ") + step.address));
  }
}

TEST(RemoteBindingStatusSm, moving_host_is_never_without_a_station) {
  Reactor r;
  r.vlan(10, "red");
  r.rig.remoteBinding(10, "10.0.0.1", kMac1);
  r.settle();
  std::vector<std::string> seen;
  Mox::Notifiee<RemoteBindingStatus> watch(r.status.notifier());
  watch.on(RemoteBindingStatus::lastVrfIpAddressChangeChanged, [&](const VrfIpAddress& key) {
    if (key) seen.push_back(r.stations("red", "10.0.0.1"));
  });
  r.rig.remoteBinding(10, "10.0.0.1", kMac2);
  r.settle();
  EXPECT_THAT(seen, ElementsAre("10/1 10/2", "10/2"));
}

TEST(RemoteBindingStatusSm, bindings_follow_their_vlan) {
  Reactor r;
  r.rig.remoteBinding(10, "10.0.0.1", kMac1);
  r.rig.remoteBinding(10, "fe80::1", kMac1);
  r.settle();
  EXPECT_EQ(r.status->macToIps(), 1u) << "a VLAN without a VRF still has its stations";
  EXPECT_EQ(r.status->ipToMacs(), 0u);
  EXPECT_TRUE(r.status->initialPopulationComplete());
  r.vlan(10, "red");
  r.settle();
  EXPECT_EQ(r.stations("red", "10.0.0.1"), "10/1");
  r.takeChanges();
  r.vlan(10, "blue");
  r.settle();
  EXPECT_EQ(r.stations("red", "10.0.0.1"), "");
  EXPECT_EQ(r.stations("blue", "10.0.0.1"), "10/1");
  const auto changes = r.takeChanges();
  EXPECT_THAT(std::set<std::string>(changes.begin(), changes.end()),
              ElementsAre("blue 10.0.0.1", "blue fe80::1", "red 10.0.0.1", "red fe80::1"));
  r.vlan(10, nullptr);
  r.settle();
  EXPECT_EQ(r.status->ipToMacs(), 0u);
  EXPECT_EQ(r.status->macToIps(), 1u);
}

TEST(RemoteBindingStatusSm, population_is_complete_after_the_whole_table_and_vlan_changes_start_again) {
  Reactor r;
  r.vlan(10, "red");
  const auto address = [](int i) { return "10.0.0." + std::to_string(i); };
  for (int i = 1; i <= 220; ++i) r.rig.remoteBinding(10, address(i).c_str(), kMac1);
  r.rig.tasks().mustYieldForTestIs([] { return true; });
  std::size_t atCompletion = 0;
  Mox::Notifiee<RemoteBindingStatus> watch(r.status.notifier());
  watch.on(RemoteBindingStatus::initialPopulationCompleteChanged,
           [&] { atCompletion += r.sm->knownBindings(); });
  int slices = 0;
  int gone = 220;
  for (; r.sm->walkStage() != Stage::walkRemoteBindingStatus && r.rig.turn(); ++slices) {
    // Keys that the population has read or not, handled or not: its bookmark is now and then among them.
    if (slices % 3 == 0 && gone > 199) r.rig.noRemoteBinding(10, address(gone--).c_str());
  }
  EXPECT_GE(slices, 199 / 2) << "an entry a slice, two slices a turn";
  EXPECT_EQ(atCompletion, 199u);
  r.vlan(20, "red");
  for (int i = 0; i < 3; ++i) r.rig.turn();
  EXPECT_EQ(r.sm->walkStage(), Stage::walkRemoteBindingStatus) << "a VLAN without bindings costs nothing";
  r.vlan(10, "blue");
  r.rig.turn();
  EXPECT_EQ(r.sm->walkStage(), Stage::walkRemoteBindingConfig);
  r.settle();
  EXPECT_EQ(r.sm->walkStage(), Stage::complete);
  EXPECT_EQ(atCompletion, 199u) << "complete once and for all";
}

TEST(RemoteBindingStatusSm, anything_may_happen_between_slices) {
  Reactor r;
  std::mt19937 random(20240607);
  const auto pick = [&](unsigned n) { return static_cast<std::uint32_t>(random() % n); };
  r.rig.tasks().mustYieldForTestIs([&] { return pick(4) != 0; });
  const char* vrfs[] = {"red", "blue", "green", nullptr};
  const char* macs[] = {kMac1, kMac2, "02:00:00:00:00:03"};
  for (int round = 0; round < 60; ++round) {
    for (int step = 0; step < 40; ++step) {
      const std::uint32_t vlan = 10 + pick(4);
      const std::string address = (pick(3) == 0 ? "fe80::" : "10.0.0.") + std::to_string(1 + pick(60));
      switch (pick(8)) {
        case 0:
          r.vlan(vlan, vrfs[pick(4)]);
          break;
        case 1:
        case 2:
          r.rig.noRemoteBinding(vlan, address.c_str());
          break;
        default:
          r.rig.remoteBinding(vlan, address.c_str(), macs[pick(3)], pick(4) == 0);
      }
      if (pick(3) == 0) r.rig.turn();
    }
    r.settle();
    ASSERT_FALSE(testing::Test::HasFailure()) << "round " << round;
  }
}

TEST(RemoteBindingStatusSm, bindings_before_the_mounts_are_ready_are_no_population) {
  const char* awaited = "arpSuppression/remoteBindingConfig/later";
  Reactor r(awaited);
  r.vlan(10, "red");
  r.rig.remoteBinding(10, "10.0.0.1", kMac1);
  r.settle();
  EXPECT_EQ(r.stations("red", "10.0.0.1"), "10/1") << "single changes are applied at once";
  r.vlan(10, "blue");
  r.rig.settle();
  EXPECT_FALSE(r.sm->remoteBindingConfigReady());
  EXPECT_FALSE(r.status->initialPopulationComplete());
  EXPECT_FALSE(r.sm->walkScheduled());
  EXPECT_TRUE(r.rig.tables().mount(awaited, kType, Memtab::MountDescriptor::writer()));
  r.settle();
  EXPECT_TRUE(r.sm->remoteBindingConfigReady());
  EXPECT_TRUE(r.status->initialPopulationComplete());
  EXPECT_EQ(r.stations("blue", "10.0.0.1"), "10/1");
  for (const bool ready : {false, true}) r.group->readyIs(ready);
  EXPECT_FALSE(r.sm->walkScheduled()) << "ready once more";
}

TEST(RemoteBindingStatusSm, error_in_a_walk_costs_the_entry_that_met_it) {
  for (const bool population : {true, false}) {
    const char* awaited = "arpSuppression/remoteBindingConfig/later";
    Reactor r(awaited);
    for (int i = 1; i <= 50; ++i) r.rig.remoteBinding(10, ("10.0.0." + std::to_string(i)).c_str(), kMac1);
    r.rig.settle();  // single changes, all known
    EXPECT_TRUE(r.rig.tables().mount(awaited, kType, Memtab::MountDescriptor::writer()));
    const std::string error = "RemoteBindingStatusSm: raised by the test\n";
    if (!population) {
      r.vlan(10, "blue");
      r.settle();
    }
    Mox::Notifiee<RemoteBindingStatus> raises(r.status.notifier());
    raises.on(RemoteBindingStatus::lastVrfIpAddressChangeChanged, [&](const VrfIpAddress& key) {
      if (key && key.ipAddress == ip("10.0.0.7")) throw Mox::RangeError("raised by the test");
    });
    r.vlan(10, "red");
    r.rig.settle();
    // Afterwards both passes meet it: where the address is filed, and where it is taken away.
    EXPECT_EQ(std::exchange(r.rig.errors, ""), population ? error : error + error);
    EXPECT_TRUE(r.status->initialPopulationComplete());
    EXPECT_EQ(r.sm->walkStage(), Stage::complete);
    EXPECT_EQ(r.status->ipToMacs(), 50u);
  }
}

TEST(RemoteBindingStatusSm, keys_that_are_none_are_passed_over) {
  const auto keyOf = [](std::uint16_t vlan, unsigned family, unsigned padding) {
    std::array<std::uint8_t, sizeof(RemoteBindingKey)> bytes{};
    std::memcpy(bytes.data(), &vlan, sizeof vlan);
    bytes[2] = static_cast<std::uint8_t>(family);
    bytes[3] = 10;
    bytes[6] = 1;
    bytes.back() = static_cast<std::uint8_t>(padding);
    return std::bit_cast<RemoteBindingKey>(bytes);
  };
  Reactor r;
  r.vlan(10, "red");
  const auto table = r.rig.table<RemoteBindingConfig>(kPath);
  const RemoteBindingKey good = keyOf(10, 1, 0);
  ASSERT_EQ(good, (RemoteBindingKey{Vlan(10), ip("10.0.0.1")}));
  table->remoteBindingIs(good, {mac(kMac1), false});
  const RemoteBindingKey bad[] = {keyOf(0, 1, 0),  keyOf(4095, 1, 0), keyOf(5000, 1, 0), keyOf(65535, 2, 0),
                                  keyOf(10, 0, 0), keyOf(10, 3, 0),   keyOf(10, 77, 0),  keyOf(10, 1, 1)};
  for (const bool walked : {true, false}) {
    if (!walked) r.settle();  // the second time they arrive one by one
    for (const auto& key : bad) table->remoteBindingIs(key, {mac(walked ? kMac1 : kMac2), false});
    r.settle();
    EXPECT_EQ(r.sm->knownBindings(), 1u);
    EXPECT_EQ(r.stations("red", "10.0.0.1"), "10/1");
  }
  for (const auto& key : bad) table->remoteBindingDel(key);
  r.settle();
  EXPECT_EQ(r.sm->knownBindings(), 1u);
}

}  // namespace
}  // namespace ArpSuppression
