#include "host/EventLog.h"

#include <algorithm>
#include <limits>
#include <utility>

namespace Host {

using Switch::EventKind;
using Switch::Origin;

namespace {

constexpr double kLasts = std::numeric_limits<double>::infinity();

bool isProblem(EventKind kind) { return kind == EventKind::problem || kind == EventKind::problemOver; }
bool isOfHost(EventKind kind) {
  return kind == EventKind::learned || kind == EventKind::moved || kind == EventKind::withdrawn;
}

}  // namespace

EventLog::EventLog(Orb::EventLoop& loop) : loop_(loop), due_(loop, "log", [this] { handleDue(); }) {
  for (std::size_t i = 0; i < kinds_.size(); ++i)
    kinds_[i].windowEnds = std::make_unique<Orb::Timer>(
        loop, "events", [this, i] { handleWindowEnd(static_cast<EventKind>(i)); });
  Switch::eventListenerIs([this](const Switch::EventLine& line) { handleEvent(line); });
}

EventLog::~EventLog() {
  Switch::eventListenerIs({});
  for (const Line& line : waiting_) write(line);
  for (std::size_t i = 0; i < kinds_.size(); ++i) handleWindowEnd(static_cast<EventKind>(i));
}

void EventLog::handleEvent(const Switch::EventLine& event) {
  const bool waits = isOfHost(event.kind) || event.origin == Origin::perhapsStorm ||
                     (event.kind == EventKind::health && event.priority != Tracelet::Priority::error);
  Kind& own = of(event.kind);
  if (!isProblem(event.kind)) ++own.all;
  if (event.kind == EventKind::health) verdict_ = {0, event.kind, event.priority, {}, {}, event.text()};
  if (waits && isOfStorm(event.kind, event.port, event.problem)) return;
  if (!isProblem(event.kind)) {
    if (own.lines == kLines) {
      ++own.more;
      return;
    }
    if (own.lines++ == 0) own.windowEnds->after(kWindowSeconds);
  }
  const Line line{loop_.now() + kStormNoticedSeconds, event.kind,  event.priority, std::string(event.port),
                  std::string(event.problem),         event.text()};
  if (!waits) {
    write(line);
  } else {
    waiting_.push_back(line);
    if (!due_.scheduled()) due_.after(kStormNoticedSeconds);
  }
  if (event.origin == Origin::storm) stormIs(line.port, event.kind == EventKind::problem);
}

void EventLog::stormIs(const std::string& port, bool lasts) {
  stormChanged_ = loop_.now();
  storms_[port] = lasts ? kLasts : stormChanged_ + kStormForgottenSeconds;
  if (!lasts) {
    if (!due_.scheduled()) due_.after(kStormNoticedSeconds);
    return;
  }
  // What it has brought about before it was noticed.
  std::erase_if(waiting_, [this](const Line& line) {
    if (!isOfStorm(line.kind, line.port, line.problem)) return false;
    Kind& own = of(line.kind);
    if (!isProblem(line.kind) && own.lines != 0) --own.lines;
    if (isOfHost(line.kind)) own.more = 0;
    return true;
  });
}

bool EventLog::isOfStorm(EventKind kind, std::string_view port, std::string_view problem) {
  if (isOfHost(kind)) {
    const auto storm = storms_.find(port);
    return storm != storms_.end() && storm->second > loop_.now();
  }
  if (kind == EventKind::health) return hasStorm();
  const auto untold = untold_.find(problem);
  if (kind == EventKind::problemOver) {
    if (untold == untold_.end()) return false;
    untold_.erase(untold);
    stormChanged_ = loop_.now();
    return true;
  }
  if (told_.contains(problem)) return false;
  const bool lasts = std::ranges::any_of(storms_, [&](const auto& storm) {
    return storm.second == kLasts && (port.empty() || port == storm.first);
  });
  if (lasts) untold_.emplace(problem);
  return lasts;
}

// Whether one lasts, or a problem that came of one.
bool EventLog::hasStorm() const {
  return !untold_.empty() ||
         std::ranges::any_of(storms_, [](const auto& storm) { return storm.second == kLasts; });
}

void EventLog::handleDue() {
  const double now = loop_.now();
  while (!waiting_.empty() && waiting_.front().due <= now) {
    write(waiting_.front());
    waiting_.pop_front();
  }
  std::erase_if(storms_, [now](const auto& storm) { return storm.second <= now; });
  // The verdict follows what it is about a moment later.
  const bool judged = !hasStorm() && now >= stormChanged_ + kStormNoticedSeconds;
  if (judged && waiting_.empty() && verdict_.priority != toldVerdict_) write(verdict_);
  if (!waiting_.empty()) return due_.after(waiting_.front().due - now);
  if (!storms_.empty() || !untold_.empty()) due_.after(kStormNoticedSeconds);
}

void EventLog::write(const Line& line) {
  // That the last one is in force again after a storm is no news.
  if (line.kind == EventKind::health && std::exchange(toldVerdict_, line.priority) == line.priority) return;
  if (line.kind == EventKind::problem) told_.insert(line.problem);
  if (line.kind == EventKind::problemOver) told_.erase(line.problem);
  Tracelet::writeLine(line.text, line.priority);
}

void EventLog::handleWindowEnd(EventKind kind) {
  Kind& own = of(kind);
  own.lines = 0;
  const std::uint64_t more = std::exchange(own.more, 0);
  if (more == 0) return;
  Tracelet::writeLine("agent-host: " + std::to_string(more) + " more events \"" + Mox::toStrep(kind) +
                      "\" in the last minute; `arpsup events` has the latest");
}

}  // namespace Host
