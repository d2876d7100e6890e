#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "Lanix/SameBytes.h"
#include "Mox/Hash.h"

namespace Lanix {

// An interface's identity: its name, in exactly 16 bytes padded with zeros, so that it means the same in
// every process and after a restart, and can be a key in shared memory. The kernel's VLAN interfaces "vlan1"
// to "vlan4094" are named "Vlan1" to "Vlan4094" here; every other interface has the kernel's own name. The
// default is the invalid one, all ones: it is false, empty, and sorts last.
class IntfId {
 public:
  // A kernel device name has at most this many bytes (IFNAMSIZ - 1 in linux/if.h).
  static constexpr std::size_t kMaxName = 15;

  constexpr IntfId() { bytes_.fill(0xff); }
  // Of a name, the kernel's or ours. Invalid when the name is empty, too long or has blanks or control
  // characters, which no device has.
  static IntfId fromName(std::string_view name);

  explicit constexpr operator bool() const { return *this != IntfId(); }
  // "" when invalid. Refers to this object.
  std::string_view name() const;
  // The name in full: names are short enough as they are, and a shorter one would not be unique.
  std::string shortName() const { return toStrep(); }
  // What the kernel calls it: "vlan10" for "Vlan10".
  std::string kernelName() const;

  // Whether the name is "Vlan" and a decimal number without leading zeros, of any size: "Vlan4095" is one,
  // and whoever makes a VLAN id of its number sees that it is out of range.
  bool isVlan() const { return vlanNumberOf(name()).has_value(); }
  // 0 when it is not a VLAN interface; a number of more than 32 bits is the largest one.
  std::uint32_t vlanNumber() const { return vlanNumberOf(name()).value_or(0); }

  constexpr const std::array<std::uint8_t, 16>& bytes() const { return bytes_; }
  friend constexpr auto operator<=>(const IntfId&, const IntfId&) = default;
  friend constexpr bool operator==(const IntfId& a, const IntfId& b) { return sameBytes(a.bytes_, b.bytes_); }
  std::uint64_t hash(std::uint64_t seed) const { return Mox::hashBytes(bytes_.data(), bytes_.size(), seed); }
  std::string toStrep() const { return std::string(name()); }
  // "" is the invalid one; a name is taken as by fromName.
  static std::optional<IntfId> fromStrep(std::string_view text);
  static const char* allowed() { return "an interface name of at most 15 bytes, or \"\""; }
  std::string_view traceletArg() const { return name(); }

 private:
  static std::optional<std::uint32_t> vlanNumberOf(std::string_view name);

  std::array<std::uint8_t, 16> bytes_;
};
static_assert(sizeof(IntfId) == 16 && alignof(IntfId) == 1);

}  // namespace Lanix
