#pragma once

#include <concepts>
#include <string>
#include <string_view>

namespace Orb {

// The JSON string of a text (RFC 8259, 7): control characters escaped, U+FFFD for each byte that is not UTF-8.
std::string jsonString(std::string_view text);
// JSON text from elsewhere that is UTF-8, with the control characters escaped that JSON lets stand: DEL and
// U+0080 to U+009F, which terminals obey as well.
std::string withoutControls(std::string json);

// Writes one JSON object, member by member. Names are the caller's literals.
class JsonObject {
 public:
  // A value that is JSON already.
  JsonObject& json(const char* name, std::string_view value);
  JsonObject& add(const char* name, std::string_view text) { return json(name, jsonString(text)); }
  JsonObject& add(const char* name, const char* text) { return json(name, jsonString(text)); }
  JsonObject& add(const char* name, bool value) { return json(name, value ? "true" : "false"); }
  template <std::integral Number>
  requires(!std::same_as<Number, bool>) JsonObject& add(const char* name, Number value) {
    return json(name, std::to_string(value));
  }

  std::string text() const { return text_.empty() ? "{}" : text_ + '}'; }

 private:
  std::string text_;
};

}  // namespace Orb
