#include "Statedb/Merge.h"

#include <exception>

#include "Statedb/Json.h"

namespace Statedb {

namespace {

std::string inBrackets(const std::string& key) {
  std::string text = "[";
  text += describe(key);
  return text += ']';
}

// `existing` is null below a child that is still to be made.
Mox::Result<> checkEntity(const Shape& shape, const Mox::Entity* existing, const nlohmann::json& json);

Mox::Result<> checkEntry(const MemberType& member, const Mox::Entity* existing, const std::string& key,
                         const nlohmann::json& value) {
  auto checked = member.check(key, value);
  if (!checked || !member.hasChildren() || value.is_null()) return checked;
  const Mox::Ptr<Mox::Entity> child = existing ? member.child(*existing, key) : nullptr;
  if (!child && !member.makesChildren())
    return Mox::Failure{": does not exist and cannot be made by its key alone"};
  return checkEntity(member.childShape(), child.get(), value);
}

Mox::Result<> checkMember(const MemberType& member, const Mox::Entity* existing,
                          const nlohmann::json& value) {
  if (!member.isCollection()) return member.check({}, value);
  if (member.kind == Mox::MemberKind::child)
    return checkEntity(member.childShape(), existing ? member.child(*existing, {}).get() : nullptr, value);
  if (value.is_null()) return {};
  if (!value.is_object())
    return Mox::Failure{": " + describe(value) + " is not an object by key, or null to delete all"};
  for (auto entry = value.begin(); entry != value.end(); ++entry) {
    const auto checked = checkEntry(member, existing, entry.key(), entry.value());
    if (!checked) return within(inBrackets(entry.key()), checked);
  }
  return {};
}

Mox::Result<> checkEntity(const Shape& shape, const Mox::Entity* existing, const nlohmann::json& json) {
  if (!json.is_object()) return Mox::Failure{": " + describe(json) + " is not an object of " + shape.names()};
  for (auto item = json.begin(); item != json.end(); ++item) {
    const MemberType* member = shape.find(item.key());
    if (!member) return Mox::Failure{": unknown key " + describe(item.key()) + "; allowed: " + shape.names()};
    const auto checked = checkMember(*member, existing, item.value());
    if (!checked) return within("." + member->name, checked);
  }
  return {};
}

class Applier {
 public:
  void entity(Mox::Entity& entity, const Shape& shape, const Mox::Entity* fresh, const nlohmann::json& json) {
    for (auto item = json.begin(); item != json.end(); ++item) {
      const MemberType& member = *shape.find(item.key());
      const nlohmann::json& value = item.value();
      if (!member.isCollection()) {
        merge(entity, member, {}, value, fresh);
      } else if (member.kind == Mox::MemberKind::child) {
        collectionMember(entity, member, {}, value);
      } else if (value.is_null()) {
        guarded([&] { member.eraseAll(entity); });
      } else {
        for (auto entry = value.begin(); entry != value.end(); ++entry) {
          collectionMember(entity, member, entry.key(), entry.value());
        }
      }
    }
  }
  void finish() {
    if (first_) std::rethrow_exception(first_);
  }

 private:
  void collectionMember(Mox::Entity& entity, const MemberType& member, const std::string& key,
                        const nlohmann::json& value) {
    if (!member.hasChildren()) {
      merge(entity, member, key, value, nullptr);
    } else if (value.is_null()) {
      guarded([&] { member.erase(entity, key); });
    } else {
      Mox::Ptr<Mox::Entity> child;
      guarded([&] { child = member.childIs(entity, key); });
      if (!child) child = member.child(entity, key);  // made, and then a watcher raised
      if (!child) return;
      Mox::Ptr<Mox::Entity> fresh;
      for (const auto& part : value) {
        if (part.is_null() && !fresh) fresh = member.freshChild(key);
      }
      this->entity(*child, member.childShape(), fresh.get(), value);
    }
  }
  void merge(Mox::Entity& entity, const MemberType& member, std::string_view key, const nlohmann::json& value,
             const Mox::Entity* fresh) {
    guarded([&] { static_cast<void>(member.merge(entity, key, value, fresh)); });  // all of it was checked
  }
  template <class Write>
  void guarded(Write write) {
    try {
      write();
    } catch (const Mox::Error&) {
      if (!first_) first_ = std::current_exception();
    }
  }
  std::exception_ptr first_;
};

}  // namespace

Plan::Plan(Mox::Ptr<Mox::Entity> entity, const Shape& shape, Mox::Ptr<Mox::Entity> fresh, nlohmann::json json)
    : entity_(std::move(entity)),
      shape_(&shape),
      fresh_(std::move(fresh)),
      json_(std::make_unique<nlohmann::json>(std::move(json))) {}

Mox::Result<Plan> Plan::make(Mox::Ptr<Mox::Entity> entity, const Shape& shape, Mox::Ptr<Mox::Entity> fresh,
                             nlohmann::json json, const std::string& path) {
  if (const auto checked = checkEntity(shape, entity.get(), json); !checked) {
    const std::string& problem = checked.error();
    return Mox::Failure{path + (problem.starts_with(".") ? ": " + problem.substr(1) : problem)};
  }
  return Plan(std::move(entity), shape, std::move(fresh), std::move(json));
}

Plan::Plan(Plan&&) noexcept = default;
Plan& Plan::operator=(Plan&&) noexcept = default;
Plan::~Plan() = default;

void Plan::apply() {
  if (!json_) return;
  const std::unique_ptr<nlohmann::json> json = std::move(json_);
  const Mox::Ptr<Mox::Entity> entity = std::move(entity_);
  const Mox::Ptr<Mox::Entity> fresh = std::move(fresh_);
  Applier applier;
  applier.entity(*entity, *shape_, fresh.get(), *json);
  applier.finish();
}

}  // namespace Statedb
