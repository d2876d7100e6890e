#include "Statedb/EntityManager.h"

#include <gmock/gmock.h>

#include <deque>

#include "TestModel.h"

using namespace Test;
using Statedb::EntityManager;
using Statedb::MountStatus;
using testing::ElementsAre;

namespace {

class EntityManagerTest : public testing::Test {
 protected:
  void runTurn() {
    std::deque<std::function<void()>> turn;
    turn.swap(posted_);
    for (auto& call : turn) call();
  }
  std::deque<std::function<void()>> posted_;
  Mox::Ptr<EntityManager> manager_ = Mox::make<EntityManager>(
      registry(), [this](std::function<void()> call) { posted_.push_back(std::move(call)); });
};

}  // namespace

TEST_F(EntityManagerTest, OneEntityAPathWhateverTheSpelling) {
  std::vector<std::string> changed;
  Mox::Notifiee<EntityManager> notifiee(manager_);
  notifiee.on(EntityManager::entityChanged, [&](const std::string& path) { changed.push_back(path); });
  const auto made = manager_->entityIs("a/config/", "Test::Config");
  ASSERT_TRUE(made);
  const auto local = *made;
  EXPECT_EQ(*manager_->entityIs("a/config", "Test::Config"), local);
  EXPECT_EQ(*manager_->mount("a/config//", "Test::Config", "r"), local);
  EXPECT_EQ(manager_->entityOf<const Config>("a/config/"), local);
  EXPECT_FALSE(manager_->entityOf<Other>("a/config"));
  EXPECT_FALSE(manager_->entity("a"));
  EXPECT_TRUE(manager_->entityIs("a", "Test::Other"));
  EXPECT_THAT(manager_->paths(), ElementsAre("a", "a/config"));
  EXPECT_EQ(manager_->entityDel("a/config/"), local);
  EXPECT_FALSE(manager_->entity("a/config"));
  EXPECT_THAT(changed, ElementsAre("a/config", "a", "a/config"));
}

TEST_F(EntityManagerTest, RefusalsSayWhy) {
  EXPECT_TRUE(manager_->entityIs("taken", "Test::Other"));
  const auto noFlags = [](const std::string& flags) {
    return "x: \"" + flags +
           "\" are no mount flags; allowed are \"r\" and \"w\", and with \"w\" also \"c\" and \"S\"";
  };
  const struct {
    const char* path;
    const char* type;
    const char* flags;
    std::string problem;
  } cases[] = {
      {"x", "Test::Nothing", "r", "x: the type Test::Nothing is not known"},
      {"taken/", "Test::Config", "r", "taken: the entity there is a Test::Other, not a Test::Config"},
      {"taken", "Test::Config", "wc", "taken: the entity there is a Test::Other, not a Test::Config"},
      {"/", "Test::Config", "r", "a mount needs a path"},
      {"x", "Test::Config", "", noFlags("")},
      {"x", "Test::Config", "rc", noFlags("rc")},
      {"x", "Test::Config", "rz", noFlags("rz")},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(manager_->mount(c.path, c.type, c.flags).error(), c.problem);
    const auto group = manager_->mountGroup();
    EXPECT_FALSE(group->mountIs(c.path, c.type, c.flags));
    EXPECT_THAT(group->messages(), ElementsAre(c.problem));
  }
  EXPECT_THAT(manager_->paths(), ElementsAre("taken"));
}

TEST_F(EntityManagerTest, AGroupCompletesOnceInALaterTurn) {
  std::vector<MountStatus> completions;
  auto group = manager_->mountGroup([&](MountStatus status) { completions.push_back(status); });
  EXPECT_TRUE(group->mountIs("status", "Test::Config", "wc"));
  EXPECT_TRUE(group->mountIs("input/", "Test::Config", "r"));
  EXPECT_TRUE(group->mountIs("shared", "Test::Other", "wS"));
  EXPECT_TRUE(manager_->entity("status"));
  EXPECT_FALSE(manager_->entity("input"));
  std::vector<std::string> absent;
  for (const auto& mount : manager_->absentMounts()) absent.push_back(mount.path + " " + mount.typeName);
  EXPECT_THAT(absent, ElementsAre("input Test::Config", "shared Test::Other"));

  group->doClose(false, "", 0.0);
  group->doClose(false, "", 0.0);
  EXPECT_FALSE(group->mountIs("late", "Test::Other", "wc"));
  EXPECT_TRUE(manager_->entityIs("shared", "Test::Other"));
  EXPECT_TRUE(completions.empty());
  EXPECT_FALSE(group->ready());
  Statedb::MountGroup& watched = *group;
  group = nullptr;  // the posted completion keeps it
  bool ready = false;
  Mox::Notifiee<Statedb::MountGroup> notifiee{Mox::Ptr<Statedb::MountGroup>(&watched)};
  notifiee.on(Statedb::MountGroup::readyChanged, [&](bool value) { ready = value && completions.empty(); });
  runTurn();
  EXPECT_TRUE(ready);
  EXPECT_THAT(completions, ElementsAre(MountStatus::failed));  // the late mount
  EXPECT_EQ(manager_->absentMounts().size(), 1u);
}

TEST_F(EntityManagerTest, CompletionSeesATypeThatSomebodyElseChose) {
  std::vector<MountStatus> completions;
  for (const char* type : {"Test::Config", "Test::Other"}) {
    const auto group = manager_->mountGroup([&](MountStatus status) { completions.push_back(status); });
    EXPECT_TRUE(group->mountIs("input", type, "r"));
    group->doClose();
  }
  const auto cancelled = manager_->mountGroup([&](MountStatus) { ADD_FAILURE() << "cancelled"; });
  cancelled->doClose();
  cancelled->cancel();
  EXPECT_TRUE(manager_->entityIs("input", "Test::Config"));
  runTurn();
  EXPECT_THAT(completions, ElementsAre(MountStatus::complete, MountStatus::failed));
  const auto blocking = manager_->mountGroup([&](MountStatus status) { completions.push_back(status); });
  blocking->doClose(true, "", 1.0);
  EXPECT_EQ(completions.size(), 3u);
}

TEST_F(EntityManagerTest, ARunTimeMountGivesAnEntityThatItsProviderFindsLater) {
  const auto first = *manager_->mount("ns/red", "Test::Config", "r");
  EXPECT_EQ(*manager_->mount("ns/red", "Test::Config", "r"), first);
  manager_->unmount("ns/red");
  EXPECT_TRUE(manager_->entity("ns/red"));
  manager_->unmount("ns/red");
  EXPECT_FALSE(manager_->entity("ns/red"));
  manager_->unmount("ns/red");

  const auto second = *manager_->mount("ns/red", "Test::Config", "r");
  EXPECT_NE(second, first);
  EXPECT_EQ(*manager_->entityIs("ns/red", "Test::Config"), second);
  manager_->unmount("ns/red");
  EXPECT_EQ(manager_->entity("ns/red"), second) << "the provider's entity outlives its readers";
}
