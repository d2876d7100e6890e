#include "Memtab/Directory.h"

#include <dirent.h>
#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <stdexcept>

#include "Memtab/Layout.h"
#include "Mox/Hash.h"

namespace Memtab {
namespace {

constexpr std::string_view kFolder = "/dev/shm/";  // where shm_open() of the C library puts its files
constexpr std::string_view kHex = "0123456789abcdef";
constexpr std::size_t kLongestPrefix = 80;
constexpr std::size_t kLongestSuffix = sizeof(".damaged-4194304-18446744073709551615");

std::string escaped(std::string_view text) {
  std::string out;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                       c == '.' || c == '-' || c == '_';
    if (plain) {
      out += c;
    } else if (c == '/') {
      out += '+';
    } else {
      out += '%';
      out += kHex[byte >> 4];
      out += kHex[byte & 15];
    }
  }
  return out;
}

std::string unescaped(std::string_view name) {
  std::string out;
  for (std::size_t i = 0; i < name.size(); ++i) {
    if (name[i] == '+') {
      out += '/';
    } else if (name[i] == '%' && i + 2 < name.size()) {
      const auto high = kHex.find(name[i + 1]), low = kHex.find(name[i + 2]);
      out += static_cast<char>((high & 15) << 4 | (low & 15));
      i += 2;
    } else {
      out += name[i];
    }
  }
  return out;
}

std::string_view trimmed(std::string_view path) {
  while (path.starts_with('/')) path.remove_prefix(1);
  while (path.ends_with('/')) path.remove_suffix(1);
  return path;
}

constexpr std::string_view kDamaged = ".damaged-";

bool isDamaged(std::string_view name) { return name.find(kDamaged) != std::string_view::npos; }
bool isSideFile(std::string_view name) {
  return name.ends_with(".bell") || name.ends_with(".next") || isDamaged(name);
}

// What follows `start` in the names of the files that begin with it, sorted.
std::vector<std::string> restsOf(std::string_view start) {
  std::vector<std::string> out;
  const std::unique_ptr<DIR, int (*)(DIR*)> dir(opendir(kFolder.data()), &closedir);
  if (!dir) return out;
  while (const dirent* entry = readdir(dir.get())) {
    const std::string_view name = entry->d_name;
    if (name.starts_with(start)) out.emplace_back(name.substr(start.size()));
  }
  std::sort(out.begin(), out.end());
  return out;
}

}  // namespace

Directory::Directory(std::string_view prefix) : prefix_(escaped(prefix)) {
  if (prefix.empty()) throw std::invalid_argument("Memtab::Directory: the prefix is empty");
  if (prefix_.size() > kLongestPrefix) {
    std::uint64_t hash = prefix_.size();
    for (const char c : prefix_)
      hash = Mox::foldMultiply(hash ^ static_cast<unsigned char>(c), 0xa0761d6478bd642fULL);
    prefix_.resize(kLongestPrefix - 17);
    prefix_ += '-';
    for (int shift = 60; shift >= 0; shift -= 4) prefix_ += kHex[(hash >> shift) & 15];
  }
}

Directory Directory::forRunDir(std::string_view runDir) {
  return Directory("arp-suppression-" + std::string(trimmed(runDir)));
}

std::string Directory::segmentFile(std::string_view table) const {
  const std::string name = escaped(trimmed(table));
  if (name.empty() || isSideFile(name)) {
    throw std::invalid_argument("Memtab::Directory: '" + std::string(table) +
                                "' cannot name a table (empty, or ends like a table's side file)");
  }
  const std::string file = prefix_ + ':' + name;
  if (file.size() + kLongestSuffix > NAME_MAX) {
    throw std::invalid_argument("Memtab::Directory: '" + std::string(table) +
                                "' is too long for a table's name");
  }
  return std::string(kFolder) + file;
}

std::vector<std::string> Directory::files() const { return restsOf(prefix_ + ':'); }

std::vector<std::string> Directory::tables() const {
  std::vector<std::string> out;
  for (const auto& name : files()) {
    if (!isSideFile(name)) out.push_back(unescaped(name));
  }
  std::sort(out.begin(), out.end());
  return out;
}

std::vector<std::string> Directory::damaged() const {
  std::vector<std::string> out;
  for (const auto& name : files()) {
    if (isDamaged(name)) out.push_back(std::string(kFolder) + prefix_ + ':' + name);
  }
  return out;
}

void Directory::remove(std::string_view table) const {
  const std::string file = segmentFile(table);
  retireSegmentFile(file);
  unlink(file.c_str());
  unlink(nextFile(file).c_str());
  unlink(bellFile(file).c_str());
}

void Directory::removeAll() const {
  for (const auto& table : tables()) remove(table);
  // What was set aside may be a folder.
  for (const auto& name : files()) ::remove((std::string(kFolder) + prefix_ + ':' + name).c_str());
}

void retireSegmentFile(const std::string& file) {
  const int fd = open(file.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
  if (fd < 0) return;
  struct stat status {};
  if (fstat(fd, &status) == 0 && S_ISREG(status.st_mode) &&
      static_cast<std::uint64_t>(status.st_size) >= sizeof(Header)) {
    const std::uint32_t retired = 1;
    // A file that refuses the write is one that no reader of ours could have mapped.
    [[maybe_unused]] const ssize_t written = pwrite(fd, &retired, sizeof(retired), offsetof(Header, retired));
  }
  close(fd);
}

Mox::Result<std::string> setAside(const std::string& file) {
  const std::string start = file + std::string(kDamaged);
  for (const std::string& before : restsOf(std::string_view(start).substr(kFolder.size())))
    ::remove((start + before).c_str());  // stays if it is a folder with something in it
  std::string aside =
      start + std::to_string(getpid()) + '-' + std::to_string(static_cast<std::uint64_t>(time(nullptr)));
  if (rename(file.c_str(), aside.c_str()) == 0) return aside;
  const int error = errno;
  return Mox::Failure{file + ": cannot be set aside as " + aside + ": " + std::strerror(error), error};
}

}  // namespace Memtab
