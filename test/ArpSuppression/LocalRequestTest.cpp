#include "Rig.h"

namespace ArpSuppression {
namespace {

// The addresses of the last byte's that are in the record of the run.
std::vector<int> recorded(Rig& rig, std::uint32_t vlan = 10) {
  std::vector<int> hosts;
  for (int host = 0; host < 256; ++host) {
    if (rig.root()->localRequestRecord->entryHas(
            {Vlan(vlan), ip(("10.0.0." + std::to_string(host)).c_str())}))
      hosts.push_back(host);
  }
  return hosts;
}

TEST(LocalRequest, every_request_counts_from_its_latest_repetition) {
  Rig rig;
  rig.remoteBinding(10, "10.0.0.99", "02:00:00:00:00:63");
  rig.start();
  rig.tasks().mustYieldForTestIs([] { return true; });
  const auto at = [&](double seconds) {  // on the clock that began with the test
    rig.clock.advance(seconds - rig.clock.now());
    rig.settle();
  };
  const double start = rig.clock.now();
  for (const char* target : {"10.0.0.99", "10.0.0.98", "10.0.0.1"}) rig.trap(Trapped{.targetIp = target});
  rig.trap(Trapped{.operation = 2, .targetIp = "10.0.0.97"});
  rig.trap(Trapped{.vlan = 20, .targetIp = "10.0.0.96"});
  EXPECT_THAT(recorded(rig), ElementsAre(1, 98, 99)) << "answered, flooded and left alone; no reply";
  EXPECT_THAT(recorded(rig, 20), IsEmpty()) << "not trapped on this VLAN";
  at(start + 100);
  rig.trap(Trapped{.targetIp = "10.0.0.50"});
  at(start + 200);
  rig.trap(Trapped{.targetIp = "10.0.0.99"});
  at(start + 239.9);
  EXPECT_THAT(recorded(rig), ElementsAre(1, 50, 98, 99));
  at(start + 240);
  EXPECT_THAT(recorded(rig), ElementsAre(50, 99));
  at(start + 340);
  EXPECT_THAT(recorded(rig), ElementsAre(99));
  at(start + 439.9);
  EXPECT_THAT(recorded(rig), ElementsAre(99));
  at(start + 440);
  EXPECT_THAT(recorded(rig), IsEmpty());
  rig.clock.advance(1000);
  EXPECT_FALSE(rig.turn()) << "nothing scheduled for an empty record";
  rig.trap(Trapped{.targetIp = "10.0.0.98"});
  rig.clock.advance(240);
  rig.settle();
  EXPECT_THAT(recorded(rig), IsEmpty()) << "and again for the next entry";
}

TEST(LocalRequest, ageing_that_an_error_ended_goes_on_with_the_next_request) {
  Rig rig;
  rig.start();
  for (const char* target : {"10.0.0.97", "10.0.0.98"}) rig.trap(Trapped{.targetIp = target});
  rig.tasks().mustYieldForTestIs([]() -> bool { throw Mox::RangeError("no good"); });
  rig.clock.advance(240);
  rig.settle();
  EXPECT_THAT(rig.errors, testing::HasSubstr("no good"));
  rig.tasks().mustYieldForTestIs({});
  rig.trap(Trapped{.targetIp = "10.0.0.99"});
  rig.clock.advance(240);
  rig.settle();
  EXPECT_THAT(recorded(rig), IsEmpty());
}

}  // namespace
}  // namespace ArpSuppression
