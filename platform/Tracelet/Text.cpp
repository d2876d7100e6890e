#include "Tracelet/Text.h"

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

void appendPrintable(std::string& to, std::string_view text) {
  static constexpr char kDigits[] = "0123456789abcdef";
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte >= 0x20 && byte != 0x7f) {
      to += c;
    } else {
      to += {'\\', 'x', kDigits[byte >> 4], kDigits[byte & 15]};
    }
  }
}

}  // namespace Tracelet
