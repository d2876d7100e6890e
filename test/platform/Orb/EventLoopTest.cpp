#include "Orb/EventLoop.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Mox/Notifiee.h"
#include "Orb/FileDescriptor.h"

namespace {

using Orb::Timer;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class Loop : public ::testing::Test {
 protected:
  void hear(const std::string& text) { heard_.push_back(text); }
  std::vector<std::string> taken() { return std::exchange(heard_, {}); }

  Orb::ManualClock clock_;
  Orb::EventLoop loop_{clock_};
  std::vector<std::string> heard_;
};

TEST_F(Loop, timers_run_when_due_in_order_of_time_and_of_setting) {
  Timer late(loop_, "late", [&] { hear("late"); });
  Timer first(loop_, "first", [&] { hear("first"); });
  Timer second(loop_, "second", [&] { hear("second"); });
  late.after(2);
  first.after(1);
  second.after(1);
  EXPECT_FALSE(loop_.step());
  clock_.advance(0.999);
  EXPECT_FALSE(loop_.step());
  clock_.advance(0.001);
  EXPECT_TRUE(loop_.step());
  EXPECT_THAT(taken(), ElementsAre("first", "second"));
  EXPECT_FALSE(first.scheduled());
  clock_.advance(5);
  EXPECT_TRUE(loop_.step());
  EXPECT_FALSE(loop_.step());
  EXPECT_THAT(taken(), ElementsAre("late"));
}

TEST_F(Loop, timer_may_destroy_itself_or_the_next_one_in_its_own_call) {
  std::unique_ptr<Timer> self, other;
  auto big = std::make_shared<std::string>(1000, 'x');
  self = std::make_unique<Timer>(loop_, "self", [&, big] {
    self = nullptr;
    other = nullptr;
    hear(std::to_string(big->size()));
  });
  other = std::make_unique<Timer>(loop_, "other", [&] { hear("other"); });
  Timer third(loop_, "third", [&] { hear("third"); });
  for (Timer* timer : {self.get(), other.get(), &third}) timer->after(0);
  EXPECT_TRUE(loop_.step());
  EXPECT_THAT(taken(), ElementsAre("1000", "third"));
}

TEST_F(Loop, hooks_run_in_order_after_turns_that_did_something_until_their_handle_goes) {
  auto first = loop_.endOfTurn([&] { hear("first"); });
  auto second = loop_.endOfTurn([&] { hear("second"); });
  EXPECT_FALSE(loop_.step());
  EXPECT_THAT(taken(), IsEmpty());
  loop_.post([] {});
  loop_.step();
  EXPECT_THAT(taken(), ElementsAre("first", "second"));
  { auto moved = std::move(first); }
  second = loop_.endOfTurn([&] { hear("third"); });
  loop_.post([] {});
  loop_.step();
  EXPECT_THAT(taken(), ElementsAre("third"));
}

TEST_F(Loop, idle_calls_wait_for_a_turn_without_work_but_not_for_later_appointments) {
  Orb::IdleCall call(loop_, [&] { hear("idle"); });
  auto hook = loop_.endOfTurn([&] { hear("end of turn"); });
  Timer later(loop_, "later", [&] { hear("later"); });
  later.after(1);
  loop_.post([&] { loop_.post([&] { hear("posted"); }); });
  call.schedule();
  call.schedule();
  for (int turn = 0; turn < 4; ++turn) loop_.step();
  EXPECT_THAT(taken(), ElementsAre("end of turn", "posted", "end of turn", "idle", "end of turn"));
  call.schedule();
  call.cancel();
  EXPECT_FALSE(loop_.step());
}

TEST_F(Loop, tells_the_longest_turn_without_its_wait) {
  const auto turn = [&](double call, double hook) {
    auto handle = loop_.endOfTurn([&] { clock_.advance(hook); });
    loop_.post([&] { clock_.advance(call); });
    clock_.advance(60);  // nothing to do
    loop_.step();
  };
  turn(0.25, 0.5);
  turn(0.25, 0.25);
  EXPECT_DOUBLE_EQ(loop_.longestTurn(), 0.75);
  loop_.longestTurnReset();
  turn(0.125, 0);
  EXPECT_DOUBLE_EQ(loop_.longestTurn(), 0.125);
}

// The clock stands still, so that a loop that asked it for the end of the wait would never come back.
TEST_F(Loop, idle_turn_does_nothing_and_a_bounded_wait_ends_by_itself) {
  Timer hour(loop_, "hour", [&] { hear("hour"); });
  hour.after(3600);
  for (int i = 0; i < 100; ++i) ASSERT_FALSE(loop_.step(0));
  EXPECT_FALSE(loop_.step(0.01));
  EXPECT_THAT(heard_, IsEmpty());
}

// With the real clock: the turns that a loop takes from its start to a timer show whether it spins.
TEST(RealLoop, waits_for_its_timer_without_spinning) {
  Orb::EventLoop loop;
  bool rang = false;
  Timer timer(loop, "soon", [&] { rang = true; });
  Timer hour(loop, "hour", [] {});
  hour.after(3600);
  timer.after(0.05);
  const double start = loop.clock().now();
  int turns = 0;
  while (!rang && turns < 1000) {
    loop.step(-1);
    ++turns;
  }
  EXPECT_LE(turns, 3);
  EXPECT_GE(loop.clock().now() - start, 0.05);
}

class Descriptors : public Loop {
 protected:
  struct Watched {
    Watched(Descriptors& test, const std::string& name, int fd, std::function<void()> then = {})
        : name(name), fd(fd), entity(Mox::make<Orb::FileDescriptor>(test.loop_, name)), watch(entity) {
      entity->descriptorIs(fd);
      watch.on(Orb::FileDescriptor::readableCountChanged, [this, &test, then] {
        test.hear(this->name);
        if (then) then();
      });
      watch.on(Orb::FileDescriptor::writableCountChanged,
               [this, &test] { test.hear(this->name + " writable"); });
      entity->notifyOnReadableIs(true);
    }
    ~Watched() {
      entity->descriptorIs(-1);
      close(fd);
    }
    std::string name;
    int fd;
    Mox::Ptr<Orb::FileDescriptor> entity;
    Mox::Notifiee<Orb::FileDescriptor> watch;
  };

