#pragma once

#include <functional>
#include <map>
#include <memory>
#include <utility>

#include "KernelState/Tables.h"
#include "Mox/Notifiee.h"

namespace KernelState {

// Watches every namespace's state, those that come later included. `attach` is given each new one, to say
// what of it is watched; the watch ends when the namespace is no longer configured.
class StateWatch {
 public:
  using Notifiee = Mox::Notifiee<const NamespaceState>;
  StateWatch(Mox::Ptr<const NamespaceStates> states, std::function<void(Notifiee&)> attach)
      : attach_(std::move(attach)), states_(std::move(states)) {
    states_.on(NamespaceStates::stateChanged, [this](const Lanix::NamespaceName& netNs) { follow(netNs); });
    for (const auto& [netNs, state] : states_->stateCollection()) follow(netNs);
  }
  const NamespaceStates* operator->() const { return states_.get(); }

 private:
  void follow(const Lanix::NamespaceName& netNs) {
    const Mox::Ptr<const NamespaceState> state = states_->state(netNs);
    auto& notifiee = watched_[netNs];
    if (!state) {
      watched_.erase(netNs);
    } else if (!notifiee) {
      notifiee = std::make_unique<Notifiee>(state);
      attach_(*notifiee);
    }
  }

  std::function<void(Notifiee&)> attach_;
  Mox::Notifiee<const NamespaceStates> states_;
  std::map<Lanix::NamespaceName, std::unique_ptr<Notifiee>> watched_;
};

}  // namespace KernelState
