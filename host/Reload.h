#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Orb/TaskScheduler.h"
#include "host/Config.h"
#include "host/State.h"

namespace Host {

// Trace levels and feature switches, which are the process's: as `config` has them. Those handles that only
// `before` (may be null) names get back the level that they begin with.
void processSettingsAre(const Config& config, const Config* before, const State::Report& report);

// Takes up the configuration file again while the agent-host runs: carries out what is different from the
// configuration before, and touches nothing else; or, when anything is wrong with it, changes nothing.
// What was set by hand stays, unless the file says something else of it now than before.
class Reload {
 public:
  // What is wrong, a line each; none: it is in force.
  using Done = std::function<void(const std::vector<std::string>& problems)>;

  // `config` is in force, and was read from `file`. The state must outlive this.
  Reload(const Mox::Ptr<Orb::TaskScheduler>& scheduler, State& state, std::string file, Config config,
         State::Report report);

  const Config& config() const { return config_; }  // in force

  // `done` is called in a later turn. What is asked for while one is under way begins after it, so that it
  // sees the file as it is then; several are one.
  void begin(Done done);

 private:
  void run();
  std::vector<std::string> read();
  void end(const std::vector<std::string>& problems);

  State& state_;
  const std::string file_;
  Config config_;  // in force
  const State::Report report_;
  std::vector<Done> waiting_;
  std::vector<Done> served_;             // by the one under way
  std::unique_ptr<StateChange> change_;  // null: none is under way
  Config next_;                          // of that one
  Orb::Task task_;
};

}  // namespace Host
