#include "ArpSuppression/ArpInputConfigSm.h"
#include "ArpSuppression/Trace.h"
#include "Mox/Assert.h"

// The walk of ArpInputConfigSm, and what it shows of itself.

namespace ArpSuppression {

namespace {
constexpr char kSource[] = "ArpSuppression/ArpInputConfigSm";
constexpr std::size_t kLookAhead = 16;
}  // namespace

Mox::String ArpInputConfigBookmark::toStrep() const {
  return "Value('ArpSuppression::ArpInputConfigBookmark', ** {'vrfName': " + vrfName +
         ", 'ipAddress': " + ipAddress.toStrep() + ", 'intfId': " + intfId.toStrep() + "})";
}

Orb::WalkRet ArpInputConfigSm::walk() {
  TRACE8("walkStage=" << walkStage_);
  switch (walkStage_) {
    case WalkStage::walkLocalBindingRecord:
      return bindingWalk(localBindingRecord_->bindingCollection(), localBindingRecordBookmark_,
                         WalkStage::walkRemoteBindingStatus);
    case WalkStage::walkRemoteBindingStatus:
      return bindingWalk(remoteBindingStatus_->ipToMacCollection(), remoteBindingStatusBookmark_,
                         WalkStage::walkArpInputConfig);
    case WalkStage::walkArpInputConfig:
      return arpInputConfigWalk();
  }
  return {};
}

// A decision changes none of the two tables, so that the position holds for the whole slice.
template <class Bindings>
Orb::WalkRet ArpInputConfigSm::bindingWalk(const Bindings& bindings, VrfIpAddress& bookmark, WalkStage next) {
  Orb::WalkRet ret{0, true};
  auto at = bookmark ? bindings.lowerBound(bookmark) : bindings.begin();
  bookmark = {};
  while (at != bindings.end() && !bookmark) {
    scheduler()->loop().dispatch("ArpInputConfigSm", [&] {
      if constexpr (std::is_convertible_v<decltype(*at), const Ptr<RemoteIpToMac>&>) {
        decide((*at)->vrfIpAddress(), false, *at);
      } else {
        updateVrfIpAddress((*at)->vrfIpAddress(), false);
      }
    });
    ++ret.processed;
    if (++at != bindings.end() && mustYield()) bookmark = (*at)->vrfIpAddress();
  }
  TRACE8("finished processed=" << ret.processed << " done=" << !bookmark);
  if (!bookmark) walkStage_ = next;
  return ret;
}

Orb::WalkRet ArpInputConfigSm::arpInputConfigWalk() {
  Orb::WalkRet ret;
  if (!vlanL3InfoStatus_->initialArpSuppressionStatusSync() ||
      !remoteBindingStatus_->initialPopulationComplete())
    return ret;  // either one starts the walk again
  ArpInputConfigBookmark from = std::exchange(arpInputConfigBookmark_, {});
  const auto& vrfs = arpInputConfig_->vrfCollection();
  auto at = from ? vrfs.lowerBound(from.vrfName) : vrfs.begin();
  if (from && !arpInputConfig_->vrfHas(from.vrfName)) {
    TRACE8("Missing bookmared VRF vrfName=" << from.vrfName);
    from = {};
  }
  while (at != vrfs.end()) {
    const auto [vrfName, config] = *at;  // the member may go
    if (const Ptr<VrfInfo> vrfInfo = vlanL3InfoStatus_->vrfInfo(vrfName)) {
      if (!vrfWalk(config, vrfInfo, from, ret)) {
        ret.moreWork = true;
        return ret;
      }
      if (config->ipv4s() == 0 && config->ipv6s() == 0 && arpInputConfig_->vrfDel(vrfName))
        TRACE8("Cleaned up VRF vrfName=" << vrfName);
    } else if (!takingOver_) {
      TRACE8("missing vrfIinfo vrfName=" << vrfName);
      arpInputConfig_->vrfDel(vrfName);
      ++ret.processed;
    }
    from = {};
    at = vrfs.upperBound(vrfName);
    if (at != vrfs.end() && mustYield()) {
      arpInputConfigBookmark_ = {at->first, {}, {}};
      ret.moreWork = true;
      return ret;
    }
  }
  MOX_ASSERT(kSource, "!arpInputConfigBookmark()", !arpInputConfigBookmark());
  TRACE8("finished processed=" << ret.processed << " done=" << !ret.moreWork);
  return ret;
}

bool ArpInputConfigSm::vrfWalk(const Ptr<Arp::ArpInputVrfConfig>& config, const Ptr<VrfInfo>& vrfInfo,
                               const ArpInputConfigBookmark& from, Orb::WalkRet& ret) {
  const auto& ipv4 = config->ipv4Collection();
  const auto& ipv6 = config->ipv6Collection();
  // A decision may remove the entry it is about, and others of its address: the next one is found by key.
  // One of a binding was decided in the stages before, or since.
  const auto step = [&](const auto& entries, auto at, const VrfIpAddress& vrfIpAddress) {
    ++ret.processed;
    if (remoteBindingStatus_->ipToMacHas(vrfIpAddress) || localBindingRecord_->bindingHas(vrfIpAddress))
      return ++at;
    const auto key = at->key;
    scheduler()->loop().dispatch("ArpInputConfigSm", [&] { updateVrfIpAddress(vrfIpAddress, false); });
    auto next = entries.lowerBound(key);
    if (next != entries.end() && next->key == key) ++next;
    return next;
  };

  const auto keyOf4 = [&](const Lanix::IpAddr& address) { return VrfIpAddress{vrfInfo, address, {}}; };
  // Every so many entries what is looked up for the next ones is brought into the cache.
  auto lookAhead = [&, ahead = std::size_t{0}](auto first) mutable {
    if (ahead == 0) {
      const auto& bindings = remoteBindingStatus_->ipToMacCollection();
      for (auto at = first; at != ipv4.end() && ahead < kLookAhead; ++at, ++ahead)
        bindings.prefetch(keyOf4(at->key));
      for (std::size_t i = 0; i < ahead; ++i, ++first) bindings.prefetchChild(keyOf4(first->key));
    }
    --ahead;
  };

  const bool inIpv6 = from.ipAddress && !from.ipAddress.isIpv4();
  if (!inIpv6) {
    auto at = from.ipAddress ? ipv4.lowerBound(from.ipAddress.ipv4()) : ipv4.begin();
    while (at != ipv4.end()) {
      lookAhead(at);
      at = step(ipv4, at, keyOf4(at->key));
      if (!mustYield()) continue;
      if (at != ipv4.end()) {
        arpInputConfigBookmark_ = {config->vrfName(), at->key, {}};
      } else if (!ipv6.empty()) {
        arpInputConfigBookmark_ = {config->vrfName(), ipv6.begin()->key.addr, ipv6.begin()->key.intf};
      } else {
        break;  // the next VRF is the caller's
      }
      TRACE8("ipv4 walk suspended "
             << " processed=" << ret.processed << " bookmark=" << arpInputConfigBookmark_);
      return false;
    }
  }
  if (inIpv6) {
    MOX_ASSERT(kSource, "arpInputConfigBookmark().ipAddress().af() == Lanix::AddressFamily::ipv6_",
               from.ipAddress.af() == Lanix::AddressFamily::ipv6_);
  }
  auto at = inIpv6 ? ipv6.lowerBound({from.ipAddress.ipv6(), from.intfId}) : ipv6.begin();
  while (at != ipv6.end()) {
    const Arp::NeighborEntryKey key = at->key;
    at = step(ipv6, at, {vrfInfo, key.addr, key.addr.isLinkLocal() ? key.intf : Lanix::IntfId()});
    if (at == ipv6.end() || !mustYield()) continue;
    arpInputConfigBookmark_ = {config->vrfName(), at->key.addr, at->key.intf};
    TRACE8("ipv6 walk suspended "
           << " processed " << ret.processed << " bookmark=" << arpInputConfigBookmark_);
    return false;
  }
  return true;
}

void ArpInputConfigSm::dumpState(Orb::DumpContext& context, int indent) const {
  context.line(indent, "ArpInputConfigSm");
  context.attribute(indent, "walkStage", Mox::toStrep(walkStage_));
  context.attribute(indent, "localBindingRecordBookmark",
                    localBindingRecordBookmark_ ? localBindingRecordBookmark_.toStrep() : "none");
  context.attribute(indent, "remoteBindingStatusBookmark",
                    remoteBindingStatusBookmark_ ? remoteBindingStatusBookmark_.toStrep() : "none");
  context.attribute(indent, "arpInputConfigBookmark",
                    arpInputConfigBookmark_ ? arpInputConfigBookmark_.toStrep() : "none");
  context.line(indent, "localMultihomedRemoteBinding #" + std::to_string(localMultihomedRemoteBindings()));
  for (const auto& [key, station] : localMultihomedRemoteBindingCollection())
    context.line(indent + 2, key.toStrep() + " " + station.toStrep());
  context.line(indent, "vrf #" + std::to_string(arpInputConfig_->vrfs()));
  for (const auto& [vrfName, config] : arpInputConfig_->vrfCollection()) {
    context.line(indent + 2, vrfName + " #ipv4=" + std::to_string(config->ipv4s()) +
                                 " #ipv6=" + std::to_string(config->ipv6s()));
  }
  context.child(indent + 2, arpInputConfigTrigger_.notifier(), "ArpInputConfigTrigger");
  context.child(indent + 2, localBindingRecord_.notifier(), "LocalBindingRecord");
  context.child(indent + 2, remoteBindingStatus_.notifier(), "RemoteBindingStatus");
  context.child(indent + 2, vlanL3InfoStatus_.notifier(), "VlanL3InfoStatus");
}

}  // namespace ArpSuppression
