#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <type_traits>
#include <utility>

namespace Mox {

// Key → value in order of arrival, for collections that mostly have one member: the first lies inside the
// object. Look-up is linear. Updating a value keeps its place; removing another keeps the order. Elements
// must be trivially copyable.
template <class Key, class Value>
class SmallMap {
 public:
  struct Element {
    Key key{};
    Value value{};
  };
  static_assert(std::is_trivially_copyable_v<Key> && std::is_trivially_copyable_v<Value>);
  using const_iterator = const Element*;

  static const Key& keyOf(const Element& element) { return element.key; }
  static const Value& valueOf(const Element& element) { return element.value; }

  SmallMap() = default;
  SmallMap(const SmallMap&) = delete;
  SmallMap& operator=(const SmallMap&) = delete;

  const_iterator begin() const { return many_ ? many_.get() : &one_; }
  const_iterator end() const { return begin() + count_; }
  std::size_t size() const { return count_; }
  bool empty() const { return count_ == 0; }

  const Value* find(const Key& key) const {
    for (const Element& element : *this) {
      if (element.key == key) return &element.value;
    }
    return nullptr;
  }
  Value* find(const Key& key) { return const_cast<Value*>(std::as_const(*this).find(key)); }

  // The element must not be there yet.
  Value& insert(const Key& key, Value value) {
    const std::uint32_t capacity = many_ ? capacity_ : 1;
    if (count_ == capacity) {
      auto larger = std::make_unique<Element[]>(std::size_t{capacity} * 2);
      for (std::uint32_t i = 0; i < count_; ++i) larger[i] = begin()[i];
      many_ = std::move(larger);
      capacity_ = capacity * 2;
    }
    Element& element = data()[count_++];
    element = {key, value};
    return element.value;
  }
  // The element must be there.
  Value take(const Key& key) {
    std::uint32_t at = 0;
    while (!(data()[at].key == key)) ++at;
    const Value value = data()[at].value;
    for (--count_; at < count_; ++at) data()[at] = data()[at + 1];
    if (count_ <= 1 && many_) {
      one_ = many_[0];
      many_.reset();
    }
    return value;
  }
  void swap(SmallMap& other) {
    std::swap(one_, other.one_);
    std::swap(many_, other.many_);
    std::swap(count_, other.count_);
    std::swap(capacity_, other.capacity_);
  }

 private:
  Element* data() { return const_cast<Element*>(begin()); }

  std::unique_ptr<Element[]> many_;  // all elements, while there are more than one
  std::uint32_t count_ = 0;
  std::uint32_t capacity_ = 0;  // of many_
  Element one_{};
};

}  // namespace Mox
