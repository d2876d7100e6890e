#pragma once

#include <compare>
#include <tuple>

#include "Bridging/VlanId.h"
#include "Lanix/IpGenAddr.h"
#include "Mox/Attribute.h"
#include "Mox/Strep.h"

namespace Arp {

// An address of a VLAN's hosts.
struct HostAddress {
  Bridging::VlanId vlanId;
  Lanix::IpGenAddr address;

  static constexpr auto moxFields() {
    return std::tuple(Mox::Field("vlan", &HostAddress::vlanId), Mox::Field("ip", &HostAddress::address));
  }
  friend auto operator<=>(const HostAddress&, const HostAddress&) = default;
};

// Where the kernel's neighbours are advertised to other switches, an address that nobody was heard with is
// confirmed before the kernel is told of it: who wants it configures it with the ARP type kArpTypeAsked, on
// which the ARP service has the kernel ask for it. The answer shows in "arp/status"; silence shows here.
//
// At "arp/service/confirmation", written by the ARP service. Without it nothing needs to be confirmed.
class Confirmation final : public Mox::Entity {
 public:
  // The VLANs whose neighbours are advertised.
  MOX_SET(Bridging::VlanId, vlan)
  // Addresses that were asked for without an answer. Each stays until its entry is taken out of the
  // configuration, or has another ARP type.
  MOX_SET(HostAddress, silent)
  MOX_MEMBERS(vlan, silent)
};

inline constexpr const char* kConfirmationPath = "arp/service/confirmation";
inline constexpr const char* kConfirmationType = "Arp::Confirmation";

}  // namespace Arp
