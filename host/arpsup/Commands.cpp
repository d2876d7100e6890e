#include "host/arpsup/Commands.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "Statedb/Json.h"
#include "Suppression/Counter.h"
#include "host/JsonText.h"
#include "host/Protocol.h"
#include "host/arpsup/Client.h"

namespace Host {

namespace {

using nlohmann::json;
using nlohmann::ordered_json;

constexpr const char* kCounterPath = "arpSuppression/counter";

// All of it; a reader that has gone (a pipe into `head`) ends the command quietly.
bool print(std::string_view text) {
  return std::fwrite(text.data(), 1, text.size(), stdout) == text.size() && std::fflush(stdout) == 0;
}

std::string textOf(const ordered_json& value, int indent = -1) {
  return value.dump(indent, ' ', false, ordered_json::error_handler_t::replace);
}

int failWith(const Failure& failure) { return fail(failure.status, failure.text); }

// One request on a connection of its own; `text` becomes the content of the answer.
int request(const CommonOptions& options, const json& request, std::string* text, json* answer = nullptr) {
  Failure failure;
  const auto client = Client::connect(options.runDirectory, failure);
  if (!client) return failWith(failure);
  std::optional<json> got = client->ask(request, text, failure);
  if (!got) return failWith(failure);
  if (answer) *answer = std::move(*got);
  return kDone;
}

std::string forPeople(const ordered_json& value) {
  if (value.is_string()) return value.get<std::string>();
  if (!value.is_array()) return textOf(value);
  std::string list;
  for (const auto& element : value) list += (list.empty() ? "" : ", ") + forPeople(element);
  return list.empty() ? "none" : list;
}

int unreadable(const char* what) {
  return fail(kRefused,
              std::string("the answer to ") + what + " cannot be read: is it an agent-host of this version?");
}

int countersOnce(const CommonOptions& options, bool nonzero) {
  std::string text;
  if (const int status = request(options, {{"cmd", "show"}, {"path", kCounterPath}}, &text)) return status;
  const ordered_json table = ordered_json::parse(text, nullptr, false);
  const auto values = table.is_object() ? table.find("counter") : table.end();
  if (!table.is_object() || values == table.end() || !values->is_object()) return unreadable("counters");
  if (values->empty())
    return fail(kRefused,
                "there are no counters: the plug-in ArpSuppression is not loaded; put it into \"agents\"");
  ordered_json shown = ordered_json::object();
  std::string lines;
  for (std::uint32_t id = 0; id < ArpSuppression::kCounters; ++id) {
    const std::string key = std::to_string(id);
    const auto value = values->find(key);
    const std::uint64_t count =
        value != values->end() && value->is_number_unsigned() ? value->get<std::uint64_t>() : 0;
    if (nonzero && count == 0) continue;
    shown[key] = {{"name", ArpSuppression::kCounterNames[id]}, {"value", count}};
    char line[100];
    std::snprintf(line, sizeof line, "%3u  %-36s %12llu\n", id, ArpSuppression::kCounterNames[id],
                  static_cast<unsigned long long>(count));
    lines += line;
  }
  if (options.json) lines = textOf(shown) + "\n";
  return print(lines) ? kDone : kRefused;
}

}  // namespace

int fail(int status, const std::string& text) {
  std::fprintf(stderr, "arpsup: %s\n", text.c_str());
  return status;
}

int showStatus(const CommonOptions& options) {
  std::string text;
  if (const int status = request(options, {{"cmd", "agent"}, {"command", "status"}}, &text)) return status;
  const ordered_json shown = ordered_json::parse(text, nullptr, false);
  if (!shown.is_object()) return unreadable("status");
  if (options.json) return print(textOf(shown) + "\n") ? kDone : kRefused;
  std::size_t width = 0;
  for (const auto& [key, value] : shown.items()) width = std::max(width, key.size());
  std::string lines;
  for (const auto& [key, value] : shown.items()) {
    lines += key + ":" + std::string(width - key.size() + 1, ' ') + forPeople(value) + "\n";
  }
  return print(lines) ? kDone : kRefused;
}

int showCounters(const CommonOptions& options, bool nonzero, double watchSeconds) {
  while (true) {
    const int status = countersOnce(options, nonzero);
    if (status != kDone || watchSeconds <= 0) return status;
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
    for (const json& element : paths) lines += element.is_string() ? element.get<std::string>() + "\n" : "";
    return print(options.json ? Statedb::jsonText(paths) + "\n" : lines) ? kDone : kRefused;
  }
  Failure failure;
  const auto client = Client::connect(options.runDirectory, failure);
  if (!client || !client->send(Statedb::jsonText({{"cmd", "show"}, {"path", path}}), failure))
    return failWith(failure);
  // A table may be large: JSON is passed on as it comes.
  std::string text;
  bool good = true;
  const auto answer = client->receive(
      [&](std::string_view piece) {
        if (options.json) {
          good = good && print(piece);
        } else {
          text += piece;
        }
      },
      failure);
  if (!answer) return failWith(failure);
  if (options.json) return good && print("\n") ? kDone : kRefused;
  const ordered_json content = ordered_json::parse(text, nullptr, false);
  if (content.is_discarded()) return unreadable("show");
  return print(textOf(content, 2) + "\n") ? kDone : kRefused;
}

int showTechSupport(const CommonOptions& options) {
  std::string text;
  if (const int status = request(options, {{"cmd", "agent"}, {"command", "showTechSupport"}}, &text))
    return status;
  if (options.json) text = Statedb::jsonText({{"techSupport", text}}) + "\n";
  return print(text) ? kDone : kRefused;
}

int setState(const CommonOptions& options, const std::string& path, const std::string& value) {
  std::string error;
  const std::optional<json> content = parseJson(value, Comments::refused, error);
  if (!content)
    return fail(kUsage, "the value is not JSON: " + error +
                            "; quote it for the shell, as in '{\"mplsConfigured\": true}'");
  return request(options, {{"cmd", "set"}, {"path", path}, {"value", *content}}, nullptr);
}

int applyFile(const CommonOptions& options, const std::string& file) {
  constexpr std::size_t kMaxFileBytes = 8 * kMaxWriterLine;  // with comments and indentation
  std::string error;
  const std::optional<std::string> text = readFile(file, kMaxFileBytes, true, error);
  if (!text) return fail(kRefused, error);
  const std::optional<json> state = parseJson(*text, Comments::allowed, error);
  if (!state) return fail(kRefused, file + ": " + error);
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

}  // namespace Host
