#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>

#include "Lanix/SameBytes.h"
#include "Mox/Hash.h"
#include "Tracelet/Record.h"

namespace Lanix {

// A 48-bit MAC address, in the order of the wire; alignment 1, so that it can stand in wire structures and
// shared memory. The default is all zeros, which means "none" wherever an address is optional.
class EthAddr {
 public:
  using Bytes = std::array<std::uint8_t, 6>;

  constexpr EthAddr() = default;
  explicit constexpr EthAddr(const Bytes& bytes) : bytes_(bytes) {}
  static constexpr EthAddr broadcast() { return EthAddr(Bytes{0xff, 0xff, 0xff, 0xff, 0xff, 0xff}); }

  constexpr const Bytes& bytes() const { return bytes_; }
  constexpr bool isZero() const { return *this == EthAddr(); }
  constexpr bool isBroadcast() const { return *this == broadcast(); }
  // The group bit; broadcast has it too.
  constexpr bool isMulticast() const { return (bytes_[0] & 1) != 0; }

  friend constexpr auto operator<=>(const EthAddr&, const EthAddr&) = default;
  friend constexpr bool operator==(const EthAddr& a, const EthAddr& b) {
    return sameBytes(a.bytes_, b.bytes_);
  }
  std::uint64_t hash(std::uint64_t seed) const {
    std::uint64_t word = 0;
    std::memcpy(&word, bytes_.data(), bytes_.size());
    return Mox::hashMix(word, seed);
  }
  // "02:00:00:00:be:ef": lower case; upper case is read as well.
  std::string toStrep() const;
  static std::optional<EthAddr> fromStrep(std::string_view text);
  static const char* allowed() { return "a MAC address like 02:00:00:00:be:ef"; }
  Tracelet::Mac traceletArg() const { return {bytes_}; }

 private:
  Bytes bytes_{};
};
static_assert(sizeof(EthAddr) == 6 && alignof(EthAddr) == 1);

}  // namespace Lanix
