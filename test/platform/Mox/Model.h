#pragma once

#include <compare>
#include <cstdint>
#include <string>
#include <vector>

#include "Mox/Attribute.h"
#include "Mox/Notifiee.h"

// Entities with a member of every kind, and helpers that write down what watchers hear.

namespace MoxTest {

// A key whose hash has as many different values as it says: 1 makes all keys collide.
template <unsigned kHashes>
struct Key {
  std::uint32_t id = 0;
  std::uint64_t hash(std::uint64_t) const {
    return (kHashes == 1 ? 0xfffffffful : id % kHashes * 0x9e3779b1ul) << 32;
  }
  friend auto operator<=>(const Key&, const Key&) = default;
};

class Leaf : public Mox::Entity {
 public:
  explicit Leaf(int id, int colour = 0) : id_(id), colour_(colour) { ++alive; }
  ~Leaf() override { --alive; }
  const int& id() const { return id_; }
  int colour() const { return colour_; }
  bool madeWith(int colour = 0) const { return colour == colour_; }

  static inline int alive = 0;

 private:
  int id_;
  int colour_;
};

class Sample final : public Mox::Entity {
  MOX_ATTRIBUTE(std::string, title)
  MOX_ATTRIBUTE(int, level, 3)
  MOX_ATTRIBUTE(Mox::Ptr<Leaf>, favourite)
  MOX_MAP(int, std::string, name)
  MOX_HASH(int, int, large)
  MOX_SMALL_MAP(int, int, small)
  MOX_SET(int, tag)
  MOX_CHILDREN(int, Leaf, child)
  MOX_HASH_CHILDREN(int, Leaf, id, hashed)
  MOX_MEMBERS(title, level, favourite, name, large, small, tag, child, hashed)
};

using Heard = std::vector<std::string>;

}  // namespace MoxTest
