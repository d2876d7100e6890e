#include "host/EventLog.h"

#include <utility>

namespace Host {

using Switch::EventKind;

EventLog::EventLog(Orb::EventLoop& loop) {
  for (std::size_t i = 0; i < kinds_.size(); ++i)
    kinds_[i].windowEnds = std::make_unique<Orb::Timer>(
        loop, "events", [this, i] { handleWindowEnd(static_cast<EventKind>(i)); });
  Switch::eventListenerIs([this](EventKind kind, Tracelet::Priority priority, const Switch::EventText& text) {
    handleEvent(kind, priority, text);
  });
}

EventLog::~EventLog() {
  Switch::eventListenerIs({});
  for (std::size_t i = 0; i < kinds_.size(); ++i) handleWindowEnd(static_cast<EventKind>(i));
}

void EventLog::handleEvent(EventKind kind, Tracelet::Priority priority, const Switch::EventText& text) {
  Kind& own = kinds_[static_cast<std::size_t>(kind)];
  ++own.all;
  if (own.lines == kLines) {
    ++own.more;
    return;
  }
  if (own.lines++ == 0) own.windowEnds->after(kWindowSeconds);
  Tracelet::writeLine("agent-host: " + text(), priority);
}

void EventLog::handleWindowEnd(EventKind kind) {
  Kind& own = kinds_[static_cast<std::size_t>(kind)];
  own.lines = 0;
  const std::uint64_t more = std::exchange(own.more, 0);
  if (more == 0) return;
  Tracelet::writeLine("agent-host: " + std::to_string(more) + " more events \"" + Mox::toStrep(kind) +
                      "\" in the last minute; `arpsup events` has the latest");
}

}  // namespace Host
