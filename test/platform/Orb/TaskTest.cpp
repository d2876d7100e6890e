#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Orb/TaskScheduler.h"
#include "Orb/WalkSm.h"

namespace {

using Orb::Task;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

using Heard = std::vector<std::string>;

class Tasks : public ::testing::Test {
 protected:
  Tasks() {
    loop_.errorHandlerIs(
        [this](const char* where, const char* what) { hear(std::string(where) + "!" + what); });
  }
  void hear(const std::string& text) { heard_.push_back(text); }
  Heard taken() { return std::exchange(heard_, {}); }
  // What one turn did.
  Heard turn() {
    loop_.step();
    return taken();
  }
  std::unique_ptr<Task> task(const std::string& name, unsigned level, std::function<void()> then = {}) {
    return std::make_unique<Task>(root_->scheduler(), name, level, [this, name, then] {
      hear(name);
      if (then) then();
    });
  }

  Orb::ManualClock clock_;
  Orb::EventLoop loop_{clock_};
  Mox::Ptr<Orb::TaskSchedulerRoot> root_ = Mox::make<Orb::TaskSchedulerRoot>(loop_);
  Heard heard_;
};

TEST_F(Tasks, turn_runs_the_most_urgent_level_and_the_one_that_waited_longest_of_the_others) {
  auto low = task("low", 7);
  auto middle = task("middle", 4);
  auto urgent = task("urgent", 1);
  auto alsoUrgent = task("alsoUrgent", 1);
  for (Task* t : {low.get(), middle.get(), urgent.get(), alsoUrgent.get()}) t->schedule();
  EXPECT_THAT(heard_, IsEmpty());
  EXPECT_THAT(turn(), ElementsAre("urgent", "alsoUrgent", "low"));
  EXPECT_THAT(turn(), ElementsAre("middle"));
  EXPECT_FALSE(loop_.step());
  std::unique_ptr<Task> always, background;
  always = task("always", 0, [&] { always->schedule(); });
  background = task("background", 6, [&] { background->schedule(); });
  always->schedule();
  background->schedule();
  for (int i = 0; i < 5; ++i) EXPECT_THAT(turn(), ElementsAre("always", "background"));
}

TEST_F(Tasks, scheduled_from_a_dispatch_runs_in_a_later_turn) {
  auto first = task("first", 1);
  auto second = task("second", 0);
  loop_.post([&] { first->schedule(); });
  EXPECT_THAT(turn(), IsEmpty());
  loop_.post([&] { second->schedule(); });
  EXPECT_THAT(turn(), ElementsAre("first"));
  EXPECT_THAT(turn(), ElementsAre("second"));
}

TEST_F(Tasks, earlier_appointment_stands_and_a_later_one_is_brought_forward) {
  auto one = task("one", 3);
  one->schedule(5);
  one->schedule(9);
  one->schedule(2);
  clock_.advance(1.9);
  EXPECT_FALSE(loop_.step());
  clock_.advance(0.1);
  while (loop_.step()) {
  }
  EXPECT_THAT(taken(), ElementsAre("one"));
  EXPECT_FALSE(one->scheduled());
  one->schedule(5);
  one->schedule();
  one->schedule(5);
  EXPECT_THAT(turn(), ElementsAre("one"));
  clock_.advance(10);
  EXPECT_FALSE(loop_.step());
  one->schedule();
  one->cancel();
  EXPECT_FALSE(loop_.step());
  one->schedule(1);
  one = nullptr;
  clock_.advance(1);
  EXPECT_FALSE(loop_.step());
}

TEST_F(Tasks, yield_is_due_when_the_slice_is_used_up_by_the_live_clock) {
  root_->sliceIs(0.5);
  Heard seen;
  const auto look = [&] { seen.push_back(root_->mustYield() ? "yield" : "go on"); };
  auto working = task("working", 3, [&] {
    look();
    clock_.advance(0.49);
    look();
    clock_.advance(0.01);
    look();
  });
  auto next = task("next", 3, look);
  working->schedule();
  next->schedule();
  loop_.step();
  look();
  EXPECT_THAT(seen, ElementsAre("go on", "go on", "yield", "go on", "go on"));
  seen.clear();
  root_->mustYieldForTestIs([] { return true; });
  next->schedule();
  loop_.step();
  root_->mustYieldForTestIs({});
  next->schedule();
  loop_.step();
  EXPECT_THAT(seen, ElementsAre("yield", "go on"));
  EXPECT_THAT(root_->debugText(), HasSubstr("working level=3 runs=1 seconds=0.500000 longest=0.500000"));
}

TEST_F(Tasks, task_may_destroy_itself_or_another_ready_one_in_its_own_run) {
  std::unique_ptr<Task> self, other;
  const auto alive = std::make_shared<std::string>("kept");
  self = task("self", 3, [&, alive] {
    self = nullptr;
    other = nullptr;
    hear(*alive);
  });
  other = task("other", 3);
  auto third = task("third", 3);
  for (Task* t : {self.get(), other.get(), third.get()}) t->schedule();
  EXPECT_THAT(turn(), ElementsAre("self", "kept", "third"));
  EXPECT_THAT(root_->debugText(), HasSubstr("tasks: 1 ready: 0"));
}

// A walk over `left` entries, one a slice, that writes down what happens to it.
class Walk final : public Orb::WalkSmBase {
 public:
  Walk(const Mox::Ptr<Orb::TaskScheduler>& scheduler, Heard& heard)
      : WalkSmBase(scheduler, "walk"), heard_(heard) {}
  ~Walk() override { heard_.push_back("destroyed"); }

