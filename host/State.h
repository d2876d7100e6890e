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
#include "host/Bindings.h"
#include "host/SharedTables.h"
#include "host/StatePaths.h"

namespace Host {

struct Config;

// Why this content cannot be merged at this path while these plug-ins are loaded, beginning with the path; ""
// when it can.
std::string checkState(const std::string& path, const nlohmann::json& content,
                       const std::vector<std::string>& plugins);

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
  // writes with what the configuration's `state` says. A table that an earlier run left in shared memory is
  // reconciled with that. While KernelState is not loaded the VRF ids are those of the configuration's
  // `vrfs`; which VRFs are active on this switch ("ip/vrf/status/local") only `state` and operators say.
  void build(const Config& config);
  // After every plug-in has asked for its mounts: creates, empty, what was mounted without being created and
  // that nobody owns.
  void createAbsent();

  // Merges {path: content, ...}; all or nothing. Returns "", or the refusal.
  std::string apply(const nlohmann::json& state);

  // What stands there now, ascending.
  std::vector<std::string> paths() const;
  // Null, and `error` says why, when there is nothing at the path.
  std::unique_ptr<Dump> dump(std::string_view path, std::string& error) const;

  // The table of remote bindings, null, with `error`, while the host cannot write it.
  Mox::Ptr<ArpSuppression::RemoteBindingConfig> remoteBindings(std::string& error) const;

  // Once a turn: makes some of the published state durable; true while more waits.
  bool flush();
  void flushAll() { tree_->flush(); }

 private:
  static constexpr std::size_t kFlushPerTurn = 256;

  std::string write(const StatePath& state, const nlohmann::json& content);
  Mox::Ptr<Memtab::Entity> writableTable(const StatePath& state, std::string& error) const;
  void buildTable(const StatePath& state, const nlohmann::json& content);

  const std::vector<std::string> plugins_;
  const Report report_;
  Mox::Ptr<Statedb::EntityManager> tree_;
  Mox::Ptr<Memtab::EntityManager> tables_;
};

}  // namespace Host
