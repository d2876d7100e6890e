#include "host/Metrics.h"

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <initializer_list>
#include <nlohmann/json.hpp>

#include "Arp/Table.h"
#include "Suppression/Counter.h"
#include "Switch/Forwarding.h"
#include "Switch/Health.h"
#include "Switch/Problems.h"
#include "Tracelet/Text.h"
#include "host/AgentAnswer.h"
#include "host/StatePaths.h"
#include "host/Version.h"

namespace Host {

namespace {

using nlohmann::json;

std::string number(double value) {
  char text[40];
  std::snprintf(text, sizeof text, "%.15g", value);
  return text;
}

// A label's value, which may come from a plug-in. Who reads metrics takes nothing that is not UTF-8.
std::string quoted(const std::string& value) {
  std::string text = "\"";
  for (const char c : Tracelet::printable(value)) {
    if (c == '"' || c == '\\') text += '\\';
    text += c;
  }
  return text + '"';
}

// The samples of one metric after its two lines of description.
class Family {
 public:
  Family(std::string& text, const char* name, const char* type, const char* help)
      : text_(text), name_(std::string("arp_suppression_") + name) {
    text_ += "# HELP " + name_ + " " + help + "\n# TYPE " + name_ + " " + type + "\n";
  }
  Family& add(double value) { return sample("", "", value); }
  Family& add(const char* label, const std::string& of, double value) {
    return sample("", std::string("{") + label + "=" + quoted(of) + "}", value);
  }
  Family& sample(const char* suffix, const std::string& labels, double value) {
    text_ += name_ + suffix + labels + " " + number(value) + "\n";
    return *this;
  }

