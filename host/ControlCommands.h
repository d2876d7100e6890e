#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "Plugin/AgentBase.h"
#include "host/Reload.h"
#include "host/State.h"

namespace Host {

class AgentAnswers;

// Work of one request that is more than a moment's. Ends with its destruction, whether or not it was done.
class ControlJob {
 public:
  enum class Step : std::uint8_t {
    more,     // to be called again
    waiting,  // to be called again after a wake
    done,     // the last answer line was appended
  };

  virtual ~ControlJob() = default;
  // Does a slice and appends whole answer lines. May also be called while it waits.
  virtual Step step(std::string& output) = 0;
  // Whether it goes on for as long as its client wants: such an answer has no deadline.
  virtual bool endless() const { return false; }

  // What `wake` calls, from any notification; it only schedules. Set before the first step.
  void wakeIs(std::function<void()> wake) { wake_ = std::move(wake); }

 protected:
  void wake() const {
    if (wake_) wake_();
  }

 private:
  std::function<void()> wake_;
};

// What the control socket can be asked for (see host/Protocol.h). Runs in tasks of the event loop, so that
// nothing is ever written inside a notification.
class ControlCommands {
 public:
  using Agents = std::vector<Mox::Ptr<Plugin::AgentBase>>;
  // All must outlive this. `reload` may be null: there is no configuration file.
  ControlCommands(State& state, const Agents& agents, Orb::EventLoop& loop, Reload* reload = nullptr);
  ControlCommands(const ControlCommands&) = delete;
  ControlCommands& operator=(const ControlCommands&) = delete;
  ~ControlCommands();

  // Takes one request line of a peer with this user id. Null when the whole answer was appended, otherwise
  // the rest.
  std::unique_ptr<ControlJob> start(std::string_view line, uid_t user, std::string& output);

  // As much of it as are whole lines, or all when there is no end of a line; returns how much.
  static std::size_t appendText(std::string& output, std::string_view text);
  static void appendOk(std::string& output, nlohmann::json answer = nlohmann::json::object());
  static void appendError(std::string& output, const std::string& error);

 private:
  using Job = std::unique_ptr<ControlJob>;
  Job dispatch(nlohmann::json& request, uid_t user, std::string& output);
  Job show(const nlohmann::json& request, std::string& output);
  Job set(nlohmann::json& request, std::string& output);
  Job apply(nlohmann::json& request, std::string& output);
  Job merge(nlohmann::json state, std::string& output);
  Job remote(const nlohmann::json& request, std::string& output);
  Job agent(const nlohmann::json& request, uid_t user, std::string& output);
  nlohmann::ordered_json statusWithoutAgent(const std::string& reason) const;
  Job health(std::string& output);
  Job monitor(const nlohmann::json& request, std::string& output);
  Job reload(std::string& output);
  Mox::Result<> roomFor(const ArpSuppression::RemoteBindingConfig& table,
                        const std::vector<Binding>& bindings) const;
  void changeBindings(std::string_view lines, bool add, std::string& output);

  State& state_;
  const Agents& agents_;
  Orb::EventLoop& loop_;
  Reload* const reload_;
  const double startedAt_;
  const std::unique_ptr<AgentAnswers> answers_;
};

}  // namespace Host
