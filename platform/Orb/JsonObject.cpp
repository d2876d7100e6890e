#include "Orb/JsonObject.h"

#include <algorithm>

#include "Tracelet/Text.h"

namespace Orb {

namespace {

// U+0000 to U+009F.
void appendEscaped(std::string& json, unsigned code) {
  constexpr char kDigits[] = "0123456789abcdef";
  json += "\\u00";
  json += kDigits[code >> 4];
  json += kDigits[code & 15];
}

unsigned lastByte(std::string_view text) { return static_cast<unsigned char>(text.back()); }

}  // namespace

std::string jsonString(std::string_view text) {
  std::string json = "\"";
  while (!text.empty()) {
    const auto ends =
        std::ranges::find_if(text, [](char c) { return c < ' ' || c > '~' || c == '"' || c == '\\'; });
    const auto run = static_cast<std::size_t>(ends - text.begin());
    json += text.substr(0, run);
    text.remove_prefix(run);
    if (text.empty()) break;
    const auto [kind, size] = Tracelet::firstCharacter(text);
    const std::string_view character = text.substr(0, size);
    if (kind == Tracelet::Character::control) {
      appendEscaped(json, lastByte(character));
    } else if (kind == Tracelet::Character::invalid) {
      json += "\\ufffd";
    } else {
      if (character == "\"" || character == "\\") json += '\\';
      json += character;
    }
    text.remove_prefix(size);
  }
  return json + '"';
}

std::string withoutControls(std::string json) {
  const auto next = [&json](std::size_t from) {
    return std::min(json.find('\x7f', from), json.find('\xc2', from));
  };
  std::size_t at = next(0);
  if (at == std::string::npos) return json;
  std::string clean;
  std::size_t taken = 0;
  for (; at != std::string::npos; at = next(taken)) {
    const std::string_view rest = std::string_view(json).substr(at);
    const auto [kind, size] = Tracelet::firstCharacter(rest);
    clean.append(json, taken, at - taken);
    if (kind == Tracelet::Character::control) {
      appendEscaped(clean, lastByte(rest.substr(0, size)));
    } else {
      clean += rest.substr(0, size);
    }
    taken = at + size;
  }
  return clean.append(json, taken);
}

JsonObject& JsonObject::json(const char* name, std::string_view value) {
  text_ += text_.empty() ? "{\"" : ",\"";
  text_.append(name).append("\":").append(value);
  return *this;
}

}  // namespace Orb
