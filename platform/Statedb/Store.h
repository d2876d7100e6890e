#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "Mox/Result.h"

namespace Statedb {

// What an entity holds now, as (member key, value) pairs. Keys are member paths ("runnable", "vlanId/10",
// "vrf/red", "vrf/red/ipv4/10.0.0.1"), values are bytes that mean nothing to a store.
class Content {
 public:
  // Returns whether to go on.
  using Visitor = std::function<bool(std::string_view key, std::string_view value)>;
  virtual ~Content() = default;
  // About how many pairs.
  virtual std::size_t size() const = 0;
  // The pairs, those of a key before those below it, until the visitor has enough; on from there with the next
  // call. Returns whether there is more. What changes between two calls may be told or not.
  virtual bool read(const Visitor& visit) = 0;
  virtual void readAgain() = 0;  // from the beginning
};

// What keeps one entity beyond the process: what was done to it, in that order.
class Journal {
 public:
  struct Operation {
    std::string_view key;
    std::optional<std::string_view> value;  // none: erased
  };
  enum class Step {
    operation,
    end,
    damaged,  // what is kept is not sound; what was read of it does not count, and all is as if nothing were kept
  };
  virtual ~Journal() = default;

  // Reads what is kept, one operation a call; the views end with the next one. Nothing is written before the end.
  virtual Step next(Operation& operation) = 0;

  virtual void write(std::string_view key, std::string_view value) = 0;
  // The key and all below it ("vrf/red" and "vrf/red/ipv4/10.0.0.1").
  virtual void erase(std::string_view key) = 0;
  // What is kept is to be replaced by what the entity holds, by the next flushes.
  virtual void rewrite() = 0;

  // Makes some of what waits durable, so little that an event loop can do it once a turn, or everything. `content`
  // is that of the entity, always the same, and may be read for it. Returns whether there is more for a next
  // turn. What cannot be written is tried again with a later flush; nothing throws.
  enum class Extent { turn, everything };
  virtual bool flush(Content& content, Extent extent) = 0;
  // Whether the last flush that had something to write could write it, or why not.
  virtual const Mox::Result<>& written() const = 0;
};

// Where journals are, one a path. It must outlive them.
class Store {
 public:
  // An outside change: no value for a key that has gone.
  using Watch = std::function<void(const std::string& path, const std::string& key,
                                   const std::optional<std::string>& value)>;

  virtual ~Store() = default;

  // What is there already is kept. Of a path there is one journal at a time.
  virtual std::unique_ptr<Journal> journal(const std::string& path) = 0;
  // Forgets what is kept of a path that has no journal now.
  virtual void remove(const std::string& path) = 0;

  // Reports changes that others make to the same store, from the event loop only. A store that only its
  // process writes has none.
  virtual void watchIs(Watch) {}
};

}  // namespace Statedb
