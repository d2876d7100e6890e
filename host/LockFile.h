#pragma once

#include <memory>
#include <string>

#include "Mox/Result.h"

namespace Host {

// A file that one process at a time holds, with a line in it that tells others who does, or did. The lock
// goes with its holder, however that ends; the file stays, or goes with a holder that ends cleanly.
class LockFile {
 public:
  enum class AtEnd { stays, goes };
  // Refused with the number EWOULDBLOCK, and the holder's line (which may be empty) as the text, while
  // another process has it; otherwise with a text that begins with the file's name.
  static Mox::Result<std::unique_ptr<LockFile>> take(const std::string& file, const std::string& line,
                                                     AtEnd atEnd);
  LockFile(const LockFile&) = delete;
  LockFile& operator=(const LockFile&) = delete;
  ~LockFile();

 private:
  LockFile(std::string file, int descriptor) : file_(std::move(file)), descriptor_(descriptor) {}

  const std::string file_;
  const int descriptor_;
  AtEnd atEnd_ = AtEnd::stays;
};

// Where agent-hosts say which network namespaces they serve: a file each, named by the namespace's inode.
inline constexpr const char* kNamespaceLocks = "/run/arp-suppression-namespaces";

// The network namespace that this process is in, for it alone: two agent-hosts, whatever their run
// directories, would take each other's devices, programs and neighbours, and the first to stop would remove
// them for both. Refused with the other's process id and run directory.
//
// Only root can take it, so that nobody else can keep the agent-host from starting. Null for a process that
// is not root: it has no devices to take.
Mox::Result<std::unique_ptr<LockFile>> lockNetworkNamespace(const std::string& runDirectory);

}  // namespace Host
