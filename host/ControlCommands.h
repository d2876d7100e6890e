#pragma once

#include <sys/types.h>

#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "Orb/AgentBase.h"
#include "host/State.h"

namespace Host {

// Work of one request that is more than a moment's. Ends with its destruction, whether or not it was done.
class ControlJob {
 public:
  virtual ~ControlJob() = default;
  // Does a slice and appends whole answer lines; false after the last one.
  virtual bool step(std::string& output) = 0;
};

// What the control socket can be asked for (see host/Protocol.h). Runs in tasks of the event loop, so that
// nothing is ever written inside a notification.
class ControlCommands {
 public:
  using Agents = std::vector<Mox::Ptr<Orb::AgentBase>>;
  // Both must outlive this.
  ControlCommands(State& state, const Agents& agents) : state_(state), agents_(agents) {}

  // Takes one request line of a peer with this user id. Null when the whole answer was appended, otherwise
  // the rest.
  std::unique_ptr<ControlJob> start(std::string_view line, uid_t user, std::string& output);

  static void appendOk(std::string& output, nlohmann::json answer = nlohmann::json::object());
  static void appendError(std::string& output, const std::string& error);

 private:
  using Job = std::unique_ptr<ControlJob>;
  Job dispatch(nlohmann::json& request, uid_t user, std::string& output);
  Job show(const nlohmann::json& request, std::string& output);
  Job set(nlohmann::json& request, std::string& output);
  Job apply(const nlohmann::json& request, std::string& output);
  Job remote(const nlohmann::json& request, std::string& output);
  Job agent(const nlohmann::json& request, std::string& output);
  void changeBindings(std::string_view lines, bool add, std::string& output);

  State& state_;
  const Agents& agents_;
};

}  // namespace Host
