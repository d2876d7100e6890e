#include "ArpSuppression/MessageReinjectSm.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <optional>
#include <span>
#include <utility>

#include "ArpSuppression/Trace.h"
#include "Lanix/Bytes.h"
#include "Lanix/PacketSockets.h"
#include "Lanix/Wire.h"
#include "Mox/Assert.h"
#include "Mox/Error.h"

namespace ArpSuppression {

namespace {

constexpr char kSource[] = "ArpSuppression/MessageReinjectSm";

// Behind the trap, before background work.
constexpr unsigned kReinjectLevel = 2;

constexpr std::uint16_t kOuterTagControl = 0x0FFF;
constexpr std::uint32_t kImplicitNullLabel = 3;
constexpr std::uint8_t kTimeToLive = 255;

// What every flooded frame begins with.
struct FloodHeader {
  Lanix::EthAddr destination;
  Lanix::EthAddr source;
  Lanix::Be16 tpid = Lanix::kEtherTypeDot1q;
  Lanix::Be16 tagControl = kOuterTagControl;
  Lanix::Be16 type = Lanix::kEtherTypeMpls;
  Lanix::MplsLabelEntry imetLabel;
  Lanix::MplsLabelEntry esiLabel;
};
static_assert(sizeof(FloodHeader) == 26 && alignof(FloodHeader) == 1);

struct ControlWord {
  Lanix::Be32 word;
};
static_assert(sizeof(ControlWord) == 4 && alignof(ControlWord) == 1);

constexpr std::size_t kLargestFlood = sizeof(FloodHeader) + sizeof(ControlWord) + sizeof(Lanix::EthHdr) +
                                      sizeof(Lanix::Dot1qTag) + sizeof(Lanix::ArpIp4);
static_assert(kLargestFlood == 76);

// True for as long as this lives.
struct Set {
  explicit Set(bool& given) : flag(given) { flag = true; }
  Set(const Set&) = delete;
  Set& operator=(const Set&) = delete;
  ~Set() { flag = false; }
  bool& flag;
};

}  // namespace

MessageReinjectSmBase::MessageReinjectSmBase(Ptr<Orb::TaskScheduler> scheduler, Mox::String interfaceName,
                                             Protocol protocol, Ptr<VlanL3InfoStatus> vlanL3InfoStatus,
                                             Ptr<MessageQueue> reinjectMessageQueue,
                                             Ptr<ArpSuppressionCounterStatus> arpSuppressionCounterStatus)
    : MessageTapSocketSm(std::move(scheduler), "MessageReinjectSm", kReinjectLevel, std::move(interfaceName),
                         protocol, NotifyMode::writable, std::move(vlanL3InfoStatus)),
      reinjectMessageQueue_(std::move(reinjectMessageQueue)),
      arpSuppressionCounterStatus_(std::move(arpSuppressionCounterStatus)) {
  reinjectMessageQueue_.on(MessageQueue::messageChanged, [this] { handleMessage(); });
}

// The queue notifies of removals as well. Those of this reactor make no work: after a failed write each would
// start the next walk, until all messages were lost to the same failure.
void MessageReinjectSmBase::handleMessage() {
  if (!taking_) scheduleWalk();
}

Orb::WalkRet MessageReinjectSmBase::walk() {
  Orb::WalkRet ret;
  if (!socketOpen()) {
    const Set taking(taking_);
    reinjectMessageQueue_->messageDelAll();
    return ret;
  }
  Lanix::PacketSockets& sockets = Lanix::PacketSockets::current();
  awaitSentIs(false);
  // An error of the time when the device was down must not cost the message that comes first now.
  if (reinjectMessageQueue_->messages() != 0) {
    if (const int stale = sockets.takeError(socket())) TRACE8("stale errno=" << std::strerror(stale));
  }
  const std::size_t initialMessages = reinjectMessageQueue_->messages();
  for (;;) {
    const Ptr<const TrappedMessage> message = [&] {
      const Set taking(taking_);
      return reinjectMessageQueue_->messageDeq();
    }();
    if (!message) return ret;
    std::int32_t written = 0;
    try {
      written = processMessage(*message);
    } catch (const Mox::Error&) {
      if (reinjectMessageQueue_->messages() != 0) scheduleWalk();
      throw;
    }
    if (written < 0) {
      const int error = errno;
      TRACE8("write failed errno=" << std::strerror(error));
      arpSuppressionCounterStatus_->increment(ArpSuppressionCounterId::reinjectWriteFailed);
      // The device's queue was full, and the kernel dropped the frame there. Dropping it makes the socket
      // writable, which tells nothing: the queue is as full as before.
      if (error == ENOBUFS) awaitSentIs(true);
      break;
    }
    arpSuppressionCounterStatus_->increment(ArpSuppressionCounterId::reinjected);
    ++ret.processed;
    if (mustYield()) {
      ret.moreWork = reinjectMessageQueue_->messages() != 0;
      break;
    }
  }
  reinjectMessageQueue_->updateQueueLimit(ret.processed);
  TRACE8(" initialMessages=" << initialMessages << " messages=" << reinjectMessageQueue_->messages()
                             << " processed=" << ret.processed);
  return ret;
}

void MessageReinjectSmBase::dumpState(Orb::DumpContext& context, int indent) const {
  context.line(indent, "MessageReinjectSm");
  dumpSocket(context, indent);
  context.child(indent + 2, reinjectMessageQueue_.notifier(), "MessageQueue");
}

MessageReinjectSmSimfwd::MessageReinjectSmSimfwd(Ptr<Orb::TaskScheduler> scheduler,
                                                 Ptr<VlanL3InfoStatus> vlanL3InfoStatus,
                                                 Ptr<MessageQueue> reinjectMessageQueue,
                                                 Ptr<ArpSuppressionCounterStatus> arpSuppressionCounterStatus)
    : MessageReinjectSmBase(std::move(scheduler), "arpinject", Protocol::tervakArpSnoop,
                            std::move(vlanL3InfoStatus), std::move(reinjectMessageQueue),
                            std::move(arpSuppressionCounterStatus)) {}

std::int32_t MessageReinjectSmSimfwd::processMessage(const TrappedMessage& message) {
  return static_cast<std::int32_t>(
      Lanix::PacketSockets::current().write(socket(), message.message()->headData()));
}

MessageReinjectSmPhysical::MessageReinjectSmPhysical(
    Ptr<Orb::TaskScheduler> scheduler, Ptr<VlanL3InfoStatus> vlanL3InfoStatus,
    Ptr<MessageQueue> reinjectMessageQueue, Ptr<ArpSuppressionCounterStatus> arpSuppressionCounterStatus,
    Ptr<const Evpn::EvpnStatus> evpnStatus, Ptr<const Evpn::MplsConfig> evpnMplsConfig,
    Ptr<const Bridging::Config> bridgingConfig)
    : MessageReinjectSmBase(std::move(scheduler), "fabric", Protocol::allProtocols,
                            std::move(vlanL3InfoStatus), std::move(reinjectMessageQueue),
                            std::move(arpSuppressionCounterStatus)),
      evpnStatus_(std::move(evpnStatus)),
      evpnMplsConfig_(std::move(evpnMplsConfig)),
      bridgingConfig_(std::move(bridgingConfig)) {
  MOX_ASSERT(kSource, "evpnStatus() && evpnMplsConfig() && bridgingConfig()",
             evpnStatus_ && evpnMplsConfig_ && bridgingConfig_);
}

std::uint32_t MessageReinjectSmPhysical::esiMplsLabel(const TrappedMessage& message) const {
  const auto& intfStatus = message.srcIntf().intfStatus;
  const Ptr<Evpn::SegmentStatus> segment =
      intfStatus ? evpnStatus_->segmentStatus(intfStatus->intfId()) : nullptr;
  return segment && segment->esiLabel() ? segment->esiLabel().value() : kImplicitNullLabel;
}

std::int32_t MessageReinjectSmPhysical::processMessage(const TrappedMessage& message) {
  const Bridging::VlanId vlanId = message.vlanId();
  const Evpn::EncapTypeLabel localImetLabel = evpnStatus_->imetLabel(vlanId);
  if (!localImetLabel) {
    TRACE8("no IMET label message=" << message);
    arpSuppressionCounterStatus()->increment(ArpSuppressionCounterId::reinjectNoImetLabel);
    return 0;
  }
  const std::uint32_t localEsiMplsLabel = esiMplsLabel(message);
  const std::uint16_t vlanAwareVlanId = evpnStatus_->vlanAwareVlanId(vlanId);
  const bool addInnerDot1Q = evpnStatus_->vlanAwareVlanIdHas(vlanId) || evpnMplsConfig_->addInnerDot1Q();
  const bool controlWordEnabled = evpnMplsConfig_->controlWordEnabled();

  Lanix::ByteCursor trapped(message.message()->headData());
  const auto header = trapped.read<Lanix::TrapHeader>();
  const auto innerType = header ? trapped.read<Lanix::Be16>() : std::nullopt;
  const bool origDot1QPresent = innerType && *innerType == Lanix::kEtherTypeDot1q;
  if (innerType) MOX_ASSERT(kSource, "false", origDot1QPresent || *innerType == Lanix::kEtherTypeArp);
  if (origDot1QPresent) trapped.skip(sizeof(Lanix::Dot1qTag));
  const auto arp = trapped.read<Lanix::ArpIp4>();
  if (!innerType || !arp) {
    errno = EBADMSG;
    return -1;
  }
  TRACE8("message=" << message << " localImetLabel=" << localImetLabel
                    << " localEsiMplsLabel=" << localEsiMplsLabel << " vlanAwareVlanId=" << vlanAwareVlanId
                    << " addInnerDot1Q=" << addInnerDot1Q << " origDot1QPresent=" << origDot1QPresent
                    << " controlWordEnabled=" << controlWordEnabled);
  TRACELET_RECORD(
      "message=<vlanId={};srcIntf={};senderIpAddress={};targetIpAddress={}> localImetLabel={} "
      "localEsiMplsLabel={} vlanAwareVlanId={} addInnerDot1Q={} origDot1QPresent={} controlWordEnabled={}",
      vlanId.value(), message.srcIntf().deviceName, message.senderIpAddress(), message.targetIpAddress(),
      localImetLabel.value(), localEsiMplsLabel, vlanAwareVlanId, addInnerDot1Q, origDot1QPresent,
      controlWordEnabled);

  std::array<std::byte, kLargestFlood> buffer;
  Lanix::ByteWriter frame(buffer);
  FloodHeader flood;
  flood.destination = bridgingConfig_->bridgeMacAddr();
  flood.source = header->source;
  flood.imetLabel = {localImetLabel.value(), false, kTimeToLive};
  flood.esiLabel = {localEsiMplsLabel, true, kTimeToLive};
  frame.write(flood);
  if (controlWordEnabled) frame.write(ControlWord{});
  frame.write(header->destination).write(header->source);
  if (addInnerDot1Q) {
    const Bridging::VlanIdOrNone inner(vlanAwareVlanId != 0 ? vlanAwareVlanId : vlanId.value());
    frame.write(Lanix::Be16(Lanix::kEtherTypeDot1q)).write(Lanix::Be16(inner.value()));
  }
  frame.write(Lanix::Be16(Lanix::kEtherTypeArp)).write(*arp);
  return static_cast<std::int32_t>(Lanix::PacketSockets::current().write(
      socket(), std::span<const std::byte>(buffer).first(frame.position())));
}

}  // namespace ArpSuppression
