#include "Statedb/LmdbStore.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <random>

#include "Statedb/LmdbCheck.h"
#include "TestModel.h"

using Statedb::LmdbStore;
using testing::ElementsAre;
using testing::HasSubstr;

namespace {

using Content = std::map<std::string, std::string>;

class LmdbStoreTest : public testing::Test {
 protected:
  LmdbStoreTest() { EXPECT_NE(mkdtemp(directory_.data()), nullptr); }
  ~LmdbStoreTest() override { std::filesystem::remove_all(directory_); }
  std::unique_ptr<Statedb::Store> open() {
    auto opened =
        LmdbStore::open(directory_, [this](const std::string& message) { messages_.push_back(message); });
    error_ = opened.error();
    return opened ? std::move(*opened) : nullptr;
  }
  // Read in one go; and in calls of a few pairs each, which must give the same.
  static Content contentOf(Statedb::Store& store, const std::string& path) {
    std::vector<std::pair<std::string, std::string>> whole, parts;
    store.load(path, std::nullopt, [&](std::string_view key, std::string_view value) {
      whole.emplace_back(key, value);
      return true;
    });
    for (std::size_t before = 0; before == 0 || before != parts.size();) {
      before = parts.size();
      std::optional<std::string> after;
      if (before != 0) after = parts.back().first;
      store.load(path, after, [&](std::string_view key, std::string_view value) {
        parts.emplace_back(key, value);
        return parts.size() % 3 != 0;
      });
      if (parts.empty()) break;
    }
    EXPECT_EQ(parts, whole);
    EXPECT_TRUE(std::is_sorted(whole.begin(), whole.end()));
    return {whole.begin(), whole.end()};
  }
  std::string file() const { return directory_ + "/state.mdb"; }
  std::size_t filesSetAside() const {
    std::size_t count = 0;
    for (const auto& entry : std::filesystem::directory_iterator(directory_)) {
      count += entry.path().filename().string().starts_with("state.mdb.damaged-");
    }
    return count;
  }
  static std::string key(int i) { return "member/" + std::to_string(i); }

  std::string directory_ = testing::TempDir() + "statedb-test-XXXXXX";
  std::vector<std::string> messages_;
  std::string error_;
};

// A database with several levels of pages, values on pages of their own, and a free list.
void fillRichly(Statedb::Store& store) {
  for (int i = 0; i < 5000; ++i) store.write("a", "member/" + std::to_string(i), std::string(40, 'x'));
  store.write("a", "long", std::string(50000, 'y'));
  store.flush(Statedb::Store::kEverything);
  for (int i = 0; i < 5000; i += 2) store.erase("a", "member/" + std::to_string(i));
  store.flush(Statedb::Store::kEverything);
  store.write("b", "other", "1");
  store.flush(Statedb::Store::kEverything);
}

}  // namespace

TEST_F(LmdbStoreTest, LaterOperationsOverrideEarlierOnesWaitingOrNot) {
  for (const bool flushBetween : {false, true}) {
    auto store = open();
    ASSERT_TRUE(store) << error_;
    const auto settle = [&] {
      if (flushBetween) store->flush(LmdbStore::kEverything);
    };
    store->write("a", "x", "1");
    store->write("a", "vrf/red", "{}");
    store->write("a", "vrf/red/1", "old");
    store->write("a", "vrf/redder", "{}");
    store->write("a/b", "x", "nested");
    settle();
    store->write("a", "x", "2");
    store->erase("a", "vrf/red");
    store->erasePath("a", "vrf/red/");
    store->write("a", "vrf/red/2", "new");
    settle();
    EXPECT_EQ(contentOf(*store, "a"), (Content{{"x", "2"}, {"vrf/red/2", "new"}, {"vrf/redder", "{}"}}));
    EXPECT_EQ(contentOf(*store, "a/b"), (Content{{"x", "nested"}}));
    store->write("a", "y", "still waiting when the store goes");
    store.reset();
    store = open();
    EXPECT_EQ(contentOf(*store, "a").size(), 4u);
    store->erasePath("a");
    EXPECT_EQ(contentOf(*store, "a"), Content{});
    EXPECT_EQ(contentOf(*store, "a/b").size(), 1u);
  }
}

