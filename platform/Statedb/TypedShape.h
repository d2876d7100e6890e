#pragma once

#include <optional>
#include <type_traits>

#include "Statedb/Json.h"
#include "Statedb/Merge.h"
#include "Statedb/Shape.h"

// shapeOf<E>() for every entity class with MOX_MEMBERS; one without has an empty shape. Members whose value
// is a counted pointer mean something in this process only and are left out. Include it where types are
// registered, not in models: it instantiates the codec of every member.

namespace Statedb {

template <class E>
concept HasMembers = requires {
  E::moxVisitMembers([](const auto&) {});
};

template <class E, class M>
class TypedMember final : public MemberType {
  using Kind = Mox::MemberKind;
  using Key = typename M::Key;
  using Value = typename M::Value;
  static constexpr bool kAttribute = M::kind == Kind::attribute;
  static constexpr bool kChildren = M::kind == Kind::children || M::kind == Kind::child;

 public:
  explicit TypedMember(const M& member) : MemberType(member.name, M::kind, member.event()), member_(member) {}

  std::string keyOf(const void* payload) const override {
    if constexpr (kAttribute) {
      return {};
    } else {
      return Mox::toStrep(*static_cast<const Key*>(payload));
    }
  }

  nlohmann::json value(const Mox::Entity& entity, std::string_view keyText) const override {
    if constexpr (kChildren) {
      return nullptr;
    } else {
      return withValue<nlohmann::json>(entity, keyText, valueToJson<Value>);
    }
  }

  std::string text(const Mox::Entity& entity, std::string_view keyText) const override {
    if constexpr (kChildren) {
      return {};
    } else {
      return withValue<std::string>(entity, keyText, valueText<Value>);
    }
  }

  void forEachValue(const Mox::Entity& entity,
                    const std::function<void(const std::string&, nlohmann::json)>& visit) const override {
    if constexpr (!kAttribute && !kChildren) {
      const auto& all = member_.get(as(entity));
      for (const auto& element : all)
        visit(Mox::toStrep(all.keyOf(element)), valueToJson<Value>(all.valueOf(element)));
    }
  }

  void forEachChild(const Mox::Entity& entity,
                    const std::function<void(const std::string&, Mox::Entity&)>& visit) const override {
    if constexpr (kChildren) {
      const auto& all = member_.get(as(entity));
      for (const auto& element : all) visit(Mox::toStrep(all.keyOf(element)), *all.valueOf(element));
    }
  }

  void forEachText(const Mox::Entity& entity, const std::optional<std::string>& behind,
                   const TextVisitor& visit) const override {
    if constexpr (!kAttribute && !kChildren) {
      const auto& all = member_.get(as(entity));
      for (auto at = firstBehind(all, behind); at != all.end(); ++at) {
        const bool more = visit(Mox::toStrep(all.keyOf(*at)), valueText<Value>(all.valueOf(*at)));
        if (!more && kOrdered<std::decay_t<decltype(all)>>) return;
      }
    }
  }

  std::optional<Child> nextChild(const Mox::Entity& entity,
                                 const std::optional<std::string>& behind) const override {
    if constexpr (kChildren) {
      const auto& all = member_.get(as(entity));
      if (const auto at = firstBehind(all, behind); at != all.end())
        return Child(Mox::toStrep(all.keyOf(*at)), all.valueOf(*at));
    }
    return std::nullopt;
  }

  std::size_t count(const Mox::Entity& entity) const override {
    if constexpr (kAttribute) {
      return 1;
    } else {
      return member_.get(as(entity)).size();
    }
  }

  Mox::Result<> check(std::string_view keyText, const nlohmann::json& json) const override {
    if constexpr (kAttribute) {
      if (json.is_null()) return {};
      Value value{};
      return mergeValue(json, value);
    } else {
      if (!textToValue<Key>(keyText)) return Mox::Failure{": the key is not " + allowedKey()};
      if (kChildren || json.is_null()) return {};
      if constexpr (M::kind == Kind::set) {
        if (json.is_boolean()) return {};
        return Mox::Failure{": " + describe(json) + " is not true, or false or null to delete"};
      } else if constexpr (!kChildren) {
        Value value{};
        return mergeValue(json, value);
      }
    }
    return {};
  }

