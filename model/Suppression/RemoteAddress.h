#pragma once

#include "Lanix/IpGenAddr.h"

// Which addresses a host on another switch can have, whoever says that it has one.

namespace ArpSuppression {

// Not unspecified, of a group, or of everybody.
inline bool isOneHost(const Lanix::IpGenAddr& ip) {
  return ip && !ip.isUnspecified() && !ip.isMulticast() && !(ip.isIpv4() && ip.ipv4().value() == 0xffffffff);
}

// 127.0.0.0/8 (RFC 1122) and ::1 (RFC 4291).
inline bool isLoopback(const Lanix::IpGenAddr& ip) {
  static const Lanix::IpGenAddr v6 = *Lanix::IpGenAddr::fromStrep("::1");
  return ip.isIpv4() ? ip.ipv4().bytes()[0] == 127 : ip == v6;
}

}  // namespace ArpSuppression
