#include <algorithm>
#include <cstdint>
#include <vector>

#include "Bridging/VlanId.h"
#include "Lanix/EthAddr.h"
#include "Lanix/IpGenAddr.h"
#include "Statedb/Json.h"
#include "host/Bindings.h"
#include "host/JsonText.h"
#include "host/arpsup/Commands.h"
#include "host/arpsup/Output.h"
#include "host/arpsup/Table.h"

namespace Host {

namespace {

using nlohmann::json;
using nlohmann::ordered_json;

// "7s", "3m 34s", "5h 2m", "41d 3h"; "" where the key is not there.
std::string span(const json& object, const char* key) {
  const auto value = object.find(key);
  if (value == object.end() || !value->is_number()) return {};
  const auto seconds = static_cast<std::int64_t>(std::clamp(value->get<double>(), 0.0, 1e12));
  const auto parts = [](std::int64_t all, std::int64_t unit, const char* large, const char* small) {
    return std::to_string(all / unit) + large + " " + std::to_string(all % unit) + small;
  };
  constexpr std::int64_t kMinute = 60, kHour = 60 * kMinute, kDay = 24 * kHour;
  if (seconds < kMinute) return std::to_string(seconds) + "s";
  if (seconds < kHour) return parts(seconds, kMinute, "m", "s");
  if (seconds < kDay) return parts(seconds / kMinute, kHour / kMinute, "h", "m");
  return parts(seconds / kHour, kDay / kHour, "d", "h");
}

template <class Value>
std::optional<std::string> strepOf(const std::optional<Value>& value) {
  return value ? std::optional(value->toStrep()) : std::nullopt;
}

int printBindingTable(const CommonOptions& options, const std::string& kind, const json& request,
                      const std::string& where) {
  const bool local = kind == "local";
  Table table(local ? std::vector<std::string>{"VLAN", "IP", "MAC", "VRF", "INTERFACE", "KERNEL NEIGHBOUR"}
                    : std::vector<std::string>{"VLAN", "IP", "MAC", "VRF", "MULTIHOMED", "ROUTER"});
  const auto client = Client::connect(options.runDirectory);
  if (!client) return fail(client.failure());
  if (const auto sent = (*client)->send(Statedb::jsonText(request)); !sent) return fail(sent.failure());
  const auto received = receiveBindings(**client, [&](const json& binding) {
    std::vector<std::string> row = {forPeople(binding, "vlan"), forPeople(binding, "ip"),
                                    forPeople(binding, "mac"), forPeople(binding, "vrf")};
    if (local) {
      row.push_back(forPeople(binding, "interface"));
      row.push_back(binding.value("dynamic", false) ? "dynamic" : "permanent, or not yet");
    } else {
      row.push_back(binding.value("localMultihomed", false) ? "here too" : "");
      row.push_back(binding.value("router", false) ? "router" : "");
    }
    return table.row(std::move(row));
  });
  if (!received) return fail(received.failure());
  if (table.count() == 0) return printed("no " + kind + " bindings" + where + "\n");
  return table.flush() ? kDone : kRefused;
}

}  // namespace

Mox::Result<> receiveBindings(Client& client, const TakeBinding& take) {
  std::string rest;
  bool readable = true;
  const auto line = [&](std::string_view text) {
    if (text == "[" || text == "]" || text.empty()) return true;
    if (text.back() == ',') text.remove_suffix(1);
    const std::optional<json> binding = Statedb::jsonOf(text);
    readable = binding && binding->is_object();
    return readable && take(*binding);
  };
  const auto received = client.receive([&](std::string_view piece) {
    rest += piece;
    std::size_t taken = 0;
    for (std::size_t end; (end = rest.find('\n', taken)) != std::string::npos; taken = end + 1) {
      if (!line(std::string_view(rest).substr(taken, end - taken))) return false;
    }
    rest.erase(0, taken);
    return true;
  });
  if (!readable)
    return Mox::Failure{"the answer to bindings cannot be read: is it an agent-host of this version?"};
  return received ? Mox::Result<>() : received.failure();
}

int showBindings(const CommonOptions& options, const std::string& kind, const BindingFilter& filter) {
  if (!kind.empty() && kind != "local" && kind != "remote")
    return fail(kUsage, "KIND " + Statedb::describe(kind) + " is not local or remote");
  json arguments = json::array();
  std::string where;
  const auto add = [&](const char* name, const std::string& given, const std::optional<std::string>& value,
                       const std::string& allowed) {
    if (given.empty()) return true;
    if (!value)
      fail(kUsage, std::string("--") + name + " " + Statedb::describe(given) + " is not " + allowed);
    if (value) arguments.push_back(std::string(name) + "=" + *value);
    where += (where.empty() ? " with " : ", ") + std::string(name) + " " + Tracelet::printable(given);
    return value.has_value();
  };
  if (!add("vlan", filter.vlan, strepOf(Bridging::VlanId::fromStrep(filter.vlan)),
           Bridging::VlanId::allowed()) ||
      !add("ip", filter.ip, strepOf(Lanix::IpGenAddr::fromStrep(filter.ip)), "an IPv4 or IPv6 address") ||
      !add("mac", filter.mac, strepOf(parseMac(filter.mac)), "a MAC address like 02:00:00:00:00:01") ||
      !add("vrf", filter.vrf, filter.vrf, "") || !add("interface", filter.interface, filter.interface, ""))
    return kUsage;
  const auto show = [&](const std::string& table) {
    json whole = {table};
    whole.insert(whole.end(), arguments.begin(), arguments.end());
    const json request = {{"cmd", "agent"}, {"command", "bindings"}, {"args", whole}};
    if (options.json) return requestStream(options, request, printAnswer);
    return printBindingTable(options, table, request, where);
  };
  if (!kind.empty()) return show(kind);
  if (options.json) return show("both");
  if (const int status = show("local")) return status;
  return print("\n") ? show("remote") : kRefused;
}

int findHost(const CommonOptions& options, const std::string& address) {
  std::optional<std::string> wanted = strepOf(parseMac(address));
  if (!wanted) wanted = strepOf(Lanix::IpGenAddr::fromStrep(address));
  if (!wanted)
    return fail(kUsage, "ADDRESS " + Statedb::describe(address) +
                            " is not a MAC address like 02:00:00:00:00:01 or an IP address like 10.0.0.9");
  const json request = {{"cmd", "agent"}, {"command", "find"}, {"args", {*wanted}}};
  const auto client = Client::connect(options.runDirectory);
  if (!client) return fail(client.failure());
  if (const auto sent = (*client)->send(Statedb::jsonText(request)); !sent) return fail(sent.failure());
  Table table({"VLAN", "IP", "MAC", "TABLE", "INTERFACE", "VRF", "SOURCE", "AGE", "LAST SEEN", "MOVES"});
  std::string list;
  const auto received = receiveBindings(**client, [&](const json& host) {
    if (options.json) list += (list.empty() ? "" : ",\n") + Statedb::jsonText(host);
    return table.row({forPeople(host, "vlan"), forPeople(host, "ip"), forPeople(host, "mac"),
                      forPeople(host, "table"), forPeople(host, "interface"), forPeople(host, "vrf"),
                      forPeople(host, "source"), span(host, "ageSeconds"), span(host, "lastSeenSeconds"),
                      forPeople(host, "moves")});
  });
  if (!received) return fail(received.failure());
  if (options.json && !print("[\n" + list + (list.empty() ? "]\n" : "\n]\n"))) return kRefused;
  if (table.count() == 0)
    return fail(kRefused, "nothing is known of " + *wanted +
                              "; `arpsup explain VLAN IP` says what happens to a request for an address");
  return options.json || table.flush() ? kDone : kRefused;
}

int explain(const CommonOptions& options, const std::string& vlan, const std::string& ip,
            const std::string& from) {
  const auto key = parseBindingKey(vlan, ip);
  if (!key) return fail(kUsage, key.error());
  json arguments = {vlan, ip};
  if (!from.empty()) {
    const auto station = parseBinding(vlan, ip, from);
    if (!station) return fail(kUsage, "--from: " + station.error());
    arguments.push_back(station->value.macAddress.toStrep());
  }
  ordered_json shown;
  if (const int status = requestObject(options, "explain", arguments, shown)) return status;
  if (options.json) return printed(textOf(shown) + "\n");
  const auto summary = shown.find("summary");
  const auto facts = shown.find("facts");
  if (summary == shown.end() || !summary->is_string() || facts == shown.end() || !facts->is_array())
    return unreadable("explain");
  const std::string action = forPeople(shown, "action");
  // What a reply would have said matters only where there is one.
  const std::string mac = action == "leave" ? "" : forPeople(shown, "mac");
  std::string lines = action + (mac.empty() ? "" : " with " + mac) + ": " + forPeople(*summary) + "\n";
  const std::size_t digits = std::to_string(facts->size()).size();
  std::size_t number = 0;
  for (const ordered_json& fact : *facts) {
    const std::string count = std::to_string(++number);
    const std::string told = forPeople(fact, "text");
    if (told.empty()) return unreadable("explain");
    lines += std::string(digits - count.size() + 2, ' ') + count + ". " + told + "\n";
  }
  const auto counter = shown.find("counter");
  if (counter != shown.end() && counter->is_object()) {
    lines += std::string(key->ipAddress.isIpv6() ? "Such a solicitation" : "Such a request") + " counts as " +
             forPeople(*counter, "name") + ".\n";
  }
  return printed(lines);
}

}  // namespace Host
