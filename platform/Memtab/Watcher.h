#pragma once

#include <deque>
#include <string>
#include <unordered_map>
#include <vector>

#include "Mox/Result.h"

namespace Memtab {

class TableView;

// Notices news about tables: changes (their doorbells), tables that appear, move to another segment, or go.
// One object serves any number of views of a process; it owns one non-blocking inotify descriptor.
//
// Use: put descriptor() into an event loop (edge-triggered will do); when it is readable call
// handleReadable(), which reads it empty, and then take the views with next() and drain their feeds. Views
// begin as if they had news, so that nothing between their creation and the first event is missed.
//
// Must outlive its views. Not thread-safe.
class Watcher {
 public:
  Watcher();
  ~Watcher();
  Watcher(const Watcher&) = delete;
  Watcher& operator=(const Watcher&) = delete;

  // Good while the system lets it watch; otherwise some or all news come only by polling the views.
  const Mox::Result<>& watching() const { return watching_; }
  // The inotify descriptor; -1 if the system gave none.
  int descriptor() const { return inotify_; }

  // Reads all pending events and marks the views that they concern. Never blocks.
  void handleReadable();

  // A view that has news, each once; null if there is none left. Views may be created and destroyed between
  // calls.
  TableView* next();
  // There is news of the view.
  void mark(TableView& view);

 private:
  friend class TableView;
  void add(TableView& view);
  void remove(TableView& view);

  void watchBell(TableView& view);
  void handleName(const std::string& name);
  void handleBell(int watch, bool gone);

  int inotify_;
  int folderWatch_ = -1;
  Mox::Result<> watching_;
  std::unordered_map<TableView*, int> views_;  // with their bell's watch, -1 if there is no bell
  std::deque<TableView*> marked_;
};

}  // namespace Memtab
