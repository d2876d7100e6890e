#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "Mox/Result.h"

namespace Statedb {

// What keeps entities beyond the process: for each path a flat set of (member key, value) pairs. Keys are
// member paths ("runnable", "vlanId/10", "vrf/red", "vrf/red/ipv4/10.0.0.1"), values are bytes that mean
// nothing here.
//
// Writes are collected and only become durable with `flush`, which the owner calls once an event-loop turn. A
// later write of a key replaces an earlier one that waits. A store that cannot write keeps what waits and
// tries again with the next flush; nothing throws.
class Store {
 public:
  // Returns whether to go on.
  using Visitor = std::function<bool(std::string_view key, std::string_view value)>;
  // An outside change: no value for a key that has gone.
  using Watch = std::function<void(const std::string& path, const std::string& key,
                                   const std::optional<std::string>& value)>;
  static constexpr std::size_t kEverything = 0;

  virtual ~Store() = default;

  // The pairs of the path in ascending order of the key's bytes, those behind `after` or all, what waits to be
  // flushed included, until the visitor has enough. It may write and erase; the views end with the call.
  virtual void load(const std::string& path, const std::optional<std::string>& after,
                    const Visitor& visit) = 0;

  virtual void write(const std::string& path, const std::string& key, std::string value) = 0;
  virtual void erase(const std::string& path, const std::string& key) = 0;
  // Erases every key that begins with `keyPrefix`; "" is the whole path.
  virtual void erasePath(const std::string& path, const std::string& keyPrefix = "") = 0;

  // Makes at most about `maxOperations` of what waits durable. Returns whether there is more for a next turn.
  virtual bool flush(std::size_t maxOperations = kEverything) = 0;
  // How many operations wait.
  virtual std::size_t waiting() const = 0;
  // Whether the last flush that had something to write could write it, or why not.
  virtual const Mox::Result<>& written() const = 0;

  // Reports changes that others make to the same store, from the event loop only. A store that only its
  // process writes has none.
  virtual void watchIs(Watch) {}
};

}  // namespace Statedb
