#include "Mox/Error.h"
#include "Rig.h"

namespace ArpSuppression {
namespace {

TEST(VlanL3InfoStatus, names_follow_from_the_vlan) {
  const auto status = Mox::make<VlanL3InfoStatus>();
  const auto red = status->vrfInfoIs("red");
  const auto info = status->vlanL3InfoIs(red, Vlan(4094));
  EXPECT_EQ(info->intfName(), "Vlan4094");
  EXPECT_EQ(info->kniIntfName(), "vlan4094");
  EXPECT_EQ(info->vlanIntfId(), intf("Vlan4094"));
  EXPECT_EQ(info->kniIntfIfIndex(), 0u);
  EXPECT_EQ(info->toStrep(), "<vrfName=red vlanId=4094>");
  EXPECT_EQ(red->toStrep(), "<vrfName=red vrfId=16777215>");
  EXPECT_EQ(status->vlanL3InfoIs(red, Vlan(4094)), info);
  EXPECT_THROW(status->vlanL3InfoIs(status->vrfInfoIs("blue"), Vlan(4094)), Mox::ReinstantiationError);
  EXPECT_THROW(red->interfaceWatchIs(nullptr), Mox::NullError);
  const auto watch = status->findOrCreateVrfInterfaceWatch("red", "Fabric");
  EXPECT_EQ(watch->kniIntfName(), "fabric");
  EXPECT_EQ(watch->toStrep(), "<vrfName=red intfName=Fabric usable=false>");
  EXPECT_EQ(status->findOrCreateVrfInterfaceWatch("red", "Fabric"), watch);
}

TEST(VlanL3InfoStatus, announcements_carry_their_vlan_also_when_they_nest) {
  const auto status = Mox::make<VlanL3InfoStatus>();
  std::vector<std::string> told;
  Mox::Notifiee<VlanL3InfoStatus> first(status), second(status);
  bool nested = false;
  first.on(VlanL3InfoStatus::updatedVlanIdChanged, [&](Bridging::VlanIdOrNone vlan) {
    told.push_back("first " + vlan.toStrep());
    if (vlan.value() == 10 && !std::exchange(nested, true)) {
      status->vlanUpdated(Vlan(10));
      status->vlanUpdated(Vlan(20));
    }
  });
  second.on(VlanL3InfoStatus::updatedVlanIdChanged,
            [&](Bridging::VlanIdOrNone vlan) { told.push_back("second " + vlan.toStrep()); });
  status->vlanUpdated(Vlan(10));
  EXPECT_THAT(told, ElementsAre("first 10", "first 10", "second 10", "first 20", "second 20", "second 10"));
  told.clear();
  status->vlanUpdated(Vlan(10));
  EXPECT_THAT(told, ElementsAre("first 10", "second 10")) << "the same VLAN again";
  EXPECT_FALSE(status->updatedVlanId());
}

}  // namespace
}  // namespace ArpSuppression
