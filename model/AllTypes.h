#pragma once

#include "Arp/Confirmation.h"
#include "Arp/InputConfig.h"
#include "Arp/ServiceStatus.h"
#include "Arp/Table.h"
#include "Bridging/Config.h"
#include "Bridging/Status.h"
#include "Evpn/Status.h"
#include "Interface/Directory.h"
#include "Ip/Status.h"
#include "KernelNetInfo/Status.h"
#include "Routing/Status.h"
#include "Suppression/Answer.h"
#include "Suppression/BindingOrigin.h"
#include "Suppression/Counter.h"
#include "Suppression/DataPlaneAnswers.h"
#include "Suppression/Limits.h"
#include "Suppression/NeverAnswer.h"
#include "Suppression/RemoteBindingConfig.h"
#include "Suppression/Status.h"
#include "Switch/Config.h"
#include "Switch/Forwarding.h"
#include "Switch/Health.h"
#include "Switch/Problems.h"
#include "Switch/Readiness.h"
#include "Switch/VlanInterfaces.h"
#include "Vrf/VrfIdMap.h"

namespace Model {

// Every type that can be mounted by path, with the name that it is mounted under: `visit.operator()<E>(name)`
// for each.
template <class Visit>
void forEachStateType(Visit&& visit) {
  visit.template operator()<ArpSuppression::AnswerVlans>(ArpSuppression::kAnswerVlansType);
  visit.template operator()<ArpSuppression::ArpSuppressionStatus>("ArpSuppression::ArpSuppressionStatus");
  visit.template operator()<ArpSuppression::BindingOrigin>(ArpSuppression::kBindingOriginType);
  visit.template operator()<ArpSuppression::DataPlaneAnswers>(ArpSuppression::kDataPlaneAnswersType);
  visit.template operator()<ArpSuppression::Limits>(ArpSuppression::kLimitsType);
  visit.template operator()<ArpSuppression::NeverAnswer>(ArpSuppression::kNeverAnswerType);
  visit.template operator()<Arp::ArpInputConfig>("Arp::ArpInputConfig");
  visit.template operator()<Arp::Confirmation>(Arp::kConfirmationType);
  visit.template operator()<Arp::ServiceStatus>("Arp::ServiceStatus");
  visit.template operator()<Bridging::Config>("Bridging::Config");
  visit.template operator()<Evpn::EvpnStatus>("Evpn::EvpnStatus");
  visit.template operator()<Evpn::MplsConfig>("Evpn::MplsConfig");
  visit.template operator()<Interface::AllIntfStatusDir>("Interface::AllIntfStatusDir");
  visit.template operator()<Interface::AllIntfStatusLocalDir>("Interface::AllIntfStatusLocalDir");
  visit.template operator()<Ip::AllVrfStatusLocal>("Ip::AllVrfStatusLocal");
  visit.template operator()<Ip::Status>("Ip::Status");
  visit.template operator()<KernelNetInfo::Status>("KernelNetInfo::Status");
  visit.template operator()<Routing::Fhrp::VirtualRouterMacStatus>("Routing::Fhrp::VirtualRouterMacStatus");
  visit.template operator()<Routing::L2Vpn::Config>("Routing::L2Vpn::Config");
  visit.template operator()<Switch::Config>("Switch::Config");
  visit.template operator()<Switch::Forwarding>("Switch::Forwarding");
  visit.template operator()<Switch::Health>("Switch::Health");
  visit.template operator()<Switch::Problems>("Switch::Problems");
  visit.template operator()<Switch::Readiness>("Switch::Readiness");
  visit.template operator()<Switch::VlanInterfaces>("Switch::VlanInterfaces");
}

template <class Visit>
void forEachTableType(Visit&& visit) {
  visit.template operator()<ArpSuppression::AnswerStatus>(ArpSuppression::kAnswerType);
  visit.template operator()<ArpSuppression::ArpSuppressionCounterStatus>(
      "ArpSuppression::ArpSuppressionCounterStatus");
  visit.template operator()<ArpSuppression::RemoteBindingConfig>("ArpSuppression::RemoteBindingConfig");
  visit.template operator()<Arp::Table::Status>("Arp::Table::Status");
  visit.template operator()<Memtab::Bridging::Status>("Memtab::Bridging::Status");
  visit.template operator()<Vrf::VrfIdMap::Status>("Vrf::VrfIdMap::Status");
}

}  // namespace Model
