#include "KernelState/VlanNameSm.h"

#include <utility>

namespace KernelState {
namespace {

constexpr unsigned kUpdateLevel = 3;
constexpr double kBurst = 1;  // seconds: devices come in bursts, and are renamed in between

}  // namespace

VlanNameSm::VlanNameSm(Ptr<const Switch::Config> config, Ptr<const NamespaceStates> states,
                       Ptr<const VlanOwners> owners, Switch::ProblemReporter& problems,
                       const Ptr<Orb::TaskScheduler>& scheduler)
    : config_(std::move(config), [this] { schedule(); }),
      owners_(std::move(owners)),
      problems_(problems),
      updateTask_(scheduler, "KernelState names of VLAN interfaces", kUpdateLevel, [this] { update(); }),
      states_(std::move(states), [this](StateWatch::Notifiee& state) {
        const NamespaceState* const of = state.get();
        state.on(NamespaceState::linkChanged, [this, of](IfIndex ifIndex) { handleLink(*of, ifIndex); });
      }) {
  owners_.on(VlanOwners::ownerChanged, [this] { schedule(); });
}

void VlanNameSm::schedule() {
  if (!devices_.empty() || !wrong_.empty()) updateTask_.schedule(kBurst);
}

void VlanNameSm::handleLink(const NamespaceState& state, IfIndex ifIndex) {
  const Link link = state.link(ifIndex);
  if (Bridging::VlanId::valid(link.vlanId) && link.name != "vlan" + std::to_string(link.vlanId)) {
    devices_.insert_or_assign({state.name(), ifIndex}, Bridging::VlanId(link.vlanId));
  } else {
    devices_.erase({state.name(), ifIndex});
  }
  schedule();
}

Mox::String VlanNameSm::problemOf(Bridging::VlanId vlanId, const Lanix::NamespaceName& netNs,
                                  const Link& link) const {
  const auto vlan = config_ ? config_->vlan(vlanId) : nullptr;
  const auto home = states_->state(Lanix::kDefaultNamespace);
  if (!vlan || !home) return "";
  const IfIndex bridge = home->device(vlan->bridge());
  if (bridge == 0 || link.lower != bridge || !home->link(bridge).filtersVlans) return "";
  if (owners_->ownerHas(Lanix::IntfId::fromName("Vlan" + std::to_string(vlanId.value())))) return "";
  const bool isHome = netNs == Lanix::kDefaultNamespace;
  return link.name + (isHome ? "" : " in network namespace " + netNs) + " is its interface on bridge " +
         vlan->bridge() + ", but has another name than vlan" + std::to_string(vlanId.value()) +
         ", so that the VLAN has no layer 3";
}

void VlanNameSm::update() {
  const auto before = std::exchange(wrong_, {});
  for (const auto& [device, vlanId] : devices_) {
    const auto state = states_->state(device.first);
    if (!state) continue;
    const Link link = state->link(device.second);
    const Mox::String problem = problemOf(vlanId, device.first, link);
    if (problem.empty()) continue;
    const Mox::String number = std::to_string(vlanId.value());
    if (!wrong_.insert("VLAN " + number).second) continue;
    problems_.problemIs("VLAN " + number, problem,
                        "ip link set " + link.name + " down; ip link set " + link.name + " name vlan" +
                            number + "; ip link set vlan" + number + " up");
  }
  for (const Mox::String& subject : before) {
    if (!wrong_.contains(subject)) problems_.problemDel(subject);
  }
}

}  // namespace KernelState
