#include "Memtab/Watcher.h"

#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include "Memtab/Directory.h"
#include "Memtab/TableView.h"

namespace Memtab {
namespace {

// A renamed or removed segment, and a bell that a writer made.
constexpr std::uint32_t kFolderEvents = IN_CREATE | IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE | IN_ONLYDIR;

std::string folderOf(const std::string& file) { return file.substr(0, file.rfind('/') + 1); }
std::string nameOf(const std::string& file) { return file.substr(file.rfind('/') + 1); }

}  // namespace

Watcher::Watcher() : inotify_(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {
  if (inotify_ >= 0) return;
  const int error = errno;
  watching_ = Mox::Failure{std::string("inotify: cannot watch tables: ") + std::strerror(error), error};
}

Watcher::~Watcher() {
  if (inotify_ >= 0) close(inotify_);
}

void Watcher::add(TableView& view) {
  views_.emplace(&view, -1);
  if (folderWatch_ < 0) {
    const std::string folder = folderOf(view.file());
    folderWatch_ = inotify_add_watch(inotify_, folder.c_str(), kFolderEvents);
    if (const int error = errno; folderWatch_ < 0 && watching_)
      watching_ = Mox::Failure{folder + ": cannot watch: " + std::strerror(error), error};
  }
  watchBell(view);
  mark(view);
}

void Watcher::remove(TableView& view) {
  const auto it = views_.find(&view);
  if (it == views_.end()) return;
  const int watch = it->second;
  views_.erase(it);
  std::erase(marked_, &view);
  // Views of one table share the bell's watch.
  const bool shared =
      std::any_of(views_.begin(), views_.end(), [watch](const auto& other) { return other.second == watch; });
  if (watch >= 0 && !shared) inotify_rm_watch(inotify_, watch);
}

void Watcher::watchBell(TableView& view) {
  views_[&view] = inotify_add_watch(inotify_, Directory::bellFile(view.file()).c_str(), IN_MODIFY);
}

void Watcher::mark(TableView& view) {
  if (std::find(marked_.begin(), marked_.end(), &view) == marked_.end()) marked_.push_back(&view);
}

TableView* Watcher::next() {
  if (marked_.empty()) return nullptr;
  TableView* const view = marked_.front();
  marked_.pop_front();
  return view;
}

void Watcher::handleName(const std::string& name) {
  for (auto& [view, watch] : views_) {
    const std::string segment = nameOf(view->file());
    if (name == segment) {
      view->refresh();
      mark(*view);
    } else if (name == Directory::bellFile(segment)) {
      watchBell(*view);
      mark(*view);
    }
  }
}

void Watcher::handleBell(int watch, bool gone) {
  for (auto& [view, bell] : views_) {
    if (bell != watch) continue;
    mark(*view);
    // There may be another bell under the name already.
    if (gone) watchBell(*view);
  }
}

void Watcher::handleReadable() {
  alignas(inotify_event) std::array<char, 16384> buffer;
  for (;;) {
    const ssize_t size = read(inotify_, buffer.data(), buffer.size());
    if (size < 0 && errno == EINTR) continue;
    if (size <= 0) return;
    for (std::size_t at = 0; at + sizeof(inotify_event) <= static_cast<std::size_t>(size);) {
      const auto* const event = reinterpret_cast<const inotify_event*>(&buffer[at]);
      at += sizeof(inotify_event) + event->len;
      if ((event->mask & IN_Q_OVERFLOW) != 0) {
        for (auto& [view, watch] : views_) {
          watchBell(*view);
          view->refresh();
          mark(*view);
        }
      } else if (event->wd == folderWatch_) {
        if (event->len != 0) handleName(event->name);
      } else {
        handleBell(event->wd, (event->mask & IN_IGNORED) != 0);
      }
    }
  }
}

}  // namespace Memtab
