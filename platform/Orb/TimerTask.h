#pragma once

#include <cstdint>
#include <utility>

#include "Mox/Attribute.h"
#include "Orb/TaskScheduler.h"

namespace Orb {

// A task as an entity: whoever watches `runs` is told of each run. It is not scheduled when it is made.
class TimerTask final : public Mox::Entity {
 public:
  TimerTask(Mox::Ptr<TaskScheduler> scheduler, std::string name, unsigned level = 3)
      : task_(std::move(scheduler), std::move(name), level, [this] { runsIs(runs() + 1); }) {}

  void schedule(double delay = 0) { task_.schedule(delay); }
  bool scheduled() const { return task_.scheduled(); }
  const std::string& name() const { return task_.name(); }

  MOX_ATTRIBUTE(std::uint64_t, runs, 0)

 private:
  Task task_;
};

}  // namespace Orb