  int entries = 3;
  bool restarts = false;
  bool wanted = true;
  std::function<void(int)> inWalk;  // told how many entries are left
  std::function<void()> inStart, inFinish;

 private:
  Orb::WalkRet walk() override {
    const LifeGuard guard(*this);
    --left_;
    heard_.push_back("walk" + std::to_string(left_));
    if (const auto then = inWalk) then(left_);
    if (!guard.alive()) return {1, true};
    return {1, left_ > 0};
  }
  bool walkStartedNotification() override {
    left_ = entries;
    const bool result = wanted;
    if (const auto then = inStart) then();  // a copy: it may destroy this
    return result;
  }
  void walkFinishedNotification() override {
    heard_.push_back("finish");
    if (const auto then = inFinish) then();
  }
  bool allowWalkRestarts() const override { return restarts; }
  void traceEvent(const char* event) override { heard_.push_back(event); }

  Heard& heard_;
  int left_ = 0;
};

class Walks : public Tasks {
 protected:
  ~Walks() override { walk_ = nullptr; }
  // All that happens while the clock stands still.
  Heard rest() {
    for (int turns = 0; loop_.step(); ++turns) {
      if (turns > 1000) return {"does not end"};
    }
    return taken();
  }
  Mox::Ptr<Walk> walk_ = Mox::make<Walk>(root_->scheduler(), heard_);
};

TEST_F(Walks, idle_walk_runs_in_later_turns_a_slice_each_and_finishes_with_the_last) {
  walk_->scheduleWalk();
  EXPECT_THAT(heard_, IsEmpty());
  EXPECT_TRUE(walk_->walkScheduled());
  EXPECT_THAT(turn(), ElementsAre("started", "walk2"));
  EXPECT_THAT(turn(), ElementsAre("walk1"));
  EXPECT_TRUE(walk_->walkScheduled());
  EXPECT_THAT(turn(), ElementsAre("walk0", "finish", "finished"));
  EXPECT_FALSE(walk_->walkScheduled());
  EXPECT_FALSE(loop_.step());
}

TEST_F(Walks, scheduling_between_slices_restarts_only_a_walk_that_allows_it) {
  walk_->scheduleWalk();
  turn();
  walk_->scheduleWalk();
  walk_->scheduleWalk(5);
  EXPECT_THAT(rest(), ElementsAre("walk1", "walk0", "finish", "finished"));
  clock_.advance(10);
  EXPECT_THAT(rest(), IsEmpty());

  walk_->restarts = true;
  walk_->scheduleWalk();
  turn();
  turn();
  walk_->scheduleWalk(5);
  walk_->scheduleWalk();
  EXPECT_THAT(turn(), ElementsAre("restarted", "walk2"));
  EXPECT_THAT(rest(), ElementsAre("walk1", "walk0", "finish", "finished"));
  clock_.advance(10);
  EXPECT_THAT(rest(), IsEmpty());
}

TEST_F(Walks, scheduling_from_inside_a_run_makes_another_walk_after_this_one) {
  for (const bool restarts : {false, true}) {
    for (const double delay : {0.0, 7.0}) {
      for (const std::string where : {"start", "first slice", "last slice", "finish"}) {
        SCOPED_TRACE(where + " restarts=" + std::to_string(restarts) + " delay=" + std::to_string(delay));
        walk_ = Mox::make<Walk>(root_->scheduler(), heard_);
        taken();
        walk_->restarts = restarts;
        bool once = true;
        const auto at = [&](const std::string& here) {
          if (here != where || !std::exchange(once, false)) return;
          for (const double more : {5, 0, 7}) walk_->scheduleWalk(delay + more);
        };
        walk_->inStart = [&] { at("start"); };
        walk_->inWalk = [&](int left) { at(left == 2 ? "first slice" : left == 0 ? "last slice" : ""); };
        walk_->inFinish = [&] { at("finish"); };
        walk_->scheduleWalk();
        Heard heard = rest();
        EXPECT_EQ(walk_->walkScheduled(), delay != 0);
        clock_.advance(delay);
        for (const std::string& text : rest()) heard.push_back(text);
        EXPECT_THAT(heard, ElementsAre("started", "walk2", "walk1", "walk0", "finish", "finished",  //
                                       "started", "walk2", "walk1", "walk0", "finish", "finished"));
        clock_.advance(100);
        EXPECT_THAT(rest(), IsEmpty());
      }
    }
  }
}

TEST_F(Walks, walk_that_is_not_wanted_ends_without_a_run) {
  walk_->wanted = false;
  walk_->scheduleWalk();
  EXPECT_THAT(rest(), ElementsAre("started", "finished"));
  walk_->wanted = true;
  walk_->restarts = true;
  walk_->scheduleWalk();
  turn();
  walk_->wanted = false;
  walk_->scheduleWalk();
  EXPECT_THAT(rest(), ElementsAre("restarted", "finished"));
  walk_->wanted = true;
  walk_->entries = 1;
  walk_->scheduleWalk();
  EXPECT_THAT(rest(), ElementsAre("started", "walk0", "finish", "finished"));
}

TEST_F(Walks, error_ends_the_walk_which_may_be_scheduled_again) {
  const auto fail = [this] {
    walk_->scheduleWalk(1);
    throw Mox::RangeError("bad");
  };
  const auto expectRecovery = [this](const Heard& failed) {
    walk_->scheduleWalk();
    EXPECT_EQ(rest(), failed);
    walk_->inWalk = nullptr;
    walk_->inStart = walk_->inFinish = nullptr;
    walk_->entries = 1;
    clock_.advance(1);
    EXPECT_THAT(rest(), ElementsAre("started", "walk0", "finish", "finished"));
    walk_->scheduleWalk();
    EXPECT_THAT(rest(), ElementsAre("started", "walk0", "finish", "finished"));
  };
  walk_->inWalk = [&](int left) {
    if (left == 1) fail();
  };
  expectRecovery({"started", "walk2", "walk1", "walk!bad"});
  walk_->inStart = fail;
  expectRecovery({"started", "walk!bad"});
  walk_->inFinish = fail;
  expectRecovery({"started", "walk0", "finish", "walk!bad"});
}

TEST_F(Walks, walk_may_be_destroyed_inside_its_own_run) {
  const std::pair<std::string, Heard> cases[] = {
      {"start", {"started", "destroyed"}},
      {"walk", {"started", "walk0", "destroyed"}},
      {"error", {"started", "walk0", "destroyed", "walk!late"}},
      {"finish", {"started", "walk0", "finish", "destroyed"}},
  };
  for (const auto& [where, expected] : cases) {
    SCOPED_TRACE(where);
    walk_ = Mox::make<Walk>(root_->scheduler(), heard_);
    taken();
    walk_->entries = 1;
    const auto destroyAt = [&, where = where](const std::string& here) {
      if (here == where) walk_ = nullptr;
    };
    walk_->inStart = [=] { destroyAt("start"); };
    walk_->inWalk = [=, where = where](int) {
      destroyAt("walk");
      destroyAt("error");
      if (where == "error") throw Mox::Error("late");
    };
    walk_->inFinish = [=] { destroyAt("finish"); };
    walk_->scheduleWalk();
    EXPECT_EQ(rest(), expected);
  }
  EXPECT_THAT(root_->debugText(), HasSubstr("tasks: 0 ready: 0"));
}

}  // namespace
