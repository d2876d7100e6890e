#pragma once

#include <array>
#include <cstdint>
#include <memory>

#include "Orb/EventLoop.h"
#include "Switch/Event.h"

namespace Host {

// Writes what happens on the switch into the log: of each kind of event so many lines a minute, then one with
// how many more there were. All of them are in the trace ring (Switch/Event.h). There is one at a time.
class EventLog {
 public:
  static constexpr double kWindowSeconds = 60;
  static constexpr unsigned kLines = 10;

  explicit EventLog(Orb::EventLoop& loop);
  EventLog(const EventLog&) = delete;
  EventLog& operator=(const EventLog&) = delete;
  ~EventLog();

  // How many there were so far; none of problems, which have lines of their own.
  std::uint64_t count(Switch::EventKind kind) const { return of(kind).all; }

 private:
  struct Kind {
    std::unique_ptr<Orb::Timer> windowEnds;  // runs while there is a window
    unsigned lines = 0;                      // of it
    std::uint64_t more = 0;
    std::uint64_t all = 0;
  };
  const Kind& of(Switch::EventKind kind) const { return kinds_[static_cast<std::size_t>(kind)]; }
  void handleEvent(Switch::EventKind kind, Tracelet::Priority priority, const Switch::EventText& text);
  void handleWindowEnd(Switch::EventKind kind);

  std::array<Kind, Switch::kEventKinds> kinds_;
};

}  // namespace Host
