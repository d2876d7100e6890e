#include "Orb/EventLoop.h"

#include <sys/epoll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstring>

#include "Orb/FileDescriptor.h"
#include "Tracelet/Record.h"
#include "Tracelet/Trace.h"

namespace Orb {

namespace {

constexpr int kEventsPerTurn = 64;

Tracelet::Handle& traceHandle() {
  static Tracelet::Handle handle("Orb");
  return handle;
}

}  // namespace

const Clock& EventLoop::realClock() {
  static const MonotonicClock clock;
  return clock;
}

EventLoop::EventLoop(const Clock& clock) : clock_(clock), now_(clock.now()) {
  std::signal(SIGPIPE, SIG_IGN);  // a peer that goes away is an error return, not a signal
}

EventLoop::~EventLoop() {
  for (FileDescriptor* descriptor : slots_) {
    if (descriptor) descriptor->loop_ = nullptr;
  }
  for (auto& [key, timer] : timers_) timer->scheduled_ = false;
  if (epoll_ >= 0) close(epoll_);
}

void EventLoop::openEpoll() {
  if (epoll_ >= 0) return;
  epoll_ = epoll_create1(EPOLL_CLOEXEC);
  if (epoll_ < 0) throw Mox::Error(std::string("epoll_create1: ") + std::strerror(errno));
}

void EventLoop::useEpollIs(bool useEpoll) {
  if (!useEpoll) throw Mox::RangeError("the event loop has no other poller than epoll");
  openEpoll();
}

void EventLoop::report(const char* where, const char* what) {
  if (errorHandler_) {
    errorHandler_(where, what);
    return;
  }
  if (traceHandle().on(0))
    Tracelet::writeLine(std::string("agent-host: dropped work of ") + where + ": " + what,
                        Tracelet::Priority::error);
  TRACELET_RECORD("dropped work of {}: {}", where, what);
}

double EventLoop::waitFor(double maxWait) const {
  if (!posts_.empty()) return 0;
  for (const WorkSource* source : sources_) {
    if (source->hasWork()) return 0;
  }
  if (timers_.empty()) return maxWait;
  const double untilTimer = std::max(0.0, timers_.begin()->first.first - clock_.now());
  return maxWait < 0 ? untilTimer : std::min(maxWait, untilTimer);
}

bool EventLoop::step(double maxWait) {
  const double wait = idleCalls_.empty() ? waitFor(maxWait) : 0;
  // This turn's work is what there is now; what its dispatches add waits for a later turn.
  const std::uint64_t timersBefore = timerSequence_;
  const std::vector<std::function<void()>> calls = std::exchange(posts_, {});
  for (WorkSource* source : sources_) source->beginTurn();
  bool dispatched = dispatchDescriptors(wait);
  dispatched |= dispatchTimers(timersBefore);
  dispatched |= dispatchPosts(calls);
  for (std::size_t i = 0; i < sources_.size(); ++i) dispatched |= sources_[i]->runTurn();
  if (!dispatched && !idleCalls_.empty()) {
    const std::function<void()> call = idleCalls_.back()->call_;  // may destroy its owner
    idleCalls_.pop_back();
    dispatch("idle call", call);
    dispatched = true;
  }
  if (dispatched) {
    for (auto& hook : hooks_) dispatch("end of turn", hook);
    longestTurn_ = std::max(longestTurn_, clock_.now() - now_);
  }
  return dispatched;
}

void EventLoop::run() {
  stopped_ = false;
  while (!stopped_) step(-1);
}

bool EventLoop::dispatchDescriptors(double wait) {
  const int milliseconds = wait < 0 ? -1 : static_cast<int>(std::min(std::ceil(wait * 1e3), 1e9));
  std::array<epoll_event, kEventsPerTurn> events;
  int count = 0;
  if (epoll_ < 0 && milliseconds != 0) openEpoll();
  if (epoll_ >= 0) count = epoll_wait(epoll_, events.data(), kEventsPerTurn, milliseconds);
  now_ = clock_.now();
  for (int i = 0; i < count; ++i) {
    const std::uint64_t data = events[static_cast<std::size_t>(i)].data.u64;
    const auto slot = static_cast<std::uint32_t>(data);
    // An earlier descriptor of this turn may have closed this one, and its slot may serve another by now.
    if (slot >= slots_.size() || generations_[slot] != data >> 32 || !slots_[slot]) continue;
    Mox::Ptr<FileDescriptor> descriptor(slots_[slot]);
    const std::uint32_t ready = events[static_cast<std::size_t>(i)].events;
    dispatch(descriptor->name().c_str(), [&] { descriptor->handleReady(ready); });
  }
  return count > 0;
}

bool EventLoop::dispatchTimers(std::uint64_t before) {
  bool any = false;
  for (auto next = timers_.begin(); next != timers_.end() && next->first.first <= now_;) {
    if (next->first.second >= before) {
      ++next;
      continue;
    }
    const TimerKey key = next->first;
    Timer* timer = next->second;
    timers_.erase(next);
    timer->scheduled_ = false;
    const std::string name = timer->name_;
    const std::function<void()> call = timer->call_;  // the call may destroy its timer
    dispatch(name.c_str(), call);
    any = true;
    next = timers_.upper_bound(key);
  }
  return any;
}

bool EventLoop::dispatchPosts(const std::vector<std::function<void()>>& calls) {
  for (const auto& call : calls) dispatch("posted call", call);
  return !calls.empty();
}

void EventLoop::post(std::function<void()> call) { posts_.push_back(std::move(call)); }

EventLoop::HookHandle EventLoop::endOfTurn(std::function<void()> hook) {
  return HookHandle(*this, hooks_.insert(hooks_.end(), std::move(hook)));
}

void EventLoop::workSourceIs(WorkSource* source) { sources_.push_back(source); }
void EventLoop::workSourceDel(WorkSource* source) { std::erase(sources_, source); }

void IdleCall::schedule() {
  cancel();
  loop_.idleCalls_.push_back(this);
}

void Timer::after(double seconds) {
  cancel();
  key_ = {loop_.clock().now() + std::max(0.0, seconds), loop_.timerSequence_++};
  loop_.timers_.emplace(key_, this);
  scheduled_ = true;
}

void Timer::cancel() {
  if (!scheduled_) return;
  loop_.timers_.erase(key_);
  scheduled_ = false;
}

}  // namespace Orb
