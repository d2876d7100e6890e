#pragma once

#include <cstddef>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "Memtab/Entity.h"
#include "Mox/Result.h"
#include "Orb/FileDescriptor.h"
#include "Orb/TaskScheduler.h"

namespace Memtab {

class EntityManager;

// How a table is mounted.
struct MountDescriptor {
  enum class Kind : int { writer = 0, reader = 1 };
  struct CollectionSize {
    std::string name;
    std::size_t size;  // entries to make room for at the beginning
  };
  Kind kind = Kind::reader;
  std::vector<CollectionSize> collections;
  // Writers: readers of other processes are told of changes at the end of the turn, or after so many seconds.
  double doorbellDelay = 0;
  // Readers: hear of changes before all others.
  bool urgent = false;

  static MountDescriptor reader() { return {}; }
  static MountDescriptor urgentReader() { return {Kind::reader, {}, 0, true}; }
  static MountDescriptor writer(std::vector<CollectionSize> collections = {}, double doorbellDelay = 0) {
    return {Kind::writer, std::move(collections), doorbellDelay, false};
  }
};

using Mounted = Mox::Result<Mox::Ptr<Memtab::Entity>>;

// Mounts that belong together. Ready while every table of the closed group is attached, that is, exists; a
// writer that restarts does not end that, a table that is removed does. A group with a refused mount is never
// ready, nor is one with a table that its writer in this process holds back.
class MountGroup final : public Mox::Entity {
 public:
  explicit MountGroup(EntityManager& manager) : manager_(&manager) {}
  Mounted mountIs(const std::string& path, const std::string& typeName, const MountDescriptor& descriptor);
  void close();

  MOX_ATTRIBUTE(bool, ready, false)

 private:
  friend class EntityManager;
  void update();

  EntityManager* manager_;  // null once the manager has gone
  std::vector<Mox::Ptr<Memtab::Entity>> mounted_;
  std::vector<std::string> paths_;
  bool closed_ = false;
};

// The shared-memory tables of a process: one entity a path. Changes that writers make, in this process or
// another, reach the watchers of a reader's entity from the event loop, in slices.
class EntityManager final : public Mox::Referenced {
 public:
  using Report = std::function<void(const std::string& message)>;
  EntityManager(Orb::EventLoop& loop, const Mox::Ptr<Orb::TaskScheduler>& scheduler, Directory directory,
                Report report = {});
  ~EntityManager() override;

  template <class E>
  void registerType(const std::string& typeName) {
    makers_[typeName] = [] { return Mox::Ptr<Memtab::Entity>(Mox::make<E>()); };
  }

  // Finds or makes the entity and gives it what the descriptor asks for. Refused when the type is not known,
  // the path has another type, or the table cannot be written: another live writer has it (EBUSY), or there
  // is no memory. A table that was found damaged, and everything else that stood in the way and was replaced,
  // is reported.
  Mounted mount(const std::string& path, const std::string& typeName, const MountDescriptor& descriptor);
  // Who hears that a table which this process writes has no memory for an entry, once, with the reason, and
  // with a good result when one has gone in again. Without a handler both are reported.
  using RoomHandler = std::function<void(const std::string& path, const Mox::Result<>& room)>;
  void roomHandlerIs(RoomHandler handler) { roomHandler_ = std::move(handler); }
  // Likewise, that the system refuses this process a table that it reads, which is tried again every second.
  void refusedHandlerIs(RoomHandler handler) { refusedHandler_ = std::move(handler); }

  // While the path is held back no group that mounts it is ready: its writer has begun and does not know yet
  // what belongs into the table. The path need not be mounted.
  void heldBackIs(const std::string& path, bool heldBack);
  bool heldBack(const std::string& path) const { return heldBack_.contains(path); }

  // Null when nobody mounted the path.
  Mox::Ptr<Memtab::Entity> entity(std::string_view path) const;
  template <class E>
  Mox::Ptr<E> entityOf(std::string_view path) const {
    return Mox::dynamicPtrCast<E>(entity(path));
  }
  bool writable(std::string_view path) const;
  std::vector<std::string> paths() const;
  const std::string& typeName(std::string_view path) const;

  Mox::Ptr<MountGroup> mountGroup();

  const Directory& directory() const { return directory_; }

 private:
  friend class MountGroup;
  struct Slot {
    Mox::Ptr<Memtab::Entity> entity;
    std::string typeName;
    double doorbellDelay = 0;
    bool writable = false;
    std::unique_ptr<Orb::Timer> doorbell;
  };
  using Slots = std::map<std::string, Slot, std::less<>>;
  struct News {
    std::deque<TableBase*> tables;  // in the order in which they are drained
    Orb::Task task;
  };

  void handleReadable();
  void tryRefused();
  void updateGroups();
  void drain(News& news);
  void endOfTurn();
  static void flush(Slot& slot);
  std::string normal(std::string_view path) const;

  Orb::EventLoop& loop_;
  Directory directory_;
  Report report_;
  RoomHandler roomHandler_, refusedHandler_;
  std::map<std::string, std::function<Mox::Ptr<Memtab::Entity>()>> makers_;
  Watcher watcher_;
  Slots slots_;
  std::map<TableView*, TableBase*> tables_;
  std::set<const TableBase*> urgent_;
  std::set<const TableView*> refused_;  // as it was last told
  Orb::Timer retry_;
  std::vector<Mox::Ptr<MountGroup>> groups_;
  std::set<std::string> heldBack_;
  Mox::Ptr<Orb::FileDescriptor> descriptor_;
  std::unique_ptr<class DescriptorWatch> descriptorWatch_;
  News news_;
  News urgentNews_;
  Orb::EventLoop::HookHandle hook_;
};

}  // namespace Memtab

// The shared-memory service under the name that agents know it by.
namespace MoxSharedMem {
using MountGroup = Memtab::MountGroup;
}
