#include "ArpSuppression/BindingDiscoverySm.h"

#include <utility>
#include <vector>

#include "ArpSuppression/Trace.h"
#include "Mox/Assert.h"
#include "Orb/FeatureSwitch.h"
#include "Switch/Event.h"

namespace ArpSuppression {

namespace {

constexpr char kSource[] = "ArpSuppression/BindingDiscoverySm";
constexpr unsigned kSilenceLevel = 3;

using Id = ArpSuppressionCounterId;

// Hosts that a peer on their Ethernet segment advertises are left to the peer.
bool localMultihomeSelectiveArpInstall() {
  static Orb::FeatureSwitch feature("ArpSuppression.json", "LocalMultihomeSelectiveArpInstall", true);
  return feature.enabled();
}

}  // namespace

BindingDiscoverySm::BindingDiscoverySm(
    Ptr<Orb::TaskSchedulerRoot> taskSchedulerRoot, Ptr<const MessageTrap> receivedRequestTrap,
    Ptr<const Bridging::Config> bridgingConfig, Ptr<const Memtab::Bridging::Status> bridgingStatus,
    Ptr<ArpSuppressionCounterStatus> arpSuppressionCounterStatus, Ptr<VlanL3InfoStatus> vlanL3InfoStatus,
    Ptr<const RemoteBindingStatus> remoteBindingStatus, const Ptr<const Arp::Table::Status>& /*arpStatus*/,
    Ptr<const Routing::Fhrp::VirtualRouterMacStatus> fhrpVrMacStatus,
    const Ptr<const Arp::ArpInputConfig>& /*arpInputConfig*/, Ptr<LocalBindingRecord> localBindingRecord,
    Ptr<const Evpn::EvpnStatus> evpnStatus, Ptr<ArpInputConfigTrigger> arpInputConfigTrigger,
    const Ptr<const Limits>& limits, Ptr<const Arp::Confirmation> confirmation)
    : taskSchedulerRoot_(std::move(taskSchedulerRoot)),
      receivedRequestTrap_(std::move(receivedRequestTrap)),
      bridgingConfig_(std::move(bridgingConfig)),
      bridgingStatus_(std::move(bridgingStatus)),
      arpSuppressionCounterStatus_(std::move(arpSuppressionCounterStatus)),
      vlanL3InfoStatus_(std::move(vlanL3InfoStatus)),
      remoteBindingStatus_(std::move(remoteBindingStatus)),
      fhrpVrMacStatus_(std::move(fhrpVrMacStatus)),
      localBindingRecord_(std::move(localBindingRecord)),
      evpnStatus_(std::move(evpnStatus)),
      arpInputConfigTrigger_(std::move(arpInputConfigTrigger)),
      confirmation_(std::move(confirmation)),
      silenceTask_(taskSchedulerRoot_->scheduler(), "BindingDiscoverySm silence", kSilenceLevel,
                   [this] { handleSilence(); }),
      loop_(taskSchedulerRoot_->loop()),
      room_(loop_, limits ? limits : Mox::make<Limits>(), localBindingRecord_, arpSuppressionCounterStatus_),
      conflicts_(loop_, vlanL3InfoStatus_.notifier(), remoteBindingStatus_.notifier(), localBindingRecord_,
                 bridgingStatus_.notifier(), arpSuppressionCounterStatus_) {
  receivedRequestTrap_.on(MessageTrap::lastTrappedMessageChanged, [this] { handleTrappedRequest(); });
  bridgingStatus_.on(Memtab::Bridging::Status::fdbChanged,
                     [this](const Bridging::HostKey& hostKey) { handleFdbStatus(hostKey); });
  vlanL3InfoStatus_.on(VlanL3InfoStatus::updatedVlanIdChanged, [this](Bridging::VlanIdOrNone vlanId) {
    if (vlanId) handleVlanL3Info(Bridging::VlanId(vlanId.value()));
  });
  remoteBindingStatus_.on(RemoteBindingStatus::lastVrfIpAddressChangeChanged,
                          [this] { handleRemoteBinding(); });
  fhrpVrMacStatus_.on(Routing::Fhrp::VirtualRouterMacStatus::vgwVirtualMacChanged,
                      [this] { handleVgwVirtualMac(); });
  confirmation_.on(Arp::Confirmation::silentChanged, [this](const Arp::HostAddress& address) {
    silent_.push_back(address);
    silenceTask_.schedule();
  });
  handleInitialized();
}

void BindingDiscoverySm::handleInitialized() {
  TRACE8("");
  handleVgwVirtualMac();
}

// --- Bindings --------------------------------------------------------------------------------------------

void BindingDiscoverySm::createLocalBinding(Bridging::VlanId vlanId, const Lanix::IpGenAddr& ipAddress,
                                            const Lanix::EthAddr& macAddress, bool bindingDiscoveryEvent,
                                            const Lanix::IntfId& heardOn) {
  TRACE8("vlanId=" << vlanId << " ipAddress=" << ipAddress << " macAddress=" << macAddress
                   << " bindingDiscoveryEvent=" << bindingDiscoveryEvent);
  if (macAddress.isZero() || macAddress.isMulticast()) return count(Id::discoveryBadMac);
  if (!ipAddress || ipAddress.isUnspecified() || ipAddress.isMulticast()) return count(Id::discoveryBadIp);
  if (macAddress == bridgingConfig_->bridgeMacAddr()) {
    TRACE8("Not adding binding for bridgeMacAddr");
    return count(Id::discoveryBridgeMac);
  }
  if (macAddress == fhrpVrMacStatus_->vgwVirtualMac()) {
    TRACE8("Not adding binding for vgwVirtualMac");
    return count(Id::discoveryVirtualRouterMac);
  }
  const Ptr<VlanL3Info> vlanL3Info = vlanL3InfoStatus_->usableVlanL3InfoNonConst(vlanId);
  if (!vlanL3Info) {
    TRACE8("No vlanL3Info vlanId=" << vlanId);
    return count(Id::discoveryNoVlanL3Info);
  }
  const VrfIpAddress vrfIpAddress = VrfIpAddress::fromVlanL3Info(*vlanL3Info, ipAddress);
  const VlanIdMacAddress vlanIdMacAddress{vlanId, macAddress};
  const Ptr<LocalBinding> existing = localBindingRecord_->binding(vrfIpAddress);
  if (existing && existing->vlanIdMacAddress() == vlanIdMacAddress) {
    count(Id::localBindingAlreadyPresent);
    existing->heardAt(loop_.now());
    if (bindingDiscoveryEvent) existing->confirmedIs();
    arpInputConfigTrigger_->event(vrfIpAddress, false);
    return;
  }
  const Lanix::IntfId port = heardOn ? heardOn : bridgingStatus_->fdb({vlanId.value(), macAddress}).intf;
  if (!existing && !room_.forOneMore(port)) {
    TRACE8("No room vrfIpAddress=" << vrfIpAddress << " port=" << port);
    return;
  }
  const auto before = existing ? std::optional(existing->vlanIdMacAddress()) : std::nullopt;
  const Lanix::IntfId portBefore = before ? localBindingRecord_->portOf(*before) : Lanix::IntfId();
  const bool confirmed = bindingDiscoveryEvent || !confirmation_ || !confirmation_->vlanHas(vlanId);
  const Ptr<LocalBinding> created =
      localBindingRecord_->createLocalBinding(vrfIpAddress, vlanIdMacAddress, confirmed);
  if (port) localBindingRecord_->portIs(vlanIdMacAddress, port);
  const auto now = static_cast<std::uint32_t>(loop_.now());
  created->historyIs({now, now, existing ? existing->history().moves + 1 : 0});
  count(Id::localBindingCreated);
  const Mox::String was =
      before ? "was " + before->macAddress.toStrep() + " on VLAN " + before->vlanId.toStrep() : Mox::String();
  Switch::bindingEvent(
      before ? Switch::EventKind::moved : Switch::EventKind::learned,
      {.vlanId = vlanId, .ip = ipAddress, .mac = macAddress, .interface = port.name(), .text = was});
  conflicts_.handleLocal(*created, before, portBefore);
}

void BindingDiscoverySm::deleteLocalBinding(const Ptr<LocalBinding>& given, const char* why) {
  const Ptr<LocalBinding> localBinding = given;
  localBindingRecord_->deleteLocalBinding(localBinding);
  count(Id::localBindingDeleted);
  Switch::bindingEvent(Switch::EventKind::withdrawn, {.vlanId = localBinding->vlanIdMacAddress().vlanId,
                                                      .ip = localBinding->vrfIpAddress().ipAddress,
                                                      .mac = localBinding->vlanIdMacAddress().macAddress,
                                                      .text = why});
}

// --- Requests --------------------------------------------------------------------------------------------

Ptr<const Evpn::SegmentStatus> BindingDiscoverySm::segmentOf(const Lanix::IntfId& intfId) const {
  return evpnStatus_ ? evpnStatus_->segmentStatus(intfId) : nullptr;
}

bool BindingDiscoverySm::advertisedByPeer(const TrappedMessage& request) const {
  const auto& intfStatus = request.srcIntf().intfStatus;
  if (!intfStatus || !segmentOf(intfStatus->intfId())) return false;
  const Ptr<const VlanL3Info> vlanL3Info = vlanL3InfoStatus_->vlanL3Info(request.vlanId());
  if (!vlanL3Info) return false;
  const Ptr<const RemoteIpToMac> ipToMac =
      remoteBindingStatus_->ipToMac(VrfIpAddress::fromVlanL3Info(*vlanL3Info, request.senderIpAddress()));
  if (ipToMac && ipToMac->firstVlanIdMacAddress().macAddress == request.senderMacAddress() &&
      ipToMac->isFirstVlanIdMacAddressLocalMultihomed()) {
    return true;
  }
  TRACE8(" Adding binding for locally multihomed host "
         << " trappedRequest=" << request);
  return false;
}

void BindingDiscoverySm::handleTrappedRequest() {
  const Ptr<const TrappedMessage> request = receivedRequestTrap_->lastTrappedMessage();
  if (!request) return;
  if (localMultihomeSelectiveArpInstall() && advertisedByPeer(*request)) {
    TRACE8("Not adding binding for locally"
           << "multihomed host trappedRequest=" << request);
    return count(Id::discoveryLocalMultihomed);
  }
  TRACE8("trappedRequest=" << request);
  const auto& port = request->srcIntf().intfStatus;
  createLocalBinding(request->vlanId(), request->senderIpAddress(), request->senderMacAddress(), true,
                     port ? port->intfId() : Lanix::IntfId());
}

// --- Stations that move ----------------------------------------------------------------------------------

void BindingDiscoverySm::handleFdbStatus(const Bridging::HostKey& hostKey) {
  const VlanIdMacAddress vlanIdMacAddress{Bridging::VlanId(hostKey.fid), hostKey.macAddress};
  const Memtab::Bridging::MemtabFdbStatus fdb = bridgingStatus_->fdb(hostKey);
  const bool isLocal = fdb.isLocal();
  TRACE8("fdb=" << vlanIdMacAddress << " intfId=" << fdb.intf << " entryType=" << fdb.entryType
                << " isLocal=" << yesNo(isLocal));
  if (isLocal) {
    const Lanix::IntfId before = localBindingRecord_->portIs(vlanIdMacAddress, fdb.intf);
    if (before && before != fdb.intf) conflicts_.handleStation(vlanIdMacAddress, before, fdb.intf);
    processLocalMac(vlanIdMacAddress, fdb.intf);
  } else {
    processRemoteMac(vlanIdMacAddress);
  }
}

// Hosts on an Ethernet segment are learned from their own requests only.
void BindingDiscoverySm::processLocalMac(const VlanIdMacAddress& vlanIdMacAddress,
                                         const Lanix::IntfId& intfId) {
  if (segmentOf(intfId)) {
    TRACE8("MAC segment local vlanIdMacAddress=" << vlanIdMacAddress << " intfId=" << intfId
                                                 << " ethernetSegment=" << intfId);
    return;
  }
  const Ptr<const RemoteMacToIp> remoteMacToIp = remoteBindingStatus_->macToIp(vlanIdMacAddress);
  if (!remoteMacToIp) {
    TRACE8("No remoteMacToIp vlanIdMacAddress=" << vlanIdMacAddress);
    return;
  }
  count(Id::discoveryLocalMacHasRemoteBindings);
  for (const Lanix::IpGenAddr& ipAddress : remoteMacToIp->ipAddress().keys()) {
    TRACE8("vlanIdMacAddress=" << vlanIdMacAddress << " ipAddress=" << ipAddress);
    createLocalBinding(vlanIdMacAddress.vlanId, ipAddress, vlanIdMacAddress.macAddress, false);
  }
}

void BindingDiscoverySm::processRemoteMac(const VlanIdMacAddress& vlanIdMacAddress) {
  const Ptr<const LocalMacToIp> localMacToIp = localBindingRecord_->macToIp(vlanIdMacAddress);
  if (!localMacToIp) {
    TRACE8("No localMacToIp vlanIdMacAddress=" << vlanIdMacAddress);
    return;
  }
  std::vector<Ptr<LocalBinding>> localBindings;  // each deletion takes one out of the entry
  for (const auto& [key, localBinding] : localMacToIp->bindingCollection())
    localBindings.push_back(localBinding);
  for (const Ptr<LocalBinding>& localBinding : localBindings) {
    TRACE8("localBinding=" << localBinding);
    deleteLocalBinding(localBinding, "its station is no longer on a port of this switch");
  }
  MOX_ASSERT(kSource, "!localBindingRecord()->macToIpHas( vlanIdMacAddress )",
             !localBindingRecord_->macToIpHas(vlanIdMacAddress));
}

// It may have answered after all by now.
void BindingDiscoverySm::handleSilence() {
  for (const Arp::HostAddress& silent : std::exchange(silent_, {})) {
    const Ptr<const VlanL3Info> vlanL3Info = vlanL3InfoStatus_->vlanL3Info(silent.vlanId);
    if (!vlanL3Info || !confirmation_->silentHas(silent)) continue;
    const Ptr<LocalBinding> localBinding =
        localBindingRecord_->binding(VrfIpAddress::fromVlanL3Info(*vlanL3Info, silent.address));
    TRACE8("vlanId=" << silent.vlanId << " ipAddress=" << silent.address << " localBinding=" << localBinding);
    if (localBinding && !localBinding->confirmed() &&
        localBinding->vlanIdMacAddress().vlanId == silent.vlanId)
      deleteLocalBinding(localBinding, "its station moved here and did not answer for it");
  }
}

void BindingDiscoverySm::handleRemoteBinding() {
  const VrfIpAddress vrfIpAddress = remoteBindingStatus_->lastVrfIpAddressChange();
  if (!vrfIpAddress || !remoteBindingStatus_->ipToMacHas(vrfIpAddress)) return;
  conflicts_.handleRemote(vrfIpAddress);
  const Ptr<LocalBinding> localBinding = localBindingRecord_->binding(vrfIpAddress);
  if (!localBinding) return;
  TRACE8("vrfIpAddress=" << vrfIpAddress << " localBinding=" << localBinding);
  deleteLocalBinding(localBinding, "another switch advertises the address");
}

// --- Listeners -------------------------------------------------------------------------------------------

BindingDiscoveryVgwReplySm* BindingDiscoverySm::vgwReplySm(Bridging::VlanId vlanId) const {
  const auto sm = vgwReplySm_.find(vlanId);
  return sm == vgwReplySm_.end() ? nullptr : sm->second.get();
}

void BindingDiscoverySm::vgwReplySmIs(Bridging::VlanId vlanId, const Ptr<const VlanL3Info>& vlanL3Info) {
  vgwReplySmDel(vlanId);  // the old one closes before the new one opens
  vgwReplySm_[vlanId] =
      Mox::make<BindingDiscoveryVgwReplySm>(taskSchedulerRoot_->scheduler(), vlanL3Info,
                                            arpSuppressionCounterStatus_, fhrpVrMacStatus_.notifier(), this);
}

void BindingDiscoverySm::handleVlanL3Info(Bridging::VlanId vlanId) {
  const Ptr<const VlanL3Info> vlanL3Info = vlanL3InfoStatus_->usableVlanL3Info(vlanId);
  const BindingDiscoveryVgwReplySm* const sm = vgwReplySm(vlanId);
  const bool wanted = vlanL3Info && !fhrpVrMacStatus_->vgwVirtualMac().isZero();
  // A VLAN that moved has another entry, and its old listener sits in the VRF that it left.
  const bool create = wanted && !(sm && sm->listensOn(*vlanL3Info));
  const bool destroy = !wanted && sm;
  TRACE8((create    ? "create"
          : destroy ? "delete"
                    : "no change")
         << " vlanId=" << vlanId << " vlanL3Info=" << vlanL3Info << " vgwVirtualMac="
         << fhrpVrMacStatus_->vgwVirtualMac() << " sm=" << (sm ? sm->toStrep() : "NULL"));
  if (create) vgwReplySmIs(vlanId, vlanL3Info);
  if (destroy) vgwReplySmDel(vlanId);
}

void BindingDiscoverySm::handleVgwVirtualMac() {
  TRACE8("vgwVirtualMac=" << fhrpVrMacStatus_->vgwVirtualMac());
  for (const auto& [vlanId, vlanL3Info] : vlanL3InfoStatus_->vlanL3InfoCollection()) handleVlanL3Info(vlanId);
}

void BindingDiscoverySm::dumpState(Orb::DumpContext& context, int indent) const {
  context.line(indent, "BindingDiscoverySm");
  context.line(indent, "vgwReplySm #" + std::to_string(vgwReplySms()));
  for (const auto& [vlanId, sm] : vgwReplySm_) context.child(indent + 2, sm, "BindingDiscoveryVgwReplySm");
}

}  // namespace ArpSuppression
