#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "Memtab/TableView.h"

namespace Memtab {

// What has changed in a table since this reader last asked, key by key. Attaching replays nothing: the feed
// begins with the table as it is. From there on every key whose entry was made, changed or deleted is
// reported, in the order of the changes, as often as it changed; the callback looks up what the entry is now
// (absent: deleted). Whenever the reader looked an entry up, then or later: if it changes after that, it is
// reported after that.
//
// A feed that falls behind the change ring re-reads the table, a slice at a time, and then reports at least
// every key that has changed since, deleted ones included, in no particular order; it may report keys that
// have not changed, and leaves out only keys that came and went in segments that this reader never had. The
// same holds across any number of moves of the table to other segments. If the table is replaced by one that
// was started empty, or goes, or appears, every key of the old and every key of the new is reported.
//
// How a re-read finds what changed: slots carry the ring position of their last change, so that all slots
// with a position not yet reported are reported, deleted ones included. Deletions that left no trace because
// the table moved are found by looking up the keys of the segments that the view has left, which the feed
// keeps mapped until all changes before the move have been reported; a feed that nobody drains keeps them
// all.
class ChangeFeed {
 public:
  // Key words, valid during the call. The callback may look up in the view; it must not destroy view or feed.
  // If it throws, the key counts as reported.
  using KeyCallback = std::function<void(const std::uint32_t* key)>;

  // The view must outlive the feed; it can have one feed at a time.
  explicit ChangeFeed(TableView& view);
  ~ChangeFeed();
  ChangeFeed(const ChangeFeed&) = delete;
  ChangeFeed& operator=(const ChangeFeed&) = delete;

  // Reports up to `maxKeys` (at least one) keys; true if there may be more now. Bounded in time also if there
  // is nothing to report.
  bool drain(std::size_t maxKeys, const KeyCallback& callback);

  // Whether every change until now has been reported.
  bool isCurrent();

  // Times that the feed has fallen behind and re-read the table.
  std::uint64_t overruns() const { return overruns_; }

 private:
  // A re-read in progress: first the slots of the `old` segments, from the last on, then those of `now`.
  struct Reread {
    std::vector<std::shared_ptr<Segment>> old;
    std::shared_ptr<Segment> now;
    std::uint64_t from = 0;  // positions [from, to) have not been reported
    std::uint64_t to = 0;
    bool everything = false;  // old and now are not the same table
    std::uint64_t slot = 0;
  };

  void follow();
  bool rereadStep(std::size_t& room, const KeyCallback& callback);
  bool isNews(const std::uint32_t* slot, std::uint32_t state) const;
  void reread(bool everything);

  TableView& view_;
  // The segment whose ring is being read, and the position up to which all changes have been reported.
  std::shared_ptr<Segment> segment_;
  std::uint64_t position_ = 0;
  // The segments that the table was in since `position_`, as far as this reader has had them.
  std::vector<std::shared_ptr<Segment>> before_;
  std::unique_ptr<Reread> reread_;
  std::uint64_t overruns_ = 0;
};

}  // namespace Memtab
