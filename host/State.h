#pragma once

#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <vector>

#include "Memtab/EntityManager.h"
#include "Orb/EventLoop.h"
#include "Orb/TaskScheduler.h"
#include "Statedb/EntityManager.h"
#include "Switch/ProblemReporter.h"
#include "host/Bindings.h"
#include "host/HandOver.h"
#include "host/SharedTables.h"
#include "host/StatePaths.h"

namespace Host {

struct Config;

// Whether this content can be merged at this path while these plug-ins are loaded. A refusal begins with the
// path.
Mox::Result<> checkState(const std::string& path, const nlohmann::json& content,
                         const std::vector<std::string>& plugins);

// A change of state that was checked as a whole, and is written slice by slice.
class StateChange {
 public:
  virtual ~StateChange() = default;
  // Writes one entity of the state tree, or about `maxEntries` entries of a table; true while there is more.
  // Refused when there is no memory for a table's entry; what was written before stays.
  virtual Mox::Result<bool> step(std::size_t maxEntries) = 0;
};

// All state of the process, state tree and shared memory, and what the host itself writes of it. Everything
// here runs in the event loop, and never inside a notification.
class State {
 public:
  using Report = std::function<void(const std::string& message)>;
  // `store` may be null. The loop must outlive this.
  State(Orb::EventLoop& loop, const Mox::Ptr<Orb::TaskSchedulerRoot>& tasks, const std::string& runDirectory,
        std::vector<std::string> plugins, std::unique_ptr<Statedb::Store> store, Report report);

  const Mox::Ptr<Statedb::EntityManager>& tree() const { return tree_; }
  const Mox::Ptr<Memtab::EntityManager>& tables() const { return tables_; }

  // Before the first plug-in is made: writes "switch/config", and creates every input that no loaded plug-in
  // writes with what the configuration says (declaredState). A table that an earlier run left in shared memory is
  // reconciled with that; one that was handed over, as entities that were, keeps what was set by hand and the
  // configuration says nothing else of. While KernelState is not loaded the VRF ids are those of the configuration's
  // `vrfs`; which VRFs are active on this switch ("ip/vrf/status/local") only `state` and operators say.
  //
  // Refused when what the configuration says cannot be written. A table that another process writes is its
  // own, and a problem of the switch.
  Mox::Result<> build(const Config& config, const HandOver& before = {});
  // Writes down what the next build() is to know of this one; `config` is in force.
  Mox::Result<> handOver(const Config& config, const std::string& file) const;
  // While the plug-ins run: what brings everything from what the first configuration says to what the second
  // says, of the same plug-ins. Refused when it cannot be carried out as a whole.
  Mox::Result<std::unique_ptr<StateChange>> reconfigure(const Config& before, const Config& now);
  // Before the first plug-in starts: reads what an earlier run of them has left in the store, until `mustYield`
  // says so; returns whether there is more. Nobody sees any of it before it is whole.
  bool loadAhead(const std::function<bool()>& mustYield);
  // After every plug-in has asked for its mounts: creates, empty, what was mounted without being created and
  // that nobody owns.
  void createAbsent();

  // Merges {path: content, ...}; refused as a whole when anything of it is wrong. The change must not outlive
  // this.
  Mox::Result<std::unique_ptr<StateChange>> change(nlohmann::json state);

  // What stands there now, ascending.
  std::vector<std::string> paths() const;
  // Refused when there is nothing at the path.
  Mox::Result<std::unique_ptr<Dump>> dump(std::string_view path) const;

  // The table of remote bindings; refused while the host cannot write it.
  Mox::Result<Mox::Ptr<ArpSuppression::RemoteBindingConfig>> remoteBindings() const;

  // What is wrong with the host itself.
  Switch::ProblemReporter& problems() { return problems_; }

  // Once a turn: makes some of the published state durable; true while more waits.
  bool flush();
  void flushAll() { tree_->flushAll(); }

 private:
  class Merge;
  class Reconfigure;

  Mox::Result<std::unique_ptr<StateChange>> change(nlohmann::json state, nlohmann::json* record);
  void switchConfigIs(const Config& config);
  Mox::Result<> writeTree(const StatePath& state, const nlohmann::json& content);
  Mox::Result<Mox::Ptr<Memtab::Entity>> writableTable(const StatePath& state) const;
  // `gone`: of what was handed over, null unless it was.
  Mox::Result<> buildTable(const StatePath& state, const nlohmann::json& content, const nlohmann::json* gone);

  const std::vector<std::string> plugins_;
  const Report report_;
  Mox::Ptr<Statedb::EntityManager> tree_;
  Mox::Ptr<Memtab::EntityManager> tables_;
  Switch::ProblemReporter problems_;
  nlohmann::json byHand_ = nlohmann::json::object();  // what of the state tree was set so, by path
};

}  // namespace Host
