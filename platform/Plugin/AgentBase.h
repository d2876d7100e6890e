#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "Mox/Entity.h"
#include "Mox/Error.h"
#include "Mox/Result.h"
#include "Mox/Strep.h"
#include "Orb/TaskScheduler.h"

namespace Statedb {
class EntityManager;
class MountGroup;
enum class MountStatus : int;
}  // namespace Statedb

namespace Memtab {
class EntityManager;
}

namespace Plugin {

class AgentBase;

// The activity manager of the process is its event loop.
using ActivityManager = Orb::EventLoop;

// A command that an operator can give to an agent.
class AgentCommandCallback : public Mox::Entity {
 public:
  // A large answer takes longer than the event loop may wait: the host lets it be written by a copy of the
  // process, so such a command may read everything and change nothing.
  enum class Answer : std::uint8_t { small, large };

  // A command is named by its first name, which may be empty, and its command name.
  AgentCommandCallback(Mox::String firstName, Mox::String commandName, Answer answer = Answer::small)
      : firstName_(std::move(firstName)), commandName_(std::move(commandName)), answer_(answer) {}
  const Mox::String& firstName() const { return firstName_; }
  const Mox::String& commandName() const { return commandName_; }
  Answer answer() const { return answer_; }

  // Whether the command takes these; a refusal says which argument it is and what is allowed. Asked before
  // each run.
  virtual Mox::Result<> check(const std::vector<Mox::String>& /*arguments*/) const { return {}; }
  // Writes the answer to `descriptor`: a file in memory, or with a large answer a pipe that blocks.
  virtual void handleCommand(int descriptor, const std::vector<Mox::String>& arguments) = 0;

 private:
  Mox::String firstName_;
  Mox::String commandName_;
  Answer answer_;
};

// What the process that loads agents does for them.
class AgentHost {
 public:
  virtual ~AgentHost() = default;
  virtual Orb::EventLoop& loop() = 0;
  virtual Mox::Ptr<Orb::TaskSchedulerRoot> taskSchedulerRoot() = 0;
  virtual bool isPhysicalHardware() = 0;
  // Each agent's own; its completion arrives as that agent's doMountsComplete.
  virtual Mox::Ptr<Statedb::MountGroup> mountGroup(AgentBase& agent) = 0;
  virtual Mox::Ptr<Statedb::EntityManager> entityManager() = 0;
  virtual Mox::Ptr<Memtab::EntityManager> sharedMemory() = 0;
  virtual void createLocalEntity(const Mox::String& name, const Mox::String& type,
                                 const Mox::String& path) = 0;
};

// Tells what a clean-up found: a line for each thing that it removed, and for each that it could not remove.
struct CleanUpReport {
  std::function<void(const std::string& what)> removed;
  std::function<void(const std::string& why)> refused;
};

// A plug-in of the agent host. The host makes it with the plug-in's factory, calls hostIs, then doInit, then,
// once the mount group that doInit closed is complete, doMountsComplete; both once, from the event loop. An
// error that either raises means that the agent cannot start. It ends by being dropped, mostly some turns after
// the host said that the end begins.
class AgentBase : public Mox::Entity {
 public:
  const Mox::String& name() const { return name_; }
  void hostIs(AgentHost& host) { host_ = &host; }

  virtual void doInit() = 0;
  virtual void doMountsComplete(Statedb::MountStatus status,
                                const Mox::Ptr<Statedb::EntityManager>& entityManager) = 0;

  // From here on nobody is to rely on the agent: what brings it new work is taken away, and what is under way
  // is finished.
  virtual void endBegins() {}
  // Whether nothing is under way any more; asked between turns.
  virtual bool finished() const { return true; }

  // Removes what any run of the agent left in the network namespace that the calling thread is in. On an agent
  // that has no host and does not start; once for each namespace.
  virtual void cleanUp(const CleanUpReport& /*report*/) {}

  // Null when the agent has no such command.
  Mox::Ptr<AgentCommandCallback> agentCommand(const Mox::String& firstName,
                                              const Mox::String& commandName) const;

 protected:
  explicit AgentBase(Mox::String name) : name_(std::move(name)) {}

  AgentHost& host() const { return *host_; }
  ActivityManager& activityManager() const { return host_->loop(); }
  Mox::Ptr<Orb::TaskSchedulerRoot> taskSchedulerRoot() const { return host_->taskSchedulerRoot(); }
  bool isPhysicalHardware() const { return host_->isPhysicalHardware(); }
  // What the agent cannot start without: when it was refused, raises Mox::Error with the reason, and the host
  // ends the process with it.
  template <class Value>
  static Value required(Mox::Result<Value> result) {
    if (!result) throw Mox::Error(result.error());
    return std::move(*result);
  }
  // An entity of this process that is not mounted; found by its path like any other.
  void createLocalEntity(const Mox::String& name, const Mox::String& type, const Mox::String& path);
  // No more local entities are made from here on.
  void localEntitiesCreatedIs(bool created) { localEntitiesCreated_ = created; }
  // A later one of the same name replaces an earlier one.
  void agentCommandCallbackIs(Mox::Ptr<AgentCommandCallback> callback);
  void agentCommandCallbackDelAll() { commands_.clear(); }

 private:
  Mox::String name_;
  AgentHost* host_ = nullptr;
  bool localEntitiesCreated_ = false;
  std::map<std::pair<Mox::String, Mox::String>, Mox::Ptr<AgentCommandCallback>> commands_;
};

}  // namespace Plugin

// The entry of a plug-in library: one C function that the host finds by name. `factory` takes the agent's
// name and returns a counted pointer to it.
#define PLUGIN_AGENT(factory)                                                                                \
  extern "C" __attribute__((visibility("default"))) ::Plugin::AgentBase* pluginAgentMake(const char* name) { \
    return factory(name).release();                                                                          \
  }
