#include "ArpSuppression/LocalBinding.h"
#include "Rig.h"

namespace ArpSuppression {
namespace {

// Red and blue, kept in the status by a watch of each; what becomes of a binding table is in `journal`.
struct Tables {
  Tables() {
    status->findOrCreateVrfInterfaceWatch("red", "red-port");
    status->findOrCreateVrfInterfaceWatch("blue", "blue-port");
    local
        .on(LocalBindingRecord::bindingChanged,
            [this](const VrfIpAddress& key) {
              journal.push_back((local->bindingHas(key) ? "+" : "-") + key.ipAddress.toStrep());
            })
        .on(LocalBindingRecord::macToIpChanged, [this](const VlanIdMacAddress& key) {
          journal.push_back((local->macToIpHas(key) ? "+" : "-") + key.macAddress.toStrep());
        });
  }
  VrfIpAddress in(const char* vrf, const char* address) const {
    return {vrf ? status->vrfInfo(vrf) : nullptr, ip(address), {}};
  }
  std::uint32_t bindingsOf(const char* vrf) const {
    return local->vrfReferenceCount(vrf ? status->vrfInfo(vrf).get() : nullptr);
  }
  std::vector<std::string> takeJournal() { return std::exchange(journal, {}); }

  Ptr<VlanL3InfoStatus> status = Mox::make<VlanL3InfoStatus>();
  Mox::Notifiee<LocalBindingRecord> local{localBindingRecordFactory(status)};
  std::vector<std::string> journal;
};

const VlanIdMacAddress kA{Vlan(10), mac("02:00:00:00:00:0a")};
const VlanIdMacAddress kB{Vlan(10), mac("02:00:00:00:00:0b")};
const VlanIdMacAddress kSameMacElsewhere{Vlan(20), mac("02:00:00:00:00:0a")};

TEST(LocalBindingRecord, watchers_see_a_replaced_binding_go_and_come) {
  for (const auto& station : {kA, kB, kSameMacElsewhere}) {
    SCOPED_TRACE(station.toStrep());
    Tables t;
    const auto key = t.in("red", "10.0.0.1");
    const auto old = t.local->createLocalBinding(key, kA);
    old->arpStatusHasDynamicEntryIs(true);
    t.takeJournal();
    const auto now = t.local->createLocalBinding(key, station);
    EXPECT_THAT(t.takeJournal(), ElementsAre("-10.0.0.1", "-02:00:00:00:00:0a", "+10.0.0.1",
                                             "+" + station.macAddress.toStrep()));
    EXPECT_NE(now, old);
    EXPECT_FALSE(now->arpStatusHasDynamicEntry());
    EXPECT_EQ(t.local->binding(key), now);
    EXPECT_EQ(t.local->bindings(), 1u);
    EXPECT_EQ(t.local->macToIps(), 1u);
    EXPECT_EQ(t.local->macToIp(station)->binding(key), now);
    EXPECT_EQ(t.bindingsOf("red"), 1u);
  }
}

TEST(LocalBindingRecord, station_stays_until_its_last_address_goes) {
  Tables t;
  const auto one = t.local->createLocalBinding(t.in("red", "10.0.0.1"), kA);
  const auto two = t.local->createLocalBinding(t.in("red", "10.0.0.2"), kA);
  t.local->createLocalBinding(t.in("blue", "10.0.0.1"), kB);
  EXPECT_EQ(t.local->macToIp(kA)->bindings(), 2u);
  EXPECT_EQ(t.bindingsOf("red"), 2u);
  EXPECT_EQ(t.bindingsOf("blue"), 1u);
  t.takeJournal();
  t.local->deleteLocalBinding(one);
  EXPECT_THAT(t.takeJournal(), ElementsAre("-10.0.0.1"));
  ASSERT_TRUE(t.local->macToIpHas(kA));
  EXPECT_EQ(
      t.local->macToIp(kA)->toStrep(),
      "<<vlanId=10 macAddress=02:00:00:00:00:0a> binding=[ <<vrfName=red vrfId=16777215>;10.0.0.2;> ]>");
  t.local->deleteLocalBinding(two);
  EXPECT_THAT(t.takeJournal(), ElementsAre("-10.0.0.2", "-02:00:00:00:00:0a"));
  EXPECT_EQ(t.bindingsOf("red"), 0u);
  EXPECT_EQ(t.bindingsOf("blue"), 1u);
}

TEST(LocalBindingRecord, replacing_the_only_binding_of_a_vrf_never_lets_the_vrf_go) {
  Tables t;
  const auto green = t.status->vrfInfoIs("green");
  const VrfIpAddress key{green, ip("10.0.0.1"), {}};
  t.local->createLocalBinding(key, kA);
  int changes = 0;
  Mox::Notifiee<VlanL3InfoStatus> watch(t.status);
  watch.on(VlanL3InfoStatus::vrfInfoChanged, [&] { ++changes; });
  const auto binding = t.local->createLocalBinding(key, kB);
  EXPECT_EQ(changes, 0);
  EXPECT_EQ(t.status->vrfInfo("green"), green);
  t.local->deleteLocalBinding(binding);
  EXPECT_EQ(changes, 1) << "released once, with the last binding";
  EXPECT_FALSE(t.status->vrfInfoHas("green"));
}

TEST(VrfUseTracker, vrf_stays_while_any_of_two_tables_uses_it) {
  const auto status = Mox::make<VlanL3InfoStatus>();
  const auto one = Mox::make<VrfUseTracker>(status), two = Mox::make<VrfUseTracker>(status);
  const auto red = status->vrfInfoIs("red");
  one->referenceVrf(red);
  one->referenceVrf(red);
  two->referenceVrf(red);
  EXPECT_EQ(red->users(), 2u) << "one for each table, however many bindings";
  one->releaseVrf(red);
  EXPECT_EQ(one->vrfReferenceCount(red.get()), 1u);
  EXPECT_EQ(red->users(), 2u);
  one->releaseVrf(red);
  EXPECT_FALSE(one->vrfReferenceCountHas(red.get()));
  EXPECT_EQ(red->users(), 1u);
  EXPECT_EQ(status->vrfInfo("red"), red);
  const auto watch = status->findOrCreateVrfInterfaceWatch("red", "port");
  two->releaseVrf(red);
  EXPECT_TRUE(status->vrfInfoHas("red")) << "an interface is watched in it";
  status->delVrfInterfaceWatch(watch);
  EXPECT_FALSE(status->vrfInfoHas("red"));
}

TEST(VrfUseTracker, last_user_of_a_vrf_that_left_does_not_take_its_successor_along) {
  const auto status = Mox::make<VlanL3InfoStatus>();
  const auto tracker = Mox::make<VrfUseTracker>(status);
  const auto oldRed = status->vrfInfoIs("red");
  tracker->referenceVrf(oldRed);
  status->vrfInfoDel("red");
  const auto newRed = status->vrfInfoIs("red");
  tracker->releaseVrf(oldRed);
  EXPECT_EQ(status->vrfInfo("red"), newRed);
}

}  // namespace
}  // namespace ArpSuppression
