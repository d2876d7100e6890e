#include "KernelState/IntfStatusSm.h"

namespace KernelState {

IntfStatusSm::IntfStatusSm(Ptr<const NamespaceState> state) : state_(std::move(state)) {
  state_.on(NamespaceState::linkChanged, [this](IfIndex ifIndex) { handleLink(ifIndex); });
}

void IntfStatusSm::directoriesAre(Ptr<Interface::AllIntfStatusDir> all,
                                  Ptr<Interface::AllIntfStatusLocalDir> local) {
  const bool newAll = all && all != all_;
  const bool newLocal = local && local != local_;
  all_ = std::move(all);
  local_ = std::move(local);
  for (const auto& [intf, count] : devices_) {
    if (newAll) all_->intfStatusIs(intf);
    if (newLocal) local_->intfStatusIs(intf);
  }
}

void IntfStatusSm::handleLink(IfIndex ifIndex) {
  if (const auto before = intfOf_.find(ifIndex); before != intfOf_.end() && !state_->linkHas(ifIndex)) {
    const Lanix::IntfId intf = before->second;
    intfOf_.erase(before);
    if (--devices_[intf] != 0) return;
    devices_.erase(intf);
    if (all_) all_->intfStatusDel(intf);
    if (local_) local_->intfStatusDel(intf);
    return;
  }
  const auto intf = Lanix::IntfId::fromName(state_->link(ifIndex).name);
  if (!intf || !intfOf_.emplace(ifIndex, intf).second) return;
  if (++devices_[intf] != 1) return;
  if (all_) all_->intfStatusIs(intf);
  if (local_) local_->intfStatusIs(intf);
}

}  // namespace KernelState
