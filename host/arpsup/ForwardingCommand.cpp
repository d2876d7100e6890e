#include "host/arpsup/Commands.h"
#include "host/arpsup/Output.h"
#include "host/arpsup/Table.h"

namespace Host {

namespace {

using nlohmann::json;
using nlohmann::ordered_json;

// The members of each object of a list, a row each.
bool printList(const ordered_json& list, const std::vector<std::string>& heading,
               const std::vector<const char*>& keys) {
  Table table(heading);
  for (const ordered_json& element : list) {
    if (!element.is_object()) continue;
    std::vector<std::string> row;
    for (const char* key : keys) row.push_back(forPeople(element, key));
    if (!table.row(std::move(row))) return false;
  }
  return table.count() == 0 || (print("\n") && table.flush());
}

}  // namespace

int showForwarding(const CommonOptions& options) {
  ordered_json shown;
  if (const int status = requestObject(options, "forwarding", json::array(), shown)) return status;
  if (options.json) return printed(textOf(shown) + "\n");
  const ordered_json counters = shown.value("counters", ordered_json());
  if (!counters.is_object()) return unreadable("forwarding");
  const std::string age = forPeople(shown, "heartbeatAgeMs");
  const std::string open = shown.value("failingOpen", false) ? "everything is flooded as without suppression"
                                                             : "no request that is to be trapped is flooded";
  if (!print("failing open:  " + std::string(shown.value("failingOpen", false) ? "yes: " : "no: ") + open +
             "\nlast beat:     " + (age.empty() ? "none" : age + " ms ago") + "\n"))
    return kRefused;
  const ordered_json answers = shown.value("answers", ordered_json::object());
  const ordered_json asked = answers.value("shown", ordered_json::object());
  const ordered_json nd = answers.value("nd", ordered_json::object());
  if (!print("answers:       " + forPeople(answers, "held") + " held, " + forPeople(answers, "refused") +
             " refused for want of room, " + forPeople(answers, "hits") + " requests answered\n" +
             "of IPv6:       " + forPeople(nd, "hits") + " solicitations answered, " +
             forPeople(nd, "passed") + " passed\n" + "to the agent:  " + forPeople(asked, "noAnswer") +
             " without an answer, " + forPeople(asked, "sender") + " of senders not seen lately, " +
             forPeople(asked, "other") + " for other reasons\n"))
    return kRefused;
  const ordered_json ports = shown.value("ports", ordered_json::array());
  const ordered_json pairs = shown.value("pairs", ordered_json::array());
  if (!printList(ports, {"PORT", "VLAN", "ROLE", "TRAPPED", "POLICED", "ANSWERED", "DROPPED AT TUNNEL"},
                 {"port", "vlan", "role", "trapped", "policed", "answered", "droppedAtTunnel"}) ||
      !printList(pairs, {"PAIR", "PASSES"}, {"device", "passes"}))
    return kRefused;
  ordered_json counted = ordered_json::array();
  for (const auto& [name, count] : counters.items()) counted.push_back({{"name", name}, {"count", count}});
  return printList(counted, {"FRAMES", "COUNT"}, {"name", "count"}) ? kDone : kRefused;
}

}  // namespace Host
