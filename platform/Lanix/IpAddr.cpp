#include "Lanix/IpAddr.h"

#include <arpa/inet.h>

#include <array>
#include <charconv>

namespace Lanix {

namespace {

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

// Not by inet_ntop, which prints IPv4 by way of a format: this is the key of each neighbour in the store.
std::string IpAddr::toStrep() const {
  std::array<char, INET_ADDRSTRLEN> text;
  char* end = text.data();
  for (const std::uint8_t byte : bytes()) {
    if (end != text.data()) *end++ = '.';
    end = std::to_chars(end, text.data() + text.size(), byte).ptr;
  }
  return {text.data(), end};
}
std::optional<IpAddr> IpAddr::fromStrep(std::string_view text) { return addressOf<IpAddr>(AF_INET, text); }

std::string Ip6Addr::toStrep() const {
  char text[INET6_ADDRSTRLEN];
  return inet_ntop(AF_INET6, bytes().data(), text, sizeof text);
}
std::optional<Ip6Addr> Ip6Addr::fromStrep(std::string_view text) {
  return addressOf<Ip6Addr>(AF_INET6, text);
}

}  // namespace Lanix
