#pragma once

#include <compare>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "Bridging/VlanId.h"
#include "Lanix/IntfId.h"
#include "Mox/Attribute.h"
#include "Mox/Strep.h"

namespace Evpn {

// An MPLS label value, 20 bits (RFC 3032). 0, the explicit null label, never stands for a service and means
// "none".
class EncapTypeLabel {
 public:
  static constexpr std::uint32_t kMax = 0xFFFFF;
  constexpr EncapTypeLabel() = default;
  // Throws Mox::RangeError.
  explicit constexpr EncapTypeLabel(std::uint32_t value) : value_(value) {
    if (value > kMax) throw Mox::RangeError("Evpn::EncapTypeLabel::value > 1048575 not allowed");
  }
  constexpr std::uint32_t value() const { return value_; }
  explicit constexpr operator bool() const { return value_ != 0; }
  friend constexpr auto operator<=>(const EncapTypeLabel&, const EncapTypeLabel&) = default;
  std::string toStrep() const { return std::to_string(value_); }
  static std::optional<EncapTypeLabel> fromNumber(std::uint64_t value) {
    if (value > kMax) return std::nullopt;
    return EncapTypeLabel(static_cast<std::uint32_t>(value));
  }
  static const char* allowed() { return "an MPLS label from 0 to 1048575"; }

 private:
  std::uint32_t value_ = 0;
};

// The Ethernet segment that a local interface belongs to.
class SegmentStatus final : public Mox::Entity {
 public:
  explicit SegmentStatus(Lanix::IntfId intfId) : intfId_(intfId) {}
  const Lanix::IntfId& intfId() const { return intfId_; }

  // Split-horizon label of the segment (RFC 7432, 8.3); 0: none.
  MOX_ATTRIBUTE(EncapTypeLabel, esiLabel)
  // Per VLAN, the remote tunnel endpoint that is the designated forwarder. No entry, or the empty interface:
  // this switch is.
  MOX_MAP(Bridging::VlanId, Lanix::IntfId, designatedForwarderTep)
  MOX_MEMBERS(esiLabel, designatedForwarderTep)

 private:
  Lanix::IntfId intfId_;
};

// At "evpn/status".
class EvpnStatus final : public Mox::Entity {
 public:
  // EVPN over MPLS is configured: what suppression as a whole hangs on.
  MOX_ATTRIBUTE(bool, mplsConfigured, false)
  // The VLANs that EVPN serves, with the 802.1Q id they use on the wire.
  MOX_MAP(Bridging::VlanId, std::uint16_t, vlanToDot1q)
  // The label of the VLAN's inclusive multicast route (RFC 7432, 7.3).
  MOX_MAP(Bridging::VlanId, EncapTypeLabel, imetLabel)
  // VLAN-aware bundle services: the id that frames carry inside the tunnel; 0: the VLAN's own.
  MOX_MAP(Bridging::VlanId, std::uint16_t, vlanAwareVlanId)
  MOX_CHILDREN(Lanix::IntfId, SegmentStatus, segmentStatus)
  MOX_MEMBERS(mplsConfigured, vlanToDot1q, imetLabel, vlanAwareVlanId, segmentStatus)
};

// At "evpn/mplsConfig".
class MplsConfig final : public Mox::Entity {
 public:
  // Frames carry the control word of RFC 4448 behind the label stack.
  MOX_ATTRIBUTE(bool, controlWordEnabled, false)
  // Whether frames of VLANs without an entry of their own carry an inner 802.1Q tag.
  MOX_ATTRIBUTE(bool, addInnerDot1Q, false)
  MOX_MEMBERS(controlWordEnabled, addInnerDot1Q)
};

}  // namespace Evpn
