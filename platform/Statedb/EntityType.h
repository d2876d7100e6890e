#pragma once

#include <functional>
#include <map>
#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>

#include "Mox/Entity.h"
#include "Statedb/Merge.h"
#include "Statedb/Shape.h"
#include "Statedb/Watch.h"

namespace Statedb {

// A class of entities that can stand at a path, for those who do not know the class: the host, the control
// socket, the store. Entities given to it must be of its class: ask `is`.
class EntityType {
 public:
  using Make = std::function<Mox::Ptr<Mox::Entity>()>;
  using Is = bool (*)(const Mox::Entity&);
  EntityType(std::string name, Make make, Is is, const Shape& shape)
      : name(std::move(name)), shape(shape), make_(std::move(make)), is_(is) {}

  const std::string name;  // "Evpn::EvpnStatus"
  const Shape& shape;

  Mox::Ptr<Mox::Entity> make() const { return make_(); }
  bool is(const Mox::Entity& entity) const { return is_(entity); }
  nlohmann::json toJson(const Mox::Entity& entity) const;
  // `path` begins the text of a refusal.
  Mox::Result<Plan> planMerge(const Mox::Ptr<Mox::Entity>& entity, nlohmann::json json,
                              const std::string& path) const;
  // Calls back with {"path", "member", "key", "value"} after each change; no "key" for an attribute, "value"
  // null for what has gone. Ends with the object that is returned.
  std::unique_ptr<TreeWatch> watch(const Mox::Ptr<Mox::Entity>& entity, std::string path,
                                   std::function<void(const nlohmann::json& change)> callback) const;

 private:
  Make make_;
  Is is_;
};

// The classes that a process knows by name. Types are never removed: entities refer to them.
class TypeRegistry {
 public:
  // The one that plug-ins register in; tests make their own.
  static TypeRegistry& process();

  // A default-constructible class. Defined in Statedb/Register.h. Registering a name again changes nothing.
  template <class E>
  const EntityType& registerType(const std::string& name);
  const EntityType& add(std::unique_ptr<EntityType> type);

  const EntityType* find(std::string_view name) const;

 private:
  std::map<std::string, std::unique_ptr<EntityType>, std::less<>> types_;
};

}  // namespace Statedb
