#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "Orb/EventLoop.h"
#include "host/ControlCommands.h"
#include "host/EventLog.h"
#include "host/State.h"

namespace Host {

// How long the turns of an event loop take, while it exists: nothing else is served meanwhile.
class TurnTimes {
 public:
  // Upper bounds, in seconds; a last bucket has what is longer.
  static constexpr std::array<double, 8> kBounds = {0.0001, 0.0005, 0.001, 0.005, 0.01, 0.05, 0.25, 1};

  explicit TurnTimes(Orb::EventLoop& loop);
  const std::array<std::uint64_t, kBounds.size() + 1>& counts() const { return counts_; }
  double seconds() const { return seconds_; }  // all of them

 private:
  std::array<std::uint64_t, kBounds.size() + 1> counts_{};
  double seconds_ = 0;
  Orb::EventLoop::HookHandle turnEnds_;
};

// Where metrics come from; all outlive whoever has this.
struct MetricsSources {
  const State& state;
  const ControlCommands::Agents& agents;
  const EventLog& events;
  const TurnTimes& turns;
};

// Everything that is measured, in the Prometheus text format (version 0.0.4). What a plug-in that is not loaded
// would know is left out. Asks the plug-ins for their small answers: a fraction of a millisecond.
std::string metricsText(const MetricsSources& sources);

}  // namespace Host
