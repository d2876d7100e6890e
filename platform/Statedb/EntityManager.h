#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "Mox/Entity.h"
#include "Mox/Result.h"
#include "Statedb/EntityType.h"
#include "Statedb/MountGroup.h"
#include "Statedb/Path.h"
#include "Statedb/Persistence.h"
#include "Statedb/Store.h"

namespace Statedb {

// The state tree of a process: one entity a path, whoever created it (an agent locally, a mount, the host),
// and everybody who asks for the path gets that one. Trailing slashes of a path mean nothing.
//
// An entity stays until entityDel, or, when only a run-time mount made it, until its last unmount; who still
// holds a pointer keeps the object but not the path.
class EntityManager final : public Mox::Entity {
 public:
  // Runs a call in a later turn of the event loop.
  using Post = std::function<void(std::function<void()>)>;
  using Report = std::function<void(const std::string& message)>;
  // `types` must outlive this. Without a store nothing is kept beyond the process.
  EntityManager(const TypeRegistry& types, Post post, std::unique_ptr<Store> store = nullptr,
                Report report = {});
  ~EntityManager() override;

  // Null when nobody has the path.
  Mox::Ptr<Mox::Entity> entity(std::string_view path) const;
  // Null also when the entity is of another class. E may be const.
  template <class E>
  Mox::Ptr<E> entityOf(std::string_view path) const {
    return Mox::dynamicPtrCast<E>(entity(path));
  }
  // Null when nobody has the path.
  const EntityType* entityType(std::string_view path) const;
  // Ascending.
  std::vector<std::string> paths() const;

  using Made = Mox::Result<Mox::Ptr<Mox::Entity>>;
  // Finds or creates. Refused when the type is not known, the path is empty or its entity is of another type.
  Made entityIs(const std::string& path, const std::string& typeName);
  // Returns what stood there. A persisted entity goes from the store too.
  Mox::Ptr<Mox::Entity> entityDel(const std::string& path);
  // A path came or went.
  static constexpr Mox::Event<std::string> entityChanged{"entity"};

  Mox::Ptr<MountGroup> mountGroup(MountGroup::Completion completion = {});
  // A mount at run time: at once, and always with an entity, an empty one when nobody has the path yet, also
  // for reading: whoever provides it later finds that one and fills it. Refused as by MountGroup::mountIs.
  // Mounts are counted; unmount undoes one.
  Made mount(const std::string& path, const std::string& typeName, std::string_view flags);
  void unmount(const std::string& path);
  // What groups asked for without creating it and nobody has: the host creates those that no loaded plug-in
  // owns. Each path once, to be written when anybody asked to write it.
  std::vector<Mount> absentMounts() const;

  // From now on the entity of this path is kept in the store: loaded when it is created, every later change
  // written. Loading is done when the call that creates the entity returns. One that is there already is
  // loaded now: what is stored wins, and what the entity holds besides is written. Nothing without a store.
  void persist(const std::string& path);
  // Loads what is kept of such a path before anybody creates its entity, until `mustYield` says so; returns
  // whether there is more. The entity is not in the tree: who creates it finds it loaded, what was left
  // included. Nothing to do for one that is there already.
  bool loadAhead(const std::string& path, const std::string& typeName,
                 const std::function<bool()>& mustYield);
  // What waits to be kept is made durable: see Journal::flush. `flush` is for once an event-loop turn and returns
  // whether there is more.
  bool flush() { return flush(Journal::Extent::turn); }
  void flushAll() { flush(Journal::Extent::everything); }
  // Whether what is kept could be written when it last had to be: see Journal::written.
  Mox::Result<> written() const;

 private:
  friend class MountGroup;
  struct Slot {
    Mox::Ptr<Mox::Entity> entity;
    const EntityType* type = nullptr;
    unsigned mounts = 0;
    bool owned = false;
    std::shared_ptr<Persistence> persistence;
  };
  using Slots = std::map<std::string, Slot, std::less<>>;

  Mox::Result<Mount> request(const std::string& path, const std::string& typeName, std::string_view flags);
  Mox::Result<Mount> checked(const std::string& path, const std::string& typeName,
                             std::string_view flags) const;
  // Whether the path is free, or its entity of this type.
  Mox::Result<> fits(const std::string& path, const std::string& typeName) const;
  void post(std::function<void()> call) { post_(std::move(call)); }
  Mox::Result<Slot*> slotIs(const std::string& path, const std::string& typeName);
  void attach(const std::string& path, Slot& slot);
  void drop(Slots::iterator slot);
  bool flush(Journal::Extent extent);

  const TypeRegistry& types_;
  const Post post_;
  const Report report_;
  const std::unique_ptr<Store> store_;
  Slots slots_;
  Slots ahead_;  // loaded before they are created
  std::set<std::string> persisted_;
  std::vector<Mount> requests_;
};

}  // namespace Statedb
