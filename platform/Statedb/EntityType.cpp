#include "Statedb/EntityType.h"

#include "Statedb/Json.h"

namespace Statedb {

nlohmann::json EntityType::toJson(const Mox::Entity& entity) const { return shape.toJson(entity); }

Mox::Result<Plan> EntityType::planMerge(const Mox::Ptr<Mox::Entity>& entity, nlohmann::json json,
                                        const std::string& path) const {
  return Plan::make(entity, shape, make_(), std::move(json), path);
}

std::unique_ptr<TreeWatch> EntityType::watch(
    const Mox::Ptr<Mox::Entity>& entity, std::string path,
    std::function<void(const nlohmann::json& change)> callback) const {
  return std::make_unique<TreeWatch>(
      entity, shape, [path = std::move(path), callback = std::move(callback)](const Change& change) {
        nlohmann::json report{{"path", path}, {"member", change.memberPath}, {"value", change.value()}};
        if (change.key) report["key"] = *change.key;
        callback(report);
      });
}

TypeRegistry& TypeRegistry::process() {
  static TypeRegistry registry;
  return registry;
}

const EntityType& TypeRegistry::add(std::unique_ptr<EntityType> type) {
  std::string name = type->name;
  return *types_.try_emplace(std::move(name), std::move(type)).first->second;
}

const EntityType* TypeRegistry::find(std::string_view name) const {
  const auto at = types_.find(name);
  return at == types_.end() ? nullptr : at->second.get();
}

}  // namespace Statedb
