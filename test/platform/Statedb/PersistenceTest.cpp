#include "Statedb/Persistence.h"

#include <gmock/gmock.h>

#include <set>

#include "Statedb/EntityManager.h"
#include "TestModel.h"

using namespace Test;
using nlohmann::json;
using Statedb::EntityManager;
using testing::ElementsAre;
using testing::HasSubstr;

namespace {

// Keeps everything in memory, counts what is written, and plays the other processes.
class MemoryStore final : public Statedb::Store {
 public:
  using Pairs = std::map<std::string, std::string>;
  explicit MemoryStore(std::map<std::string, Pairs>& paths, Watch& watch) : paths_(paths), watch_(watch) {}
  std::unique_ptr<Statedb::Journal> journal(const std::string& path) override {
    return std::make_unique<MemoryJournal>(paths_[path]);
  }
  void remove(const std::string& path) override { paths_[path].clear(); }
  void watchIs(Watch watch) override { watch_ = std::move(watch); }

 private:
  class MemoryJournal final : public Statedb::Journal {
   public:
    explicit MemoryJournal(Pairs& pairs) : pairs_(pairs), left_(pairs) {}
    Step next(Operation& operation) override {
      if (left_.empty()) return Step::end;
      node_ = left_.extract(left_.begin());
      operation = {node_.key(), node_.mapped()};
      return node_.key() == "damaged" ? Step::damaged : Step::operation;
    }
    void write(std::string_view key, std::string_view value) override { pairs_[std::string(key)] = value; }
    void erase(std::string_view key) override {
      const std::string below = std::string(key) + "/";
      std::erase_if(pairs_,
                    [&](const auto& pair) { return pair.first == key || pair.first.starts_with(below); });
    }
    void rewrite() override { rewritten_ = false; }
    // A pair a turn.
    bool flush(Statedb::Content& content, Extent extent) override {
      if (rewritten_) return false;
      if (!rewriting_) {
        pairs_.clear();
        told_.clear();
        content.readAgain();
      }
      rewriting_ = content.read([&](std::string_view key, std::string_view value) {
        EXPECT_TRUE(told_.emplace(key).second) << key << " is told once";
        pairs_[std::string(key)] = value;
        return extent == Extent::everything;
      });
      rewritten_ = !rewriting_;
      return rewriting_;
    }
    const Mox::Result<>& written() const override { return written_; }

   private:
    Pairs& pairs_;
    Pairs left_;
    Pairs::node_type node_;
    std::set<std::string> told_;
    bool rewritten_ = true;
    bool rewriting_ = false;
    const Mox::Result<> written_;
  };

  std::map<std::string, Pairs>& paths_;
  Watch& watch_;
};

class PersistenceTest : public testing::Test {
 protected:
  using Pairs = MemoryStore::Pairs;
  // A process that keeps "test".
  Mox::Ptr<EntityManager> process() {
    auto manager = Mox::make<EntityManager>(
        registry(), [](std::function<void()>) {}, std::make_unique<MemoryStore>(stored_, watch_),
        [this](const std::string& message) { messages_.push_back(message); });
    manager->persist("test/");
    return manager;
  }
  static Mox::Ptr<Config> config(const Mox::Ptr<EntityManager>& manager) {
    EXPECT_TRUE(manager->entityIs("test", "Test::Config"));
    return manager->entityOf<Config>("test");
  }
  Pairs& stored() { return stored_["test"]; }

  std::map<std::string, Pairs> stored_;
  Statedb::Store::Watch watch_;
  std::vector<std::string> messages_;
};

}  // namespace

TEST_F(PersistenceTest, EachChangeIsOnePair) {
  const auto manager = process();
  const auto c = config(manager);
  EXPECT_EQ(stored(), Pairs{});
  c->levelIs(5);
  c->fidIs(10, 110);
  c->fidIs(11, 111);
  c->fidDel(11);
  c->vlanIs(Label(7));
  c->one()->onIs(true);
  const auto vrf = c->vrfIs("a/b");
  vrf->ipv4Is(Address(1), Entry{});
  vrf->ipv6Is({Address(1), "eth0"}, Entry{});
  const Pairs expected{{"level", "5"},
                       {"fid/10", "110"},
                       {"vlan/7", "true"},
                       {"one//on", "true"},
                       {"vrf/a%2Fb", "{}"},
                       {"vrf/a%2Fb/ipv4/0.1", R"({"dynamic":false,"mac":"0.0","type":0})"},
                       {"vrf/a%2Fb/ipv6/0.1 eth0", R"({"dynamic":false,"mac":"0.0","type":0})"}};
  EXPECT_EQ(stored(), expected);
  c->vrfDel("a/b");
  vrf->stateIs(Color::red);
  EXPECT_EQ(stored(), (Pairs{{"level", "5"}, {"fid/10", "110"}, {"vlan/7", "true"}, {"one//on", "true"}}));
}

