#pragma once

#include <ctime>

namespace Orb {

// Seconds on a clock that only goes forward. The seam that lets tests set the time.
class Clock {
 public:
  virtual ~Clock() = default;
  virtual double now() const = 0;
};

class MonotonicClock final : public Clock {
 public:
  double now() const override {
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
  }
};

// Stands still until it is moved.
class ManualClock final : public Clock {
 public:
  double now() const override { return now_; }
  void advance(double seconds) { now_ += seconds; }

 private:
  double now_ = 1000;
};

}  // namespace Orb
