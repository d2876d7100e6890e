#pragma once

#include <cstddef>
#include <memory>
#include <span>

#include "ArpSuppression/MessageTapSocketSm.h"
#include "ArpSuppression/TrappedMessage.h"
#include "Suppression/Counter.h"
#include "Suppression/Status.h"
#include "Switch/PassingProblem.h"

namespace ArpSuppression {

// Reads the frames that the data plane traps, checks them and hands the good ones on: a request becomes the
// trap's last message, a reply goes to the reinject queue. Everything else is counted, traced and dropped.
// Frames are read in batches; a time slice may end between any two, and an error that the handling of one
// raises costs that one. Frames that found no room in the receive queue are counted.
//
// A trapped buffer (multi-byte fields big-endian):
//
//   | offset | size | field                                                            |
//   |--------|------|------------------------------------------------------------------|
//   | 0      | 12   | destination and source MAC of the trapped frame                  |
//   | 12     | 2    | 0x8135                                                           |
//   | 14     | 2    | not read                                                         |
//   | 16     | 4    | VLAN id, 1 to 4094                                               |
//   | 20     | 4    | kernel index of the ingress interface                            |
//   | 24     | 4    | not read                                                         |
//   | 28     | 2    | Ethernet type of the trapped frame: 0x0806, or 0x8100            |
//   | 30     | 4    | with 0x8100: tag control information, not read; then 0x0806      |
//   | 30/34  | 28   | ARP for IPv4 over Ethernet (RFC 826); more bytes are extra data  |
class MessageTrapSm : public MessageTapSocketSm {
 public:
  // The bytes of one trapped buffer.
  using MessageData = std::span<const std::byte>;
  static constexpr std::size_t kBufferSize = 10000;
  // Frames that are read together.
  static constexpr std::size_t kBatch = 32;

  ~MessageTrapSm() override;

  void processMessage(MessageData data);

  void dumpState(Orb::DumpContext& context, int indent) const;

 protected:
  MessageTrapSm(Ptr<Orb::TaskScheduler> scheduler, Mox::String interfaceName,
                Ptr<VlanL3InfoStatus> vlanL3InfoStatus, Ptr<MessageTrap> receivedRequestTrap,
                Ptr<MessageQueue> reinjectMessageQueue, Ptr<const ArpSuppressionStatus> arpSuppressionStatus,
                Ptr<ArpSuppressionCounterStatus> arpSuppressionCounterStatus,
                Ptr<const Interface::DeviceIntfStatusDir> deviceIntfStatusDir);

 private:
  struct Batch;
  // What the checks leave of a buffer.
  struct Parsed;

  Orb::WalkRet walk() override;
  bool readBatch();
  void announceBatch() const;
  void countDropped();
  // False when the buffer is refused; it was counted and traced then.
  bool parse(MessageData data, Parsed& parsed);
  bool refuse(ArpSuppressionCounterId counter, const char* why, MessageData data);
  TrappedMessage::IntfStatusAndDeviceName srcIntf(std::uint32_t ifIndex) const;

  Ptr<MessageTrap> receivedRequestTrap_;
  Ptr<MessageQueue> reinjectMessageQueue_;
  Ptr<const ArpSuppressionStatus> arpSuppressionStatus_;
  Ptr<ArpSuppressionCounterStatus> arpSuppressionCounterStatus_;
  Ptr<const Interface::DeviceIntfStatusDir> deviceIntfStatusDir_;
  Switch::PassingProblem lost_;
  std::unique_ptr<Batch> batch_;
};

// On switch hardware.
class MessageTrapSmPhysical final : public MessageTrapSm {
 public:
  // What MessageTrapSm takes, without the interface's name.
  template <class... Inputs>
  explicit MessageTrapSmPhysical(Ptr<Orb::TaskScheduler> scheduler, Inputs&&... inputs)
      : MessageTrapSm(std::move(scheduler), "fabric", std::forward<Inputs>(inputs)...) {}
};

// On the software-forwarding data plane.
class MessageTrapSmSimfwd final : public MessageTrapSm {
 public:
  template <class... Inputs>
  explicit MessageTrapSmSimfwd(Ptr<Orb::TaskScheduler> scheduler, Inputs&&... inputs)
      : MessageTrapSm(std::move(scheduler), "arpsnoop", std::forward<Inputs>(inputs)...) {}
};

}  // namespace ArpSuppression
