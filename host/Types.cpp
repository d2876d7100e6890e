#include "host/Types.h"

#include "Arp/InputConfig.h"
#include "Arp/Table.h"
#include "Bridging/Config.h"
#include "Bridging/Status.h"
#include "Evpn/Status.h"
#include "Interface/Directory.h"
#include "Ip/Status.h"
#include "KernelNetInfo/Status.h"
#include "Mox/Assert.h"
#include "Routing/Status.h"
#include "Statedb/Register.h"
#include "Suppression/Counter.h"
#include "Suppression/RemoteBindingConfig.h"
#include "Suppression/Status.h"
#include "Switch/Config.h"
#include "Vrf/VrfIdMap.h"
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
    all.add<Arp::ArpInputConfig>("Arp::ArpInputConfig");
    all.add<ArpSuppression::ArpSuppressionStatus>("ArpSuppression::ArpSuppressionStatus");
    all.add<Bridging::Config>("Bridging::Config");
    all.add<Evpn::EvpnStatus>("Evpn::EvpnStatus");
    all.add<Evpn::MplsConfig>("Evpn::MplsConfig");
    all.add<Interface::AllIntfStatusDir>("Interface::AllIntfStatusDir");
    all.add<Interface::AllIntfStatusLocalDir>("Interface::AllIntfStatusLocalDir");
    all.add<Ip::AllVrfStatusLocal>("Ip::AllVrfStatusLocal");
    all.add<Ip::Status>("Ip::Status");
    all.add<KernelNetInfo::Status>("KernelNetInfo::Status");
    all.add<Routing::Fhrp::VirtualRouterMacStatus>("Routing::Fhrp::VirtualRouterMacStatus");
    all.add<Routing::L2Vpn::Config>("Routing::L2Vpn::Config");
    all.add<Switch::Config>(Switch::kConfigType);
    return all;
  }();
  return types;
}

template <class E>
void addTable(TableTypes& types, const std::string& name) {
  types[name] = std::make_unique<TypedTable<E>>(name);
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
    addTable<Arp::Table::Status>(all, "Arp::Table::Status");
    addTable<ArpSuppression::ArpSuppressionCounterStatus>(all, "ArpSuppression::ArpSuppressionCounterStatus");
    addTable<ArpSuppression::RemoteBindingConfig>(all, "ArpSuppression::RemoteBindingConfig");
    addTable<Memtab::Bridging::Status>(all, "Memtab::Bridging::Status");
    addTable<Vrf::VrfIdMap::Status>(all, "Vrf::VrfIdMap::Status");
    return all;
  }();
  return types;
}

}  // namespace Host
