#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Memtab/Table.h"
#include "Mox/Attribute.h"
#include "Mox/Strep.h"
#include "Orb/DumpContext.h"

// Shared-memory tables as entities: a class with MEMTAB_COLLECTION members, mounted by path
// (Memtab/EntityManager.h) for reading, for writing, or both. For a collection x:
//
//   x(key)                  the value, or the default one when there is none
//   xEntry(key)             the value, or nothing
//   xVisit(cursor, maxEntries, callback(key, value))
//                           one slice of a walk in the table's order; true while there is more
//   xForEach(callback(key, value))
//                           all of a small table
//   xs()                    the count
//   xIs(key, value)         for the writer: the entry is in, unless the result is Written::kFull
//   xDel(key)               for the writer: whether there was one
//   xChanged                the event of one key, raised from the event loop only, never from inside a write
//
// Shared memory that cannot be believed is reported to the entity's corruption handler, and the entry counts
// as absent.

namespace Memtab {

class Entity;

// What EntityManager needs to know of a collection.
class TableBase {
 public:
  virtual ~TableBase() = default;
  virtual const char* name() const = 0;
  virtual void readerIs(const Directory& directory, const std::string& table, Watcher& watcher) = 0;
  virtual Mox::Result<> writerIs(const Directory& directory, const std::string& table,
                                 const WriterOptions& options) = 0;
  virtual TableView* view() = 0;
  virtual Writer* writer() = 0;
  // Reports up to `maxKeys` changes to the entity's watchers; true if there may be more.
  virtual bool drain(std::size_t maxKeys) = 0;
  // Written since the last call.
  virtual bool takeDirty() = 0;
  // Gives up reader and writer; the collection is empty from here on.
  virtual void close() = 0;
};

class Entity : public Mox::Entity {
 public:
  using CorruptionHandler = std::function<void(const std::string& message)>;
  void corruptionHandlerIs(CorruptionHandler handler) { corruptionHandler_ = std::move(handler); }
  // The default handler writes a trace line and a record.
  void corrupted(const std::string& message) const;

  // For the manager: called with the reason when a table has no memory for an entry, and with a good result
  // when one has gone in again.
  using RoomHandler = std::function<void(const Mox::Result<>& room)>;
  void roomHandlerIs(RoomHandler handler) { roomHandler_ = std::move(handler); }
  void roomIs(const Mox::Result<>& room) const {
    if (roomHandler_) roomHandler_(room);
  }

  virtual std::vector<TableBase*> tables() = 0;

 private:
  template <class Key, class Value>
  friend class Collection;
  CorruptionHandler corruptionHandler_;
  RoomHandler roomHandler_;
};

template <class Key, class Value>
class Collection final : public TableBase {
 public:
  Collection(const char* name, Entity* entity) : name_(name), entity_(entity) {}

  std::optional<Value> entry(const Key& key) const {
    try {
      if (reader_) return reader_->lookup(key);
      if (writer_) return writer_->entry(key);
    } catch (const CorruptionError& error) {
      entity_->corrupted(error.what());
    }
    return std::nullopt;
  }
  // For callers that look ahead: nothing also where a value cannot be had at once, and nothing is reported.
  std::optional<Value> peek(const Key& key) const { return reader_ ? reader_->peek(key) : std::nullopt; }
  void prefetchTags(const Key& key) const {
    if (reader_) reader_->prefetchTags(key);
  }
  void prefetch(const Key& key) const {
    if (reader_) reader_->prefetch(key);
  }
  template <class Callback>
  bool visit(Cursor& cursor, std::size_t maxEntries, Callback&& callback) const {
    VisitResult result;
    if (reader_) {
      result = reader_->visit(cursor, maxEntries, callback);
    } else if (writer_) {
      result = writer_->visit(cursor, maxEntries, callback);
    }
    if (result.unreadable != 0)
      entity_->corrupted(std::string(name_) + ": entries that were left half written");
    return result.more;
  }
  template <class Callback>
  void forEach(Callback&& callback) const {
    Cursor cursor;
    while (visit(cursor, 256, callback)) {
    }
  }
  // Whether every change until now, the last write included, was told as an event.
  bool isCurrent() const { return !reader_ || reader_->isCurrent(); }
  std::uint64_t size() const { return reader_ ? reader_->size() : writer_ ? writer_->size() : 0; }

