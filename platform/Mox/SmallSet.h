#pragma once

#include <cstddef>
#include <memory>
#include <set>
#include <utility>
#include <vector>

namespace Mox {

// A set that mostly has one member, which then lies inside the object; with more it is an ordered tree, so
// that the few large ones stay fast. Iterated through a copy: `keys()`.
template <class Key>
class SmallSet {
 public:
  bool has(const Key& key) const { return many_ ? many_->contains(key) : count_ != 0 && one_ == key; }
  std::size_t size() const { return many_ ? many_->size() : count_; }
  bool empty() const { return size() == 0; }

  // Whether it was absent.
  bool insert(const Key& key) {
    if (has(key)) return false;
    if (!many_ && count_ == 0) {
      one_ = key;
      count_ = 1;
      return true;
    }
    if (!many_) {
      many_ = std::make_unique<std::set<Key>>();
      many_->insert(one_);
    }
    many_->insert(key);
    return true;
  }
  // Whether it was there.
  bool erase(const Key& key) {
    if (!many_) {
      if (!has(key)) return false;
      count_ = 0;
      return true;
    }
    if (many_->erase(key) == 0) return false;
    if (many_->size() == 1) {
      one_ = *many_->begin();
      count_ = 1;
      many_.reset();
    }
    return true;
  }
  void clear() {
    many_.reset();
    count_ = 0;
  }
  std::vector<Key> keys() const {
    if (many_) return {many_->begin(), many_->end()};
    return count_ == 0 ? std::vector<Key>() : std::vector<Key>{one_};
  }

 private:
  std::unique_ptr<std::set<Key>> many_;
  Key one_{};
  unsigned char count_ = 0;  // 0 or 1, while many_ is null
};

}  // namespace Mox
