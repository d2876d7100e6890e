#pragma once

#include <functional>
#include <map>
#include <memory>
#include <utility>

#include "Mox/Notifiee.h"
#include "Switch/Config.h"

namespace Switch {

// Watches the switch's configuration and all that is in it, and calls back after any change; what changed, the
// caller finds by looking. The callback runs inside the change, of which there may be many together, and what
// is new may not be complete yet: it is to schedule work only.
class ConfigWatch {
 public:
  ConfigWatch(Mox::Ptr<const Config> config, std::function<void()> changed)
      : changed_(std::move(changed)), config_(std::move(config)) {
    if (!config_) return;
    config_
        .on(Config::vrfChanged,
            [this](const Mox::String& name) {
              follow(vrfs_, name, config_->vrf(name));
              changed_();
            })
        .on(Config::vlanChanged,
            [this](Bridging::VlanId vlanId) {
              follow(vlans_, vlanId, config_->vlan(vlanId));
              changed_();
            })
        .on(Config::neighborRefreshSecondsChanged, [this] { changed_(); });
    softForward_.onAny([this](Mox::EventId) { changed_(); });
    softForward_.notifierIs(config_->softForward());
    evpn_.onAny([this](Mox::EventId) { changed_(); });
    evpn_.notifierIs(config_->evpn());
    for (const auto& [name, vrf] : config_->vrfCollection()) follow(vrfs_, name, vrf);
    for (const auto& [vlanId, vlan] : config_->vlanCollection()) follow(vlans_, vlanId, vlan);
  }
  const Config* operator->() const { return config_.get(); }
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
  Mox::Notifiee<const Config> config_;
  Children<Mox::String, VrfConfig> vrfs_;
  Children<Bridging::VlanId, VlanConfig> vlans_;
  Mox::Notifiee<const SoftForwardConfig> softForward_;
  Mox::Notifiee<const EvpnConfig> evpn_;
};

}  // namespace Switch
