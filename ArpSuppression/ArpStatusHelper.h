#pragma once

#include "Arp/Table.h"
#include "ArpSuppression/VlanL3Info.h"

namespace ArpSuppression {

// Looks kernel neighbours up.
class ArpStatusHelper {
 public:
  explicit ArpStatusHelper(Ptr<const Arp::Table::Status> arpStatus) : arpStatus_(std::move(arpStatus)) {}

  // The empty entry when there is none. The address must be IPv4 or IPv6.
  Arp::Table::ArpEntry lookup(const Arp::Table::ArpKey& arpKey) const;
  // The key of an address on a VLAN's interface.
  static Arp::Table::ArpKey keyOf(const VlanL3Info& vlanL3Info, const Lanix::IpGenAddr& ipAddress) {
    return {vlanL3Info.vrfInfo()->vrfId(), ipAddress, vlanL3Info.vlanIntfId()};
  }
  // "static 02:00:00:00:00:01", or "N/A" for the empty entry.
  static Mox::String text(const Arp::Table::ArpEntry& entry);

 private:
  Ptr<const Arp::Table::Status> arpStatus_;
};

}  // namespace ArpSuppression
