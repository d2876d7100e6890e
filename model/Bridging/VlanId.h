#pragma once

#include <compare>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "Mox/Error.h"
#include "Mox/Hash.h"
#include "Mox/Strep.h"

namespace Bridging {

// An IEEE 802.1Q VLAN id, 1 to 4094. Every construction from a number is checked.
class VlanId {
 public:
  static constexpr std::uint16_t kMin = 1;
  static constexpr std::uint16_t kMax = 4094;

  constexpr VlanId() = default;
  // Throws Mox::RangeError.
  explicit constexpr VlanId(std::uint32_t value) : value_(static_cast<std::uint16_t>(value)) {
    if (!valid(value)) throw Mox::RangeError("Bridging::VlanId::value < 1 or > 4094 not allowed");
  }
  static constexpr bool valid(std::uint32_t value) { return value >= kMin && value <= kMax; }

  constexpr operator std::uint16_t() const { return value_; }
  constexpr std::uint16_t value() const { return value_; }
  // False only for a value that was not built here: one read from memory that another process writes.
  constexpr bool sound() const { return valid(value_); }

  friend constexpr auto operator<=>(const VlanId&, const VlanId&) = default;
  std::uint64_t hash(std::uint64_t seed) const { return Mox::hashMix(value_, seed); }
  std::string toStrep() const { return std::to_string(value_); }
  static std::optional<VlanId> fromStrep(std::string_view text) {
    const auto value = Mox::fromStrep<std::uint16_t>(text);
    if (!value || !valid(*value)) return std::nullopt;
    return VlanId(*value);
  }
  static const char* allowed() { return "a VLAN id from 1 to 4094"; }

 private:
  std::uint16_t value_ = kMin;
};

// A VLAN id or 0 for none.
class VlanIdOrNone {
 public:
  constexpr VlanIdOrNone() = default;
  constexpr VlanIdOrNone(VlanId vlanId) : value_(vlanId.value()) {}
  // Throws Mox::RangeError.
  explicit constexpr VlanIdOrNone(std::uint32_t value) : value_(static_cast<std::uint16_t>(value)) {
    if (value > VlanId::kMax) throw Mox::RangeError("Bridging::VlanIdOrNone::value > 4094 not allowed");
  }
  constexpr std::uint16_t value() const { return value_; }
  explicit constexpr operator bool() const { return value_ != 0; }
  friend constexpr auto operator<=>(const VlanIdOrNone&, const VlanIdOrNone&) = default;
  std::string toStrep() const { return std::to_string(value_); }

 private:
  std::uint16_t value_ = 0;
};

// A forwarding database id: the VLAN's own number unless the bridging configuration maps it.
using Fid = std::uint16_t;

}  // namespace Bridging
