#include "ArpSuppression/MessageTrapSm.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

#include "ArpSuppression/Problems.h"
#include "ArpSuppression/Trace.h"
#include "Lanix/Bytes.h"
#include "Lanix/PacketSockets.h"
#include "Lanix/Wire.h"
#include "Mox/Assert.h"

namespace ArpSuppression {

namespace {

constexpr char kSource[] = "ArpSuppression/MessageTrapSm";

// Trapped frames go before everything else that the agent does.
constexpr unsigned kTrapLevel = 1;

using Id = ArpSuppressionCounterId;
using Lanix::hex;

// For its life requests are handed over as a batch, whose answers leave together at its end. That comes also
// when a handler drops the reader.
struct HandOver {
  explicit HandOver(MessageTrap& messageTrap) : trap(&messageTrap) { trap->inBatchIs(true); }
  HandOver(const HandOver&) = delete;
  HandOver& operator=(const HandOver&) = delete;
  ~HandOver() { trap->inBatchIs(false); }
  Ptr<MessageTrap> trap;
};

}  // namespace

// Frames that were read together: those before `next` were handled. A time slice may end between two of them.
struct MessageTrapSm::Batch {
  std::array<std::array<std::byte, kBufferSize>, kBatch> buffers;
  std::array<Lanix::PacketSockets::InFrame, kBatch> frames;
  std::size_t count = 0;
  std::size_t next = 0;

