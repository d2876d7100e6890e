// Writers that die, files that lie, and readers in other processes meanwhile.

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <functional>
#include <random>
#include <vector>

#include "Scratch.h"

namespace Memtab::Test {
namespace {

using testing::HasSubstr;

// The bytes of a table's file, mapped for writing behind everybody's back.
class File {
 public:
  explicit File(const std::string& name) : fd_(::open(name.c_str(), O_RDWR | O_CLOEXEC)) {
    struct stat status {};
    fstat(fd_, &status);
    size_ = static_cast<std::size_t>(status.st_size);
    bytes_ = static_cast<std::byte*>(mmap(nullptr, size_, PROT_READ | PROT_WRITE, MAP_SHARED, fd_, 0));
  }
  ~File() {
    munmap(bytes_, size_);
    close(fd_);
  }
  File(const File&) = delete;
  File& operator=(const File&) = delete;

  Header& header() { return *reinterpret_cast<Header*>(bytes_); }
  std::size_t size() const { return size_; }
  void sizeIs(std::size_t size) { ASSERT_EQ(ftruncate(fd_, static_cast<off_t>(size)), 0); }

  // Slot and tag of a key, as offsets that a writer's own view of the table tells.
  static std::uint64_t indexOf(Writer& writer, const Key& key) {
    const auto words = toWords(key);
    const Segment& segment = writer.core().segment();
    const Probe at =
        probe(segment, segment.shape(), words.data(), hashOf(segment.shape(), words.data(), segment.seed()));
    EXPECT_TRUE(at.found);
    return at.index;
  }
  std::uint32_t* slot(std::uint64_t index) {
    const std::uint64_t slots = header().capacity + header().tailSlots;
    const std::uint64_t slotBytes = 4 + sizeof(Key) + sizeof(Value);
    return reinterpret_cast<std::uint32_t*>(bytes_ + (size_ - slots * slotBytes) / 64 * 64 +
                                            index * slotBytes);
  }
  std::uint8_t* tag(std::uint64_t index) {
    const std::uint64_t ring = (sizeof(Header) + header().ringEntries * sizeof(Key) + 63) / 64 * 64;
    return reinterpret_cast<std::uint8_t*>(bytes_ + ring + index);
  }

