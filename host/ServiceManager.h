#pragma once

#include "Orb/EventLoop.h"

namespace Host {

// What started this process, as far as it wants to be told: NOTIFY_SOCKET and WATCHDOG_USEC of the
// environment, as in sd_notify(3) and sd_watchdog_enabled(3). Without them nothing is done. Children do not
// inherit the two.
class ServiceManager {
 public:
  // From here on it is told that the loop turns, twice in each interval that it wants to hear of it.
  explicit ServiceManager(Orb::EventLoop& loop);
  ServiceManager(const ServiceManager&) = delete;
  ServiceManager& operator=(const ServiceManager&) = delete;

  void started();  // everything runs
  void ending();   // what was put into the kernel is taken back now

 private:
  void alive();

  const double interval_;  // seconds; 0: nobody wants to hear that the loop turns
  Orb::Timer timer_;
};

}  // namespace Host
