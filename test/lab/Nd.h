#pragma once

// Frames of IPv6 neighbour discovery (RFC 4861), as hosts send them.

#include "lab/Lab.h"

namespace Lab {

using Ip6 = std::array<std::uint8_t, 16>;

// Where the fields of such a frame are that has no tag.
namespace Nd {
inline constexpr std::size_t kVersion = 14, kLength = 18, kNextHeader = 20, kHopLimit = 21, kSourceIp = 22,
                             kDestinationIp = 38, kType = 54, kCode = 55, kChecksum = 56, kFlags = 58,
                             kTarget = 62, kOption = 78, kOptionLength = 79, kOptionAddress = 80;
}  // namespace Nd

Ip6 ip6(const char* text);  // "2001:db8::1"

// 86 bytes to the target's group: `mac` and `ip` ask for it, and say their own address.
Frame solicitation(const Mac& mac, const Ip6& ip, const Ip6& target);
// What a host sends that is about to take the address: nobody asks for it, 78 bytes.
Frame duplicateDetection(const Mac& mac, const Ip6& target);
// 86 bytes: `owner` has the target and says so to who solicited it.
Frame advertisement(const Mac& owner, const Ip6& target, const Mac& to, const Ip6& toIp, bool router);
// With the checksum that the frame is to have as it is: of what its length says, as far as that is there.
Frame summed(Frame frame);

}  // namespace Lab
