#pragma once

#include <functional>
#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <string>

#include "Mox/Entity.h"
#include "Statedb/Shape.h"

namespace Statedb {

// One change of a member somewhere below a watched entity. Valid during the callback.
struct Change {
  std::string
      memberPath;  // "runnable", "vlanId", "vrf/red/ipv4" (keys escaped as in Statedb/Path.h), "one//on"
  const MemberType& member;  // the last of them
  const std::string* key;    // null for an attribute
  const Mox::Entity& entity;

  // What is there now: null when the key has gone; a child with all of its members. When watchers change a
  // member again inside a notification, each of its notifications shows the last state.
  nlohmann::json value() const;
};

// Follows an entity and its children, those made later too, until it is destroyed; destroying it inside its
// own callback is fine. Replays nothing. A child that appears is one change of its collection, with what it
// holds by then; what changes inside it afterwards is reported by longer member paths.
//
// Costs one watcher an entity: members of value collections cost nothing, a child entity a few hundred bytes.
class TreeWatch {
 public:
  using Callback = std::function<void(const Change&)>;
  TreeWatch(Mox::Ptr<Mox::Entity> entity, const Shape& shape, Callback callback);
  TreeWatch(const TreeWatch&) = delete;
  TreeWatch& operator=(const TreeWatch&) = delete;
  ~TreeWatch();

 private:
  class Node;
  std::unique_ptr<Node> root_;
};

}  // namespace Statedb
