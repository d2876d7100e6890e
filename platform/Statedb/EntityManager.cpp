#include "Statedb/EntityManager.h"

#include <algorithm>

namespace Statedb {

EntityManager::EntityManager(const TypeRegistry& types, Post post, std::unique_ptr<Store> store,
                             Report report)
    : types_(types),
      post_(std::move(post)),
      report_(report ? std::move(report) : [](const std::string&) {}),
      store_(std::move(store)) {
  if (!store_) return;
  store_->watchIs([this](const std::string& path, const std::string& key,
                         const std::optional<std::string>& value) {
    const auto slot = slots_.find(normalPath(path));
    if (slot == slots_.end()) return;
    const std::shared_ptr<Persistence> keep = slot->second.persistence;  // a watcher may delete the entity
    if (keep) keep->handleOutsideChange(key, value);
  });
}

EntityManager::~EntityManager() {
  if (store_) store_->watchIs({});
}

Mox::Ptr<Mox::Entity> EntityManager::entity(std::string_view path) const {
  const auto slot = slots_.find(normalPath(path));
  return slot == slots_.end() ? nullptr : slot->second.entity;
}

const EntityType* EntityManager::entityType(std::string_view path) const {
  const auto slot = slots_.find(normalPath(path));
  return slot == slots_.end() ? nullptr : slot->second.type;
}

std::vector<std::string> EntityManager::paths() const {
  std::vector<std::string> paths;
  paths.reserve(slots_.size());
  for (const auto& [path, slot] : slots_) paths.push_back(path);
  return paths;
}

Mox::Result<> EntityManager::fits(const std::string& path, const std::string& typeName) const {
  const EntityType* type = entityType(path);
  if (!type || type->name == typeName) return {};
  return Mox::Failure{path + ": the entity there is a " + type->name + ", not a " + typeName};
}

Mox::Result<EntityManager::Slot*> EntityManager::slotIs(const std::string& givenPath,
                                                        const std::string& typeName) {
  const std::string path(normalPath(givenPath));
  const EntityType* type = types_.find(typeName);
  if (path.empty()) return Mox::Failure{"an entity needs a path"};
  if (!type) return Mox::Failure{path + ": the type " + typeName + " is not known"};
  if (const auto fitting = fits(path, typeName); !fitting) return fitting.failure();
  const auto found = slots_.find(path);
  if (found != slots_.end()) return &found->second;
  auto ahead = ahead_.extract(path);
  Slot& slot = slots_[path];
  if (ahead && ahead.mapped().type == type) {
    slot = ahead.mapped();
  } else {
    ahead = {};
    slot.entity = type->make();
    slot.type = type;
  }
  attach(path, slot);
  return &slot;
}

void EntityManager::attach(const std::string& path, Slot& slot) {
  if (!store_ || !persisted_.contains(path)) return;
  if (!slot.persistence)
    slot.persistence = std::make_shared<Persistence>(slot.entity, *slot.type, path, *store_, report_);
  slot.persistence->load([] { return false; });
}

bool EntityManager::loadAhead(const std::string& givenPath, const std::string& typeName,
                              const std::function<bool()>& mustYield) {
  const std::string path(normalPath(givenPath));
  const EntityType* type = types_.find(typeName);
  if (!store_ || !type || !persisted_.contains(path) || slots_.contains(path)) return false;
  Slot& slot = ahead_[path];
  if (!slot.persistence) {
    slot.entity = type->make();
    slot.type = type;
    slot.persistence = std::make_shared<Persistence>(slot.entity, *type, path, *store_, report_);
  }
  return slot.persistence->load(mustYield);
}

EntityManager::Made EntityManager::entityIs(const std::string& path, const std::string& typeName) {
  const bool isNew = !entity(path);
  const auto slot = slotIs(path, typeName);
  if (!slot) return slot.failure();
  (*slot)->owned = true;
  Mox::Ptr<Mox::Entity> entity = (*slot)->entity;
  if (isNew) notify(entityChanged, std::string(normalPath(path)));
  return entity;
}

Mox::Ptr<Mox::Entity> EntityManager::entityDel(const std::string& path) {
  const auto slot = slots_.find(normalPath(path));
  if (slot == slots_.end()) return {};
  Mox::Ptr<Mox::Entity> entity = slot->second.entity;
  if (slot->second.persistence) {
    slot->second.persistence->stop();
    store_->remove(slot->first);
  }
  drop(slot);
  return entity;
}

void EntityManager::drop(Slots::iterator slot) {
  const std::string path = slot->first;
  const auto gone = slots_.extract(slot);  // its entity goes after the notification
  notify(entityChanged, path);
}

Mox::Result<Mount> EntityManager::checked(const std::string& path, const std::string& typeName,
                                          std::string_view letters) const {
  const std::optional<MountFlags> flags = MountFlags::parse(letters);
  std::string normal(normalPath(path));
  if (normal.empty()) return Mox::Failure{"a mount needs a path"};
  if (!flags) {
    return Mox::Failure{normal + ": \"" + std::string(letters) +
                        R"(" are no mount flags; allowed are "r" and "w", and with "w" also "c" and "S")"};
  }
  if (!types_.find(typeName)) return Mox::Failure{normal + ": the type " + typeName + " is not known"};
  if (const auto fitting = fits(normal, typeName); !fitting) return fitting.failure();
  return Mount{std::move(normal), typeName, *flags};
}

Mox::Result<Mount> EntityManager::request(const std::string& path, const std::string& typeName,
                                          std::string_view flags) {
  auto mount = checked(path, typeName, flags);
  if (!mount) return mount;
  if (mount->flags.create) {
    if (const auto made = entityIs(mount->path, typeName); !made) return made.failure();
  } else {
    requests_.push_back(*mount);
  }
  return mount;
}

std::vector<Mount> EntityManager::absentMounts() const {
  std::vector<Mount> absent;
  for (const Mount& mount : requests_) {
    const auto listed =
        std::find_if(absent.begin(), absent.end(), [&](const Mount& m) { return m.path == mount.path; });
    if (listed != absent.end()) {
      listed->flags.write = listed->flags.write || mount.flags.write;
    } else if (!entity(mount.path)) {
      absent.push_back(mount);
    }
  }
  return absent;
}

Mox::Ptr<MountGroup> EntityManager::mountGroup(MountGroup::Completion completion) {
  return Mox::make<MountGroup>(Mox::Ptr<EntityManager>(this), std::move(completion));
}

EntityManager::Made EntityManager::mount(const std::string& path, const std::string& typeName,
                                         std::string_view flags) {
  const auto mount = checked(path, typeName, flags);
  if (!mount) return mount.failure();
  const bool isNew = !entity(mount->path);
  const auto slot = slotIs(mount->path, typeName);
  if (!slot) return slot.failure();
  ++(*slot)->mounts;
  (*slot)->owned = (*slot)->owned || mount->flags.create;
  Mox::Ptr<Mox::Entity> entity = (*slot)->entity;
  if (isNew) notify(entityChanged, mount->path);
  return entity;
}

void EntityManager::unmount(const std::string& path) {
  const auto slot = slots_.find(normalPath(path));
  if (slot == slots_.end() || slot->second.mounts == 0) return;
  if (--slot->second.mounts == 0 && !slot->second.owned) drop(slot);
}

bool EntityManager::flush(Journal::Extent extent) {
  bool more = false;
  for (const auto& [path, slot] : slots_)
    if (slot.persistence && slot.persistence->flush(extent)) more = true;
  return more;
}

Mox::Result<> EntityManager::written() const {
  for (const auto& [path, slot] : slots_) {
    if (!slot.persistence) continue;
    if (auto written = slot.persistence->written(); !written) return written;
  }
  return {};
}

void EntityManager::persist(const std::string& givenPath) {
  const std::string path(normalPath(givenPath));
  persisted_.insert(path);
  const auto slot = slots_.find(path);
  if (slot == slots_.end() || !store_ || slot->second.persistence) return;
  attach(path, slot->second);
  slot->second.persistence->writeAll();
}

}  // namespace Statedb
