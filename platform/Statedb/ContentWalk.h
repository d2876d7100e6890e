#pragma once

#include <optional>
#include <string>
#include <vector>

#include "Mox/Entity.h"
#include "Statedb/Shape.h"
#include "Statedb/Store.h"

namespace Statedb {

// The pairs of one entity:
//
//   attribute                  "runnable" → its JSON, unless it is that of a new entity
//   member of a map or a set   "vlanId/10" → its JSON
//   child                      "vrf/red" → "{}", and then what it holds under longer keys
//
// What is there throughout is told, once; what comes or goes between two calls may be.
class ContentWalk final : public Content {
 public:
  // `prefix` begins every key. Without `fresh`, a new entity of the class, every attribute is told.
  ContentWalk(std::string prefix, const Shape& shape, Mox::Ptr<const Mox::Entity> entity,
              Mox::Ptr<const Mox::Entity> fresh);

  std::size_t size() const override { return sizeOf(shape_, *entity_); }
  bool read(const Visitor& visit) override;
  void readAgain() override { places_.clear(); }

 private:
  // How far the walk is in an entity; the entity of a child that is in hand has the next place.
  struct Place {
    std::size_t member = 0;
    std::optional<std::string> key;  // the last that was told; "" for an attribute
  };
  static std::size_t sizeOf(const Shape& shape, const Mox::Entity& entity);
  // These return whether the visitor wants more.
  bool walk(std::size_t level, const std::string& prefix, const Shape& shape, const Mox::Entity& entity,
            const Mox::Entity* fresh, const Visitor& visit);
  bool attribute(Place& place, const std::string& name, const MemberType& member, const Mox::Entity& entity,
                 const Mox::Entity* fresh, const Visitor& visit);
  bool values(Place& place, const std::string& name, const MemberType& member, const Mox::Entity& entity,
              const Visitor& visit);
  bool children(std::size_t level, const std::string& name, const MemberType& member,
                const Mox::Entity& entity, const Visitor& visit);

  const std::string prefix_;
  const Shape& shape_;
  const Mox::Ptr<const Mox::Entity> entity_, fresh_;
  std::vector<Place> places_;
};

}  // namespace Statedb