TEST_F(LmdbStoreTest, ABoundedFlushKeepsTheOrderOfErasuresAndWrites) {
  auto store = open();
  for (int i = 0; i < 100; ++i) store->write("a", key(i), "old");
  EXPECT_TRUE(store->flush(30));
  EXPECT_EQ(store->waiting(), 70u);
  while (store->flush(30)) continue;
  store->erasePath("a");
  store->write("a", key(7), "new");
  unsigned turns = 0;
  while (store->flush(30)) ++turns;
  EXPECT_GE(turns, 3u);
  EXPECT_EQ(contentOf(*store, "a"), (Content{{key(7), "new"}}));
  EXPECT_FALSE(store->flush(30));
}

TEST_F(LmdbStoreTest, TheMapGrowsWhenItIsFull) {
  auto store = open();
  const std::string value(8 << 10, 'v');
  for (int i = 0; i < 5000; ++i) store->write("a", key(i), value);  // 40 MB into 16
  EXPECT_FALSE(store->flush(LmdbStore::kEverything));
  store.reset();
  store = open();
  EXPECT_EQ(contentOf(*store, "a").size(), 5000u);
  EXPECT_THAT(messages_, ElementsAre());
}

TEST_F(LmdbStoreTest, WhatCannotBeWrittenWaitsAndIsSeenAllTheSame) {
  auto store = open();
  store->write("a", "b", "old");
  store->write("a", "f/1", "old");
  store->write("a", "g", "old");
  store->flush(LmdbStore::kEverything);
  std::signal(SIGXFSZ, SIG_IGN);
  rlimit limit{};
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &limit), 0);
  const rlimit small{16 << 20, limit.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
  store->write("a", "big", std::string(30 << 20, 'x'));
  store->erasePath("a", "f/");
  for (const char* key : {"a", "b", "f/2", "z"}) store->write("a", key, "new");
  store->erase("a", "g");
  EXPECT_FALSE(store->flush(100)) << "no use in trying again at once";
  EXPECT_FALSE(store->flush(LmdbStore::kEverything));
  EXPECT_GT(store->waiting(), 0u);
  std::vector<std::string> seen;
  for (const auto& [name, value] : contentOf(*store, "a")) seen.push_back(name + "=" + value.substr(0, 3));
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
  EXPECT_THAT(seen, ElementsAre("a=new", "b=new", "big=xxx", "f/2=new", "z=new"));
  EXPECT_THAT(store->written().error(), HasSubstr("File too large; what waits is kept"));
  EXPECT_FALSE(store->flush(LmdbStore::kEverything));
  EXPECT_TRUE(store->written());
  EXPECT_EQ(store->waiting(), 0u);
  store.reset();
  EXPECT_EQ(contentOf(*open(), "a").size(), 5u);
}

TEST_F(LmdbStoreTest, AKeyThatIsTooLongIsReportedAndTheRestIsKept) {
  auto store = open();
  store->write("a", std::string(600, 'k'), "1");
  store->erase("a", std::string(600, 'k'));
  store->write("a", "x", "1");
  EXPECT_FALSE(store->flush(LmdbStore::kEverything));
  EXPECT_EQ(contentOf(*store, "a").size(), 1u);
  EXPECT_THAT(messages_, ElementsAre(HasSubstr("at most 511 are allowed")));
}

TEST_F(LmdbStoreTest, OneProcessAtATimeAndOnlyInADirectory) {
  const auto store = open();
  EXPECT_FALSE(open());
  EXPECT_THAT(error_, HasSubstr("another process has this state store open"));
  EXPECT_THAT(LmdbStore::open(directory_ + "/none", {}).error(), HasSubstr("No such file"));
}

// A child writes without end and is killed. Each batch holds one generation under two keys, which must agree.
TEST_F(LmdbStoreTest, AKilledProcessLeavesWholeBatches) {
  int lastSeen = -1;
  for (int round = 0; round < 8; ++round) {
    int told[2];
    ASSERT_EQ(pipe(told), 0);
    const pid_t child = fork();
    if (child == 0) {
      close(told[0]);
      auto opened = LmdbStore::open(directory_, [](const std::string&) { _exit(3); });
      if (!opened) _exit(2);
      const auto store = std::move(*opened);
      for (int i = lastSeen + 1;; ++i) {
        for (int k = 0; k < 200; ++k) store->write("a", key(k), std::to_string(i));
        store->flush(LmdbStore::kEverything);
        store->write("a", key(0), "never flushed");
        const char byte = 'f';
        if (::write(told[1], &byte, 1) != 1) _exit(4);
        store->erase("a", key(0));
        store->write("a", key(0), std::to_string(i));
      }
    }
    close(told[1]);
    char bytes[1];
    for (int i = 0; i < 5 + 7 * round; ++i) {
      pollfd readable{told[0], POLLIN, 0};
      ASSERT_EQ(poll(&readable, 1, 20000), 1);
      ASSERT_EQ(read(told[0], bytes, 1), 1);
    }
    kill(child, SIGKILL);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    close(told[0]);
    ASSERT_TRUE(WIFSIGNALED(status)) << WEXITSTATUS(status);

    const auto store = open();
    ASSERT_TRUE(store) << error_;
    const Content content = contentOf(*store, "a");
    ASSERT_EQ(content.size(), 200u);
    for (const auto& [name, value] : content) EXPECT_EQ(value, content.begin()->second) << name;
    const int seen = std::stoi(content.begin()->second);
    EXPECT_GE(seen, lastSeen + 5 + 7 * round) << "what was flushed is there";
    lastSeen = seen;
  }
  EXPECT_THAT(messages_, ElementsAre());
}

