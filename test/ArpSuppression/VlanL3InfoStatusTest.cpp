#include "Rig.h"

namespace ArpSuppression {
namespace {

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
