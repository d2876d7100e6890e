#include "Orb/TaskScheduler.h"

#include <algorithm>
#include <cstdio>

#include "Mox/Assert.h"

namespace Orb {

namespace {
constexpr char kSource[] = "Orb/TaskScheduler";
}

TaskSchedulerRoot::TaskSchedulerRoot(EventLoop& loop)
    : loop_(loop), scheduler_(Mox::make<TaskScheduler>(*this)) {
  loop_.workSourceIs(this);
}

TaskSchedulerRoot::~TaskSchedulerRoot() {
  MOX_ASSERT(kSource, "tasks_.empty()", tasks_.empty());
  loop_.workSourceDel(this);
}

bool TaskSchedulerRoot::mustYield() const {
  if (mustYieldForTest_) return mustYieldForTest_();
  return running_ && loop_.clock().now() >= sliceEnd_;
}

bool TaskSchedulerRoot::due(const std::deque<Task*>& queue) const {
  return !queue.empty() && queue.front()->arrival_ < turnArrivals_;
}

bool TaskSchedulerRoot::runTurn() {
  const auto urgent =
      std::find_if(queues_.begin(), queues_.end(), [this](const auto& queue) { return due(queue); });
  if (urgent == queues_.end()) return false;
  while (due(*urgent)) run(urgent->front());
  std::deque<Task*>* oldest = nullptr;
  for (auto queue = urgent + 1; queue != queues_.end(); ++queue) {
    if (due(*queue) && (!oldest || queue->front()->arrival_ < oldest->front()->arrival_)) oldest = &*queue;
  }
  if (oldest) run(oldest->front());
  return true;
}

void TaskSchedulerRoot::run(Task* task) {
  queues_[task->level_].pop_front();
  --ready_;
  task->queued_ = false;
  bool destroyed = false;
  task->destroyed_ = &destroyed;
  const std::string name = task->name_;
  const auto work = task->work_;
  const double start = loop_.clock().now();
  sliceEnd_ = start + slice_;
  running_ = true;
  loop_.dispatch(name.c_str(), *work);
  running_ = false;
  if (destroyed) return;
  const double spent = loop_.clock().now() - start;
  task->destroyed_ = nullptr;
  ++task->runs_;
  task->seconds_ += spent;
  task->longest_ = std::max(task->longest_, spent);
}

std::string TaskSchedulerRoot::debugText() const {
  char line[200];
  std::snprintf(line, sizeof line, "tasks: %zu ready: %zu longest turn: %.6f\n", tasks_.size(),
                static_cast<std::size_t>(ready_), loop_.longestTurn());
  std::string text = line;
  for (const Task* task : tasks_) {
    std::snprintf(line, sizeof line, "  %s level=%u runs=%llu seconds=%.6f longest=%.6f%s\n",
                  task->name_.c_str(), task->level_, static_cast<unsigned long long>(task->runs_),
                  task->seconds_, task->longest_, task->scheduled() ? " scheduled" : "");
    text += line;
  }
  return text;
}

Task::Task(Mox::Ptr<TaskScheduler> scheduler, std::string name, unsigned level, std::function<void()> work)
    : scheduler_(std::move(scheduler)),
      name_(std::move(name)),
      level_(level),
      work_(std::make_shared<std::function<void()>>(std::move(work))),
      timer_(scheduler_->loop(), name_, [this] { enqueue(); }) {
  MOX_ASSERT(kSource, "level_ < kLevels", level_ < TaskSchedulerRoot::kLevels);
  scheduler_->root().tasks_.push_back(this);
}

Task::~Task() {
  if (destroyed_) *destroyed_ = true;
  cancel();
  std::erase(scheduler_->root().tasks_, this);
}

void Task::schedule(double delay) {
  if (queued_) return;
  if (delay <= 0) {
    timer_.cancel();
    enqueue();
  } else if (!timer_.scheduled() || timer_.when() > scheduler_->loop().clock().now() + delay) {
    timer_.after(delay);
  }
}

void Task::enqueue() {
  TaskSchedulerRoot& root = scheduler_->root();
  arrival_ = root.arrivals_++;
  root.queues_[level_].push_back(this);
  ++root.ready_;
  queued_ = true;
}

void Task::cancel() {
  timer_.cancel();
  if (!queued_) return;
  TaskSchedulerRoot& root = scheduler_->root();
  std::erase(root.queues_[level_], this);
  --root.ready_;
  queued_ = false;
}

}  // namespace Orb
