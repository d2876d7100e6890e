#pragma once

#include <cstdint>

#include "ArpSuppression/MessageTapSocketSm.h"
#include "ArpSuppression/TrappedMessage.h"
#include "Bridging/Config.h"
#include "Evpn/Status.h"
#include "Suppression/Counter.h"

namespace ArpSuppression {

// Drains the reinject queue into the data plane, a time slice at a time, and sets the queue's limit by what
// one slice can write. While its device is not usable the queue is emptied unsent. A message whose write
// fails is lost, and the rest waits until the next one is queued or the device takes frames again. So is one
// that meets a range error, which the dispatch reports; the rest goes on in a walk of its own.
class MessageReinjectSmBase : public MessageTapSocketSm {
 public:
  void dumpState(Orb::DumpContext& context, int indent) const;

 protected:
  MessageReinjectSmBase(Ptr<Orb::TaskScheduler> scheduler, Mox::String interfaceName, Protocol protocol,
                        Ptr<VlanL3InfoStatus> vlanL3InfoStatus, Ptr<MessageQueue> reinjectMessageQueue,
                        Ptr<ArpSuppressionCounterStatus> arpSuppressionCounterStatus);

  // Negative: the write failed, and errno tells why. Otherwise the message is done with.
  virtual std::int32_t processMessage(const TrappedMessage& message) = 0;

  const Ptr<ArpSuppressionCounterStatus>& arpSuppressionCounterStatus() const {
    return arpSuppressionCounterStatus_;
  }

 private:
  Orb::WalkRet walk() override;
  void handleMessage();

  Mox::Notifiee<MessageQueue> reinjectMessageQueue_;
  Ptr<ArpSuppressionCounterStatus> arpSuppressionCounterStatus_;
  bool taking_ = false;  // messages off the queue, now
};

// On the software-forwarding data plane: a message goes back as it was trapped.
class MessageReinjectSmSimfwd final : public MessageReinjectSmBase {
 public:
  MessageReinjectSmSimfwd(Ptr<Orb::TaskScheduler> scheduler, Ptr<VlanL3InfoStatus> vlanL3InfoStatus,
                          Ptr<MessageQueue> reinjectMessageQueue,
                          Ptr<ArpSuppressionCounterStatus> arpSuppressionCounterStatus);

 private:
  std::int32_t processMessage(const TrappedMessage& message) override;
};

// On switch hardware, whose chip copies what it gets on "fabric" to the remote switches of the VLAN: a
// message goes out behind the labels of the VLAN's flood path. Messages of a VLAN that has no label are
// dropped and counted, as reinjected too.
//
//   | offset | size | field                                                                              |
//   |--------|------|------------------------------------------------------------------------------------|
//   | 0      | 6    | destination MAC: the switch's own                                                  |
//   | 6      | 6    | source MAC: that of the trapped frame                                              |
//   | 12     | 4    | 802.1Q tag, priority 0, VLAN id 0xFFF: no VLAN of the switch                       |
//   | 16     | 2    | 0x8847                                                                             |
//   | 18     | 4    | label stack entry (RFC 3032): the VLAN's inclusive multicast label (RFC 7432, 7.3) |
//   | 22     | 4    | label stack entry, bottom of stack: the label of the Ethernet segment that the     |
//   |        |      | message came from (RFC 7432, 8.3), or 3, the implicit null label (RFC 3032)        |
//   | 26     | 4    | control word of zeros (RFC 4385, RFC 4448), when it is configured                  |
//   | +0     | 12   | the MACs of the trapped frame                                                      |
//   | +12    | 4    | 802.1Q tag, priority 0, when frames carry one inside                               |
//   | +0     | 2    | 0x0806                                                                             |
//   | +2     | 28   | ARP as it was trapped (RFC 826); what came behind it is left out                   |
//
// Numbers are big-endian. The label stack entries have traffic class 0 and a time to live of 255.
class MessageReinjectSmPhysical final : public MessageReinjectSmBase {
 public:
  MessageReinjectSmPhysical(Ptr<Orb::TaskScheduler> scheduler, Ptr<VlanL3InfoStatus> vlanL3InfoStatus,
                            Ptr<MessageQueue> reinjectMessageQueue,
                            Ptr<ArpSuppressionCounterStatus> arpSuppressionCounterStatus,
                            Ptr<const Evpn::EvpnStatus> evpnStatus,
                            Ptr<const Evpn::MplsConfig> evpnMplsConfig,
                            Ptr<const Bridging::Config> bridgingConfig);

 private:
  std::int32_t processMessage(const TrappedMessage& message) override;
  std::uint32_t esiMplsLabel(const TrappedMessage& message) const;

  Ptr<const Evpn::EvpnStatus> evpnStatus_;
  Ptr<const Evpn::MplsConfig> evpnMplsConfig_;
  Ptr<const Bridging::Config> bridgingConfig_;
};

}  // namespace ArpSuppression
