#include "Lanix/IpAddr.h"

#include <arpa/inet.h>

namespace Lanix {

namespace {

template <class Address>
std::string textOf(int family, const Address& address) {
  char text[INET6_ADDRSTRLEN];
  return inet_ntop(family, address.bytes().data(), text, sizeof text);
}

template <class Address>
std::optional<Address> addressOf(int family, std::string_view text) {
  char terminated[INET6_ADDRSTRLEN] = {};
  if (text.size() >= sizeof terminated || text.find('\0') != std::string_view::npos) return std::nullopt;
  text.copy(terminated, text.size());
  typename Address::Bytes bytes{};
  if (inet_pton(family, terminated, bytes.data()) != 1) return std::nullopt;
  return Address(bytes);
}

}  // namespace

std::string IpAddr::toStrep() const { return textOf(AF_INET, *this); }
std::optional<IpAddr> IpAddr::fromStrep(std::string_view text) { return addressOf<IpAddr>(AF_INET, text); }

std::string Ip6Addr::toStrep() const { return textOf(AF_INET6, *this); }
std::optional<Ip6Addr> Ip6Addr::fromStrep(std::string_view text) {
  return addressOf<Ip6Addr>(AF_INET6, text);
}

}  // namespace Lanix
