#include "Rig.h"

namespace ArpSuppression {
namespace {

using Stage = ArpSuppressionStatusSm::InitializationStage;

// The reactor alone, between inputs that the test writes.
class Reactor {
 public:
  ~Reactor() { sm = nullptr; }

  void start() {
    sm = arpSuppressionStatusSmFactory(tasks->scheduler(), evpn, remote, vlans, published, enabled);
  }
  void settle() {
    for (int turns = 0; loop.step(0) && turns < 1000; ++turns) {
    }
  }
  // Starts over inputs as they are and goes through all stages.
  void complete() {
    start();
    settle();
    remote->initialPopulationCompleteIs(true);
    settle();
    ASSERT_EQ(sm->initializationStage(), Stage::complete);
  }
  void inEvpn(std::uint32_t vlan) { evpn->vlanToDot1qIs(Vlan(vlan), static_cast<std::uint16_t>(vlan)); }
  void usable(std::uint32_t vlan, bool is) {
    const auto red = vlans->vrfInfoIs("red");
    red->netNsIs("red");
    red->netlinkSocketIs(1000);
    const auto info = vlans->vlanL3InfoIs(red, Vlan(vlan));
    info->kniIntfIfIndexIs(is ? vlan : 0);
    vlans->vlanUpdated(*info);
  }
  std::vector<std::uint16_t> publishedVlans() const { return keysOf(published->vlanIdCollection()); }
  std::vector<std::uint16_t> enabledVlans() const { return keysOf(enabled->vlanIdCollection()); }

  Orb::ManualClock clock;
  Orb::EventLoop loop{clock};
  Ptr<Orb::TaskSchedulerRoot> tasks = Mox::make<Orb::TaskSchedulerRoot>(loop);
  Ptr<Evpn::EvpnStatus> evpn = Mox::make<Evpn::EvpnStatus>();
  Ptr<VlanL3InfoStatus> vlans = Mox::make<VlanL3InfoStatus>();
  Ptr<RemoteBindingStatus> remote = Mox::make<RemoteBindingStatus>(vlans);
  Ptr<ArpSuppressionStatus> published = Mox::make<ArpSuppressionStatus>();
  Ptr<EnabledVlans> enabled = Mox::make<EnabledVlans>();
  Ptr<ArpSuppressionStatusSm> sm;

