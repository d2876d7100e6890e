#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <utility>
#include <vector>

#include "Mox/Strep.h"
#include "Statedb/Json.h"
#include "host/SharedTables.h"

// TableType of one class, which names its collections with MEMTAB_MEMBERS. Included where types are
// registered only: it instantiates the codec of every key and value.

namespace Host {

// A key's text may not have empty parts: "10 " would be an address without a family.
inline bool hasEmptyPart(std::string_view text) {
  return text.empty() || text.front() == ' ' || text.back() == ' ' ||
         text.find("  ") != std::string_view::npos;
}

template <class Key>
std::optional<Key> tableKey(const std::string& text) {
  if (Mox::HasFields<Key> && hasEmptyPart(text)) return std::nullopt;
  return Statedb::textToValue<Key>(text);
}

template <class Key>
std::string allowedTableKey() {
  if constexpr (Mox::HasFields<Key>) {
    std::string names;
    std::apply(
        [&](const auto&... field) { ((names += (names.empty() ? "" : " ") + std::string(field.name)), ...); },
        Key::moxFields());
    return "\"" + names + "\", joined by one space";
  } else {
    return Statedb::allowedFor<Key>();
  }
}

template <class E>
class TableDump final : public Dump {
 public:
  explicit TableDump(Mox::Ptr<E> entity) : entity_(std::move(entity)) {}

  bool step(std::size_t maxEntries, std::string& text) override {
    std::size_t index = 0;
    bool stepped = false;
    Memtab::forEachTable(*entity_, [&](const char* name, const auto& collection) {
      if (index++ != collection_ || stepped) return;
      stepped = true;
      if (!begun_) text += std::string(collection_ == 0 ? "{" : ",") + "\"" + name + "\":{";
      begun_ = true;
      const bool more = collection.visit(cursor_, maxEntries, [&](const auto& key, const auto& value) {
        if (!first_) text += ',';
        first_ = false;
        Statedb::appendJsonText(text, Mox::toStrep(key));
        text += ':';
        Statedb::appendValueText(text, value);
      });
      if (more) return;
      text += '}';
      ++collection_;
      cursor_ = {};
      first_ = true;
      begun_ = false;
    });
    if (stepped) return true;
    if (!ended_) text += collection_ == 0 ? "{}" : "}";
    return !std::exchange(ended_, true);
  }

 private:
  const Mox::Ptr<E> entity_;
  std::size_t collection_ = 0;
  Memtab::Cursor cursor_;
  bool begun_ = false;
  bool first_ = true;
  bool ended_ = false;
};

// The feed of one collection of an entity.
class CollectionFeed {
 public:
  virtual ~CollectionFeed() = default;
  virtual bool drain(std::size_t maxKeys, nlohmann::json& change) = 0;
};

template <class Key, class Value>
class TypedCollectionFeed final : public CollectionFeed {
 public:
  TypedCollectionFeed(const char* name, const Memtab::Directory& directory, const std::string& path,
                      Memtab::Watcher& watcher)
      : name_(name), reader_(directory, path + "." + name, &watcher) {
    reader_.watch();
  }
  bool drain(std::size_t maxKeys, nlohmann::json& change) override {
    return reader_.drain(maxKeys, [&](const Key& key) {
      nlohmann::json value;
      try {
        if (const std::optional<Value> entry = reader_.lookup(key)) value = Statedb::valueToJson(*entry);
      } catch (const Memtab::CorruptionError&) {
        // It counts as absent, as for everybody who looks it up.
      }
      change[name_][Mox::toStrep(key)] = std::move(value);
    });
  }

 private:
  const char* const name_;
  Memtab::TableReader<Key, Value> reader_;
};

class TypedFeed final : public TableFeed {
 public:
  bool drain(std::size_t maxKeys, nlohmann::json& change) override {
    bool more = false;
    for (const auto& collection : collections) more = collection->drain(maxKeys, change) || more;
    return more;
  }
  std::vector<std::unique_ptr<CollectionFeed>> collections;
};

// How the entries of JSON come into a collection.
namespace Entries {

template <class Key, class Value>
Mox::Result<> check(const Memtab::Collection<Key, Value>&, const nlohmann::json& entries) {
  if (entries.is_null()) return {};
  if (!entries.is_object()) {
    return Mox::Failure{": " + Statedb::describe(entries) +
                        " is not an object by key, or null to delete all"};
  }
  for (auto entry = entries.begin(); entry != entries.end(); ++entry) {
    const std::string where = "[" + Statedb::describe(entry.key()) + "]";
    if (!tableKey<Key>(entry.key()))
      return Mox::Failure{where + ": the key is not " + allowedTableKey<Key>()};
    if (entry.value().is_null()) continue;
    Value value{};
    if (const auto merged = Statedb::mergeValue(entry.value(), value); !merged)
      return Mox::Failure{where + merged.error()};
  }
  return {};
}

// Merges into `value`, which is what the entry is without it.
template <class Key, class Value>
Mox::Result<> put(Memtab::Collection<Key, Value>& collection, const Key& key, Value value,
                  const nlohmann::json& json) {
  if (const auto merged = Statedb::mergeValue(json, value); !merged) return merged;
  if (collection.set(key, value) == Memtab::Written::kFull) {
    return Mox::Failure{"no shared memory for " + Mox::toStrep(key) + ": " +
                        collection.tableWriter()->core().grown().error()};
  }
  return {};
}

template <class Key, class Value>
Mox::Result<> merge(Memtab::Collection<Key, Value>& collection, const std::string& text,
                    const nlohmann::json& json) {
  const std::optional<Key> key = tableKey<Key>(text);
  if (!key) return {};
  if (!json.is_null())
    return put(collection, *key, collection.tableWriter()->entry(*key).value_or(Value{}), json);
  collection.del(*key);
  return {};
}

template <class Key, class Value>
Mox::Result<> replace(Memtab::Collection<Key, Value>& collection, const nlohmann::json& entries) {
  for (auto entry = entries.begin(); entry != entries.end(); ++entry) {
    const std::optional<Key> key = tableKey<Key>(entry.key());
    if (!key || entry.value().is_null()) continue;
    if (const auto written = put(collection, *key, Value{}, entry.value()); !written) return written;
  }
  return {};
}

}  // namespace Entries

template <class E>
class TypedMerge final : public TableMerge {
 public:
  TypedMerge(Mox::Ptr<E> entity, nlohmann::json json) : entity_(std::move(entity)), json_(std::move(json)) {}

