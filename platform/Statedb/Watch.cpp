#include "Statedb/Watch.h"

#include <unordered_map>

#include "Statedb/Json.h"
#include "Statedb/Path.h"

namespace Statedb {

nlohmann::json Change::value() const {
  if (!member.hasChildren()) return member.value(entity, key ? *key : std::string());
  const Mox::Ptr<Mox::Entity> child = member.child(entity, *key);
  return child ? member.childShape().toJson(*child) : nlohmann::json();
}

// One watched entity. A node may be destroyed by the callback that it calls, so calling it is the last thing
// that it does.
class TreeWatch::Node {
 public:
  Node(Mox::Ptr<Mox::Entity> entity, const Shape& shape, std::shared_ptr<const Callback> callback,
       const Node* parent, const MemberType* member, const std::string* key)
      : entity_(std::move(entity)),
        shape_(shape),
        callback_(std::move(callback)),
        parent_(parent),
        member_(member),
        key_(key) {
    for (const auto& childMember : shape_.members()) {
      childMember->forEachChild(*entity_, [&](const std::string& childKey, Mox::Entity& child) {
        follow(*childMember, childKey, &child);
      });
    }
    watcher_ = Mox::make<Mox::Watcher>(
        Mox::EventId{0}, true,
        [this](Mox::EventId event, const void* payload) { handleChange(event, payload); });
    entity_->addWatcher(watcher_.get());
  }
  Node(const Node&) = delete;
  Node& operator=(const Node&) = delete;
  ~Node() { entity_->removeWatcher(watcher_.get()); }

 private:
  using Children = std::unordered_map<std::string, std::unique_ptr<Node>>;

  // Brings the node of one child in line with what the collection holds.
  void follow(const MemberType& member, const std::string& key, const Mox::Ptr<Mox::Entity>& child) {
    if (member.childShape().members().empty()) return;
    Children& children = children_[&member];
    const auto at = children.find(key);
    if (at != children.end() && child && at->second->entity_ == child) return;
    if (at != children.end()) children.erase(at);
    if (!child) return;
    const auto place = children.emplace(key, nullptr).first;
    place->second =
        std::make_unique<Node>(child, member.childShape(), callback_, this, &member, &place->first);
  }

  void appendPath(std::string& path) const {
    if (!parent_) return;
    parent_->appendPath(path);
    path += member_->name + "/" + escapedKey(*key_) + "/";
  }

  void handleChange(Mox::EventId event, const void* payload) {
    const MemberType* member = shape_.findEvent(event);
    if (!member) return;
    const std::string key = member->keyOf(payload);
    if (member->hasChildren()) follow(*member, key, member->child(*entity_, key));
    std::string path;
    appendPath(path);
    path += member->name;
    const Mox::Ptr<Mox::Entity> entity = entity_;
    const std::shared_ptr<const Callback> callback = callback_;
    (*callback)(Change{std::move(path), *member, member->isCollection() ? &key : nullptr, *entity});
  }

  const Mox::Ptr<Mox::Entity> entity_;
  const Shape& shape_;
  const std::shared_ptr<const Callback> callback_;
  const Node* const parent_;
  const MemberType* const member_;  // of the parent; null at the root
  const std::string* const key_;
  Mox::Ptr<Mox::Watcher> watcher_;
  std::unordered_map<const MemberType*, Children> children_;
};

TreeWatch::TreeWatch(Mox::Ptr<Mox::Entity> entity, const Shape& shape, Callback callback)
    : root_(std::make_unique<Node>(std::move(entity), shape,
                                   std::make_shared<const Callback>(std::move(callback)), nullptr, nullptr,
                                   nullptr)) {}

TreeWatch::~TreeWatch() = default;

}  // namespace Statedb
