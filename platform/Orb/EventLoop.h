#pragma once

#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "Mox/Error.h"
#include "Orb/Clock.h"

namespace Orb {

class FileDescriptor;
class IdleCall;
class Timer;

// Something that has work for a turn besides descriptors and timers: the task scheduler.
class WorkSource {
 public:
  virtual ~WorkSource() = default;
  virtual bool hasWork() const = 0;
  // Before anything of a turn is dispatched: what arrives from here on is work of a later turn.
  virtual void beginTurn() = 0;
  // Does what there was at beginTurn; whether there was anything.
  virtual bool runTurn() = 0;
};

// The one loop of a process: a single thread, edge-triggered epoll, no locks. A turn does, in this order:
// wait, descriptors, due timers, posted calls, work sources, end-of-turn hooks. Whatever is scheduled from
// inside a turn runs in a later one.
//
// Every dispatch catches the entity runtime's errors (Mox::Error), reports them and goes on with the next: an
// outside value out of range costs the work that met it, not the process.
class EventLoop {
 public:
  explicit EventLoop(const Clock& clock = realClock());
  EventLoop(const EventLoop&) = delete;
  EventLoop& operator=(const EventLoop&) = delete;
  ~EventLoop();

  static const Clock& realClock();

  // Opens the epoll instance now instead of with the first descriptor, so that a failure shows at start.
  // Throws Mox::Error when the kernel refuses.
  void useEpollIs(bool useEpoll);

  // Runs one turn; waits at most `maxWait` seconds for something to do (negative: as long as it takes).
  // Returns whether anything was dispatched.
  bool step(double maxWait = 0);
  // Runs turns until stop() is called.
  void run();
  void stop() { stopped_ = true; }

  // The time that this turn began; read once a turn. `clock().now()` is live.
  double now() const { return now_; }
  const Clock& clock() const { return clock_; }

  // The longest that a turn has taken since longestTurnReset(), in seconds: from the end of its wait to the
  // end of its last hook. Nothing else was served meanwhile.
  double longestTurn() const { return longestTurn_; }
  void longestTurnReset() { longestTurn_ = 0; }

  // Runs the call once, in a later turn, in order of posting. What it refers to must outlive the call, which
  // cannot be cancelled: prefer a Timer or a task, which cancel themselves.
  void post(std::function<void()> call);

  // Called at the end of every turn in which anything was dispatched, in order of registration. The handle
  // removes it.
  class HookHandle;
  using Hooks = std::list<std::function<void()>>;
  [[nodiscard]] HookHandle endOfTurn(std::function<void()> hook);

  void workSourceIs(WorkSource* source);
  void workSourceDel(WorkSource* source);

  // What happens with an error caught at a dispatch; by default a line on stderr and a record in the trace
  // ring.
  using ErrorHandler = std::function<void(const char* where, const char* what)>;
  void errorHandlerIs(ErrorHandler handler) { errorHandler_ = std::move(handler); }
  // Runs `call` as a dispatch.
  template <class Call>
  void dispatch(const char* where, const Call& call) {
    try {
      call();
    } catch (const Mox::Error& error) {
      report(where, error.what());
    }
  }

 private:
  friend class FileDescriptor;
  friend class IdleCall;
  friend class Timer;
  using TimerKey = std::pair<double, std::uint64_t>;

  void openEpoll();
  void report(const char* where, const char* what);
  double waitFor(double maxWait) const;
  bool dispatchDescriptors(double wait);
  bool dispatchTimers(std::uint64_t before);
  bool dispatchPosts(const std::vector<std::function<void()>>& calls);

  const Clock& clock_;
  double now_;
  double longestTurn_ = 0;
  int epoll_ = -1;
  bool stopped_ = false;
  std::vector<FileDescriptor*> slots_;  // index: low half of the epoll data; the high half is a generation
  std::vector<std::uint32_t> generations_;
  std::map<TimerKey, Timer*> timers_;
  std::uint64_t timerSequence_ = 0;
  std::vector<std::function<void()>> posts_;
  std::vector<IdleCall*> idleCalls_;
  std::vector<WorkSource*> sources_;
  Hooks hooks_;
  ErrorHandler errorHandler_;
};

class EventLoop::HookHandle {
 public:
  HookHandle() = default;
  HookHandle(EventLoop& loop, Hooks::iterator at) : loop_(&loop), at_(at) {}
  HookHandle(HookHandle&& other) noexcept : loop_(std::exchange(other.loop_, nullptr)), at_(other.at_) {}
  HookHandle& operator=(HookHandle&& other) noexcept {
    std::swap(loop_, other.loop_);
    std::swap(at_, other.at_);
    return *this;
  }
  ~HookHandle() {
    if (loop_) loop_->hooks_.erase(at_);
  }

 private:
  EventLoop* loop_ = nullptr;
  Hooks::iterator at_;
};

// Runs once, when a turn has found nothing to do: whatever came or was scheduled before that is dealt with,
// but for what has an appointment later. Destroying it cancels it.
class IdleCall {
 public:
  IdleCall(EventLoop& loop, std::function<void()> call) : loop_(loop), call_(std::move(call)) {}
  IdleCall(const IdleCall&) = delete;
  IdleCall& operator=(const IdleCall&) = delete;
  ~IdleCall() { cancel(); }

  void schedule();
  void cancel() { std::erase(loop_.idleCalls_, this); }

 private:
  friend class EventLoop;
  EventLoop& loop_;
  std::function<void()> call_;
};

// One shot in the future. Destroying it cancels it, also from inside its own call.
class Timer {
 public:
  Timer(EventLoop& loop, std::string name, std::function<void()> call)
      : loop_(loop), name_(std::move(name)), call_(std::move(call)) {}
  Timer(const Timer&) = delete;
  Timer& operator=(const Timer&) = delete;
  ~Timer() { cancel(); }

  // Runs after `seconds`, never in place; an earlier appointment is replaced.
  void after(double seconds);
  void cancel();
  bool scheduled() const { return scheduled_; }
  double when() const { return key_.first; }

 private:
  friend class EventLoop;
  EventLoop& loop_;
  std::string name_;
  std::function<void()> call_;
  EventLoop::TimerKey key_{};
  bool scheduled_ = false;
};

}  // namespace Orb
