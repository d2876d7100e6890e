#include "ArpSuppression/MessageTrapSm.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

#include "ArpSuppression/Trace.h"
#include "Lanix/PacketSockets.h"
#include "Lanix/Wire.h"
#include "Mox/Assert.h"

namespace ArpSuppression {

namespace {

constexpr char kSource[] = "ArpSuppression/MessageTrapSm";

// Trapped frames go before everything else that the agent does.
constexpr unsigned kTrapLevel = 1;

using Lanix::hex;
using Lanix::kEtherTypeArp;
using Lanix::kEtherTypeDot1q;

constexpr std::size_t kTrapHeaderSize = sizeof(Lanix::TrapHeader);
constexpr std::size_t kInnerOffset = Lanix::TrapHeader::kFrameAt;
constexpr std::size_t kEthHeaderSize = sizeof(Lanix::EthHdr);
constexpr std::size_t kTaggedEthHeaderSize = kEthHeaderSize + sizeof(Lanix::Dot1qTag);
constexpr std::size_t kArpSize = sizeof(Lanix::ArpIp4);

// Shared by all instances: a batch is handled before the next one is read.
std::array<std::array<std::byte, MessageTrapSm::kBufferSize>, MessageTrapSm::kBatch> buffers;

std::uint16_t be16(MessageTrapSm::MessageData data, std::size_t offset) {
  return static_cast<std::uint16_t>(std::to_integer<unsigned>(data[offset]) << 8 |
                                    std::to_integer<unsigned>(data[offset + 1]));
}

std::uint32_t be32(MessageTrapSm::MessageData data, std::size_t offset) {
  return std::uint32_t{be16(data, offset)} << 16 | be16(data, offset + 2);
}

// A batch ends also when a handler raises an error in it, or drops the reader.
struct Batch {
  explicit Batch(MessageTrap& messageTrap) : trap(&messageTrap) { trap->inBatchIs(true); }
  Batch(const Batch&) = delete;
  Batch& operator=(const Batch&) = delete;
  ~Batch() { trap->inBatchIs(false); }
  Ptr<MessageTrap> trap;
};

}  // namespace

struct MessageTrapSm::Parsed {
  Bridging::VlanId vlanId;
  TrappedMessage::MessageType type = TrappedMessage::MessageType::request;
  std::uint32_t ifIndex = 0;
  Lanix::ArpIp4 arp;
};

MessageTrapSm::MessageTrapSm(Ptr<Orb::TaskScheduler> scheduler, Mox::String interfaceName,
                             Ptr<VlanL3InfoStatus> vlanL3InfoStatus, Ptr<MessageTrap> receivedRequestTrap,
                             Ptr<MessageQueue> reinjectMessageQueue,
                             Ptr<const ArpSuppressionStatus> arpSuppressionStatus,
                             Ptr<ArpSuppressionCounterStatus> arpSuppressionCounterStatus,
                             Ptr<const Interface::DeviceIntfStatusDir> deviceIntfStatusDir)
    : MessageTapSocketSm(std::move(scheduler), "MessageTrapSm", kTrapLevel, std::move(interfaceName),
                         Protocol::tervakArpSnoop, NotifyMode::readable, std::move(vlanL3InfoStatus)),
      receivedRequestTrap_(std::move(receivedRequestTrap)),
      reinjectMessageQueue_(std::move(reinjectMessageQueue)),
      arpSuppressionStatus_(std::move(arpSuppressionStatus)),
      arpSuppressionCounterStatus_(std::move(arpSuppressionCounterStatus)),
      deviceIntfStatusDir_(std::move(deviceIntfStatusDir)) {}

Orb::WalkRet MessageTrapSm::walk() {
  Orb::WalkRet ret;
  if (!socketOpen()) return ret;
  const int sock = socket();
  MOX_ASSERT(kSource, "sock >= 0", sock >= 0);
  LifeGuard guard(*this);
  std::array<Lanix::PacketSockets::InFrame, kBatch> frames;
  for (;;) {
    for (std::size_t i = 0; i < kBatch; ++i) frames[i] = {buffers[i]};
    const int read = Lanix::PacketSockets::current().receiveBatch(sock, frames);
    if (read < 0) {
      const int error = errno;
      if (error == EINTR) continue;
      if (error == EAGAIN) return ret;
      TRACE8("read failed errno=" << std::strerror(error));
      arpSuppressionCounterStatus_->increment(ArpSuppressionCounterId::trapReadFailed);
      return ret;
    }
    const std::size_t count = static_cast<std::size_t>(read);
    const auto data = [&](std::size_t i) { return MessageData(buffers[i]).first(frames[i].size); };
    if (count > 1) {
      for (int round = 0; round < MessageTrap::kAheadRounds; ++round)
        for (std::size_t i = 0; i < count; ++i) announce(data(i), round);
    }
    {
      const Batch batch(*receivedRequestTrap_);
      for (std::size_t i = 0; i < count && guard.alive(); ++i) processMessage(data(i));
    }
    ret.processed += static_cast<std::uint32_t>(count);
    // Fewer than asked for: there were no more, and those that come now wake the socket again.
    if (!guard.alive() || count < kBatch) return ret;
    if (mustYield()) {
      ret.moreWork = true;
      return ret;
    }
  }
}

// Only looks at what a good untagged or tagged request has in its place; the checks come when it is its turn.
void MessageTrapSm::announce(MessageData data, int round) const {
  const MessageTrap::Ahead& ahead = receivedRequestTrap_->ahead();
  if (!ahead || data.size() < kInnerOffset + kEthHeaderSize + kArpSize) return;
  const std::size_t arpOffset =
      kInnerOffset + (be16(data, 28) == kEtherTypeDot1q ? kTaggedEthHeaderSize : kEthHeaderSize);
  const std::uint32_t vlan = be32(data, 16);
  if (!Bridging::VlanId::valid(vlan) || data.size() < arpOffset + kArpSize) return;
  ahead(round, Bridging::VlanId(vlan), Lanix::IpAddr(be32(data, arpOffset + 24)));
}

bool MessageTrapSm::refuse(ArpSuppressionCounterId counter, const char* why, MessageData data) {
  TRACE8(why << " data=" << hex(data));
  arpSuppressionCounterStatus_->increment(counter);
  return false;
}

bool MessageTrapSm::parse(MessageData data, Parsed& parsed) {
  using Id = ArpSuppressionCounterId;
  if (data.size() < kTrapHeaderSize)
    return refuse(Id::trapMalformed, "not enough data for vxlan_encap_hdr", data);
  if (be16(data, 12) != kEtherTypeArpSnoop)
    return refuse(Id::trapMalformed, "not ETH_P_TERVAK_ARP_SNOOP", data);
  const std::uint32_t vlan = be32(data, 16);
  if (!Bridging::VlanId::valid(vlan)) return refuse(Id::trapMalformed, "Invalid vlanId", data);
  parsed.vlanId = Bridging::VlanId(vlan);
  if (!arpSuppressionStatus_->vlanId(parsed.vlanId)) {
    TRACE8("Unexpected vlanId=" << parsed.vlanId << " data=" << hex(data));
    arpSuppressionCounterStatus_->increment(Id::trapVlanNotEnabled);
    return false;
  }
  if (data.size() - kInnerOffset < kEthHeaderSize)
    return refuse(Id::trapMalformed, "not enough data for ethhdr", data);

  std::size_t arpOffset = kInnerOffset + kEthHeaderSize;
  const std::uint16_t inner = be16(data, 28);
  if (inner == kEtherTypeDot1q) {
    if (data.size() - kInnerOffset < kTaggedEthHeaderSize) {
      return refuse(Id::trapMalformed, "not enough data for vlan_ethhdr", data);
    }
    if (be16(data, 32) != kEtherTypeArp) {
      TRACE8("ETH_P_8021Q encapsulated packet not ARP h_vlan_encapsulated_proto=" << be16(data, 32)
                                                                                  << " data=" << hex(data));
      arpSuppressionCounterStatus_->increment(Id::trapMalformed);
      return false;
    }
    arpOffset = kInnerOffset + kTaggedEthHeaderSize;
  } else if (inner != kEtherTypeArp) {
    TRACE8("packet not ARP h_proto=" << inner << " data=" << hex(data));
    arpSuppressionCounterStatus_->increment(Id::trapMalformed);
    return false;
  }

  const std::size_t remaining = data.size() - arpOffset;
  if (remaining < kArpSize) return refuse(Id::trapMalformed, "not enough data for ARP header", data);
  std::memcpy(&parsed.arp, data.data() + arpOffset, kArpSize);
  const Lanix::ArpIp4& arp = parsed.arp;
  if (arp.hardwareSize != 6 || arp.protocolSize != 4 || arp.hardwareType != 1 || arp.protocolType != 0x0800) {
    return refuse(Id::trapMalformed, "invalid ARP header", data);
  }
  switch (std::uint16_t{arp.operation}) {
    case Lanix::ArpIp4::kRequest:
      arpSuppressionCounterStatus_->increment(Id::trappedRequest);
      parsed.type = TrappedMessage::MessageType::request;
      break;
    case Lanix::ArpIp4::kReply:
      arpSuppressionCounterStatus_->increment(Id::trappedReply);
      parsed.type = TrappedMessage::MessageType::reply;
      break;
    default:
      TRACE8("ARP packet not a request or a reply opcode=" << std::uint16_t{arp.operation}
                                                           << " data=" << hex(data));
      arpSuppressionCounterStatus_->increment(Id::trapNotRequestOrReply);
      return false;
  }
  if (remaining > kArpSize) {
    TRACE8("ARP message has extra data rcv=" << remaining - kArpSize << " data=" << hex(data));
    arpSuppressionCounterStatus_->increment(Id::trapExtraData);
  }
  parsed.ifIndex = be32(data, 20);
  return true;
}

TrappedMessage::IntfStatusAndDeviceName MessageTrapSm::srcIntf(std::uint32_t ifIndex) const {
  if (deviceIntfStatusDir_) {
    auto found = deviceIntfStatusDir_->intfStatusAndDeviceName(ifIndex);
    if (found != TrappedMessage::IntfStatusAndDeviceName{}) return found;
  }
  return {nullptr, "", ifIndex};
}

void MessageTrapSm::processMessage(MessageData data) {
  Parsed parsed;
  if (!parse(data, parsed)) return;
  const auto message = trappedMessageFactory(parsed.vlanId, parsed.type, srcIntf(parsed.ifIndex),
                                             Lanix::IpGenAddr(parsed.arp.senderIp), parsed.arp.senderMac,
                                             Lanix::IpGenAddr(parsed.arp.targetIp),
                                             Lanix::PktManager::global().newPktWithSharedHeadData(data));
  TRACE8("trapped message=" << message);
  if (parsed.type == TrappedMessage::MessageType::request) {
    receivedRequestTrap_->lastTrappedMessageIs(message);
  } else {
    reinjectMessageQueue_->enqueueMessage(message);
  }
}

void MessageTrapSm::dumpState(Orb::DumpContext& context, int indent) const {
  context.line(indent, "MessageTrapSm");
  dumpSocket(context, indent);
  context.child(indent + 2, receivedRequestTrap_, "MessageTrap");
  context.child(indent + 2, reinjectMessageQueue_, "MessageQueue");
}

}  // namespace ArpSuppression
