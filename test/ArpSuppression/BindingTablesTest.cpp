#include "ArpSuppression/VrfUseTracker.h"
#include "Rig.h"

namespace ArpSuppression {
namespace {

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
