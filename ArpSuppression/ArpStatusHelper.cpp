#include "ArpSuppression/ArpStatusHelper.h"

#include "Mox/Assert.h"

namespace ArpSuppression {

namespace {
constexpr char kSource[] = "ArpSuppression/ArpStatusHelper";
}

Arp::Table::ArpEntry ArpStatusHelper::lookup(const Arp::Table::ArpKey& arpKey) const {
  switch (arpKey.addr.af()) {
    case Lanix::AddressFamily::ipv4_:
    case Lanix::AddressFamily::ipv6_:
      return arpStatus_ ? arpStatus_->arpEntry(arpKey) : Arp::Table::ArpEntry{};
    default:
      MOX_ASSERT(kSource, "false", false);
      return {};
  }
}

Mox::String ArpStatusHelper::text(const Arp::Table::ArpEntry& entry) {
  if (entry == Arp::Table::ArpEntry{}) return "N/A";
  return (entry.isStatic ? "static " : "") + entry.mac.toStrep();
}

}  // namespace ArpSuppression
