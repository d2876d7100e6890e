#pragma once

#include <array>
#include <bit>
#include <cstdint>
#include <cstring>
#include <memory>
#include <optional>
#include <string_view>
#include <type_traits>

#include "Memtab/ChangeFeed.h"
#include "Memtab/TableView.h"
#include "Memtab/TypeTag.h"
#include "Memtab/Watcher.h"
#include "Memtab/Writer.h"

// Tables with typed keys and values, over TableView, ChangeFeed and Writer; what holds there holds here.
//
// Keys and values are compared, hashed and copied by their bytes. They are of fixed size, trivially copyable
// and without padding or several representations of one value, so that equal bytes mean equal values. All
// processes that use a table give it the same types; a table of other types, also of equal size, is none of
// theirs (Memtab/TypeTag.h).
//
// What is read is hostile until checked: other processes may have written any bytes. A bool among the fields
// of a value (moxFields) is made true or false when it is read. Other types whose bytes may mean no value
// have a check of their own (`sound`), for the reader to ask.
namespace Memtab {

template <class T>
concept Storable = std::is_trivially_copyable_v<T> && std::has_unique_object_representations_v<T>;

template <Storable T>
using WordsOf = std::array<std::uint32_t, (sizeof(T) + 3) / 4>;

template <Storable T>
WordsOf<T> toWords(const T& value) {
  WordsOf<T> words{};
  std::memcpy(words.data(), &value, sizeof(T));
  return words;
}

// Any byte but 0 is true.
template <class T>
void settleBools(T& value) {
  if constexpr (std::is_same_v<T, bool>) {
    unsigned char byte;
    std::memcpy(&byte, &value, 1);
    value = byte != 0;
  } else if constexpr (Mox::HasFields<T>) {
    std::apply([&](const auto&... field) { (settleBools(value.*(field.member)), ...); }, T::moxFields());
  }
}

template <Storable T>
T fromWords(const std::uint32_t* words) {
  std::array<std::byte, sizeof(T)> bytes;
  std::memcpy(bytes.data(), words, sizeof(T));
  T value = std::bit_cast<T>(bytes);
  settleBools(value);
  return value;
}

template <Storable Key, Storable Value>
requires(sizeof(Key) <= kMaxKeyBytes && sizeof(Value) <= kMaxValueBytes) struct TableTypes {
  using Static = StaticShape<sizeof(Key), sizeof(Value)>;
  static constexpr Shape shape() {
    return {sizeof(Key), sizeof(Value), kTypeTag<Key> ^ std::rotl(kTypeTag<Value>, 32)};
  }
};

template <class Key, class Value>
class TableReader {
 public:
  using Types = TableTypes<Key, Value>;

  TableReader(const Directory& directory, std::string_view table, Watcher* watcher = nullptr)
      : view_(directory, table, Types::shape(), watcher) {}

  // The entry's value, or nothing. Throws CorruptionError, see TableView::lookup.
  std::optional<Value> lookup(const Key& key) {
    WordsOf<Value> value;
    if (!view_.lookup(typename Types::Static{}, toWords(key).data(), value.data())) return std::nullopt;
    return fromWords<Value>(value.data());
  }
  // What can be had at once, see TableView::peek.
  std::optional<Value> peek(const Key& key) const {
    WordsOf<Value> value;
    if (!view_.peek(typename Types::Static{}, toWords(key).data(), value.data())) return std::nullopt;
    return fromWords<Value>(value.data());
  }
  void prefetchTags(const Key& key) const {
    view_.prefetchTags(typename Types::Static{}, toWords(key).data());
  }
  void prefetch(const Key& key) const { view_.prefetch(typename Types::Static{}, toWords(key).data()); }
  std::uint64_t size() { return view_.size(); }

  // callback(key, value); see TableView::visit.
  template <class Callback>
  VisitResult visit(Cursor& cursor, std::size_t maxEntries, Callback&& callback) {
    return view_.visit(cursor, maxEntries, [&](const std::uint32_t* key, const std::uint32_t* value) {
      callback(fromWords<Key>(key), fromWords<Value>(value));
    });
  }
  static Cursor cursorFrom(const Key& key) {
    const auto words = toWords(key);
    return Cursor::from(words.data(), static_cast<std::uint32_t>(words.size()));
  }

  // Watching costs nothing until it is asked for: changes are reported from this call on.
  void watch() {
    if (!feed_) feed_.emplace(view_);
  }
  bool watching() const { return feed_.has_value(); }
  // callback(key) for up to `maxKeys` changed keys; true if there may be more. See ChangeFeed. Nothing if not
  // watching.
  template <class Callback>
  bool drain(std::size_t maxKeys, Callback&& callback) {
    if (!feed_) return false;
    return feed_->drain(maxKeys, [&](const std::uint32_t* key) { callback(fromWords<Key>(key)); });
  }
  // See ChangeFeed. True if not watching.
  bool isCurrent() { return !feed_ || feed_->isCurrent(); }
  std::uint64_t overruns() const { return feed_ ? feed_->overruns() : 0; }

  // What Watcher::next() returns when this table has news.
  TableView& view() { return view_; }

 private:
  TableView view_;
  std::optional<ChangeFeed> feed_;
};

template <class Key, class Value>
class TableWriter {
 public:
  using Types = TableTypes<Key, Value>;

  // See Writer::open.
  static Mox::Result<std::unique_ptr<TableWriter>> open(const Directory& directory, std::string_view table,
                                                        const WriterOptions& options) {
    auto writer = Writer::open(directory, table, Types::shape(), options);
    if (!writer) return writer.failure();
    return std::unique_ptr<TableWriter>(new TableWriter(std::move(*writer)));
  }
  const OpenReport& openReport() const { return writer_->openReport(); }

  Written entryIs(const Key& key, const Value& value) {
    return writer_->put(toWords(key).data(), toWords(value).data());
  }
  bool entryDel(const Key& key) { return writer_->del(toWords(key).data()); }
  std::optional<Value> entry(const Key& key) const {
    WordsOf<Value> value;
    if (!writer_->get(toWords(key).data(), value.data())) return std::nullopt;
    return fromWords<Value>(value.data());
  }
  // Deletes the entries that are there at the first call, a slice a call; true while there are more. Ends a
  // reconciliation that is in progress. Entries set between two calls stay.
  bool entryDelAll(std::size_t maxEntries) {
    if (!deletingAll_) writer_->reconcileBegin();
    deletingAll_ = writer_->sweep(maxEntries);
    return deletingAll_;
  }
  std::uint64_t size() const { return writer_->size(); }
  template <class Callback>
  VisitResult visit(Cursor& cursor, std::size_t maxEntries, Callback&& callback) const {
    return writer_->visit(cursor, maxEntries, [&](const std::uint32_t* key, const std::uint32_t* value) {
      callback(fromWords<Key>(key), fromWords<Value>(value));
    });
  }

  // Flushing, reconciling, growing and removing.
  Writer& core() { return *writer_; }

 private:
  explicit TableWriter(std::unique_ptr<Writer> writer) : writer_(std::move(writer)) {}

  std::unique_ptr<Writer> writer_;
  bool deletingAll_ = false;
};

}  // namespace Memtab
