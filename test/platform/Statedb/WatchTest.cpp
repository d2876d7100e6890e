#include <gmock/gmock.h>

#include "TestModel.h"

using namespace Test;
using nlohmann::json;
using testing::ElementsAre;

namespace {

class WatchTest : public testing::Test {
 protected:
  // What was reported since the last call, without the path.
  std::vector<std::string> heard() {
    std::vector<std::string> lines;
    for (json& change : changes_) {
      EXPECT_EQ(change.at("path"), "test");
      lines.push_back(change.at("member").get<std::string>() +
                      (change.contains("key") ? "[" + change.at("key").get<std::string>() + "]" : "") + "=" +
                      change.at("value").dump());
    }
    changes_.clear();
    return lines;
  }
  void watch() {
    watch_ = configType().watch(config_, "test", [this](const json& change) {
      changes_.push_back(change);
      if (then_) then_(change);
    });
  }

  Mox::Ptr<Config> config_ = Mox::make<Config>();
  std::vector<json> changes_;
  std::function<void(const json&)> then_;
  std::unique_ptr<Statedb::TreeWatch> watch_;
};

const char* const kEmptyVrf = R"({"ipv4":{},"ipv6":{},"state":"green"})";

}  // namespace

TEST_F(WatchTest, ReportsMembersByKeyAndFollowsChildren) {
  const auto old = config_->vrfIs("old");
  watch();
  EXPECT_THAT(heard(), ElementsAre());
  config_->levelIs(4);
  config_->levelIs(4);
  config_->fidIs(10, 110);
  config_->fidDel(10);
  config_->vlanIs(Label(7));
  config_->ownerIs(config_);
  config_->ownerIs(nullptr);
  config_->one()->onIs(true);
  EXPECT_THAT(heard(), ElementsAre("level=4", "fid[10]=110", "fid[10]=null", "vlan[7]=true", "one//on=true"));

  old->stateIs(Color::red);
  const auto fresh = config_->vrfIs("a/b");
  fresh->ipv4Is(Address(1), Entry{Address(), true, 0});
  EXPECT_EQ(config_->watchers(), 1u) << "however many members there are";
  EXPECT_EQ(fresh->watchers(), 1u);
  EXPECT_THAT(heard(), ElementsAre("vrf/old/state=\"red\"", std::string("vrf[a/b]=") + kEmptyVrf,
                                   R"(vrf/a%2Fb/ipv4[0.1]={"dynamic":true,"mac":"0.0","type":0})"));
  config_->vrfDelAll();
  fresh->stateIs(Color::red);
  old->stateIs(Color::green);
  EXPECT_THAT(heard(), ElementsAre("vrf[a/b]=null", "vrf[old]=null"));
  EXPECT_EQ(old->watchers(), 0u);

  config_->vrfIs("old")->stateIs(Color::red);
  EXPECT_THAT(heard(), ElementsAre(std::string("vrf[old]=") + kEmptyVrf, "vrf/old/state=\"red\""));
}

TEST_F(WatchTest, TheLastStateIsReportedWhenAnEarlierWatcherChangesAMemberAgain) {
  Mox::Notifiee<Config> earlier(config_);
  earlier.on(Config::levelChanged, [&](std::int8_t level) {
    if (level == 1) config_->levelIs(2);
  });
  earlier.on(Config::vrfChanged, [&](const std::string& key) {
    if (config_->vrfHas(key)) config_->vrfDel(key);
  });
  watch();
  config_->levelIs(1);
  config_->vrfIs("red");
  EXPECT_THAT(heard(), ElementsAre("level=2", "level=2", "vrf[red]=null", "vrf[red]=null"));
}

TEST_F(WatchTest, ACallbackMayReplaceTheChildThatItHearsOfAndEndTheWatch) {
  const auto old = config_->vrfIs("red");
  watch();
  then_ = [this](const json& change) {
    if (change.at("member") != "vrf/red/state") return;
    then_ = nullptr;
    config_->vrfDel("red");
    config_->vrfIs("red");
  };
  old->stateIs(Color::red);
  heard();
  old->stateIs(Color::green);
  config_->vrf("red")->stateIs(Color::red);
  EXPECT_THAT(heard(), ElementsAre("vrf/red/state=\"red\""));

  then_ = [this](const json&) { watch_.reset(); };
  config_->vrf("red")->stateIs(Color::green);
  config_->levelIs(9);
  EXPECT_EQ(heard().size(), 1u);
  EXPECT_EQ(config_->watchers(), 0u);
}
