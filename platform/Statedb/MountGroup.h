#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Mox/Attribute.h"

namespace Statedb {

class EntityManager;

// failed: a mount was refused, or its path has an entity of another type; the group's messages say which.
enum class MountStatus : int { complete, failed };

// What a mount asks for, as letters: 'r' reads, 'w' writes, 'c' creates the entity when nobody has it, 'S'
// shares it with its other writers: it belongs to the service that creates it, the mounter writes its own
// part. 'c' and 'S' go with 'w'.
struct MountFlags {
  bool read = false;
  bool write = false;
  bool create = false;
  bool shared = false;
  // Nothing for anything but these letters, or for none that reads or writes.
  static std::optional<MountFlags> parse(std::string_view letters);
};

struct Mount {
  std::string path;
  std::string typeName;
  MountFlags flags;
};

// The mounts that an agent asks for at start. Without 'c' a path that nobody has stays absent, whether it is
// read or written, and that is no failure: EntityManager::entity returns null for it until somebody creates
// it.
//
// After doClose the group completes once, from a later turn of the event loop, when every mount that can be
// there is: `ready` turns true, then the completion callback runs.
class MountGroup final : public Mox::Entity {
 public:
  using Completion = std::function<void(MountStatus status)>;
  MountGroup(Mox::Ptr<EntityManager> entityManager, Completion completion);

  // Returns whether the mount is accepted. Refused, with a message: flags or a type that are not known, a
  // path whose entity is of another type, a group that is closed.
  bool mountIs(const std::string& path, const std::string& typeName, std::string_view flags);

  // With `block` the group completes before this returns; everything mounted is in this process, so that
  // there is nothing to wait for, and `timeoutSeconds` (0: none), which bounds the wait, never passes.
  // `purpose` names the group in messages.
  void doClose(bool block = false, const std::string& purpose = "", double timeoutSeconds = 0.0);

  // Whoever the completion callback refers to goes away: it will not be called.
  void cancel() { completion_ = nullptr; }

  MountStatus status() const { return messages_.empty() ? MountStatus::complete : MountStatus::failed; }
  const std::vector<std::string>& messages() const { return messages_; }
  const std::vector<Mount>& mounts() const { return mounts_; }

  MOX_ATTRIBUTE(bool, ready, false)

 private:
  void complete();

  Mox::Ptr<EntityManager> entityManager_;
  Completion completion_;
  std::vector<Mount> mounts_;
  std::vector<std::string> messages_;
  std::string purpose_;
  bool closed_ = false;
};

}  // namespace Statedb
