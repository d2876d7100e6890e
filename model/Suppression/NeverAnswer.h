#pragma once

#include <compare>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "Lanix/IpGenPrefix.h"
#include "Mox/Attribute.h"

namespace ArpSuppression {

// The addresses of an IPv4 network: "10.0.0.0/24", without bits behind the prefix. The default is all.
class Ip4Network {
 public:
  static constexpr unsigned kMaxLength = 32;

  constexpr Ip4Network() = default;
  // The network of that prefix length, at most kMaxLength, that the address is in.
  constexpr Ip4Network(const Lanix::IpAddr& address, unsigned length)
      : address_(address.value() & maskOf(length)), length_(static_cast<std::uint8_t>(length)) {}

  constexpr const Lanix::IpAddr& address() const { return address_; }
  constexpr unsigned length() const { return length_; }

  friend constexpr auto operator<=>(const Ip4Network&, const Ip4Network&) = default;
  std::string toStrep() const { return address_.toStrep() + "/" + std::to_string(length_); }
  static std::optional<Ip4Network> fromStrep(std::string_view text) {
    const auto prefix = Lanix::IpGenPrefix::fromStrep(text);
    if (!prefix || !prefix->address().isIpv4()) return std::nullopt;
    const Ip4Network network(prefix->address().ipv4(), prefix->length());
    if (network.address_ != prefix->address().ipv4()) return std::nullopt;
    return network;
  }
  static const char* allowed() {
    return "an IPv4 network like 10.0.0.0/24 or 10.0.0.1/32, without bits behind its prefix";
  }

 private:
  static constexpr std::uint32_t maskOf(unsigned length) {
    return length == 0 ? 0 : ~std::uint32_t{0} << (kMaxLength - length);
  }
  Lanix::IpAddr address_;
  std::uint8_t length_ = 0;
};

// Addresses that hosts are never answered for: requests for them are flooded. At
// "arpSuppression/neverAnswer"; written by the host, from the configuration's `neverAnswer` and by operators.
class NeverAnswer final : public Mox::Entity {
 public:
  MOX_SET(Ip4Network, prefix)
  MOX_MEMBERS(prefix)
};

inline constexpr const char* kNeverAnswerPath = "arpSuppression/neverAnswer";
inline constexpr const char* kNeverAnswerType = "ArpSuppression::NeverAnswer";

}  // namespace ArpSuppression
