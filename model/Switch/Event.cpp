#include "Switch/Event.h"

#include "Tracelet/Record.h"

namespace Switch {

namespace {

using Tracelet::Priority;

// Never destroyed: events happen until the process is gone.
EventListener& listener() {
  static auto* listener = new EventListener;
  return *listener;
}

// `text` makes the line of the log.
template <class Text>
void tell(EventKind kind, Priority priority, const Text& text, std::string_view port = {}) {
  if (listener()) listener()({kind, priority, EventText(std::cref(text)), port});
}

std::string ended(const char* before, std::string_view text) {
  return text.empty() ? std::string() : before + std::string(text);
}

Priority priorityOf(EventKind kind) {
  switch (kind) {
    case EventKind::conflict:
      return Priority::warning;
    case EventKind::moved:
    case EventKind::conflictOver:
      return Priority::notice;
    default:
      return Priority::info;
  }
}

}  // namespace

void eventListenerIs(EventListener given) { listener() = std::move(given); }

void bindingEvent(EventKind kind, const BindingEvent& event) {
  const auto& [table, vlanId, ip, mac, interface, text] = event;
  // Each its own place in the code: a place has one level.
  if (kind == EventKind::conflict || kind == EventKind::conflictOver) {
    TRACELET_RECORD_AT(1, "event {} table={} vlan={} ip={} mac={} interface={} text={}", kind, table,
                       vlanId.value(), ip, mac, interface, text);
  } else if (table == EventTable::local) {
    TRACELET_RECORD_AT(4, "event {} table={} vlan={} ip={} mac={} interface={} text={}", kind, table,
                       vlanId.value(), ip, mac, interface, text);
  } else {
    TRACELET_RECORD_AT(5, "event {} table={} vlan={} ip={} mac={} interface={} text={}", kind, table,
                       vlanId.value(), ip, mac, interface, text);
  }
  tell(
      kind, priorityOf(kind),
      [&event, kind] {
        return "agent-host: " + Mox::toStrep(event.table) + " binding " + Mox::toStrep(kind) + ": " +
               event.ip.toStrep() + " is " + event.mac.toStrep() + " on VLAN " + event.vlanId.toStrep() +
               ended(", ", event.interface) + ended(": ", event.text);
      },
      event.interface);
}

void vlanEvent(Bridging::VlanId vlanId, std::string_view state, std::string_view reason) {
  TRACELET_RECORD_AT(3, "event {} vlan={} state={} text={}", EventKind::vlan, vlanId.value(), state, reason);
  tell(EventKind::vlan, Priority::notice, [&] {
    return "agent-host: VLAN " + vlanId.toStrep() + " is " + std::string(state) + ended(": ", reason);
  });
}

void vrfEvent(std::string_view vrf, std::string_view state) {
  TRACELET_RECORD_AT(3, "event {} vrf={} state={}", EventKind::vrf, vrf, state);
  tell(EventKind::vrf, Priority::notice,
       [&] { return "agent-host: VRF " + std::string(vrf) + " is " + std::string(state); });
}

void healthEvent(std::string_view verdict) {
  TRACELET_RECORD_AT(1, "event {} state={}", EventKind::health, verdict);
  tell(EventKind::health,
       verdict == "good"       ? Priority::notice
       : verdict == "degraded" ? Priority::warning
                               : Priority::error,
       [&] { return "agent-host: health is " + std::string(verdict); });
}

void problemEvent(EventKind kind, const ProblemEvent& event) {
  const auto& [plugin, subject, problem, advice, priority, origin] = event;
  TRACELET_RECORD_AT(1, "event {} plugin={} subject={} text={}", kind, plugin, subject, problem);
  constexpr std::string_view kPort = "port ";
  const std::size_t port = subject.rfind(kPort);
  const EventText text = [&event, kind] {
    const std::string begin = std::string(event.plugin) + ": " + std::string(event.subject) + ": ";
    return begin + (kind == EventKind::problemOver ? "good again"
                                                   : std::string(event.problem) + ended("; ", event.advice));
  };
  if (!listener()) return Tracelet::writeLine(text(), priority);
  listener()({kind, priority, text,
              port == std::string_view::npos ? std::string_view() : subject.substr(port + kPort.size()),
              subject, origin});
}

}  // namespace Switch
