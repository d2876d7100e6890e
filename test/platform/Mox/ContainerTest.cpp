#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <malloc.h>

#include <algorithm>
#include <array>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <set>
#include <vector>

#include "Mox/Dense.h"
#include "Mox/HashTable.h"
#include "Mox/SmallMap.h"
#include "Mox/SmallSet.h"
#include "platform/Mox/Model.h"

namespace {

// A hash table with its key type, and how many different keys the test may use without getting slow.
template <class KeyT, std::uint32_t kKeysT>
struct Kind {
  using Key = KeyT;
  using Container = Mox::HashMap<Key, std::uint32_t>;
  static constexpr std::uint32_t kKeys = kKeysT;
};

template <class K>
class HashTable : public ::testing::Test {};

struct Good {
  std::uint32_t id = 0;
  std::uint64_t hash(std::uint64_t seed) const { return Mox::hashOf(id, seed); }
  friend auto operator<=>(const Good&, const Good&) = default;
};
using Kinds = ::testing::Types<Kind<Good, 60000>, Kind<MoxTest::Key<1>, 900>, Kind<MoxTest::Key<7>, 3000>,
                               Kind<MoxTest::Key<4096>, 30000>>;
TYPED_TEST_SUITE(HashTable, Kinds);

TYPED_TEST(HashTable, agrees_with_an_ordered_map_over_random_operations) {
  using Key = typename TypeParam::Key;
  typename TypeParam::Container table;
  std::map<Key, std::uint32_t> expected;
  std::mt19937 random(20);
  const auto compare = [&] {
    ASSERT_EQ(table.size(), expected.size());
    std::map<Key, std::uint32_t> found;
    for (const auto& item : table) ASSERT_TRUE(found.emplace(item.key, item.value).second);
    ASSERT_EQ(found, expected);
  };
  // Three waves: filling, churning, emptying.
  for (const unsigned insertions : {80u, 50u, 20u}) {
    for (std::uint32_t i = 0; i < TypeParam::kKeys * 2; ++i) {
      const Key key{static_cast<std::uint32_t>(random() % TypeParam::kKeys)};
      const std::uint32_t* const value = table.find(key);
      const auto there = expected.find(key);
      ASSERT_EQ(value != nullptr, there != expected.end());
      if (value) {
        ASSERT_EQ(*value, there->second);
      }
      if (random() % 100 < insertions) {
        const auto next = static_cast<std::uint32_t>(random());
        if (auto* held = table.find(key)) {
          *held = next;
        } else {
          table.insert(key, next);
        }
        expected[key] = next;
      } else if (value) {
        ASSERT_EQ(table.take(key), there->second);
        expected.erase(there);
      }
    }
    ASSERT_NO_FATAL_FAILURE(compare());
  }
  while (!expected.empty()) {
    table.take(expected.begin()->first);
    expected.erase(expected.begin());
  }
  EXPECT_TRUE(table.begin() == table.end());
  EXPECT_LT(table.slots(), 2500u) << "a scan of the empty table still passes what it once held";
}

// Between slices of one to three entries the table is changed at random, the bookmark's own key more often
// than others: an entry that is there throughout is met exactly once, and the scan ends although the table
// never comes to rest.
TYPED_TEST(HashTable, scan_in_slices_meets_every_entry_that_stays_exactly_once) {
  using Key = typename TypeParam::Key;
  const std::uint32_t keys = std::min(TypeParam::kKeys, 3000u);
  for (std::uint32_t seed = 0; seed < 4; ++seed) {
    typename TypeParam::Container table;
    std::mt19937 random(seed);
    for (std::uint32_t id = 0; id < keys; ++id) table.insert(Key{id}, id);
    std::map<Key, int> met;
    std::optional<Key> bookmark;
    std::uint32_t slices = 0;
    const auto stays = [](const Key& key) { return key.id % 3 == 0; };
    for (bool more = true; more; ++slices) {
      ASSERT_LE(slices, keys * 4) << "the scan does not end";
      auto at = bookmark ? table.lowerBound(*bookmark) : table.begin();
      for (std::uint32_t i = 0; i <= random() % 3 && at != table.end(); ++i, ++at) ++met[at->key];
      more = at != table.end();
      if (more) bookmark = at->key;
      for (std::uint32_t change = 0; more && change < 4; ++change) {
        const Key key = change == 0 ? *bookmark : Key{static_cast<std::uint32_t>(random() % (keys * 2))};
        if (stays(key) && key.id < keys) continue;
        if (table.find(key)) {
          table.take(key);
          if (random() % 2) table.insert(key, key.id);  // taken out and put back
        } else {
          table.insert(key, key.id);
        }
      }
    }
    for (std::uint32_t id = 0; id < keys; ++id) {
      if (!stays(Key{id})) continue;
      ASSERT_EQ(met[Key{id}], 1) << "key " << id << " seed " << seed;
    }
  }
}

TEST(HashTable, scan_that_began_small_survives_growth_to_a_quarter_million) {
  constexpr std::uint32_t kFirst = 500;
  constexpr std::uint32_t kLast = 250000;
  Mox::HashMap<std::uint32_t, std::uint32_t> table;
  for (std::uint32_t id = 0; id < kFirst; ++id) table.insert(id, id);
  std::vector<int> met(kFirst);
  std::optional<std::uint32_t> bookmark;
  std::uint32_t next = kFirst;
  for (bool more = true; more;) {
    auto at = bookmark ? table.lowerBound(*bookmark) : table.begin();
    for (int i = 0; i < 50 && at != table.end(); ++i, ++at) {
      if (at->key < kFirst) ++met[at->key];
    }
    more = at != table.end();
    if (more) bookmark = at->key;
    for (int i = 0; i < 2500 && next < kLast; ++i, ++next) table.insert(next, next);
  }
  EXPECT_THAT(met, ::testing::Each(1));
}

// Whatever the size: a table that doubled would be half empty at some.
TEST(HashTable, wastes_no_more_than_a_third_at_any_size) {
  Mox::HashMap<std::uint32_t, std::uint32_t> table;
  for (std::uint32_t id = 0; id < 300000; ++id) {
    table.insert(id, id);
    if (id >= 1000 && id % 1000 == 0) {
      ASSERT_LT(table.slots(), std::size_t{id} * 3 / 2) << id;
    }
  }
}

// More keys of one hash than a segment holds: no splitting can part them.
TEST(HashTable, thousands_of_equal_hashes_grow_a_segment_instead_of_the_directory) {
  using Key = MoxTest::Key<1>;
  using Table = Mox::HashMap<Key, std::uint32_t>;
  constexpr std::uint32_t kKeys = Table::kSegmentMax + 500;
  Table table;
  for (std::uint32_t id = kKeys; id-- > 0;) table.insert(Key{id}, id);
  EXPECT_EQ(table.size(), kKeys);
  std::uint32_t expected = 0;
  for (const auto& item : table) ASSERT_EQ(item.key.id, expected++);
  EXPECT_EQ(table.lowerBound(Key{777})->value, 777u);
  EXPECT_EQ(table.take(Key{777}), 777u);
  EXPECT_EQ(table.lowerBound(Key{777})->value, 778u);
}

// IPv4 addresses whose hashes have the same upper bits, as a host could choose them that knew the seed: with
// another seed they are as good as any, and the order of the table is another one.
TEST(HashTable, addresses_chosen_for_one_seed_are_harmless_with_another) {
  const auto upperBits = [](std::uint32_t address) { return Mox::hashFinish(Mox::hashOf(address)) >> 48; };
  const std::uint64_t first = Mox::hashSeed().first;
  std::vector<std::uint32_t> chosen;
  for (std::uint32_t address = 0x0a000000; chosen.size() < 100; ++address) {
    if (upperBits(address) == 0x1234) chosen.push_back(address);
  }
  std::set<std::uint64_t> different;
  for (const std::uint64_t seed : {first, first + 1, ~first}) {
    Mox::hashSeedIs(seed);
    different.clear();
    for (const std::uint32_t address : chosen) different.insert(upperBits(address));
    EXPECT_EQ(different.size() > 95, seed != first);
  }
  Mox::hashSeedIs(first);
  EXPECT_NE(Mox::randomWord(), Mox::randomWord()) << "what a process draws its seed from";
}

struct Many : Mox::Dense<Many> {
  explicit Many(std::uint64_t id) { content.fill(id); }
  std::array<std::uint64_t, 11> content;
};

// Objects come and go in waves: none gets the memory of another one, and of each wave all goes back.
TEST(Dense, objects_keep_to_themselves_and_their_memory_goes_back) {
  std::mt19937 random(7);
  std::vector<std::unique_ptr<Many>> objects;
  objects.reserve(Many::objectsOfBlock() * 8);
  const auto before = mallinfo2().uordblks;
  std::uint64_t next = 0;
  for (const unsigned coming : {90u, 50u, 5u, 60u, 0u}) {
    for (std::size_t i = 0; i < Many::objectsOfBlock() * 5; ++i) {
      if (random() % 100 < coming) {
        objects.push_back(std::make_unique<Many>(next++));
      } else if (!objects.empty()) {
        std::swap(objects[random() % objects.size()], objects.back());
        const auto gone = std::move(objects.back());
        objects.pop_back();
        ASSERT_THAT(gone->content, ::testing::Each(gone->content[0]));
      }
    }
  }
  std::set<std::uint64_t> different;
  for (const auto& object : objects) different.insert(object->content[10]);
  EXPECT_EQ(different.size(), objects.size());
  objects.clear();
  different.clear();
  EXPECT_LT(mallinfo2().uordblks, before + 16384) << "not even one block is left";
}

TEST(SmallMap, keeps_the_order_of_arrival_over_random_operations) {
  Mox::SmallMap<int, int> map;
  std::vector<std::pair<int, int>> expected;
  std::mt19937 random(5);
  for (int i = 0; i < 20000; ++i) {
    // Waves of a few and of many, through one and none.
    const int key = static_cast<int>(random() % (1 + static_cast<unsigned>(i) / 1000 % 6 * 3));
    const auto there = std::ranges::find(expected, key, &std::pair<int, int>::first);
    int* const value = map.find(key);
    ASSERT_EQ(value != nullptr, there != expected.end());
    if (!value) {
      map.insert(key, i);
      expected.emplace_back(key, i);
    } else if (random() % 2 || i % 1000 > 900) {
      ASSERT_EQ(map.take(key), there->second);
      expected.erase(there);
    } else {
      *value = there->second = i;
    }
    std::vector<std::pair<int, int>> found;
    for (const auto& element : map) found.emplace_back(element.key, element.value);
    ASSERT_EQ(found, expected);
    ASSERT_EQ(map.size(), expected.size());
  }
}

TEST(SmallSet, agrees_with_a_set_over_random_operations) {
  Mox::SmallSet<int> set;
  std::set<int> expected;
  std::mt19937 random(6);
  for (int i = 0; i < 20000; ++i) {
    const int key = static_cast<int>(random() % (1 + static_cast<unsigned>(i) / 1000 % 5));
    if (random() % 2) {
      ASSERT_EQ(set.insert(key), expected.insert(key).second);
    } else {
      ASSERT_EQ(set.erase(key), expected.erase(key) != 0);
    }
    if (random() % 500 == 0) {
      set.clear();
      expected.clear();
    }
    ASSERT_EQ(set.keys(), std::vector<int>(expected.begin(), expected.end()));
    ASSERT_EQ(set.has(key), expected.contains(key));
    ASSERT_EQ(set.size(), expected.size());
    ASSERT_EQ(set.empty(), expected.empty());
  }
}

}  // namespace
