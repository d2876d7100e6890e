#include "Plugin/AgentBase.h"

#include "Mox/Assert.h"

namespace Plugin {

void AgentBase::createLocalEntity(const Mox::String& name, const Mox::String& type, const Mox::String& path) {
  MOX_ASSERT("Plugin/AgentBase", "!localEntitiesCreated_", !localEntitiesCreated_);
  host_->createLocalEntity(name, type, path);
}

void AgentBase::agentCommandCallbackIs(Mox::Ptr<AgentCommandCallback> callback) {
  commands_[{callback->firstName(), callback->commandName()}] = callback;
}

Mox::Ptr<AgentCommandCallback> AgentBase::agentCommand(const Mox::String& firstName,
                                                       const Mox::String& commandName) const {
  const auto command = commands_.find({firstName, commandName});
  return command == commands_.end() ? Mox::Ptr<AgentCommandCallback>() : command->second;
}

}  // namespace Plugin