TEST_F(PersistenceTest, TheNextProcessFindsWhatTheLastOneLeft) {
  json left;
  {
    const auto manager = process();
    const auto c = config(manager);
    merge(
        c,
        R"({"enabled":false,"entry":{"type":3},"addresses":["1.1"],"fid":{"1":1},"vlan":{"9":true},"one":{"on":true},
      "vrf":{"":{"state":"red"},"a/b%":{"ipv4":{"1.1":{"type":1}}},"gone":{"ipv4":{"1.1":{}}},"again":{"state":"red"}}})");
    c->vrfDel("gone");
    c->vrfDel("again");
    c->vrfIs("again");
    c->levelIs(4);
    merge(c, R"({"level":null})");
    left = configType().toJson(*c);
  }
  const Pairs before = stored();
  const auto c = config(process());
  EXPECT_EQ(configType().toJson(*c), left);
  EXPECT_EQ(stored(), before);
  EXPECT_THAT(messages_, ElementsAre());
}

TEST_F(PersistenceTest, AnEntityThatIsThereAlreadyIsLoadedAndDeletedForGood) {
  stored() = {{"level", "5"}};
  const auto manager = Mox::make<EntityManager>(
      registry(), [](std::function<void()>) {}, std::make_unique<MemoryStore>(stored_, watch_));
  const auto c = config(manager);
  c->fidIs(1, 11);
  manager->persist("test");
  manager->persist("test");
  manager->flushAll();
  EXPECT_EQ(c->level(), 5);
  EXPECT_EQ(stored(), (Pairs{{"fid/1", "11"}, {"level", "5"}}));
  manager->entityDel("test");
  EXPECT_EQ(stored(), Pairs{});
  c->levelIs(6);
  EXPECT_EQ(stored(), Pairs{});
}

// In slices, before anybody creates it; what is left when somebody does is loaded then.
TEST_F(PersistenceTest, WhatIsLoadedAheadIsFoundWhole) {
  json left;
  {
    const auto manager = process();
    const auto c = config(manager);
    for (std::uint16_t i = 0; i < 100; ++i) c->fidIs(i, i);
    c->vrfIs("red")->ipv4Is(Address(1), Entry{});
    left = configType().toJson(*c);
  }
  stored()[""] = "dropped";
  const Pairs before = [&] {
    Pairs content = stored();
    content.erase("");
    return content;
  }();
  const auto everyTime = [] { return true; };
  for (const int slices : {1, 50, 1000}) {
    messages_.clear();
    stored()[""] = "dropped";
    const auto manager = process();
    EXPECT_FALSE(manager->loadAhead("elsewhere", "Test::Config", everyTime)) << "it is not kept";
    EXPECT_FALSE(manager->loadAhead("test", "Test::Nothing", everyTime));
    int done = 0;
    while (done < slices && manager->loadAhead("test/", "Test::Config", everyTime)) ++done;
    EXPECT_EQ(done, std::min(slices, 103)) << "each pair is a slice, one of which was dropped";
    EXPECT_FALSE(manager->entity("test"));
    EXPECT_THAT(manager->paths(), ElementsAre());
    const auto c = config(manager);
    EXPECT_FALSE(manager->loadAhead("test", "Test::Config", everyTime)) << "it is there";
    manager->flushAll();
    EXPECT_EQ(configType().toJson(*c), left);
    EXPECT_EQ(stored(), before);
    EXPECT_THAT(messages_, ElementsAre(HasSubstr("is dropped")));
    c->fidIs(1, 11);
    EXPECT_EQ(stored()["fid/1"], "11") << "changes are written, and once";
    c->fidIs(1, 1);
  }
  const auto manager = process();
  EXPECT_TRUE(manager->loadAhead("test", "Test::Config", everyTime));
  EXPECT_TRUE(manager->entityIs("test", "Test::Other")) << "another class is made all the same";
}

TEST_F(PersistenceTest, HostileContentIsDroppedAndTheRestLoads) {
  const std::pair<const char*, const char*> bad[] = {
      {"", "1"},
      {"/", "1"},
      {"level/1", "1"},
      {"enabled", "7"},
      {"label", "1001"},
      {"entry", "{\"mac\":\"zz\"}"},
      {"addresses", "[[[["},
      {"fid", "{}"},
      {"fid/70000", "1"},
      {"fid/1/2", "1"},
      {"fid/2", "null"},
      {"nothing", "1"},
      {"owner", "1"},
      {"peer/0.1", "{}"},
      {"vlan/1001", "true"},
      {"vrf/red/nothing/1", "1"},
      {"vrf/white/state", "\"red\""},
      {"vrf/red/ipv4/1", "{}"},
  };
  for (const auto& [key, value] : bad) stored()[key] = value;
  stored()["\xff\xfe"] = "\xff";
  const Pairs good{{"fid/1", "1"}, {"level", "5"}, {"vrf/red", "{}"}, {"vrf/red/state", "\"red\""}};
  stored().insert(good.begin(), good.end());
  const auto manager = process();
  const auto c = config(manager);
  manager->flushAll();
  EXPECT_EQ(stored(), good);
  EXPECT_EQ(c->level(), 5);
  EXPECT_EQ(c->fids(), 1u);
  EXPECT_EQ(c->vrfs(), 1u);
  EXPECT_EQ(c->vrf("red")->state(), Color::red);
  EXPECT_EQ(messages_.size(), 11u) << "ten of them, and how many in all";
  EXPECT_THAT(messages_,
              testing::Contains(HasSubstr("test: stored member \"enabled\" is dropped: enabled: 7 is not")));
  EXPECT_THAT(messages_, testing::Contains("test: 19 stored members were dropped in all"));
}

