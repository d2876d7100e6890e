#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>

#include <fstream>
#include <set>
#include <vector>

#include "Scratch.h"

namespace Memtab::Test {
namespace {

class ChangeFeedTest : public Scratch {
 protected:
  using Keys = std::map<Key, int>;
  static Keys times(std::uint32_t from, std::uint32_t to, int each = 1) {
    Keys keys;
    for (std::uint32_t i = from; i < to; ++i) keys[keyOf(i)] = each;
    return keys;
  }
  // The views that have news, now or, if it has to happen, soon. The watcher also wakes for files of others.
  static std::set<TableView*> news(Watcher& watcher, bool mustHappen = true) {
    std::set<TableView*> views;
    pollfd descriptor{watcher.descriptor(), POLLIN, 0};
    do {
      watcher.handleReadable();
      while (TableView* view = watcher.next()) views.insert(view);
    } while (mustHappen && views.empty() && poll(&descriptor, 1, 10000) == 1);
    return views;
  }
};

TEST_F(ChangeFeedTest, ReportsEveryChangeAndNothingElse) {
  auto writer = open();
  put(*writer, 0, 10);
  Reader reader(directory, kTable);
  EXPECT_TRUE(drained(reader).empty()) << "not watching";
  reader.watch();
  EXPECT_TRUE(drained(reader).empty()) << "attaching replays nothing";
  put(*writer, 0, 10);
  EXPECT_TRUE(drained(reader).empty()) << "equal values";
  EXPECT_TRUE(reader.isCurrent());
  put(*writer, 3, 5, 1);
  EXPECT_FALSE(reader.isCurrent());
  writer->entryDel(keyOf(7));
  writer->entryDel(keyOf(700));
  put(*writer, 10, 11);
  std::vector<Key> order;
  EXPECT_TRUE(reader.drain(3, [&](const Key& key) { order.push_back(key); }));
  EXPECT_EQ(order, (std::vector{keyOf(3), keyOf(4), keyOf(7)}));
  EXPECT_EQ(drained(reader), times(10, 11));
  put(*writer, 1, 2, 5);
  put(*writer, 1, 2, 6);
  EXPECT_EQ(drained(reader), times(1, 2, 2));
}

// A reader that has fallen behind, by whatever happened meanwhile; what it has been told then is
// what there is.
TEST_F(ChangeFeedTest, FallingBehind) {
  struct Case {
    const char* name;
    void (*happens)(Writer&);
    std::vector<std::uint32_t> mustReport;
    std::vector<std::uint32_t> mustNotReport;
  };
  const Case cases[] = {
      {"changes in place", [](Writer& w) { put(w, 0, 40, 1); }, {0, 39}, {40, 99}},
      {"deletions",
       [](Writer& w) {
         for (std::uint32_t i = 0; i < 40; ++i) w.entryDel(keyOf(i));
       },
       {0, 39},
       {40}},
      {"deleted and made again",
       [](Writer& w) {
         w.entryDel(keyOf(5));
         put(w, 5, 6, 2);
         put(w, 50, 90, 1);
       },
       {5, 50},
       {6, 95}},
      {"deleted before the table moved",
       [](Writer& w) {
         w.entryDel(keyOf(5));
         put(w, 1000, 3000);
         w.entryDel(keyOf(6));
         put(w, 3000, 9000);
       },
       {5, 6, 1000, 8999},
       {7, 99}},
      {"come and gone",
       [](Writer& w) {
         put(w, 1000, 3000);
         for (std::uint32_t i = 1000; i < 3000; ++i) w.entryDel(keyOf(i));
       },
       {},
       {0, 99}},
  };
  for (const Case& test : cases) {
    SCOPED_TRACE(test.name);
    auto writer = open({.capacity = 200, .ringEntries = 16});
    put(*writer, 0, 100);
    Reader reader(directory, kTable);
    reader.watch();
    test.happens(*writer);
    const auto keys = drained(reader, 5);
    EXPECT_GE(reader.overruns(), 1U);
    for (const auto i : test.mustReport) EXPECT_TRUE(keys.contains(keyOf(i))) << i;
    for (const auto i : test.mustNotReport) EXPECT_FALSE(keys.contains(keyOf(i))) << i;
    put(*writer, 98, 99, 77);
    EXPECT_EQ(drained(reader), times(98, 99)) << "and the ring is followed again";
    writer->core().remove();
  }
}

TEST_F(ChangeFeedTest, TablesThatAppearGoAndAreReplaced) {
  Watcher watcher;
  ASSERT_GE(watcher.descriptor(), 0) << watcher.watching().error();
  Reader reader(directory, kTable, &watcher);
  reader.watch();
  EXPECT_EQ(watcher.next(), &reader.view()) << "a view begins as if it had news";
  EXPECT_FALSE(reader.drain(1, [](const Key&) {}));
  EXPECT_EQ(reader.lookup(keyOf(1)), std::nullopt);
  EXPECT_EQ(reader.size(), 0U);
  EXPECT_TRUE(entries(reader).empty());

  const auto told = [&] {
    EXPECT_EQ(news(watcher), std::set{&reader.view()});
    return drained(reader, 3);
  };
  auto writer = open();
  put(*writer, 0, 20);
  writer->core().flush();
  EXPECT_EQ(told(), times(0, 20)) << "appeared";
  EXPECT_EQ(reader.lookup(keyOf(1)), valueOf(keyOf(1), 0));

  writer->core().remove();
  writer.reset();
  EXPECT_EQ(told(), times(0, 20)) << "gone";
  EXPECT_EQ(reader.lookup(keyOf(1)), std::nullopt);
  EXPECT_FALSE(reader.view().attached());

  writer = open();
  put(*writer, 10, 30, 1);
  writer->core().flush();
  EXPECT_EQ(told(), times(10, 30));
  // Another table under the same name, unrelated to the first, which the reader never sees go.
  writer->core().remove();
  writer = open();
  put(*writer, 20, 40, 2);
  writer->core().flush();
  auto expected = times(10, 40);
  for (std::uint32_t i = 20; i < 30; ++i) expected[keyOf(i)] = 2;
  EXPECT_EQ(told(), expected) << "every key of the old and every key of the new";
}

TEST_F(ChangeFeedTest, ARefusedOpenKeepsWhatIsHeld) {
  auto writer = open({.capacity = 16});
  put(*writer, 0, 10);
  Reader reader(directory, kTable);
  put(*writer, 10, 1000);  // moves to another segment several times
  rlimit usual{};
  getrlimit(RLIMIT_NOFILE, &usual);
  const rlimit none{0, usual.rlim_max};
  setrlimit(RLIMIT_NOFILE, &none);
  reader.view().refresh();
  EXPECT_EQ(reader.lookup(keyOf(1)), valueOf(keyOf(1), 0));
  setrlimit(RLIMIT_NOFILE, &usual);
  EXPECT_EQ(reader.size(), 1000U);
}

// The kernel drops what its queue has no room for, and says no more than that.
TEST_F(ChangeFeedTest, AnOverflowIsNewsOfEveryTable) {
  Watcher watcher;
  auto writer = open();
  Reader reader(directory, kTable, &watcher);
  news(watcher);
  int room = 0;
  std::ifstream("/proc/sys/fs/inotify/max_queued_events") >> room;
  const std::string other = "/dev/shm/" + directory.prefix() + "-other";
  for (int i = 0; i <= room / 2; ++i) {  // each time one event that it comes, and one that it goes
    close(::open(other.c_str(), O_CREAT | O_CLOEXEC, 0600));
    unlink(other.c_str());
  }
  put(*writer, 0, 5);
  writer->core().flush();
  EXPECT_EQ(news(watcher), std::set{&reader.view()});
}

TEST_F(ChangeFeedTest, TheDoorbellRingsOncePerFlushWithNews) {
  Watcher watcher;
  auto writer = open();
  Reader reader(directory, kTable, &watcher), second(directory, kTable, &watcher),
      other(directory, "other", &watcher);
  const std::set both{&reader.view(), &second.view()};
  news(watcher);
  put(*writer, 0, 5);
  EXPECT_TRUE(news(watcher, false).empty()) << "before the flush";
  writer->core().flush();
  EXPECT_EQ(news(watcher), both);
  EXPECT_TRUE(news(watcher, false).empty());
  put(*writer, 0, 5);
  writer->core().flush();
  EXPECT_TRUE(news(watcher, false).empty()) << "nothing changed";
  put(*writer, 0, 5, 1);
  { const Reader third(directory, kTable, &watcher); }  // a view that goes takes nobody's watch away
  EXPECT_TRUE(news(watcher, false).empty());
  writer->core().flush();
  EXPECT_EQ(news(watcher), both);
}

}  // namespace
}  // namespace Memtab::Test
