#pragma once

#include "Memtab/EntityManager.h"
#include "Statedb/EntityType.h"

namespace Model {

// Makes every type of the model known under its name, so that it can be mounted by path.
void registerStateTypes(Statedb::TypeRegistry& registry);
void registerTableTypes(Memtab::EntityManager& tables);

}  // namespace Model
