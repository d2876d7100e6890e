#include "Statedb/LogStore.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <set>

#include "LogStoreFixture.h"

using Statedb::Journal;
using Statedb::LogStore;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace LogStoreTests {
namespace {

TEST_F(LogStoreTest, OperationsComeBackInTheirOrder) {
  open();
  auto kept = journal("a/b");
  EXPECT_FALSE(kept->more());
  kept->write("x", "1");
  kept->write("vrf/red", "{}");
  kept->write("vrf/red/1", "old");
  kept->write("vrf/redder", "{}");
  kept->flush();
  kept->erase("vrf/red");
  kept->write("vrf/red/2", "");
  kept->write("x", std::string(300, '\0'));
  auto other = journal("a%2Fb");
  other->write("x", "of another path");
  other->write("y", "waiting when the journal goes");
  kept.reset();
  other.reset();
  const Pairs expected{{"vrf/red/2", ""}, {"vrf/redder", "{}"}, {"x", std::string(300, '\0')}};
  for (int process = 0; process < 2; ++process) {
    open();
    EXPECT_EQ(loaded("a/b"), expected);
    EXPECT_EQ(loaded("a%2Fb").size(), 2u);
    EXPECT_THAT(loaded("a"), IsEmpty());
  }
  EXPECT_THAT(files(), ElementsAre("a%252Fb.log", "a%2Fb.log")) << "nothing was written for \"a\"";
  store_->remove("a/b");
  store_->remove("never there");
  EXPECT_THAT(loaded("a/b"), IsEmpty());
  EXPECT_THAT(messages_, IsEmpty());
}

TEST_F(LogStoreTest, ATurnWritesSoMuchAndNoMore) {
  open();
  auto kept = journal("a");
  for (int i = 0; i < 1000; ++i) kept->write(key(i), std::string(2000, 'v'));
  unsigned turns = 1;
  for (auto before = size("a"); kept->flush(Journal::Extent::turn); before = size("a"), ++turns)
    EXPECT_LT(size("a") - before, 300u << 10);
  EXPECT_GE(turns, 7u);
  EXPECT_GT(size("a"), 2000000u);
}

// Each batch leads from one generation to the next; the file is cut at each of its bytes.
TEST_F(LogStoreTest, WhereverAKilledProcessStoppedWritingAWholeBatchIsTheEnd) {
  std::vector<std::size_t> ends;
  {
    open();
    auto kept = journal("a");
    for (int generation = 0; generation < 6; ++generation) {
      for (int k = 0; k < 3; ++k) kept->write(key(k), std::to_string(generation));
      kept->flush();
      ends.push_back(size("a"));
    }
  }
  const std::string whole = contentOf("a");
  const std::size_t header = 24 + 1 + 4;
  for (std::size_t cut = 0; cut <= whole.size(); ++cut) {
    SCOPED_TRACE(cut);
    messages_.clear();
    contentIs("a", whole.substr(0, cut));
    open();
    Pairs found = loaded("a");
    const auto generations =
        std::count_if(ends.begin(), ends.end(), [&](std::size_t end) { return end <= cut; });
    ASSERT_EQ(found.size(), generations == 0 ? 0u : 3u);
    for (const auto& [name, value] : found) EXPECT_EQ(value, std::to_string(generations - 1)) << name;
    const bool wholeBatch = cut == header || std::find(ends.begin(), ends.end(), cut) != ends.end();
    if (cut < header) {
      EXPECT_THAT(messages_, ElementsAre(HasSubstr("/a.log: the state store is damaged (")));
    } else if (wholeBatch) {
      EXPECT_THAT(messages_, IsEmpty());
    } else {
      EXPECT_THAT(messages_,
                  ElementsAre(HasSubstr("bytes, which a process did not finish writing, are left out")));
    }
    auto kept = journal("a");
    messages_.clear();
    kept->write("next", "1");
    kept.reset();
    found["next"] = "1";
    open();
    EXPECT_EQ(loaded("a"), found) << "what comes next is behind what was whole";
    EXPECT_THAT(messages_, IsEmpty());
    removeFiles();
  }
}

TEST_F(LogStoreTest, WhateverByteIsDamagedThePathStartsEmptyAndTheFileIsSetAside) {
  {
    open();
    auto kept = journal("a");
    kept->write("one", "1");
    kept->flush();
    kept->write("two", std::string(40, '2'));
    kept->erase("one");
  }
  const std::string sound = contentOf("a");
  for (std::size_t at = 0; at < sound.size(); ++at) {
    for (const int bit : {0, 7}) {
      SCOPED_TRACE(at);
      messages_.clear();
      std::string bytes = sound;
      bytes[at] = static_cast<char>(bytes[at] ^ 1 << bit);
      contentIs("a", bytes);
      open();
      EXPECT_THAT(loaded("a"), IsEmpty());
      ASSERT_THAT(messages_,
                  ElementsAre(AllOf(HasSubstr("/a.log: the state store is damaged ("),
                                    HasSubstr("/a.log.damaged-"), HasSubstr("an empty one is started"))));
      const auto aside = files();
      ASSERT_EQ(aside.size(), 1u);
      std::ifstream in(directory_ + "/" + aside[0], std::ios::binary);
      EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), bytes);
      auto kept = journal("a");
      kept->write("x", "1");
      kept.reset();
      EXPECT_EQ(loaded("a"), (Pairs{{"x", "1"}}));
      removeFiles();
    }
  }
}

