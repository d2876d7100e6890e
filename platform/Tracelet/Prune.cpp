#include "Tracelet/Prune.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <string_view>
#include <utility>
#include <vector>

namespace Tracelet {

namespace {

bool isDigits(std::string_view text) {
  return !text.empty() && text.find_first_not_of("0123456789") == std::string_view::npos;
}

// Whether some process holds the lock that a ring takes on its file.
bool inUse(int directory, const char* name) {
  const int file = openat(directory, name, O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
  if (file < 0) return false;
  const bool locked = flock(file, LOCK_SH | LOCK_NB) != 0;
  ::close(file);
  return locked;
}

}  // namespace

void pruneFiles(const std::string& path, int keep) {
  const std::size_t slash = path.rfind('/');
  const std::string folder = slash == std::string::npos ? "." : path.substr(0, slash + 1);
  const std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
  const std::size_t id = name.rfind("%d");
  if (id == std::string::npos) return;
  const std::string before = name.substr(0, id);
  const std::string after = name.substr(id + 2);

  DIR* listing = opendir(folder.c_str());
  if (!listing) return;
  const int directory = dirfd(listing);
  std::vector<std::pair<std::int64_t, std::string>> files;
  while (const dirent* entry = readdir(listing)) {
    const std::string file = entry->d_name;
    if (file.size() <= before.size() + after.size() || !file.starts_with(before) || !file.ends_with(after) ||
        !isDigits(std::string_view(file).substr(before.size(), file.size() - before.size() - after.size()))) {
      continue;
    }
    struct stat status {};
    if (fstatat(directory, file.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISREG(status.st_mode))
      continue;
    files.emplace_back(std::int64_t{status.st_mtim.tv_sec} * 1'000'000'000 + status.st_mtim.tv_nsec, file);
  }
  std::sort(files.begin(), files.end());
  const auto kept = static_cast<std::size_t>(keep);
  for (std::size_t i = 0; i + kept < files.size(); ++i) {
    const char* file = files[i].second.c_str();
    if (!inUse(directory, file)) unlinkat(directory, file, 0);
  }
  closedir(listing);
}

}  // namespace Tracelet
