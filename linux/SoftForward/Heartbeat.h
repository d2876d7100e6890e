#pragma once

#include <cstdint>
#include <functional>
#include <optional>

#include "Orb/EventLoop.h"
#include "SoftForward/Programs.h"

namespace SoftForward {

// Tells the programs, three times in each `seconds`, that the agent is there. It does so from the event loop,
// so that a loop which does not turn is not vouched for: `seconds` after the last beat, however the process
// ended or hangs, the programs forward everything as if there were no agent.
class Heartbeat {
 public:
  // `late` is called before a beat that comes when the last one counts no more; `beaten` after each. Loop and
  // programs outlive this. The loop's clock is the kernel's monotonic one, outside of tests.
  Heartbeat(Orb::EventLoop& loop, Programs& programs, std::function<void()> late,
            std::function<void()> beaten);
  // The last beat is taken back.
  ~Heartbeat();
  Heartbeat(const Heartbeat&) = delete;
  Heartbeat& operator=(const Heartbeat&) = delete;

  void secondsIs(double seconds);
  // Whether there is somebody to vouch for: the first beat is at once, and so is the taking back of the last.
  void beatingIs(bool beating);
  bool beating() const { return beating_; }
  // Never beats again: nothing more is trapped, while what was is still kept from the tunnel ports for as
  // long as it may be on its way (SOFT_FORWARD_CROSSING_NS), for somebody is left who deals with the copies.
  void expire();
  // After expire(): nothing that was trapped is on its way any more.
  bool expired() const { return expired_ && loop_.clock().now() >= *expired_; }
  // Seconds since the last beat; nothing while it does not beat.
  std::optional<double> age() const;

 private:
  void beat();

  Orb::EventLoop& loop_;
  Programs& programs_;
  const std::function<void()> late_;
  const std::function<void()> beaten_;
  double seconds_ = 3;
  bool beating_ = false;
  double last_ = 0;
  double until_ = 0;               // the programs are told that the agent is there
  std::optional<double> expired_;  // when nothing is on its way any more
  Orb::Timer timer_;
};

}  // namespace SoftForward
