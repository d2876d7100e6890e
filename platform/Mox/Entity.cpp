#include "Mox/Entity.h"

#include <algorithm>

namespace Mox {

// Slots of removed watchers are emptied while a notification runs, and closed up afterwards. The list
// outlives its entity until the notifications in progress have seen that it is orphaned.
class WatcherList {
 public:
  void add(Watcher* watcher) { slots_.push_back(watcher); }

  void remove(Watcher* watcher) {
    auto slot = std::find(slots_.begin(), slots_.end(), watcher);
    if (slot == slots_.end()) return;
    if (depth_ == 0) {
      slots_.erase(slot);
    } else {
      *slot = nullptr;
      holes_ = true;
    }
  }

  std::size_t size() const {
    return static_cast<std::size_t>(
        std::count_if(slots_.begin(), slots_.end(), [](Watcher* w) { return w != nullptr; }));
  }
  bool idle() const { return depth_ == 0; }

  void orphan() {
    orphaned_ = true;
    if (depth_ == 0) delete this;
  }

  void run(EventId event, const void* payload) {
    Turn turn(*this);
    const std::size_t count = slots_.size();
    for (std::size_t i = 0; i < count && !orphaned_; ++i) {
      Watcher* watcher = slots_[i];
      if (!watcher || (watcher->event != event && !watcher->everyEvent)) continue;
      Ptr<Watcher> keep(watcher);  // a callback may drop its own notifiee
      watcher->callback(event, payload);
    }
  }

  // Around whatever may call back.
  void enter() { ++depth_; }
  void leave() {
    if (--depth_ != 0) return;
    if (orphaned_) {
      delete this;
    } else if (holes_) {
      std::erase(slots_, nullptr);
      holes_ = false;
    }
  }
  bool orphaned() const { return orphaned_; }

 private:
  struct Turn {
    explicit Turn(WatcherList& list) : list(list) { list.enter(); }
    ~Turn() { list.leave(); }
    WatcherList& list;
  };

  std::vector<Watcher*> slots_;
  unsigned depth_ = 0;
  bool holes_ = false;
  bool orphaned_ = false;
};

Entity::~Entity() {
  if (watchers_) watchers_->orphan();
}

void Entity::addWatcher(Watcher* watcher) const {
  if (!watchers_) watchers_ = new WatcherList;
  watchers_->add(watcher);
}

void Entity::removeWatcher(Watcher* watcher) const {
  if (!watchers_) return;
  watchers_->remove(watcher);
  if (watchers_->idle() && watchers_->size() == 0) {
    watchers_->orphan();
    watchers_ = nullptr;
  }
}

std::size_t Entity::watchers() const { return watchers_ ? watchers_->size() : 0; }

Entity::Burst::Burst(WatcherList& list) : list_(list) { list_.enter(); }
Entity::Burst::~Burst() { list_.leave(); }
bool Entity::Burst::orphaned() const { return list_.orphaned(); }

void Entity::notifyWatchers(EventId event, const void* payload) const { watchers_->run(event, payload); }

}  // namespace Mox
