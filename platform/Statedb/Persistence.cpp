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
      report_(std::move(report)),
      journal_(store.journal(path_)),
      content_("", type.shape, entity_, type.make()) {}

bool Persistence::load(const std::function<bool()>& mustYield) {
  if (watch_) return false;
  Journal::Operation operation;
  Journal::Step step{};
  while ((step = journal_->next(operation)) == Journal::Step::operation) {
    take(operation);
    if (mustYield()) return true;
  }
  if (step == Journal::Step::damaged) startEmpty();
  if (dropped_ != 0) journal_->rewrite();
  if (dropped_ > kMaxReports)
    report_(path_ + ": " + std::to_string(dropped_) + " stored members were dropped in all");
  watch_ = std::make_unique<TreeWatch>(entity_, type_.shape,
                                       [this](const Change& change) { handleChange(change); });
  return false;
}

void Persistence::take(const Journal::Operation& operation) {
  Mox::Result<> loaded;
  try {
    loaded = loadPair(operation.key, operation.value);
  } catch (const Mox::Error& error) {  // of a watcher: the value itself is in the entity
    report_(path_ + ": stored member " + describe(operation.key) + ": " + error.what());
    return;
  }
  if (loaded || !operation.value) return;  // what is not there need not be erased
  if (dropped_++ < kMaxReports)
    report_(path_ + ": stored member " + describe(operation.key) + " is dropped: " + loaded.error());
}

void Persistence::startEmpty() {
  nlohmann::json nothing = nlohmann::json::object();
  for (const auto& member : type_.shape.members()) {
    if (member->kind != Mox::MemberKind::child) {
      nothing[member->name] = nullptr;
      continue;
    }
    for (const auto& part : member->childShape().members()) nothing[member->name][part->name] = nullptr;
  }
  auto plan = type_.planMerge(entity_, std::move(nothing), path_);
  try {
    if (plan) plan->apply();
  } catch (const Mox::Error& error) {  // of a watcher: all is emptied
    report_(path_ + ": " + error.what());
  }
}

void Persistence::stop() {
  watch_.reset();
  journal_.reset();
}

Mox::Result<> Persistence::loadPair(std::string_view key, const std::optional<std::string_view>& value) {
  const std::vector<std::string> parts = memberPathParts(key);
  nlohmann::json json;
  if (value) {
    std::optional<nlohmann::json> parsed = jsonOf(*value);
    if (!parsed || parsed->is_null()) return Mox::Failure{"its value is not JSON"};
    json = std::move(*parsed);
  }
  Mox::Ptr<Mox::Entity> entity = entity_;
  const Shape* shape = &type_.shape;
  const MemberType* parent = nullptr;
  for (std::size_t i = 0; i < parts.size(); i += 2) {
    const MemberType* member = shape->find(parts[i]);
    const std::size_t left = parts.size() - i;
    if (!member || (member->isCollection() ? left < 2 : left != 1)) break;
    if (left == 1) {
      Mox::Ptr<Mox::Entity> fresh;  // an attribute without a pair has its default
      if (!value) fresh = parent ? parent->freshChild(parts[i - 1]) : type_.make();
      return within(member->name, member->merge(*entity, {}, json, fresh.get()));
    }
    if (!member->hasChildren()) {
      if (left != 2) break;
      return within(member->name, member->merge(*entity, parts[i + 1], json, nullptr));
    }
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
    parent = member;
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
  if (const auto loaded = loadPair(key, value); !loaded)
    report_(path_ + ": outside change of " + describe(key) + " is not taken: " + loaded.error());
}

void Persistence::handleChange(const Change& change) {
  const std::string key = change.key ? change.memberPath + "/" + escapedKey(*change.key) : change.memberPath;
  const bool fromOutside = outsideKey_ && *outsideKey_ == key;
  if (!change.member.hasChildren()) {
    // What came from the store is not written back; what a watcher made of it is.
    if (fromOutside && change.value() == (*outsideValue_ ? jsonOf(**outsideValue_) : nlohmann::json()))
      return;
    const std::string text = change.member.text(change.entity, change.key ? *change.key : std::string());
    if (text.empty()) {
      journal_->erase(key);
    } else {
      journal_->write(key, text);
    }
    return;
  }
  const Mox::Ptr<Mox::Entity> child = change.member.child(change.entity, *change.key);
  if (fromOutside && static_cast<bool>(child) == outsideValue_->has_value()) return;
  // A child of that key may have been replaced unseen, between two notifications: nothing of the old one
  // stays.
  journal_->erase(key);
  if (!child) return;
  journal_->write(key, "{}");
  ContentWalk content(key + "/", change.member.childShape(), child, change.member.freshChild(*change.key));
  content.read([&](std::string_view memberKey, std::string_view value) {
    journal_->write(memberKey, value);
    return true;
  });
}

}  // namespace Statedb