 private:
  template <class Collection>
  static std::vector<std::uint16_t> keysOf(const Collection& collection) {
    std::vector<std::uint16_t> keys;
    for (const auto& [vlanId, value] : collection) keys.push_back(vlanId);
    return keys;
  }
};

constexpr unsigned kInEvpn = 1, kInRemote = 2, kUsable = 4;

struct Rule {
  unsigned facts;
  bool enabled, published;
};

constexpr Rule kRules[] = {
    {0, false, false},
    {kUsable, false, false},
    {kInEvpn, true, false},
    {kInEvpn | kUsable, true, true},
    {kInRemote, true, true},
    {kInRemote | kUsable, true, true},
    {kInEvpn | kInRemote, true, true},
    {kInEvpn | kInRemote | kUsable, true, true},
};

void apply(Reactor& r, unsigned facts) {
  r.usable(10, facts & kUsable);
  facts& kInEvpn ? r.inEvpn(10) : static_cast<void>(r.evpn->vlanToDot1qDel(Vlan(10)));
  facts& kInRemote ? r.remote->vlanIdIs(Vlan(10)) : static_cast<void>(r.remote->vlanIdDel(Vlan(10)));
}

TEST(Status, an_error_costs_its_vlan_and_the_walks_go_on) {
  Reactor reactor;
  std::string errors;
  reactor.loop.errorHandlerIs([&](const char*, const char* what) { errors += what; });
  for (const std::uint32_t vlan : {10u, 20u, 30u}) {
    reactor.inEvpn(vlan);
    reactor.usable(vlan, true);
  }
  reactor.published->vlanIdIs(Vlan(77), true);
  Mox::Notifiee<EnabledVlans> watch(reactor.enabled);
  watch.on(EnabledVlans::vlanIdChanged, [](Vlan vlan) {
    if (vlan == Vlan(20)) throw Mox::RangeError("no good");
  });
  reactor.complete();
  EXPECT_THAT(reactor.publishedVlans(), ElementsAre(10, 30));
  EXPECT_EQ(errors, "no good");
}

TEST(Status, vlan_is_enabled_and_published_by_rule_whatever_was_before) {
  for (const Rule& before : kRules) {
    Reactor r;
    r.complete();
    for (const Rule& rule : kRules) {
      SCOPED_TRACE(std::to_string(before.facts) + " to " + std::to_string(rule.facts));
      apply(r, before.facts);
      apply(r, rule.facts);
      EXPECT_EQ(r.enabled->vlanIdHas(Vlan(10)), rule.enabled);
      EXPECT_EQ(r.published->vlanIdHas(Vlan(10)), rule.published);
    }
  }
}

TEST(Status, what_was_published_before_stays_until_the_second_walk) {
  for (const Rule& rule : kRules) {
    SCOPED_TRACE(rule.facts);
    Reactor r;
    r.published->vlanIdIs(Vlan(10), true);
    r.start();
    apply(r, rule.facts);
    r.settle();
    EXPECT_EQ(r.sm->initializationStage(), Stage::waitForRemoteBindingStatus);
    EXPECT_EQ(r.enabled->vlanIdHas(Vlan(10)), rule.enabled);
    EXPECT_THAT(r.publishedVlans(), ElementsAre(10));
    r.remote->initialPopulationCompleteIs(true);
    r.settle();
    EXPECT_EQ(r.sm->initializationStage(), Stage::complete);
    EXPECT_EQ(r.published->vlanIdHas(Vlan(10)), rule.published);
  }
}

TEST(Status, population_may_be_complete_at_any_time_of_the_first_walk) {
  for (int turns = 0; turns < 8; ++turns) {
    SCOPED_TRACE(turns);
    Reactor r;
    r.tasks->mustYieldForTestIs([] { return true; });
    for (const std::uint32_t vlan : {10u, 20u, 30u}) r.inEvpn(vlan);
    for (const std::uint32_t vlan : {20u, 30u, 40u, 50u}) r.published->vlanIdIs(Vlan(vlan), true);
    r.usable(30, true);
    r.start();
    for (int i = 0; i < turns; ++i) r.loop.step(0);
    r.remote->initialPopulationCompleteIs(true);
    r.settle();
    EXPECT_EQ(r.sm->initializationStage(), Stage::complete);
    EXPECT_THAT(r.enabledVlans(), ElementsAre(10, 20, 30));
    EXPECT_THAT(r.publishedVlans(), ElementsAre(30));
  }
}

TEST(Status, walks_give_way_after_an_entry_and_go_on_behind_keys_that_vanish) {
  Reactor r;
  r.tasks->mustYieldForTestIs([] { return true; });
  for (std::uint32_t vlan = 10; vlan <= 100; vlan += 10) r.inEvpn(vlan);
  r.start();
  EXPECT_THAT(r.enabledVlans(), IsEmpty()) << "walks come from the loop";
  r.loop.step(0);
  EXPECT_THAT(r.enabledVlans(), ElementsAre(10)) << "one entry a slice";
  r.evpn->vlanToDot1qDel(Vlan(20));  // the next one
  r.inEvpn(25);
  r.loop.step(0);
  r.evpn->vlanToDot1qDel(Vlan(10));  // one that is done
  r.evpn->vlanToDot1qDel(Vlan(40));
  r.settle();
  EXPECT_THAT(r.enabledVlans(), ElementsAre(25, 30, 50, 60, 70, 80, 90, 100));

  for (std::uint32_t vlan = 5; vlan < 100; vlan += 10) r.published->vlanIdIs(Vlan(vlan), true);
  r.usable(25, true);
  r.remote->initialPopulationCompleteIs(true);
  r.loop.step(0);
  EXPECT_EQ(r.publishedVlans().size(), 9u) << "one entry a slice; VLAN 5 has gone";
  r.published->vlanIdDel(Vlan(15));  // the next one
  r.remote->vlanIdIs(Vlan(95));
  r.settle();
  EXPECT_EQ(r.sm->initializationStage(), Stage::complete);
  EXPECT_THAT(r.publishedVlans(), ElementsAre(25, 95));
}

TEST(Status, end_takes_back_what_was_published) {
  for (const bool skip : {false, true}) {
    Reactor r;
    r.inEvpn(10);
    r.usable(10, true);
    r.complete();
    r.sm->skipVlanIdCleanupForTestIs(skip);
    r.sm = nullptr;
    EXPECT_EQ(r.publishedVlans().size(), skip ? 1u : 0u);
    EXPECT_THAT(r.enabledVlans(), ElementsAre(10));
    r.inEvpn(20);
    EXPECT_THAT(r.enabledVlans(), ElementsAre(10)) << "nobody watches any more";
  }
}

}  // namespace
}  // namespace ArpSuppression
