#pragma once

#include "Arp/InputConfig.h"
#include "Arp/Table.h"
#include "ArpSuppression/AnswerCounterSm.h"
#include "ArpSuppression/AnswerSm.h"
#include "ArpSuppression/ArpInputConfigSm.h"
#include "ArpSuppression/ArpInputConfigTrigger.h"
#include "ArpSuppression/ArpSuppressionSm.h"
#include "ArpSuppression/ArpSuppressionStatusSm.h"
#include "ArpSuppression/BindingDiscoverySm.h"
#include "ArpSuppression/EnabledVlans.h"
#include "ArpSuppression/LocalBinding.h"
#include "ArpSuppression/LocalRequestRecord.h"
#include "ArpSuppression/LocalRequestRecordSm.h"
#include "ArpSuppression/MessageReinjectSm.h"
#include "ArpSuppression/MessageTrapSm.h"
#include "ArpSuppression/ReadinessSm.h"
#include "ArpSuppression/RemoteBindingStatus.h"
#include "ArpSuppression/RemoteBindingStatusSm.h"
#include "ArpSuppression/TrappedMessage.h"
#include "ArpSuppression/VlanL3Info.h"
#include "ArpSuppression/VlanL3InfoSm.h"
#include "Bridging/Config.h"
#include "Bridging/Status.h"
#include "Evpn/Status.h"
#include "Interface/Directory.h"
#include "Ip/Status.h"
#include "Memtab/EntityManager.h"
#include "Mox/Notifiee.h"
#include "Mox/Owner.h"
#include "Plugin/AgentBase.h"
#include "Routing/Status.h"
#include "Statedb/EntityManager.h"
#include "Suppression/Counter.h"
#include "Suppression/RemoteBindingConfig.h"
#include "Suppression/Status.h"
#include "Switch/Readiness.h"
#include "Vrf/VrfIdMap.h"

namespace ArpSuppression {

// Every input and output of the agent, as mounted. Immutable. A path that nobody has leaves its member empty.
struct ArpSuppressionMounts final : public Mox::Referenced {
  ArpSuppressionMounts(
      Ptr<Statedb::EntityManager> entityManager, Ptr<const RemoteBindingConfig> remoteBindingConfig,
      Ptr<const MoxSharedMem::MountGroup> remoteBindingConfigMountGroup,
      Ptr<ArpSuppressionStatus> arpSuppressionStatus,
      Ptr<ArpSuppressionCounterStatus> arpSuppressionCounterStatus,
      Ptr<const Ip::AllVrfStatusLocal> allVrfStatusLocal, Ptr<const Vrf::VrfIdMap::Status> vrfIdMap,
      Ptr<const Vrf::VrfIdMap::NameToIdMap> vrfNameToIdMap, Ptr<const Arp::Table::Status> arpStatus,
      Ptr<const Ip::Status> ipStatus, Ptr<const Bridging::Config> bridgingConfig,
      Ptr<const Memtab::Bridging::Status> bridgingStatus, Ptr<const Evpn::EvpnStatus> evpnStatus,
      Ptr<const Evpn::MplsConfig> evpnMplsConfig,
      Ptr<const Routing::Fhrp::VirtualRouterMacStatus> fhrpVrMacStatus,
      Ptr<Arp::ArpInputConfig> arpInputConfig, Ptr<const Interface::AllIntfStatusDir> allIntfStatusDir,
      Ptr<const Interface::AllIntfStatusLocalDir> allIntfStatusLocalDir,
      Ptr<const Routing::L2Vpn::Config> l2VpnConfig, Ptr<Switch::Readiness> readiness,
      Ptr<AnswerStatus> answerStatus);

