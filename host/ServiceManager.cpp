#include "host/ServiceManager.h"

#include <systemd/sd-daemon.h>

namespace Host {

namespace {

constexpr double kMicrosecondsPerSecond = 1e6;

double watchdogInterval() {
  std::uint64_t microseconds = 0;
  if (sd_watchdog_enabled(1, &microseconds) <= 0) return 0;
  return static_cast<double>(microseconds) / kMicrosecondsPerSecond / 2;
}

}  // namespace

// What cannot be sent is not tried again: the next message comes soon, and a service manager that hears of
// none ends this process.
ServiceManager::ServiceManager(Orb::EventLoop& loop)
    : interval_(watchdogInterval()), timer_(loop, "watchdog", [this] { alive(); }) {
  if (interval_ > 0) timer_.after(interval_);
}

void ServiceManager::started() { sd_notify(0, "READY=1"); }

void ServiceManager::ending() { sd_notify(0, "STOPPING=1"); }

void ServiceManager::alive() {
  sd_notify(0, "WATCHDOG=1");
  timer_.after(interval_);
}

}  // namespace Host