 private:
  int fd_;
  std::size_t size_ = 0;
  std::byte* bytes_ = nullptr;
};

class RecoveryTest : public Scratch {};

TEST_F(RecoveryTest, ASecondLiveWriterIsRefused) {
  auto writer = open();
  EXPECT_EQ(report.start, OpenReport::Start::kCreated);
  put(*writer, 0, 1);
  const auto second = Writer::open(directory, kTable, {});
  EXPECT_EQ(second.number(), EBUSY);
  EXPECT_THAT(second.error(), HasSubstr("live writer already, process " + std::to_string(getpid())));
  EXPECT_EXIT(_exit(Writer::open(directory, kTable, {}) ? 1 : 0), testing::ExitedWithCode(0), "");
  put(*writer, 1, 2);
  writer.reset();
  EXPECT_TRUE(open()) << "once the first has closed";
  EXPECT_EQ(report.start, OpenReport::Start::kTakenOver);
}

TEST_F(RecoveryTest, AHalfWrittenEntryHarmsNobodyElse) {
  auto writer = open();
  put(*writer, 0, 500);
  Reader reader(directory, kTable);
  reader.watch();
  const Key key = keyOf(77);
  const std::uint64_t index = File::indexOf(*writer, key);
  writer.reset();
  File file(reader.view().file());
  file.slot(index)[0] |= kBusy;
  for (std::uint32_t i = 0; i < 500; ++i) {
    if (i != 77) {
      ASSERT_EQ(reader.lookup(keyOf(i)), valueOf(keyOf(i), 0));
    }
  }
  EXPECT_EQ(reader.lookup(keyOf(1000)), std::nullopt);
  EXPECT_THROW(reader.lookup(key), CorruptionError);
  EXPECT_EQ(reader.peek(key), std::nullopt);
  EXPECT_EQ(reader.peek(keyOf(76)), valueOf(keyOf(76), 0));
  Cursor cursor;
  const VisitResult walk = reader.visit(cursor, 10000, [](const Key&, const Value&) {});
  EXPECT_EQ(walk.visited, 499U);
  EXPECT_EQ(walk.unreadable, 1U);

  writer = open();
  EXPECT_EQ(report.start, OpenReport::Start::kTakenOver);
  EXPECT_EQ(report.repaired, 1U);
  EXPECT_EQ(drained(reader), (std::map<Key, int>{{key, 1}}));
  EXPECT_EQ(reader.lookup(key), std::nullopt);
  EXPECT_EQ(reader.size(), 499U);
}

// The other places at which a write can end early: before the ring's head moved, and before the tag was set.
TEST_F(RecoveryTest, AWriteThatEndedEarlyIsCompletedByTheNextWriter) {
  for (const bool tagged : {true, false}) {
    SCOPED_TRACE(tagged);
    auto writer = open();
    put(*writer, 0, 10);
    Reader reader(directory, kTable);
    reader.watch();
    put(*writer, 10, 11);
    const std::uint64_t index = File::indexOf(*writer, keyOf(10));
    writer.reset();
    {
      File file(reader.view().file());
      --file.header().head;
      if (!tagged) --file.header().live, *file.tag(index) = 0;
    }
    EXPECT_TRUE(drained(reader).empty());
    EXPECT_EQ(reader.lookup(keyOf(10)).has_value(), tagged);
    writer = open();
    EXPECT_EQ(report.reported, 1U);
    EXPECT_EQ(drained(reader), (std::map<Key, int>{{keyOf(10), 1}}));
    EXPECT_EQ(reader.lookup(keyOf(10)), valueOf(keyOf(10), 0));
    EXPECT_EQ(writer->size(), 11U);
    writer->core().remove();
  }
}

TEST_F(RecoveryTest, AWriterThatDiedWhileTheTableMoved) {
  auto writer = open({.capacity = 3000});
  std::uint32_t count = 0;
  while (!writer->core().growing()) put(*writer, count, count + 1), ++count;
  Reader reader(directory, kTable);
  reader.watch();
  put(*writer, count, count + 5);
  // As it is between retiring the old segment and giving its name to the new one.
  File(reader.view().file()).header().retired = 1;
  EXPECT_EQ(reader.lookup(keyOf(0)), valueOf(keyOf(0), 0));
  EXPECT_EQ(drained(reader).size(), 5U);
  const std::string next = Directory::nextFile(reader.view().file());
  EXPECT_EQ(access(next.c_str(), F_OK), 0);
  writer.reset();
  EXPECT_NE(access(next.c_str(), F_OK), 0) << "goes with a writer that ends";
  ASSERT_GE(::open(next.c_str(), O_CREAT | O_RDWR | O_CLOEXEC, 0600), 0);
  writer = open();
  EXPECT_EQ(report.start, OpenReport::Start::kTakenOver);
  EXPECT_EQ(writer->size(), count + 5);
  put(*writer, count + 5, 20000);
  EXPECT_EQ(entries(reader).size(), 20000U);
}

TEST_F(RecoveryTest, DamagedFilesAreRefusedAndSetAside) {
  struct Case {
    const char* name;
    std::function<void(File&)> damage;
    const char* says;
    bool readerCannotTell = false;
  };
  const auto field = [](auto Header::*member, auto value) {
    return [member, value](File& file) {
      file.header().*member = static_cast<std::remove_reference_t<decltype(file.header().*member)>>(value);
    };
  };
  const auto sizeBy = [](auto change) { return [change](File& file) { file.sizeIs(change(file.size())); }; };
  // In every slot that holds an entry.
  const auto inEntries = [](void (*damage)(std::uint32_t * slot)) {
    return [damage](File& file) {
      for (std::uint64_t i = 0; i < file.header().capacity; ++i) {
        if (file.slot(i)[0] != 0) damage(file.slot(i));
      }
    };
  };
  const Case cases[] = {
      {"empty", sizeBy([](std::size_t) { return std::size_t{0}; }), "file size is 0"},
      {"header cut", sizeBy([](std::size_t) { return std::size_t{100}; }), "file size is 100"},
      {"slots cut", sizeBy([](std::size_t size) { return size - 64; }), "file size"},
      {"too long", sizeBy([](std::size_t size) { return size + 64; }), "file size"},
      {"no segment", field(&Header::magic, 1), "does not begin like"},
      {"other layout", field(&Header::layoutVersion, 99), "layout version is 99, allowed is 1"},
      {"other key", field(&Header::keyBytes, 24), "key size is 24, allowed is 20"},
      {"other value", field(&Header::valueBytes, 9), "value size is 9, allowed is 8"},
      {"other type", field(&Header::typeTag, 5), "type tag is 5"},
      {"no capacity", field(&Header::capacity, 0), "capacity is 0"},
      {"odd capacity", field(&Header::capacity, 81), "capacity is 81"},
      {"vast capacity", field(&Header::capacity, ~0ULL), "capacity is"},
      {"other capacity", field(&Header::capacity, 4096), "tail is"},
      {"vast tail", field(&Header::tailSlots, ~0ULL - 100), "tail is"},
      {"no ring", field(&Header::ringEntries, 0), "ring size is 0"},
      {"uneven ring", field(&Header::ringEntries, 1000), "ring size is 1000"},
      {"vast ring", field(&Header::ringEntries, 1U << 31), "ring size is"},
      {"wrong seed", field(&Header::hashSeed, 12345), "does not belong there", true},
      {"swapped key", inEntries([](std::uint32_t* slot) { slot[1] ^= 1; }), "does not belong there", true},
      {"no state", inEntries([](std::uint32_t* slot) { slot[0] = kBusy; }), "no writer writes", true},
      {"tag of nothing", [](File& file) { *file.tag(0) |= kTagUsed, *file.slot(0) = 0; }, "has a tag", true},
  };
  for (const Case& test : cases) {
    SCOPED_TRACE(test.name);
    auto writer = open();
    put(*writer, 0, 30);
    const std::string name = writer->core().file();
    writer.reset();
    Reader early(directory, kTable);
    early.watch();
    {
      File file(name);
      test.damage(file);
    }
    Reader late(directory, kTable);
    if (!test.readerCannotTell) {
      EXPECT_THAT(late.view().problem(), HasSubstr(test.says));
      EXPECT_THAT(late.view().problem(), HasSubstr(name));
      EXPECT_THROW(late.lookup(keyOf(1)), CorruptionError);
      EXPECT_TRUE(entries(late).empty());
    }
    writer = open();
    EXPECT_EQ(report.start, OpenReport::Start::kReplacedDamaged);
    EXPECT_THAT(report.replaced, HasSubstr(test.says));
    EXPECT_EQ(directory.damaged(), std::vector{report.setAside});
    EXPECT_EQ(writer->size(), 0U);
    put(*writer, 1, 2, 3);
    early.view().refresh();
    late.view().refresh();
    EXPECT_EQ(early.lookup(keyOf(1)), valueOf(keyOf(1), 3));
    EXPECT_EQ(late.lookup(keyOf(1)), valueOf(keyOf(1), 3));
    if (std::strstr(test.name, "cut") == nullptr && std::strcmp(test.name, "empty") != 0) {
      EXPECT_TRUE(drained(early).contains(keyOf(1)));
    }
    writer.reset();
    directory.removeAll();
  }
}

// What any local user can put under a table's names before it is there, a lock on it included.
TEST_F(RecoveryTest, ForeignFilesAreReplaced) {
  using Make = void (*)(const std::string& name);
  const Make locked = [](const std::string& name) {
    const int fd = ::open(name.c_str(), O_CREAT | O_RDWR | O_CLOEXEC, 0666);  // open until the test ends
    EXPECT_TRUE(fchown(fd, 65534, 65534) == 0 && flock(fd, LOCK_EX) == 0) << "this test needs root";
  };
  const Make link = [](const std::string& name) { EXPECT_EQ(symlink("/dev/null", name.c_str()), 0); };
  const Make pipe = [](const std::string& name) { EXPECT_EQ(mkfifo(name.c_str(), 0666), 0); };
  const Make folder = [](const std::string& name) { EXPECT_EQ(mkdir(name.c_str(), 0777), 0); };
  if (geteuid() != 0) GTEST_SKIP() << "needs root, to make files of another user";
  const std::string name = directory.segmentFile(kTable);
  const std::string files[] = {name, Directory::bellFile(name), Directory::nextFile(name)};
  for (const Make make : {locked, link, pipe, folder}) {
    for (const std::string& file : files) {
      SCOPED_TRACE(file);
      make(file);
      Reader reader(directory, kTable);
      EXPECT_EQ(reader.view().problem().empty(), file != name) << "a reader believes it";
      auto writer = open({.capacity = 16});
      ASSERT_TRUE(writer);
      EXPECT_EQ(report.start == OpenReport::Start::kReplacedDamaged, file == name);
      if (file != Directory::nextFile(name)) {
        EXPECT_THAT(report.replaced, HasSubstr(file));
      }
      put(*writer, 0, 1000);  // moves to another segment several times
      EXPECT_FALSE(Writer::open(directory, kTable, {})) << "and its lock holds";
      reader.view().refresh();
      EXPECT_EQ(entries(reader).size(), 1000U);
      writer->core().remove();
    }
  }
  directory.removeAll();
  EXPECT_TRUE(directory.damaged().empty()) << "folders too";
}

// Set aside in memory that others need too.
TEST_F(RecoveryTest, OfWhatWasSetAsideTheLatestIsKept) {
  const std::string name = directory.segmentFile(kTable);
  const std::string before = name + ".damaged-1-1";
  ASSERT_EQ(symlink("/dev/null", before.c_str()), 0);
  const std::string other = directory.segmentFile("other") + ".damaged-1-1";
  ASSERT_EQ(symlink("/dev/null", other.c_str()), 0);
  open()->core();
  { File(name).header().magic = 1; }
  open()->core();
  EXPECT_EQ(directory.damaged(), (std::vector{report.setAside, other}));
}

// Writes for ever, checksummed values, so fast that the table moves again and again.
void writeForEver(const Directory& directory, const char* table, std::uint32_t keys, unsigned seed) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  const auto opened = Writer::open(directory, table, {.capacity = 16, .ringEntries = 256});
  if (!opened || (*opened)->openReport().start == OpenReport::Start::kReplacedDamaged) _exit(3);
  Writer* const writer = opened->get();
  std::mt19937 random(seed);
  for (std::uint32_t turn = 0;; ++turn) {
    const bool growing = turn / (keys * 4) % 2 == 0;
    const Key key = keyOf(static_cast<std::uint32_t>(random()) % keys);
    if (random() % 8 < (growing ? 7U : 1U)) {
      writer->entryIs(key, valueOf(key, static_cast<std::uint32_t>(random())));
    } else {
      writer->entryDel(key);
    }
    if (turn % 64 == 0) writer->core().flush();
  }
}

TEST_F(RecoveryTest, WritersKilledInMidWriteWhileAnotherProcessReads) {
  constexpr std::uint32_t kKeys = 4000;
  Watcher watcher;
  Reader reader(directory, kTable, &watcher);
  reader.watch();
  Model followed;
  std::uint64_t lookups = 0, found = 0, generations = 0;
  const auto follow = [&](const Key& key) {
    try {
      const auto value = reader.lookup(key);
      if (value) {
        ASSERT_TRUE(belongs(key, *value)) << "torn";
        followed[key] = *value;
      } else {
        followed.erase(key);
      }
    } catch (const CorruptionError&) {
      followed.erase(key);  // its writer has died; the next one deletes it
    }
  };
  for (unsigned round = 0; round < 25; ++round) {
    const pid_t child = fork();
    if (child == 0) writeForEver(directory, kTable, kKeys, round);
    std::mt19937 random(round);
    std::uint64_t target = 0;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (std::chrono::steady_clock::now() < deadline) {
      sched_yield();
      ASSERT_EQ(waitpid(child, nullptr, WNOHANG), 0) << "the writer found the table damaged";
      for (int i = 0; i < 200; ++i, ++lookups) {
        const Key key = keyOf(static_cast<std::uint32_t>(random()) % kKeys);
        try {
          const auto value = reader.lookup(key);
          found += value ? 1 : 0;
          ASSERT_TRUE(!value || belongs(key, *value)) << "torn";
        } catch (const CorruptionError&) {
          // The writer before was killed in the middle of this entry, or this one is not running now.
        }
      }
      watcher.handleReadable();
      while (watcher.next()) {
      }
      reader.drain(100, follow);
      if (const auto& segment = reader.view().segment()) {
        if (target == 0) target = segment->head() + 2000 + random() % 60000;
        if (segment->head() >= target) break;
      }
    }
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);

    auto writer = open();
    ASSERT_EQ(report.start, OpenReport::Start::kTakenOver) << report.replaced;
    generations = writer->core().segment().fixed().generation;
    const Model left = entries(*writer);
    ASSERT_EQ(left.size(), writer->size());
    for (const auto& [key, value] : left) ASSERT_TRUE(belongs(key, value)) << "torn";
    toTheEnd([&] { return reader.drain(1000, follow); });
    ASSERT_EQ(followed, left) << "round " << round;
  }
  EXPECT_GT(found, 1000U);
  EXPECT_GT(generations, 10U);
}

}  // namespace
}  // namespace Memtab::Test
