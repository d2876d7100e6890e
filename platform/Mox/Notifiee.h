#pragma once

#include <utility>
#include <vector>

#include "Mox/Entity.h"

namespace Mox {

// A member through which its owner watches one input, named after that input:
//
//   evpnStatus_.on(Evpn::EvpnStatus::vlanToDot1qChanged,
//                  [this](Bridging::VlanId vlan) { handleVlan(vlan); });
//
// It holds a counted reference to the entity that it watches; the entity does not own it. Its destruction, or
// a move to another entity with notifierIs, ends every callback at once, also from inside one of them.
// Callbacks refer to their owner by plain pointer: declare the notifiee in the owner, and both go together.
template <class T>
class Notifiee {
 public:
  Notifiee() = default;
  explicit Notifiee(Ptr<T> notifier) : notifier_(std::move(notifier)) {}
  Notifiee(const Notifiee&) = delete;
  Notifiee& operator=(const Notifiee&) = delete;
  ~Notifiee() { detach(); }

  // Calls back with the payload of each later `event`; callbacks stay when the notifier changes.
  template <class Payload, class Callback>
  Notifiee& on(Event<Payload> event, Callback callback) {
    return add(event.id, false, [callback = std::move(callback)](EventId, const void* payload) {
      if constexpr (std::is_invocable_v<const Callback&, const Payload&>) {
        callback(*static_cast<const Payload*>(payload));
      } else {
        callback();
      }
    });
  }

  // Calls back with the id of every later event, without its payload.
  template <class Callback>
  Notifiee& onAny(Callback callback) {
    return add(0, true, [callback = std::move(callback)](EventId event, const void*) { callback(event); });
  }

  // Watches another entity, or none, with the same callbacks.
  void notifierIs(Ptr<T> notifier) {
    if (notifier == notifier_) return;
    detach();
    notifier_ = std::move(notifier);
    if (!notifier_) return;
    for (const Ptr<Watcher>& watcher : watchers_) notifier_->addWatcher(watcher.get());
  }

  const Ptr<T>& notifier() const { return notifier_; }
  T* get() const { return notifier_.get(); }
  T* operator->() const { return notifier_.get(); }
  T& operator*() const { return *notifier_; }
  explicit operator bool() const { return static_cast<bool>(notifier_); }

 private:
  Notifiee& add(EventId event, bool everyEvent, Watcher::Callback callback) {
    watchers_.push_back(make<Watcher>(event, everyEvent, std::move(callback)));
    if (notifier_) notifier_->addWatcher(watchers_.back().get());
    return *this;
  }
  void detach() {
    if (!notifier_) return;
    for (const Ptr<Watcher>& watcher : watchers_) notifier_->removeWatcher(watcher.get());
  }

  Ptr<T> notifier_;
  std::vector<Ptr<Watcher>> watchers_;
};

}  // namespace Mox