  // Throws Mox::Error when not mounted for writing, as del does.
  Written set(const Key& key, const Value& value) {
    const Written written = writable().entryIs(key, value);
    dirty_ = dirty_ || written == Written::kChanged;
    // An entry that needed no room says nothing about it.
    const Mox::Result<>& grown = writer_->core().grown();
    if (full_ ? static_cast<bool>(grown) : written == Written::kFull) {
      full_ = !full_;
      entity_->roomIs(grown);
    }
    return written;
  }
  bool del(const Key& key) {
    const bool deleted = writable().entryDel(key);
    dirty_ = dirty_ || deleted;
    return deleted;
  }
  // Null while not mounted for writing. For reconciling and deleting everything; call `touched` after either.
  TableWriter<Key, Value>* tableWriter() const { return writer_.get(); }
  void touched() { dirty_ = true; }

  const char* name() const override { return name_; }
  void readerIs(const Directory& directory, const std::string& table, Watcher& watcher) override {
    if (reader_) return;
    reader_ = std::make_unique<TableReader<Key, Value>>(directory, table, &watcher);
    reader_->watch();
  }
  Mox::Result<> writerIs(const Directory& directory, const std::string& table,
                         const WriterOptions& options) override {
    auto opened = TableWriter<Key, Value>::open(directory, table, options);
    if (!opened) return opened.failure();
    writer_ = std::move(*opened);
    return {};
  }
  TableView* view() override { return reader_ ? &reader_->view() : nullptr; }
  Writer* writer() override { return writer_ ? &writer_->core() : nullptr; }
  bool drain(std::size_t maxKeys) override {
    return reader_ &&
           reader_->drain(maxKeys, [&](const Key& key) { entity_->notify(Mox::Event<Key>(name_), key); });
  }
  bool takeDirty() override { return std::exchange(dirty_, false); }
  void close() override {
    reader_.reset();
    writer_.reset();
  }

 private:
  TableWriter<Key, Value>& writable() const {
    if (!writer_) throw Mox::Error(std::string(name_) + ": not mounted for writing");
    return *writer_;
  }

  const char* name_;
  Entity* entity_;
  mutable std::unique_ptr<TableReader<Key, Value>> reader_;
  std::unique_ptr<TableWriter<Key, Value>> writer_;
  bool dirty_ = false;
  bool full_ = false;  // the last entry that needed room did not find it
};

// Calls visitor(name, collection) for each table of an entity, at compile time.
template <class E, class Visitor>
void forEachTable(E& entity, Visitor&& visitor) {
  E::memtabVisit(entity, visitor);
}

// The entries of every table as "key value" lines.
template <class E>
void dumpTables(const E& entity, Orb::DumpContext& context, int indent) {
  forEachTable(entity, [&](const char* name, const auto& collection) {
    context.line(indent, std::string(name) + " #" + std::to_string(collection.size()));
    collection.forEach([&](const auto& key, const auto& value) {
      context.line(indent + 2, Mox::toStrep(key) + " " + Mox::toStrep(value));
    });
  });
}

}  // namespace Memtab

#define MEMTAB_COLLECTION(Key, Value, x)                                                       \
 private:                                                                                      \
  using x##Table = ::Memtab::Collection<Key, Value>;                                           \
  x##Table x##_{#x, this};                                                                     \
                                                                                               \
 public:                                                                                       \
  static constexpr ::Mox::Event<Key> x##Changed{#x};                                           \
  x##Table& x##Collection() { return x##_; }                                                   \
  const x##Table& x##Collection() const { return x##_; }                                       \
  Value x(const Key& key) const { return x##_.entry(key).value_or(Value{}); }                  \
  std::optional<Value> x##Entry(const Key& key) const { return x##_.entry(key); }              \
  template <class Callback>                                                                    \
  bool x##Visit(::Memtab::Cursor& cursor, std::size_t maxEntries, Callback&& callback) const { \
    return x##_.visit(cursor, maxEntries, std::forward<Callback>(callback));                   \
  }                                                                                            \
  template <class Callback>                                                                    \
  void x##ForEach(Callback&& callback) const {                                                 \
    x##_.forEach(std::forward<Callback>(callback));                                            \
  }                                                                                            \
  std::uint64_t x##s() const { return x##_.size(); }                                           \
  ::Memtab::Written x##Is(const Key& key, const Value& value) { return x##_.set(key, value); } \
  bool x##Del(const Key& key) { return x##_.del(key); }

#define MEMTAB_MEMBERS(x)                                                 \
 public:                                                                  \
  std::vector<::Memtab::TableBase*> tables() override { return {&x##_}; } \
  template <class E, class Visitor>                                       \
  static void memtabVisit(E& entity, Visitor&& visitor) {                 \
    visitor(#x, entity.x##Collection());                                  \
  }
