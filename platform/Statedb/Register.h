#pragma once

#include "Statedb/EntityType.h"
#include "Statedb/TypedShape.h"

namespace Statedb {

template <class E>
const EntityType& TypeRegistry::registerType(const std::string& name) {
  return add(std::make_unique<EntityType>(
      name, [] { return Mox::Ptr<Mox::Entity>(Mox::make<E>()); },
      [](const Mox::Entity& entity) { return dynamic_cast<const E*>(&entity) != nullptr; }, shapeOf<E>()));
}

}  // namespace Statedb
