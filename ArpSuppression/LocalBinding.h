#pragma once

#include <cstdint>
#include <map>

#include "ArpSuppression/BindingKeys.h"
#include "ArpSuppression/VrfUseTracker.h"

namespace ArpSuppression {

// One address of a host that is attached to this switch. Made by the record only.
class LocalBinding final : public Mox::Entity {
 public:
  LocalBinding(VrfIpAddress vrfIpAddress, VlanIdMacAddress vlanIdMacAddress, bool confirmed = true)
      : vrfIpAddress_(std::move(vrfIpAddress)), vlanIdMacAddress_(vlanIdMacAddress), confirmed_(confirmed) {}
  const VrfIpAddress& vrfIpAddress() const { return vrfIpAddress_; }
  const VlanIdMacAddress& vlanIdMacAddress() const { return vlanIdMacAddress_; }

  // The kernel has a dynamic neighbour for the address as well.
  MOX_ATTRIBUTE(bool, arpStatusHasDynamicEntry, false)

  // The station was heard with the address, on this switch. False: it had the address on another switch, and is
  // asked for it.
  bool confirmed() const { return confirmed_; }
  void confirmedIs() { confirmed_ = true; }

  // For people: when the address got this station, when that was heard last, and how often the address had
  // changed its station before. In whole seconds on the event loop's clock.
  struct History {
    std::uint32_t since = 0;
    std::uint32_t heard = 0;
    std::uint32_t moves = 0;
  };
  const History& history() const { return history_; }
  void historyIs(const History& history) { history_ = history; }
  void heardAt(double now) { history_.heard = static_cast<std::uint32_t>(now); }

  // "<...;...;dynSt=no >"
  Mox::String toStrep() const;
  void dumpState(Orb::DumpContext& context, int indent) const;

 private:
  VrfIpAddress vrfIpAddress_;
  VlanIdMacAddress vlanIdMacAddress_;
  bool confirmed_;
  History history_;
};

// The addresses of one local station; there is at least one.
class LocalMacToIp final : public Mox::Entity {
 public:
  explicit LocalMacToIp(VlanIdMacAddress vlanIdMacAddress) : vlanIdMacAddress_(vlanIdMacAddress) {}
  const VlanIdMacAddress& vlanIdMacAddress() const { return vlanIdMacAddress_; }

  MOX_MAP(VrfIpAddress, Ptr<LocalBinding>, binding)
  // Under the binding's own key.
  void bindingIs(const Ptr<LocalBinding>& binding) { bindingIs(binding->vrfIpAddress(), binding); }
  // Where the station was heard or seen last; the empty one while that is not known.
  const Lanix::IntfId& port() const { return port_; }

  Mox::String toStrep() const;
  void dumpState(Orb::DumpContext& context, int indent) const;

 private:
  friend class LocalBindingRecord;
  VlanIdMacAddress vlanIdMacAddress_;
  Lanix::IntfId port_;
};

// The bindings of hosts on this switch, by address and by station. Each address has one binding; a station
// may have many. Bindings come and go through createLocalBinding and deleteLocalBinding only, which keep both
// indexes and the counts by VRF, VLAN and port together. Nothing ages here. Watchers hear of a binding when it is in `binding`,
// before it is in `macToIp`; they must not create or delete the very binding that they are told of.
class LocalBindingRecord final : public VrfUseTracker {
 public:
  explicit LocalBindingRecord(Ptr<VlanL3InfoStatus> vlanL3InfoStatus)
      : VrfUseTracker(std::move(vlanL3InfoStatus)) {}
  ~LocalBindingRecord() override;

  MOX_HASH_CHILDREN(VrfIpAddress, LocalBinding, vrfIpAddress, binding)
  MOX_HASH_CHILDREN(VlanIdMacAddress, LocalMacToIp, vlanIdMacAddress, macToIp)

  // Replaces a binding of the same address, one to the same station too: watchers see it go and come.
  Ptr<LocalBinding> createLocalBinding(const VrfIpAddress& vrfIpAddress,
                                       const VlanIdMacAddress& vlanIdMacAddress, bool confirmed = true);
  // The binding must be the record's.
  void deleteLocalBinding(const Ptr<LocalBinding>& binding);

  // Notes the port of a station that has bindings; of others nothing is known here. Returns the port before, or
  // this one when there is nothing to note.
  Lanix::IntfId portIs(const VlanIdMacAddress& vlanIdMacAddress, const Lanix::IntfId& port);

  // The empty one while it is not known.
  Lanix::IntfId portOf(const VlanIdMacAddress& vlanIdMacAddress) const {
    const Ptr<const LocalMacToIp> ofMac = macToIp(vlanIdMacAddress);
    return ofMac ? ofMac->port() : Lanix::IntfId();
  }
  // How many bindings the stations on a port have. Not those whose port is not known.
  std::size_t bindingsOfPort(const Lanix::IntfId& port) const;
  // How many bindings VLANs have; those without any are left out.
  const std::map<Bridging::VlanId, std::size_t>& bindingsOfVlans() const { return bindingsOfVlans_; }

  Mox::String toStrep() const { return "<LocalBindingRecord>"; }
  void dumpState(Orb::DumpContext& context, int indent) const;

 private:
  void countAtPort(const Lanix::IntfId& port, std::size_t more, std::size_t fewer);

  std::map<Bridging::VlanId, std::size_t> bindingsOfVlans_;
  std::map<Lanix::IntfId, std::size_t> bindingsOfPorts_;  // likewise
};

inline Ptr<LocalBindingRecord> localBindingRecordFactory(const Ptr<VlanL3InfoStatus>& vlanL3InfoStatus) {
  return Mox::make<LocalBindingRecord>(vlanL3InfoStatus);
}

}  // namespace ArpSuppression
