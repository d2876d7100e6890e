#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "ArpSuppression/ArpInputConfigTrigger.h"
#include "ArpSuppression/ArpStatusHelper.h"
#include "ArpSuppression/LocalRequestRecord.h"
#include "ArpSuppression/NeverAnswered.h"
#include "ArpSuppression/Outcome.h"
#include "ArpSuppression/RemoteBindingStatus.h"
#include "ArpSuppression/TrappedMessage.h"
#include "ArpSuppression/VlanL3Info.h"
#include "Bridging/Config.h"
#include "Bridging/Status.h"
#include "Evpn/Status.h"
#include "Lanix/RawTxPam.h"
#include "Mox/Notifiee.h"
#include "Routing/Status.h"
#include "Suppression/Counter.h"
#include "Suppression/RemoteBindingConfig.h"
#include "Vrf/VrfIdMap.h"

namespace ArpSuppression {

// Answers trapped requests. For each it gathers what is known of the address asked for, decides, and does
// exactly one of: reply on behalf of the owner, ask for a kernel neighbour (when the switch itself asked),
// flood to the remote endpoints through the reinject queue, or leave the request alone. What is const here
// changes nothing, so that others can ask what would happen.
class ArpSuppressionSm final : public Mox::Entity {
 public:
  // How the owner's MAC is attached.
  enum class MacConnectionType : std::uint8_t {
    unknown,               // not in the MAC table
    remote,                // behind a remote endpoint
    localSinglehomed,      // on a port that is in no Ethernet segment
    localMultihomedDf,     // on a segment of which no remote endpoint is the VLAN's designated forwarder
    localMultihomedNonDf,  // on a segment whose designated forwarder for the VLAN is a remote endpoint
  };

  // A request, without the frame it came in. Of IPv6, of which none is trapped, it stands for a neighbour
  // solicitation: the decision on it is the same, and what is no reply means that the solicitation passes.
  struct Request {
    Bridging::VlanId vlanId;
    Lanix::IpGenAddr senderIpAddress;
    Lanix::EthAddr senderMacAddress;
    Lanix::IpGenAddr targetIpAddress;
    std::optional<Lanix::IntfId> sourcePort;  // unless the port it came from has no interface status
  };

  // Everything that the decision rests on.
  struct Facts {
    RemoteBinding remoteBinding;
    Lanix::EthAddr localBindingMac;  // of the kernel's neighbour; zero: none
    bool router = false;        // the owner is one, by the remote binding, else by the kernel's neighbour
    bool localArpReq = false;   // the switch itself asks
    Lanix::EthAddr bindingMac;  // the local one if there is one, else the remote one
    Bridging::Fid fid = 0;
    Memtab::Bridging::MemtabFdbStatus fdbEntry;  // of the binding MAC
    MacConnectionType connectionType = MacConnectionType::unknown;
    bool targetIsMine = false;
    bool probe = false;
    bool announcement = false;
    bool neverAnswer = false;  // a host asks, and the operator excluded the address
    bool noRoom = false;       // it is advertised, and there was no room for that
  };

  ArpSuppressionSm(Ptr<MessageTrap> receivedRequestTrap, Ptr<MessageQueue> reinjectMessageQueue,
                   Ptr<ArpSuppressionCounterStatus> arpSuppressionCounterStatus,
                   Ptr<LocalRequestRecord> localRequestRecord,
                   Ptr<const RemoteBindingConfig> remoteBindingConfig, Ptr<VlanL3InfoStatus> vlanL3InfoStatus,
                   Ptr<const Arp::Table::Status> arpStatus, Ptr<const Bridging::Config> bridgingConfig,
                   Ptr<const Memtab::Bridging::Status> bridgingStatus, Ptr<const Evpn::EvpnStatus> evpnStatus,
                   Ptr<const Routing::Fhrp::VirtualRouterMacStatus> fhrpVrMacStatus,
                   Ptr<const Vrf::VrfIdMap::NameToIdMap> vrfNameToIdMap,
                   Ptr<ArpInputConfigTrigger> arpInputConfigTrigger,
                   Ptr<const NeverAnswer> neverAnswer = nullptr,
                   Ptr<const RemoteBindingStatus> remoteBindingStatus = nullptr);
  ~ArpSuppressionSm() override;

