#include "Statedb/MountGroup.h"

#include <utility>

#include "Statedb/EntityManager.h"

namespace Statedb {

std::optional<MountFlags> MountFlags::parse(std::string_view letters) {
  MountFlags flags;
  for (char letter : letters) {
    switch (letter) {
      case 'r':
        flags.read = true;
        break;
      case 'w':
        flags.write = true;
        break;
      case 'c':
        flags.create = true;
        break;
      case 'S':
        flags.shared = true;
        break;
      default:
        return std::nullopt;
    }
  }
  if (!flags.read && !flags.write) return std::nullopt;
  if ((flags.create || flags.shared) && !flags.write) return std::nullopt;
  return flags;
}

MountGroup::MountGroup(Mox::Ptr<EntityManager> entityManager, Completion completion)
    : entityManager_(std::move(entityManager)), completion_(std::move(completion)) {}

bool MountGroup::mountIs(const std::string& path, const std::string& typeName, std::string_view flags) {
  auto mount = closed_ ? Mox::Failure{path + ": the mount group is closed"}
                       : entityManager_->request(path, typeName, flags);
  if (!mount) {
    messages_.push_back(mount.error());
    return false;
  }
  mounts_.push_back(std::move(*mount));
  return true;
}

void MountGroup::doClose(bool block, const std::string& purpose, double) {
  if (std::exchange(closed_, true)) return;
  purpose_ = purpose;
  if (block) {
    complete();
  } else {
    entityManager_->post([self = Mox::Ptr<MountGroup>(this)] { self->complete(); });
  }
}

void MountGroup::complete() {
  const Mox::Ptr<MountGroup> keep(this);
  // Somebody may have created an entity of another type since the mount was asked for.
  for (const Mount& mount : mounts_) {
    if (const auto fitting = entityManager_->fits(mount.path, mount.typeName); !fitting)
      messages_.push_back(fitting.error());
  }
  if (!purpose_.empty()) {
    for (std::string& message : messages_) message = purpose_ + ": " + message;
  }
  readyIs(true);
  if (const Completion completion = std::exchange(completion_, nullptr)) completion(status());
}

}  // namespace Statedb
