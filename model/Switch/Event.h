#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "Bridging/VlanId.h"
#include "Lanix/EthAddr.h"
#include "Lanix/IpGenAddr.h"
#include "Mox/Strep.h"
#include "Tracelet/Trace.h"

// What happens on this switch that an operator may want to look back at (`arpsup events`). An event is a
// record of the trace ring, in a level with others of its kind, so that many of one kind do not push out the
// others:
//
//   level 1  health, problems, conflicts      level 4  local bindings
//   level 3  VLANs, VRFs                      level 5  remote bindings
//
// Its text is "event <kind> <key>=<value> ...". A value ends where a blank and the next known key stand; the
// last key is "text", for people, which takes the rest.

namespace Switch {

enum class EventKind : std::uint8_t {
  learned,       // an address and its host became known
  moved,         // the host of an address is another one, or elsewhere
  withdrawn,     // the address is no longer known
  conflict,      // two claim one address, or there may be no such binding
  conflictOver,  // and no longer
  vlan,          // a VLAN's state changed
  vrf,
  health,
  problem,  // a problem began, or has another text
  problemOver,
};
inline constexpr std::size_t kEventKinds = 10;
constexpr std::array<const char*, kEventKinds> moxEnumNames(EventKind) {
  return {"learned", "moved", "withdrawn", "conflict", "conflictOver",
          "vlan",    "vrf",   "health",    "problem",  "problemOver"};
}

// The keys of events, in the order in which an event has those that it has.
inline constexpr const char* kEventKeys[] = {"table", "vlan",  "ip",     "mac",     "interface",
                                             "vrf",   "state", "plugin", "subject", "text"};

enum class EventTable : std::uint8_t { local, remote };
constexpr std::array<const char*, 2> moxEnumNames(EventTable) { return {"local", "remote"}; }

// An address and its host, of one of the two binding tables.
struct BindingEvent {
  EventTable table = EventTable::local;
  Bridging::VlanId vlanId;
  Lanix::IpGenAddr ip;
  Lanix::EthAddr mac;
  std::string_view interface = {};  // its port; "" when not known
  std::string_view text = {};       // what else there is to say: who else claims it, where it was
};

// Of the kinds from `learned` to `conflictOver`. Tens of nanoseconds: may be called for every packet.
void bindingEvent(EventKind kind, const BindingEvent& binding);
// `reason` may be "".
void vlanEvent(Bridging::VlanId vlanId, std::string_view state, std::string_view reason);
void vrfEvent(std::string_view vrf, std::string_view state);
void healthEvent(std::string_view verdict);

// What a problem comes of. A storm is more frames from a port than its hosts have reason to send; what else it
// brings about is no news by itself.
enum class Origin : std::uint8_t { itself, storm, perhapsStorm };

struct ProblemEvent {
  std::string_view plugin;
  std::string_view subject;  // ends with "port NAME" when it is about one
  std::string_view problem = {};
  std::string_view advice = {};
  Tracelet::Priority priority = Tracelet::Priority::warning;
  Origin origin = Origin::itself;
};

// Of the kinds `problem` and `problemOver`.
void problemEvent(EventKind kind, const ProblemEvent& problem);

// What is in the log of an event, apart from its text, which is made when it is asked for, and in the call only.
using EventText = std::function<std::string()>;
struct EventLine {
  EventKind kind;
  Tracelet::Priority priority;
  const EventText& text;
  std::string_view port = {};     // that it happened on, where that is known
  std::string_view problem = {};  // the subject
  Origin origin = Origin::itself;
};
// Whoever writes events into the log. Without one, the problems among them are written at once, and no others.
using EventListener = std::function<void(const EventLine& line)>;
void eventListenerIs(EventListener listener);

}  // namespace Switch
