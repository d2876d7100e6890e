#include "KernelState/BridgeMacSm.h"

#include <algorithm>

namespace KernelState {
namespace {

constexpr char kSubject[] = "VLAN interfaces";
constexpr unsigned kUpdateLevel = 3;
constexpr double kBurst = 1;  // seconds: interfaces come in bursts

}  // namespace

BridgeMacSm::BridgeMacSm(Ptr<const VlanOwners> owners, Switch::ProblemReporter& problems,
                         const Ptr<Orb::TaskScheduler>& scheduler)
    : owners_(std::move(owners)),
      problems_(problems),
      updateTask_(scheduler, "KernelState bridge MAC address", kUpdateLevel, [this] { update(); }),
      reportTask_(scheduler, "KernelState MAC addresses that differ", kUpdateLevel, [this] { report(); }) {
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
  reportTask_.schedule(kBurst);
}

void BridgeMacSm::report() {
  if (!bridgingConfig_) return;
  const Lanix::EthAddr bridgeMac = bridgingConfig_->bridgeMacAddr();
  std::size_t others = 0;
  Mox::String first;
  for (const auto& [intf, owner] : owners_->ownerCollection()) {
    if (owner.mac == bridgeMac || owner.mac.isZero()) continue;
    if (first.empty()) {
      first = intf.toStrep() + " has the MAC address " + owner.mac.toStrep();
    } else {
      ++others;
    }
  }
  if (first.empty()) return problems_.problemDel(kSubject);
  problems_.problemIs(kSubject,
                      first + ", not the switch's " + bridgeMac.toStrep() +
                          (others != 0 ? " (and " + std::to_string(others) + " more have others)" : "") +
                          ": hosts would be told the wrong one",
                      "give all VLAN interfaces the same: ip link set NAME address " + bridgeMac.toStrep());
}

}  // namespace KernelState
