#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <tuple>

#include "Lanix/EthAddr.h"
#include "Lanix/IntfId.h"
#include "Lanix/IpGenAddr.h"
#include "Memtab/Entity.h"
#include "Mox/Strep.h"
#include "Vrf/VrfId.h"

namespace Arp::Table {

// The key of a kernel neighbour, IPv4 or IPv6.
struct ArpKey {
  Vrf::VrfIdMap::VrfId vrfId = 0;
  Lanix::IpGenAddr addr;
  Lanix::IntfId intfId;
  std::array<std::uint8_t, 3> padding{};  // explicit: keys in shared memory are compared by their bytes

  static constexpr auto moxFields() {
    return std::tuple(Mox::Field("vrfId", &ArpKey::vrfId), Mox::Field("ip", &ArpKey::addr),
                      Mox::Field("intf", &ArpKey::intfId));
  }
  friend auto operator<=>(const ArpKey&, const ArpKey&) = default;
};

// The ARP type of a static entry that this system wrote into the kernel, and of one that somebody else did.
inline constexpr std::uint8_t kArpTypeOwn = 110;
inline constexpr std::uint8_t kArpTypeForeign = 255;

// One kernel neighbour; the default one stands for no entry.
struct ArpEntry {
  Lanix::EthAddr mac;
  bool isStatic = false;
  std::uint8_t arpType = 0;
  // An IPv6 router, as the kernel heard it say. No part of the text form.
  bool router = false;

  static constexpr auto moxFields() {
    return std::tuple(Mox::Field("mac", &ArpEntry::mac), Mox::Field("static", &ArpEntry::isStatic),
                      Mox::Field("arpType", &ArpEntry::arpType));
  }
  friend bool operator==(const ArpEntry&, const ArpEntry&) = default;
};

// The kernel's neighbour table, in shared memory at "arp/status". Remote (externally learned) neighbours are
// not part of it.
class Status final : public Memtab::Entity {
 public:
  MEMTAB_COLLECTION(ArpKey, ArpEntry, arpEntry)
  MEMTAB_MEMBERS(arpEntry)
};

}  // namespace Arp::Table
