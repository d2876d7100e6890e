#pragma once

#include <string>
#include <type_traits>
#include <utility>

#include "Mox/Entity.h"
#include "Mox/Error.h"
#include "Mox/HashTable.h"
#include "Mox/Map.h"
#include "Mox/SmallMap.h"

// Declarations of an entity's members, one line each. `x` stands for the declared name.
//
//   MOX_ATTRIBUTE(Type, x, initial...)   x()  xIs(value)
//   MOX_MAP(Key, Value, x)               x(key) → Value (a default one when absent)  xIs(key, value)
//   MOX_HASH(Key, Value, x)              the same, in hash order, for large tables
//   MOX_SMALL_MAP(Key, Value, x)         the same, in order of arrival, for mostly one member
//   MOX_SET(Key, x)                      xIs(key)
//   MOX_CHILDREN(Key, Child, x)          x(key) → Ptr<Child>, null when absent
//                                        xIs(key, args...) finds, or makes Child(key, args...)
//   MOX_HASH_CHILDREN(Key, Child, keyOf, x)   the same, in hash order; keyOf: the child's reader of its key
//   MOX_CHILD(Child, x)                  x() → Ptr<Child>, never null and always the same
//
// Every collection has xHas(key), xDel(key), xDelAll(), the count xs(), and xCollection() to iterate. xIs on
// an equal value does nothing. xDel returns what was removed (a child) or whether anything was (otherwise).
// xDelAll removes everything, then notifies each key.
//
// xChanged is the event that a Notifiee watches: the attribute's type or the collection's key.
//
// MOX_MEMBERS(a, b, ...) lists the members that make up the entity for those who walk it at compile time
// (state store, JSON, dumps): forEachMember<Entity>(visitor) calls the visitor with a description of each, in
// that order.

namespace Mox {

enum class MemberKind { attribute, map, set, children, child };

// What forEachMember hands out. The functions take the entity first:
//   attribute: get(e), set(e, value)
//   others:    get(e) → the container (keyOf, valueOf, find; lowerBound but for small maps), del(e, key)
//   map:       set(e, key, value)
//   set:       set(e, key)
//   children:  set(e, key) → Ptr<Child>
//   child:     the same; it is the one member of a container, under the key "", and stays when it is deleted
template <MemberKind K, class KeyT, class ValueT, class Get, class Set, class Del>
struct Member {
  static constexpr MemberKind kind = K;
  using Key = KeyT;
  using Value = ValueT;
  const char* name;
  Get get;
  Set set;
  Del del;
  constexpr EventId event() const { return eventId(name); }
};

template <MemberKind K, class Key, class Value, class Get, class Set, class Del>
constexpr auto member(const char* name, Get get, Set set, Del del) {
  return Member<K, Key, Value, Get, Set, Del>{name, get, set, del};
}

// A container of one child.
template <class Child>
struct OneChild {
  const Ptr<Child> child = make<Child>();
  const Ptr<Child>* begin() const { return &child; }
  const Ptr<Child>* end() const { return begin() + 1; }
  const Ptr<Child>* find(const std::string& key) const { return key.empty() ? begin() : nullptr; }
  std::size_t size() const { return 1; }
  static std::string keyOf(const Ptr<Child>&) { return {}; }
  static const Ptr<Child>& valueOf(const Ptr<Child>& element) { return element; }
};

template <class E, class Visitor>
void forEachMember(Visitor&& visitor) {
  E::moxVisitMembers(visitor);
}

// Throws when a child is asked for again with other construction values; a child type that cares has
// `bool madeWith(args...) const`.
template <class Child, class... Args>
void requireSameInstance(const char* name, const Child& child, const Args&... args) {
  if constexpr (requires { child.madeWith(args...); }) {
    if (!child.madeWith(args...))
      throw ReinstantiationError(std::string(name) + " exists with other construction values");
  }
}

}  // namespace Mox

