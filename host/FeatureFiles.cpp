#include "host/FeatureFiles.h"

#include <cstdlib>
#include <filesystem>
#include <map>

#include "Mox/Result.h"
#include "Statedb/Json.h"
#include "host/ConfigReader.h"
#include "host/JsonText.h"

namespace Host {

namespace {

using nlohmann::json;

constexpr std::size_t kMaxBytes = std::size_t{1} << 20;

// The switches that the agents ask for, by group.
const std::map<std::string, std::vector<std::string>>& groups() {
  static const std::map<std::string, std::vector<std::string>> groups = {
      {"ArpSuppression.json", {"LocalMultihomeSelectiveArpInstall"}},
      {"EvpnLib.json", {"EvpnMplsProxyArpRefresh"}},
  };
  return groups;
}

// An object; empty without such a file. A refusal begins with the file's name.
Mox::Result<json> readGroup(const std::string& file) {
  std::error_code error;
  const auto status = std::filesystem::status(file, error);
  if (!std::filesystem::exists(status)) return json::object();
  if (!std::filesystem::is_regular_file(status)) return Mox::Failure{file + ": not a regular file"};
  const auto text = readFile(file, kMaxBytes, false);
  if (!text) return text.failure();
  auto content = parseJson(*text, Comments::allowed);
  if (!content) return Mox::Failure{file + ": " + content.error()};
  if (!content->is_object()) return Mox::Failure{file + ": not an object of switches"};
  return content;
}

}  // namespace

std::string featureDirectory(const std::string& configured) {
  const char* overriding = std::getenv("ARPSUP_FEATURE_DIR");
  return overriding ? overriding : configured;
}

std::vector<std::string> checkFeatureFiles(const std::string& directory) {
  std::vector<std::string> problems;
  if (directory.empty()) return problems;
  for (const auto& [group, names] : groups()) {
    const std::string file = directory + "/" + group;
    const Mox::Result<json> content = readGroup(file);
    if (!content) {
      problems.push_back(content.error());
      continue;
    }
    ConfigReader reader(file);
    bool value = false;
    ConfigReader::Keys keys;
    for (const std::string& name : names) keys[name] = reader.boolean(value);
    reader.object("", *content, keys);
    for (std::string& problem : reader.problems()) problems.push_back(std::move(problem));
  }
  return problems;
}

std::optional<bool> featureSwitch(const std::string& directory, const std::string& group,
                                  const std::string& name,
                                  const std::function<void(const std::string& message)>& report) {
  if (directory.empty()) return std::nullopt;
  const std::string file = directory + "/" + group;
  const auto refused = [&](const std::string& why) {
    report(why + "; the feature switch " + name + " keeps its default");
    return std::nullopt;
  };
  const Mox::Result<json> content = readGroup(file);
  if (!content) return refused(content.error());
  const auto value = content->find(name);
  if (value == content->end()) return std::nullopt;
  if (!value->is_boolean())
    return refused(file + ": " + name + ": " + Statedb::describe(*value) + " is not true or false");
  return value->get<bool>();
}

}  // namespace Host
