#include "Lanix/IntfId.h"

#include <algorithm>
#include <charconv>
#include <cstring>

namespace Lanix {

namespace {

constexpr std::string_view kVlan = "Vlan";
constexpr std::string_view kKernelVlan = "vlan";

// Saturates at 32 bits.
std::optional<std::uint32_t> numberOf(std::string_view digits) {
  if (digits.empty() || (digits.size() > 1 && digits.front() == '0')) return std::nullopt;
  if (digits.find_first_not_of("0123456789") != std::string_view::npos) return std::nullopt;
  std::uint32_t number = 0;
  const auto result = std::from_chars(digits.data(), digits.data() + digits.size(), number);
  return result.ec == std::errc() ? number : UINT32_MAX;
}

bool isVlanId(std::optional<std::uint32_t> number) { return number && *number >= 1 && *number <= 4094; }

bool isNameByte(char c) { return static_cast<unsigned char>(c) > 0x20 && c != 0x7f; }

}  // namespace

IntfId IntfId::fromName(std::string_view name) {
  IntfId id;
  if (name.empty() || name.size() > kMaxName || !std::all_of(name.begin(), name.end(), isNameByte)) return id;
  id.bytes_.fill(0);
  std::memcpy(id.bytes_.data(), name.data(), name.size());
  if (name.starts_with(kKernelVlan) && isVlanId(numberOf(name.substr(kKernelVlan.size())))) {
    id.bytes_[0] = static_cast<std::uint8_t>(kVlan.front());
  }
  return id;
}

std::string_view IntfId::name() const {
  if (!*this) return {};
  const void* bytes = bytes_.data();
  const auto* text = static_cast<const char*>(bytes);
  return {text, strnlen(text, bytes_.size())};
}

std::string IntfId::kernelName() const {
  std::string text = toStrep();
  if (isVlanId(vlanNumberOf(text))) text.front() = kKernelVlan.front();
  return text;
}

std::optional<std::uint32_t> IntfId::vlanNumberOf(std::string_view name) {
  return name.starts_with(kVlan) ? numberOf(name.substr(kVlan.size())) : std::nullopt;
}

std::optional<IntfId> IntfId::fromStrep(std::string_view text) {
  const IntfId id = fromName(text);
  if (!id && !text.empty()) return std::nullopt;
  return id;
}

}  // namespace Lanix
