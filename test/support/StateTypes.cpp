#include "support/StateTypes.h"

#include "AllTypes.h"
#include "Statedb/Register.h"

namespace TestSupport {

void registerStateTypes(Statedb::TypeRegistry& types) {
  Model::forEachStateType([&]<class E>(const char* name) { types.registerType<E>(name); });
}

void registerTableTypes(Memtab::EntityManager& tables) {
  Model::forEachTableType([&]<class E>(const char* name) { tables.registerType<E>(name); });
}

}  // namespace TestSupport