  std::unique_ptr<Watched> event(const std::string& name, std::function<void()> then = {}) {
    return std::make_unique<Watched>(*this, name, eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK), std::move(then));
  }
  static void raise(int fd) { ASSERT_EQ(eventfd_write(fd, 1), 0); }
};

TEST_F(Descriptors, nothing_that_is_scheduled_runs_in_place_or_in_the_same_turn) {
  Timer timer(loop_, "timer", [&] { hear("timer"); });
  Timer again(loop_, "again", [&] {
    hear("again");
    loop_.post([&] { hear("late post"); });
    again.after(0);
  });
  const auto hook = loop_.endOfTurn([&] { hear("end"); });
  const auto descriptor = event("descriptor", [&] {
    timer.after(0);
    loop_.post([&] { hear("post"); });
  });
  raise(descriptor->fd);
  again.after(0);
  EXPECT_THAT(heard_, IsEmpty());
  loop_.step();
  EXPECT_THAT(taken(), ElementsAre("descriptor", "again", "end"));
  loop_.step();
  EXPECT_THAT(taken(), ElementsAre("timer", "again", "post", "late post", "end"));
  again.cancel();
  loop_.step();
  EXPECT_THAT(taken(), ElementsAre("late post", "end"));
  EXPECT_FALSE(loop_.step());
}

TEST_F(Descriptors, runtime_error_costs_the_work_that_met_it_and_nothing_else) {
  std::vector<std::string> errors;
  loop_.errorHandlerIs(
      [&](const char* where, const char* what) { errors.push_back(std::string(where) + ": " + what); });
  const auto descriptor = event("event", [] { throw Mox::NullError("descriptor"); });
  raise(descriptor->fd);
  Timer bad(loop_, "bad", [] { throw Mox::RangeError("vlan 5000"); });
  Timer good(loop_, "good", [&] { hear("good"); });
  bad.after(0);
  good.after(0);
  loop_.post([] { throw Mox::ReinstantiationError("post"); });
  loop_.post([&] { hear("post"); });
  const auto badHook = loop_.endOfTurn([] { throw Mox::Error("hook"); });
  const auto hook = loop_.endOfTurn([&] { hear("end"); });
  EXPECT_TRUE(loop_.step());
  EXPECT_THAT(taken(), ElementsAre("event", "good", "post", "end"));
  EXPECT_THAT(errors,
              ElementsAre("event: descriptor", "bad: vlan 5000", "posted call: post", "end of turn: hook"));
}

