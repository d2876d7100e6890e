#include "Lanix/IpGenAddr.h"

namespace Lanix {

std::string IpGenAddr::toStrep() const {
  return isIpv4() ? ipv4().toStrep() : isIpv6() ? ipv6().toStrep() : std::string();
}

std::optional<IpGenAddr> IpGenAddr::fromStrep(std::string_view text) {
  if (text.empty()) return IpGenAddr();
  if (const auto address = IpAddr::fromStrep(text)) return IpGenAddr(*address);
  if (const auto address = Ip6Addr::fromStrep(text)) return IpGenAddr(*address);
  return std::nullopt;
}

}  // namespace Lanix