// What is kept is rewritten from the entity while that changes: nothing that stays is left out or told twice.
TEST_F(PersistenceTest, IsRewrittenInSlicesWhileTheEntityChanges) {
  stored()["nothing"] = "1";  // which makes a rewrite
  const auto manager = process();
  const auto c = config(manager);
  merge(c, R"({"level":4,"entry":{"type":3},"vlan":{"3":true,"9":true},"one":{"on":true},
      "vrf":{"":{"state":"red"},"gone":{"ipv4":{"1.1":{},"1.2":{},"1.3":{}}},"last":{"ipv6":{"1.1 e":{}}}}})");
  for (std::uint16_t i = 0; i < 20; ++i) c->fidIs(i, i);
  const auto blue = c->vrfIs("blue");
  for (std::uint32_t i = 0; i < 20; ++i) blue->ipv4Is(Address(i), Entry{});
  unsigned turns = 0;
  while (manager->flush()) {
    ++turns;
    // Where the walk is, has been and will be; what was erased before it came is not told.
    if (turns == 5) c->fidDel(3), c->fidDel(4), c->fidDel(15), c->fidIs(40, 1);
    if (turns == 30) blue->ipv4Del(Address(5)), blue->ipv4Del(Address(6));
    if (stored().contains("vrf/gone/ipv4/1.2") && c->vrfHas("gone")) c->vrfDel("gone");
  }
  EXPECT_GT(turns, 40u);
  EXPECT_FALSE(c->vrfHas("gone"));
  const json now = configType().toJson(*c);
  EXPECT_FALSE(stored().contains("nothing"));
  EXPECT_EQ(configType().toJson(*config(process())), now);
}

TEST_F(PersistenceTest, NothingOfADamagedJournalCounts) {
  stored() = {{"damaged", ""}, {"Z", "before"}};
  {
    const auto manager = Mox::make<EntityManager>(
        registry(), [](std::function<void()>) {}, std::make_unique<MemoryStore>(stored_, watch_));
    const auto c = config(manager);
    merge(c, R"({"level":4,"one":{"on":true},"vrf":{"red":{"state":"red"}},"fid":{"1":1}})");
    manager->persist("test");
    EXPECT_EQ(configType().toJson(*c), configType().toJson(*configType().make()));
  }
}

TEST_F(PersistenceTest, AChildThatAWatcherReplacesLeavesNothingOfTheOldOne) {
  const auto manager = process();
  const auto c = config(manager);
  Mox::Notifiee<Vrf> watcher(c->vrfIs("red"));
  watcher.on(Vrf::stateChanged, [&] {
    c->vrfDel("red");
    c->vrfIs("red")->ipv4Is(Address(2), Entry{});
  });
  c->vrf("red")->ipv4Is(Address(1), Entry{});
  c->vrf("red")->stateIs(Color::red);
  const json now = configType().toJson(*c);
  EXPECT_EQ(configType().toJson(*config(process())), now);
}

TEST_F(PersistenceTest, OutsideChangesGoIntoTheEntityAndAreNotWrittenBack) {
  const auto manager = process();
  const auto c = config(manager);
  Mox::Notifiee<Config> watcher(c);
  watcher.on(Config::levelChanged, [&] { c->labelIs(Label(9)); });
  watch_("test", "level", "5");
  watch_("test", "fid/1", "11");
  watch_("test", "vrf/red", "{}");
  watch_("test", "vrf/red/state", "\"red\"");
  EXPECT_EQ(c->level(), 5);
  EXPECT_EQ(c->fid(1), 11);
  EXPECT_EQ(c->vrf("red")->state(), Color::red);
  EXPECT_EQ(stored(), (Pairs{{"label", "9"}})) << "what a watcher made of it is written";
  watch_("test", "fid/1", std::nullopt);
  watch_("test", "vrf/red/state", std::nullopt);
  EXPECT_EQ(c->vrf("red")->state(), Color::green) << "its default";
  watch_("test", "vrf/red", std::nullopt);
  watch_("elsewhere", "x", "1");
  EXPECT_EQ(c->fids() + c->vrfs(), 0u);
  EXPECT_THAT(messages_, ElementsAre());
  watch_("test", "fid/1", "99999");
  EXPECT_THAT(messages_, ElementsAre(HasSubstr("outside change of \"fid/1\" is not taken: fid: 99999")));
  Mox::Notifiee<Config> deleter(c);
  deleter.on(Config::fidChanged, [&] { manager->entityDel("test"); });
  watch_("test", "fid/1", "12");
  EXPECT_FALSE(manager->entity("test"));
}