  Mox::Result<bool> step(std::size_t maxEntries) override {
    Mox::Result<bool> result = false;
    std::size_t index = 0;
    Memtab::forEachTable(*entity_, [&](const char* name, auto& collection) {
      if (index++ != collection_) return;
      const auto entries = json_.find(name);
      Mox::Result<bool> stepped = false;
      if (entries != json_.end()) stepped = step(collection, *entries, maxEntries);
      if (stepped && !*stepped) {
        ++collection_;
        begun_ = false;
      }
      result = stepped ? Mox::Result<bool>(true) : stepped;
    });
    return result;
  }

 private:
  template <class Key, class Value>
  Mox::Result<bool> step(Memtab::Collection<Key, Value>& collection, const nlohmann::json& entries,
                         std::size_t maxEntries) {
    const bool isNew = !std::exchange(begun_, true);
    if (entries.is_null()) {
      Memtab::Writer& writer = collection.tableWriter()->core();
      if (isNew) writer.reconcileBegin();
      const bool more = writer.sweep(maxEntries);
      collection.touched();
      return more;
    }
    if (isNew) next_ = entries.begin();
    for (std::size_t done = 0; done < maxEntries && next_ != entries.end(); ++done, ++next_) {
      if (const auto merged = Entries::merge(collection, next_.key(), next_.value()); !merged)
        return merged.failure();
    }
    return next_ != entries.end();
  }

  const Mox::Ptr<E> entity_;
  const nlohmann::json json_;
  std::size_t collection_ = 0;  // in hand, in the order of the class
  bool begun_ = false;          // with it
  nlohmann::json::const_iterator next_;
};

template <class E>
class TypedTable final : public TableType {
 public:
  explicit TypedTable(std::string name) : name_(std::move(name)) {}

  void registerAt(Memtab::EntityManager& manager) const override { manager.registerType<E>(name_); }

  Mox::Result<> check(const nlohmann::json& json, const std::string& path) const override {
    if (!json.is_object())
      return Mox::Failure{path + ": " + Statedb::describe(json) + " is not an object of " + names()};
    for (auto member = json.begin(); member != json.end(); ++member) {
      bool known = false;
      Mox::Result<> checked;
      Memtab::forEachTable(*prototype_, [&](const char* name, const auto& collection) {
        if (member.key() != name) return;
        known = true;
        checked = Entries::check(collection, member.value());
      });
      if (!known) {
        return Mox::Failure{path + ": unknown key " + Statedb::describe(member.key()) +
                            "; allowed: " + names()};
      }
      if (!checked) return Mox::Failure{path + ": " + member.key() + checked.error()};
    }
    return {};
  }

  std::unique_ptr<TableMerge> merge(const Mox::Ptr<Memtab::Entity>& entity,
                                    nlohmann::json json) const override {
    return std::make_unique<TypedMerge<E>>(Mox::dynamicPtrCast<E>(entity), std::move(json));
  }

  Mox::Result<> replace(Memtab::Entity& entity, const nlohmann::json& json) const override {
    Mox::Result<> result;
    Memtab::forEachTable(dynamic_cast<E&>(entity), [&](const char* name, auto& collection) {
      Memtab::Writer& writer = collection.tableWriter()->core();
      writer.reconcileBegin();
      const auto entries = json.find(name);
      if (entries != json.end() && entries->is_object() && result)
        result = Entries::replace(collection, *entries);
      while (writer.sweep(kSweep)) {
      }
      collection.touched();
    });
    return result;
  }

  std::unique_ptr<Dump> dump(Mox::Ptr<Memtab::Entity> entity) const override {
    return std::make_unique<TableDump<E>>(Mox::dynamicPtrCast<E>(entity));
  }

  std::unique_ptr<TableFeed> follow(const Memtab::Directory& directory, const std::string& path,
                                    Memtab::Watcher& watcher) const override {
    auto feed = std::make_unique<TypedFeed>();
    Memtab::forEachTable(
        *prototype_, [&]<class Key, class Value>(const char* name, const Memtab::Collection<Key, Value>&) {
          feed->collections.push_back(
              std::make_unique<TypedCollectionFeed<Key, Value>>(name, directory, path, watcher));
        });
    return feed;
  }

 private:
  static constexpr std::size_t kSweep = 4096;

  std::string names() const {
    std::string names;
    for (Memtab::TableBase* table : prototype_->tables())
      names += (names.empty() ? "" : ", ") + std::string(table->name());
    return names;
  }

  const std::string name_;
  // Mounted nowhere; it names the collections.
  const Mox::Ptr<E> prototype_ = Mox::make<E>();
};

}  // namespace Host
