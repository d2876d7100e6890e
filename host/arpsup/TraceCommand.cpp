#include <signal.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <iterator>
#include <optional>

#include "Bridging/VlanId.h"
#include "Lanix/IpGenAddr.h"
#include "Statedb/Json.h"
#include "host/arpsup/Commands.h"
#include "host/arpsup/Output.h"
#include "host/arpsup/TraceRings.h"

namespace Host {

namespace {

using nlohmann::ordered_json;
using Rings = std::vector<TraceRing>;

bool wanted(const TraceOptions& options, const TraceLine& line) {
  if (line.level > options.level || line.time < options.since) return false;
  if (!options.vlan.empty() && !hasWord(line.text, "vlanId=" + options.vlan) &&
      !hasWord(line.text, "vlan=" + options.vlan) && !hasWord(line.text, "<" + options.vlan + ";")) {
    return false;
  }
  if (!options.ip.empty() && !hasWord(line.text, options.ip)) return false;
  return std::ranges::all_of(options.texts, [&](const std::string& text) {
    return line.text.find(text) != std::string_view::npos || line.source.find(text) != std::string_view::npos;
  });
}

// How an address is connected, which a record has as a letter.
struct Letter {
  const char* letter;
  const char* name;
};
constexpr Letter kConnectionTypes[] = {{"U", "unknown"},
                                       {"R", "remote"},
                                       {"S", "localSinglehomed"},
                                       {"D", "localMultihomedDf"},
                                       {"N", "localMultihomedNonDf"}};

std::string named(std::string_view text) {
  constexpr std::string_view kLabel = "connectionType=";
  const std::size_t at = std::min(text.find(kLabel), text.size());
  std::string result(text);
  if (at == text.size()) return result;
  const std::size_t value = at + kLabel.size();
  for (const auto& [letter, name] : kConnectionTypes) {
    if (text.substr(value, 2) != std::string(letter) + " ") continue;
    result.replace(value, 1, name);
  }
  return result;
}

class Printer {
 public:
  Printer(const CommonOptions& options, const TraceOptions& trace) : options_(options), trace_(trace) {}

  // What these rings of one process have by now, in the order of time; false when nobody reads it.
  bool printProcess(Rings::iterator first, Rings::iterator last) {
    std::vector<std::string> lines;
    for (auto ring = first; ring != last; ++ring) {
      while (std::optional<std::string> line = ring->reader->next()) lines.push_back(std::move(*line));
    }
    if (last - first > 1) {
      std::stable_sort(lines.begin(), lines.end(), [](const std::string& a, const std::string& b) {
        return partsOf(a).time < partsOf(b).time;
      });
    }
    std::string text;
    for (const std::string& line : lines) {
      const TraceLine part = partsOf(line);
      if (!wanted(trace_, part)) continue;
      ++count;
      text += options_.json ? jsonLine(part, first->reader->pid()) : textLine(part);
    }
    return text.empty() || print(text);
  }

  std::size_t count = 0;

 private:
  static std::string textLine(const TraceLine& line) {
    const std::string text = named(line.text);
    const bool event = text.starts_with("event ");
    return coloured(Colour::dim, line.time) + " " + std::to_string(line.level) + " " +
           coloured(Colour::dim, std::string(line.source) + ":" + std::string(line.number)) + " " +
           (line.level == 0 ? coloured(Colour::red, text)
            : event         ? coloured(Colour::yellow, text)
                            : text) +
           "\n";
  }
  static std::string jsonLine(const TraceLine& line, std::uint32_t pid) {
    return textOf({{"time", std::string(line.time)},
                   {"pid", pid},
                   {"level", line.level},
                   {"source", std::string(line.source)},
                   {"line", std::atoi(std::string(line.number).c_str())},
                   {"text", named(line.text)}}) +
           "\n";
  }

  const CommonOptions& options_;
  const TraceOptions& trace_;
};

Rings::iterator endOfProcess(Rings& rings, Rings::iterator first) {
  return std::find_if(first, rings.end(),
                      [&](const TraceRing& ring) { return ring.reader->pid() != first->reader->pid(); });
}

}  // namespace

int showTrace(const CommonOptions& options, const TraceOptions& trace) {
  if (!trace.vlan.empty() && !Bridging::VlanId::fromStrep(trace.vlan))
    return fail(kUsage, "--vlan " + Statedb::describe(trace.vlan) + " is not " + Bridging::VlanId::allowed());
  TraceOptions given = trace;
  if (!trace.ip.empty()) {
    const auto ip = Lanix::IpGenAddr::fromStrep(trace.ip);
    if (!ip) return fail(kUsage, "--ip " + Statedb::describe(trace.ip) + " is not an IPv4 or IPv6 address");
    given.ip = ip->toStrep();  // as it stands in the lines
  }
  const auto since = timeSince(trace.since);
  if (!since) return fail(kUsage, since.error());
  given.since = *since;
  TraceRings found(options);
  if (const int status = found.open()) return status;
  Rings& rings = found.rings;
  if (!rings.front().latest)
    fail(kDone, "the last agent-host here has no trace ring; what follows is of an earlier one");
  Printer printer(options, given);
  if (trace.follow) {
    rings.erase(endOfProcess(rings, rings.begin()), rings.end());
    return followRings(found, [&] {
      for (auto first = rings.begin(); first != rings.end();) {
        const auto last = endOfProcess(rings, first);
        if (!printer.printProcess(first, last)) return false;
        first = last;
      }
      return true;
    });
  }
  for (auto first = rings.begin(); first != rings.end();) {
    const auto last = endOfProcess(rings, first);
    const std::uint32_t pid = first->reader->pid();
    const bool runs = first->latest && (kill(static_cast<pid_t>(pid), 0) == 0 || errno == EPERM);
    const std::string heading =
        "== agent-host, process " + std::to_string(pid) + (runs ? ", running" : ", ended") + "\n";
    if (trace.all && !options.json && !print(heading)) return kRefused;
    if (!printer.printProcess(first, last)) return kRefused;
    first = trace.all ? last : rings.end();
  }
  if (printer.count == 0)
    return fail(kRefused, "no trace record is like that; `arpsup trace` without options shows all");
  return kDone;
}

}  // namespace Host
