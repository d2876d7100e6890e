#pragma once

#include <map>
#include <memory>
#include <string>
#include <utility>

#include "Arp/InputConfig.h"
#include "Arp/ServiceStatus.h"
#include "ArpService/Queue.h"
#include "Mox/Notifiee.h"

namespace ArpService {

using Mox::Ptr;

// What the configuration holds for one VRF, and how it fares.
struct Vrf {
  Vrf(Mox::String vrfName, Ptr<Arp::VrfServiceStatus> vrfStatus)
      : name(std::move(vrfName)), status(std::move(vrfStatus)) {}

  // What is wanted for a key; null: nothing.
  const Arp::ArpEntryInput* wanted(const Key& key) const;

  const Mox::String name;
  const Ptr<Arp::VrfServiceStatus> status;
  Mox::Notifiee<const Arp::ArpInputVrfConfig> config;  // none: it holds nothing
  Queue queue;
  bool isNew = true;     // `config` came or went as a whole, so that no event tells of each of its entries
  bool refused = false;  // something, in this walk
};

// By name.
using Vrfs = std::map<Mox::String, std::unique_ptr<Vrf>>;

}  // namespace ArpService
