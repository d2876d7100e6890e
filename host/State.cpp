#include "host/State.h"

#include <algorithm>

#include "L3/VrfName.h"
#include "Lanix/NamespaceName.h"
#include "Statedb/Json.h"
#include "Statedb/Path.h"
#include "Suppression/RemoteBindingConfig.h"
#include "Switch/Config.h"
#include "Switch/Problems.h"
#include "Vrf/VrfIdMap.h"
#include "host/Config.h"
#include "host/Types.h"

namespace Host {

namespace {

using nlohmann::json;

constexpr const char* kVrfIdPath = "vrf/vrfIdMapStatus";
constexpr const char* kVrfIdToName = "vrfIdToName";
constexpr const char* kRemoteBindingPath = "arpSuppression/remoteBindingConfig/evpn";

// The VRF "default" has the id 0, and no other has.
std::string checkVrfIds(const json& content) {
  const auto names = content.find(kVrfIdToName);
  if (names == content.end()) return {};
  if (names->is_object()) {
    for (auto item = names->begin(); item != names->end(); ++item) {
      const auto id = Mox::fromStrep<std::uint32_t>(item.key());
      const bool isDefault = item.value() == L3::VrfName::kDefault;
      if (id && *id >= Vrf::VrfIdMap::kNoVrfId)
        return std::string(kVrfIdPath) + ": " + kVrfIdToName + "[\"" + item.key() +
               "\"]: the id is not a number from 0 to 16777214";
      if (id && (*id == 0) != isDefault) {
        return std::string(kVrfIdPath) + ": " + kVrfIdToName + "[\"" + item.key() +
               "\"]: the VRF \"default\" always has the id 0, and no other VRF has it";
      }
    }
  }
  return {};
}

// What the host says itself, under what the configuration's `state` says.
json ownVrfIds(const Config& config, const json& stated) {
  json content = {{kVrfIdToName, {{"0", L3::VrfName::kDefault}}}};
  for (const auto& [name, vrf] : config.vrfs) content[kVrfIdToName][std::to_string(vrf.id)] = name;
  const auto names = stated.find(kVrfIdToName);
  if (names != stated.end() && names->is_object()) content[kVrfIdToName].merge_patch(*names);
  return content;
}

// Everything of a path that `state` may name in more than one way ("bridging/config" and "bridging/config/").
json statedContent(const json& state, const std::string& path) {
  json content = json::object();
  for (auto item = state.begin(); item != state.end(); ++item) {
    if (Statedb::normalPath(item.key()) == path && item.value().is_object())
      content.merge_patch(item.value());
  }
  return content;
}

}  // namespace

std::string checkState(const std::string& path, const json& content,
                       const std::vector<std::string>& plugins) {
  const std::optional<StatePath> state = findStatePath(path);
  if (!state) return path + ": there is no such path; allowed: " + statePathNames();
  const std::string refusal = whyNotSettable(*state, plugins);
  if (!refusal.empty()) return state->path + ": " + refusal;
  if (state->storage == Storage::sharedMemory) {
    const std::string problem = tableTypes().at(state->typeName)->check(content, state->path);
    return problem.empty() && state->path == kVrfIdPath ? checkVrfIds(content) : problem;
  }
  const Statedb::EntityType* type = treeTypes().find(state->typeName);
  return type->planMerge(type->make(), content, state->path).error();
}

State::State(Orb::EventLoop& loop, const Mox::Ptr<Orb::TaskSchedulerRoot>& tasks,
             const std::string& runDirectory, std::vector<std::string> plugins,
             std::unique_ptr<Statedb::Store> store, Report report)
    : plugins_(std::move(plugins)),
      report_(std::move(report)),
      tree_(Mox::make<Statedb::EntityManager>(
          treeTypes(), [&loop](std::function<void()> call) { loop.post(std::move(call)); }, std::move(store),
          report_)),
      tables_(Mox::make<Memtab::EntityManager>(loop, tasks->scheduler(),
                                               Memtab::Directory::forRunDir(runDirectory), report_)) {
  for (const auto& [name, type] : tableTypes()) type->registerAt(*tables_);
  for (const StatePath& state : statePaths()) {
    if (state.persistent) tree_->persist(state.path);
  }
}

void State::build(const Config& config) {
  const auto switchConfig =
      Mox::dynamicPtrCast<Switch::Config>(tree_->entityIs(Switch::kConfigPath, Switch::kConfigType));
  tree_->entityIs(Switch::kProblemsPath, Switch::kProblemsType);
  switchConfig->vrfIs(L3::VrfName::kDefault)->networkNamespaceIs(Lanix::kDefaultNamespace);
  for (const auto& [name, vrf] : config.vrfs) {
    const Mox::Ptr<Switch::VrfConfig> entity = switchConfig->vrfIs(name);
    entity->idIs(vrf.id);
    entity->networkNamespaceIs(vrf.networkNamespace);
  }
  for (const auto& [vlanId, vlan] : config.vlans) {
    const Mox::Ptr<Switch::VlanConfig> entity = switchConfig->vlanIs(Bridging::VlanId(vlanId));
    entity->bridgeIs(vlan.bridge);
    entity->tunnelPortsIs(vlan.tunnelPorts);
  }
  switchConfig->agentsIs(config.agents);
  switchConfig->neighborRefreshSecondsIs(config.neighborRefreshSeconds);
  for (const StatePath& state : statePaths()) {
    if (!whyNotSettable(state, plugins_).empty()) continue;
    if (state.storage == Storage::tree) {
      tree_->entityIs(state.path, state.typeName);
      continue;
    }
    const json stated = statedContent(config.state, state.path);
    buildTable(state, state.path == kVrfIdPath ? ownVrfIds(config, stated) : stated);
  }
  for (auto item = config.state.begin(); item != config.state.end(); ++item) {
    const std::optional<StatePath> state = findStatePath(item.key());
    if (!state || state->storage != Storage::tree) continue;
    const std::string problem = write(*state, item.value());
    if (!problem.empty()) report_(problem);
  }
}

void State::buildTable(const StatePath& state, const json& content) {
  const Mox::Ptr<Memtab::Entity> entity =
      tables_->mount(state.path, state.typeName, Memtab::MountDescriptor::writer());
  if (!entity) return;  // reported: another process writes it
  const std::string problem = tableTypes().at(state.typeName)->replace(*entity, content);
  if (!problem.empty()) report_(state.path + ": " + problem);
}

void State::createAbsent() {
  for (const Statedb::Mount& mount : tree_->absentMounts()) {
    const std::optional<StatePath> state = findStatePath(mount.path);
    // What a loaded plug-in creates itself, it may create later than the others mount it. What it only writes
    // into (a shared mount) is nobody's yet.
    const bool owned = state && state->writing == Writing::byPlugin && !mount.flags.write &&
                       std::find(plugins_.begin(), plugins_.end(), state->writer) != plugins_.end();
    std::string problem;
    if (!owned && !tree_->entityIs(mount.path, mount.typeName, &problem)) report_(problem);
  }
}

std::string State::apply(const json& state) {
  for (auto item = state.begin(); item != state.end(); ++item) {
    const std::string problem = checkState(item.key(), item.value(), plugins_);
    if (!problem.empty()) return problem;
    const std::optional<StatePath> known = findStatePath(item.key());
    std::string error;
    if (known->storage == Storage::sharedMemory && !writableTable(*known, error)) return error;
  }
  for (auto item = state.begin(); item != state.end(); ++item) {
    const std::string problem = write(*findStatePath(item.key()), item.value());
    if (!problem.empty()) return problem;
  }
  return {};
}

std::string State::write(const StatePath& state, const json& content) {
  std::string problem;
  if (state.storage == Storage::sharedMemory) {
    const Mox::Ptr<Memtab::Entity> entity = writableTable(state, problem);
    if (!entity) return problem;
    problem = tableTypes().at(state.typeName)->merge(*entity, content);
    if (state.path == kVrfIdPath) {
      Mox::dynamicPtrCast<Vrf::VrfIdMap::Status>(entity)->vrfIdToNameIs(
          0, Vrf::VrfIdMap::FixedVrfName(L3::VrfName::kDefault));
    }
    return problem.empty() ? problem : state.path + ": " + problem;
  }
  const Mox::Ptr<Mox::Entity> entity = tree_->entityIs(state.path, state.typeName, &problem);
  if (!entity) return problem;
  Statedb::Plan plan = tree_->entityType(state.path)->planMerge(entity, content, state.path);
  if (!plan) return plan.error();
  try {
    plan.apply();
  } catch (const Mox::Error& error) {
    // Everything is written; one of those who watch it could not use a value.
    report_(state.path + ": " + error.what());
  }
  return {};
}

Mox::Ptr<Memtab::Entity> State::writableTable(const StatePath& state, std::string& error) const {
  if (tables_->writable(state.path)) return tables_->entity(state.path);
  error = state.path +
          ": another process writes this table; end it, then restart the agent-host to set it by hand";
  return {};
}

Mox::Ptr<ArpSuppression::RemoteBindingConfig> State::remoteBindings(std::string& error) const {
  return Mox::dynamicPtrCast<ArpSuppression::RemoteBindingConfig>(
      writableTable(*findStatePath(kRemoteBindingPath), error));
}

std::vector<std::string> State::paths() const {
  std::vector<std::string> paths = tree_->paths();
  for (const std::string& path : tables_->paths()) paths.push_back(path);
  std::sort(paths.begin(), paths.end());
  return paths;
}

std::unique_ptr<Dump> State::dump(std::string_view given, std::string& error) const {
  const std::string path(Statedb::normalPath(given));
  if (const Mox::Ptr<Mox::Entity> entity = tree_->entity(path)) {
    return dumpTree(tree_->entityType(path)->name, entity);
  }
  if (const Mox::Ptr<Memtab::Entity> entity = tables_->entity(path)) {
    return tableTypes().find(tables_->typeName(path))->second->dump(entity);
  }
  const std::optional<StatePath> state = findStatePath(path);
  error =
      path + (state ? ": nobody has made it yet" : ": there is no such path; allowed: " + statePathNames());
  return nullptr;
}

bool State::flush() { return tree_->flush(kFlushPerTurn); }

}  // namespace Host