  MessageData data(std::size_t i) const { return MessageData(buffers[i]).first(frames[i].size); }
};

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
      deviceIntfStatusDir_(std::move(deviceIntfStatusDir)),
      lost_(problems(), this->scheduler()->loop(), "receive queue of " + this->interfaceName()),
      batch_(std::make_unique_for_overwrite<Batch>()) {}

MessageTrapSm::~MessageTrapSm() = default;

Orb::WalkRet MessageTrapSm::walk() {
  Orb::WalkRet ret;
  Batch& batch = *batch_;
  if (!socketOpen()) {
    batch.next = batch.count;
    return ret;
  }
  MOX_ASSERT(kSource, "sock >= 0", socket() >= 0);
  LifeGuard guard(*this);
  Orb::EventLoop& loop = scheduler()->loop();
  bool justRead = false;  // not in an earlier slice
  bool wasFull = false;
  for (bool yield = false; !yield;) {
    if (batch.next == batch.count) {
      ret.moreWork = false;
      if (!socketOpen() || !readBatch()) break;
      justRead = true;
    }
    wasFull = wasFull || batch.count == kBatch;
    {
      const HandOver handOver(*receivedRequestTrap_);
      while (batch.next < batch.count && !yield) {
        const MessageData data = batch.data(batch.next++);
        // An error costs the frame that raised it, not those behind it.
        loop.dispatch(kSource, [&] { processMessage(data); });
        ++ret.processed;
        if (!guard.alive()) return ret;
        yield = mustYield();
      }
    }
    // Just read, and fewer than asked for: there were no more, and the next one starts a walk. One that came
    // between the slices did not.
    ret.moreWork = batch.next < batch.count || batch.count == kBatch || !justRead;
    if (!ret.moreWork) break;
  }
  // Frames are lost behind a queue that is full; so it takes a full batch for any to be.
  if (wasFull) countDropped();
  return ret;
}

// The next frames into the batch; false when there are none, or they cannot be read.
bool MessageTrapSm::readBatch() {
  Batch& batch = *batch_;
  batch.count = batch.next = 0;
  for (std::size_t i = 0; i < kBatch; ++i) batch.frames[i] = {batch.buffers[i]};
  int read = 0;
  do {
    read = Lanix::PacketSockets::current().receiveBatch(socket(), batch.frames);
  } while (read < 0 && errno == EINTR);
  if (read < 0) {
    const int error = errno;
    if (error == EAGAIN) return false;
    TRACE8("read failed errno=" << std::strerror(error));
    TRACELET_RECORD("read failed intfId={} errno={}", interfaceName(), std::strerror(error));
    arpSuppressionCounterStatus_->increment(Id::trapReadFailed);
    return false;
  }
  batch.count = static_cast<std::size_t>(read);
  if (batch.count > 1) announceBatch();
  return batch.count != 0;
}

void MessageTrapSm::countDropped() {
  const std::uint32_t dropped = Lanix::PacketSockets::current().takeDropped(socket());
  if (dropped == 0) return;
  TRACE8("dropped=" << dropped);
  TRACELET_RECORD("trapped frames dropped intfId={} dropped={}", interfaceName(), dropped);
  arpSuppressionCounterStatus_->increment(Id::trapDropped, dropped);
  lost_.happened("requests are lost: more come than are read",
                 "find who sends that many; the counter trapDropped has how many were lost",
                 Switch::Origin::perhapsStorm);
}

// Only looks at what a good untagged or tagged request has in its place; the checks come when it is its turn.
void MessageTrapSm::announceBatch() const {
  const MessageTrap::Ahead& ahead = receivedRequestTrap_->ahead();
  if (!ahead) return;
  struct Request {
    Bridging::VlanId vlanId;
    Lanix::IpGenAddr targetIpAddress;
  };
  std::array<Request, kBatch> requests;
  std::size_t count = 0;
  for (std::size_t i = 0; i < batch_->count; ++i) {
    Lanix::ByteCursor cursor(batch_->data(i));
    const auto header = cursor.read<Lanix::TrapHeader>();
    const auto type = cursor.read<Lanix::Be16>();
    if (type && *type == Lanix::kEtherTypeDot1q) cursor.skip(sizeof(Lanix::Dot1qTag));
    const auto arp = cursor.read<Lanix::ArpIp4>();
    if (!header || !arp || !Bridging::VlanId::valid(header->vlanId)) continue;
    requests[count++] = {Bridging::VlanId(header->vlanId), Lanix::IpGenAddr(arp->targetIp)};
  }
  for (int round = 0; round < MessageTrap::kAheadRounds; ++round) {
    for (std::size_t i = 0; i < count; ++i) ahead(round, requests[i].vlanId, requests[i].targetIpAddress);
  }
}

bool MessageTrapSm::refuse(ArpSuppressionCounterId counter, const char* why, MessageData data) {
  TRACE8(why << " data=" << hex(data));
  arpSuppressionCounterStatus_->increment(counter);
  return false;
}

bool MessageTrapSm::parse(MessageData data, Parsed& parsed) {
  Lanix::ByteCursor cursor(data);
  const auto header = cursor.read<Lanix::TrapHeader>();
  if (!header) return refuse(Id::trapMalformed, "not enough data for vxlan_encap_hdr", data);
  if (header->type != Lanix::kEtherTypeTrap)
    return refuse(Id::trapMalformed, "not ETH_P_TERVAK_ARP_SNOOP", data);
  if (!Bridging::VlanId::valid(header->vlanId)) return refuse(Id::trapMalformed, "Invalid vlanId", data);
  parsed.vlanId = Bridging::VlanId(header->vlanId);
  parsed.ifIndex = header->ifIndex;
  if (!arpSuppressionStatus_->vlanId(parsed.vlanId)) {
    TRACE8("Unexpected vlanId=" << parsed.vlanId << " data=" << hex(data));
    arpSuppressionCounterStatus_->increment(Id::trapVlanNotEnabled);
    return false;
  }

  const auto type = cursor.read<Lanix::Be16>();
  if (!type) return refuse(Id::trapMalformed, "not enough data for ethhdr", data);
  if (*type == Lanix::kEtherTypeDot1q) {
    const auto tag = cursor.read<Lanix::Dot1qTag>();
    if (!tag) return refuse(Id::trapMalformed, "not enough data for vlan_ethhdr", data);
    if (tag->type != Lanix::kEtherTypeArp) {
      TRACE8("ETH_P_8021Q encapsulated packet not ARP h_vlan_encapsulated_proto=" << std::uint16_t{tag->type}
                                                                                  << " data=" << hex(data));
      arpSuppressionCounterStatus_->increment(Id::trapMalformed);
      return false;
    }
  } else if (*type != Lanix::kEtherTypeArp) {
    TRACE8("packet not ARP h_proto=" << std::uint16_t{*type} << " data=" << hex(data));
    arpSuppressionCounterStatus_->increment(Id::trapMalformed);
    return false;
  }

  const auto read = cursor.read<Lanix::ArpIp4>();
  if (!read) return refuse(Id::trapMalformed, "not enough data for ARP header", data);
  const Lanix::ArpIp4& arp = parsed.arp = *read;
  if (arp.hardwareSize != 6 || arp.protocolSize != 4 || arp.hardwareType != Lanix::ArpIp4::kEthernet ||
      arp.protocolType != Lanix::kEtherTypeIpv4) {
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
  if (cursor.remaining() != 0) {
    TRACE8("ARP message has extra data rcv=" << cursor.remaining() << " data=" << hex(data));
    arpSuppressionCounterStatus_->increment(Id::trapExtraData);
  }
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
