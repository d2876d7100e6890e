#include "host/RunDirectory.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace Host {

namespace {

Mox::Result<> makeDirectory(const std::string& path, mode_t mode) {
  const mode_t mask = umask(0);
  const int made = mkdir(path.c_str(), mode);
  const int number = errno;
  umask(mask);
  struct stat status {};
  if (made == 0) return {};
  if (number != EEXIST) return Mox::Failure{path + ": it cannot be made: " + std::strerror(number), number};
  if (stat(path.c_str(), &status) < 0) return Mox::Failure{path + ": " + std::strerror(errno), errno};
  if (!S_ISDIR(status.st_mode)) return Mox::Failure{path + ": it is not a directory", ENOTDIR};
  return {};
}

}  // namespace

Mox::Result<std::unique_ptr<RunDirectory>> RunDirectory::open(const std::string& path) {
  if (auto made = makeDirectory(path, 0755); !made) return made.failure();
  // `arpsup trace` reads there whose rings are the latest.
  auto lock = LockFile::take(path + "/lock", std::to_string(getpid()), LockFile::AtEnd::stays);
  if (!lock && lock.number() == EWOULDBLOCK) {
    return Mox::Failure{path + ": another agent-host runs there" +
                            (lock.error().empty() ? "" : " (process " + lock.error() + ")") +
                            "; stop it, or give this one another \"runDirectory\"",
                        EWOULDBLOCK};
  }
  if (!lock) return lock.failure();
  std::unique_ptr<RunDirectory> directory(new RunDirectory(path, std::move(*lock)));
  if (auto made = makeDirectory(directory->stateDirectory(), 0700); !made) return made.failure();
  return directory;
}

}  // namespace Host
