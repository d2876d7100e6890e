#pragma once

#include <map>
#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>

#include "Memtab/EntityManager.h"
#include "Mox/Result.h"

// Shared-memory tables without their C++ types, as JSON: {"fdb": {"10 02:00:00:00:00:01": {"entryType":
// "static"}}}. What holds for merging into the state tree holds here: objects merge, null deletes an entry
// or, in place of a whole collection, all of them.

namespace Host {

// A walk through an entity that is written as JSON text piece by piece, so that a large table holds up
// nobody. An entry that is there throughout is in the text, exactly once.
class Dump {
 public:
  virtual ~Dump() = default;
  // Appends the next piece, of at most `maxEntries` entries; false when nothing follows.
  virtual bool step(std::size_t maxEntries, std::string& text) = 0;
};

// JSON on its way into an entity, slice by slice.
class TableMerge {
 public:
  virtual ~TableMerge() = default;
  // Merges about `maxEntries` entries; true while there is more. Refused when an entry cannot be written (no
  // memory); those before it were. Entries that others write between two calls stay.
  virtual Mox::Result<bool> step(std::size_t maxEntries) = 0;
};

// Follows the tables of one path, whoever writes them, as a reader of its own that nobody else notices. What
// changed while nobody asked is kept by the tables (Memtab/ChangeFeed.h), so a feed that is not drained costs
// no memory here.
class TableFeed {
 public:
  virtual ~TableFeed() = default;
  // Merges up to `maxKeys` changes into `change` ({collection: {key: value, or null}}), each with what is
  // there now; true when there may be more.
  virtual bool drain(std::size_t maxKeys, nlohmann::json& change) = 0;
};

// One class of shared-memory entities. Entities given to it must be of that class.
class TableType {
 public:
  virtual ~TableType() = default;
  virtual void registerAt(Memtab::EntityManager& manager) const = 0;
  // Whether this is JSON for an entity of this class; a refusal begins with `path`. It does not depend on
  // what the table holds.
  virtual Mox::Result<> check(const nlohmann::json& json, const std::string& path) const = 0;
  // Merges JSON that was checked into an entity that is mounted for writing.
  virtual std::unique_ptr<TableMerge> merge(const Mox::Ptr<Memtab::Entity>& entity,
                                            nlohmann::json json) const = 0;
  // From here on the tables hold what the checked JSON says and nothing else. Entries that stay are not
  // touched. Refused when an entry could not be written (no memory).
  virtual Mox::Result<> replace(Memtab::Entity& entity, const nlohmann::json& json) const = 0;
  virtual std::unique_ptr<Dump> dump(Mox::Ptr<Memtab::Entity> entity) const = 0;
  // From here on; the tables need not exist yet. The directory and the watcher must outlive it.
  virtual std::unique_ptr<TableFeed> follow(const Memtab::Directory& directory, const std::string& path,
                                            Memtab::Watcher& watcher) const = 0;
};

using TableTypes = std::map<std::string, std::unique_ptr<TableType>, std::less<>>;

}  // namespace Host
