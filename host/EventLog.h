#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>

#include "Orb/EventLoop.h"
#include "Switch/Event.h"

namespace Host {

// Writes what happens on the switch into the log: of each kind of event so many lines a minute, then one with
// how many more there were. Problems have all of their lines. All events are in the trace ring
// (Switch/Event.h). There is one at a time.
//
// A storm has two lines, one when it begins and one when it is over: hosts of its port that are learned or go,
// problems that may come of it and what they make of the verdict have none while it lasts. Since a storm is
// noticed a moment after its first frames, all of these wait that long for their line.
class EventLog {
 public:
  static constexpr double kWindowSeconds = 60;
  static constexpr unsigned kLines = 10;
  static constexpr double kStormNoticedSeconds = 2;
  // The hosts of a storm are forgotten after the time that a bridge keeps a silent one, 300 s by default.
  static constexpr double kStormForgottenSeconds = 360;

  explicit EventLog(Orb::EventLoop& loop);
  EventLog(const EventLog&) = delete;
  EventLog& operator=(const EventLog&) = delete;
  ~EventLog();

  // How many there were so far; none of problems.
  std::uint64_t count(Switch::EventKind kind) const { return of(kind).all; }

 private:
  struct Kind {
    std::unique_ptr<Orb::Timer> windowEnds;  // runs while there is a window
    unsigned lines = 0;                      // of it
    std::uint64_t more = 0;
    std::uint64_t all = 0;
  };
  struct Line {
    double due = 0;
    Switch::EventKind kind;
    Tracelet::Priority priority;
    std::string port, problem, text;
  };
  const Kind& of(Switch::EventKind kind) const { return kinds_[static_cast<std::size_t>(kind)]; }
  Kind& of(Switch::EventKind kind) { return kinds_[static_cast<std::size_t>(kind)]; }
  void handleEvent(const Switch::EventLine& line);
  void handleWindowEnd(Switch::EventKind kind);
  void stormIs(const std::string& port, bool lasts);
  // Whether the log has this with the line of a storm. A problem that is has none when it is over either.
  bool isOfStorm(Switch::EventKind kind, std::string_view port, std::string_view problem);
  bool hasStorm() const;
  void handleDue();
  void write(const Line& line);

  Orb::EventLoop& loop_;
  std::array<Kind, Switch::kEventKinds> kinds_;
  std::deque<Line> waiting_;  // in the order of `due`
  // By port: when its hosts are forgotten; infinite while it lasts.
  std::map<std::string, double, std::less<>> storms_;
  double stormChanged_ = 0;  // when a storm, or a problem that came of one, last began or was over
  std::set<std::string, std::less<>> told_, untold_;  // problems with a line and without, by subject
  // The last one, and the priority of the last one that has a line: each has its own.
  Line verdict_{0, Switch::EventKind::health, Tracelet::Priority::notice, {}, {}, {}};
  Tracelet::Priority toldVerdict_ = Tracelet::Priority::notice;
  Orb::Timer due_;
};

}  // namespace Host
