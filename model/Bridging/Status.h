#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <tuple>

#include "Bridging/VlanId.h"
#include "Lanix/EthAddr.h"
#include "Lanix/IntfId.h"
#include "Memtab/Entity.h"
#include "Mox/Strep.h"

namespace Bridging {

// How a MAC table entry came to be.
enum class EntryType : std::uint16_t { none, learnedDynamic, staticEntry, evpnLearned, remote };

constexpr std::array<const char*, 5> moxEnumNames(EntryType) {
  return {"none", "learnedDynamic", "static", "evpnLearned", "remote"};
}

// The station is on a port of this switch.
constexpr bool isEntryTypeLocal(EntryType type) {
  return type == EntryType::learnedDynamic || type == EntryType::staticEntry;
}
// The entry comes from an EVPN MAC route.
constexpr bool isEntryTypeEvpn(EntryType type) { return type == EntryType::evpnLearned; }

// The key of a MAC table entry.
struct HostKey {
  Fid fid = 0;
  Lanix::EthAddr macAddress;

  static constexpr auto moxFields() {
    return std::tuple(Mox::Field("fid", &HostKey::fid), Mox::Field("mac", &HostKey::macAddress));
  }
  friend auto operator<=>(const HostKey&, const HostKey&) = default;
};

}  // namespace Bridging

namespace Memtab::Bridging {

// One entry of the MAC table; the default one stands for no entry.
struct MemtabFdbStatus {
  ::Bridging::EntryType entryType = ::Bridging::EntryType::none;
  Lanix::IntfId intf;

  // The station is on a port of this switch: not remote, and not learned from an EVPN route.
  constexpr bool isLocal() const {
    return ::Bridging::isEntryTypeLocal(entryType) && !::Bridging::isEntryTypeEvpn(entryType);
  }

  static constexpr auto moxFields() {
    return std::tuple(Mox::Field("entryType", &MemtabFdbStatus::entryType),
                      Mox::Field("intf", &MemtabFdbStatus::intf));
  }
  friend bool operator==(const MemtabFdbStatus&, const MemtabFdbStatus&) = default;
};

// The MAC address table, in shared memory at "bridging/status".
class Status final : public Memtab::Entity {
 public:
  MEMTAB_COLLECTION(::Bridging::HostKey, MemtabFdbStatus, fdb)
  MEMTAB_MEMBERS(fdb)
};

}  // namespace Memtab::Bridging
