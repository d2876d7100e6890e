#include "host/LockFile.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>

namespace Host {

namespace {

constexpr const char* kOwnNamespace = "/proc/self/ns/net";

Mox::Failure failureOf(const std::string& file) {
  const int number = errno;
  return {file + ": " + std::strerror(number), number};
}

// Its holder may have removed it between our opening and locking it.
bool isStillNamed(int descriptor, const std::string& file) {
  struct stat open {};
  struct stat named {};
  return fstat(descriptor, &open) == 0 && lstat(file.c_str(), &named) == 0 && open.st_ino == named.st_ino &&
         open.st_dev == named.st_dev;
}

}  // namespace

Mox::Result<std::unique_ptr<LockFile>> LockFile::take(const std::string& file, const std::string& line,
                                                      AtEnd atEnd) {
  while (true) {
    const int descriptor = open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0644);
    if (descriptor < 0) return failureOf(file);
    std::unique_ptr<LockFile> lock(new LockFile(file, descriptor));
    if (flock(descriptor, LOCK_EX | LOCK_NB) < 0) {
      Mox::Failure failure = failureOf(file);
      if (failure.number == EWOULDBLOCK) {
        std::array<char, 4096> bytes{};
        const ssize_t got = pread(descriptor, bytes.data(), bytes.size(), 0);
        failure.text.assign(bytes.data(), got < 0 ? 0 : static_cast<std::size_t>(got));
      }
      return failure;
    }
    if (!isStillNamed(descriptor, file)) continue;
    if (ftruncate(descriptor, 0) < 0 || pwrite(descriptor, line.data(), line.size(), 0) < 0)
      return failureOf(file);
    lock->atEnd_ = atEnd;
    return lock;
  }
}

LockFile::~LockFile() {
  // Before the lock goes: who waits for this file sees then that it has no name any more.
  if (atEnd_ == AtEnd::goes) unlink(file_.c_str());
  close(descriptor_);
}

Mox::Result<std::unique_ptr<LockFile>> lockNetworkNamespace(const std::string& runDirectory) {
  if (geteuid() != 0) return std::unique_ptr<LockFile>();
  struct stat status {};
  if (stat(kOwnNamespace, &status) < 0) return failureOf(kOwnNamespace);
  const std::string file = std::string(kNamespaceLocks) + "/" + std::to_string(status.st_ino);
  if (mkdir(kNamespaceLocks, 0700) < 0 && errno != EEXIST) return failureOf(kNamespaceLocks);
  if (lstat(kNamespaceLocks, &status) < 0) return failureOf(kNamespaceLocks);
  if (!S_ISDIR(status.st_mode) || status.st_uid != 0 || (status.st_mode & 022) != 0)
    return Mox::Failure{std::string(kNamespaceLocks) + ": it is not a directory of root alone; remove it"};
  // "PID RUNDIR"
  auto lock = LockFile::take(file, std::to_string(getpid()) + " " + runDirectory, LockFile::AtEnd::goes);
  if (lock || lock.number() != EWOULDBLOCK) return lock;
  const std::string& holder = lock.error();
  const std::size_t blank = holder.find(' ');
  return Mox::Failure{"another agent-host serves this network namespace" +
                          (blank == std::string::npos ? std::string()
                                                      : ": process " + holder.substr(0, blank) +
                                                            ", run directory " + holder.substr(blank + 1)) +
                          "; stop it, or start this one in a namespace of its own",
                      EWOULDBLOCK};
}

}  // namespace Host
