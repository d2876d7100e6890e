#pragma once

#include <array>
#include <bitset>
#include <cstdint>
#include <map>

#include "Arp/Table.h"
#include "ArpSuppression/ArpSuppressionSm.h"
#include "ArpSuppression/RemoteBindingStatus.h"
#include "ArpSuppression/RemoteBindingStatusSm.h"
#include "ArpSuppression/VlanL3Info.h"
#include "Bridging/Config.h"
#include "Bridging/Status.h"
#include "Evpn/Status.h"
#include "Mox/HashTable.h"
#include "Mox/Notifiee.h"
#include "Orb/WalkSm.h"
#include "Suppression/Answer.h"
#include "Suppression/NeverAnswer.h"
#include "Suppression/Status.h"
#include "Switch/ConfigWatch.h"

namespace ArpSuppression {

// Keeps the table of answers: for each address the answer that an ordinary host on any port but the owner's
// would get, as ArpSuppressionSm decides it; for an IPv6 address as it would decide, were solicitations trapped.
//
// A change that names its addresses (a binding, a neighbour, a station of the MAC table, an address of the
// switch) costs these, in the turn that tells of it. For any other (a VLAN's layer 3 or activity, its FID, an
// Ethernet segment, the fabric device, what the operator excludes) the VLAN leaves AnswerVlans at once, and a
// walk goes over all addresses and lets it in again: entries that are still right are not written again.
//
// A VLAN whose requests the configuration leaves to the agent has no entries, and stays out; one whose
// solicitations it lets pass has none of IPv6.
//
// While a VLAN is to be walked, changes of its bindings cost nothing: the walk comes over them. The first one
// waits until the remote bindings that were there at start are known.
class AnswerSm final : public Orb::WalkSmBase {
 public:
  struct Inputs {
    Ptr<const ArpSuppressionSm> arpSuppressionSm;
    Ptr<const ArpSuppressionStatus> arpSuppressionStatus;
    Ptr<const RemoteBindingConfig> remoteBindingConfig;
    Ptr<const RemoteBindingStatus> remoteBindingStatus;
    Ptr<const RemoteBindingStatusSm> remoteBindingStatusSm;
    Ptr<const VlanL3InfoStatus> vlanL3InfoStatus;
    Ptr<const Arp::Table::Status> arpStatus;
    Ptr<const Bridging::Config> bridgingConfig;
    Ptr<const Memtab::Bridging::Status> bridgingStatus;
    Ptr<const Evpn::EvpnStatus> evpnStatus;
    Ptr<const NeverAnswer> neverAnswer;
    Ptr<const Switch::Config> config;  // null: all VLANs have answers
    friend bool operator==(const Inputs&, const Inputs&) = default;
  };
  struct Outputs {
    Ptr<AnswerStatus> answerStatus;
    Ptr<AnswerVlans> answerVlans;
    friend bool operator==(const Outputs&, const Outputs&) = default;
  };
  AnswerSm(Ptr<Orb::TaskScheduler> scheduler, Inputs inputs, Outputs outputs);
  // No VLAN is in AnswerVlans afterwards; the entries stay for the next reactor to go over.
  ~AnswerSm() override;

  enum class WalkStage : std::uint8_t { walkAnswerStatus, walkRemoteBindingConfig, walkArpStatus };

  Mox::String toStrep() const { return "<AnswerSm>"; }
  void dumpState(Orb::DumpContext& context, int indent) const;

 private:
  using Vlans = std::bitset<Bridging::VlanId::kMax + 1>;
  // The layer 3 of a VLAN, as far as answers hang on it.
  struct VlanWatch {
    Mox::Notifiee<const VlanL3Info> vlanL3Info;
    Mox::Notifiee<const VrfInfo> vrfInfo;
  };

  Orb::WalkRet walk() override;
  void walkFinishedNotification() override;

  void handleKnownBinding(const RemoteBindingKey& key);
  void handleArpEntry(const Arp::Table::ArpKey& key);
  void handleFdb(const Bridging::HostKey& key);
  void handleStation(const VlanIdMacAddress& station);
  void handleVlanL3Info(Bridging::VlanId vlanId);
  void handleSegment(const Lanix::IntfId& intfId);
  void handleFabric();
  void handleConfig();

  // Leaves AnswerVlans until the walk has been over all its addresses.
  void outdated(Bridging::VlanId vlanId);
  void allOutdated();
  void update(const AnswerKey& key);
  bool isWithout(const AnswerKey& key) const;
  void neighbourIs(const AnswerKey& key, const Lanix::EthAddr& macAddress);
  Answer answerOf(const ArpSuppressionSm::Request& request, const ArpSuppressionSm::Facts& facts) const;
  template <class Collection>
  bool walkTable(const Collection& table, Orb::WalkRet& ret);

  Ptr<const ArpSuppressionSm> arpSuppressionSm_;
  Mox::Notifiee<const ArpSuppressionStatus> arpSuppressionStatus_;
  Ptr<const RemoteBindingConfig> remoteBindingConfig_;
  Mox::Notifiee<const RemoteBindingStatus> remoteBindingStatus_;
  Mox::Notifiee<const RemoteBindingStatusSm> remoteBindingStatusSm_;
  Mox::Notifiee<const VlanL3InfoStatus> vlanL3InfoStatus_;
  Mox::Notifiee<const Arp::Table::Status> arpStatus_;
  Mox::Notifiee<const Bridging::Config> bridgingConfig_;
  Mox::Notifiee<const Memtab::Bridging::Status> bridgingStatus_;
  Mox::Notifiee<const Evpn::EvpnStatus> evpnStatus_;
  Mox::Notifiee<const NeverAnswer> neverAnswer_;
  Mox::Notifiee<const VrfInterfaceWatch> fabric_;
  Mox::Notifiee<const VrfInfo> fabricVrf_;
  Switch::ConfigWatch config_;
  Ptr<AnswerStatus> answerStatus_;
  Ptr<AnswerVlans> answerVlans_;
  std::map<Bridging::VlanId, VlanWatch> vlans_;
  std::map<Lanix::IntfId, Mox::Notifiee<const Evpn::SegmentStatus>> segments_;
  bool fabricUsable_ = false;
  bool configChanged_ = false;  // since it was last looked at

  // Addresses whose answer hangs on the kernel's neighbour, where no binding leads from the neighbour's
  // station to them: by address and by station.
  Mox::HashMap<AnswerKey, Lanix::EthAddr> neighbours_;
  std::map<VlanIdMacAddress, Mox::SmallSet<Lanix::IpGenAddr>> neighboursOf_;

  Vlans without_;    // answers, by the configuration
  Vlans withoutNd_;  // answers of IPv6
  Vlans outdated_;   // to be walked
  Vlans walking_;    // of the walk that is going on
  WalkStage walkStage_ = WalkStage::walkAnswerStatus;
  Memtab::Cursor bookmark_;  // in the table of the stage
};

constexpr std::array<const char*, 3> moxEnumNames(AnswerSm::WalkStage) {
  return {"walkAnswerStatus", "walkRemoteBindingConfig", "walkArpStatus"};
}

}  // namespace ArpSuppression
