#include "Orb/WalkSm.h"

#include <algorithm>
#include <utility>

#include "Mox/Error.h"

namespace Orb {

WalkSmBase::WalkSmBase(Mox::Ptr<TaskScheduler> scheduler, std::string walkName, unsigned level)
    : task_(std::move(scheduler), std::move(walkName), level, [this] { runSlice(); }) {}

WalkSmBase::~WalkSmBase() = default;

void WalkSmBase::scheduleWalk(double delay) {
  switch (stage_) {
    case Stage::idle:
      task_.schedule(delay);
      break;
    case Stage::betweenSlices:
      restart_ = restart_ || allowWalkRestarts();
      break;
    case Stage::inSlice:
      againDelay_ = again_ ? std::min(againDelay_, delay) : delay;
      again_ = true;
      break;
  }
}

void WalkSmBase::runSlice() {
  LifeGuard guard(*this);
  const bool fresh = stage_ == Stage::idle;
  const bool restarted = std::exchange(restart_, false);
  stage_ = Stage::inSlice;
  WalkRet ret;
  try {
    bool wanted = true;
    if (fresh || restarted) {
      traceEvent(fresh ? "started" : "restarted");
      wanted = walkStartedNotification();
    }
    if (wanted && guard.alive()) {
      ret = walk();
      if (guard.alive() && !ret.moreWork) walkFinishedNotification();
    }
    if (guard.alive() && !ret.moreWork) traceEvent("finished");
  } catch (const Mox::Error&) {
    // The walk ends here, open to be scheduled again; the dispatch reports the error.
    if (guard.alive()) end();
    throw;
  }
  if (!guard.alive()) return;
  if (ret.moreWork) {
    stage_ = Stage::betweenSlices;
    task_.schedule();
  } else {
    end();
  }
}

void WalkSmBase::end() {
  stage_ = Stage::idle;
  if (std::exchange(again_, false)) task_.schedule(againDelay_);
}

}  // namespace Orb
