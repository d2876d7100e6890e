#include "Lanix/EthAddr.h"

#include <charconv>

namespace Lanix {

std::string EthAddr::toStrep() const {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  text.reserve(17);
  for (const std::uint8_t byte : bytes_) {
    if (!text.empty()) text += ':';
    text += kDigits[byte >> 4];
    text += kDigits[byte & 15];
  }
  return text;
}

std::optional<EthAddr> EthAddr::fromStrep(std::string_view text) {
  if (text.size() != 17) return std::nullopt;
  Bytes bytes{};
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    const char* at = text.data() + i * 3;
    if (i != 0 && at[-1] != ':') return std::nullopt;
    const auto [end, error] = std::from_chars(at, at + 2, bytes[i], 16);
    if (error != std::errc() || end != at + 2) return std::nullopt;
  }
  return EthAddr(bytes);
}

}  // namespace Lanix
