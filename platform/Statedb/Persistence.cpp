#include "Statedb/Persistence.h"

#include "Statedb/Json.h"
#include "Statedb/Path.h"

namespace Statedb {

namespace {
// Of one load; a store full of garbage must not fill the log.
constexpr std::size_t kMaxReports = 10;
}  // namespace

Persistence::Persistence(Mox::Ptr<Mox::Entity> entity, const EntityType& type, std::string path, Store& store,
                         Report report)
    : entity_(std::move(entity)),
      type_(type),
      path_(std::move(path)),
      store_(store),
      report_(std::move(report)) {}

bool Persistence::load(const std::function<bool()>& mustYield) {
  if (watch_) return false;
  bool more = false;
  store_.load(path_, loadedTo_, [&](std::string_view key, std::string_view value) {
    loadedTo_ = key;
    take(*loadedTo_, std::string(value));
    more = mustYield();
    return !more;
  });
  if (more) return true;
  if (dropped_ > kMaxReports)
    report_(path_ + ": " + std::to_string(dropped_) + " stored members were dropped in all");
  watch_ = std::make_unique<TreeWatch>(entity_, type_.shape,
                                       [this](const Change& change) { handleChange(change); });
  return false;
}

void Persistence::take(const std::string& key, const std::string& value) {
  Mox::Result<> loaded;
  try {
    loaded = loadPair(key, &value);
  } catch (const Mox::Error& error) {  // of a watcher: the value itself is in the entity
    report_(path_ + ": stored member " + describe(key) + ": " + error.what());
    return;
  }
  if (loaded) return;
  store_.erase(path_, key);
  if (dropped_++ < kMaxReports)
    report_(path_ + ": stored member " + describe(key) + " is dropped: " + loaded.error());
}

Mox::Result<> Persistence::loadPair(const std::string& key, const std::string* value) {
  const std::vector<std::string> parts = memberPathParts(key);
  nlohmann::json json;
  if (value) {
    std::optional<nlohmann::json> parsed = jsonOf(*value);
    if (!parsed || parsed->is_null()) return Mox::Failure{"its value is not JSON"};
    json = std::move(*parsed);
  }
  Mox::Ptr<Mox::Entity> entity = entity_;
  const Shape* shape = &type_.shape;
  Mox::Ptr<Mox::Entity> fresh;
  if (!value) fresh = type_.make();  // an attribute without a pair has its default
  for (std::size_t i = 0; i < parts.size(); i += 2) {
    const MemberType* member = shape->find(parts[i]);
    const std::size_t left = parts.size() - i;
    if (!member || (member->isCollection() ? left < 2 : left != 1)) break;
    if (left <= 2 && (left == 1 || !member->hasChildren())) {
      const std::string memberKey = left == 2 ? parts[i + 1] : std::string();
      return within(member->name, member->merge(*entity, memberKey, json, fresh.get()));
    }
    if (!member->hasChildren()) break;
    if (left == 2) {
      if (!value) {
        member->erase(*entity, parts[i + 1]);
        return {};
      }
      const auto checked = member->check(parts[i + 1], json);
      if (checked && !member->childIs(*entity, parts[i + 1]))
        return Mox::Failure{"no child can be made for this key"};
      return within(member->name, checked);
    }
    entity = member->child(*entity, parts[i + 1]);
    if (!entity) return Mox::Failure{"the child that it belongs to is not there"};
    shape = &member->childShape();
    if (!value) fresh = member->freshChild(parts[i + 1]);
  }
  return Mox::Failure{"there is no such member"};
}

void Persistence::handleOutsideChange(const std::string& key, const std::optional<std::string>& value) {
  struct Taking {
    Taking(Persistence& p, const std::string& key, const std::optional<std::string>& value) : p(p) {
      p.outsideKey_ = &key;
      p.outsideValue_ = &value;
    }
    ~Taking() { p.outsideKey_ = nullptr; }
    Persistence& p;
  } taking(*this, key, value);
  if (const auto loaded = loadPair(key, value ? &*value : nullptr); !loaded)
    report_(path_ + ": outside change of " + describe(key) + " is not taken: " + loaded.error());
}

void Persistence::handleChange(const Change& change) {
  const std::string key = change.key ? change.memberPath + "/" + escapedKey(*change.key) : change.memberPath;
  const bool fromOutside = outsideKey_ && *outsideKey_ == key;
  if (!change.member.hasChildren()) {
    // What came from the store is not written back; what a watcher made of it is.
    if (fromOutside && change.value() == (*outsideValue_ ? jsonOf(**outsideValue_) : nlohmann::json()))
      return;
    std::string text = change.member.text(change.entity, change.key ? *change.key : std::string());
    if (text.empty()) {
      store_.erase(path_, key);
    } else {
      store_.write(path_, key, std::move(text));
    }
    return;
  }
  const Mox::Ptr<Mox::Entity> child = change.member.child(change.entity, *change.key);
  if (fromOutside && static_cast<bool>(child) == outsideValue_->has_value()) return;
  // A child of that key may have been replaced unseen, between two notifications: nothing of the old one
  // stays.
  store_.erasePath(path_, key + "/");
  if (!child) {
    store_.erase(path_, key);
    return;
  }
  store_.write(path_, key, "{}");
  writeContent(key + "/", change.member.childShape(), *child, change.member.freshChild(*change.key).get());
}

void Persistence::writeContent(const std::string& prefix, const Shape& shape, const Mox::Entity& entity,
                               const Mox::Entity* fresh) {
  for (const auto& member : shape.members()) {
    if (!member->isCollection()) {
      const nlohmann::json value = member->value(entity, {});
      if (!fresh || value != member->value(*fresh, {}))
        store_.write(path_, prefix + member->name, jsonText(value));
      continue;
    }
    const std::string keyPrefix = prefix + member->name + "/";
    member->forEachValue(entity, [&](const std::string& key, const nlohmann::json& value) {
      store_.write(path_, keyPrefix + escapedKey(key), jsonText(value));
    });
    member->forEachChild(entity, [&](const std::string& key, const Mox::Entity& child) {
      if (member->kind != Mox::MemberKind::child) store_.write(path_, keyPrefix + escapedKey(key), "{}");
      writeContent(keyPrefix + escapedKey(key) + "/", member->childShape(), child,
                   member->freshChild(key).get());
    });
  }
}

}  // namespace Statedb
