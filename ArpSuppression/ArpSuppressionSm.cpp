#include "ArpSuppression/ArpSuppressionSm.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <span>
#include <utility>

#include "ArpSuppression/Trace.h"
#include "L3/VrfName.h"
#include "Lanix/Wire.h"
#include "Mox/Assert.h"
#include "Mox/Error.h"

namespace ArpSuppression {

namespace {

constexpr char kSource[] = "ArpSuppression/ArpSuppressionSm";

using Id = ArpSuppressionCounterId;
using Type = ArpSuppressionSm::MacConnectionType;

char letter(Type type) {
  constexpr char kLetters[] = "URSDN";
  MOX_ASSERT(kSource, "connectionType <= localMultihomedNonDf", type <= Type::localMultihomedNonDf);
  return kLetters[static_cast<std::size_t>(type)];
}

const char* yesNo(bool value) { return value ? "yes" : "no"; }

// Bindings from which on the tables do not fit into the processor's cache.
constexpr std::uint64_t kLookAheadFrom = 16384;

// The reply as it goes to "fabric": tagged, and not padded.
struct ArpReplyFrame {
  Lanix::EthAddr destination;
  Lanix::EthAddr source;
  Lanix::Be16 tpid;
  Lanix::Be16 tagControl;  // priority 0, the VLAN
  Lanix::Be16 etherType;
  Lanix::ArpIp4 arp;
};
static_assert(sizeof(ArpReplyFrame) == 46 && alignof(ArpReplyFrame) == 1);

}  // namespace

ArpSuppressionSm::ArpSuppressionSm(
    Ptr<MessageTrap> receivedRequestTrap, Ptr<MessageQueue> reinjectMessageQueue,
    Ptr<ArpSuppressionCounterStatus> arpSuppressionCounterStatus, Ptr<LocalRequestRecord> localRequestRecord,
    Ptr<const RemoteBindingConfig> remoteBindingConfig, Ptr<VlanL3InfoStatus> vlanL3InfoStatus,
    Ptr<const Arp::Table::Status> arpStatus, Ptr<const Bridging::Config> bridgingConfig,
    Ptr<const Memtab::Bridging::Status> bridgingStatus, Ptr<const Evpn::EvpnStatus> evpnStatus,
    Ptr<const Routing::Fhrp::VirtualRouterMacStatus> fhrpVrMacStatus,
    Ptr<const Vrf::VrfIdMap::NameToIdMap> vrfNameToIdMap, Ptr<ArpInputConfigTrigger> arpInputConfigTrigger)
    : receivedRequestTrap_(std::move(receivedRequestTrap)),
      reinjectMessageQueue_(std::move(reinjectMessageQueue)),
      arpSuppressionCounterStatus_(std::move(arpSuppressionCounterStatus)),
      localRequestRecord_(std::move(localRequestRecord)),
      remoteBindingConfig_(std::move(remoteBindingConfig)),
      vlanL3InfoStatus_(std::move(vlanL3InfoStatus)),
      arpStatus_(std::move(arpStatus)),
      bridgingConfig_(std::move(bridgingConfig)),
      bridgingStatus_(std::move(bridgingStatus)),
      evpnStatus_(std::move(evpnStatus)),
      fhrpVrMacStatus_(std::move(fhrpVrMacStatus)),
      vrfNameToIdMap_(std::move(vrfNameToIdMap)),
      arpInputConfigTrigger_(std::move(arpInputConfigTrigger)) {
  MOX_ASSERT(kSource, "remoteBindingConfig() && bridgingConfig() && bridgingStatus() && fhrpVrMacStatus()",
             remoteBindingConfig_ && bridgingConfig_ && bridgingStatus_ && fhrpVrMacStatus_);
  receivedRequestTrap_.on(MessageTrap::lastTrappedMessageChanged, [this] { handleTrappedRequest(); })
      .on(MessageTrap::inBatchChanged, [this] { handleInBatch(); });
  receivedRequestTrap_->aheadIs([this](int round, Bridging::VlanId vlanId, const Lanix::IpGenAddr& target) {
    lookAhead(round, vlanId, target);
  });
  handleInitialized();
}

ArpSuppressionSm::~ArpSuppressionSm() { receivedRequestTrap_->aheadIs({}); }

void ArpSuppressionSm::handleInitialized() {
  TRACE8("");
  rawTxPam_ = Mox::make<Lanix::RawTxPam>("RawTxPam");
  rawTxPam_->ethProtocolIs(Lanix::kEtherTypeAll);
  try {
    rawTxPam_->enabledIs(true);
  } catch (const Mox::Error& error) {
    TRACE8("what=" << error.what());  // sending will fail, and be counted
  }
  fabricInterfaceWatch_ = vlanL3InfoStatus_->findOrCreateVrfInterfaceWatch(L3::VrfName::kDefault, "fabric");
}

// --- What is known ---------------------------------------------------------------------------------------

bool ArpSuppressionSm::localArpRequest(const Lanix::EthAddr& senderMacAddress) const {
  return senderMacAddress == bridgingConfig_->bridgeMacAddr() ||
         senderMacAddress == fhrpVrMacStatus_->vgwVirtualMac();
}

Lanix::EthAddr ArpSuppressionSm::lookupLocalDynamicBinding(const Ptr<const VlanL3Info>& vlanL3Info,
                                                           Bridging::VlanId vlanId,
                                                           const Lanix::IpGenAddr& ipAddress) const {
  if (!vlanL3Info) {
    TRACE8("No vlanL3Info, HER vlanId=" << vlanId);
    return {};
  }
  const Arp::Table::ArpEntry entry = arpStatus_.lookup(ArpStatusHelper::keyOf(*vlanL3Info, ipAddress));
  TRACE8("vlanL3Info=" << vlanL3Info << " ipAddress=" << ipAddress
                       << " arpStatusEntry=" << ArpStatusHelper::text(entry));
  return entry.mac;
}

ArpSuppressionSm::MacConnectionType ArpSuppressionSm::getMacConnectionType(
    Bridging::VlanId vlanId, const Lanix::EthAddr& mac,
    const Memtab::Bridging::MemtabFdbStatus& entry) const {
  if (entry == Memtab::Bridging::MemtabFdbStatus{}) {
    TRACE8("No fdb vlanId=" << vlanId << " macAddress=" << mac);
    return Type::unknown;
  }
  const bool isRemote =
      !Bridging::isEntryTypeLocal(entry.entryType) || Bridging::isEntryTypeEvpn(entry.entryType);
  TRACE8("vlanId=" << vlanId << " macAddress=" << mac << " fdbEntryType=" << entry.entryType
                   << " intfId=" << entry.intf << " isRemote=" << isRemote);
  if (isRemote) return Type::remote;
  const Ptr<Evpn::SegmentStatus> segment = evpnStatus_ ? evpnStatus_->segmentStatus(entry.intf) : nullptr;
  if (!segment) return Type::localSinglehomed;
  return segment->designatedForwarderTep(vlanId) ? Type::localMultihomedNonDf : Type::localMultihomedDf;
}

ArpSuppressionSm::Facts ArpSuppressionSm::gather(const Request& request) const {
  Facts facts;
  const RemoteBindingKey key{request.vlanId, request.targetIpAddress};
  facts.remoteBinding = remoteBindingConfig_->remoteBinding(key);
  const Ptr<const VlanL3Info> vlanL3Info = vlanL3InfoStatus_->usableVlanL3Info(request.vlanId);
  facts.localBindingMac = lookupLocalDynamicBinding(vlanL3Info, request.vlanId, request.targetIpAddress);
  facts.localArpReq = localArpRequest(request.senderMacAddress);
  facts.bindingMac = facts.localBindingMac.isZero() ? facts.remoteBinding.macAddress : facts.localBindingMac;
  facts.fid = fidOf(request.vlanId);
  facts.fdbEntry = bridgingStatus_->fdb({facts.fid, facts.bindingMac});
  facts.connectionType = getMacConnectionType(request.vlanId, facts.bindingMac, facts.fdbEntry);
  facts.targetIsMine = vlanL3Info && vlanL3Info->ipAddress(request.targetIpAddress);
  facts.probe = request.senderIpAddress.isUnspecified();
  facts.announcement = !facts.probe && request.senderIpAddress == request.targetIpAddress;
  return facts;
}

Bridging::Fid ArpSuppressionSm::fidOf(Bridging::VlanId vlanId) const {
  const Bridging::Fid fid = bridgingConfig_->vidToFidMap(vlanId);
  return fid == 0 ? vlanId.value() : fid;
}

// Brings what a request will look up into the cache: the record of its key and the binding, then the MAC
// table entry of the owner. Each round finds what the one before brought. Small tables are in the cache
// anyway.
void ArpSuppressionSm::lookAhead(int round, Bridging::VlanId vlanId,
                                 const Lanix::IpGenAddr& targetIpAddress) const {
  if (remoteBindingConfig_->remoteBindings() < kLookAheadFrom) return;
  const RemoteBindingKey key{vlanId, targetIpAddress};
  const auto& bindings = remoteBindingConfig_->remoteBindingCollection();
  const auto owner = [&] {
    return Bridging::HostKey{fidOf(vlanId), remoteBindingConfig_->remoteBinding(key).macAddress};
  };
  switch (round) {
    case 0:
      localRequestRecord_->prefetch(key);
      return bindings.prefetchTags(key);
    case 1:
      return bindings.prefetch(key);
    case 2:
      return bridgingStatus_->fdbCollection().prefetchTags(owner());
    default:
      return bridgingStatus_->fdbCollection().prefetch(owner());
  }
}

// --- The decision ----------------------------------------------------------------------------------------

ArpSuppressionSm::Decision ArpSuppressionSm::decide(const Facts& facts) {
  constexpr Decision kFlood{Action::flood, Id::floodedToRemoteTeps, {}};
  const Lanix::EthAddr& remoteMac = facts.remoteBinding.macAddress;
  if (facts.targetIsMine) return {Action::leave, Id::targetIsMine, {}};
  if (facts.announcement || facts.probe) return kFlood;
  switch (facts.connectionType) {
    case Type::unknown:
    case Type::remote:
      if (!facts.remoteBinding) return kFlood;
      return {Action::reply, Id::replyRemote, facts.bindingMac};
    case Type::localSinglehomed:
      return {Action::leave, Id::noReplyTargetLocal, {}};
    case Type::localMultihomedDf:
      if (facts.localArpReq && !remoteMac.isZero()) return {Action::reply, Id::replyMultihomedDf, remoteMac};
      return {Action::leave, Id::noReplyTargetLocal, {}};
    case Type::localMultihomedNonDf:
      if (!facts.localArpReq || facts.localBindingMac.isZero()) {
        return {Action::reply, Id::replyMultihomedNonDf, facts.bindingMac};
      }
      if (remoteMac.isZero()) return kFlood;
      return {Action::reply, Id::replyMultihomedNonDf, remoteMac};
  }
  MOX_ASSERT(kSource, "connectionType <= localMultihomedNonDf", false);
  return kFlood;
}

ArpSuppressionSm::Delivery ArpSuppressionSm::deliver(const Request& request, const Facts& facts,
                                                     const Decision& decision) const {
  if (facts.localArpReq) return staticBinding(request.vlanId, request.targetIpAddress, decision.macAddress);
  if (!request.sourcePort) return Delivery::unknownSourcePort;
  if (*request.sourcePort == facts.fdbEntry.intf) return Delivery::samePort;
  return fabricUsable() ? Delivery::send : Delivery::fabricNotUsable;
}

ArpSuppressionSm::Delivery ArpSuppressionSm::staticBinding(Bridging::VlanId vlanId,
                                                           const Lanix::IpGenAddr& ipAddress,
                                                           const Lanix::EthAddr& macAddress) const {
  if (macAddress.isZero() || macAddress.isMulticast()) return Delivery::notABinding;
  if (!ipAddress || ipAddress.isUnspecified() || ipAddress.isMulticast()) return Delivery::notABinding;
  if (macAddress == bridgingConfig_->bridgeMacAddr()) return Delivery::bridgeMacAddr;
  if (macAddress == fhrpVrMacStatus_->vgwVirtualMac()) return Delivery::vgwVirtualMac;
  return vlanL3InfoStatus_->usableVlanL3Info(vlanId) ? Delivery::program : Delivery::noVlanL3Info;
}

std::optional<ArpSuppressionCounterId> ArpSuppressionSm::counterOf(Delivery delivery) {
  // In the order of Delivery.
  constexpr std::array<std::optional<Id>, 9> kCounter{std::nullopt,
                                                      Id::noReplyUnknownSourcePort,
                                                      Id::noReplySamePort,
                                                      Id::noReplyFabricNotUsable,
                                                      Id::staticBindingEvent,
                                                      std::nullopt,
                                                      Id::staticBindingBridgeMac,
                                                      Id::staticBindingVirtualRouterMac,
                                                      Id::staticBindingNoVlanL3Info};
  static_assert(kCounter.size() == static_cast<std::size_t>(Delivery::noVlanL3Info) + 1);
  return kCounter[static_cast<std::size_t>(delivery)];
}

void ArpSuppressionSm::handleTrappedRequest() {
  const Ptr<const TrappedMessage> request = receivedRequestTrap_->lastTrappedMessage();
  if (!request) return;
  const auto& srcIntf = request->srcIntf();
  const Request asked{request->vlanId(), request->senderIpAddress(), request->senderMacAddress(),
                      request->targetIpAddress(),
                      srcIntf.intfStatus ? std::optional(srcIntf.intfStatus->intfId()) : std::nullopt};
  const Facts facts = gather(asked);
  const Decision decision = decide(facts);
  const Delivery delivery =
      decision.action == Action::reply ? deliver(asked, facts, decision) : Delivery::send;
  const Id outcome = counterOf(delivery).value_or(decision.counter);
  TRACE8("trappedRequest=" << request << " localBindingMacAddress=" << facts.localBindingMac
                           << " remoteBindingMacAddress=" << facts.remoteBinding.macAddress
                           << " connectionType=" << facts.connectionType
                           << " localArpReq=" << yesNo(facts.localArpReq)
                           << " targetIsMine=" << facts.targetIsMine << " probe=" << facts.probe
                           << " announcement=" << facts.announcement << " fdbIntf=" << facts.fdbEntry.intf);
  TRACELET_RECORD(
      "trappedRequest=<vlanId={};srcIntf={};senderIpAddress={};senderMacAddress={};targetIpAddress={}>"
      " localBindingMacAddress={} remoteBindingMacAddress={} connectionType={} localArpReq={} "
      "targetIsMine={} probe={}"
      " announcement={} fdbIntf={} outcome={}",
      request->vlanId().value(), request->srcIntf().ifIndex, request->senderIpAddress(),
      request->senderMacAddress(), request->targetIpAddress(), facts.localBindingMac,
      facts.remoteBinding.macAddress, letter(facts.connectionType), facts.localArpReq, facts.targetIsMine,
      facts.probe, facts.announcement, facts.fdbEntry.intf, kCounterNames[static_cast<std::size_t>(outcome)]);
  switch (decision.action) {
    case Action::leave:
      count(decision.counter);
      break;
    case Action::flood:
      sendToRemoteTeps(request);
      break;
    case Action::reply:
      count(decision.counter);
      issueReply(*request, decision.macAddress, delivery);
      break;
  }
}

// --- What is done ----------------------------------------------------------------------------------------

void ArpSuppressionSm::issueReply(const TrappedMessage& request, const Lanix::EthAddr& mac,
                                  Delivery delivery) {
  const auto trace = [&](const char* what) {
    TRACE8(what << " trappedRequest=" << request << " macAddress=" << mac);
  };
  switch (delivery) {
    case Delivery::send:
    case Delivery::fabricNotUsable:
      trace("send reply");
      sendArpReply(request.vlanId(), request.targetIpAddress(), mac, request.senderIpAddress(),
                   request.senderMacAddress());
      break;
    case Delivery::unknownSourcePort:
      trace("unknown source port");
      count(Id::noReplyUnknownSourcePort);
      break;
    case Delivery::samePort:
      trace("source and target on same port");
      count(Id::noReplySamePort);
      break;
    default:
      trace("localReq");
      maybeCreateStaticBinding(request.vlanId(), request.targetIpAddress(), mac, false);
  }
}

void ArpSuppressionSm::sendArpReply(Bridging::VlanId vlanId, const Lanix::IpGenAddr& senderIpAddress,
                                    const Lanix::EthAddr& senderMacAddress,
                                    const Lanix::IpGenAddr& targetIpAddress,
                                    const Lanix::EthAddr& targetMacAddress) {
  TRACE8("vlanId= " << vlanId << "senderIp= " << senderIpAddress << "senderMac=" << senderMacAddress
                    << "targetIp= " << targetIpAddress << "targetMac=" << targetMacAddress);
  if (!fabricUsable()) {
    TRACE8("fabric device not usable fabricInterfaceWatch=" << fabricInterfaceWatch_);
    count(Id::noReplyFabricNotUsable);
    return;
  }
  MOX_ASSERT(kSource, "senderIpAddress.af() == Lanix::AddressFamily::ipv4_",
             senderIpAddress.af() == Lanix::AddressFamily::ipv4_ &&
                 targetIpAddress.af() == Lanix::AddressFamily::ipv4_);
  const Ptr<Lanix::Pkt> replyPkt = Lanix::PktManager::global().newPktWithHeadData(sizeof(ArpReplyFrame));
  MOX_ASSERT(kSource, "__null != replyPkt", replyPkt != nullptr);
  ArpReplyFrame frame{};
  frame.destination = targetMacAddress;
  frame.source = senderMacAddress;
  frame.tpid = Lanix::kEtherTypeDot1q;
  frame.tagControl = vlanId.value();
  frame.etherType = Lanix::kEtherTypeArp;
  frame.arp.operation = Lanix::ArpIp4::kReply;
  frame.arp.senderMac = senderMacAddress;
  frame.arp.senderIp = senderIpAddress.ipv4();
  frame.arp.targetMac = targetMacAddress;
  frame.arp.targetIp = targetIpAddress.ipv4();
  std::memcpy(replyPkt->headData().data(), &frame, sizeof frame);
  replies_.push_back({fabricInterfaceWatch_->kniIntfIfIndex(), replyPkt});
  if (!receivedRequestTrap_->inBatch()) sendReplies();
}

void ArpSuppressionSm::handleInBatch() {
  if (!receivedRequestTrap_->inBatch()) sendReplies();
}

// In order. A reply that the kernel refuses is lost and counted, and the next one tried.
void ArpSuppressionSm::sendReplies() {
  std::span<const Lanix::RawTxPam::Frame> rest(replies_);
  while (!rest.empty()) {
    const std::size_t taken = rawTxPam_->sendBatch(rest);
    if (taken == rest.size()) break;
    const int error = errno;
    TRACE8(" fabricInterfaceWatch=" << fabricInterfaceWatch_ << " errno=" << std::strerror(error));
    count(Id::replySendFailed);
    rest = rest.subspan(taken + 1);
  }
  replies_.clear();
}

void ArpSuppressionSm::sendToRemoteTeps(const Ptr<const TrappedMessage>& request) {
  TRACE8("trappedRequest=" << request);
  count(Id::floodedToRemoteTeps);
  if (reinjectMessageQueue_->enqueueMessage(request)) count(Id::floodDroppedOldest);
}

void ArpSuppressionSm::maybeCreateStaticBinding(Bridging::VlanId vlanId, const Lanix::IpGenAddr& ipAddress,
                                                const Lanix::EthAddr& macAddress, bool onlyUpdate) {
  TRACE8("vlanId=" << vlanId << " ipAddress=" << ipAddress << " macAddress=" << macAddress
                   << " onlyUpdate=" << onlyUpdate);
  const Delivery delivery = staticBinding(vlanId, ipAddress, macAddress);
  if (delivery == Delivery::bridgeMacAddr) TRACE8("Not adding binding for bridgeMacAddr");
  if (delivery == Delivery::vgwVirtualMac) TRACE8("Not adding binding for vgwVirtualMac");
  if (delivery == Delivery::noVlanL3Info) TRACE8("No vlanL3Info vlanId=" << vlanId);
  if (const auto counter = counterOf(delivery)) count(*counter);
  if (delivery != Delivery::program) return;
  const Ptr<VlanL3Info> vlanL3Info = vlanL3InfoStatus_->usableVlanL3InfoNonConst(vlanId);
  arpInputConfigTrigger_->event(VrfIpAddress::fromVlanL3Info(*vlanL3Info, ipAddress), true);
}

void ArpSuppressionSm::dumpState(Orb::DumpContext& context, int indent) const {
  context.line(indent, "ArpSuppressionSm");
  context.attribute(indent, "rawTxPam", rawTxPam_->enabled() ? "enabled" : "disabled");
  context.attribute(indent, "fabricInterfaceWatch", fabricInterfaceWatch_->toStrep());
  context.child(indent + 2, receivedRequestTrap_.notifier(), "MessageTrap");
  context.child(indent + 2, reinjectMessageQueue_, "MessageQueue");
  context.child(indent + 2, localRequestRecord_, "LocalRequestRecord");
}

}  // namespace ArpSuppression
