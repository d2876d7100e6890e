#pragma once

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <type_traits>
#include <utility>

namespace Mox {

// Key → value in order of arrival, for collections that mostly have one member, which then lies inside the
// object. Look-up is linear. Updating a value keeps its place; removing another keeps the order. Elements must be
// trivially copyable.
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
  ~SmallMap() {
    if (count_ > 1) delete[] many();
  }

  const_iterator begin() const { return count_ > 1 ? many() : &place_.one; }
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
    // Their array has room for the next power of two.
    if (std::has_single_bit(count_)) {
      auto larger = std::make_unique<Element[]>(std::size_t{count_} * 2);
      for (std::uint32_t i = 0; i < count_; ++i) larger[i] = begin()[i];
      if (count_ > 1) delete[] many();
      manyAre(larger.release());
    }
    Element& element = const_cast<Element*>(count_ == 0 ? &place_.one : many())[count_];
    ++count_;
    element = {key, value};
    return element.value;
  }
  // The element must be there.
  Value take(const Key& key) {
    auto* const elements = const_cast<Element*>(begin());
    std::uint32_t at = 0;
    while (!(elements[at].key == key)) ++at;
    const Value value = elements[at].value;
    for (--count_; at < count_; ++at) elements[at] = elements[at + 1];
    if (count_ == 1) {
      const std::unique_ptr<Element[]> last(elements);
      std::construct_at(&place_.one, last[0]);
    }
    return value;
  }
  void swap(SmallMap& other) {
    std::swap(place_, other.place_);
    std::swap(count_, other.count_);
  }

 private:
  // The one element, or where they all are. The address has no alignment of its own: it would be paid for by
  // every object.
  union Place {
    Element one{};
    std::array<std::byte, sizeof(void*)> many;
  };
  Element* many() const { return std::bit_cast<Element*>(place_.many); }
  void manyAre(Element* elements) { place_.many = std::bit_cast<decltype(Place::many)>(elements); }

  Place place_;
  std::uint32_t count_ = 0;
};

}  // namespace Mox
