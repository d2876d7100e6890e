#include "Tracelet/Text.h"

#include <algorithm>
#include <cstdio>
#include <ctime>

namespace Tracelet {

std::string timeText(std::uint64_t nanoseconds) {
  const auto seconds = static_cast<std::time_t>(nanoseconds / 1'000'000'000u);
  const auto micros = static_cast<unsigned>(nanoseconds % 1'000'000'000u / 1'000u);
  std::tm broken{};
  gmtime_r(&seconds, &broken);
  char text[80];
  const std::size_t size = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &broken);
  char fraction[16];
  std::snprintf(fraction, sizeof fraction, ".%06uZ", micros);
  return std::string(text, size) + fraction;
}

FirstCharacter firstCharacter(std::string_view text) {
  constexpr FirstCharacter kInvalid = {Character::invalid, 1};
  const auto byteAt = [text](std::size_t at) { return static_cast<unsigned char>(text[at]); };
  const unsigned first = byteAt(0);
  if (first < 0x80) return {first < 0x20 || first == 0x7f ? Character::control : Character::printable, 1};
  const std::size_t size = first < 0xc2 ? 0 : first < 0xe0 ? 2 : first < 0xf0 ? 3 : first < 0xf5 ? 4 : 0;
  if (size == 0 || size > text.size()) return kInvalid;
  std::uint32_t code = first & (0xffU >> (size + 1));
  for (std::size_t i = 1; i < size; ++i) {
    if ((byteAt(i) & 0xc0) != 0x80) return kInvalid;
    code = code << 6 | (byteAt(i) & 0x3f);
  }
  constexpr std::uint32_t kLeast[] = {0, 0, 0x80, 0x800, 0x10000};
  if (code < kLeast[size] || code > 0x10ffff || (code >= 0xd800 && code < 0xe000)) return kInvalid;
  return {code < 0xa0 ? Character::control : Character::printable, size};
}

void appendPrintable(std::string& to, std::string_view text) {
  constexpr char kDigits[] = "0123456789abcdef";
  while (!text.empty()) {
    const auto ends = std::ranges::find_if(text, [](char c) { return c < ' ' || c > '~'; });
    const auto run = static_cast<std::size_t>(ends - text.begin());
    to += text.substr(0, run);
    text.remove_prefix(run);
    if (text.empty()) return;
    const auto [character, size] = firstCharacter(text);
    if (character == Character::printable) {
      to += text.substr(0, size);
    } else {
      for (const char c : text.substr(0, size)) {
        const auto byte = static_cast<unsigned char>(c);
        to += {'\\', 'x', kDigits[byte >> 4], kDigits[byte & 15]};
      }
    }
    text.remove_prefix(size);
  }
}

std::string printable(std::string_view text) {
  std::string result;
  result.reserve(text.size());
  appendPrintable(result, text);
  return result;
}

std::string printableLines(std::string_view text) {
  std::string result;
  result.reserve(text.size());
  for (std::size_t end; (end = text.find('\n')) != std::string_view::npos; text.remove_prefix(end + 1)) {
    appendPrintable(result, text.substr(0, end));
    result += '\n';
  }
  appendPrintable(result, text);
  return result;
}

}  // namespace Tracelet
