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

// Who says that there is a remote binding: people (the configuration's `bindings`, or by hand), or the feed of
// the fabric's routes, which the switch's routing daemon keeps in the kernel as well.
enum class BindingSource : std::uint8_t { people, feed };

// A MAC/IP route of another switch. The zero MAC means that there is no binding.
struct RemoteBinding {
  Lanix::EthAddr macAddress;
  // The host sits on an Ethernet segment that this switch is attached to as well.
  bool localMultihomed = false;
  // No part of the text form: whoever writes a binding as text is people.
  BindingSource source = BindingSource::people;
  // The host is an IPv6 router, as its neighbour advertisements say.
  bool router = false;

  static constexpr auto moxFields() {
    return std::tuple(Mox::Field("mac", &RemoteBinding::macAddress),
                      Mox::Field("localMultihomed", &RemoteBinding::localMultihomed),
                      Mox::Field("router", &RemoteBinding::router));
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
