#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "Memtab/Cursor.h"
#include "Memtab/Directory.h"
#include "Memtab/Segment.h"
#include "Mox/Result.h"

namespace Memtab {

struct WriterOptions {
  // Entries that fit before the table first grows, roughly; also the size below which it never shrinks.
  std::uint64_t capacity = 64;
  // Changes that a reader may fall behind before it must re-read the table; rounded up to a power of two.
  // 0: a thirty-second of the slots or a little less, within 1024 and 65536, and more as the table grows.
  std::uint32_t ringEntries = 0;
  // Seed of the hash of a table that is started empty. 0: random, so that hosts cannot choose collisions.
  std::uint64_t hashSeed = 0;
};

// How a writer came to its table, for the log.
struct OpenReport {
  enum class Start {
    kCreated,          // there was no table
    kTakenOver,        // an earlier writer's table continues, entries included
    kReplacedDamaged,  // the table found was set aside as `setAside`, and an empty one started
  };
  Start start = Start::kCreated;
  std::string replaced;  // what was damaged or foreign and has been replaced; otherwise empty
  std::string setAside;  // full file name
  // Entries whose value an earlier writer left half written: they are deleted, and readers are told.
  std::uint64_t repaired = 0;
  // Changes that an earlier writer made and had not told readers of when it died: they are told now.
  std::uint64_t reported = 0;
};

enum class Written {
  kUnchanged,
  kChanged,
  kFull,  // no room, and the system gives no memory to grow: grown() says why; the table is as before
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
  // Opens a table for writing: creates it, or takes over what an earlier writer left. What is no table of
  // this shape, or belongs to another user than this process's or root, is set aside under another name, and
  // of those the latest is kept. Refused when the system refuses, or, with EBUSY, when another live writer
  // has the table. Reads the whole of an existing table.
  static Mox::Result<std::unique_ptr<Writer>> open(const Directory& directory, std::string_view table,
                                                   const Shape& shape, const WriterOptions& options);
  // Flushes and gives up the table, which stays.
  ~Writer();
  Writer(const Writer&) = delete;
  Writer& operator=(const Writer&) = delete;

  const OpenReport& openReport() const { return report_; }

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

  // Wakes the readers if anything changed since the last call: one system call, or none. Meant for the end of
  // a turn of the event loop.
  void flush();

  // Reconciliation, for a writer that took over a table and finds out anew what belongs into it: it begins,
  // puts every entry that it knows of, and then calls `sweep` until all entries that it has not put are
  // deleted. Beginning again forgets what was put. Until it is swept, a reconciliation costs a bit a slot.
  void reconcileBegin();
  // Deletes at most `maxEntries` of the entries not put since reconcileBegin(), looking at a bounded number
  // of slots; true if there is more to do. Entries put between two calls stay. Nothing to do unless a
  // reconciliation has begun.
  bool sweep(std::size_t maxEntries);
  bool reconciling() const { return reconciling_; }

  // Copies about `maxSlots` slots of a growing table into its next segment; true if there is more to do.
  // Every write does this for a few slots, so that nobody has to call it.
  bool growStep(std::size_t maxSlots);
  bool growing() const { return growth_ != nullptr; }
  // Whether the table could grow when it last had to, or why not.
  const Mox::Result<>& grown() const { return grown_; }

  // Removes the table: readers see it go. The writer must not be used afterwards, only destroyed.
  void remove();

  const std::string& file() const { return file_; }
  std::uint64_t head() const { return active_->head(); }
  // Bytes of the segment; while the table grows, of both.
  std::size_t bytes() const;
  const Segment& segment() const { return *active_; }

 private:
  // A growing table is copied into another segment, `next`, a few slots a write, while readers still use the
  // active one. Three things happen one after the other: `next` gets memory for its ring and tags (`ready`);
  // the old ring entries from `ring` up to `ringEnd` are copied; the slots are copied from 0 on. What changes
  // meanwhile goes into both rings as soon as `next` is ready, and into both slots where the slot is below
  // `slot`, that is, has been copied.
  struct Growth {
    std::shared_ptr<Segment> next;
    bool ready = false;
    std::uint64_t ring = 0;     // ring position that is copied next
    std::uint64_t ringEnd = 0;  // where the ring was when `next` became ready
    std::uint64_t slot = 0;     // slot that is copied next
    std::uint64_t live = 0;     // what the header of `next` will say
    std::uint64_t deleted = 0;
    std::vector<std::uint64_t> marks;  // as Writer::marks_
  };

  Writer(const Directory& directory, std::string_view table, const Shape& shape,
         const WriterOptions& options);

  static std::uint32_t ringEntriesFor(std::uint64_t capacity);
  Mox::Result<> openBell(const std::string& bell);
  Mox::Result<> lock();
  Mox::Result<> start();
  Mox::Result<> startEmpty();
  // Good if the segment is sound; then it is repaired and the active one.
  Mox::Result<> takeOver(std::shared_ptr<Segment> segment);
  // What was found and has been replaced, and as what it was set aside, for the report.
  void replaced(const std::string& what);

  // What every change ends with: it is reported, and goes into a growing table's next segment as well.
  void changed(std::uint64_t index, const std::uint32_t* key, std::uint64_t hash);
  void append(const std::uint32_t* key);
  void deleteSlot(std::uint64_t index);
  void mark(std::uint64_t index);
  bool hasRoom() const;

  // Begins to grow into a segment of at least `capacity`, and of the size that the entries call for. After
  // the system has refused memory, only once the file system has room for it.
  void growthBegin(std::uint64_t capacity);
  void growthReady();
  void growthAbort();
  // The same, because the system refused something.
  void growthRefused(const std::string& why);
  // Copies ring entries and slots, `units` of them.
  void growthMove(std::size_t units);
  enum class Copied { kYes, kNoPlace, kNoMemory };
  Copied growthCopy(std::uint64_t from, const std::uint32_t* key, std::uint64_t hash);
  void growthStuck(Copied why);
  void growthFinish();
  // Grows to the end, for a table that has no time left; false if it could not.
  bool growNow();

  std::string table_;
  Directory directory_;
  Shape shape_;
  WriterOptions options_;
  std::string file_;
  OpenReport report_;
  int bell_ = -1;  // open for the writer's life: its lock is the proof that the table has a live writer
  std::shared_ptr<Segment> active_;
  std::unique_ptr<Growth> growth_;
  std::vector<std::shared_ptr<Segment>> releasing_;
  Mox::Result<> grown_;
  std::uint64_t growthBytes_ = 0;  // what the system last refused to give a next segment; 0: it gave it
  std::uint64_t rungAt_ = 0;       // the head when readers were last woken
  bool removed_ = false;

  bool reconciling_ = false;
  std::vector<std::uint64_t> marks_;  // a bit a slot of the active segment: put since reconcileBegin()
  std::uint64_t sweepSlot_ = 0;
};

}  // namespace Memtab
