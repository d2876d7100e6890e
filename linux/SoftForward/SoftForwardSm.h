#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>

#include "Bridging/Config.h"
#include "Mox/Notifiee.h"
#include "Orb/DumpContext.h"
#include "Orb/FileDescriptor.h"
#include "Orb/WalkSm.h"
#include "Routing/Status.h"
#include "SoftForward/AnswerMirror.h"
#include "SoftForward/AnswerTally.h"
#include "SoftForward/Datapath.h"
#include "SoftForward/Heartbeat.h"
#include "SoftForward/PolicerWatch.h"
#include "Suppression/Answer.h"
#include "Suppression/DataPlaneAnswers.h"
#include "Suppression/Status.h"
#include "Switch/ConfigWatch.h"
#include "Switch/Forwarding.h"
#include "Switch/ProblemReporter.h"
#include "Switch/Readiness.h"
#include "Switch/VlanInterfaces.h"

namespace SoftForward {

// Keeps the data path in step with the switch: the bridges and ports of the configured VLANs as the kernel
// has them now, and the VLANs on which suppression is in force. Ports and VLANs may come and go; a changed
// configuration is nothing to those that are in it as before.
//
// What the switch itself asks for on its VLANs is trapped while the plug-in "ArpService" is loaded, which
// turns what the agent then decides into kernel neighbours. Without it nobody would answer, so it is left
// alone.
//
// While the switch shares a gateway MAC with its peers, the VLANs' bridges are told that it is behind the
// VLANs' interfaces: a bridge floods what is for an address that it does not know, and hands none of it to
// its own device.
//
// Requests that the agent would answer are answered by the programs themselves where that is configured.
//
// Frames are trapped only while the agent is there for them: while the plug-ins that make answers do all of
// their work and the event loop turns (see Heartbeat). Otherwise everything is flooded, which is published.
//
// The walk does what the data path has to do, one VLAN after the other, and rests as soon as that has nothing
// left. Only the VLANs of a bridge's port are followed at once: until the programs know that a port has
// another one, its frames are taken for the wrong VLAN's. The outcome is published for each VLAN; what is
// wrong is reported once, and tried again every few seconds where the kernel refused.
class SoftForwardSm final : public Orb::WalkSmBase {
 public:
  // What the agent would answer, and what becomes of it here. Without the first two nothing is answered.
  struct Answering {
    Mox::Ptr<const ArpSuppression::AnswerStatus> answerStatus;
    Mox::Ptr<const ArpSuppression::AnswerVlans> answerVlans;
    Mox::Ptr<ArpSuppression::DataPlaneAnswers> dataPlaneAnswers;
  };

  // `programs` are loaded here unless they are already; they outlive the reactor. `problems` may be null.
  SoftForwardSm(const Mox::Ptr<Orb::TaskScheduler>& scheduler, Programs& programs,
                Mox::Ptr<const Switch::Config> switchConfig,
                Mox::Ptr<const ArpSuppression::ArpSuppressionStatus> arpSuppressionStatus,
                Mox::Ptr<const Bridging::Config> bridgingConfig,
                Mox::Ptr<const Routing::Fhrp::VirtualRouterMacStatus> fhrpVrMacStatus,
                Mox::Ptr<const Switch::VlanInterfaces> vlanInterfaces,
                Mox::Ptr<const Switch::Readiness> readiness, Mox::Ptr<Switch::Forwarding> forwarding,
                Answering answering, Mox::Ptr<Switch::Problems> problems);
  // Detaches everything and removes the devices that it made.
  ~SoftForwardSm() override;

  // Nothing more is trapped, for good, and when the last that was has come to the agent.
  void endBegins() {
    heartbeat_.expire();
    followHolding();
  }
  bool finished() const { return heartbeat_.expired(); }

  void dumpState(Orb::DumpContext& context, int indent) const;
  // Ports, pairs and counters of the programs as one JSON object.
  void show(Orb::DumpContext& answer, bool devices) const;

 private:
  Orb::WalkRet walk() override;
  void walkFinishedNotification() override;

  bool open();
  Mox::Result<> follow();  // what the kernel tells, in the loop; what is followed already stays
  void followVlans();
  void followConfig();
  void handleAddresses();
  void followAnswers();
  void followHolding();
  void handleReadiness();
  void followReadiness();
  Mox::String awaited() const;
  void handleVlanId(Bridging::VlanId vlanId);
  void handleVlanInterface(Bridging::VlanId vlanId);
  void handleLooked(std::uint16_t id, const Standing& standing);
  bool isToReport(std::uint16_t id, const Standing& standing);
  void report(std::uint16_t id, const Standing& standing, bool main);

  Switch::ConfigWatch switchConfig_;
  Mox::Notifiee<const ArpSuppression::ArpSuppressionStatus> arpSuppressionStatus_;
  Mox::Notifiee<const Bridging::Config> bridgingConfig_;
  Mox::Notifiee<const Routing::Fhrp::VirtualRouterMacStatus> fhrpVrMacStatus_;
  Mox::Notifiee<const Switch::VlanInterfaces> vlanInterfaces_;
  Mox::Notifiee<const Switch::Readiness> readiness_;
  Mox::Ptr<Switch::Forwarding> forwarding_;
  const Answering answering_;
  Switch::ProblemReporter problems_;
  const bool ownTrapped_;
  bool open_ = false;
  Programs& programs_;
  Datapath datapath_;
  PolicerWatch policerWatch_;
  Heartbeat heartbeat_;
  AnswerTally answerTally_;
  std::optional<AnswerMirror> answerMirror_;       // while the programs are loaded
  std::map<Bridging::VlanId, VlanWanted> wanted_;  // as the configuration was last
  Mox::Notifiee<Orb::FileDescriptor> descriptor_;
  Mox::Notifiee<Orb::FileDescriptor> vlanDescriptor_;
  bool sharedReady_ = false;
  std::map<std::uint16_t, double> notReadySince_;
  std::map<std::uint16_t, std::set<std::string>> reported_;  // the subjects, by VLAN
  Orb::Task again_;
  Orb::Task followVlans_;
  Orb::Task followReadiness_;
  Orb::Task followConfig_;
  double failingSince_ = 0;
};

}  // namespace SoftForward
