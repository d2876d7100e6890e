#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>

#include "platform/Mox/Model.h"

namespace {

using MoxTest::Heard;
using MoxTest::Leaf;
using MoxTest::Sample;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

class Notification : public ::testing::Test {
 protected:
  using Watch = Mox::Notifiee<Sample>;

  Mox::Ptr<Sample> entity_ = Mox::make<Sample>();
  Heard heard_;

  // A watcher that writes down `name` and the level, and then does something.
  std::unique_ptr<Watch> watch(const std::string& name, std::function<void(int)> then = {}) {
    auto watch = std::make_unique<Watch>(entity_);
    watch->on(Sample::levelChanged, [this, name, then](int level) {
      heard_.push_back(name + std::to_string(level));
      if (then) then(level);
    });
    return watch;
  }
};

TEST_F(Notification, attaching_replays_nothing_and_unchanged_values_notify_nobody) {
  const auto leaf = Mox::make<Leaf>(1);
  const auto write = [&] {
    entity_->levelIs(5);
    entity_->favouriteIs(leaf);
    entity_->nameIs(1, "one");
    entity_->tagIs(1);
    entity_->smallIs(1, 1);
    entity_->largeIs(1, 1);
    entity_->childIs(1);
  };
  write();
  Watch any(entity_);
  any.onAny([&](Mox::EventId event) { heard_.push_back(std::to_string(event)); });
  write();
  EXPECT_FALSE(entity_->nameDel(2) || entity_->tagDel(2) || entity_->smallDel(2) || entity_->largeDel(2));
  EXPECT_FALSE(entity_->childDel(2));
  entity_->hashedDelAll();
  EXPECT_THAT(heard_, IsEmpty());
  entity_->favouriteIs(Mox::make<Leaf>(1));  // alike, but another
  EXPECT_THAT(heard_, ElementsAre(std::to_string(Sample::favouriteChanged.id)));
}

// What every kind of collection has in common, told by its watcher: the key, and whether it is there.
template <class Watch, class Event, class Has>
void tell(Watch& watch, Event event, Heard& heard, Has has) {
  watch.on(event, [&heard, has](int key) { heard.push_back((has(key) ? "+" : "-") + std::to_string(key)); });
}

#define EXPECT_COLLECTION(x, set)                                                                      \
  {                                                                                                    \
    heard_.clear();                                                                                    \
    Watch watch(entity_);                                                                              \
    tell(watch, Sample::x##Changed, heard_, [&](int key) { return entity_->x##Has(key); });            \
    EXPECT_FALSE(entity_->x(7));                                                                       \
    set(7);                                                                                            \
    set(8);                                                                                            \
    EXPECT_EQ(entity_->x##s(), 2u);                                                                    \
    EXPECT_TRUE(entity_->x(7));                                                                        \
    EXPECT_TRUE(entity_->x##Del(7));                                                                   \
    set(9);                                                                                            \
    EXPECT_EQ(entity_->x##s(), 2u);                                                                    \
    entity_->x##DelAll();                                                                              \
    EXPECT_EQ(entity_->x##s(), 0u);                                                                    \
    EXPECT_THAT(std::vector(heard_.begin(), heard_.begin() + 4), ElementsAre("+7", "+8", "-7", "+9")); \
    EXPECT_THAT(std::vector(heard_.begin() + 4, heard_.end()), UnorderedElementsAre("-8", "-9"));      \
  }

TEST_F(Notification, collections_insert_then_notify_and_remove_then_notify) {
  EXPECT_COLLECTION(large, [&](int key) { entity_->largeIs(key, 1); });
  EXPECT_COLLECTION(small, [&](int key) { entity_->smallIs(key, 1); });
  EXPECT_COLLECTION(child, [&](int key) { entity_->childIs(key); });
  EXPECT_COLLECTION(hashed, [&](int key) { entity_->hashedIs(key); });
  EXPECT_EQ(Leaf::alive, 0);
  heard_.clear();
  Watch watch(entity_);
  tell(watch, Sample::nameChanged, heard_, [&](int key) { return !entity_->name(key).empty(); });
  tell(watch, Sample::tagChanged, heard_, [&](int key) { return entity_->tagHas(key); });
  entity_->nameIs(1, "one");
  entity_->nameIs(1, "uno");
  entity_->nameDelAll();
  entity_->tagIs(2);
  EXPECT_TRUE(entity_->tagDel(2));
  EXPECT_THAT(heard_, ElementsAre("+1", "+1", "-1", "+2", "-2"));
}

TEST_F(Notification, delete_all_removes_everything_before_the_first_watcher_hears) {
  for (int key = 1; key <= 3; ++key) entity_->childIs(key);
  Watch watch(entity_);
  watch.on(Sample::childChanged, [&](int key) {
    heard_.push_back(std::to_string(key) + " of " + std::to_string(entity_->childs()));
    if (key == 1) entity_->childIs(9);
  });
  entity_->childDelAll();
  EXPECT_THAT(heard_, ElementsAre("1 of 0", "9 of 1", "2 of 1", "3 of 1"));
}

TEST_F(Notification, child_is_found_again_and_refuses_other_construction_values) {
  const auto child = entity_->childIs(1, 4);
  EXPECT_EQ(entity_->childIs(1, 4), child);
  EXPECT_EQ(entity_->child(1), child);
  EXPECT_FALSE(entity_->child(2));
  EXPECT_THROW(entity_->childIs(1, 5), Mox::ReinstantiationError);
  EXPECT_EQ(entity_->childDel(1), child);
  EXPECT_EQ(entity_->childIs(1, 5)->colour(), 5);
}

TEST_F(Notification, callback_may_drop_its_own_watch_or_those_of_others) {
  std::unique_ptr<Watch> self, earlier, later, last;
  earlier = watch("earlier");
  self = watch("self", [&](int) {
    self = nullptr;
    earlier = nullptr;
    later = nullptr;
  });
  later = watch("later");
  last = watch("last");
  entity_->levelIs(1);
  entity_->levelIs(2);
  EXPECT_THAT(heard_, ElementsAre("earlier1", "self1", "last1", "last2"));
  EXPECT_EQ(entity_->watchers(), 1u);
}

TEST_F(Notification, watch_added_by_a_callback_hears_of_later_changes_only) {
  std::unique_ptr<Watch> added;
  auto first = watch("first", [&](int) {
    if (!added) added = watch("added");
  });
  entity_->levelIs(1);
  entity_->levelIs(2);
  EXPECT_THAT(heard_, ElementsAre("first1", "first2", "added2"));
}

TEST_F(Notification, nested_change_runs_to_its_end_first_and_each_carries_its_own_value) {
  auto first = watch("first", [&](int level) {
    if (level == 1) entity_->levelIs(2);
  });
  auto second = watch("second", [&](int) { heard_.push_back("is" + std::to_string(entity_->level())); });
  entity_->levelIs(1);
  EXPECT_THAT(heard_, ElementsAre("first1", "first2", "second2", "is2", "second1", "is2"));
}

TEST_F(Notification, callback_may_destroy_the_entity) {
  const std::pair<const char*, std::function<void(Sample&)>> cases[] = {
      {"attribute", [](Sample& e) { e.titleIs("gone"); }},
      {"attribute, nested", [](Sample& e) { e.levelIs(7); }},
      {"value", [](Sample& e) { e.nameIs(1, "gone"); }},
      {"erasure", [](Sample& e) { e.tagDel(1); }},
      {"child", [](Sample& e) { e.hashedIs(5); }},
      {"all", [](Sample& e) { e.tagDelAll(); }},
      {"all of a hash", [](Sample& e) { e.largeDelAll(); }},
  };
  for (const auto& [name, change] : cases) {
    SCOPED_TRACE(name);
    heard_.clear();
    auto entity = Mox::make<Sample>();
    for (int key = 1; key <= 3; ++key) {
      entity->tagIs(key);
      entity->largeIs(key, key);
    }
    auto first = std::make_unique<Watch>(entity);
    auto second = std::make_unique<Watch>(entity);
    first->onAny([&](Mox::EventId) {
      if (entity->level() == 7) return entity->levelIs(8);
      heard_.push_back("first");
      first = nullptr;
      second = nullptr;
      entity = nullptr;
    });
    second->onAny([&](Mox::EventId) { heard_.push_back("second"); });
    change(*entity);
    EXPECT_THAT(heard_, ElementsAre("first"));
    EXPECT_FALSE(entity);
  }
  EXPECT_EQ(Leaf::alive, 0);
}

TEST_F(Notification, error_of_a_callback_reaches_the_writer_and_leaves_the_entity_usable) {
  auto bad = watch("bad", [](int level) {
    if (level == 1) throw Mox::RangeError("one");
  });
  auto dropped = watch("dropped");
  EXPECT_THROW(entity_->levelIs(1), Mox::RangeError);
  EXPECT_EQ(entity_->level(), 1);
  dropped = nullptr;
  entity_->levelIs(2);
  EXPECT_THAT(heard_, ElementsAre("bad1", "bad2"));
  EXPECT_EQ(entity_->watchers(), 1u);
}

TEST_F(Notification, watch_moves_to_another_entity_with_its_callbacks) {
  const auto other = Mox::make<Sample>();
  auto moving = watch("m");
  moving->notifierIs(other);
  entity_->levelIs(1);
  other->levelIs(2);
  EXPECT_EQ(entity_->watchers(), 0u);
  moving->notifierIs(nullptr);
  EXPECT_FALSE(*moving);
  other->levelIs(4);
  moving->notifierIs(entity_);
  moving->notifierIs(entity_);
  entity_->levelIs(5);
  EXPECT_THAT(heard_, ElementsAre("m2", "m5"));
}

}  // namespace
