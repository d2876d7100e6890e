#pragma once

#include <algorithm>
#include <compare>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "Lanix/IpGenPrefix.h"
#include "Mox/Attribute.h"

namespace ArpSuppression {

// The addresses of a network: "10.0.0.0/24" or "2001:db8::/64", without bits behind the prefix. The default is
// all of IPv4.
class IpNetwork {
 public:
  static constexpr unsigned kMaxLength = 128;  // of IPv6; 32 of IPv4

  constexpr IpNetwork() = default;
  // The network that the address, which has a family, is in; of a prefix length that is at most its family's.
  constexpr IpNetwork(const Lanix::IpGenAddr& address, unsigned length)
      : address_(masked(address, length)), length_(static_cast<std::uint8_t>(length)) {}

  constexpr const Lanix::IpGenAddr& address() const { return address_; }
  constexpr unsigned length() const { return length_; }

  friend constexpr auto operator<=>(const IpNetwork&, const IpNetwork&) = default;
  std::string toStrep() const { return address_.toStrep() + "/" + std::to_string(length_); }
  static std::optional<IpNetwork> fromStrep(std::string_view text) {
    const auto prefix = Lanix::IpGenPrefix::fromStrep(text);
    if (!prefix || !*prefix) return std::nullopt;
    const IpNetwork network(prefix->address(), prefix->length());
    if (network.address_ != prefix->address()) return std::nullopt;
    return network;
  }
  static const char* allowed() {
    return "a network like 10.0.0.0/24, 10.0.0.1/32 or 2001:db8::/64, without bits behind its prefix";
  }

 private:
  static constexpr Lanix::IpGenAddr masked(const Lanix::IpGenAddr& address, unsigned length) {
    Lanix::Ip6Addr::Bytes bytes = address.bytes();
    for (std::uint8_t& byte : bytes) {
      const unsigned kept = std::min(length, 8U);
      byte = static_cast<std::uint8_t>(byte & 0xFF00U >> kept);
      length -= kept;
    }
    if (address.isIpv6()) return Lanix::Ip6Addr(bytes);
    return Lanix::IpAddr(Lanix::IpAddr::Bytes{bytes[0], bytes[1], bytes[2], bytes[3]});
  }
  Lanix::IpGenAddr address_ = Lanix::IpAddr();
  std::uint8_t length_ = 0;
};

// Addresses that hosts are never answered for: requests for them are flooded, solicitations pass. At
// "arpSuppression/neverAnswer"; written by the host, from the configuration's `neverAnswer` and by operators.
class NeverAnswer final : public Mox::Entity {
 public:
  MOX_SET(IpNetwork, prefix)
  MOX_MEMBERS(prefix)
};

inline constexpr const char* kNeverAnswerPath = "arpSuppression/neverAnswer";
inline constexpr const char* kNeverAnswerType = "ArpSuppression::NeverAnswer";

}  // namespace ArpSuppression
