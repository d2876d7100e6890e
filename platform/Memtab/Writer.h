#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "Memtab/Cursor.h"
#include "Memtab/Directory.h"
#include "Memtab/Segment.h"

namespace Memtab {

struct WriterOptions {
  // Entries that fit before the table first grows, roughly; also the size below which it never shrinks.
  std::uint64_t capacity = 64;
  // Changes that a reader may fall behind before it must re-read the table; rounded up to a power of two.
  // 0: a thirty-second of the slots or a little less, within 1024 and 65536, and more as the table grows.
  std::uint32_t ringEntries = 0;
  // Seed of the hash of a table that is started empty. 0: random, which is what keeps hosts from choosing
  // collisions.
  std::uint64_t hashSeed = 0;
};

// How a writer came to its table, for the log.
struct OpenReport {
  enum class Start {
    kRefused,          // no writer: `message` says why
    kCreated,          // there was no table
    kTakenOver,        // an earlier writer's table continues, entries included
    kReplacedDamaged,  // the table found was set aside as `setAside`, and an empty one started
  };
  Start start = Start::kRefused;
  std::string message;   // set if kRefused or kReplacedDamaged
  std::string setAside;  // full file name
  std::uint64_t repaired =
      0;  // entries that an earlier writer left half written: deleted and reported to readers
  std::uint64_t reported = 0;  // changes of an earlier writer that it had not reported any more: reported now
};

enum class Written {
  kUnchanged,
  kChanged,
  kFull,  // no room, and the system gives no memory to grow: growthError() says why; the table is as before
};

// The one writer of a table. Its writes are visible to every reader at once; readers are woken by flush().
// The table stays when the writer goes, whichever way it goes, and the next writer takes it over.
//
// Keys and values are passed as words, zero-padded (see StaticShape); Table.h wraps them in types. Not
// thread-safe. No operation takes time in proportion to the table, except open().
//
// The writer's lock belongs to an open file, so a child process made by fork() without exec holds it as well.
class Writer {
 public:
  // Opens a table for writing: creates it, or takes over what an earlier writer left. Null if another live
  // writer has it, or the system refuses; the report says so. Reads the whole of an existing table.
  static std::unique_ptr<Writer> open(const Directory& directory, std::string_view table, const Shape& shape,
                                      const WriterOptions& options, OpenReport& report);
  // Flushes and gives up the table, which stays.
  ~Writer();
  Writer(const Writer&) = delete;
  Writer& operator=(const Writer&) = delete;

  // Sets an entry. A value equal to the present one changes nothing and is not reported.
  Written put(const std::uint32_t* key, const std::uint32_t* value);
  // Deletes an entry; false if there was none.
  bool del(const std::uint32_t* key);
  // Copies an entry's value; false if there is none.
  bool get(const std::uint32_t* key, std::uint32_t* value) const;
  std::uint64_t size() const { return active_->live(); }
  // Iterates in hash order, as TableView::visit does.
  VisitResult visit(Cursor& cursor, std::size_t maxEntries, const EntryCallback& callback) const {
    const std::shared_ptr<Segment> held = active_;
    return visitSegment(*held, cursor, maxEntries, callback);
  }

  // Wakes the readers if anything changed since the last time: one system call, or none. Meant for the end of
  // a turn of the event loop.
  void flush();

  // Reconciliation: from here on the writer says again what it knows, with put(); then `sweep` deletes what
  // it did not say. Beginning again forgets what was said. A begun reconciliation that is never swept costs a
  // bit a slot.
  void reconcileBegin();
  // Deletes at most `maxEntries` of the entries not put since reconcileBegin(), looking at a bounded number
  // of slots; true if there is more to do. Entries put between two calls stay. Nothing to do unless a
  // reconciliation has begun.
  bool sweep(std::size_t maxEntries);
  bool reconciling() const { return reconciling_; }

  // Moves a growing table along by about `maxSlots` slots, for idle time; every write does the same for a few
  // slots. True if there is more to do.
  bool growStep(std::size_t maxSlots);
  bool growing() const { return growth_ != nullptr; }
  // Why the table could last not grow; empty if it could.
  const std::string& growthError() const { return growthError_; }

  // Removes the table: readers see it go. The writer must not be used afterwards, only destroyed.
  void remove();

  const std::string& file() const { return file_; }
  std::uint64_t head() const { return active_->head(); }
  // Bytes of the segment; while the table grows, of both.
  std::size_t bytes() const;
  const Segment& segment() const { return *active_; }

 private:
  // A table on its way into another segment. Slots below `slot` of the active segment are in `next` as well,
  // and changes to them go to both. Ring positions go to both rings from the time it was ready; those before
  // are copied up to `ringEnd`, and `ring` is the next of them.
  struct Growth {
    std::shared_ptr<Segment> next;
    bool ready = false;  // ring and tags have their memory
    std::uint64_t slot = 0;
    std::uint64_t ring = 0;
    std::uint64_t ringEnd = 0;
    std::uint64_t live = 0;
    std::uint64_t deleted = 0;
    std::vector<std::uint64_t> marks;
  };

  Writer(const Directory& directory, std::string_view table, const Shape& shape,
         const WriterOptions& options);

  static std::uint32_t ringEntriesFor(std::uint64_t capacity);
  bool lock(OpenReport& report);
  bool start(OpenReport& report);
  bool startEmpty(OpenReport& report);
  // Empty if the segment is sound and has been repaired and adopted.
  std::string takeOver(std::shared_ptr<Segment> segment, OpenReport& report);
  bool setAside(OpenReport& report);

  // What every change ends with: reports it, keeps a growing table's other segment in step, and moves growth
  // along.
  void changed(std::uint64_t index, const std::uint32_t* key, std::uint64_t hash);
  void append(const std::uint32_t* key);
  void deleteSlot(std::uint64_t index);
  void mark(std::uint64_t index);
  bool hasRoom() const;

  enum class Moved { kYes, kNoPlace, kNoMemory };
  void growthBegin(std::uint64_t capacity);
  void growthReady();
  void growthAbort(const std::string& why);
  void growthMove(std::size_t units);
  Moved growthMirror(std::uint64_t from, const std::uint32_t* key, std::uint64_t hash);
  void growthStuck(Moved why);
  void growthFinish();
  bool growNow();

  std::string table_;
  Directory directory_;
  Shape shape_;
  WriterOptions options_;
  std::string file_;
  int bell_ = -1;  // open for the writer's life: its lock is the proof that the table has a live writer
  std::shared_ptr<Segment> active_;
  std::unique_ptr<Growth> growth_;
  std::vector<std::shared_ptr<Segment>> releasing_;
  std::string growthError_;
  std::uint32_t growthPause_ = 0;  // attempts to grow that are not made, after one that the system refused
  std::uint64_t rungAt_ = 0;
  bool removed_ = false;

  bool reconciling_ = false;
  std::vector<std::uint64_t> marks_;
  std::uint64_t sweepSlot_ = 0;
};

}  // namespace Memtab
