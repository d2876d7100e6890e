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
// Of the kinds `problem` and `problemOver`.
void problemEvent(EventKind kind, std::string_view plugin, std::string_view subject,
                  std::string_view problem = {});

// Whoever writes events into the log besides, but those of problems, which the ProblemReporter writes itself.
// The text is made when it is asked for, and in the call only.
using EventText = std::function<std::string()>;
using EventListener = std::function<void(EventKind kind, Tracelet::Priority priority, const EventText& text)>;
void eventListenerIs(EventListener listener);

}  // namespace Switch
