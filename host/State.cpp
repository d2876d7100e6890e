#include "host/State.h"

#include <algorithm>
#include <limits>

#include "L3/VrfName.h"
#include "Lanix/NamespaceName.h"
#include "Statedb/Json.h"
#include "Statedb/Path.h"
#include "Suppression/RemoteBindingConfig.h"
#include "Switch/Config.h"
#include "Switch/Problems.h"
#include "Vrf/VrfIdMap.h"
#include "host/Config.h"
#include "host/DeclaredState.h"
#include "host/Types.h"

namespace Host {

namespace {

using nlohmann::json;

constexpr const char* kReporter = "agent-host";
constexpr std::size_t kEverything = std::numeric_limits<std::size_t>::max();

// The VRF "default" has the id 0, and no other has.
Mox::Result<> checkVrfIds(const json& content) {
  const auto names = content.find(kVrfIdToName);
  if (names == content.end() || !names->is_object()) return {};
  for (auto item = names->begin(); item != names->end(); ++item) {
    const std::string where = std::string(kVrfIdPath) + ": " + kVrfIdToName + "[\"" + item.key() + "\"]";
    const auto id = Mox::fromStrep<std::uint32_t>(item.key());
    if (id && *id >= Vrf::VrfIdMap::kNoVrfId)
      return Mox::Failure{where + ": the id is not a number from 0 to 16777214"};
    if (id && (*id == 0) != (item.value() == L3::VrfName::kDefault))
      return Mox::Failure{where + ": the VRF \"default\" always has the id 0, and no other VRF has it"};
  }
  return {};
}

// The store without what it keeps on behalf of plug-ins that are not loaded: nobody would ever take it back.
std::unique_ptr<Statedb::Store> withoutOrphans(std::unique_ptr<Statedb::Store> store,
                                               const std::vector<std::string>& plugins) {
  for (const StatePath& state : statePaths()) {
    if (store && state.persistent && !writtenByPlugin(state, plugins)) store->remove(state.path);
  }
  return store;
}

// Those of a collection that are not wanted.
template <class Collection, class Wanted, class Delete>
void deleteOthers(const Collection& collection, const Wanted& wanted, const Delete& del) {
  std::vector<std::decay_t<decltype(collection.keyOf(*collection.begin()))>> others;
  for (const auto& element : collection)
    if (!wanted(collection.keyOf(element))) others.push_back(collection.keyOf(element));
  for (const auto& key : others) del(key);
}

}  // namespace

Mox::Result<> checkState(const std::string& path, const json& content,
                         const std::vector<std::string>& plugins) {
  const std::optional<StatePath> state = findStatePath(path);
  if (!state) return Mox::Failure{path + ": there is no such path; allowed: " + statePathNames()};
  if (const auto allowed = settable(*state, plugins); !allowed)
    return Mox::Failure{state->path + ": " + allowed.error()};
  if (state->storage == Storage::sharedMemory) {
    Mox::Result<> checked = tableTypes().at(state->typeName)->check(content, state->path);
    return checked && state->path == kVrfIdPath ? checkVrfIds(content) : checked;
  }
  const Statedb::EntityType* type = treeTypes().find(state->typeName);
  if (const auto plan = type->planMerge(type->make(), content, state->path); !plan) return plan.failure();
  return {};
}

State::State(Orb::EventLoop& loop, const Mox::Ptr<Orb::TaskSchedulerRoot>& tasks,
             const std::string& runDirectory, std::vector<std::string> plugins,
             std::unique_ptr<Statedb::Store> store, Report report)
    : plugins_(std::move(plugins)),
      report_(std::move(report)),
      tree_(Mox::make<Statedb::EntityManager>(
          treeTypes(), [&loop](std::function<void()> call) { loop.post(std::move(call)); },
          withoutOrphans(std::move(store), plugins_), report_)),
      tables_(Mox::make<Memtab::EntityManager>(loop, tasks->scheduler(),
                                               Memtab::Directory::forRunDir(runDirectory), report_)),
      problems_(Mox::dynamicPtrCast<Switch::Problems>(
                    *tree_->entityIs(Switch::kProblemsPath, Switch::kProblemsType)),
                kReporter) {
  for (const auto& [name, type] : tableTypes()) type->registerAt(*tables_);
  tables_->roomHandlerIs([this](const std::string& path, const Mox::Result<>& room) {
    problems_.check("table " + path, room, "free shared memory (/dev/shm), and add again what was refused");
  });
  tables_->refusedHandlerIs([this](const std::string& path, const Mox::Result<>& result) {
    problems_.check("reading table " + path, result, "correct that; it is tried again every second");
  });
  for (const StatePath& state : statePaths()) {
    if (state.persistent && writtenByPlugin(state, plugins_)) tree_->persist(state.path);
  }
}

void State::switchConfigIs(const Config& config) {
  const auto to =
      Mox::dynamicPtrCast<Switch::Config>(*tree_->entityIs(Switch::kConfigPath, Switch::kConfigType));
  // What goes is gone before anything else has its place.
  deleteOthers(
      to->vlanCollection(), [&](Bridging::VlanId id) { return config.vlans.contains(id); },
      [&](Bridging::VlanId id) { to->vlanDel(id); });
  deleteOthers(
      to->vrfCollection(),
      [&](const auto& name) { return name == L3::VrfName::kDefault || config.vrfs.contains(name); },
      [&](const auto& name) { to->vrfDel(name); });
  to->vrfIs(L3::VrfName::kDefault)->networkNamespaceIs(Lanix::kDefaultNamespace);
  for (const auto& [name, vrf] : config.vrfs) {
    const Mox::Ptr<Switch::VrfConfig> entity = to->vrfIs(name);
    entity->idIs(vrf.id);
    entity->networkNamespaceIs(vrf.networkNamespace);
    entity->deviceIs(vrf.device);
  }
  for (const auto& [vlanId, vlan] : config.vlans) {
    const Mox::Ptr<Switch::VlanConfig> entity = to->vlanIs(Bridging::VlanId(vlanId));
    entity->bridgeIs(vlan.bridge);
    entity->tunnelPortsIs(vlan.tunnelPorts);
    entity->vrfIs(vlan.vrf);
    entity->suppressionIs(vlan.suppression);
    entity->answersIs(vlan.answers);
    entity->ndIs(vlan.nd);
  }
  const Mox::Ptr<Switch::SoftForwardConfig> softForward = to->softForward();
  const auto& policers = config.softForward.portPolicers;
  deleteOthers(
      softForward->portPolicerCollection(), [&](const auto& port) { return policers.contains(port); },
      [&](const auto& port) { softForward->portPolicerDel(port); });
  const auto& unanswered = config.softForward.portsWithoutAnswers;
  deleteOthers(
      softForward->portWithoutAnswersCollection(),
      [&](const auto& port) { return unanswered.contains(port); },
      [&](const auto& port) { softForward->portWithoutAnswersDel(port); });
  for (const auto& port : unanswered) softForward->portWithoutAnswersIs(port);
  softForward->answersIs(config.softForward.answers);
  softForward->policerIs(config.softForward.policer);
  softForward->failOpenSecondsIs(config.softForward.failOpenSeconds);
  for (const auto& [port, policer] : policers) softForward->portPolicerIs(port, policer);
  const Mox::Ptr<Switch::EvpnConfig> evpn = to->evpn();
  evpn->feedIs(config.evpn.feed);
  evpn->protocolsIs(config.evpn.protocols);
  // The table of remote bindings is KernelEvpn's then.
  const Mox::Ptr<const Switch::EvpnConfig::Bindings> known = evpn->bindings();
  if (config.has(kKernelEvpn) && !(known ? known->all == config.bindings : config.bindings.empty())) {
    const auto bindings = Mox::make<Switch::EvpnConfig::Bindings>();
    bindings->all = config.bindings;
    evpn->bindingsIs(Mox::Ptr<const Switch::EvpnConfig::Bindings>(bindings));
  }
  to->agentsIs(config.agents);
  to->neighborRefreshSecondsIs(config.neighborRefreshSeconds);
}

Mox::Result<> State::build(const Config& config, const HandOver& before) {
  switchConfigIs(config);
  const json declared = declaredState(config);
  const json gone = difference(before.declared, declared).gone;
  const auto at = [](const json& parts, const std::string& path) {
    return parts.value(path, json::object());
  };
  for (const StatePath& state : statePaths()) {
    if (!settable(state, plugins_)) continue;
    if (state.storage == Storage::tree) {
      if (const auto made = tree_->entityIs(state.path, state.typeName); !made) return made.failure();
      continue;
    }
    const json goneHere = at(gone, state.path);
    const bool handedOver = before.tables.contains(state.path);
    if (const auto built = buildTable(state, at(declared, state.path), handedOver ? &goneHere : nullptr);
        !built)
      return built;
  }
  byHand_ = before.state;
  byHand_.merge_patch(gone);
  for (auto item = byHand_.begin(); item != byHand_.end(); ++item) {
    const std::optional<StatePath> state = findStatePath(item.key());
    if (!state || state->storage != Storage::tree || !settable(*state, plugins_)) continue;
    if (const auto kept = writeTree(*state, item.value()); !kept)
      report_("what was set by hand is not kept: " + kept.error());
  }
  for (auto item = declared.begin(); item != declared.end(); ++item) {
    const std::optional<StatePath> state = findStatePath(item.key());
    if (!state || state->storage != Storage::tree) continue;
    if (const auto written = writeTree(*state, item.value()); !written) return written;
  }
  return {};
}

Mox::Result<> State::handOver(const Config& config, const std::string& file) const {
  HandOver handOver{declaredState(config), byHand_, {}};
  for (const std::string& path : tables_->paths()) {
    const std::optional<StatePath> state = findStatePath(path);
    if (state && settable(*state, plugins_) && tables_->writable(path)) handOver.tables.insert(path);
  }
  return writeHandOver(handOver, file);
}

Mox::Result<> State::buildTable(const StatePath& state, const json& content, const json* gone) {
  const Memtab::Mounted mounted =
      tables_->mount(state.path, state.typeName, Memtab::MountDescriptor::writer());
  if (!mounted) {
    if (mounted.number() != EBUSY) return mounted.failure();
    problems_.problemIs("table " + state.path, "another process writes it: what is configured is not in it",
                        "end that process, and restart the agent-host");
    return {};
  }
  const TableType& type = *tableTypes().at(state.typeName);
  Mox::Result<> built = gone ? Mox::Result<>() : type.replace(**mounted, content);
  for (const json* part : {gone, &content}) {
    if (!gone || !built) break;
    const auto merge = type.merge(*mounted, *part);
    Mox::Result<bool> more = true;
    while (more && *more) more = merge->step(kEverything);
    if (!more) built = more.failure();
  }
  if (!built) return Mox::Failure{state.path + ": " + built.error()};
  return {};
}

void State::createAbsent() {
  for (const Statedb::Mount& mount : tree_->absentMounts()) {
    const std::optional<StatePath> state = findStatePath(mount.path);
    // What a loaded plug-in creates itself, it may create later than the others mount it. What it only writes
    // into (a shared mount) is nobody's yet.
    const bool owned = state && !mount.flags.write && writtenByPlugin(*state, plugins_);
    if (owned) continue;
    if (const auto made = tree_->entityIs(mount.path, mount.typeName); !made) report_(made.error());
  }
}

// The parts of a change, one after the other.
class State::Merge final : public StateChange {
 public:
  struct Part {
    StatePath state;
    json content;
  };
  // `record`, which may be null, is where what is merged into the state tree is merged into as well.
  Merge(State& state, std::vector<Part> parts, json* record)
      : state_(state), parts_(std::move(parts)), record_(record) {}

