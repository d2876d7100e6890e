#pragma once

#include "Lanix/IpGenAddr.h"

namespace Lanix {

// An address with the length of its network's prefix, as an interface has it: "10.0.0.1/24" keeps its host
// part. The default has no address and the text "".
class IpGenPrefix {
 public:
  constexpr IpGenPrefix() = default;
  // Throws Mox::RangeError when the length is above 32 or 128, the address's own number of bits (0 without a
  // family).
  IpGenPrefix(const IpGenAddr& address, unsigned length);

  constexpr const IpGenAddr& address() const { return address_; }
  constexpr unsigned length() const { return length_; }
  explicit constexpr operator bool() const { return static_cast<bool>(address_); }

  friend constexpr auto operator<=>(const IpGenPrefix&, const IpGenPrefix&) = default;
  std::uint64_t hash(std::uint64_t seed) const { return Mox::hashMix(length_, address_.hash(seed)); }
  std::string toStrep() const;
  static std::optional<IpGenPrefix> fromStrep(std::string_view text);
  static const char* allowed() { return "an address with a prefix length like 10.0.0.1/24"; }

 private:
  IpGenAddr address_;
  std::uint8_t length_ = 0;
};
static_assert(sizeof(IpGenPrefix) == 18 && alignof(IpGenPrefix) == 1);

}  // namespace Lanix
