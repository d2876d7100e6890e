#include "Statedb/Persistence.h"

#include <gmock/gmock.h>

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
  using Content = std::map<std::string, std::string>;
  explicit MemoryStore(std::map<std::string, Content>& paths, Watch& watch) : paths_(paths), watch_(watch) {}
  void load(const std::string& path, const std::optional<std::string>& after, const Visitor& visit) override {
    const Content content = paths_[path];
    for (auto at = after ? content.upper_bound(*after) : content.begin(); at != content.end(); ++at)
      if (!visit(at->first, at->second)) return;
  }
  void write(const std::string& path, const std::string& key, std::string value) override {
    paths_[path][key] = std::move(value);
  }
  void erase(const std::string& path, const std::string& key) override { paths_[path].erase(key); }
  void erasePath(const std::string& path, const std::string& prefix) override {
    std::erase_if(paths_[path], [&](const auto& pair) { return pair.first.starts_with(prefix); });
  }
  bool flush(std::size_t) override { return false; }
  std::size_t waiting() const override { return 0; }
  const Mox::Result<>& written() const override { return written_; }
  void watchIs(Watch watch) override { watch_ = std::move(watch); }

 private:
  std::map<std::string, Content>& paths_;
  Watch& watch_;
  const Mox::Result<> written_;
};

class PersistenceTest : public testing::Test {
 protected:
  using Content = MemoryStore::Content;
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
  Content& stored() { return stored_["test"]; }

  std::map<std::string, Content> stored_;
  Statedb::Store::Watch watch_;
  std::vector<std::string> messages_;
};

}  // namespace

TEST_F(PersistenceTest, EachChangeIsOnePair) {
  const auto manager = process();
  const auto c = config(manager);
  EXPECT_EQ(stored(), Content{});
  c->levelIs(5);
  c->fidIs(10, 110);
  c->fidIs(11, 111);
  c->fidDel(11);
  c->vlanIs(Label(7));
  c->one()->onIs(true);
  const auto vrf = c->vrfIs("a/b");
  vrf->ipv4Is(Address(1), Entry{});
  vrf->ipv6Is({Address(1), "eth0"}, Entry{});
  const Content expected{{"level", "5"},
                         {"fid/10", "110"},
                         {"vlan/7", "true"},
                         {"one//on", "true"},
                         {"vrf/a%2Fb", "{}"},
                         {"vrf/a%2Fb/ipv4/0.1", R"({"dynamic":false,"mac":"0.0","type":0})"},
                         {"vrf/a%2Fb/ipv6/0.1 eth0", R"({"dynamic":false,"mac":"0.0","type":0})"}};
  EXPECT_EQ(stored(), expected);
  c->vrfDel("a/b");
  vrf->stateIs(Color::red);
  EXPECT_EQ(stored(), (Content{{"level", "5"}, {"fid/10", "110"}, {"vlan/7", "true"}, {"one//on", "true"}}));
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
  const Content before = stored();
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
  EXPECT_EQ(c->level(), 5);
  EXPECT_EQ(stored(), (Content{{"fid/1", "11"}, {"level", "5"}}));
  manager->entityDel("test");
  EXPECT_EQ(stored(), Content{});
  c->levelIs(6);
  EXPECT_EQ(stored(), Content{});
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
  const Content before = [&] {
    Content content = stored();
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
  const Content good{{"fid/1", "1"}, {"level", "5"}, {"vrf/red", "{}"}, {"vrf/red/state", "\"red\""}};
  stored().insert(good.begin(), good.end());
  const auto c = config(process());
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
  EXPECT_EQ(stored(), (Content{{"label", "9"}})) << "what a watcher made of it is written";
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