  Facts gather(const Request& request) const;
  Outcome decide(const Request& request, const Facts& facts) const;

  // The switch itself asks: its bridge MAC, or the gateway MAC that it shares.
  bool localArpRequest(const Lanix::EthAddr& senderMacAddress) const;
  // The VLAN's id in the MAC table.
  Bridging::Fid fidOf(Bridging::VlanId vlanId) const;
  // Whether there is a socket to send answers by, or why not. Each batch of answers tries again.
  const Mox::Result<>& replySocket() const { return replySocket_; }
  bool fabricUsable() const { return fabricInterfaceWatch_ && fabricInterfaceWatch_->usable(); }

  Mox::String toStrep() const { return "<ArpSuppressionSm>"; }
  void dumpState(Orb::DumpContext& context, int indent) const;

 private:
  void handleInitialized();
  void handleTrappedRequest();
  void handleInBatch();
  void lookAhead(int round, Bridging::VlanId vlanId, const Lanix::IpGenAddr& targetIpAddress) const;

  Arp::Table::ArpEntry lookupLocalDynamicBinding(const Ptr<const VlanL3Info>& vlanL3Info,
                                                 Bridging::VlanId vlanId,
                                                 const Lanix::IpGenAddr& ipAddress) const;
  MacConnectionType getMacConnectionType(Bridging::VlanId vlanId, const Lanix::EthAddr& mac,
                                         const Memtab::Bridging::MemtabFdbStatus& entry) const;
  // Of a request that has the answer `mac`.
  Outcome::Kind deliver(const Request& request, const Facts& facts, const Lanix::EthAddr& mac) const;
  Outcome::Kind staticBinding(Bridging::VlanId vlanId, const Lanix::IpGenAddr& ipAddress,
                              const Lanix::EthAddr& mac) const;
  void traceDelivery(const TrappedMessage& request, const Outcome& outcome) const;
  void openRawTxPam();
  // Sender and target are those of the reply: the owner answers the requester.
  void sendArpReply(Bridging::VlanId vlanId, const Lanix::IpGenAddr& senderIpAddress,
                    const Lanix::EthAddr& senderMacAddress, const Lanix::IpGenAddr& targetIpAddress,
                    const Lanix::EthAddr& targetMacAddress);
  void sendReplies();
  void sendToRemoteTeps(const Ptr<const TrappedMessage>& request);
  void createStaticBinding(Bridging::VlanId vlanId, const Lanix::IpGenAddr& ipAddress);
  void count(ArpSuppressionCounterId id) { arpSuppressionCounterStatus_->increment(id); }

  Mox::Notifiee<MessageTrap> receivedRequestTrap_;
  Ptr<MessageQueue> reinjectMessageQueue_;
  Ptr<ArpSuppressionCounterStatus> arpSuppressionCounterStatus_;
  Ptr<LocalRequestRecord> localRequestRecord_;
  Ptr<const RemoteBindingConfig> remoteBindingConfig_;
  Ptr<VlanL3InfoStatus> vlanL3InfoStatus_;
  ArpStatusHelper arpStatus_;
  Ptr<const Bridging::Config> bridgingConfig_;
  Ptr<const Memtab::Bridging::Status> bridgingStatus_;
  Ptr<const Evpn::EvpnStatus> evpnStatus_;
  Ptr<const Routing::Fhrp::VirtualRouterMacStatus> fhrpVrMacStatus_;
  Ptr<const Vrf::VrfIdMap::NameToIdMap> vrfNameToIdMap_;
  Ptr<ArpInputConfigTrigger> arpInputConfigTrigger_;
  NeverAnswered neverAnswered_;
  Ptr<const RemoteBindingStatus> remoteBindingStatus_;
  Ptr<Lanix::RawTxPam> rawTxPam_;
  Mox::Result<> replySocket_;
  Ptr<VrfInterfaceWatch> fabricInterfaceWatch_;
  std::vector<Lanix::RawTxPam::Frame> replies_;  // of a batch that is being handled
};

constexpr std::array<const char*, 5> moxEnumNames(ArpSuppressionSm::MacConnectionType) {
  return {"unknown", "remote", "localSinglehomed", "localMultihomedDf", "localMultihomedNonDf"};
}

}  // namespace ArpSuppression
