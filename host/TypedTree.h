#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>

#include "Mox/Attribute.h"
#include "Statedb/Json.h"
#include "Statedb/TypedShape.h"
#include "host/SharedTables.h"

// Dump of an entity of the state tree, whose collections may be as large as a table. Included where types are
// registered only, like host/TypedTable.h.

namespace Host {

// A walk between slices keeps its place by key, and follows the entity and the children it is in, not
// pointers into their collections.
template <class E>
class TreeDump final : public Dump {
 public:
  explicit TreeDump(Mox::Ptr<const E> entity) : entity_(std::move(entity)) {}

  bool step(std::size_t maxEntries, std::string& text) override {
    std::size_t left = maxEntries;
    return walk(left, text);
  }

  // As `step`; takes the entries that it wrote from `left`.
  bool walk(std::size_t& left, std::string& text) {
    if (ended_) return false;
    if (!begun_) text += '{';
    begun_ = true;
    if constexpr (Statedb::HasMembers<E>) {
      std::size_t index = 0;
      Mox::forEachMember<E>([&]<class M>(const M& member) {
        if constexpr (!Statedb::isReference<typename M::Value>) {
          if (index++ == member_ && left != 0) walkMember(member, left, text);
        }
      });
      if (member_ < index) return true;
    }
    text += '}';
    ended_ = true;
    return false;
  }

 private:
  template <class M>
  void walkMember(const M& member, std::size_t& left, std::string& text) {
    if (!inMember_) text += std::string(member_ == 0 ? "" : ",") + "\"" + member.name + "\":";
    if constexpr (M::kind == Mox::MemberKind::attribute) {
      Statedb::appendValueText<typename M::Value>(text, member.get(*entity_));
      --left;
    } else if constexpr (M::kind == Mox::MemberKind::child) {
      if (!inMember_) child_ = std::make_unique<Child<typename M::Value>>(member.get(*entity_).child);
      inMember_ = true;
      if (!finishChild(left, text)) return;
      wasChild_ = false;
    } else {
      if (!inMember_) text += '{';
      first_ = first_ || !inMember_;
      inMember_ = true;
      if (walkCollection(member, left, text)) return;
      text += '}';
    }
    inMember_ = false;
    first_ = false;
    bookmark_.reset();
    ++member_;
  }

  // True while there is more.
  template <class M>
  bool walkCollection(const M& member, std::size_t& left, std::string& text) {
    using Key = typename M::Key;
    const auto& all = member.get(*entity_);
    if constexpr (!requires(Key key) { all.lowerBound(key); }) {
      for (const auto& element : all) entry(member, all.keyOf(element), all.valueOf(element), left, text);
      return false;
    } else {
      auto at = all.begin();
      if (bookmark_) {
        const Key key = *std::static_pointer_cast<Key>(bookmark_);
        if (!finishChild(left, text)) return true;
        at = all.lowerBound(key);
        // The child that was in hand is done by now.
        if (wasChild_ && at != all.end() && all.keyOf(*at) == key) ++at;
        wasChild_ = false;
      }
      for (; at != all.end(); ++at) {
        const Key key = all.keyOf(*at);
        bookmark_ = std::make_shared<Key>(key);
        if (left == 0) return true;
        entry(member, key, all.valueOf(*at), left, text);
        if (!finishChild(left, text)) return true;
        wasChild_ = false;
      }
      return false;
    }
  }

  template <class M, class Key, class Value>
  void entry(const M&, const Key& key, const Value& value, std::size_t& left, std::string& text) {
    if (!first_) text += ',';
    first_ = false;
    Statedb::appendJsonText(text, Mox::toStrep(key));
    text += ':';
    if constexpr (M::kind == Mox::MemberKind::children) {
      child_ = std::make_unique<Child<typename M::Value>>(value);
    } else if constexpr (M::kind == Mox::MemberKind::set) {
      text += "true";
    } else {
      Statedb::appendValueText<typename M::Value>(text, value);
    }
    left -= left != 0 ? 1 : 0;
  }

  bool finishChild(std::size_t& left, std::string& text) {
    if (!child_) return true;
    wasChild_ = true;
    if (child_->walk(left, text)) return false;
    child_.reset();
    return true;
  }

  struct ChildBase {
    virtual ~ChildBase() = default;
    virtual bool walk(std::size_t& left, std::string& text) = 0;
  };
  template <class C>
  struct Child final : ChildBase {
    explicit Child(Mox::Ptr<const C> entity) : dump(std::move(entity)) {}
    bool walk(std::size_t& left, std::string& text) override { return dump.walk(left, text); }
    TreeDump<C> dump;
  };

  const Mox::Ptr<const E> entity_;
  bool begun_ = false;
  bool ended_ = false;
  std::size_t member_ = 0;  // in hand, in the order of the class
  bool inMember_ = false;
  bool first_ = true;               // nothing of the collection in hand was written
  std::shared_ptr<void> bookmark_;  // the key of that collection that is next, or in hand
  std::unique_ptr<ChildBase> child_;
  bool wasChild_ = false;
};

}  // namespace Host
