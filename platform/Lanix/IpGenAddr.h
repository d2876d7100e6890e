#pragma once

#include <algorithm>
#include <array>
#include <compare>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>

#include "Lanix/IpAddr.h"
#include "Lanix/SameBytes.h"

namespace Lanix {

enum class AddressFamily : std::uint8_t { none, ipv4_, ipv6_ };
constexpr std::array<const char*, 3> moxEnumNames(AddressFamily) { return {"none", "ipv4", "ipv6"}; }

// An IPv4 or IPv6 address that knows its family. The default has no family, is false, and differs from
// 0.0.0.0 and ::. Ordered by family (none, IPv4, IPv6), then by the bytes. 17 bytes without padding,
// alignment 1. One whose bytes came from elsewhere (shared memory) may be none that is built here: then it is
// not `sound`.
class IpGenAddr {
 public:
  constexpr IpGenAddr() = default;
  constexpr IpGenAddr(const IpAddr& address) : af_(AddressFamily::ipv4_) {
    std::copy_n(address.bytes().begin(), address.bytes().size(), bytes_.begin());
  }
  constexpr IpGenAddr(const Ip6Addr& address) : af_(AddressFamily::ipv6_), bytes_(address.bytes()) {}

  constexpr AddressFamily af() const { return af_; }
  explicit constexpr operator bool() const { return af_ != AddressFamily::none; }
  constexpr bool isIpv4() const { return af_ == AddressFamily::ipv4_; }
  constexpr bool isIpv6() const { return af_ == AddressFamily::ipv6_; }
  // Whether the family is one of the three, and the bytes that it leaves unused are zeros. An address that is
  // not sound may print like another one and yet differ from it; with an unknown family it prints like none.
  constexpr bool sound() const {
    if (isIpv6()) return true;
    const auto unused = bytes_.begin() + (isIpv4() ? 4 : 0);
    return af_ <= AddressFamily::ipv6_ &&
           std::all_of(unused, bytes_.end(), [](auto byte) { return byte == 0; });
  }

  // The address as one of its family; all zeros when it is of the other one.
  constexpr IpAddr ipv4() const {
    return isIpv4() ? IpAddr(IpAddr::Bytes{bytes_[0], bytes_[1], bytes_[2], bytes_[3]}) : IpAddr();
  }
  constexpr Ip6Addr ipv6() const { return isIpv6() ? Ip6Addr(bytes_) : Ip6Addr(); }
  // All sixteen; those of an IPv4 address are the first four, and zeros.
  constexpr const std::array<std::uint8_t, 16>& bytes() const { return bytes_; }

  // 0.0.0.0 and ::, but not the address without a family.
  constexpr bool isUnspecified() const { return af_ != AddressFamily::none && bytes_ == Ip6Addr::Bytes{}; }
  constexpr bool isMulticast() const { return isIpv4() ? ipv4().isMulticast() : ipv6().isMulticast(); }
  constexpr bool isLinkLocal() const { return isIpv4() ? ipv4().isLinkLocal() : ipv6().isLinkLocal(); }

  friend constexpr auto operator<=>(const IpGenAddr&, const IpGenAddr&) = default;
  friend constexpr bool operator==(const IpGenAddr& a, const IpGenAddr& b) {
    return a.af_ == b.af_ && sameBytes(a.bytes_, b.bytes_);
  }
  std::uint64_t hash(std::uint64_t seed) const {
    std::uint64_t words[2];
    std::memcpy(words, bytes_.data(), sizeof words);
    return Mox::hashMix(words[1] + static_cast<std::uint64_t>(af_), Mox::hashMix(words[0], seed));
  }
  // The text of the address, "" when there is no family.
  std::string toStrep() const;
  static std::optional<IpGenAddr> fromStrep(std::string_view text);
  static const char* allowed() { return "an IPv4 or IPv6 address"; }
  Tracelet::Ip traceletArg() const {
    return {static_cast<std::uint8_t>(isIpv4() ? 4 : isIpv6() ? 6 : 0), bytes_};
  }

 private:
  AddressFamily af_ = AddressFamily::none;
  std::array<std::uint8_t, 16> bytes_{};
};
static_assert(sizeof(IpGenAddr) == 17 && alignof(IpGenAddr) == 1);

}  // namespace Lanix