TEST_F(Descriptors, one_notification_an_edge_also_when_nobody_reads) {
  std::array<int, 2> ends{};
  ASSERT_EQ(pipe2(ends.data(), O_CLOEXEC | O_NONBLOCK), 0);
  Watched reader(*this, "pipe", ends[0]);
  EXPECT_FALSE(loop_.step());
  ASSERT_EQ(write(ends[1], "ab", 2), 2);
  EXPECT_TRUE(loop_.step());
  EXPECT_FALSE(loop_.step());
  EXPECT_THAT(taken(), ElementsAre("pipe"));
  ASSERT_EQ(write(ends[1], "c", 1), 1);
  EXPECT_TRUE(loop_.step());
  EXPECT_FALSE(loop_.step());
  EXPECT_THAT(taken(), ElementsAre("pipe"));
  close(ends[1]);  // hang-up counts as readable
  EXPECT_TRUE(loop_.step());
  EXPECT_FALSE(loop_.step());
  EXPECT_THAT(taken(), ElementsAre("pipe"));
}

TEST_F(Descriptors, registering_one_that_is_ready_notifies_once_in_a_later_turn) {
  std::array<int, 2> ends{};
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends.data()), 0);
  ASSERT_EQ(write(ends[1], "x", 1), 1);
  Watched socket(*this, "socket", ends[0]);
  EXPECT_THAT(heard_, IsEmpty());
  loop_.step();
  EXPECT_THAT(taken(), ElementsAre("socket"));
  socket.entity->notifyOnWritableIs(true);
  EXPECT_THAT(heard_, IsEmpty());
  loop_.step();
  EXPECT_FALSE(loop_.step());
  EXPECT_THAT(taken(), ElementsAre("socket", "socket writable"));
  socket.entity->notifyOnReadableIs(false);
  socket.entity->notifyOnWritableIs(false);
  ASSERT_EQ(write(ends[1], "x", 1), 1);
  EXPECT_FALSE(loop_.step());
  close(ends[1]);
}

TEST_F(Descriptors, one_closed_by_the_handler_of_another_in_the_same_turn_is_not_told) {
  std::array<std::unique_ptr<Watched>, 2> pair;
  std::unique_ptr<Watched> successor;
  // Whichever comes first closes the other, and a new one takes over its slot and its descriptor number.
  for (std::size_t i = 0; i < 2; ++i) {
    pair[i] = event("event", [&, i] {
      if (successor) return;
      const int freed = pair[1 - i]->fd;
      pair[1 - i] = nullptr;
      successor = event("successor");
      EXPECT_EQ(successor->fd, freed);
    });
  }
  raise(pair[0]->fd);
  raise(pair[1]->fd);
  EXPECT_TRUE(loop_.step());
  EXPECT_FALSE(loop_.step());
  EXPECT_THAT(taken(), ElementsAre("event"));
  raise(successor->fd);
  EXPECT_TRUE(loop_.step());
  EXPECT_THAT(taken(), ElementsAre("successor"));
}

TEST_F(Descriptors, refused_descriptor_raises_an_error_that_names_it_and_does_no_harm) {
  auto bad = Mox::make<Orb::FileDescriptor>(loop_, "bad");
  bad->notifyOnReadableIs(true);
  try {
    bad->descriptorIs(1 << 20);
    FAIL() << "accepted";
  } catch (const Mox::Error& error) {
    EXPECT_THAT(error.what(), ::testing::HasSubstr("bad: "));
  }
  EXPECT_THROW(bad->nonBlockingIs(true), Mox::Error);
  bad = nullptr;
  auto good = event("good");
  raise(good->fd);
  loop_.step();
  EXPECT_THAT(taken(), ElementsAre("good"));
}

}  // namespace
