#pragma once

#include <map>

#include "Arp/Confirmation.h"
#include "Bridging/VlanId.h"
#include "Lanix/EthAddr.h"
#include "Switch/Config.h"

namespace ArpService {

// What the configuration says about the feed of other switches' hosts that a routing daemon keeps among the
// kernel's neighbours, on the feed devices of the VLANs (Netlink::isFeedDevice).
struct Feed {
  std::map<Bridging::VlanId, Mox::String> bridges;        // of the VLANs; none: there is no feed
  Mox::Ptr<const Switch::EvpnConfig::Bindings> bindings;  // the operator's own, beneath the feed
  friend bool operator==(const Feed& a, const Feed& b) {
    const auto same = [](const auto& x, const auto& y) { return x == y || (x && y && x->all == y->all); };
    return a.bridges == b.bridges && same(a.bindings, b.bindings);
  }

  static Feed of(const Switch::Config& config);
  // Whether that very host of another switch is the operator's, and not the feed's to write.
  bool isOperators(const Arp::HostAddress& host, const Lanix::EthAddr& mac) const;
};

}  // namespace ArpService
