#include <gmock/gmock.h>
#include <sys/resource.h>

#include <csignal>
#include <random>

#include "LogStoreFixture.h"

using Statedb::Journal;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace LogStoreTests {
namespace {

// What a process finds whose predecessor was killed now.
Pairs foundAfterAKill(const std::string& directory) {
  const std::string copy = directory + "-copy";
  std::filesystem::copy(directory, copy, std::filesystem::copy_options::recursive);
  Pairs found;
  {
    auto store = Statedb::LogStore::open(copy, [](const std::string& message) { ADD_FAILURE() << message; });
    EXPECT_EQ(store.error(), "");
    found = Kept((*store)->journal("a")).held.pairs;
    for (const auto& entry : std::filesystem::directory_iterator(copy))
      EXPECT_EQ(entry.path().filename(), "a.log") << "a rewrite that did not end is removed";
  }
  std::filesystem::remove_all(copy);
  return found;
}

// No file may be longer, while this lives.
class LongestFile {
 public:
  explicit LongestFile(std::uintmax_t size) {
    std::signal(SIGXFSZ, SIG_IGN);
    EXPECT_EQ(getrlimit(RLIMIT_FSIZE, &before_), 0);
    const rlimit limit{size, before_.rlim_max};
    EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
  }
  LongestFile(const LongestFile&) = delete;
  LongestFile& operator=(const LongestFile&) = delete;
  ~LongestFile() { setrlimit(RLIMIT_FSIZE, &before_); }

 private:
  rlimit before_{};
};

// Random changes; in each turn, those of a rewrite too, what a kill would leave is what was there before the
// turn's flush began or when it ended, as far as anything waited.
TEST_F(LogStoreTest, ALogStaysShortAndItsRewritingMayEndAtAnyStep) {
  open();
  auto kept = journal("a");
  std::mt19937 random(5);
  unsigned rewrites = 0, turns = 0, checked = 0;
  std::uintmax_t before = 0, longest = 0;
  bool rewriting = false;
  while (rewrites < 2) {
    for (int i = 0; i < 40; ++i) {
      const std::string child = "child/" + std::to_string(random() % 40);
      switch (random() % 80) {
        case 0:
          kept->erase(child);
          kept->write(child, "{}");
          break;
        case 1:
          kept->erase(child + "/" + std::to_string(random() % 60));
          break;
        default:
          kept->write(child + "/" + std::to_string(random() % 60), std::string(random() % 900, 'v'));
      }
    }
    rewriting = kept->more();
    longest = std::max(longest, size("a"));
    rewrites += size("a") < before ? 1 : 0;
    before = size("a");
    if (++turns % 512 == 0 || rewriting) {
      ASSERT_EQ(foundAfterAKill(directory_), kept->held.pairs) << turns;
      checked += rewriting ? 1 : 0;
    }
    ASSERT_LT(turns, 20000u);
  }
  EXPECT_GT(checked, 9u);
  std::uintmax_t used = 0;
  for (const auto& [name, value] : kept->held.pairs) used += name.size() + value.size() + 4;
  EXPECT_LT(longest, 2 * used + (8u << 20));
  EXPECT_LT(size("a"), used * 3 / 2);
  const Pairs held = kept->held.pairs;
  kept.reset();
  EXPECT_EQ(loaded("a"), held);
  EXPECT_THAT(messages_, IsEmpty());
}

// Growing is no reason.
TEST_F(LogStoreTest, WhatIsAllOfUseIsNotRewritten) {
  open();
  auto kept = journal("a");
  std::uintmax_t before = 0;
  for (int turn = 0; turn < 100; ++turn) {
    for (int i = 0; i < 1000; ++i) kept->write(key(turn * 1000 + i), std::string(100, 'v'));
    EXPECT_FALSE(kept->more()) << turn;
    EXPECT_GT(size("a"), before);
    before = size("a");
  }
  EXPECT_GT(before, 10u << 20);
  EXPECT_THAT(files(), ElementsAre("a.log"));
}

TEST_F(LogStoreTest, WhatIsAskedForIsRewrittenFromTheEntity) {
  open();
  for (const bool written : {false, true}) {
    auto kept = journal("a");
    if (written) kept->write("x", "1");
    kept->held.pairs = {{"y", "2"}, {"z", std::string(200000, 'z')}, {"zz", "3"}};
    kept->journal().rewrite();
    while (kept->more()) continue;
    EXPECT_EQ(loaded("a"), kept->held.pairs);
    EXPECT_FALSE(kept->more());
    EXPECT_THAT(files(), ElementsAre("a.log"));
    kept.reset();
    removeFiles();
  }
}

TEST_F(LogStoreTest, WhatCannotBeWrittenWaits) {
  open();
  auto kept = journal("a");
  {
    const LongestFile none(10);
    kept->write("x", "1");
    EXPECT_FALSE(kept->flush());
    EXPECT_THAT(kept->problem(),
                HasSubstr("/a.log: writing: File too large; what waits is kept and tried again"));
    EXPECT_THAT(files(), IsEmpty());
  }
  EXPECT_FALSE(kept->flush());
  EXPECT_EQ(kept->problem(), "");
  const Pairs before = kept->held.pairs;
  const auto sizeBefore = size("a");
  {
    const LongestFile little(size("a") + 1000);
    kept->write("y", std::string(5000, 'y'));
    kept->erase("x");
    for (int turn = 0; turn < 3; ++turn) EXPECT_FALSE(kept->more()) << "no use in trying again at once";
    EXPECT_THAT(kept->problem(), HasSubstr("File too large"));
    EXPECT_EQ(size("a"), sizeBefore) << "nothing of half a batch is left";
    EXPECT_EQ(foundAfterAKill(directory_), before);
  }
  EXPECT_FALSE(kept->more());
  EXPECT_EQ(kept->problem(), "");
  EXPECT_EQ(foundAfterAKill(directory_), kept->held.pairs);
}

// The entity has it all.
TEST_F(LogStoreTest, WhatWaitsIsBounded) {
  open();
  auto kept = journal("a");
  kept->write("x", "1");
  kept->flush();
  const Pairs before = kept->held.pairs;
  {
    const LongestFile little(size("a") + 100000);
    for (int turn = 0; turn < 3000; ++turn) {
      for (int i = 0; i < 5; ++i) kept->write(key(turn % 1000 * 5 + i), std::string(1000, 'v'));
      EXPECT_FALSE(kept->more() && kept->problem().empty());
    }
    EXPECT_THAT(kept->problem(), HasSubstr("File too large"));
    EXPECT_LT(size("a"), 200000u);
  }
  const Pairs found = foundAfterAKill(directory_);
  for (const auto& [name, value] : before) EXPECT_EQ(found.at(name), value);
  unsigned turns = 0;
  while (!kept->problem().empty() && ++turns < 10000) {
    kept->write(key(3), std::to_string(turns));
    static_cast<void>(kept->more());
  }
  EXPECT_EQ(kept->problem(), "");
  while (kept->more()) continue;
  EXPECT_EQ(foundAfterAKill(directory_), kept->held.pairs);
  EXPECT_EQ(kept->held.pairs.size(), 5001u);
}

// A rewrite for which there is no room is given up, and nothing is lost.
TEST_F(LogStoreTest, ARewriteThatCannotBeWrittenIsTriedAgain) {
  open();
  auto kept = journal("a");
  for (int i = 0; i < 300; ++i) kept->write(key(i), std::string(1000, 'v'));
  kept->flush();
  kept->journal().rewrite();
  {
    const LongestFile little(size("a") / 2);
    while (kept->more()) continue;
    EXPECT_THAT(files(), ElementsAre("a.log"));
    EXPECT_EQ(kept->problem(), "") << "what is kept is whole";
  }
  EXPECT_EQ(foundAfterAKill(directory_), kept->held.pairs);
  kept->erase("member");
  kept->flush();
  EXPECT_THAT(files(), ElementsAre("a.log"));
  EXPECT_LT(size("a"), 100u);
  EXPECT_THAT(foundAfterAKill(directory_), IsEmpty());
}

}  // namespace
}  // namespace LogStoreTests
