#pragma once

#include <functional>
#include <map>
#include <memory>
#include <utility>

#include "Mox/Notifiee.h"
#include "Switch/Config.h"

namespace KernelState {

// Watches the switch's configuration and each VRF and VLAN of it, and calls back after any change; what
// changed, the caller finds by looking. The callback runs inside the change: it is to schedule work only.
class ConfigWatch {
 public:
  ConfigWatch(Mox::Ptr<const Switch::Config> config, std::function<void()> changed)
      : changed_(std::move(changed)), config_(std::move(config)) {
    if (!config_) return;
    config_.on(Switch::Config::vrfChanged, [this](const Mox::String& name) {
      follow(vrfs_, name, config_->vrf(name));
      changed_();
    });
    config_.on(Switch::Config::vlanChanged, [this](Bridging::VlanId vlanId) {
      follow(vlans_, vlanId, config_->vlan(vlanId));
      changed_();
    });
    for (const auto& [name, vrf] : config_->vrfCollection()) follow(vrfs_, name, vrf);
    for (const auto& [vlanId, vlan] : config_->vlanCollection()) follow(vlans_, vlanId, vlan);
  }
  const Switch::Config* operator->() const { return config_.get(); }
  explicit operator bool() const { return static_cast<bool>(config_); }

 private:
  template <class Key, class Child>
  using Children = std::map<Key, std::unique_ptr<Mox::Notifiee<const Child>>>;

  template <class Key, class Child>
  void follow(Children<Key, Child>& children, const Key& key, const Mox::Ptr<Child>& child) {
    auto& notifiee = children[key];
    if (!child) {
      children.erase(key);
    } else if (!notifiee) {
      notifiee = std::make_unique<Mox::Notifiee<const Child>>(child);
      notifiee->onAny([this](Mox::EventId) { changed_(); });
    } else {
      notifiee->notifierIs(child);
    }
  }

  std::function<void()> changed_;
  Mox::Notifiee<const Switch::Config> config_;
  Children<Mox::String, Switch::VrfConfig> vrfs_;
  Children<Bridging::VlanId, Switch::VlanConfig> vlans_;
};

}  // namespace KernelState
