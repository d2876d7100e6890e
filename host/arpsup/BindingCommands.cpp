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

template <class Json>
std::string text(const Json& object, const char* key) {
  const auto value = object.find(key);
  if (value == object.end() || value->is_null()) return {};
  return value->is_string() ? value->template get<std::string>() : textOf(*value);
}

// Whole lines of text that comes in pieces.
class Lines {
 public:
  using Take = std::function<bool(std::string_view line)>;
  bool add(std::string_view piece, const Take& take) {
    rest_ += piece;
    std::size_t taken = 0;
    for (std::size_t end; (end = rest_.find('\n', taken)) != std::string::npos; taken = end + 1) {
      if (!take(std::string_view(rest_).substr(taken, end - taken))) return false;
    }
    rest_.erase(0, taken);
    return true;
  }

 private:
  std::string rest_;
};

int printBindingTable(const CommonOptions& options, const std::string& kind, const json& request,
                      const std::string& where) {
  const bool local = kind == "local";
  Table table(local ? std::vector<std::string>{"VLAN", "IP", "MAC", "VRF", "INTERFACE", "LEARNED"}
                    : std::vector<std::string>{"VLAN", "IP", "MAC", "VRF", "MULTIHOMED"});
  Lines lines;
  bool readable = true;
  const int status = requestStream(options, request, [&](std::string_view piece) {
    return lines.add(piece, [&](std::string_view line) {
      if (line == "[" || line == "]" || line.empty()) return true;
      if (line.back() == ',') line.remove_suffix(1);
      const std::optional<json> binding = Statedb::jsonOf(line);
      readable = binding && binding->is_object();
      if (!readable) return false;
      std::vector<std::string> row = {text(*binding, "vlan"), text(*binding, "ip"), text(*binding, "mac"),
                                      text(*binding, "vrf")};
      if (local) {
        row.push_back(text(*binding, "interface"));
        row.push_back(binding->value("dynamic", false) ? "dynamic" : "static");
      } else {
        row.push_back(binding->value("localMultihomed", false) ? "here too" : "");
      }
      return table.row(std::move(row));
    });
  });
  if (!readable) return unreadable("bindings");
  if (status != kDone) return status;
  if (table.count() == 0) return printed("no " + kind + " bindings" + where + "\n");
  return table.flush() ? kDone : kRefused;
}

}  // namespace

int showBindings(const CommonOptions& options, const std::string& kind, const std::string& vlan) {
  if (kind != "local" && kind != "remote")
    return fail(kUsage, "KIND " + Statedb::describe(kind) + " is not local or remote");
  json arguments = {kind};
  if (!vlan.empty()) {
    if (!Bridging::VlanId::fromStrep(vlan))
      return fail(kUsage, "--vlan " + Statedb::describe(vlan) + " is not " + Bridging::VlanId::allowed());
    arguments.push_back(vlan);
  }
  const json request = {{"cmd", "agent"}, {"command", "bindings"}, {"args", arguments}};
  if (options.json) return requestStream(options, request, print);
  return printBindingTable(options, kind, request, vlan.empty() ? "" : " on VLAN " + vlan);
}

int explain(const CommonOptions& options, const std::string& vlan, const std::string& ip,
            const std::string& from) {
  const auto key = parseBindingKey(vlan, ip);
  // ARP asks for no other addresses.
  if (Bridging::VlanId::fromStrep(vlan) && !(key && key->ipAddress.isIpv4()))
    return fail(kUsage, "IP " + Statedb::describe(ip) + " is not the IPv4 address of one host");
  if (!key) return fail(kUsage, key.error());
  json arguments = {vlan, ip};
  if (!from.empty()) {
    if (const auto station = parseBinding(vlan, ip, from, false); !station)
      return fail(kUsage, "--from: " + station.error());
    arguments.push_back(from);
  }
  ordered_json shown;
  if (const int status = requestObject(options, "explain", arguments, shown)) return status;
  if (options.json) return printed(textOf(shown) + "\n");
  const auto summary = shown.find("summary");
  const auto facts = shown.find("facts");
  if (summary == shown.end() || !summary->is_string() || facts == shown.end() || !facts->is_array())
    return unreadable("explain");
  const std::string action = text(shown, "action");
  // What a reply would have said matters only where there is one.
  const std::string mac = action == "leave" ? "" : text(shown, "mac");
  std::string lines =
      action + (mac.empty() ? "" : " with " + mac) + ": " + summary->get<std::string>() + "\n";
  const std::size_t digits = std::to_string(facts->size()).size();
  std::size_t number = 0;
  for (const ordered_json& fact : *facts) {
    const std::string count = std::to_string(++number);
    const auto told = fact.is_object() ? fact.find("text") : fact.end();
    if (!fact.is_object() || told == fact.end() || !told->is_string()) return unreadable("explain");
    lines += std::string(digits - count.size() + 2, ' ') + count + ". " + told->get<std::string>() + "\n";
  }
  const auto counter = shown.find("counter");
  if (counter != shown.end() && counter->is_object()) {
    lines += "Such a request counts as " + counter->value("name", std::string("?")) + ".\n";
  }
  return printed(lines);
}

}  // namespace Host
