#include "host/FeatureFiles.h"

#include <cstdlib>
#include <filesystem>

#include "host/JsonText.h"

namespace Host {

namespace {
constexpr std::size_t kMaxBytes = std::size_t{1} << 20;
}

std::string featureDirectory(const std::string& configured) {
  const char* overriding = std::getenv("ARPSUP_FEATURE_DIR");
  return overriding ? overriding : configured;
}

std::optional<bool> featureSwitch(const std::string& directory, const std::string& group,
                                  const std::string& name,
                                  const std::function<void(const std::string& message)>& report) {
  if (directory.empty()) return std::nullopt;
  const std::string file = directory + "/" + group;
  const auto refused = [&](const std::string& why) {
    report(file + ": " + why + "; the feature switch " + name + " keeps its default");
    return std::nullopt;
  };
  std::error_code error;
  const auto status = std::filesystem::status(file, error);
  if (!std::filesystem::exists(status)) return std::nullopt;
  if (!std::filesystem::is_regular_file(status)) return refused("not a regular file");
  const auto text = readFile(file, kMaxBytes, false);
  if (!text) return refused(text.error().substr(file.size() + 2));
  const auto content = parseJson(*text, Comments::allowed);
  if (!content) return refused(content.error());
  if (!content->is_object()) return refused("not an object of switches");
  const auto value = content->find(name);
  if (value == content->end()) return std::nullopt;
  if (!value->is_boolean())
    return refused(name + ": " + value->dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) +
                   " is not true or false");
  return value->get<bool>();
}

}  // namespace Host
