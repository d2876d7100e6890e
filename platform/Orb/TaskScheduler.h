#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Mox/Ptr.h"
#include "Orb/EventLoop.h"

namespace Orb {

class Task;

// Runs tasks between the loop's descriptors, so that long work never holds up a packet. A turn runs every
// ready task of the most urgent level once, then the one task of the other levels that has waited longest:
// urgent work waits for one slice of background work at most, and background work always advances.
class TaskSchedulerRoot final : public Mox::Referenced, private WorkSource {
 public:
  // Levels from 0, the most urgent, to kLevels - 1.
  static constexpr unsigned kLevels = 8;

  explicit TaskSchedulerRoot(EventLoop& loop);
  ~TaskSchedulerRoot() override;

  EventLoop& loop() const { return loop_; }
  // The handle by which reactors name the scheduler that runs them.
  const Mox::Ptr<class TaskScheduler>& scheduler() const { return scheduler_; }

  // How long one run of a task may last before mustYield says so, in seconds.
  double slice() const { return slice_; }
  void sliceIs(double seconds) { slice_ = seconds; }
  // Replaces the clock test of mustYield, for tests; an empty function restores it.
  void mustYieldForTestIs(std::function<bool()> mustYield) { mustYieldForTest_ = std::move(mustYield); }

  // Whether the running task has used its slice. Outside a task: false.
  bool mustYield() const;

  // Runs, time and longest run of every task, one a line.
  std::string debugText() const;

 private:
  friend class Task;
  bool hasWork() const override { return ready_ != 0; }
  void beginTurn() override { turnArrivals_ = arrivals_; }
  bool runTurn() override;
  bool due(const std::deque<Task*>& queue) const;
  void run(Task* task);

  EventLoop& loop_;
  Mox::Ptr<TaskScheduler> scheduler_;
  double slice_ = 1e-3;
  double sliceEnd_ = 0;
  bool running_ = false;
  std::function<bool()> mustYieldForTest_;
  std::array<std::deque<Task*>, kLevels> queues_;
  std::size_t ready_ = 0;
  std::uint64_t arrivals_ = 0;
  std::uint64_t turnArrivals_ = 0;  // what was scheduled from here on waits for a later turn
  std::vector<Task*> tasks_;
};

class TaskScheduler final : public Mox::Referenced {
 public:
  explicit TaskScheduler(TaskSchedulerRoot& root) : root_(root) {}
  TaskSchedulerRoot& root() const { return root_; }
  EventLoop& loop() const { return root_.loop(); }

 private:
  TaskSchedulerRoot& root_;
};

// A piece of work that runs in a later turn of the loop, now or after a delay. Destroying it cancels it, also
// from inside its own run; its owner refers to itself in `work` by plain pointer.
class Task {
 public:
  Task(Mox::Ptr<TaskScheduler> scheduler, std::string name, unsigned level, std::function<void()> work);
  Task(const Task&) = delete;
  Task& operator=(const Task&) = delete;
  ~Task();

  // An earlier appointment stands; a later one is brought forward.
  void schedule(double delay = 0);
  void cancel();
  bool scheduled() const { return queued_ || timer_.scheduled(); }

  const std::string& name() const { return name_; }
  unsigned level() const { return level_; }
  const Mox::Ptr<TaskScheduler>& scheduler() const { return scheduler_; }

 private:
  friend class TaskSchedulerRoot;
  void enqueue();

  Mox::Ptr<TaskScheduler> scheduler_;
  std::string name_;
  unsigned level_;
  std::shared_ptr<std::function<void()>> work_;  // outlives a task that its own run destroys
  bool queued_ = false;
  bool* destroyed_ = nullptr;  // set while running
  std::uint64_t arrival_ = 0;
  std::uint64_t runs_ = 0;
  double seconds_ = 0;
  double longest_ = 0;
  Timer timer_;
};

}  // namespace Orb
