#include "host/HandOver.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>

namespace Host {

namespace {

using nlohmann::json;

// Nothing when it is not made as such a file is.
std::optional<HandOver> handOverOf(const json& content) {
  HandOver handOver;
  if (!content.is_object()) return std::nullopt;
  for (const auto& [key, part] : {std::pair("declared", &handOver.declared), {"state", &handOver.state}}) {
    *part = content.value(key, json());
    if (!part->is_object()) return std::nullopt;
    for (const json& below : *part)
      if (!below.is_object()) return std::nullopt;
  }
  for (const json& table : content.value("tables", json::array())) {
    if (!table.is_string()) return std::nullopt;
    handOver.tables.insert(table);
  }
  return handOver;
}

}  // namespace

Mox::Result<> writeHandOver(const HandOver& handOver, const std::string& file) {
  const std::string next = file + ".next";
  std::ofstream out(next, std::ios::trunc);
  out << json{{"declared", handOver.declared}, {"state", handOver.state}, {"tables", handOver.tables}};
  out.close();
  if (out && std::rename(next.c_str(), file.c_str()) == 0) return {};
  return Mox::Failure{file + ": " + std::strerror(errno), errno};
}

HandOver readHandOver(const std::string& file, const std::function<void(const std::string&)>& report) {
  std::ifstream in(file);
  if (!in) return {};
  const auto handOver = handOverOf(json::parse(in, nullptr, false));
  if (handOver) return *handOver;
  report(file + ": it is damaged; what was set by hand before is not kept");
  return {};
}

}  // namespace Host