  Mox::Result<> merge(Mox::Entity& entity, std::string_view keyText, const nlohmann::json& json,
                      const Mox::Entity* fresh) const override {
    E& e = as(entity);
    if constexpr (kAttribute) {
      Value value = json.is_null() ? (fresh ? member_.get(as(*fresh)) : Value{}) : member_.get(e);
      if (!json.is_null()) {
        if (auto merged = mergeValue(json, value); !merged) return merged;
      }
      member_.set(e, std::move(value));
    } else if constexpr (!kChildren) {
      const auto key = textToValue<Key>(keyText);
      if (!key || (M::kind == Kind::set && !json.is_boolean() && !json.is_null())) {
        return check(keyText, json);
      }
      if (json.is_null() || (M::kind == Kind::set && !json.template get<bool>())) {
        member_.del(e, *key);
      } else if constexpr (M::kind == Kind::set) {
        member_.set(e, *key);
      } else {
        const Value* old = member_.get(e).find(*key);
        Value value = old ? *old : Value{};
        if (auto merged = mergeValue(json, value); !merged) return merged;
        member_.set(e, *key, std::move(value));
      }
    }
    return {};
  }

  void erase(Mox::Entity& entity, std::string_view keyText) const override {
    if constexpr (!kAttribute) {
      if (const auto key = textToValue<Key>(keyText)) member_.del(as(entity), *key);
    }
  }

  void eraseAll(Mox::Entity& entity) const override {
    if constexpr (!kAttribute) {
      const auto& all = member_.get(as(entity));
      std::vector<Key> keys;
      keys.reserve(all.size());
      for (const auto& element : all) keys.push_back(all.keyOf(element));
      for (const Key& key : keys) member_.del(as(entity), key);
    }
  }

  Mox::Ptr<Mox::Entity> child(const Mox::Entity& entity, std::string_view keyText) const override {
    if constexpr (kChildren) {
      if (const auto key = textToValue<Key>(keyText)) {
        if (const auto* child = member_.get(as(entity)).find(*key)) return *child;
      }
    }
    return {};
  }

  Mox::Ptr<Mox::Entity> childIs(Mox::Entity& entity, std::string_view keyText) const override {
    if constexpr (kChildren && std::is_constructible_v<Value, const Key&>) {
      if (const auto key = textToValue<Key>(keyText)) return member_.set(as(entity), *key);
      return {};
    } else {
      return child(entity, keyText);
    }
  }

  Mox::Ptr<Mox::Entity> freshChild(std::string_view keyText) const override {
    if constexpr (M::kind == Kind::child) {
      return Mox::make<Value>();
    } else if constexpr (kChildren && std::is_constructible_v<Value, const Key&>) {
      if (const auto key = textToValue<Key>(keyText)) return Mox::make<Value>(*key);
    }
    return {};
  }

  bool makesChildren() const override { return kChildren && std::is_constructible_v<Value, const Key&>; }

  const Shape& childShape() const override {
    if constexpr (kChildren) {
      return shapeOf<Value>();
    } else {
      static const Shape none;
      return none;
    }
  }

 private:
  // The result's default where there is none.
  template <class Result, class Make>
  Result withValue(const Mox::Entity& entity, std::string_view keyText, const Make& make) const {
    if constexpr (kAttribute) {
      return make(member_.get(as(entity)));
    } else {
      if (const auto key = textToValue<Key>(keyText)) {
        if (const Value* value = member_.get(as(entity)).find(*key)) return make(*value);
      }
      return {};
    }
  }
  template <class Container>
  static constexpr bool kOrdered = requires(const Container& all, const Key& key) {
    all.lowerBound(key);
  };
  template <class Container>
  static auto firstBehind(const Container& all, const std::optional<std::string>& behind) {
    if (!behind) return all.begin();
    if constexpr (kOrdered<Container>) {
      if (const auto key = textToValue<Key>(*behind)) {
        auto at = all.lowerBound(*key);
        if (at != all.end() && all.keyOf(*at) == *key) ++at;
        return at;
      }
    }
    return all.end();
  }
  static const E& as(const Mox::Entity& entity) { return static_cast<const E&>(entity); }
  static E& as(Mox::Entity& entity) { return static_cast<E&>(entity); }
  // A key is text whatever its type is in JSON.
  static std::string allowedKey() {
    if constexpr (Mox::HasFields<Key>) {
      std::string parts;
      std::apply(
          [&](const auto&... field) { ((parts += (parts.empty() ? "\"" : " ") + upper(field.name)), ...); },
          Key::moxFields());
      return parts + "\"";
    } else {
      return allowedFor<Key>();
    }
  }
  static std::string upper(std::string text) {
    for (char& c : text) c = c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
    return text;
  }

  const M member_;
};

template <class E>
const Shape& shapeOf() {
  static const Shape shape = [] {
    Shape::Members members;
    if constexpr (HasMembers<E>) {
      Mox::forEachMember<E>([&]<class M>(const M& member) {
        if constexpr (!isReference<typename M::Value>)
          members.push_back(std::make_unique<TypedMember<E, M>>(member));
      });
    }
    return Shape(std::move(members));
  }();
  return shape;
}

}  // namespace Statedb
