#include "AgentRig.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>

#include "support/StateTypes.h"

namespace KernelState {
namespace {

template <class Collection, class Text>
std::vector<std::string> lines(const Collection& collection, Text text) {
  std::vector<std::string> result;
  for (const auto& element : collection) result.push_back(text(element));
  std::ranges::sort(result);
  return result;
}

// Of a table, as "key value".
template <class ForEach>
std::vector<std::string> entries(ForEach forEach) {
  std::vector<std::string> result;
  forEach([&](const auto& key, const auto& value) {
    result.push_back(Mox::toStrep(key) + " " + Mox::toStrep(value));
  });
  std::ranges::sort(result);
  return result;
}

}  // namespace

AgentRig::AgentRig(const Orb::Clock& clock, const Memtab::Directory& directory)
    : loop_(clock), tasks_(Mox::make<Orb::TaskSchedulerRoot>(loop_)) {
  TestSupport::registerStateTypes(types_);
  tree_ = Mox::make<Statedb::EntityManager>(
      types_, [this](std::function<void()> call) { loop_.post(std::move(call)); });
  tables_ = Mox::make<Memtab::EntityManager>(loop_, tasks_->scheduler(), directory);
  TestSupport::registerTableTypes(*tables_);
  config_ = Mox::dynamicPtrCast<Switch::Config>(*tree_->entityIs(Switch::kConfigPath, Switch::kConfigType));
  vrfIs("default", 0, "default");
  EXPECT_TRUE(tree_->entityIs("bridging/config", "Bridging::Config"));
  EXPECT_TRUE(tree_->entityIs(ArpSuppression::kLimitsPath, ArpSuppression::kLimitsType));
}

AgentRig::~AgentRig() {
  other_ = nullptr;
  agent_ = nullptr;
}

void AgentRig::vrfIs(const std::string& name, Vrf::VrfIdMap::VrfId id, const std::string& netNs,
                     const std::string& device) {
  const auto vrf = config_->vrfIs(name);
  vrf->idIs(id);
  vrf->deviceIs(device);
  vrf->networkNamespaceIs(netNs);
}

void AgentRig::vlanIs(std::uint16_t vlanId, const std::string& bridge,
                      const std::vector<std::string>& tunnelPorts, const std::string& vrf) {
  const auto vlan = config_->vlanIs(Bridging::VlanId(vlanId));
  vlan->bridgeIs(bridge);
  vlan->tunnelPortsIs(tunnelPorts);
  vlan->vrfIs(vrf);
}

void AgentRig::start() {
  agent_ = Mox::make<KernelStateAgent>("KernelState");
  agent_->hostIs(*this);
  agent_->doInit();
}

void AgentRig::start(const Mox::Ptr<Plugin::AgentBase>& agent) {
  other_ = agent;
  if (!other_) return;
  other_->hostIs(*this);
  other_->doInit();
}

bool AgentRig::settle() {
  for (int i = 0; i < 100000; ++i) {
    if (!loop_.step(0)) return true;
  }
  return false;
}

Mox::Ptr<Statedb::MountGroup> AgentRig::mountGroup(Plugin::AgentBase& agent) {
  return tree_->mountGroup(
      [this, &agent](Statedb::MountStatus status) { agent.doMountsComplete(status, tree_); });
}

void AgentRig::createLocalEntity(const Mox::String&, const Mox::String& type, const Mox::String& path) {
  EXPECT_TRUE(tree_->entityIs(path, type));
}

std::vector<std::string> AgentRig::neighbours() const {
  return entries([&](auto tell) { table<Arp::Table::Status>("arp/status")->arpEntryForEach(tell); });
}

std::vector<std::string> AgentRig::macs() const {
  return entries([&](auto tell) { table<Memtab::Bridging::Status>("bridging/status")->fdbForEach(tell); });
}

std::string AgentRig::ip(const std::string& intf) const {
  const auto status = at<Ip::Status>("ip/status")->ipIntfStatus(Lanix::IntfId::fromName(intf));
  if (!status) return "";
  std::string text = status->vrfName() + " " + status->activeAddr().toStrep();
  for (const auto& address : status->activeSecondaryAddr()) text += " " + address.toStrep();
  return text;
}

std::vector<std::string> AgentRig::vrfs() const {
  return lines(at<Ip::AllVrfStatusLocal>("ip/vrf/status/local")->vrfCollection(), [](const auto& vrf) {
    return vrf.first + " " + Mox::toStrep(vrf.second->state()) + " " + vrf.second->networkNamespace();
  });
}

std::vector<std::string> AgentRig::ids() const {
  return entries(
      [&](auto tell) { table<Vrf::VrfIdMap::Status>("vrf/vrfIdMapStatus")->vrfIdToNameForEach(tell); });
}

std::vector<std::string> AgentRig::devices(const std::string& netNs) const {
  const auto status = at<KernelNetInfo::Status>("kni/ns/" + netNs + "/status");
  if (!status) return {"no entity"};
  return lines(status->interfaceCollection(),
               [](const auto& device) { return device.first + " " + std::to_string(device.second.ifIndex); });
}

ScratchTables::ScratchTables()
    : directory_([] {
        static int count = 0;
        return "kernelstate-test-" + std::to_string(getpid()) + "-" + std::to_string(++count);
      }()) {}

}  // namespace KernelState
