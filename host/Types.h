#pragma once

#include "Statedb/EntityType.h"
#include "host/SharedTables.h"

// Every class of state that agents share, by the name that they mount it under.

namespace Host {

// The registry of the process, with the state tree's classes registered.
const Statedb::TypeRegistry& treeTypes();
// `entity` must be of one of these classes, the one of that name.
std::unique_ptr<Dump> dumpTree(std::string_view typeName, const Mox::Ptr<Mox::Entity>& entity);

const TableTypes& tableTypes();

}  // namespace Host