// What is sound, but not in this place: batches the other way round, twice, of an earlier file, or of another path.
TEST_F(LogStoreTest, ABatchCountsOnlyWhereItWasWritten) {
  const auto make = [&](const char* path) {
    open();
    auto kept = journal(path);
    std::vector<std::string> parts;
    for (const char* value : {"1", "2"}) {
      kept->write("x", value);
      kept->flush();
      const std::string content = contentOf(path);
      std::size_t before = 0;
      for (const std::string& part : parts) before += part.size();
      if (parts.empty()) parts.push_back(content.substr(0, 24 + std::string(path).size() + 4));
      parts.push_back(content.substr(std::max(before, parts[0].size())));
    }
    kept.reset();
    removeFiles();
    return parts;
  };
  const auto one = make("a"), two = make("a"), other = make("b");
  const std::string cases[] = {one[0] + one[2] + one[1], one[0] + one[1] + one[1],
                               one[0] + one[1] + two[2], two[0] + one[1],
                               other[0] + other[1],      one[0] + std::string(100, '\0')};
  contentIs("a", one[0] + one[1] + one[2]);
  open();
  EXPECT_EQ(loaded("a"), (Pairs{{"x", "2"}}));
  for (const std::string& bytes : cases) {
    messages_.clear();
    contentIs("a", bytes);
    open();
    EXPECT_THAT(loaded("a"), IsEmpty());
    EXPECT_THAT(messages_, ElementsAre(HasSubstr("is damaged")));
    removeFiles();
  }
}

TEST_F(LogStoreTest, WhatIsNoFileIsSetAsideToo) {
  const std::string name = directory_ + "/a.log";
  const std::function<bool()> cases[] = {[&] { return mkdir(name.c_str(), 0700) == 0; },
                                         [&] { return symlink("/etc/passwd", name.c_str()) == 0; },
                                         [&] { return mkfifo(name.c_str(), 0600) == 0; }};
  for (const auto& make : cases) {
    messages_.clear();
    ASSERT_TRUE(make());
    open();
    auto kept = journal("a");
    EXPECT_THAT(messages_, ElementsAre(HasSubstr("is damaged")));
    kept->write("x", "1");
    kept.reset();
    EXPECT_EQ(loaded("a"), (Pairs{{"x", "1"}}));
    removeFiles();
  }
}

TEST_F(LogStoreTest, OneProcessAtATimeAndOnlyInADirectory) {
  open();
  EXPECT_THAT(LogStore::open(directory_, {}).error(), HasSubstr("another process has this state store open"));
  EXPECT_THAT(LogStore::open(directory_ + "/none", {}).error(), HasSubstr("No such file"));
}

TEST_F(LogStoreTest, WhatIsTooLongIsReportedAndTheRestIsKept) {
  open();
  auto kept = journal("a");
  kept->write("big", "small before");
  kept->write(std::string(4096, 'k'), "1");
  kept->write(std::string(4097, 'k'), "1");
  kept->erase(std::string(4097, 'k'));
  kept->write("big", std::string((16 << 20) + 1, 'v'));
  kept->write("fits", std::string(16 << 20, 'v'));
  kept.reset();
  EXPECT_THAT(messages_, ElementsAre(HasSubstr("name has 4097 bytes is not kept; at most 4096 are allowed"),
                                     HasSubstr("value has 16777217 bytes is not kept; at most 16777216")));
  const Pairs found = loaded("a");
  EXPECT_EQ(found.size(), 2u);
  EXPECT_EQ(found.at("fits").size(), 16u << 20);
}

// A child writes without end and is killed. Each batch holds one generation under many keys, which must agree.
TEST_F(LogStoreTest, AKilledProcessLeavesWholeBatches) {
  int lastSeen = -1;
  for (int round = 0; round < 8; ++round) {
    store_.reset();
    int told[2];
    ASSERT_EQ(pipe(told), 0);
    const pid_t child = fork();
    if (child == 0) {
      close(told[0]);
      open();
      auto kept = journal("a");
      for (int i = lastSeen + 1;; ++i) {
        for (int k = 0; k < 200; ++k) kept->write(key(k), std::to_string(i));
        kept->flush(Journal::Extent::turn);
        const char byte = 'f';
        if (::write(told[1], &byte, 1) != 1) _exit(4);
      }
    }
    close(told[1]);
    char byte = 0;
    for (int i = 0; i < 5 + 7 * round; ++i) {
      pollfd readable{told[0], POLLIN, 0};
      ASSERT_EQ(poll(&readable, 1, 20000), 1);
      ASSERT_EQ(read(told[0], &byte, 1), 1);
    }
    kill(child, SIGKILL);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    close(told[0]);
    ASSERT_TRUE(WIFSIGNALED(status)) << WEXITSTATUS(status);
    open();
    const Pairs content = loaded("a");
    ASSERT_EQ(content.size(), 200u);
    for (const auto& [name, value] : content) EXPECT_EQ(value, content.begin()->second) << name;
    const int seen = std::stoi(content.begin()->second);
    EXPECT_GE(seen, lastSeen + 5 + 7 * round) << "what was flushed is there";
    lastSeen = seen;
  }
  for (const std::string& message : messages_) EXPECT_THAT(message, HasSubstr("did not finish writing"));
}

}  // namespace
}  // namespace LogStoreTests
