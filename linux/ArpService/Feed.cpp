#include "ArpService/Feed.h"

#include <algorithm>

namespace ArpService {

Feed Feed::of(const Switch::Config& config) {
  Feed feed;
  const auto& evpn = *config.evpn();
  const bool isRead = std::ranges::count(config.agents(), "KernelEvpn") != 0;
  if (evpn.feed() != Switch::EvpnFeed::kernel || !isRead) return feed;
  for (const auto& [vlanId, vlan] : config.vlanCollection()) feed.bridges.emplace(vlanId, vlan->bridge());
  feed.bindings = evpn.bindings();
  return feed;
}

bool Feed::isOperators(const Arp::HostAddress& host, const Lanix::EthAddr& mac) const {
  if (!bindings) return false;
  const auto at = bindings->all.find({host.vlanId, host.address});
  return at != bindings->all.end() && at->second.macAddress == mac;
}

}  // namespace ArpService
