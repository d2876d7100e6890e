#pragma once

#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <string>

#include "Mox/Entity.h"
#include "Mox/Result.h"
#include "Statedb/Shape.h"

namespace Statedb {

// A merge that was checked as a whole and not applied yet.
//
// Objects merge, arrays and scalars replace, null deletes: a member of a collection, a whole collection's
// members, or an attribute, which goes back to the value that it is made with. In a set, true adds and false
// deletes. JSON can be as deep as the entity's classes and values are, and no deeper.
//
// All or nothing: there is no plan for JSON that is refused in part, and applying one cannot be refused half
// way, as whether JSON is good does not depend on what the tree holds. Watchers run in between and may change
// the tree, this entity too: each value is merged into what is there when its turn comes, and what a watcher
// deletes stays deleted unless a later part of the same JSON names it again.
class Plan {
 public:
  // Refused: "bridging/config: vidToFidMap["10"]: 99999 is not a number from 0 to 65535", `path` in front.
  static Mox::Result<Plan> make(Mox::Ptr<Mox::Entity> entity, const Shape& shape, Mox::Ptr<Mox::Entity> fresh,
                                nlohmann::json json, const std::string& path);
  Plan(Plan&&) noexcept;
  Plan& operator=(Plan&&) noexcept;
  ~Plan();

  // Writes everything, once; later calls do nothing. A Mox::Error that a watcher raises does not keep the
  // rest from being written: the first is raised again at the end.
  void apply();

 private:
  Plan(Mox::Ptr<Mox::Entity> entity, const Shape& shape, Mox::Ptr<Mox::Entity> fresh, nlohmann::json json);

  Mox::Ptr<Mox::Entity> entity_;
  const Shape* shape_;
  Mox::Ptr<Mox::Entity> fresh_;
  std::unique_ptr<nlohmann::json> json_;
};

}  // namespace Statedb