 private:
  std::string& text_;
  const std::string name_;
};

// The answer of whichever plug-in has such a command, null when none has.
json answerOf(const MetricsSources& sources, const char* command, const std::vector<Mox::String>& arguments) {
  for (const Mox::Ptr<Plugin::AgentBase>& agent : sources.agents) {
    const auto callback = agent->agentCommand("", command);
    if (!callback) continue;
    const auto text = smallAnswer(*callback, arguments);
    return text ? json::parse(*text, nullptr, false) : json();
  }
  return {};
}

double numberAt(const json& object, const char* key) {
  const auto value = object.find(key);
  if (value == object.end()) return 0;
  return value->is_number() ? value->get<double>() : value->is_boolean() && value->get<bool>() ? 1 : 0;
}

void addCounters(const MetricsSources& sources, std::string& text) {
  const auto counters =
      sources.state.tables()->entityOf<ArpSuppression::ArpSuppressionCounterStatus>("arpSuppression/counter");
  if (!counters) return;
  Family family(text, "agent_total", "counter",
                "What the agent did with ARP messages and bindings, by counter.");
  for (std::uint32_t id = 0; id < ArpSuppression::kCounters; ++id) {
    const std::string name = ArpSuppression::kCounterNames[id];
    if (!name.starts_with("reserved"))
      family.add("counter", name, static_cast<double>(counters->counter(id)));
  }
}

void addAgent(const MetricsSources& sources, std::string& text) {
  const json status = answerOf(sources, "status", {});
  const auto kernel = sources.state.tables()->entityOf<Arp::Table::Status>("arp/status");
  Family bindings(
      text, "bindings", "gauge",
      "Known addresses: of hosts here, behind other switches, and neighbours of the kernel on VLANs.");
  if (status.is_object())
    bindings.add("table", "local", numberAt(status, "localBindings"))
        .add("table", "remote", numberAt(status, "remoteBindings"));
  if (kernel) bindings.add("table", "kernel", static_cast<double>(kernel->arpEntrys()));
  if (!status.is_object()) return;
  Family(text, "runnable", "gauge", "Whether suppression runs.").add(numberAt(status, "runnable"));
  Family(text, "reinject_queue_frames", "gauge", "Requests that wait to be flooded.")
      .add(numberAt(status, "reinjectQueue"));
  Family(text, "uptime_seconds", "gauge", "How long the agent has run.")
      .add(numberAt(status, "uptimeSeconds"));
}

void addFeed(const MetricsSources& sources, std::string& text) {
  const json feed = answerOf(sources, "feed", {});
  if (!feed.is_object() || feed.value("source", "") != "kernel") return;
  Family(text, "feed_ready", "gauge", "Whether the neighbours of the routing daemon were read once.")
      .add(numberAt(feed, "ready"));
  Family(text, "feed_entries", "gauge", "Addresses that the feed has for the VLANs, by family.")
      .add("family", "ipv4", numberAt(feed, "ipv4"))
      .add("family", "ipv6", numberAt(feed, "ipv6"));
  Family(text, "feed_refused_entries", "gauge", "Addresses of the feed that no other switch can have.")
      .add(numberAt(feed, "refused"));
  Family(text, "feed_readings_total", "counter", "How often all neighbours were read, or should have been.")
      .add(numberAt(feed, "readings"));
  Family(text, "feed_overruns_total", "counter", "How often the kernel dropped changes of neighbours.")
      .add(numberAt(feed, "overruns"));
  if (feed.value("readingAgeSeconds", json()).is_number())
    Family(text, "feed_reading_age_seconds", "gauge", "Since all neighbours were last read.")
        .add(numberAt(feed, "readingAgeSeconds"));
}

void addHealth(const MetricsSources& sources, std::string& text) {
  const auto health = sources.state.tree()->entityOf<Switch::Health>(Switch::kHealthPath);
  const auto problems = sources.state.tree()->entityOf<Switch::Problems>(Switch::kProblemsPath);
  if (!health || !problems) return;
  Family verdicts(text, "health", "gauge", "The verdict: 1 for the one that holds.");
  for (const char* verdict : moxEnumNames(Switch::Verdict()))
    verdicts.add("verdict", verdict, Mox::toStrep(health->health()) == verdict ? 1 : 0);
  Family(text, "problems", "gauge", "What arpsup health lists.")
      .add(health->starting() ? 0 : static_cast<double>(problems->problems()));
  std::array<double, moxEnumNames(Switch::VlanState()).size()> states{};
  for (const auto& [vlanId, vlan] : health->vlanCollection())
    ++states[static_cast<std::size_t>(vlan->state())];
  Family vlans(text, "vlans", "gauge", "Configured VLANs, by state.");
  for (std::size_t state = 0; state < states.size(); ++state)
    vlans.add("state", moxEnumNames(Switch::VlanState())[state], states[state]);
}

// Of a data plane that answers.
void addAnswers(const json& answers, std::string& text) {
  if (!answers.is_object()) return;
  Family(text, "answers", "gauge", "Answers in the data plane, and those that it had no room for.")
      .add("state", "held", numberAt(answers, "held"))
      .add("state", "refused", numberAt(answers, "refused"));
  Family(text, "answers_given_total", "counter", "Requests that the data plane answered, solicitations too.")
      .add(numberAt(answers, "hits"));
  if (const json nd = answers.value("nd", json()); nd.is_object())
    Family(text, "solicitations_total", "counter",
           "Neighbour solicitations to a group, by what became of them.")
        .add("outcome", "answered", numberAt(nd, "hits"))
        .add("outcome", "passed", numberAt(nd, "passed"));
  const json shown = answers.value("shown", json());
  if (!shown.is_object()) return;
  Family reasons(text, "requests_shown_total", "counter", "Requests that went to the agent, by reason.");
  for (const auto& [reason, count] : shown.items())
    if (count.is_number()) reasons.add("reason", reason, count.get<double>());
}

void addForwarding(const MetricsSources& sources, std::string& text) {
  const json shown = answerOf(sources, "forwarding", {"counters"});
  if (!shown.is_object()) return;
  Family(text, "failing_open", "gauge", "Whether everything is flooded as without suppression.")
      .add(numberAt(shown, "failingOpen"));
  if (const auto age = shown.find("heartbeatAgeMs"); age != shown.end() && age->is_number())
    Family(text, "heartbeat_age_seconds", "gauge", "Since the last sign of life that the programs had.")
        .add(age->get<double>() / 1e3);
  const auto counters = shown.find("counters");
  if (counters == shown.end() || !counters->is_object()) return;
  Family frames(
      text, "forwarding_frames_total", "counter",
      "Frames by what the forwarding programs did with them; policed: refused by a port's policer.");
  for (const auto& [name, count] : counters->items())
    if (count.is_number()) frames.add("action", name, count.get<double>());
  addAnswers(shown.value("answers", json()), text);
}

void addProcess(const MetricsSources& sources, std::string& text) {
  Family events(text, "events_total", "counter", "What arpsup events lists, but problems, by kind.");
  for (std::size_t kind = 0; kind < Switch::kEventKinds; ++kind) {
    if (static_cast<Switch::EventKind>(kind) < Switch::EventKind::problem)
      events.add("event", moxEnumNames(Switch::EventKind())[kind],
                 static_cast<double>(sources.events.count(static_cast<Switch::EventKind>(kind))));
  }
  Family turns(text, "loop_turn_seconds", "histogram",
               "Turns of the event loop, by how long they took; nothing else is served meanwhile.");
  std::uint64_t until = 0;
  for (std::size_t i = 0; i < sources.turns.counts().size(); ++i) {
    until += sources.turns.counts()[i];
    const std::string bound = i < TurnTimes::kBounds.size() ? number(TurnTimes::kBounds[i]) : "+Inf";
    turns.sample("_bucket", "{le=\"" + bound + "\"}", static_cast<double>(until));
  }
  turns.sample("_sum", "", sources.turns.seconds()).sample("_count", "", static_cast<double>(until));
  std::uint64_t pages = 0;
  std::uint64_t resident = 0;
  if (std::ifstream("/proc/self/statm") >> pages >> resident)
    Family(text, "resident_memory_bytes", "gauge", "Memory of the agent-host, shared memory included.")
        .add(static_cast<double>(resident) * static_cast<double>(sysconf(_SC_PAGESIZE)));
  const std::string version = versionOf("");
  Family(text, "build_info", "gauge", "The version of the agent-host.")
      .add("version", version.substr(version.find_first_not_of(' ')), 1);
}

}  // namespace

TurnTimes::TurnTimes(Orb::EventLoop& loop)
    : turnEnds_(loop.endOfTurn([this, &loop] {
        const double seconds = loop.clock().now() - loop.now();
        seconds_ += seconds;
        ++counts_[static_cast<std::size_t>(std::ranges::lower_bound(kBounds, seconds) - kBounds.begin())];
      })) {}

std::string metricsText(const MetricsSources& sources) {
  std::string text;
  for (const auto add : {addHealth, addAgent, addFeed, addForwarding, addCounters, addProcess})
    add(sources, text);
  return text;
}

}  // namespace Host
