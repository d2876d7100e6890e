#pragma once

#include <compare>
#include <cstdint>
#include <tuple>

#include "Bridging/VlanId.h"
#include "Lanix/EthAddr.h"
#include "Lanix/IpGenAddr.h"
#include "Memtab/Entity.h"
#include "Mox/Strep.h"

namespace ArpSuppression {

// What a remote binding is known by: a VLAN and an IPv4 or IPv6 address in it.
struct RemoteBindingKey {
  Bridging::VlanId vlanId;
  Lanix::IpGenAddr ipAddress;
  std::uint8_t padding = 0;  // explicit: keys in shared memory are compared by their bytes

  static constexpr auto moxFields() {
    return std::tuple(Mox::Field("vlan", &RemoteBindingKey::vlanId),
                      Mox::Field("ip", &RemoteBindingKey::ipAddress));
  }
  friend auto operator<=>(const RemoteBindingKey&, const RemoteBindingKey&) = default;
  std::uint64_t hash(std::uint64_t seed) const { return Mox::hashMix(ipAddress.hash(seed), vlanId.value()); }
  explicit operator bool() const { return *this != RemoteBindingKey{}; }
};

// A MAC/IP route of another switch. The zero MAC means that there is no binding.
struct RemoteBinding {
  Lanix::EthAddr macAddress;
  // The host sits on an Ethernet segment that this switch is attached to as well.
  bool localMultihomed = false;

  static constexpr auto moxFields() {
    return std::tuple(Mox::Field("mac", &RemoteBinding::macAddress),
                      Mox::Field("localMultihomed", &RemoteBinding::localMultihomed));
  }
  friend bool operator==(const RemoteBinding&, const RemoteBinding&) = default;
  explicit operator bool() const { return !macAddress.isZero(); }
};

// In shared memory at "arpSuppression/remoteBindingConfig/evpn".
class RemoteBindingConfig final : public Memtab::Entity {
 public:
  MEMTAB_COLLECTION(RemoteBindingKey, RemoteBinding, remoteBinding)
  MEMTAB_MEMBERS(remoteBinding)
};

}  // namespace ArpSuppression