  const Ptr<Statedb::EntityManager> entityManager;
  const Ptr<const RemoteBindingConfig> remoteBindingConfig;
  const Ptr<const MoxSharedMem::MountGroup> remoteBindingConfigMountGroup;
  const Ptr<ArpSuppressionStatus> arpSuppressionStatus;
  const Ptr<ArpSuppressionCounterStatus> arpSuppressionCounterStatus;
  const Ptr<const Ip::AllVrfStatusLocal> allVrfStatusLocal;
  const Ptr<const Vrf::VrfIdMap::Status> vrfIdMap;
  const Ptr<const Vrf::VrfIdMap::NameToIdMap> vrfNameToIdMap;
  const Ptr<const Arp::Table::Status> arpStatus;
  const Ptr<const Ip::Status> ipStatus;
  const Ptr<const Bridging::Config> bridgingConfig;
  const Ptr<const Memtab::Bridging::Status> bridgingStatus;
  const Ptr<const Evpn::EvpnStatus> evpnStatus;
  const Ptr<const Evpn::MplsConfig> evpnMplsConfig;
  const Ptr<const Routing::Fhrp::VirtualRouterMacStatus> fhrpVrMacStatus;
  const Ptr<Arp::ArpInputConfig> arpInputConfig;
  const Ptr<const Interface::AllIntfStatusDir> allIntfStatusDir;
  const Ptr<const Interface::AllIntfStatusLocalDir> allIntfStatusLocalDir;
  const Ptr<const Routing::L2Vpn::Config> l2VpnConfig;
  const Ptr<Switch::Readiness> readiness;
  const Ptr<AnswerStatus> answerStatus;  // null where a chip forwards

  Mox::String toStrep() const { return "<ArpSuppressionMounts>"; }
};

// What the reactors of one run share. A new one is made at every start, so that each run begins with empty
// tables.
struct ArpSuppressionRoot final : public Mox::Entity {
  ArpSuppressionRoot();

  Ptr<EnabledVlans> enabledVlans;
  Ptr<VlanL3InfoStatus> vlanL3InfoStatus;
  Ptr<LocalBindingRecord> localBindingRecord;
  Ptr<RemoteBindingStatus> remoteBindingStatus;
  Ptr<MessageTrap> receivedRequestTrap;
  Ptr<MessageQueue> reinjectMessageQueue;
  Ptr<LocalRequestRecord> localRequestRecord;
  Ptr<ArpInputConfigTrigger> arpInputConfigTrigger;
  Ptr<Interface::DeviceIntfStatusDir> deviceIntfStatusDir;

  void dumpState(Orb::DumpContext& context, int indent) const;
};

// Decides whether suppression runs, and starts and stops all other reactors as one, in a fixed order. It runs
// exactly while EVPN over MPLS is configured. The published `runnable` flag is true from before a start until
// after its stop, so that a run which finds it set knows that an earlier one ended without stopping.
class ArpSuppressionRootSm final : public Mox::Entity {
 public:
  ArpSuppressionRootSm(Ptr<ArpSuppressionMounts> mounts, bool isPhysicalHardware,
                       Ptr<Orb::TaskSchedulerRoot> taskSchedulerRoot);
  // Stops what runs, in the order of a stop, and leaves the `runnable` flag as it is: only a decision clears
  // it.
  ~ArpSuppressionRootSm() override;

  const Ptr<ArpSuppressionMounts>& mounts() const { return mounts_; }
  // Present exactly while suppression runs.
  const Ptr<ArpSuppressionRoot>& root() const { return root_; }
  const Ptr<ArpInputConfigSm>& arpInputConfigSm() const { return arpInputConfigSm_.child(); }
  const Ptr<ArpSuppressionSm>& arpSuppressionSm() const { return arpSuppressionSm_.child(); }
  const Ptr<AnswerSm>& answerSm() const { return answerSm_.child(); }
  const Ptr<BindingDiscoverySm>& bindingDiscoverySm() const { return bindingDiscoverySm_.child(); }
  const Ptr<RemoteBindingStatusSm>& remoteBindingStatusSm() const { return remoteBindingStatusSm_.child(); }
  const Ptr<MessageTrapSm>& messageTrapSm() const { return messageTrapSm_.child(); }
  const Ptr<MessageReinjectSmBase>& messageReinjectSm() const { return messageReinjectSm_.child(); }

