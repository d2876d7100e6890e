#pragma once

#include <functional>
#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Mox/Attribute.h"
#include "Mox/Entity.h"
#include "Mox/Result.h"

// The members of an entity's class, seen without its type: what merging, watching and persistence walk. Keys
// and values go in and out as text and JSON; a single member costs one look-up. Shapes are made once a class,
// on first use, by shapeOf<E>() (Statedb/TypedShape.h), and live as long as the process.
//
// Every function takes an entity of the very class that the shape describes.

namespace Statedb {

class Shape;

class MemberType {
 public:
  MemberType(const char* name, Mox::MemberKind kind, Mox::EventId event)
      : name(name), kind(kind), event(event) {}
  MemberType(const MemberType&) = delete;
  MemberType& operator=(const MemberType&) = delete;
  virtual ~MemberType() = default;

  const std::string name;
  const Mox::MemberKind kind;
  const Mox::EventId event;
  // A single child is the one of a collection, under the key "".
  bool isCollection() const { return kind != Mox::MemberKind::attribute; }
  bool hasChildren() const { return kind == Mox::MemberKind::children || kind == Mox::MemberKind::child; }

  // The key that a notification of this collection carries.
  virtual std::string keyOf(const void* payload) const = 0;

  // An attribute's value (`key` is not looked at), or the value under a key: null when it is absent. A set's
  // value is true. Children have none here.
  virtual nlohmann::json value(const Mox::Entity& entity, std::string_view key) const = 0;
  // That value's JSON text; empty when it is absent.
  virtual std::string text(const Mox::Entity& entity, std::string_view key) const = 0;
  // Maps and sets, in their own order.
  virtual void forEachValue(
      const Mox::Entity& entity,
      const std::function<void(const std::string& key, nlohmann::json value)>& visit) const = 0;
  virtual void forEachChild(
      const Mox::Entity& entity,
      const std::function<void(const std::string& key, Mox::Entity& child)>& visit) const = 0;

  // For a scan that gives way. Of maps and sets, the texts behind that key, or all, until the visitor has
  // enough; of one without an order all or, behind any key, none. Of children the next one behind that key.
  using TextVisitor = std::function<bool(const std::string& key, const std::string& text)>;
  using Child = std::pair<std::string, Mox::Ptr<Mox::Entity>>;
  virtual void forEachText(const Mox::Entity& entity, const std::optional<std::string>& behind,
                           const TextVisitor& visit) const = 0;
  virtual std::optional<Child> nextChild(const Mox::Entity& entity,
                                         const std::optional<std::string>& behind) const = 0;
  // How many members there are; an attribute is one.
  virtual std::size_t count(const Mox::Entity& entity) const = 0;

  // Whether `merge` would take this. A refusal's text is what a message says behind the member's name. `json`
  // is not looked at for children.
  virtual Mox::Result<> check(std::string_view key, const nlohmann::json& json) const = 0;
  // Merges JSON into an attribute or under a key of a map or set; null deletes. An attribute goes back to the
  // value that it has in `fresh`, or to its type's default without one. Refused, and nothing changed, where
  // `check` refuses.
  virtual Mox::Result<> merge(Mox::Entity& entity, std::string_view key, const nlohmann::json& json,
                              const Mox::Entity* fresh) const = 0;
  // Deletes one member of a collection, or all of them.
  virtual void erase(Mox::Entity& entity, std::string_view key) const = 0;
  virtual void eraseAll(Mox::Entity& entity) const = 0;

  // Children only. Null: none of that key, or `key` is no key.
  virtual Mox::Ptr<Mox::Entity> child(const Mox::Entity& entity, std::string_view key) const = 0;
  // Finds or makes the child. Null when it has to be made and takes more than its key.
  virtual Mox::Ptr<Mox::Entity> childIs(Mox::Entity& entity, std::string_view key) const = 0;
  // A new child of that key that is in no collection; null when it takes more than its key.
  virtual Mox::Ptr<Mox::Entity> freshChild(std::string_view key) const = 0;
  virtual bool makesChildren() const = 0;
  virtual const Shape& childShape() const = 0;
};

class Shape {
 public:
  using Members = std::vector<std::unique_ptr<const MemberType>>;
  Shape() = default;
  explicit Shape(Members members) : members_(std::move(members)) {}

  const Members& members() const { return members_; }
  const MemberType* find(std::string_view name) const;
  const MemberType* findEvent(Mox::EventId event) const;
  // Names of all members, for messages: "a, b, c".
  std::string names() const;

  // Every member; collections are objects by key, children recursively. A single child is an object itself.
  nlohmann::json toJson(const Mox::Entity& entity) const;

 private:
  Members members_;
};

template <class E>
const Shape& shapeOf();

}  // namespace Statedb
