#include "Statedb/Json.h"

#include "Orb/JsonObject.h"

namespace Statedb {

namespace {
constexpr std::size_t kShownLength = 64;
}

std::string jsonText(const nlohmann::json& json) {
  return Orb::withoutControls(json.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace));
}

void appendJsonText(std::string& text, std::string_view string) {
  const bool plain =
      std::ranges::all_of(string, [](char c) { return c >= ' ' && c < '\x7f' && c != '"' && c != '\\'; });
  if (!plain) {
    text += jsonText(std::string(string));
    return;
  }
  text += '"';
  text += string;
  text += '"';
}

std::optional<nlohmann::json> jsonOf(std::string_view text) {
  nlohmann::json json = nlohmann::json::parse(text.begin(), text.end(), nullptr, false);
  if (json.is_discarded()) return std::nullopt;
  return json;
}

Mox::Result<> within(const std::string& place, Mox::Result<> result) {
  if (result) return result;
  return Mox::Failure{place + result.error(), result.number()};
}

std::string describe(const nlohmann::json& json) {
  if (json.is_object()) return "an object";
  if (json.is_array()) return "a list";
  if (json.is_string() && json.get_ref<const std::string&>().size() > kShownLength) {
    return jsonText(json.get_ref<const std::string&>().substr(0, kShownLength) + "...");
  }
  return jsonText(json);
}

}  // namespace Statedb
