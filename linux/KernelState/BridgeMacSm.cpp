#include "KernelState/BridgeMacSm.h"

#include <algorithm>

#include "KernelState/Trace.h"

namespace KernelState {
namespace {

constexpr char kSource[] = "KernelState/BridgeMacSm";
constexpr unsigned kUpdateLevel = 3;

}  // namespace

BridgeMacSm::BridgeMacSm(Ptr<const VlanOwners> owners, const Ptr<Orb::TaskScheduler>& scheduler)
    : owners_(std::move(owners)),
      updateTask_(scheduler, "KernelState bridge MAC address", kUpdateLevel, [this] { update(); }) {
  owners_.on(VlanOwners::ownerChanged, [this] { updateTask_.schedule(); });
  bridgingConfig_.on(Bridging::Config::bridgeMacAddrChanged, [this] { updateTask_.schedule(); });
}

void BridgeMacSm::bridgingConfigIs(Ptr<Bridging::Config> bridgingConfig) {
  bridgingConfig_.notifierIs(std::move(bridgingConfig));
  updateTask_.schedule();
}

void BridgeMacSm::update() {
  if (!bridgingConfig_) return;
  const auto& owners = owners_->ownerCollection();
  const auto has = [&](const Lanix::EthAddr& mac) {
    return std::any_of(owners.begin(), owners.end(),
                       [&](const auto& owner) { return owner.second.mac == mac; });
  };
  const Lanix::EthAddr now = bridgingConfig_->bridgeMacAddr();
  if (now.isZero() || (now == given_ && !has(now))) {
    for (const auto& [intf, owner] : owners) {
      if (owner.mac.isZero() || owner.mac.isMulticast()) continue;
      given_ = owner.mac;
      bridgingConfig_->bridgeMacAddrIs(given_);
      break;
    }
  }
  const Lanix::EthAddr bridgeMac = bridgingConfig_->bridgeMacAddr();
  for (const auto& [intf, owner] : owners) {
    if (owner.mac == bridgeMac || owner.mac.isZero() || !reported_.emplace(intf, owner.mac).second) continue;
    KERNEL_STATE_TRACE(0, intf << " has the MAC address " << owner.mac << ", not the switch's " << bridgeMac
                               << "; hosts would be told the wrong one: give all VLAN interfaces the same");
    TRACELET_RECORD("{} has the MAC address {}, not the switch's {}", intf, owner.mac, bridgeMac);
  }
}

}  // namespace KernelState