#define MOX_ATTRIBUTE(Type, x, ...)                                    \
 private:                                                              \
  Type x##_{__VA_ARGS__};                                              \
                                                                       \
 public:                                                               \
  static constexpr ::Mox::Event<Type> x##Changed{#x};                  \
  const Type& x() const { return x##_; }                               \
  void x##Is(Type value) {                                             \
    if (x##_ == value) return;                                         \
    x##_ = std::move(value);                                           \
    this->notify(x##Changed, x##_);                                    \
  }                                                                    \
  static constexpr auto x##Member() {                                  \
    return ::Mox::member<::Mox::MemberKind::attribute, Type, Type>(    \
        #x, [](const auto& e) -> const Type& { return e.x(); },        \
        [](auto& e, Type v) { e.x##Is(std::move(v)); }, [](auto&) {}); \
  }

#define MOX_COLLECTION_COMMON(Key, Container, x)                          \
 private:                                                                 \
  Container x##_;                                                         \
                                                                          \
 public:                                                                  \
  static constexpr ::Mox::Event<Key> x##Changed{#x};                      \
  const Container& x##Collection() const { return x##_; }                 \
  bool x##Has(const Key& key) const { return x##_.find(key) != nullptr; } \
  std::size_t x##s() const { return x##_.size(); }                        \
  void x##DelAll() {                                                      \
    Container gone;                                                       \
    gone.swap(x##_);                                                      \
    this->notifyEach(x##Changed, gone);                                   \
  }

#define MOX_VALUES_COMMON(KeyT, ValueT, Container, x)                            \
  MOX_COLLECTION_COMMON(KeyT, Container, x)                                      \
  ValueT x(const KeyT& key) const {                                              \
    if (const auto* value = x##_.find(key)) return *value;                       \
    return {};                                                                   \
  }                                                                              \
  void x##Is(const KeyT& key, ValueT value) {                                    \
    if (auto* old = x##_.find(key)) {                                            \
      if (*old == value) return;                                                 \
      *old = std::move(value);                                                   \
    } else {                                                                     \
      x##_.insert(key, std::move(value));                                        \
    }                                                                            \
    this->notify(x##Changed, key);                                               \
  }                                                                              \
  bool x##Del(KeyT key) {                                                        \
    if (!x##_.find(key)) return false;                                           \
    x##_.take(key);                                                              \
    this->notify(x##Changed, key);                                               \
    return true;                                                                 \
  }                                                                              \
  static constexpr auto x##Member() {                                            \
    return ::Mox::member<::Mox::MemberKind::map, KeyT, ValueT>(                  \
        #x, [](const auto& e) -> const Container& { return e.x##Collection(); }, \
        [](auto& e, const KeyT& k, ValueT v) { e.x##Is(k, std::move(v)); },      \
        [](auto& e, const KeyT& k) { e.x##Del(k); });                            \
  }

#define MOX_MAP(Key, Value, x)                 \
 public:                                       \
  using x##Container = ::Mox::Map<Key, Value>; \
  MOX_VALUES_COMMON(Key, Value, x##Container, x)

#define MOX_HASH(Key, Value, x)                    \
 public:                                           \
  using x##Container = ::Mox::HashMap<Key, Value>; \
  MOX_VALUES_COMMON(Key, Value, x##Container, x)

#define MOX_SMALL_MAP(Key, Value, x)                \
 public:                                            \
  using x##Container = ::Mox::SmallMap<Key, Value>; \
  MOX_VALUES_COMMON(Key, Value, x##Container, x)

#define MOX_SET(KeyT, x)                                                                          \
 public:                                                                                          \
  using x##Container = ::Mox::Map<KeyT, bool>;                                                    \
  MOX_COLLECTION_COMMON(KeyT, x##Container, x)                                                    \
  void x##Is(const KeyT& key) {                                                                   \
    if (x##_.find(key)) return;                                                                   \
    x##_.insert(key, true);                                                                       \
    this->notify(x##Changed, key);                                                                \
  }                                                                                               \
  bool x##Del(KeyT key) {                                                                         \
    if (!x##_.find(key)) return false;                                                            \
    x##_.take(key);                                                                               \
    this->notify(x##Changed, key);                                                                \
    return true;                                                                                  \
  }                                                                                               \
  static constexpr auto x##Member() {                                                             \
    return ::Mox::member<::Mox::MemberKind::set, KeyT, bool>(                                     \
        #x, [](const auto& e) -> const x##Container& { return e.x##Collection(); },               \
        [](auto& e, const KeyT& k) { e.x##Is(k); }, [](auto& e, const KeyT& k) { e.x##Del(k); }); \
  }

#define MOX_CHILDREN_COMMON(KeyT, Child, Container, x)                                                   \
  MOX_COLLECTION_COMMON(KeyT, Container, x)                                                              \
  ::Mox::Ptr<Child> x(const KeyT& key) const {                                                           \
    const ::Mox::Ptr<Child>* child = x##_.find(key);                                                     \
    return child ? *child : ::Mox::Ptr<Child>();                                                         \
  }                                                                                                      \
  template <class... Args>                                                                               \
  ::Mox::Ptr<Child> x##Is(const KeyT& key, Args&&... args) {                                             \
    if (const ::Mox::Ptr<Child>* child = x##_.find(key)) {                                               \
      ::Mox::requireSameInstance(#x, **child, args...);                                                  \
      return *child;                                                                                     \
    }                                                                                                    \
    ::Mox::Ptr<Child> child = ::Mox::make<Child>(key, std::forward<Args>(args)...);                      \
    x##_.insert(key, child);                                                                             \
    this->notify(x##Changed, key);                                                                       \
    return child;                                                                                        \
  }                                                                                                      \
  ::Mox::Ptr<Child> x##Del(KeyT key) {                                                                   \
    if (!x##_.find(key)) return {};                                                                      \
    ::Mox::Ptr<Child> gone = x##_.take(key);                                                             \
    this->notify(x##Changed, key);                                                                       \
    return gone;                                                                                         \
  }                                                                                                      \
  static constexpr auto x##Member() {                                                                    \
    return ::Mox::member<::Mox::MemberKind::children, KeyT, Child>(                                      \
        #x, [](const auto& e) -> const Container& { return e.x##Collection(); },                         \
        [](auto& e, const KeyT& k) { return e.x##Is(k); }, [](auto& e, const KeyT& k) { e.x##Del(k); }); \
  }

#define MOX_CHILDREN(Key, Child, x)                        \
 public:                                                   \
  using x##Container = ::Mox::Map<Key, ::Mox::Ptr<Child>>; \
  MOX_CHILDREN_COMMON(Key, Child, x##Container, x)

#define MOX_HASH_CHILDREN(Key, Child, keyOfChild, x)                                            \
 public:                                                                                        \
  struct x##KeyOf {                                                                             \
    const Key& operator()(const ::Mox::Ptr<Child>& child) const { return child->keyOfChild(); } \
  };                                                                                            \
  using x##Container = ::Mox::HashChildren<Key, ::Mox::Ptr<Child>, x##KeyOf>;                   \
  MOX_CHILDREN_COMMON(Key, Child, x##Container, x)

#define MOX_CHILD(Child, x)                                                                   \
 private:                                                                                     \
  const ::Mox::OneChild<Child> x##_{};                                                        \
                                                                                              \
 public:                                                                                      \
  const ::Mox::Ptr<Child>& x() const { return x##_.child; }                                   \
  static constexpr auto x##Member() {                                                         \
    return ::Mox::member<::Mox::MemberKind::child, std::string, Child>(                       \
        #x, [](const auto& e) -> const ::Mox::OneChild<Child>& { return e.x##_; },            \
        [](auto& e, const std::string&) { return e.x(); }, [](auto&, const std::string&) {}); \
  }

#define MOX_PARENS ()
#define MOX_EXPAND(...) MOX_EXPAND2(MOX_EXPAND2(MOX_EXPAND2(__VA_ARGS__)))
#define MOX_EXPAND2(...) MOX_EXPAND1(MOX_EXPAND1(MOX_EXPAND1(__VA_ARGS__)))
#define MOX_EXPAND1(...) __VA_ARGS__
#define MOX_VISIT(x, ...) \
  visitor(x##Member());   \
  __VA_OPT__(MOX_VISIT_AGAIN MOX_PARENS(__VA_ARGS__))
#define MOX_VISIT_AGAIN() MOX_VISIT

#define MOX_MEMBERS(...)                                            \
 public:                                                            \
  template <class Visitor>                                          \
  static void moxVisitMembers([[maybe_unused]] Visitor&& visitor) { \
    __VA_OPT__(MOX_EXPAND(MOX_VISIT(__VA_ARGS__)))                  \
  }
