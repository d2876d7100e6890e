#pragma once

#include "Memtab/EntityManager.h"
#include "Statedb/EntityType.h"

namespace TestSupport {

// Every class that can be mounted by path. In a source of its own, because it takes half a minute to compile.
void registerStateTypes(Statedb::TypeRegistry& types);
void registerTableTypes(Memtab::EntityManager& tables);

}  // namespace TestSupport
