#include "ArpSuppression/BindingDiscoveryVgwReplySm.h"

#include <utility>

#include "ArpSuppression/BindingDiscoverySm.h"
#include "ArpSuppression/Trace.h"
#include "Lanix/Bytes.h"
#include "Lanix/Wire.h"

namespace ArpSuppression {

namespace {

constexpr char kSource[] = "ArpSuppression/BindingDiscoverySm";

using Id = ArpSuppressionCounterId;

}  // namespace

BindingDiscoveryVgwReplySm::BindingDiscoveryVgwReplySm(
    Ptr<Orb::TaskScheduler> scheduler, Ptr<const VlanL3Info> vlanL3Info,
    Ptr<ArpSuppressionCounterStatus> arpSuppressionCounterStatus,
    Ptr<const Routing::Fhrp::VirtualRouterMacStatus> fhrpVrMacStatus, BindingDiscoverySm* bindingDiscoverySm)
    : WalkSmBase(std::move(scheduler), "VgwReply-" + vlanL3Info->intfName()),
      vlanL3Info_(std::move(vlanL3Info)),
      arpSuppressionCounterStatus_(std::move(arpSuppressionCounterStatus)),
      fhrpVrMacStatus_(std::move(fhrpVrMacStatus)),
      bindingDiscoverySm_(bindingDiscoverySm) {
  vlanL3Info_.on(VlanL3Info::kniIntfIfIndexChanged, [this] { handleKniIntfIfIndex(); });
  arpReplyRxPam_.on(SafeEthDevPam::readableCountChanged, [this] { handleArpReplyRxPamReadable(); });
  handleKniIntfIfIndex();
}

bool BindingDiscoveryVgwReplySm::listensOn(const VlanL3Info& vlanL3Info) const {
  return vlanL3Info_.get() == &vlanL3Info && arpReplyRxPam_ &&
         arpReplyRxPam_->netNs() == vlanL3Info.vrfInfo()->netNs();
}

void BindingDiscoveryVgwReplySm::handleKniIntfIfIndex() {
  const bool needPam = vlanL3Info_->usable();
  TRACE8("vlanL3Info=" << vlanL3Info_.notifier() << " needPam=" << needPam
                       << " arpReplyRxPam=" << arpReplyRxPam_.notifier());
  // A device of the same name with another index is another device.
  const bool otherDevice = arpReplyRxPam_ && openedIfIndex_ != vlanL3Info_->kniIntfIfIndex();
  if (static_cast<bool>(arpReplyRxPam_) == needPam && !otherDevice) return;
  arpReplyRxPamDel();
  if (!needPam) return;
  openedIfIndex_ = vlanL3Info_->kniIntfIfIndex();
  arpReplyRxPamIs(safeEthDevPamFactory(vlanL3Info_->kniIntfName(), Lanix::kEtherTypeArp,
                                       vlanL3Info_->vrfInfo()->netNs(), scheduler()));
}

void BindingDiscoveryVgwReplySm::handleArpReplyRxPamReadable() {
  TRACE8("readableCount=" << arpReplyRxPam_->readableCount() << " scheduled=" << walkScheduled());
  if (!walkScheduled()) scheduleWalk();
}

void BindingDiscoveryVgwReplySm::traceEvent(const char* event) { TRACE8("event=" << event); }

Orb::WalkRet BindingDiscoveryVgwReplySm::walk() {
  Orb::WalkRet ret;
  LifeGuard guard(*this);
  while (arpReplyRxPam_) {
    const Ptr<Lanix::Pkt> pkt = arpReplyRxPam_->rxPkt();
    if (!pkt) break;
    // Nothing wakes the walk for packets that an error would leave behind.
    scheduler()->loop().dispatch("BindingDiscoveryVgwReplySm", [&] { processPacket(pkt); });
    ++ret.processed;
    if (!guard.alive()) break;
    if (mustYield()) {
      ret.moreWork = true;
      break;
    }
  }
  return ret;
}

void BindingDiscoveryVgwReplySm::processPacket(const Ptr<Lanix::Pkt>& pkt) {
  const auto malformed = [&](const char* why) {
    TRACE8(why << " data=" << pkt);
    count(Id::vgwReplyMalformed);
  };
  Lanix::ByteCursor cursor(std::as_const(*pkt).headData());
  const auto eth = cursor.read<Lanix::EthHdr>();
  if (!eth) return malformed("not enough data for EthHdr");
  if (eth->type != Lanix::kEtherTypeArp) return malformed("not an ARP packet");
  const auto arp = cursor.read<Lanix::ArpIp4>();
  if (!arp) return malformed("not enough data for EthArpIpHdr");
  if (arp->hardwareType != Lanix::ArpIp4::kEthernet || arp->protocolType != Lanix::kEtherTypeIpv4 ||
      arp->hardwareSize != 6 || arp->protocolSize != 4) {
    return malformed("invalid ARP header");
  }
  if (arp->operation != Lanix::ArpIp4::kReply) {
    TRACE8("ARP packet not a reply opcode=" << std::uint16_t{arp->operation} << " data=" << pkt);
    return count(Id::vgwReplyNotReply);
  }
  if (cursor.remaining() != 0) {
    TRACE8("ARP reply has extra data len=" << pkt->size());
    return count(Id::vgwReplyExtraData);
  }
  const Lanix::EthAddr& vgwVirtualMac = fhrpVrMacStatus_->vgwVirtualMac();
  if (arp->targetMac != vgwVirtualMac) {
    TRACE8("ARP reply not destined to VGW MAC targetEthAddr=" << arp->targetMac
                                                              << " vgwVirtualMac=" << vgwVirtualMac);
    return count(Id::vgwReplyNotVirtualMac);
  }
  count(Id::vgwReplyAccepted);
  bindingDiscoverySm_->createLocalBinding(vlanL3Info_->vlanId(), Lanix::IpGenAddr(arp->senderIp),
                                          arp->senderMac, true);
}

Mox::String BindingDiscoveryVgwReplySm::toStrep() const {
  return "<BindingDiscoveryVgwReplySm " + vlanL3Info_->toStrep() + ">";
}

void BindingDiscoveryVgwReplySm::dumpState(Orb::DumpContext& context, int indent) const {
  context.line(indent, "BindingDiscoveryVgwReplySm");
  context.attribute(indent, "vlanL3Info", vlanL3Info_->toStrep());
  context.child(indent + 2, arpReplyRxPam_.notifier(), "SafeEthDevPam");
}

}  // namespace ArpSuppression