TEST_F(LmdbStoreTest, ADamagedFileIsSetAsideAndAnEmptyOneIsStarted) {
  constexpr off_t kUncut = -1;
  const struct {
    const char* name;
    off_t cutTo;
    off_t at;  // where the bytes are written then
    std::string bytes;
    const char* reported;
  } cases[] = {
      {"magic", kUncut, 16, "oops", "no valid header"},
      {"second header", kUncut, 4096 + 16, "oops", "second header is invalid"},
      {"version", kUncut, 20, "\x09", "no valid header"},
      {"page size", kUncut, 16 + 24, "\x11", "page size"},
      {"cut to one page", 4096, 0, "", "cut short"},
      {"cut to half", 40 * 4096, 0, "", "cut short"},
      {"cut to a few bytes", 100, 0, "", "no valid header"},
      {"text", 0, 0, std::string(20000, 'g'), "no valid header"},
      {"every page behind the headers is garbage", kUncut, 8192, std::string(1 << 20, '\xa5'), ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const std::size_t before = filesSetAside();
    messages_.clear();
    fillRichly(*open());
    const int descriptor = ::open(file().c_str(), O_RDWR | O_CLOEXEC);
    if (c.cutTo != kUncut) {
      ASSERT_EQ(ftruncate(descriptor, c.cutTo), 0);
    }
    ASSERT_EQ(pwrite(descriptor, c.bytes.data(), c.bytes.size(), c.at), std::ssize(c.bytes));
    ::close(descriptor);
    auto store = open();
    ASSERT_TRUE(store) << error_;
    EXPECT_THAT(messages_, ElementsAre(testing::AllOf(HasSubstr("is damaged"), HasSubstr(c.reported))));
    EXPECT_EQ(filesSetAside(), before + 1);
    EXPECT_EQ(contentOf(*store, "a"), Content{});
    store->write("a", "x", "1");
    EXPECT_FALSE(store->flush(LmdbStore::kEverything));
    store.reset();
    ASSERT_EQ(unlink(file().c_str()), 0);
  }
}

// A sound file must never be taken for a damaged one, whatever was done to the tree and its free list.
TEST_F(LmdbStoreTest, TheCheckerAcceptsWhatLmdbWrites) {
  std::mt19937 random(7);
  const int descriptor = ::open(file().c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0640);
  EXPECT_FALSE(Statedb::checkLmdbFile(descriptor)) << "an empty file";
  ::close(descriptor);
  auto store = open();
  messages_.clear();
  for (int round = 0; round < 120; ++round) {
    const unsigned range = 1u << (random() % 14);
    const std::size_t largest = round % 3 == 0 ? 9000 : 90;
    for (int i = 0; i < 700; ++i) {
      const std::string name = std::to_string(random() % 3) + "/" + std::string(random() % 3 * 150, 'k') +
                               std::to_string(random() % range);
      if (round % 4 == 3 || random() % 3 == 0) {
        store->erase("a", name);
      } else {
        store->write("a", name, std::string(random() % largest, 'v'));
      }
    }
    if (random() % 9 == 0) store->erasePath("a", std::to_string(random() % 3) + "/");
    if (random() % 31 == 0) store->erasePath("a");
    while (store->flush(1 + random() % 700)) continue;
    if (round % 16 == 15) store = (store.reset(), open());
    const int reading = ::open(file().c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_TRUE(Statedb::checkLmdbFile(reading)) << round;
    ::close(reading);
  }
  EXPECT_THAT(messages_, ElementsAre());
}
