#include "Netlink/Mirror.h"

#include <gtest/gtest.h>

#include <map>
#include <random>

namespace Netlink {
namespace {

// Against a model: a table that changes while it is read, in slices, by a dump whose words are out of date.
TEST(MirrorTest, EndsAsTheKernelDoesWhateverTheOrder) {
  for (unsigned seed = 0; seed < 200; ++seed) {
    std::mt19937 engine(seed);
    const auto random = [&] { return static_cast<std::uint32_t>(engine()); };
    std::map<std::uint32_t, int> kernel;
    Mirror<std::uint32_t, int> mirror;
    const auto change = [&] {
      const std::uint32_t key = random() % 300;
      if (random() % 2 == 0) {
        kernel[key] = static_cast<int>(random() % 1000);
        *mirror.said(key, Word::notification) = kernel[key];
      } else if (kernel.erase(key) != 0) {
        mirror.gone(key);
      }
    };
    for (int i = 0; i < 200; ++i) change();
    for (int round = 0; round < 4; ++round) {
      // Unheard.
      for (int i = 0; i < 50; ++i) kernel.erase(random() % 300);
      for (int i = 0; i < 50; ++i) kernel[random() % 300] = -1;
      mirror.reconcileBegin();
      const auto dump = kernel;
      for (const auto& [key, value] : dump) {
        if (random() % 3 == 0) change();
        if (int* record = mirror.said(key, Word::dump)) *record = value;
      }
      while (mirror.sweep(7, [](std::uint32_t, int) {})) {
        if (random() % 3 == 0) change();
      }
      for (int i = 0; i < 10; ++i) change();
    }
    std::map<std::uint32_t, int> seen;
    std::optional<std::uint32_t> bookmark;
    while (mirror.visit(bookmark, 5, [&](std::uint32_t key, int value) { seen[key] = value; })) {
    }
    ASSERT_EQ(seen, kernel) << "seed " << seed;
    ASSERT_EQ(mirror.size(), kernel.size());
  }
}

}  // namespace
}  // namespace Netlink
