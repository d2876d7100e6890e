#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "Mox/Entity.h"
#include "Mox/Result.h"
#include "Statedb/EntityType.h"
#include "Statedb/Store.h"

namespace Statedb {

// Keeps one entity in a store: `load` fills it, then each change is written as it happens, one pair a changed
// attribute or member:
//
//   attribute                  "runnable" → its JSON
//   member of a map or a set   "vlanId/10" → its JSON
//   child                      "vrf/red" → "{}", and what it holds under longer keys: "vrf/red/ipv4/10.0.0.1"
//
// An attribute that was never changed has no pair: it has the default of the program that loads it.
//
// Stored content is hostile until it is checked: a pair that is no member, or whose value the member refuses,
// or that belongs to a child that is not there, is erased and reported, and the rest loads.
class Persistence {
 public:
  using Report = std::function<void(const std::string& message)>;
  Persistence(Mox::Ptr<Mox::Entity> entity, const EntityType& type, std::string path, Store& store,
              Report report);

  // Loads until `mustYield`, asked after each pair, says so; returns whether there is more. Changes are written
  // once there is not.
  bool load(const std::function<bool()>& mustYield);

  // A change of the store that somebody else made goes into the entity and is not written back.
  void handleOutsideChange(const std::string& key, const std::optional<std::string>& value);

  // Writes what the entity holds, for one that held something before it was kept.
  void writeAll() { writeContent("", type_.shape, *entity_, type_.make().get()); }
  // Later changes are not written.
  void stop() { watch_.reset(); }

 private:
  void take(const std::string& key, const std::string& value);
  // No value deletes.
  Mox::Result<> loadPair(const std::string& key, const std::string* value);
  void handleChange(const Change& change);
  void writeContent(const std::string& prefix, const Shape& shape, const Mox::Entity& entity,
                    const Mox::Entity* fresh);

  const Mox::Ptr<Mox::Entity> entity_;
  const EntityType& type_;
  const std::string path_;
  Store& store_;
  const Report report_;
  std::optional<std::string> loadedTo_;
  std::size_t dropped_ = 0;
  // The outside change that is being taken over, while it is.
  const std::string* outsideKey_ = nullptr;
  const std::optional<std::string>* outsideValue_ = nullptr;
  std::unique_ptr<TreeWatch> watch_;
};

}  // namespace Statedb
