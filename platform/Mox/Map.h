#pragma once

#include <cstddef>
#include <map>
#include <utility>

namespace Mox {

// The ordered collection behind MOX_MAP and MOX_CHILDREN. Elements stay where they are until they are erased.
// A scan that gives way between slices keeps the next key and resumes with lowerBound: the first element
// whose key is not less.
template <class Key, class Value>
class Map {
 public:
  using Storage = std::map<Key, Value>;
  using iterator = typename Storage::iterator;
  using const_iterator = typename Storage::const_iterator;

  static const Key& keyOf(const typename Storage::value_type& element) { return element.first; }
  static const Value& valueOf(const typename Storage::value_type& element) { return element.second; }

  Value* find(const Key& key) {
    auto at = storage_.find(key);
    return at == storage_.end() ? nullptr : &at->second;
  }
  const Value* find(const Key& key) const { return const_cast<Map*>(this)->find(key); }
  // The element must not be there yet.
  Value& insert(const Key& key, Value value) { return storage_.emplace(key, std::move(value)).first->second; }
  // The element must be there.
  Value take(const Key& key) {
    auto at = storage_.find(key);
    Value value = std::move(at->second);
    storage_.erase(at);
    return value;
  }
  const_iterator lowerBound(const Key& key) const { return storage_.lower_bound(key); }
  const_iterator upperBound(const Key& key) const { return storage_.upper_bound(key); }
  const_iterator begin() const { return storage_.begin(); }
  const_iterator end() const { return storage_.end(); }
  std::size_t size() const { return storage_.size(); }
  bool empty() const { return storage_.empty(); }
  void swap(Map& other) { storage_.swap(other.storage_); }

 private:
  Storage storage_;
};

}  // namespace Mox
