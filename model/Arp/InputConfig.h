#pragma once

#include <compare>
#include <cstdint>
#include <tuple>

#include "Lanix/EthAddr.h"
#include "Lanix/IntfId.h"
#include "Lanix/IpAddr.h"
#include "Mox/Attribute.h"
#include "Mox/Strep.h"

namespace Arp {

// What a neighbour is programmed for: a remote binding; a local binding, or the refresh of one; a local binding
// that is to be confirmed first (Confirmation.h).
inline constexpr std::uint8_t kArpTypeRemote = 0;
inline constexpr std::uint8_t kArpTypeLocal = 1;
inline constexpr std::uint8_t kArpTypeAsked = 2;

// A neighbour that the ARP service is to program. `dynamic` asks for an entry that the kernel ages by itself,
// otherwise it is permanent.
struct ArpEntryInput {
  Lanix::EthAddr mac;
  Lanix::IntfId intf;
  std::uint8_t arpType = kArpTypeRemote;
  bool dynamic = false;

  static constexpr auto moxFields() {
    return std::tuple(Mox::Field("mac", &ArpEntryInput::mac), Mox::Field("intf", &ArpEntryInput::intf),
                      Mox::Field("arpType", &ArpEntryInput::arpType),
                      Mox::Field("dynamic", &ArpEntryInput::dynamic));
  }
  friend bool operator==(const ArpEntryInput&, const ArpEntryInput&) = default;
};

// An IPv6 neighbour is named by its address and its interface.
struct NeighborEntryKey {
  Lanix::Ip6Addr addr;
  Lanix::IntfId intf;

  static constexpr auto moxFields() {
    return std::tuple(Mox::Field("ip", &NeighborEntryKey::addr), Mox::Field("intf", &NeighborEntryKey::intf));
  }
  friend auto operator<=>(const NeighborEntryKey&, const NeighborEntryKey&) = default;
  // The entries of one address stand together in hash order; link-local addresses are the same on many
  // interfaces and therefore spread.
  std::uint64_t hash(std::uint64_t seed) const {
    return addr.isLinkLocal() ? intf.hash(addr.hash(seed)) : addr.hash(seed);
  }
};

using NeighborEntryConfigInput = ArpEntryInput;

class ArpInputVrfConfig final : public Mox::Entity {
 public:
  explicit ArpInputVrfConfig(Mox::String vrfName) : vrfName_(std::move(vrfName)) {}
  const Mox::String& vrfName() const { return vrfName_; }

  MOX_HASH(Lanix::IpAddr, ArpEntryInput, ipv4)
  MOX_HASH(NeighborEntryKey, NeighborEntryConfigInput, ipv6)
  MOX_MEMBERS(ipv4, ipv6)

 private:
  Mox::String vrfName_;
};

// The owner of entries in the ARP service's input.
inline constexpr std::uint32_t kSourceArpSuppression = 110;

// At "arp/input/config/arpSuppression".
class ArpInputConfig final : public Mox::Entity {
 public:
  MOX_ATTRIBUTE(std::uint32_t, source, 0)
  MOX_CHILDREN(Mox::String, ArpInputVrfConfig, vrf)
  MOX_MEMBERS(source, vrf)
};

}  // namespace Arp
