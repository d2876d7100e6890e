#include "ArpSuppression/ArpSuppressionSm.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <span>
#include <utility>

#include "ArpSuppression/Problems.h"
#include "ArpSuppression/Trace.h"
#include "L3/VrfName.h"
#include "Lanix/Wire.h"
#include "Mox/Assert.h"

namespace ArpSuppression {

namespace {

constexpr char kSource[] = "ArpSuppression/ArpSuppressionSm";
constexpr char kReplySocket[] = "packet socket for answers";  // as a problem's subject

using Id = ArpSuppressionCounterId;
using Kind = Outcome::Kind;
using Type = ArpSuppressionSm::MacConnectionType;

char letter(Type type) {
  constexpr char kLetters[] = "URSDN";
  MOX_ASSERT(kSource, "connectionType <= localMultihomedNonDf", type <= Type::localMultihomedNonDf);
  return kLetters[static_cast<std::size_t>(type)];
}

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
    Ptr<const Vrf::VrfIdMap::NameToIdMap> vrfNameToIdMap, Ptr<ArpInputConfigTrigger> arpInputConfigTrigger,
    Ptr<const NeverAnswer> neverAnswer, Ptr<const RemoteBindingStatus> remoteBindingStatus)
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
      arpInputConfigTrigger_(std::move(arpInputConfigTrigger)),
      neverAnswered_(std::move(neverAnswer)),
      remoteBindingStatus_(std::move(remoteBindingStatus)) {
  MOX_ASSERT(kSource, "remoteBindingConfig() && bridgingConfig() && bridgingStatus() && fhrpVrMacStatus()",
             remoteBindingConfig_ && bridgingConfig_ && bridgingStatus_ && fhrpVrMacStatus_);
  receivedRequestTrap_.on(MessageTrap::lastTrappedMessageChanged, [this] { handleTrappedRequest(); })
      .on(MessageTrap::inBatchChanged, [this] { handleInBatch(); });
  receivedRequestTrap_->aheadIs([this](int round, Bridging::VlanId vlanId, const Lanix::IpGenAddr& target) {
    lookAhead(round, vlanId, target);
  });
  handleInitialized();
}

ArpSuppressionSm::~ArpSuppressionSm() {
  receivedRequestTrap_->aheadIs({});
  problems().problemDel(kReplySocket);
}

void ArpSuppressionSm::handleInitialized() {
  TRACE8("");
  rawTxPam_ = Mox::make<Lanix::RawTxPam>("RawTxPam");
  rawTxPam_->ethProtocolIs(Lanix::kEtherTypeAll);
  openRawTxPam();
  fabricInterfaceWatch_ = vlanL3InfoStatus_->findOrCreateVrfInterfaceWatch(L3::VrfName::kDefault, "fabric");
}

void ArpSuppressionSm::openRawTxPam() {
  if (rawTxPam_->enabled()) return;
  replySocket_ = rawTxPam_->enabledIs(true);
  if (problems().check(kReplySocket, replySocket_, "correct that; each answer tries again",
                       Switch::ProblemReporter::Left::nothing))
    return;
  TRACE8("what=" << replySocket_.error());
  TRACELET_RECORD("replies cannot be sent what={}", replySocket_.error());
}

// --- What is known ---------------------------------------------------------------------------------------

bool ArpSuppressionSm::localArpRequest(const Lanix::EthAddr& senderMacAddress) const {
  return senderMacAddress == bridgingConfig_->bridgeMacAddr() ||
         senderMacAddress == fhrpVrMacStatus_->vgwVirtualMac();
}

Arp::Table::ArpEntry ArpSuppressionSm::lookupLocalDynamicBinding(const Ptr<const VlanL3Info>& vlanL3Info,
                                                                 Bridging::VlanId vlanId,
                                                                 const Lanix::IpGenAddr& ipAddress) const {
  if (!vlanL3Info) {
    TRACE8("No vlanL3Info, HER vlanId=" << vlanId);
    return {};
  }
  const Arp::Table::ArpEntry entry = arpStatus_.lookup(ArpStatusHelper::keyOf(*vlanL3Info, ipAddress));
  TRACE8("vlanL3Info=" << vlanL3Info << " ipAddress=" << ipAddress
                       << " arpStatusEntry=" << ArpStatusHelper::text(entry));
  return entry;
}

ArpSuppressionSm::MacConnectionType ArpSuppressionSm::getMacConnectionType(
    Bridging::VlanId vlanId, const Lanix::EthAddr& mac,
    const Memtab::Bridging::MemtabFdbStatus& entry) const {
  if (entry == Memtab::Bridging::MemtabFdbStatus{}) {
    TRACE8("No fdb vlanId=" << vlanId << " macAddress=" << mac);
    return Type::unknown;
  }
  const bool isRemote = !entry.isLocal();
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
  if (remoteBindingStatus_ && remoteBindingStatus_->refusing() && facts.remoteBinding &&
      !remoteBindingStatus_->has(key, facts.remoteBinding)) {
    facts.remoteBinding = {};
    facts.noRoom = true;
  }
  const Ptr<const VlanL3Info> vlanL3Info = vlanL3InfoStatus_->usableVlanL3Info(request.vlanId);
  const Arp::Table::ArpEntry neighbour =
      lookupLocalDynamicBinding(vlanL3Info, request.vlanId, request.targetIpAddress);
  facts.localBindingMac = neighbour.mac;
  facts.router = facts.remoteBinding ? facts.remoteBinding.router : neighbour.router;
  facts.localArpReq = localArpRequest(request.senderMacAddress);
  facts.bindingMac = facts.localBindingMac.isZero() ? facts.remoteBinding.macAddress : facts.localBindingMac;
  facts.fid = fidOf(request.vlanId);
  facts.fdbEntry = bridgingStatus_->fdb({facts.fid, facts.bindingMac});
  facts.connectionType = getMacConnectionType(request.vlanId, facts.bindingMac, facts.fdbEntry);
  facts.targetIsMine = vlanL3Info && vlanL3Info->ipAddress(request.targetIpAddress);
  facts.probe = request.senderIpAddress.isUnspecified();
  facts.announcement = !facts.probe && request.senderIpAddress == request.targetIpAddress;
  facts.neverAnswer = !facts.localArpReq && neverAnswered_.has(request.targetIpAddress);
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
    return Bridging::HostKey{fidOf(vlanId), bindings.peek(key).value_or(RemoteBinding{}).macAddress};
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

Outcome ArpSuppressionSm::decide(const Request& request, const Facts& facts) const {
  const Lanix::EthAddr& remoteMac = facts.remoteBinding.macAddress;
  const auto answer = [&](Id counter, const Lanix::EthAddr& mac) {
    return Outcome{deliver(request, facts, mac), counter, mac};
  };
  if (facts.targetIsMine) return {Kind::targetIsMine};
  if (facts.announcement || facts.probe) return {Kind::forAll};
  if (facts.neverAnswer) return {Kind::neverAnswer};
  switch (facts.connectionType) {
    case Type::unknown:
    case Type::remote:
      if (facts.remoteBinding) return answer(Id::replyRemote, facts.bindingMac);
      return {facts.localBindingMac.isZero() ? Kind::ownerUnknown : Kind::ownerNotAdvertised};
    case Type::localSinglehomed:
      return {Kind::ownerIsLocal};
    case Type::localMultihomedDf:
      if (facts.localArpReq && !remoteMac.isZero()) return answer(Id::replyMultihomedDf, remoteMac);
      return {Kind::ownerIsLocal};
    case Type::localMultihomedNonDf:
      if (!facts.localArpReq || facts.localBindingMac.isZero())
        return answer(Id::replyMultihomedNonDf, facts.bindingMac);
      if (remoteMac.isZero()) return {Kind::ownerNotAdvertised};
      return answer(Id::replyMultihomedNonDf, remoteMac);
  }
  MOX_ASSERT(kSource, "connectionType <= localMultihomedNonDf", false);
  return {Kind::ownerUnknown};
}

Outcome::Kind ArpSuppressionSm::deliver(const Request& request, const Facts& facts,
                                        const Lanix::EthAddr& mac) const {
  if (facts.localArpReq) return staticBinding(request.vlanId, request.targetIpAddress, mac);
  if (!request.sourcePort) return Kind::unknownSourcePort;
  if (*request.sourcePort == facts.fdbEntry.intf) return Kind::samePort;
  return fabricUsable() ? Kind::answered : Kind::fabricNotUsable;
}

Outcome::Kind ArpSuppressionSm::staticBinding(Bridging::VlanId vlanId, const Lanix::IpGenAddr& ipAddress,
                                              const Lanix::EthAddr& mac) const {
  if (mac.isZero() || mac.isMulticast()) return Kind::notABinding;
  if (!ipAddress || ipAddress.isUnspecified() || ipAddress.isMulticast()) return Kind::notABinding;
  if (mac == bridgingConfig_->bridgeMacAddr()) return Kind::bridgeMacAddr;
  if (mac == fhrpVrMacStatus_->vgwVirtualMac()) return Kind::vgwVirtualMac;
  return vlanL3InfoStatus_->usableVlanL3Info(vlanId) ? Kind::programmed : Kind::noVlanL3Info;
}

void ArpSuppressionSm::handleTrappedRequest() {
  const Ptr<const TrappedMessage> request = receivedRequestTrap_->lastTrappedMessage();
  if (!request) return;
  const auto& srcIntf = request->srcIntf();
  const Request asked{request->vlanId(), request->senderIpAddress(), request->senderMacAddress(),
                      request->targetIpAddress(),
                      srcIntf.intfStatus ? std::optional(srcIntf.intfStatus->intfId()) : std::nullopt};
  const Facts facts = gather(asked);
  const Outcome outcome = decide(asked, facts);
  TRACE8("trappedRequest=" << request << " localBindingMacAddress=" << facts.localBindingMac
                           << " remoteBindingMacAddress=" << facts.remoteBinding.macAddress
                           << " connectionType=" << facts.connectionType << " localArpReq="
                           << yesNo(facts.localArpReq) << " targetIsMine=" << facts.targetIsMine
                           << " probe=" << facts.probe << " announcement=" << facts.announcement
                           << " fdbIntf=" << facts.fdbEntry.intf << " neverAnswer=" << facts.neverAnswer);
  TRACELET_RECORD(
      "trappedRequest=<vlanId={};srcIntf={};senderIpAddress={};senderMacAddress={};targetIpAddress={}>"
      " localBindingMacAddress={} remoteBindingMacAddress={} connectionType={} localArpReq={} "
      "targetIsMine={} probe={}"
      " announcement={} fdbIntf={} neverAnswer={} outcome={}",
      request->vlanId().value(), request->srcIntf().deviceName, request->senderIpAddress(),
      request->senderMacAddress(), request->targetIpAddress(), facts.localBindingMac,
      facts.remoteBinding.macAddress, letter(facts.connectionType), facts.localArpReq, facts.targetIsMine,
      facts.probe, facts.announcement, facts.fdbEntry.intf, facts.neverAnswer, outcome.name());
  if (outcome.answerCounter) traceDelivery(*request, outcome);
  for (const auto& counter : {outcome.answerCounter, outcome.counter()}) {
    if (counter) count(*counter);
  }
  switch (outcome.action()) {
    case Action::leave:
      break;
    case Action::flood:
      sendToRemoteTeps(request);
      break;
    case Action::reply:
      sendArpReply(request->vlanId(), request->targetIpAddress(), outcome.macAddress,
                   request->senderIpAddress(), request->senderMacAddress());
      break;
    case Action::program:
      createStaticBinding(request->vlanId(), request->targetIpAddress());
      break;
  }
}

// --- What is done ----------------------------------------------------------------------------------------

void ArpSuppressionSm::traceDelivery(const TrappedMessage& request, const Outcome& outcome) const {
  const auto trace = [&](const char* what) {
    TRACE8(what << " trappedRequest=" << request << " macAddress=" << outcome.macAddress);
  };
  switch (outcome.kind) {
    case Kind::answered:
    case Kind::fabricNotUsable:
      trace("send reply");
      TRACE8("vlanId= " << request.vlanId() << " senderIp= " << request.targetIpAddress()
                        << " senderMac=" << outcome.macAddress << " targetIp= " << request.senderIpAddress()
                        << " targetMac=" << request.senderMacAddress());
      if (outcome.kind == Kind::fabricNotUsable)
        TRACE8("fabric device not usable fabricInterfaceWatch=" << fabricInterfaceWatch_);
      return;
    case Kind::unknownSourcePort:
      return trace("unknown source port");
    case Kind::samePort:
      return trace("source and target on same port");
    default:
      break;
  }
  trace("localReq");
  TRACE8("vlanId=" << request.vlanId() << " ipAddress=" << request.targetIpAddress()
                   << " macAddress=" << outcome.macAddress << " onlyUpdate=" << false);
  if (outcome.kind == Kind::bridgeMacAddr) TRACE8("Not adding binding for bridgeMacAddr");
  if (outcome.kind == Kind::vgwVirtualMac) TRACE8("Not adding binding for vgwVirtualMac");
  if (outcome.kind == Kind::noVlanL3Info) TRACE8("No vlanL3Info vlanId=" << request.vlanId());
}

void ArpSuppressionSm::sendArpReply(Bridging::VlanId vlanId, const Lanix::IpGenAddr& senderIpAddress,
                                    const Lanix::EthAddr& senderMacAddress,
                                    const Lanix::IpGenAddr& targetIpAddress,
                                    const Lanix::EthAddr& targetMacAddress) {
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
  if (replies_.empty()) return;
  openRawTxPam();  // it may have been refused before; sending fails then, and is counted
  std::span<const Lanix::RawTxPam::Frame> rest(replies_);
  while (!rest.empty()) {
    const std::size_t taken = rawTxPam_->sendBatch(rest);
    if (taken == rest.size()) break;
    const int error = errno;
    TRACE8(" fabricInterfaceWatch=" << fabricInterfaceWatch_ << " errno=" << std::strerror(error));
    TRACELET_RECORD("reply refused intfId={} errno={}", fabricInterfaceWatch_->toStrep(),
                    std::strerror(error));
    count(Id::replySendFailed);
    rest = rest.subspan(taken + 1);
  }
  replies_.clear();
}

void ArpSuppressionSm::sendToRemoteTeps(const Ptr<const TrappedMessage>& request) {
  TRACE8("trappedRequest=" << request);
  if (reinjectMessageQueue_->enqueueMessage(request)) count(Id::floodDroppedOldest);
}

void ArpSuppressionSm::createStaticBinding(Bridging::VlanId vlanId, const Lanix::IpGenAddr& ipAddress) {
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
