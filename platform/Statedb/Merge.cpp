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

// `existing` is null below a child that is still to be made. `problem` is built from the inside out.
bool checkEntity(const Shape& shape, const Mox::Entity* existing, const nlohmann::json& json,
                 std::string& problem) {
  if (!json.is_object()) {
    problem = ": " + describe(json) + " is not an object of " + shape.names();
    return false;
  }
  for (auto item = json.begin(); item != json.end(); ++item) {
    const MemberType* member = shape.find(item.key());
    if (!member) {
      problem = ": unknown key " + describe(item.key()) + "; allowed: " + shape.names();
      return false;
    }
    const nlohmann::json& value = item.value();
    if (!member->isCollection()) {
      if (member->check({}, value, problem)) continue;
      problem = "." + member->name + problem;
      return false;
    }
    if (value.is_null()) continue;
    if (!value.is_object()) {
      problem =
          "." + member->name + ": " + describe(value) + " is not an object by key, or null to delete all";
      return false;
    }
    for (auto entry = value.begin(); entry != value.end(); ++entry) {
      bool good = member->check(entry.key(), entry.value(), problem);
      if (good && member->kind == Mox::MemberKind::children && !entry.value().is_null()) {
        const Mox::Ptr<Mox::Entity> child = existing ? member->child(*existing, entry.key()) : nullptr;
        good = child || member->makesChildren();
        if (!good) {
          problem = ": does not exist and cannot be made by its key alone";
        } else {
          good = checkEntity(member->childShape(), child.get(), entry.value(), problem);
        }
      }
      if (good) continue;
      problem = "." + member->name + inBrackets(entry.key()) + problem;
      return false;
    }
  }
  return true;
}

class Applier {
 public:
  void entity(Mox::Entity& entity, const Shape& shape, const Mox::Entity* fresh, const nlohmann::json& json) {
    for (auto item = json.begin(); item != json.end(); ++item) {
      const MemberType& member = *shape.find(item.key());
      const nlohmann::json& value = item.value();
      if (!member.isCollection()) {
        guarded([&] { member.merge(entity, {}, value, fresh, problem_); });
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
    if (member.kind != Mox::MemberKind::children) {
      guarded([&] { member.merge(entity, key, value, nullptr, problem_); });
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
  template <class Write>
  void guarded(Write write) {
    try {
      write();
    } catch (const Mox::Error&) {
      if (!first_) first_ = std::current_exception();
    }
  }
  std::exception_ptr first_;
  std::string problem_;  // stays empty: all of it was checked
};

}  // namespace

Plan::Plan(Mox::Ptr<Mox::Entity> entity, const Shape& shape, Mox::Ptr<Mox::Entity> fresh, nlohmann::json json,
           const std::string& path)
    : entity_(std::move(entity)),
      shape_(&shape),
      fresh_(std::move(fresh)),
      json_(std::make_unique<nlohmann::json>(std::move(json))) {
  std::string problem;
  if (checkEntity(shape, entity_.get(), *json_, problem)) return;
  error_ = path + (problem.starts_with(".") ? ": " + problem.substr(1) : problem);
}

Plan::Plan(Plan&&) noexcept = default;
Plan& Plan::operator=(Plan&&) noexcept = default;
Plan::~Plan() = default;

void Plan::apply() {
  if (!error_.empty() || !json_) return;
  const std::unique_ptr<nlohmann::json> json = std::move(json_);
  const Mox::Ptr<Mox::Entity> entity = std::move(entity_);
  const Mox::Ptr<Mox::Entity> fresh = std::move(fresh_);
  Applier applier;
  applier.entity(*entity, *shape_, fresh.get(), *json);
  applier.finish();
}

}  // namespace Statedb
