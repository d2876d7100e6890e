#include "Statedb/Shape.h"

#include "Statedb/Json.h"

namespace Statedb {

const MemberType* Shape::find(std::string_view name) const {
  for (const auto& member : members_) {
    if (member->name == name) return member.get();
  }
  return nullptr;
}

const MemberType* Shape::findEvent(Mox::EventId event) const {
  for (const auto& member : members_) {
    if (member->event == event) return member.get();
  }
  return nullptr;
}

std::string Shape::names() const {
  std::string names;
  for (const auto& member : members_) names += (names.empty() ? "" : ", ") + member->name;
  return names.empty() ? "nothing" : names;
}

nlohmann::json Shape::toJson(const Mox::Entity& entity) const {
  nlohmann::json object = nlohmann::json::object();
  for (const auto& member : members_) {
    nlohmann::json& place = object[member->name];
    if (member->kind == Mox::MemberKind::attribute) {
      place = member->value(entity, {});
      continue;
    }
    place = nlohmann::json::object();
    member->forEachValue(
        entity, [&](const std::string& key, nlohmann::json value) { place[key] = std::move(value); });
    member->forEachChild(entity, [&](const std::string& key, const Mox::Entity& child) {
      (member->kind == Mox::MemberKind::child ? place : place[key]) = member->childShape().toJson(child);
    });
  }
  return object;
}

}  // namespace Statedb
