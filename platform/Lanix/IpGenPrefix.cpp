#include "Lanix/IpGenPrefix.h"

#include "Mox/Error.h"
#include "Mox/Strep.h"

namespace Lanix {

namespace {

unsigned bitsOf(const IpGenAddr& address) { return address.isIpv4() ? 32 : address.isIpv6() ? 128 : 0; }

}  // namespace

IpGenPrefix::IpGenPrefix(const IpGenAddr& address, unsigned length)
    : address_(address), length_(static_cast<std::uint8_t>(length)) {
  if (length > bitsOf(address)) throw Mox::RangeError("Lanix::IpGenPrefix::length above that of the address");
}

std::string IpGenPrefix::toStrep() const {
  return address_ ? address_.toStrep() + "/" + std::to_string(length_) : std::string();
}

std::optional<IpGenPrefix> IpGenPrefix::fromStrep(std::string_view text) {
  if (text.empty()) return IpGenPrefix();
  const std::size_t slash = text.find('/');
  if (slash == std::string_view::npos) return std::nullopt;
  const std::string_view digits = text.substr(slash + 1);
  const auto address = IpGenAddr::fromStrep(text.substr(0, slash));
  const auto length = Mox::fromStrep<unsigned>(digits);
  const bool leadingZero = digits.size() > 1 && digits.front() == '0';
  if (!address || !*address || !length || leadingZero || *length > bitsOf(*address)) return std::nullopt;
  return IpGenPrefix(*address, *length);
}

}  // namespace Lanix