  // Whether nothing that was trapped waits to be dealt with, or to be reinjected.
  bool idle() const;

  // Runs suppression whatever is configured.
  void runnableForTestIs(bool runnable);

  Mox::String toStrep() const { return "<ArpSuppressionRootSm>"; }
  void dumpState(Orb::DumpContext& context, int indent) const;

 private:
  void handleInitialized();
  void handleRunnable();
  void arpSuppressionStart();
  void arpSuppressionStop();
  void dropReactors();
  void publishRunnable(bool runnable);

  Ptr<ArpSuppressionMounts> mounts_;
  const bool isPhysicalHardware_;
  Ptr<Orb::TaskSchedulerRoot> taskSchedulerRoot_;
  Mox::Notifiee<const Evpn::EvpnStatus> evpnStatus_;
  bool runnableForTest_ = false;
  // Where forwarding is software's, also while suppression does not run: what the data plane did until a stop
  // is told after it.
  Mox::Owner<AnswerCounterSm> answerCounterSm_;
  Ptr<ArpSuppressionRoot> root_;
  Mox::Owner<ArpSuppressionStatusSm> arpSuppressionStatusSm_;
  Mox::Owner<LocalRequestRecordSm> localRequestRecordSm_;  // a stop leaves it to the next start
  Mox::Owner<VlanL3InfoSm> vlanL3InfoSm_;
  Mox::Owner<RemoteBindingStatusSm> remoteBindingStatusSm_;
  Mox::Owner<ArpInputConfigSm> arpInputConfigSm_;
  Mox::Owner<ArpSuppressionSm> arpSuppressionSm_;
  Mox::Owner<AnswerSm> answerSm_;  // only where forwarding is software's
  Mox::Owner<BindingDiscoverySm> bindingDiscoverySm_;
  Mox::Owner<MessageReinjectSmBase> messageReinjectSm_;
  Mox::Owner<MessageTrapSm> messageTrapSm_;
  Mox::Owner<ReadinessSm> readinessSm_;
};

// The plug-in. It mounts every input and output, and makes the root reactor once they are there.
class ArpSuppressionAgent final : public Plugin::AgentBase {
 public:
  explicit ArpSuppressionAgent(Mox::String name) : AgentBase(std::move(name)) {}
  ~ArpSuppressionAgent() override;

  void doInit() override;
  void doMountsComplete(Statedb::MountStatus status,
                        const Ptr<Statedb::EntityManager>& entityManager) override;
  bool finished() const override { return !rootSm() || rootSm()->idle(); }

  const Ptr<ArpSuppressionRootSm>& rootSm() const { return rootSm_.child(); }

  Mox::String toStrep() const { return "<ArpSuppressionAgent " + name() + ">"; }
  void dumpState(Orb::DumpContext& context, int indent) const;

 private:
  // Starts the trace ring; returns the name of the file that was opened, or "".
  static Mox::String traceletInit(const Mox::String& agentName);
  void mountsIs(Ptr<ArpSuppressionMounts> mounts) { mounts_ = std::move(mounts); }
  void rootSmIs(const Ptr<ArpSuppressionMounts>& mounts, bool isPhysicalHardware,
                const Ptr<Orb::TaskSchedulerRoot>& taskSchedulerRoot) {
    rootSm_.is(mounts, isPhysicalHardware, taskSchedulerRoot);
  }

  Ptr<ArpSuppressionMounts> mounts_;
  Ptr<Vrf::VrfIdMap::ReverseMapper> vrfIdReverseMapper_;
  Mox::Owner<ArpSuppressionRootSm> rootSm_;
};

Ptr<Plugin::AgentBase> arpSuppressionAgentFactory(const Mox::String& name);

}  // namespace ArpSuppression
