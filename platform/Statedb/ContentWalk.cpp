#include "Statedb/ContentWalk.h"

#include <utility>

#include "Statedb/Path.h"

namespace Statedb {

ContentWalk::ContentWalk(std::string prefix, const Shape& shape, Mox::Ptr<const Mox::Entity> entity,
                         Mox::Ptr<const Mox::Entity> fresh)
    : prefix_(std::move(prefix)), shape_(shape), entity_(std::move(entity)), fresh_(std::move(fresh)) {}

std::size_t ContentWalk::sizeOf(const Shape& shape, const Mox::Entity& entity) {
  std::size_t size = 0;
  for (const auto& member : shape.members()) {
    size += member->count(entity);
    member->forEachChild(entity, [&](const std::string&, const Mox::Entity& child) {
      size += sizeOf(member->childShape(), child);
    });
  }
  return size;
}

bool ContentWalk::read(const Visitor& visit) {
  return !walk(0, prefix_, shape_, *entity_, fresh_.get(), visit);
}

bool ContentWalk::walk(std::size_t level, const std::string& prefix, const Shape& shape,
                       const Mox::Entity& entity, const Mox::Entity* fresh, const Visitor& visit) {
  if (places_.size() == level) places_.emplace_back();
  while (places_[level].member < shape.members().size()) {
    const MemberType& member = *shape.members()[places_[level].member];
    const std::string name = prefix + member.name;
    bool more = false;
    if (!member.isCollection()) {
      more = attribute(places_[level], name, member, entity, fresh, visit);
    } else if (member.hasChildren()) {
      more = children(level, name, member, entity, visit);
    } else {
      more = values(places_[level], name, member, entity, visit);
    }
    if (!more) return false;
    places_[level] = {places_[level].member + 1, {}};
  }
  return true;
}

bool ContentWalk::attribute(Place& place, const std::string& name, const MemberType& member,
                            const Mox::Entity& entity, const Mox::Entity* fresh, const Visitor& visit) {
  if (std::exchange(place.key, std::string())) return true;
  const std::string text = member.text(entity, {});
  return (fresh && text == member.text(*fresh, {})) || visit(name, text);
}

bool ContentWalk::values(Place& place, const std::string& name, const MemberType& member,
                         const Mox::Entity& entity, const Visitor& visit) {
  bool more = true;
  const std::optional<std::string> behind = place.key;
  member.forEachText(entity, behind, [&](const std::string& key, const std::string& text) {
    more = visit(name + '/' + escapedKey(key), text) && more;
    if (!more) place.key = key;
    return more;
  });
  return more;
}

bool ContentWalk::children(std::size_t level, const std::string& name, const MemberType& member,
                           const Mox::Entity& entity, const Visitor& visit) {
  for (;;) {
    if (places_.size() == level + 1) {
      std::optional<MemberType::Child> next = member.nextChild(entity, places_[level].key);
      if (!next) return true;
      places_[level].key = next->first;
      places_.emplace_back();
      if (member.kind != Mox::MemberKind::child && !visit(name + '/' + escapedKey(next->first), "{}"))
        return false;
    }
    const std::string key = *places_[level].key;
    // One that has gone meanwhile is passed; of one that was made again the rest is told.
    if (const Mox::Ptr<Mox::Entity> child = member.child(entity, key)) {
      if (!walk(level + 1, name + '/' + escapedKey(key) + '/', member.childShape(), *child,
                member.freshChild(key).get(), visit))
        return false;
    }
    places_.resize(level + 1);
  }
}

}  // namespace Statedb
