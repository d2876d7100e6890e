#pragma once

#include <cstdint>
#include <functional>
#include <string_view>
#include <vector>

#include "Mox/Ptr.h"

// Entities and their watchers.
//
// An entity is a counted record of named attributes and collections (Mox/Attribute.h). Every change notifies
// the entity's watchers synchronously, in order of registration, after the change is complete: a collection
// member is fully inserted, or fully gone, when its watchers hear of it. A notification carries the
// attribute's new value or the collection's key, as it was when the notification was raised. An unchanged
// value notifies nobody. Attaching a watcher replays nothing.
//
// While a notification runs its callbacks may do anything: change the same entity again (the inner
// notification runs to its end first), add watchers (they hear of later changes only), drop watchers,
// themselves included, and destroy the entity (the watchers that were still to be told are not).

namespace Mox {

// Names a member across the classes of one entity: a hash of the member's name.
using EventId = std::uint32_t;

constexpr EventId eventId(std::string_view name) {
  std::uint32_t hash = 2166136261u;
  for (char c : name) hash = (hash ^ static_cast<unsigned char>(c)) * 16777619u;
  return hash;
}

// The change notification of one member; Payload is the attribute's type or the collection's key.
template <class Payload>
struct Event {
  explicit constexpr Event(std::string_view name) : id(eventId(name)) {}
  EventId id;
};

class WatcherList;

// One callback. Made and owned by a Notifiee.
class Watcher final : public Referenced {
 public:
  using Callback = std::function<void(EventId, const void* payload)>;
  Watcher(EventId event, bool everyEvent, Callback callback)
      : event(event), everyEvent(everyEvent), callback(std::move(callback)) {}
  const EventId event;
  const bool everyEvent;
  const Callback callback;
};

class Entity : public Referenced {
 public:
  // For Notifiee. Watchers are notified in the order of the addWatcher calls. The entity does not own them.
  void addWatcher(Watcher* watcher) const;
  void removeWatcher(Watcher* watcher) const;
  std::size_t watchers() const;

 protected:
  Entity() = default;
  ~Entity() override;

  // Raises the notification of one member. Nothing of the entity may be touched afterwards by a caller that
  // cannot rule out that a callback destroyed it.
  template <class Payload>
  void notify(Event<Payload> event, const Payload& payload) const {
    if (watchers_) [[unlikely]] {
      const Payload carried = payload;  // callbacks may change or destroy what `payload` refers to
      notifyWatchers(event.id, &carried);
    }
  }
  // Raises the notification of every element's key, as long as no callback destroys the entity.
  template <class Key, class Container>
  void notifyEach(Event<Key> event, const Container& elements) const {
    if (!watchers_ || elements.empty()) return;
    const Burst burst(*watchers_);
    for (const auto& element : elements) {
      if (burst.orphaned()) return;
      notify(event, Container::keyOf(element));
    }
  }

 private:
  // Keeps the list of watchers while several notifications are raised one after the other.
  class Burst {
   public:
    explicit Burst(WatcherList& list);
    Burst(const Burst&) = delete;
    Burst& operator=(const Burst&) = delete;
    ~Burst();
    bool orphaned() const;

   private:
    WatcherList& list_;
  };

  void notifyWatchers(EventId event, const void* payload) const;

  mutable WatcherList* watchers_ = nullptr;
};

}  // namespace Mox
