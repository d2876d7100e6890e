#include "Types.h"

#include "Arp/InputConfig.h"
#include "Arp/Table.h"
#include "Bridging/Config.h"
#include "Bridging/Status.h"
#include "Evpn/Status.h"
#include "Interface/Directory.h"
#include "Ip/Status.h"
#include "KernelNetInfo/Status.h"
#include "Routing/Status.h"
#include "Statedb/Register.h"
#include "Suppression/Counter.h"
#include "Suppression/RemoteBindingConfig.h"
#include "Suppression/Status.h"
#include "Switch/Config.h"
#include "Vrf/VrfIdMap.h"

namespace Model {

void registerStateTypes(Statedb::TypeRegistry& registry) {
  registry.registerType<ArpSuppression::ArpSuppressionStatus>("ArpSuppression::ArpSuppressionStatus");
  registry.registerType<Arp::ArpInputConfig>("Arp::ArpInputConfig");
  registry.registerType<Bridging::Config>("Bridging::Config");
  registry.registerType<Evpn::EvpnStatus>("Evpn::EvpnStatus");
  registry.registerType<Evpn::MplsConfig>("Evpn::MplsConfig");
  registry.registerType<Interface::AllIntfStatusDir>("Interface::AllIntfStatusDir");
  registry.registerType<Interface::AllIntfStatusLocalDir>("Interface::AllIntfStatusLocalDir");
  registry.registerType<Ip::AllVrfStatusLocal>("Ip::AllVrfStatusLocal");
  registry.registerType<Ip::Status>("Ip::Status");
  registry.registerType<KernelNetInfo::Status>("KernelNetInfo::Status");
  registry.registerType<Routing::Fhrp::VirtualRouterMacStatus>("Routing::Fhrp::VirtualRouterMacStatus");
  registry.registerType<Routing::L2Vpn::Config>("Routing::L2Vpn::Config");
  registry.registerType<Switch::Config>("Switch::Config");
}

void registerTableTypes(Memtab::EntityManager& tables) {
  tables.registerType<ArpSuppression::ArpSuppressionCounterStatus>(
      "ArpSuppression::ArpSuppressionCounterStatus");
  tables.registerType<ArpSuppression::RemoteBindingConfig>("ArpSuppression::RemoteBindingConfig");
  tables.registerType<Arp::Table::Status>("Arp::Table::Status");
  tables.registerType<Memtab::Bridging::Status>("Memtab::Bridging::Status");
  tables.registerType<Vrf::VrfIdMap::Status>("Vrf::VrfIdMap::Status");
}

}  // namespace Model
