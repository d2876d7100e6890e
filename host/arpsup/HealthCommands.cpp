#include <ctime>

#include "Statedb/Json.h"
#include "host/arpsup/Commands.h"
#include "host/arpsup/Output.h"
#include "host/arpsup/Table.h"

namespace Host {

namespace {

using nlohmann::json;
using nlohmann::ordered_json;

const ordered_json& listAt(const ordered_json& object, const char* key) {
  static const ordered_json none = ordered_json::array();
  const auto value = object.is_object() ? object.find(key) : object.end();
  return value != object.end() && value->is_array() ? *value : none;
}

// {"health", "problems", "vlans"}
int requestHealth(const CommonOptions& options, ordered_json& health) {
  std::string text;
  if (const int status = request(options, {{"cmd", "health"}}, &text)) return status;
  health = ordered_json::parse(text, nullptr, false);
  return forPeople(health, "health").empty() ? unreadable("health") : kDone;
}

std::string verdictText(const std::string& verdict) {
  return coloured(verdict == "good"       ? Colour::green
                  : verdict == "degraded" ? Colour::yellow
                                          : Colour::red,
                  verdict);
}

std::string timeText(const ordered_json& problem) {
  const std::time_t since = problem.value("since", std::time_t{0});
  std::tm local{};
  char text[40] = "";
  if (localtime_r(&since, &local)) std::strftime(text, sizeof text, "%F %T", &local);
  return text;
}

// A line a problem.
std::string problemLines(const ordered_json& health) {
  std::string lines;
  for (const ordered_json& problem : listAt(health, "problems")) {
    if (!problem.is_object()) continue;
    const std::string advice = forPeople(problem, "advice");
    lines += coloured(Colour::red, forPeople(problem, "plugin") + ": " + forPeople(problem, "subject")) +
             ": " + forPeople(problem, "problem") + " (since " + timeText(problem) + ")" +
             (advice.empty() ? "" : "; " + advice) + "\n";
  }
  return lines;
}

std::string listText(const ordered_json& names) {
  constexpr std::size_t kShown = 6;
  std::string text;
  for (std::size_t i = 0; i < names.size() && i < kShown; ++i)
    text += (i == 0 ? "" : " ") + forPeople(names[i]);
  if (names.size() > kShown) text += " and " + std::to_string(names.size() - kShown) + " more";
  return text;
}

// "core10, core11 (missing)"
std::string tunnelPorts(const ordered_json& vlan) {
  ordered_json ports = ordered_json::array();
  const ordered_json& missing = listAt(vlan, "missing");
  for (const ordered_json& port : listAt(vlan, "tunnelPorts"))
    ports.push_back(forPeople(port) +
                    (std::find(missing.begin(), missing.end(), port) == missing.end() ? "" : " (missing)"));
  return listText(ports);
}

// "kernel (protocols 11, 186), 2 IPv4 and 0 IPv6 addresses, 0 refused; read 3 s ago"
std::string feedText(const ordered_json& feed) {
  const auto shown = [&](const char* key) { return textOf(feed.value(key, ordered_json())); };
  std::string text = forPeople(feed, "source");
  if (text == "none") return text;
  text += " (protocols " + forPeople(listAt(feed, "protocols")) + "), " + shown("ipv4") + " IPv4 and " +
          shown("ipv6") + " IPv6 addresses, " + shown("refused") + " refused; ";
  if (!feed.value("ready", false)) return text + "not read yet";
  text += "read " + shown("readingAgeSeconds") + " s ago";
  return shown("overruns") == "0" ? text : text + ", " + shown("overruns") + " overruns";
}

bool printVlans(const ordered_json& vlans) {
  Table table({"VLAN", "STATE", "BRIDGE", "ACCESS PORTS", "TUNNEL PORTS", "VRF", "LOCAL", "REMOTE", "WHY"});
  for (const ordered_json& vlan : vlans) {
    if (!vlan.is_object()) continue;
    const ordered_json counts = vlan.value("bindings", ordered_json::object());
    const std::vector<std::string> row = {textOf(vlan.value("vlan", ordered_json())),
                                          forPeople(vlan, "state"),
                                          forPeople(vlan, "bridge"),
                                          listText(listAt(vlan, "accessPorts")),
                                          tunnelPorts(vlan),
                                          forPeople(vlan, "vrf"),
                                          textOf(counts.value("local", ordered_json(0))),
                                          textOf(counts.value("remote", ordered_json(0))),
                                          forPeople(vlan, "reason")};
    if (!table.row(row)) return false;
  }
  return table.count() == 0 || (print("\n") && table.flush());
}

}  // namespace

int showHealth(const CommonOptions& options) {
  constexpr int kGood = 0, kDegraded = 1, kFailed = 2;
  ordered_json health;
  if (requestHealth(options, health) != kDone) return kFailed;
  const std::string verdict = forPeople(health, "health");
  if (!print(options.json ? textOf(health) + "\n" : verdictText(verdict) + "\n" + problemLines(health)))
    return kFailed;
  return verdict == "good" ? kGood : verdict == "degraded" ? kDegraded : kFailed;
}

int showStatus(const CommonOptions& options) {
  ordered_json shown;
  if (const int status = requestHealth(options, shown)) return status;
  ordered_json agent;
  if (const int status = requestObject(options, "status", json::array(), agent)) return status;
  ordered_json feed;
  if (const int status = requestObject(options, "feed", json::array(), feed)) return status;
  if (!feed.empty()) agent["feed"] = options.json ? feed : ordered_json(feedText(feed));
  const ordered_json counts = agent.value("vlanBindings", ordered_json::object());
  agent.erase("vlanBindings");
  if (shown["vlans"].is_array()) {
    for (ordered_json& vlan : shown["vlans"]) {
      const std::string id = vlan.is_object() ? textOf(vlan.value("vlan", ordered_json())) : "";
      vlan["bindings"] = counts.value(id, ordered_json{{"local", 0}, {"remote", 0}});
    }
  }
  if (options.json) {
    shown.update(agent);
    return printed(textOf(shown) + "\n");
  }
  std::size_t width = std::string_view("health").size();
  for (const auto& [key, value] : agent.items()) width = std::max(width, Tracelet::printable(key).size());
  const auto line = [&](const std::string& key, const std::string& value) {
    return key + ":" + std::string(width - key.size() + 1, ' ') + value + "\n";
  };
  std::string lines = line("health", verdictText(forPeople(shown, "health"))) + problemLines(shown);
  for (const auto& [key, value] : agent.items()) lines += line(Tracelet::printable(key), forPeople(value));
  return print(lines) && printVlans(listAt(shown, "vlans")) ? kDone : kRefused;
}

}  // namespace Host
