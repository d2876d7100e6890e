#include "host/RunDirectory.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>

namespace Host {

namespace {

std::string makeDirectory(const std::string& path, mode_t mode) {
  const mode_t mask = umask(0);
  const int made = mkdir(path.c_str(), mode);
  const int error = errno;
  umask(mask);
  struct stat status {};
  if (made == 0) return {};
  if (error != EEXIST) return path + ": it cannot be made: " + std::strerror(error);
  if (stat(path.c_str(), &status) < 0) return path + ": " + std::strerror(errno);
  return S_ISDIR(status.st_mode) ? std::string() : path + ": it is not a directory";
}

}  // namespace

std::unique_ptr<RunDirectory> RunDirectory::open(const std::string& path, std::string& error) {
  error = makeDirectory(path, 0755);
  if (!error.empty()) return nullptr;
  const std::string file = path + "/lock";
  const int lock = ::open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0644);
  if (lock < 0) {
    error = file + ": " + std::strerror(errno);
    return nullptr;
  }
  if (flock(lock, LOCK_EX | LOCK_NB) < 0) {
    std::array<char, 16> pid{};
    const bool known = errno == EWOULDBLOCK && pread(lock, pid.data(), pid.size() - 1, 0) > 0;
    error = path + ": another agent-host runs there" +
            (known ? " (process " + std::string(pid.data()) + ")" : std::string()) +
            "; stop it, or give this one another \"runDirectory\"";
    close(lock);
    return nullptr;
  }
  std::unique_ptr<RunDirectory> directory(new RunDirectory(path, lock));
  const std::string pid = std::to_string(getpid());
  // The process id is for the message above only.
  if (ftruncate(lock, 0) < 0 || pwrite(lock, pid.data(), pid.size(), 0) < 0) {
    error = file + ": " + std::strerror(errno);
    return nullptr;
  }
  error = makeDirectory(directory->stateDirectory(), 0700);
  if (!error.empty()) return nullptr;
  return directory;
}

RunDirectory::~RunDirectory() { close(lock_); }

}  // namespace Host