  Mox::Result<bool> step(std::size_t maxEntries) override {
    if (next_ == parts_.size()) return false;
    Part& part = parts_[next_];
    if (part.state.storage == Storage::tree) {
      ++next_;
      if (const auto written = state_.writeTree(part.state, part.content); !written) return written.failure();
      if (record_) record_->merge_patch(json{{part.state.path, part.content}});
      return true;
    }
    const auto entity = state_.writableTable(part.state);
    if (!entity) return entity.failure();
    if (!table_) table_ = tableTypes().at(part.state.typeName)->merge(*entity, std::move(part.content));
    const Mox::Result<bool> stepped = table_->step(maxEntries);
    if (part.state.path == kVrfIdPath) {
      Mox::dynamicPtrCast<Vrf::VrfIdMap::Status>(*entity)->vrfIdToNameIs(
          0, Vrf::VrfIdMap::FixedVrfName(L3::VrfName::kDefault));
    }
    if (!stepped) return Mox::Failure{part.state.path + ": " + stepped.error()};
    if (*stepped) return true;
    table_.reset();
    ++next_;
    return true;
  }

 private:
  State& state_;
  std::vector<Part> parts_;
  json* const record_;
  std::size_t next_ = 0;
  std::unique_ptr<TableMerge> table_;  // of that part, once it has begun
};

Mox::Result<std::unique_ptr<StateChange>> State::change(json state) {
  return change(std::move(state), &byHand_);
}

Mox::Result<std::unique_ptr<StateChange>> State::change(json state, json* record) {
  std::vector<Merge::Part> parts;
  for (auto item = state.begin(); item != state.end(); ++item) {
    if (const auto checked = checkState(item.key(), item.value(), plugins_); !checked)
      return checked.failure();
    StatePath known = *findStatePath(item.key());
    if (known.storage == Storage::sharedMemory) {
      if (const auto writable = writableTable(known); !writable) return writable.failure();
    }
    parts.push_back({std::move(known), std::move(item.value())});
  }
  return std::unique_ptr<StateChange>(std::make_unique<Merge>(*this, std::move(parts), record));
}

// "switch/config", then what is gone from the rest, then what is new.
class State::Reconfigure final : public StateChange {
 public:
  Reconfigure(State& state, Config config, std::unique_ptr<StateChange> gone,
              std::unique_ptr<StateChange> changed)
      : state_(state), config_(std::move(config)), gone_(std::move(gone)), changed_(std::move(changed)) {}

