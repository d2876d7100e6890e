#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "Mox/Entity.h"
#include "Orb/TaskScheduler.h"

namespace Orb {

// What one run of a walk did.
struct WalkRet {
  std::uint32_t processed = 0;
  bool moreWork = false;
};

// The base of a reactor that scans something large in slices. `walk` handles entries, at least one a run,
// asks mustYield after each, and returns with moreWork when it has to come back; the scheduler then calls it
// again in a later turn. The walk ends with the first run that reports no more work.
//
// scheduleWalk:
//   - of an idle walk: it starts in a later turn, never in place;
//   - of a scheduled one: the earlier time stands;
//   - between the slices of a running walk: when allowWalkRestarts says so, the next slice begins the walk
//     again (walkStartedNotification); otherwise nothing, the walk comes by anyway;
//   - from inside `walk` itself: a new walk after this one has ended.
//
// A walk may be destroyed from inside its own run; code that goes on after a call that can do so asks a
// LifeGuard.
class WalkSmBase : public Mox::Entity {
 public:
  void scheduleWalk(double delay = 0);
  // An appointment is made, or a walk is between slices.
  bool walkScheduled() const { return task_.scheduled(); }
  const std::string& walkName() const { return task_.name(); }
  const Mox::Ptr<TaskScheduler>& scheduler() const { return task_.scheduler(); }

 protected:
  static constexpr unsigned kDefaultLevel = 3;

  WalkSmBase(Mox::Ptr<TaskScheduler> scheduler, std::string walkName, unsigned level = kDefaultLevel);
  ~WalkSmBase() override;

  virtual WalkRet walk() = 0;
  // Before the first run of each walk. False: the walk is not wanted any more; it ends here, neither run nor
  // finished.
  virtual bool walkStartedNotification() { return true; }
  // After the run that reported no more work.
  virtual void walkFinishedNotification() {}
  virtual bool allowWalkRestarts() const { return false; }
  // "started", "restarted", "finished": for the reactor's trace.
  virtual void traceEvent(const char* /*event*/) {}

  bool mustYield() const { return task_.scheduler()->root().mustYield(); }

  // Tells whether the reactor still is there.
  class LifeGuard {
   public:
    explicit LifeGuard(const WalkSmBase& walk) : life_(walk.life_) {}
    bool alive() const { return !life_.expired(); }

   private:
    std::weak_ptr<const char> life_;
  };

 private:
  enum class Stage : std::uint8_t { idle, betweenSlices, inSlice };
  void runSlice();
  void end();

  Stage stage_ = Stage::idle;
  bool restart_ = false;  // begin again with the next slice
  bool again_ = false;    // a new walk when this one ends
  double againDelay_ = 0;
  std::shared_ptr<const char> life_ = std::make_shared<const char>('\0');  // goes with the reactor
  Task task_;
};

}  // namespace Orb
