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

TEST(LocalRequest, an_entry_is_in_line_once_wherever_it_is_taken_from) {
  LocalRequestRecord record;
  const auto key = [](int host) {
    return RemoteBindingKey{Vlan(10), ip(("10.0.0." + std::to_string(host)).c_str())};
  };
  for (int host : {1, 2, 3, 4}) record.recordLocalRequest(key(host), host);
  record.recordLocalRequest(key(1), 5);
  EXPECT_TRUE(record.entryDel(key(3)));
  EXPECT_FALSE(record.entryDel(key(3)));
  record.recordLocalRequest(key(3), 6);
  ASSERT_EQ(record.oldest()->remoteBindingKey, key(1)) << "as of its first request";
  record.entryRequeue();
  std::vector<double> times;
  for (; record.oldest(); record.entryDel(RemoteBindingKey(record.oldest()->remoteBindingKey)))
    times.push_back(record.oldest()->lastRequestTime);
  EXPECT_THAT(times, ElementsAre(2, 4, 5, 6));
}

TEST(LocalRequest, lifetime_may_change_and_a_stop_leaves_the_record_to_its_end) {
  Rig rig;
  rig.start();
  const auto trap = rig.root()->receivedRequestTrap;
  const auto record = Mox::make<LocalRequestRecord>();
  const auto sm =
      Mox::make<LocalRequestRecordSm>(rig.tasks().scheduler(), Ptr<const MessageTrap>(trap), record);
  rig.trap(Trapped{});
  sm->entryLifetimeIs(60);
  rig.settle();
  rig.clock.advance(59);
  rig.settle();
  EXPECT_EQ(record->entrys(), 1u);
  rig.clock.advance(1);
  rig.settle();
  EXPECT_EQ(record->entrys(), 0u);

  const auto ofRun = rig.root()->localRequestRecord;
  EXPECT_EQ(ofRun->entrys(), 1u);
  rig.evpn()->mplsConfiguredIs(false);
  rig.clock.advance(180);
  rig.settle();
  EXPECT_EQ(ofRun->entrys(), 0u) << "ages on";
  rig.evpn()->mplsConfiguredIs(true);
  rig.settle();
  rig.trap(Trapped{});
  EXPECT_EQ(ofRun->entrys(), 0u);
  EXPECT_EQ(rig.root()->localRequestRecord->entrys(), 1u);
  rig.trap(Trapped{.targetIp = "10.0.0.98"});
  EXPECT_EQ(rig.errors, "");
}

}  // namespace
}  // namespace ArpSuppression
