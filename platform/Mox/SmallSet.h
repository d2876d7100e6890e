#pragma once

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <set>
#include <type_traits>
#include <utility>
#include <vector>

namespace Mox {

// A set that mostly has one member, which then lies inside the object; with more it is an ordered tree, so
// that the few large ones stay fast. Iterated through a copy: `keys()`. Keys must be trivially copyable.
template <class Key>
class SmallSet {
 public:
  static_assert(std::is_trivially_copyable_v<Key>);

  SmallSet() = default;
  SmallSet(const SmallSet&) = delete;
  SmallSet& operator=(const SmallSet&) = delete;
  ~SmallSet() { clear(); }

  bool has(const Key& key) const {
    return holds_ == Holds::many ? many()->contains(key) : holds_ == Holds::one && place_.one == key;
  }
  std::size_t size() const { return holds_ == Holds::many ? many()->size() : holds_ == Holds::one; }
  bool empty() const { return holds_ == Holds::none; }

  // Whether it was absent.
  bool insert(const Key& key) {
    if (has(key)) return false;
    if (holds_ == Holds::none) {
      place_.one = key;
      holds_ = Holds::one;
      return true;
    }
    if (holds_ == Holds::one) {
      place_.many = std::bit_cast<decltype(Place::many)>(new std::set<Key>{place_.one});
      holds_ = Holds::many;
    }
    many()->insert(key);
    return true;
  }
  // Whether it was there.
  bool erase(const Key& key) {
    if (!has(key)) return false;
    if (holds_ == Holds::one) {
      holds_ = Holds::none;
      return true;
    }
    many()->erase(key);
    if (many()->size() == 1) {
      const std::unique_ptr<std::set<Key>> last(many());
      std::construct_at(&place_.one, *last->begin());
      holds_ = Holds::one;
    }
    return true;
  }
  void clear() {
    if (holds_ == Holds::many) {
      delete many();
      std::construct_at(&place_.one);
    }
    holds_ = Holds::none;
  }
  std::vector<Key> keys() const {
    if (holds_ == Holds::many) return {many()->begin(), many()->end()};
    return holds_ == Holds::none ? std::vector<Key>() : std::vector<Key>{place_.one};
  }

 private:
  // The one key, or where they all are. The address has no alignment of its own: it would be paid for by every
  // object.
  union Place {
    Key one{};
    std::array<std::byte, sizeof(void*)> many;
  };
  enum class Holds : unsigned char { none, one, many };
  std::set<Key>* many() const { return std::bit_cast<std::set<Key>*>(place_.many); }

  Place place_;
  Holds holds_ = Holds::none;
};

}  // namespace Mox
