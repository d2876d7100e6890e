#pragma once

#include <memory>

#include "KernelState/BridgeMacSm.h"
#include "KernelState/FdbSm.h"
#include "KernelState/IntfStatusSm.h"
#include "KernelState/NamespaceManagerSm.h"
#include "KernelState/ReconcileSm.h"
#include "KernelState/VlanInterfaceSm.h"
#include "KernelState/VlanNameSm.h"
#include "KernelState/VrfSm.h"
#include "Memtab/EntityManager.h"
#include "Mox/Owner.h"
#include "Plugin/AgentBase.h"
#include "Switch/ProblemReporter.h"

namespace KernelState {

// Every input and output of the plug-in, as mounted. A path that nobody has leaves its member null.
struct KernelStateMounts final : public Mox::Referenced {
  Ptr<Statedb::EntityManager> tree;
  Ptr<const Switch::Config> config;
  Ptr<const ArpSuppression::Limits> limits;
  Ptr<Switch::Problems> problems;
  Ptr<Switch::Readiness> readiness;
  Ptr<Ip::Status> ipStatus;
  Ptr<Switch::VlanInterfaces> vlanInterfaces;
  Ptr<Ip::AllVrfStatusLocal> vrfStatusLocal;
  Ptr<Vrf::VrfIdMap::Status> vrfIdMap;
  Ptr<Arp::Table::Status> arpStatus;
  Ptr<Memtab::Bridging::Status> bridgingStatus;
};

// The plug-in's reactors and what they tell each other:
//
//   config ► VrfSm ► places of VRFs ► NamespaceManagerSm ► NamespaceSm ► devices, addresses, neighbours
//   devices, addresses ► VlanInterfaceSm ► VLAN interfaces ► neighbours' publication, BridgeMacSm
//   devices of the default namespace ► IntfStatusSm, FdbSm; all devices ► VlanNameSm
class KernelStateRootSm final : public Mox::Entity {
 public:
  KernelStateRootSm(Ptr<KernelStateMounts> mounts, const Ptr<Orb::TaskScheduler>& scheduler);
  ~KernelStateRootSm() override;

  // What an earlier run left in shared memory has been dealt with.
  bool reconciled() const { return reconcileSm_.done(); }

 private:
  void findEntities();

  Mox::Notifiee<Statedb::EntityManager> tree_;
  Switch::ProblemReporter problems_;
  Ptr<NamespaceStates> states_;
  Ptr<VrfPlaces> vrfs_;
  Ptr<VlanOwners> owners_;
  Ptr<NeighbourTable> neighbourTable_;
  ReconcileSm reconcileSm_;
  VrfSm vrfSm_;
  VlanInterfaceSm vlanInterfaceSm_;
  IntfStatusSm intfStatusSm_;
  VlanNameSm vlanNameSm_;
  BridgeMacSm bridgeMacSm_;
  FdbSm fdbSm_;
  Mox::Owner<NamespaceManagerSm> namespaceManagerSm_;
  Orb::Task findTask_;
};

// The plug-in that publishes the kernel's state.
class KernelStateAgent final : public Plugin::AgentBase {
 public:
  explicit KernelStateAgent(Mox::String name) : AgentBase(std::move(name)) {}

  void doInit() override;
  void doMountsComplete(Statedb::MountStatus status,
                        const Ptr<Statedb::EntityManager>& entityManager) override;

  // Null until the mounts are complete, and when one that the plug-in cannot do without was refused.
  const Ptr<KernelStateRootSm>& rootSm() const { return rootSm_.child(); }

 private:
  Mox::Owner<KernelStateRootSm> rootSm_;
};

Ptr<Plugin::AgentBase> kernelStateAgentFactory(const Mox::String& name);

}  // namespace KernelState
