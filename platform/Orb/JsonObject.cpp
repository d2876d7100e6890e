#include "Orb/JsonObject.h"

namespace Orb {

std::string jsonString(std::string_view text) {
  constexpr char kDigits[] = "0123456789abcdef";
  std::string json = "\"";
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (c == '"' || c == '\\') {
      json += '\\';
      json += c;
    } else if (byte < 0x20) {
      json += "\\u00";
      json += kDigits[byte >> 4];
      json += kDigits[byte & 15];
    } else {
      json += c;
    }
  }
  return json + '"';
}

JsonObject& JsonObject::json(const char* name, std::string_view value) {
  text_ += text_.empty() ? "{\"" : ",\"";
  text_.append(name).append("\":").append(value);
  return *this;
}

}  // namespace Orb