  Mox::Result<bool> step(std::size_t maxEntries) override {
    if (!std::exchange(begun_, true)) {
      state_.switchConfigIs(config_);
      return true;
    }
    if (!gone_) return changed_->step(maxEntries);
    const Mox::Result<bool> more = gone_->step(maxEntries);
    if (more && !*more) gone_.reset();
    return more ? Mox::Result<bool>(true) : more;
  }

 private:
  State& state_;
  const Config config_;
  std::unique_ptr<StateChange> gone_;
  const std::unique_ptr<StateChange> changed_;
  bool begun_ = false;
};

Mox::Result<std::unique_ptr<StateChange>> State::reconfigure(const Config& before, const Config& now) {
  StateDifference parts = difference(before, now);
  auto gone = change(std::move(parts.gone), &byHand_);
  if (!gone) return gone;
  auto changed = change(std::move(parts.changed), nullptr);
  if (!changed) return changed;
  return std::unique_ptr<StateChange>(
      std::make_unique<Reconfigure>(*this, now, std::move(*gone), std::move(*changed)));
}

Mox::Result<> State::writeTree(const StatePath& state, const json& content) {
  const auto entity = tree_->entityIs(state.path, state.typeName);
  if (!entity) return entity.failure();
  auto plan = tree_->entityType(state.path)->planMerge(*entity, content, state.path);
  if (!plan) return plan.failure();
  try {
    plan->apply();
  } catch (const Mox::Error& error) {
    // Everything is written; one of those who watch it could not use a value.
    report_(state.path + ": " + error.what());
  }
  return {};
}

Mox::Result<Mox::Ptr<Memtab::Entity>> State::writableTable(const StatePath& state) const {
  if (tables_->writable(state.path)) return tables_->entity(state.path);
  return Mox::Failure{state.path +
                      ": another process writes this table; end it, then restart the agent-host "
                      "to set it by hand"};
}

Mox::Result<Mox::Ptr<ArpSuppression::RemoteBindingConfig>> State::remoteBindings() const {
  const StatePath state = *findStatePath(kRemoteBindingPath);
  if (const auto allowed = settable(state, plugins_); !allowed)
    return Mox::Failure{state.path + ": " + allowed.error()};
  const auto table = writableTable(state);
  if (!table) return table.failure();
  return Mox::dynamicPtrCast<ArpSuppression::RemoteBindingConfig>(*table);
}

std::vector<std::string> State::paths() const {
  std::vector<std::string> paths = tree_->paths();
  for (const std::string& path : tables_->paths()) paths.push_back(path);
  std::sort(paths.begin(), paths.end());
  return paths;
}

Mox::Result<std::unique_ptr<Dump>> State::dump(std::string_view given) const {
  const std::string path(Statedb::normalPath(given));
  if (const Mox::Ptr<Mox::Entity> entity = tree_->entity(path)) {
    return dumpTree(tree_->entityType(path)->name, entity);
  }
  if (const Mox::Ptr<Memtab::Entity> entity = tables_->entity(path)) {
    return tableTypes().find(tables_->typeName(path))->second->dump(entity);
  }
  return Mox::Failure{path + (findStatePath(path) ? ": nobody has made it yet"
                                                  : ": there is no such path; allowed: " + statePathNames())};
}

bool State::loadAhead(const std::function<bool()>& mustYield) {
  return std::ranges::any_of(statePaths(), [&](const StatePath& state) {
    return tree_->loadAhead(state.path, state.typeName, mustYield);
  });
}

bool State::flush() {
  const bool more = tree_->flush();
  problems_.check("state store", tree_->written(), "make room in the file system of the run directory");
  return more;
}

}  // namespace Host
