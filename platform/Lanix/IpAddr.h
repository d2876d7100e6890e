#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "Lanix/SameBytes.h"
#include "Mox/Hash.h"
#include "Tracelet/Record.h"

namespace Lanix {

// An IPv4 address, kept in network order; alignment 1, so that it can stand in wire structures and shared
// memory. The default is 0.0.0.0.
class IpAddr {
 public:
  using Bytes = std::array<std::uint8_t, 4>;

  constexpr IpAddr() = default;
  explicit constexpr IpAddr(const Bytes& bytes) : bytes_(bytes) {}
  // Of a number in host order: 0x0a000001 is 10.0.0.1.
  explicit constexpr IpAddr(std::uint32_t value)
      : bytes_{static_cast<std::uint8_t>(value >> 24), static_cast<std::uint8_t>(value >> 16),
               static_cast<std::uint8_t>(value >> 8), static_cast<std::uint8_t>(value)} {}

  constexpr const Bytes& bytes() const { return bytes_; }
  constexpr std::uint32_t value() const {
    return std::uint32_t{bytes_[0]} << 24 | std::uint32_t{bytes_[1]} << 16 | std::uint32_t{bytes_[2]} << 8 |
           bytes_[3];
  }
  constexpr bool isUnspecified() const { return value() == 0; }
  constexpr bool isMulticast() const { return (bytes_[0] & 0xf0) == 0xe0; }
  // 169.254.0.0/16 (RFC 3927).
  constexpr bool isLinkLocal() const { return bytes_[0] == 169 && bytes_[1] == 254; }

  friend constexpr auto operator<=>(const IpAddr&, const IpAddr&) = default;
  friend constexpr bool operator==(const IpAddr& a, const IpAddr& b) { return sameBytes(a.bytes_, b.bytes_); }
  std::uint64_t hash(std::uint64_t seed) const { return Mox::hashMix(value(), seed); }
  // Four decimal numbers without leading zeros.
  std::string toStrep() const;
  static std::optional<IpAddr> fromStrep(std::string_view text);
  static const char* allowed() { return "an IPv4 address like 10.0.0.1"; }
  Tracelet::Ip4 traceletArg() const { return {bytes_}; }

 private:
  Bytes bytes_{};
};
static_assert(sizeof(IpAddr) == 4 && alignof(IpAddr) == 1);

// An IPv6 address, in network order. The default is ::.
class Ip6Addr {
 public:
  using Bytes = std::array<std::uint8_t, 16>;

  constexpr Ip6Addr() = default;
  explicit constexpr Ip6Addr(const Bytes& bytes) : bytes_(bytes) {}

  constexpr const Bytes& bytes() const { return bytes_; }
  constexpr bool isUnspecified() const { return *this == Ip6Addr(); }
  constexpr bool isMulticast() const { return bytes_[0] == 0xff; }
  // fe80::/10 (RFC 4291).
  constexpr bool isLinkLocal() const { return bytes_[0] == 0xfe && (bytes_[1] & 0xc0) == 0x80; }

  friend constexpr auto operator<=>(const Ip6Addr&, const Ip6Addr&) = default;
  friend constexpr bool operator==(const Ip6Addr& a, const Ip6Addr& b) {
    return sameBytes(a.bytes_, b.bytes_);
  }
  std::uint64_t hash(std::uint64_t seed) const { return Mox::hashBytes(bytes_.data(), bytes_.size(), seed); }
  // The form of RFC 5952; every form of RFC 4291 is read, without a zone.
  std::string toStrep() const;
  static std::optional<Ip6Addr> fromStrep(std::string_view text);
  static const char* allowed() { return "an IPv6 address like 2001:db8::1"; }
  Tracelet::Ip6 traceletArg() const { return {bytes_}; }

 private:
  Bytes bytes_{};
};
static_assert(sizeof(Ip6Addr) == 16 && alignof(Ip6Addr) == 1);

}  // namespace Lanix
