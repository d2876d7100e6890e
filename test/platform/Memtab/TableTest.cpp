#include <algorithm>
#include <random>
#include <set>
#include <vector>

#include "Scratch.h"

namespace Memtab::Test {
namespace {

class TableTest : public Scratch {};

// Two types that differ in the name of a member only.
template <bool kOther>
struct Plain {
  std::uint16_t port;
  std::uint8_t kind;
  bool up;
  static constexpr auto moxFields() {
    return std::tuple(Mox::Field("port", &Plain::port), Mox::Field("kind", &Plain::kind),
                      Mox::Field(kOther ? "down" : "up", &Plain::up));
  }
  bool operator==(const Plain&) const = default;
};
template <class Inner>
struct Nested {
  Inner inner;
  static constexpr auto moxFields() { return std::tuple(Mox::Field("inner", &Nested::inner)); }
};
using Ours = Plain<false>;
using Theirs = Plain<true>;
struct Opaque {
  std::uint32_t bits;
};

TEST_F(TableTest, TypesOfOneSizeAreToldApart) {
  const std::set<std::uint64_t> tags{kTypeTag<Ours>,           kTypeTag<Theirs>, kTypeTag<Nested<Ours>>,
                                     kTypeTag<Nested<Theirs>>, kTypeTag<Opaque>, kTypeTag<std::uint32_t>,
                                     kTypeTag<float>};
  EXPECT_EQ(tags.size(), 7U);
  { (*TableWriter<std::uint32_t, Ours>::open(directory, kTable, {}))->entryIs(1, {7, 1, true}); }
  EXPECT_EQ((TableReader<std::uint32_t, Ours>(directory, kTable).lookup(1)), (Ours{7, 1, true}));
  TableReader<std::uint32_t, Theirs> changed(directory, kTable);
  EXPECT_THAT(changed.view().problem(), testing::HasSubstr("type tag"));
  EXPECT_FALSE((TableReader<Opaque, Ours>(directory, kTable).view().attached()));
}

// Whatever bytes another process wrote.
TEST_F(TableTest, ABoolIsTrueOrFalse) {
  for (const std::uint32_t byte : {0U, 1U, 2U, 255U}) {
    const std::uint32_t word = byte << 24;
    const auto value = fromWords<Nested<Ours>>(&word);
    EXPECT_EQ(toWords(value)[0], byte == 0 ? 0U : 1U << 24);
    EXPECT_EQ(value.inner.up, byte != 0);
  }
}

TEST_F(TableTest, NamesAreKeptApart) {
  const Directory inner(directory.prefix() + "-x");
  for (const char* const bad : {"", "/", "a.bell", "a.next", "a.damaged-1-2"}) {
    EXPECT_THROW(directory.segmentFile(bad), std::invalid_argument) << bad;
  }
  EXPECT_THROW(directory.segmentFile(std::string(300, 'a')), std::invalid_argument);
  EXPECT_NE(directory.segmentFile("a+b"), directory.segmentFile("a/b"));
  EXPECT_EQ(directory.segmentFile("/a/b/"), directory.segmentFile("a/b"));
  EXPECT_EQ(Directory::forRunDir("/run/a/").prefix(), Directory::forRunDir("/run/a").prefix());
  EXPECT_NE(Directory::forRunDir("/run/a/b").prefix(), Directory::forRunDir("/run/a-b").prefix());
  EXPECT_NE(Directory("p" + std::string(300, 'a') + '1').prefix(),
            Directory("p" + std::string(300, 'a') + '2').prefix());
  const auto writer = open();
  auto odd = Writer::open(directory, "odd/%n ame", {});
  EXPECT_EQ(directory.tables(), (std::vector<std::string>{kTable, "odd/%n ame"}));
  EXPECT_TRUE(inner.tables().empty());
  inner.removeAll();
  EXPECT_EQ(directory.tables().size(), 2U);
}

// Everything at once against a model: a reader that looks up, one that iterates, and one that only follows
// the changes, with rings so short that it keeps falling behind, while the table grows, is emptied, shrinks
// and grows again.
struct Churn {
  const char* name;
  std::uint32_t ring;
  std::uint32_t keys;
  std::size_t slice;
  unsigned drainEvery;  // operations, on average
};

class ChurnTest : public Scratch, public testing::WithParamInterface<Churn> {};

TEST_P(ChurnTest, ReadersAgreeWithAModel) {
  const Churn& churn = GetParam();
  std::mt19937 random(churn.ring + churn.keys);
  auto writer = open({.capacity = 16, .ringEntries = churn.ring});
  Reader reader(directory, kTable), follower(directory, kTable);
  follower.watch();
  Model model, followed;
  std::uint64_t generation = 0, changed = 0, told = 0;
  const auto follow = [&](const Key& key) {
    ++told;
    const auto value = follower.lookup(key);
    if (value) {
      followed[key] = *value;
    } else {
      followed.erase(key);
    }
  };
  for (std::uint32_t step = 0; step < 60000; ++step) {
    const Key key = keyOf(static_cast<std::uint32_t>(random()) % churn.keys);
    // Phases that mostly add, and phases that mostly delete.
    if (random() % 10 < (step / 15000 % 2 == 0 ? 8U : 1U)) {
      const Value value = valueOf(key, static_cast<std::uint32_t>(random()) % 4);
      const bool changes = !model.contains(key) || model[key] != value;
      ASSERT_EQ(writer->entryIs(key, value), changes ? Written::kChanged : Written::kUnchanged);
      model[key] = value;
      changed += changes ? 1 : 0;
    } else {
      const bool deleted = model.erase(key) == 1;
      ASSERT_EQ(writer->entryDel(key), deleted);
      changed += deleted ? 1 : 0;
    }
    if (random() % churn.drainEvery == 0) follower.drain(churn.slice, follow);
    if (random() % 64 == 0) writer->core().growStep(random() % 500);
    const Key probe = keyOf(static_cast<std::uint32_t>(random()) % churn.keys);
    const auto found = model.find(probe);
    ASSERT_EQ(reader.lookup(probe), found == model.end() ? std::nullopt : std::optional(found->second));
    if (step % 6000 == 5999) {
      toTheEnd([&] { return follower.drain(churn.slice, follow); });
      ASSERT_EQ(followed, model) << "after step " << step;
      ASSERT_EQ(entries(reader, churn.slice), model);
      ASSERT_EQ(entries(*writer), model);
      ASSERT_EQ(reader.size(), model.size());
      generation = writer->core().segment().fixed().generation;
    }
  }
  EXPECT_GT(generation, 5U) << "the table was meant to move";
  if (churn.drainEvery > churn.ring) {
    EXPECT_GT(follower.overruns(), 3U) << "the follower was meant to fall behind";
  } else {
    EXPECT_EQ(told, changed) << "each change once, across all the moves";
  }
}

INSTANTIATE_TEST_SUITE_P(Memtab, ChurnTest,
                         testing::Values(Churn{"tinyRing", 2, 500, 3, 5},
                                         Churn{"shortRing", 64, 4000, 50, 300},
                                         Churn{"rareDrain", 16, 3000, 1000, 5000},
                                         Churn{"longRing", 65536, 4000, 17, 30}),
                         [](const auto& info) { return info.param.name; });

TEST_F(TableTest, NoEntryIsSkippedWhileTheTableChangesBetweenSlices) {
  for (const std::size_t slice : {1U, 7U, 300U}) {
    auto writer = open({.capacity = 16});
    Reader reader(directory, kTable);
    put(*writer, 0, 400);
    std::map<Key, int> visited;
    Cursor cursor;
    std::uint32_t fresh = 1000, slices = 0;
    bool more = true;
    while (more) {
      ASSERT_LT(++slices, 5000U) << "the walk does not end";
      // The first 200 keys stay; the others go, and new ones make the table move again and again.
      if (slices < 200) writer->entryDel(keyOf(200 + slices));
      for (int i = 0; i < 8 && fresh < 5000; ++i, ++fresh) put(*writer, fresh, fresh + 1);
      if (slices % 3 == 0 && fresh > 1100) writer->entryDel(keyOf(fresh - 90));
      more = reader.visit(cursor, slice, [&](const Key& key, const Value&) { ++visited[key]; }).more;
    }
    EXPECT_TRUE(cursor.atEnd());
    for (std::uint32_t i = 0; i < 200; ++i)
      EXPECT_EQ(visited[keyOf(i)], 1) << "slice " << slice << " key " << i;
    EXPECT_GT(writer->core().segment().fixed().generation, slice == 300 ? 0U : 4U);
    writer->core().remove();
  }
}

TEST_F(TableTest, AWalkResumesAtAKey) {
  auto writer = open();
  put(*writer, 0, 1000);
  Reader reader(directory, kTable);
  std::vector<Key> order;
  Cursor all;
  toTheEnd([&] {
    return reader.visit(all, 50, [&](const Key& key, const Value&) { order.push_back(key); }).more;
  });
  ASSERT_EQ(order.size(), 1000U);
  put(*writer, 5000, 9000);  // the order holds in the segments to come
  writer->entryDel(order[500]);
  for (const std::size_t at : {0U, 1U, 499U, 500U, 999U}) {
    std::set<Key> rest;
    Cursor cursor = Reader::cursorFrom(order[at]);
    toTheEnd([&] {
      return reader.visit(cursor, 20, [&](const Key& key, const Value&) { rest.insert(key); }).more;
    });
    for (std::size_t i = 0; i < order.size(); ++i) {
      EXPECT_EQ(rest.contains(order[i]), i >= at && i != 500) << "from " << at << ", entry " << i;
    }
  }
}

// Keys whose hash is among the greatest, so that they all want the last bucket.
TEST_F(TableTest, ACrowdAtTheEndOfTheTable) {
  constexpr std::uint64_t kSeed = 7;
  std::vector<Key> keys;
  for (std::uint32_t i = 0; keys.size() < 1500; ++i) {
    const Key key = keyOf(i);
    if (Mox::hashWords(toWords(key).data(), 5, Mox::HashSeed(kSeed)) >> 54 == 0x3ff) keys.push_back(key);
  }
  auto writer = open({.capacity = 4000, .hashSeed = kSeed});
  Reader reader(directory, kTable);
  for (const Key& key : keys) ASSERT_EQ(writer->entryIs(key, valueOf(key, 1)), Written::kChanged);
  for (const Key& key : keys) ASSERT_EQ(reader.lookup(key), valueOf(key, 1));
  EXPECT_EQ(entries(reader, 1).size(), keys.size());
  EXPECT_GT(writer->core().segment().fixed().generation, 0U) << "the crowd was meant not to fit";
}

TEST_F(TableTest, ReconciliationDeletesWhatWasNotSaidAgain) {
  for (const bool grows : {false, true}) {
    auto writer = open({.capacity = grows ? 16U : 10000U});
    Reader reader(directory, kTable);
    put(*writer, 0, 1000);
    reader.watch();
    writer->core().reconcileBegin();
    put(*writer, 0, 300);                              // as before
    put(*writer, 300, 400, 1);                         // changed
    put(*writer, 1000, 1000 + (grows ? 3000U : 10U));  // new
    int slices = 0;
    while (writer->core().sweep(7)) {
      put(*writer, 400, 401);  // said again in time, or made again
      ASSERT_LT(++slices, 10000);
    }
    EXPECT_FALSE(writer->core().reconciling());
    const auto left = entries(reader);
    for (std::uint32_t i = 0; i < 1000; ++i) EXPECT_EQ(left.contains(keyOf(i)), i <= 400) << i;
    const auto changes = drained(reader);
    EXPECT_FALSE(changes.contains(keyOf(0)));
    EXPECT_TRUE(changes.contains(keyOf(300)));
    EXPECT_TRUE(changes.contains(keyOf(999)));
    writer->core().remove();
  }
}

TEST_F(TableTest, DeletingAllInSlicesLeavesWhatCameSince) {
  auto writer = open();
  put(*writer, 0, 2000);
  Reader reader(directory, kTable);
  ASSERT_TRUE(writer->entryDelAll(10));
  EXPECT_EQ(reader.size(), 1990U);
  put(*writer, 5000, 5003);
  put(*writer, 0, 2);
  toTheEnd([&] { return writer->entryDelAll(10); });
  EXPECT_EQ(entries(reader).size(), 5U);
  toTheEnd([&] { return writer->entryDelAll(10); });
  EXPECT_EQ(reader.size(), 0U);
}

TEST_F(TableTest, WhatComesAndGoesTakesTheSlotThatItHad) {
  auto writer = open({.capacity = 16});
  for (int i = 0; i < 100; ++i) put(*writer, 0, 1), writer->entryDel(keyOf(0));
  EXPECT_EQ(writer->core().segment().fixed().generation, 0U) << "no need for another segment";
}

}  // namespace
}  // namespace Memtab::Test
