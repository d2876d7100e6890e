#include "host/arpsup/BindingFile.h"

#include <algorithm>
#include <array>

#include "Statedb/Json.h"
#include "host/JsonText.h"

namespace Host {

namespace {

using nlohmann::json;

std::string_view trimmed(std::string_view text) {
  const std::size_t first = text.find_first_not_of(" \t\r");
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(" \t\r") - first + 1);
}

std::string_view field(std::string_view text) {
  text = trimmed(text);
  if (text.size() >= 2 && text.front() == '"' && text.back() == '"') text = text.substr(1, text.size() - 2);
  return text;
}

bool isHeading(std::string_view line) {
  constexpr std::string_view kVlan = "vlan";
  const std::string_view first = field(line.substr(0, line.find(',')));
  return std::equal(first.begin(), first.end(), kVlan.begin(), kVlan.end(),
                    [](char a, char b) { return (a | 0x20) == b; });
}

Mox::Result<Binding> parseCsv(std::string_view line) {
  std::array<std::string_view, 5> fields{};
  std::size_t count = 0;
  for (bool more = true; more; ++count) {
    const std::size_t comma = line.find(',');
    if (count < fields.size()) fields[count] = field(line.substr(0, comma));
    more = comma != std::string_view::npos;
    if (more) line.remove_prefix(comma + 1);
  }
  if (count < 3 || count > fields.size()) {
    return Mox::Failure{std::to_string(count) + (count == 1 ? " field is" : " fields are") +
                        " not vlan,ip,mac[,localMultihomed[,router]]"};
  }
  constexpr const char* kFlags[] = {"localMultihomed", "router"};
  bool flags[2]{};
  for (std::size_t i = 0; i < std::size(flags); ++i) {
    const std::string_view flag = fields[3 + i];
    flags[i] = flag == "true" || flag == "1";
    if (!flags[i] && !flag.empty() && flag != "false" && flag != "0") {
      return Mox::Failure{std::string(kFlags[i]) + " " + Statedb::describe(std::string(flag)) +
                          " is not true, false, 1, 0 or nothing"};
    }
  }
  return parseBinding(fields[0], fields[1], fields[2], {flags[0], flags[1]});
}

Mox::Result<Binding> parseJsonLine(std::string_view line) {
  const std::optional<json> object = nestsTooDeep(line) ? std::nullopt : Statedb::jsonOf(line);
  if (!object) return Mox::Failure{"it is not a JSON object"};
  return parseBinding(*object);
}

}  // namespace

BindingFile parseBindingFile(std::string_view text) {
  BindingFile file;
  const std::size_t first = text.find_first_not_of(" \t\r\n");
  const bool isJson = first != std::string_view::npos && text[first] == '{';
  bool mayBeHeading = !isJson;
  for (std::size_t number = 1; !text.empty(); ++number) {
    const std::size_t end = text.find('\n');
    const std::string_view line = trimmed(text.substr(0, end));
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    if (line.empty() || (!isJson && line.front() == '#')) continue;
    if (std::exchange(mayBeHeading, false) && isHeading(line)) continue;
    const Mox::Result<Binding> binding = isJson ? parseJsonLine(line) : parseCsv(line);
    if (binding) {
      file.bindings.push_back(*binding);
    } else if (file.badCount++ < BindingFile::kKeptBadLines) {
      file.badLines.push_back({number, binding.error()});
    }
  }
  return file;
}

}  // namespace Host
