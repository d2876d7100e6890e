#pragma once

#include "ArpSuppression/BindingKeys.h"
#include "ArpSuppression/VrfUseTracker.h"
#include "Mox/Dense.h"
#include "Mox/SmallSet.h"
#include "Suppression/RemoteBindingConfig.h"

namespace ArpSuppression {

// The remote stations that claim one address: more than one only while it moves, or through several VLANs of
// a VRF. They stand in order of arrival, and the first one counts until it is withdrawn.
class RemoteIpToMac final : public Mox::Entity, public Mox::Dense<RemoteIpToMac> {
 public:
  explicit RemoteIpToMac(VrfIpAddress vrfIpAddress) : vrfIpAddress_(std::move(vrfIpAddress)) {}
  const VrfIpAddress& vrfIpAddress() const { return vrfIpAddress_; }

  // The flag: the host sits on an Ethernet segment that this switch is attached to as well.
  MOX_SMALL_MAP(VlanIdMacAddress, bool, vlanIdMacAddress)

  // There must be one.
  const VlanIdMacAddress& firstVlanIdMacAddress() const;
  bool isFirstVlanIdMacAddressLocalMultihomed() const;

  Mox::String toStrep() const;
  void dumpState(Orb::DumpContext& context, int indent) const;

 private:
  VrfIpAddress vrfIpAddress_;
};

// The addresses of one remote station. Nobody watches it.
class RemoteMacToIp final : public Mox::Referenced, public Mox::Dense<RemoteMacToIp> {
 public:
  explicit RemoteMacToIp(VlanIdMacAddress vlanIdMacAddress) : vlanIdMacAddress_(vlanIdMacAddress) {}
  const VlanIdMacAddress& vlanIdMacAddress() const { return vlanIdMacAddress_; }

  void ipAddressIs(const Lanix::IpGenAddr& ipAddress) { ipAddress_.insert(ipAddress); }
  bool ipAddressDel(const Lanix::IpGenAddr& ipAddress) { return ipAddress_.erase(ipAddress); }
  void ipAddressDelAll() { ipAddress_.clear(); }
  bool ipAddressHas(const Lanix::IpGenAddr& ipAddress) const { return ipAddress_.has(ipAddress); }
  std::size_t ipAddresss() const { return ipAddress_.size(); }
  const Mox::SmallSet<Lanix::IpGenAddr>& ipAddress() const { return ipAddress_; }

  Mox::String toStrep() const;
  void dumpState(Orb::DumpContext& context, int indent) const;

 private:
  VlanIdMacAddress vlanIdMacAddress_;
  Mox::SmallSet<Lanix::IpGenAddr> ipAddress_;
};

inline Ptr<RemoteMacToIp> remoteMacToIpFactory(const VlanIdMacAddress& vlanIdMacAddress) {
  return Mox::make<RemoteMacToIp>(vlanIdMacAddress);
}

// What other switches advertise, by address and by station. Written by RemoteBindingStatusSm only.
class RemoteBindingStatus final : public VrfUseTracker {
 public:
  explicit RemoteBindingStatus(Ptr<VlanL3InfoStatus> vlanL3InfoStatus)
      : VrfUseTracker(std::move(vlanL3InfoStatus)) {}

  MOX_HASH_CHILDREN(VlanIdMacAddress, RemoteMacToIp, vlanIdMacAddress, macToIp)
  MOX_HASH_CHILDREN(VrfIpAddress, RemoteIpToMac, vrfIpAddress, ipToMac)
  // The VLANs that have at least one remote binding.
  MOX_SET(Bridging::VlanId, vlanId)
  // The bindings that were there at start have been read once; never false again.
  MOX_ATTRIBUTE(bool, initialPopulationComplete, false)
  // Bindings are left out for want of room: those without an entry here are to be treated as if not advertised.
  MOX_ATTRIBUTE(bool, refusing, false)
  // Announces that the ipToMac entry of an address changed. It may be set to the default key in between:
  // watchers ignore that.
  MOX_ATTRIBUTE(VrfIpAddress, lastVrfIpAddressChange)

  // Whether the binding is among those of the status.
  bool has(const RemoteBindingKey& key, const RemoteBinding& binding) const {
    const Ptr<const RemoteMacToIp> station = macToIp({key.vlanId, binding.macAddress});
    return station && station->ipAddressHas(key.ipAddress);
  }

  Mox::String toStrep() const { return "<RemoteBindingStatus>"; }
  void dumpState(Orb::DumpContext& context, int indent) const;
};

}  // namespace ArpSuppression
