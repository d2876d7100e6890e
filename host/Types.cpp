#include "host/Types.h"

#include "AllTypes.h"
#include "Mox/Assert.h"
#include "Statedb/Register.h"
#include "host/TypedTable.h"
#include "host/TypedTree.h"

namespace Host {

namespace {

using TreeDumpMaker = std::unique_ptr<Dump> (*)(const Mox::Ptr<Mox::Entity>& entity);

struct TreeTypes {
  std::map<std::string, TreeDumpMaker, std::less<>> dumps;

  template <class E>
  void add(const std::string& name) {
    Statedb::TypeRegistry::process().registerType<E>(name);
    dumps[name] = [](const Mox::Ptr<Mox::Entity>& entity) -> std::unique_ptr<Dump> {
      return std::make_unique<TreeDump<E>>(Mox::dynamicPtrCast<E>(entity));
    };
  }
};

const TreeTypes& allTreeTypes() {
  static const TreeTypes types = [] {
    TreeTypes all;
    Model::forEachStateType([&]<class E>(const char* name) { all.add<E>(name); });
    return all;
  }();
  return types;
}

}  // namespace

const Statedb::TypeRegistry& treeTypes() {
  allTreeTypes();
  return Statedb::TypeRegistry::process();
}

std::unique_ptr<Dump> dumpTree(std::string_view typeName, const Mox::Ptr<Mox::Entity>& entity) {
  const auto maker = allTreeTypes().dumps.find(typeName);
  MOX_ASSERT("host/Types", "maker != dumps.end()", maker != allTreeTypes().dumps.end());
  return maker->second(entity);
}

const TableTypes& tableTypes() {
  static const TableTypes types = [] {
    TableTypes all;
    Model::forEachTableType(
        [&]<class E>(const char* name) { all[name] = std::make_unique<TypedTable<E>>(name); });
    return all;
  }();
  return types;
}

}  // namespace Host
