#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "Mox/Entity.h"
#include "Mox/Result.h"
#include "Statedb/ContentWalk.h"
#include "Statedb/EntityType.h"
#include "Statedb/Store.h"

namespace Statedb {

// Keeps one entity in a journal: `load` fills it, then each change is written as it happens, one pair a changed
// attribute or member; the pairs are those of Statedb/ContentWalk.h.
//
// An attribute that was never changed has no pair: it has the default of the program that loads it.
//
// Stored content is hostile until it is checked: a pair that is no member, or whose value the member refuses,
// or that belongs to a child that is not there, is dropped and reported, and the rest loads.
class Persistence {
 public:
  using Report = std::function<void(const std::string& message)>;
  Persistence(Mox::Ptr<Mox::Entity> entity, const EntityType& type, std::string path, Store& store,
              Report report);

  // Loads until `mustYield`, asked after each operation, says so; returns whether there is more. Changes are written
  // once there is not.
  bool load(const std::function<bool()>& mustYield);

  // A change of the store that somebody else made goes into the entity and is not written back.
  void handleOutsideChange(const std::string& key, const std::optional<std::string>& value);

  // What is kept becomes what the entity holds, for one that held something before it was kept.
  void writeAll() { journal_->rewrite(); }
  // See Journal.
  bool flush(Journal::Extent extent) { return journal_ && journal_->flush(content_, extent); }
  Mox::Result<> written() const { return journal_ ? journal_->written() : Mox::Result<>(); }
  // Later changes are not written, and the path's journal is free.
  void stop();

 private:
  void take(const Journal::Operation& operation);
  // As if nothing had been loaded.
  void startEmpty();
  // No value deletes.
  Mox::Result<> loadPair(std::string_view key, const std::optional<std::string_view>& value);
  void handleChange(const Change& change);

  const Mox::Ptr<Mox::Entity> entity_;
  const EntityType& type_;
  const std::string path_;
  const Report report_;
  std::unique_ptr<Journal> journal_;
  ContentWalk content_;
  std::size_t dropped_ = 0;
  // The outside change that is being taken over, while it is.
  const std::string* outsideKey_ = nullptr;
  const std::optional<std::string>* outsideValue_ = nullptr;
  std::unique_ptr<TreeWatch> watch_;
};

}  // namespace Statedb
