#pragma once

#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

#include "Lanix/EthAddr.h"
#include "Lanix/IntfId.h"
#include "Lanix/IpGenPrefix.h"
#include "Lanix/NamespaceName.h"
#include "Mox/Attribute.h"
#include "Netlink/Mirror.h"
#include "Netlink/Route.h"
#include "Vrf/VrfId.h"

// The plug-in's own tables: what its reactors tell each other. They hold kernel terms (indices, device
// names); the published state is made of them.

namespace KernelState {

using Mox::Ptr;
using Netlink::IfIndex;
using Netlink::kRoomRetry;
using Netlink::Mirror;
using Netlink::Table;
using Netlink::Tally;
using Netlink::Word;

// One kernel device.
struct Link {
  Mox::String name;
  Lanix::EthAddr mac;         // zero: not an Ethernet device
  bool isVrf = false;         // a VRF device
  bool filtersVlans = false;  // a bridge that does
  IfIndex vrfDevice = 0;      // the one that it is below; 0: none
  IfIndex bridge = 0;         // the one that it is a port of; 0: none
  // An 802.1Q device: its VLAN, and the index of the device below it in whatever namespace that is.
  std::uint16_t vlanId = 0;
  IfIndex lower = 0;
  IfIndex otherEnd = 0;  // of a veth pair that leads into another namespace, by its index there
  friend bool operator==(const Link&, const Link&) = default;
};

// The IPv4 addresses of one device: the primary ones first, each group in the kernel's order.
using Addresses = std::vector<Lanix::IpGenPrefix>;

// What is known of one network namespace. Its NamespaceSm writes it; it empties when the namespace goes.
class NamespaceState final : public Mox::Entity {
 public:
  explicit NamespaceState(Lanix::NamespaceName name) : name_(std::move(name)) {}
  const Lanix::NamespaceName& name() const { return name_; }

  // A device that is renamed goes and comes: a key's name never changes in place.
  MOX_MAP(IfIndex, Link, link)
  // By name. Comes after the link, and goes before it.
  MOX_MAP(Mox::String, IfIndex, device)
  MOX_MAP(IfIndex, Addresses, addresses)
  // The namespace was entered and its devices are published.
  MOX_ATTRIBUTE(bool, entered, false)
  // Every table of the namespace was read to its end, with or without success: nothing is gained by waiting.
  MOX_ATTRIBUTE(bool, attempted, false)
  // Every table was read with success.
  MOX_ATTRIBUTE(bool, synced, false)
  // The namespace may well be there, but the kernel refuses to show it: nothing is known to have gone.
  MOX_ATTRIBUTE(bool, refused, false)

 private:
  Lanix::NamespaceName name_;
};

class NamespaceStates final : public Mox::Entity {
 public:
  MOX_CHILDREN(Lanix::NamespaceName, NamespaceState, state)
  // Every namespace that was there at start has been read.
  MOX_ATTRIBUTE(bool, started, false)
};

// A VRF; without a name: none.
struct VrfIdentity {
  Mox::String name;
  Vrf::VrfIdMap::VrfId id = Vrf::VrfIdMap::kNoVrfId;
  explicit operator bool() const { return !name.empty(); }
  friend bool operator==(const VrfIdentity&, const VrfIdentity&) = default;
};

// Where the VRFs are: the one that each namespace is, and, within the default namespace, the one that each
// VRF device is, whether it is there or not.
class VrfPlaces final : public Mox::Entity {
 public:
  MOX_MAP(Lanix::NamespaceName, VrfIdentity, vrf)
  MOX_MAP(Mox::String, VrfIdentity, deviceVrf)
};

// The device that is a VLAN interface, of those that have its name in one namespace or another, and its VRF.
struct VlanOwner {
  Lanix::NamespaceName netNs;
  IfIndex ifIndex = 0;
  Lanix::EthAddr mac;
  VrfIdentity vrf;
  friend bool operator==(const VlanOwner&, const VlanOwner&) = default;
};

class VlanOwners final : public Mox::Entity {
 public:
  MOX_MAP(Lanix::IntfId, VlanOwner, owner)
};

// The VLAN interface that a kernel device of that name is: "vlan10" is Vlan10, "Vlan10" and "vlan4095" are
// none.
std::optional<Lanix::IntfId> vlanInterfaceOf(std::string_view deviceName);

}  // namespace KernelState
