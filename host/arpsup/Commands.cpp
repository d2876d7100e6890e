#include "host/arpsup/Commands.h"

#include <poll.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <optional>

#include "Statedb/Json.h"
#include "Suppression/Counter.h"
#include "host/JsonText.h"
#include "host/Protocol.h"
#include "host/arpsup/CounterTexts.h"
#include "host/arpsup/Output.h"
#include "host/arpsup/PrettyJson.h"

namespace Host {

namespace {

using nlohmann::json;
using nlohmann::ordered_json;
using Counts = std::array<std::uint64_t, ArpSuppression::kCounters>;

constexpr const char* kCounterPath = "arpSuppression/counter";

int readCounters(const CommonOptions& options, Counts& counts) {
  std::string text;
  if (const int status = request(options, {{"cmd", "show"}, {"path", kCounterPath}}, &text)) return status;
  const json table = json::parse(text, nullptr, false);
  const auto values = table.is_object() ? table.find("counter") : table.end();
  if (!table.is_object() || values == table.end() || !values->is_object()) return unreadable("counters");
  if (values->empty())
    return fail(kRefused,
                "there are no counters: the plug-in ArpSuppression is not loaded; put it into \"agents\"");
  for (std::size_t id = 0; id < counts.size(); ++id) {
    const auto value = values->find(std::to_string(id));
    counts[id] = value != values->end() && value->is_number_unsigned() ? value->get<std::uint64_t>() : 0;
  }
  return kDone;
}

std::string textOfCounter(std::size_t id) { return id < kCounterTexts.size() ? kCounterTexts[id] : ""; }

std::string countersJson(const Counts& counts, bool nonzero, bool describe) {
  ordered_json shown = ordered_json::object();
  for (std::size_t id = 0; id < counts.size(); ++id) {
    if (nonzero && counts[id] == 0) continue;
    shown[std::to_string(id)] = {{"name", ArpSuppression::kCounterNames[id]}, {"value", counts[id]}};
    if (describe) shown[std::to_string(id)]["description"] = textOfCounter(id);
  }
  return textOf(shown) + "\n";
}

// With what came since `before`, and how many a second that is.
std::string counterLines(const Counts& counts, bool nonzero, bool describe,
                         const std::optional<Counts>& before, double seconds) {
  std::string lines;
  for (std::size_t id = 0; id < counts.size(); ++id) {
    if (nonzero && counts[id] == 0) continue;
    char line[160];
    int length = std::snprintf(line, sizeof line, "%3zu  %-36s %12llu", id, ArpSuppression::kCounterNames[id],
                               static_cast<unsigned long long>(counts[id]));
    lines.append(line, static_cast<std::size_t>(length));
    if (before && counts[id] > (*before)[id]) {
      const std::uint64_t more = counts[id] - (*before)[id];
      length = std::snprintf(line, sizeof line, "  +%llu, %.4g a second",
                             static_cast<unsigned long long>(more), static_cast<double>(more) / seconds);
      lines.append(line, static_cast<std::size_t>(length));
    } else if (before && counts[id] < (*before)[id]) {
      lines += "  counted anew";
    }
    if (describe) lines += "  " + textOfCounter(id);
    lines += '\n';
  }
  return lines.empty() ? "every counter is zero\n" : lines;
}

}  // namespace

int showCounters(const CommonOptions& options, bool nonzero, bool describe, double watchSeconds) {
  using Clock = std::chrono::steady_clock;
  if (watchSeconds > 0) endsQuietly();
  std::optional<Counts> before;
  Clock::time_point then;
  while (true) {
    Counts counts{};
    const Clock::time_point now = Clock::now();
    if (const int status = readCounters(options, counts)) return status;
    const double seconds = std::chrono::duration<double>(now - then).count();
    if (!print(options.json ? countersJson(counts, nonzero, describe)
                            : counterLines(counts, nonzero, describe, before, seconds)))
      return kRefused;
    if (watchSeconds <= 0) return kDone;
    before = counts;
    then = now;
    poll(nullptr, 0, static_cast<int>(watchSeconds * 1e3));
    if (!options.json && !print("\n")) return kRefused;
  }
}

int showState(const CommonOptions& options, const std::string& path) {
  if (path.empty()) {
    json answer;
    if (const int status = request(options, {{"cmd", "paths"}}, nullptr, &answer)) return status;
    const json paths = answer.value("paths", json::array());
    std::string lines;
    for (const json& element : paths) lines += forPeople(element) + "\n";
    return printed(options.json ? Statedb::jsonText(paths) + "\n" : lines);
  }
  // A table may be large: JSON is passed on as it comes.
  PrettyJson pretty;
  const int status = requestStream(options, {{"cmd", "show"}, {"path", path}}, [&](std::string_view piece) {
    return printAnswer(options.json ? std::string(piece) : pretty.next(piece));
  });
  return status == kDone ? printed("\n") : status;
}

int monitor(const CommonOptions& options, const std::vector<std::string>& paths) {
  endsQuietly();
  const auto client = Client::connect(options.runDirectory);
  if (!client) return fail(client.failure());
  (*client)->waitForEver();
  const auto sent = (*client)->send(Statedb::jsonText({{"cmd", "monitor"}, {"paths", paths}}));
  return fail(sent ? (*client)->receive(printAnswer).failure() : sent.failure());
}

int showTechSupport(const CommonOptions& options) {
  const json request = {{"cmd", "agent"}, {"command", "showTechSupport"}};
  if (!options.json) return requestStream(options, request, printAnswer);
  bool begun = false;
  const int status = requestStream(options, request, [&](std::string_view piece) {
    const std::string quoted = Statedb::jsonText(std::string(piece));
    return print((std::exchange(begun, true) ? "" : "{\"techSupport\":\"") +
                 quoted.substr(1, quoted.size() - 2));
  });
  return status == kDone ? printed(begun ? "\"}\n" : "{\"techSupport\":\"\"}\n") : status;
}

int setState(const CommonOptions& options, const std::string& path, const std::string& value) {
  const Mox::Result<json> content = parseJson(value, Comments::refused);
  if (!content)
    return fail(kUsage, "the value is not JSON: " + content.error() +
                            "; quote it for the shell, as in '{\"mplsConfigured\": true}'");
  return request(options, {{"cmd", "set"}, {"path", path}, {"value", *content}}, nullptr);
}

int applyFile(const CommonOptions& options, const std::string& file) {
  constexpr std::size_t kMaxFileBytes = 8 * kMaxWriterLine;  // with comments and indentation
  const Mox::Result<std::string> text = readFile(file, kMaxFileBytes, true);
  if (!text) return fail(kRefused, text.error());
  const Mox::Result<json> state = parseJson(*text, Comments::allowed);
  if (!state) return fail(kRefused, file + ": " + state.error());
  if (!state->is_object())
    return fail(kRefused, file + ": it is not an object by path, like {\"evpn/status\": {...}}");
  const json whole = {{"cmd", "apply"}, {"state", *state}};
  if (Statedb::jsonText(whole).size() > kMaxWriterLine) {
    return fail(kRefused, file +
                              ": more than 1 MiB of state cannot be applied as one; split it (remote "
                              "bindings: arpsup remote load)");
  }
  return request(options, whole, nullptr);
}

int reload(const CommonOptions& options) {
  return requestStream(options, {{"cmd", "reload"}}, [](std::string_view text) {
    const std::string problems = Tracelet::printableLines(text);
    return std::fwrite(problems.data(), 1, problems.size(), stderr) == problems.size();
  });
}

}  // namespace Host
