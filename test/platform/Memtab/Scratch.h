#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <compare>
#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "Memtab/Table.h"

namespace Memtab::Test {

// A key of the size of (VLAN, IPv6 address), and a value that can be told to belong to it.
struct Key {
  std::array<std::uint32_t, 5> words{};
  auto operator<=>(const Key&) const = default;
};
struct Value {
  std::uint32_t version = 0;
  std::uint32_t check = 0;
  bool operator==(const Value&) const = default;
};

inline Key keyOf(std::uint32_t i) { return {{i % 4096, 0xfe80, i * 2654435761U, ~i, i}}; }
inline std::uint32_t checkOf(const Key& key, std::uint32_t version) {
  return (key.words[4] + 1) * 2246822519U ^ version * 3266489917U;
}
inline Value valueOf(const Key& key, std::uint32_t version) { return {version, checkOf(key, version)}; }
inline bool belongs(const Key& key, const Value& value) { return value == valueOf(key, value.version); }

using Reader = TableReader<Key, Value>;
using Writer = TableWriter<Key, Value>;
using Model = std::map<Key, Value>;

// Tables under a prefix of their own, which are removed with it.
class Scratch : public testing::Test {
 protected:
  ~Scratch() override { directory.removeAll(); }

  std::unique_ptr<Writer> open(const WriterOptions& options = {}) {
    auto writer = Writer::open(directory, kTable, options);
    EXPECT_TRUE(writer) << writer.error();
    if (!writer) return nullptr;
    report = (*writer)->openReport();
    return std::move(*writer);
  }
  static void put(Writer& writer, std::uint32_t from, std::uint32_t to, std::uint32_t version = 0) {
    for (std::uint32_t i = from; i < to; ++i) {
      EXPECT_NE(writer.entryIs(keyOf(i), valueOf(keyOf(i), version)), Written::kFull);
    }
  }
  // Takes steps until one says that there is no more; one that goes on for ever has failed, and says so once.
  template <class Step>
  static void toTheEnd(const Step& more) {
    constexpr int kManySteps = 20000;  // more than any of these tests needs
    int steps = 0;
    while (steps < kManySteps && more()) ++steps;
    EXPECT_LT(steps, kManySteps) << "it does not end";
  }
  // All entries, by iteration in slices.
  template <class Table>
  static Model entries(Table& table, std::size_t slice = 100) {
    Model model;
    Cursor cursor;
    std::size_t most = 0, visited = 0;
    toTheEnd([&] {
      const VisitResult result = table.visit(
          cursor, slice, [&](const Key& key, const Value& value) { model.emplace(key, value), ++visited; });
      most = std::max(most, result.visited);
      return result.more;
    });
    EXPECT_LE(most, slice);
    EXPECT_EQ(visited, model.size()) << "some are visited twice";
    return model;
  }
  // Drains all there is; the keys as often as they are reported.
  static std::map<Key, int> drained(Reader& reader, std::size_t slice = 64) {
    std::map<Key, int> keys;
    toTheEnd([&] {
      std::size_t told = 0;
      const bool more = reader.drain(slice, [&](const Key& key) { ++keys[key], ++told; });
      EXPECT_LE(told, slice);
      return more;
    });
    return keys;
  }

  static constexpr const char* kTable = "bridging/status.fdb";
  Directory directory{"MemtabTest-" + std::to_string(getpid()) + '-' + std::to_string(count_++)};
  OpenReport report;

 private:
  inline static int count_ = 0;
};

}  // namespace Memtab::Test
