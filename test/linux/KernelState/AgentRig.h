#pragma once

#include <string>
#include <vector>

#include "KernelState/KernelStateAgent.h"
#include "Lanix/IpGenAddr.h"
#include "Mox/Notifiee.h"

namespace KernelState {

// The plug-in in a host of its own: a state tree, shared-memory tables under a name of this process's, and
// the configuration. What it leaves in shared memory stays for the next rig of the same directory.
class AgentRig final : public Plugin::AgentHost {
 public:
  AgentRig(const Orb::Clock& clock, const Memtab::Directory& directory);
  ~AgentRig() override;

  void vrfIs(const std::string& name, Vrf::VrfIdMap::VrfId id, const std::string& netNs,
             const std::string& device = "");
  void vlanIs(std::uint16_t vlanId, const std::string& bridge,
              const std::vector<std::string>& tunnelPorts = {}, const std::string& vrf = "");
  void start();
  // Another plug-in, in this one's place or beside it; null ends it.
  void start(const Mox::Ptr<Plugin::AgentBase>& agent);

  template <class E>
  Mox::Ptr<E> at(const std::string& path) const {
    return tree_->entityOf<E>(path);
  }
  template <class E>
  Mox::Ptr<E> table(const std::string& path) const {
    return tables_->entityOf<E>(path);
  }
  const Mox::Ptr<Switch::Config>& config() const { return config_; }
  const Mox::Ptr<Statedb::EntityManager>& tree() const { return tree_; }
  const Mox::Ptr<KernelStateAgent>& agent() const { return agent_; }

  // The published neighbours as "vrfId ip interface mac static arpType", and the MAC table as "fid mac type
  // interface", sorted.
  std::vector<std::string> neighbours() const;
  std::vector<std::string> macs() const;
  // "vrf address secondary...", "" when there is no such interface.
  std::string ip(const std::string& intf) const;
  std::vector<std::string> vrfs() const;                             // "name state namespace"
  std::vector<std::string> ids() const;                              // "id name"
  std::vector<std::string> devices(const std::string& netNs) const;  // "name index"

  // Runs the loop until nothing is left to do at this time. False: it does not come to rest.
  bool settle();

  Orb::EventLoop& loop() override { return loop_; }
  Mox::Ptr<Orb::TaskSchedulerRoot> taskSchedulerRoot() override { return tasks_; }
  bool isPhysicalHardware() override { return false; }
  Mox::Ptr<Statedb::MountGroup> mountGroup(Plugin::AgentBase& agent) override;
  Mox::Ptr<Statedb::EntityManager> entityManager() override { return tree_; }
  Mox::Ptr<Memtab::EntityManager> sharedMemory() override { return tables_; }
  void createLocalEntity(const Mox::String& name, const Mox::String& type, const Mox::String& path) override;

 private:
  Statedb::TypeRegistry types_;
  Orb::EventLoop loop_;
  Mox::Ptr<Orb::TaskSchedulerRoot> tasks_;
  Mox::Ptr<Statedb::EntityManager> tree_;
  Mox::Ptr<Memtab::EntityManager> tables_;
  Mox::Ptr<Switch::Config> config_;
  Mox::Ptr<KernelStateAgent> agent_;
  Mox::Ptr<Plugin::AgentBase> other_;
};

// A directory of shared-memory tables that goes with the object.
class ScratchTables {
 public:
  ScratchTables();
  ~ScratchTables() { directory_.removeAll(); }
  const Memtab::Directory& directory() const { return directory_; }

 private:
  Memtab::Directory directory_;
};

}  // namespace KernelState
