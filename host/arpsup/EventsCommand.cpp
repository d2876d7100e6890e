#include <algorithm>
#include <ctime>
#include <map>
#include <optional>

#include "Bridging/VlanId.h"
#include "Lanix/IpGenAddr.h"
#include "Statedb/Json.h"
#include "Switch/Event.h"
#include "host/Bindings.h"
#include "host/arpsup/Commands.h"
#include "host/arpsup/Output.h"
#include "host/arpsup/TraceRings.h"

namespace Host {

namespace {

using nlohmann::ordered_json;

constexpr std::string_view kEvent = "event ";

struct Event {
  std::string time;
  std::string kind;
  std::map<std::string, std::string, std::less<>> values;  // by key; without empty ones

  std::string value(const char* key) const {
    const auto found = values.find(key);
    return found == values.end() ? std::string() : found->second;
  }
};

// Nothing when the line is of something else (Switch/Event.h has the form).
std::optional<Event> eventOf(const TraceLine& line) {
  if (!line.text.starts_with(kEvent)) return std::nullopt;
  std::string_view rest = line.text.substr(kEvent.size());
  const auto take = [&rest](std::size_t size, std::size_t separator) {
    const std::string_view part = rest.substr(0, size);
    rest.remove_prefix(std::min(part.size() + separator, rest.size()));
    return std::string(part);
  };
  Event event{std::string(line.time), take(rest.find(' '), 1), {}};
  for (auto key = std::begin(Switch::kEventKeys); key != std::end(Switch::kEventKeys); ++key) {
    const std::string label = std::string(*key) + "=";
    if (!rest.starts_with(label)) continue;
    rest.remove_prefix(label.size());
    std::size_t end = std::string_view::npos;
    for (auto later = key + 1; later != std::end(Switch::kEventKeys); ++later)
      end = std::min(end, rest.find(std::string(1, ' ').append(*later).append("=")));
    if (std::string value = take(end, 1); !value.empty()) event.values.emplace(*key, std::move(value));
  }
  return event;
}

// Seconds since 1970 of the time of a line.
double secondsOf(const std::string& time) {
  std::tm broken{};
  const char* const fraction = strptime(time.c_str(), "%Y-%m-%dT%H:%M:%S", &broken);
  return static_cast<double>(timegm(&broken)) +
         (fraction && *fraction == '.' ? std::strtod(fraction, nullptr) : 0);
}

std::string jsonLine(const Event& event) {
  ordered_json shown = {{"time", secondsOf(event.time)}, {"event", event.kind}};
  for (const char* key : Switch::kEventKeys) {
    const std::string value = event.value(key);
    if (value.empty()) continue;
    const auto vlanId = Bridging::VlanId::fromStrep(value);
    shown[key] =
        std::string_view(key) == "vlan" && vlanId ? ordered_json(vlanId->value()) : ordered_json(value);
  }
  return textOf(shown) + "\n";
}

// "2026-01-31T12:00:00Z  learned  local VLAN 10 10.0.10.9 02:00:00:00:00:09 Ethernet1: what else"
std::string textLine(const Event& event) {
  constexpr std::size_t kWidest = 12;
  std::string line;
  for (const char* key : Switch::kEventKeys) {
    const std::string value = event.value(key);
    if (value.empty()) continue;
    const std::string_view name = key;
    line += (line.empty()      ? ""
             : name == "text"  ? ": "
             : name == "state" ? " is "
                               : " ") +
            std::string(name == "vlan"  ? "VLAN "
                        : name == "vrf" ? "VRF "
                                        : "") +
            value;
  }
  const std::string state = event.value("state");
  const bool good =
      event.kind == "problemOver" || event.kind == "conflictOver" || state == "good" || state == "active";
  const bool bad =
      event.kind == "problem" || event.kind == "conflict" || state == "degraded" || state == "failed";
  const std::string kind = event.kind + std::string(kWidest - std::min(kWidest, event.kind.size()), ' ');
  return coloured(Colour::dim, event.time) + "  " +
         (good  ? coloured(Colour::green, kind)
          : bad ? coloured(Colour::red, kind)
                : kind) +
         " " + line + "\n";
}

bool wanted(const EventOptions& options, const Event& event) {
  const auto is = [&](const char* key, const std::string& value) {
    return value.empty() || event.value(key) == value;
  };
  // A problem names its VLAN in the subject.
  const bool ofVlan = is("vlan", options.vlan) || hasWord(event.value("subject"), "VLAN " + options.vlan);
  return event.time >= options.since && ofVlan && is("ip", options.ip) && is("mac", options.mac) &&
         (options.kinds.empty() || std::ranges::count(options.kinds, event.kind) != 0);
}

// What is new in all rings, in the order of time; false when nobody reads it.
bool printNew(const CommonOptions& options, const EventOptions& filter, TraceRings& rings) {
  std::vector<Event> events;
  for (const TraceRing& ring : rings.rings) {
    while (const std::optional<std::string> line = ring.reader->next()) {
      auto event = eventOf(partsOf(*line));
      if (event && wanted(filter, *event)) events.push_back(std::move(*event));
    }
  }
  std::ranges::stable_sort(events, {}, &Event::time);
  std::string text;
  for (const Event& event : events) text += options.json ? jsonLine(event) : textLine(event);
  return text.empty() || print(text);
}

}  // namespace

int showEvents(const CommonOptions& options, const EventOptions& events) {
  EventOptions filter = events;
  const auto normal = [](const char* option, std::string& text, const auto& value,
                         const std::string& allowed) {
    if (text.empty()) return true;
    if (value) {
      text = value->toStrep();
      return true;
    }
    fail(kUsage, std::string("--") + option + " " + Statedb::describe(text) + " is not " + allowed);
    return false;
  };
  if (!normal("vlan", filter.vlan, Bridging::VlanId::fromStrep(filter.vlan), Bridging::VlanId::allowed()) ||
      !normal("ip", filter.ip, Lanix::IpGenAddr::fromStrep(filter.ip), "an IPv4 or IPv6 address") ||
      !normal("mac", filter.mac, parseMac(filter.mac), "a MAC address like 02:00:00:00:00:01"))
    return kUsage;
  const auto since = timeSince(filter.since);
  if (!since) return fail(kUsage, since.error());
  filter.since = *since;
  TraceRings rings(options);
  if (const int status = rings.open()) return status;
  if (filter.follow) return followRings(rings, [&] { return printNew(options, filter, rings); });
  return printNew(options, filter, rings) ? kDone : kRefused;
}

}  // namespace Host
