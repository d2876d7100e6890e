#include "Memtab/Entity.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "Memtab/EntityManager.h"
#include "Mox/Notifiee.h"

namespace {

using Memtab::MountDescriptor;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

class Ports final : public Memtab::Entity {
  MEMTAB_COLLECTION(std::uint32_t, std::uint32_t, port)
  MEMTAB_MEMBERS(port)
};
constexpr char kPath[] = "bridging/ports";
constexpr char kTable[] = "bridging/ports.port";

// What a process has of its own: a loop, a scheduler and a manager, on tables that all processes share.
class Process {
 public:
  Process(const Memtab::Directory& directory, const Orb::Clock& clock) : loop(clock), directory_(directory) {
    loop.errorHandlerIs(
        [this](const char* where, const char* what) { errors.push_back(std::string(where) + ": " + what); });
    start();
  }
  void start() {
    manager =
        Mox::make<Memtab::EntityManager>(loop, root->scheduler(), directory_,
                                         [this](const std::string& message) { reports.push_back(message); });
    manager->registerType<Ports>("Ports");
    manager->registerType<Ports>("Hosts");
  }
  Mox::Ptr<Ports> mount(const MountDescriptor& descriptor, const std::string& path = kPath) {
    const Memtab::Mounted mounted = manager->mount(path, "Ports", descriptor);
    if (!mounted) reports.push_back(mounted.error());
    return mounted ? Mox::dynamicPtrCast<Ports>(*mounted) : nullptr;
  }
  Mox::Ptr<Ports> reader() { return mount(MountDescriptor::reader()); }
  Mox::Ptr<Ports> writer() { return mount(MountDescriptor::writer({{"port", 64}})); }
  // Writes the way a plug-in does, from inside a turn of its loop.
  void inTurn(std::function<void()> write) {
    loop.post(std::move(write));
    loop.step();
  }
  void settle() {
    for (int turns = 0; loop.step(); ++turns) ASSERT_LT(turns, 10000) << "the loop does not come to rest";
  }

  Orb::EventLoop loop;
  Mox::Ptr<Orb::TaskSchedulerRoot> root = Mox::make<Orb::TaskSchedulerRoot>(loop);
  std::vector<std::string> reports;
  std::vector<std::string> errors;
  Mox::Ptr<Memtab::EntityManager> manager;

 private:
  Memtab::Directory directory_;
};

class MemtabEntity : public ::testing::Test {
 protected:
  ~MemtabEntity() override { directory_.removeAll(); }

  static std::string prefix() {
    static int count = 0;
    return "memtab-entity-test-" + std::to_string(getpid()) + "-" + std::to_string(++count);
  }
  using Watch = Mox::Notifiee<Ports>;
  // Hears the key and what is there now: "7=1", or "7-" for nothing.
  std::unique_ptr<Watch> watch(const Mox::Ptr<Ports>& ports) {
    auto watch = std::make_unique<Watch>(ports);
    watch->on(Ports::portChanged, [this, entity = ports.get()](std::uint32_t key) {
      const auto value = entity->portEntry(key);
      heard_.push_back(std::to_string(key) + (value ? "=" + std::to_string(*value) : "-"));
    });
    return watch;
  }
  std::vector<std::string> taken() { return std::exchange(heard_, {}); }
  void both() {
    us_.settle();
    them_.settle();
    us_.settle();
  }

  Memtab::Directory directory_{prefix()};
  Orb::ManualClock clock_;
  Process us_{directory_, clock_};
  Process them_{directory_, clock_};
  std::vector<std::string> heard_;
};

TEST_F(MemtabEntity, one_entity_a_path_whose_own_writes_are_seen_at_once_and_told_from_the_loop_only) {
  const auto reader = us_.reader();
  const auto watching = watch(reader);
  const auto writer = us_.mount(MountDescriptor::writer(), std::string(kPath) + "/");
  ASSERT_TRUE(writer);
  EXPECT_EQ(writer, reader);
  EXPECT_EQ(us_.manager->entityOf<Ports>(kPath), reader);
  EXPECT_TRUE(us_.manager->writable(kPath));
  us_.settle();
  us_.inTurn([&] {
    writer->portIs(7, 1);
    writer->portIs(8, 2);
    EXPECT_EQ(reader->port(7), 1u);
    EXPECT_EQ(reader->ports(), 2u);
    EXPECT_FALSE(reader->portEntry(9));
    EXPECT_EQ(reader->port(9), 0u);
    EXPECT_THAT(heard_, IsEmpty());
  });
  EXPECT_THAT(heard_, IsEmpty());
  us_.settle();
  EXPECT_THAT(taken(), ElementsAre("7=1", "8=2"));
  us_.inTurn([&] {
    writer->portIs(7, 1);  // unchanged
    EXPECT_TRUE(writer->portDel(8));
    EXPECT_FALSE(writer->portDel(8));
  });
  us_.settle();
  EXPECT_THAT(taken(), ElementsAre("8-"));
}

TEST_F(MemtabEntity, changes_of_another_process_arrive_and_a_table_outlives_its_writer) {
  auto writer = them_.writer();
  const auto reader = us_.reader();
  EXPECT_THROW(reader->portIs(1, 2), Mox::Error);
  const auto watching = watch(reader);
  us_.settle();
  them_.inTurn([&] {
    writer->portIs(1, 10);
    writer->portIs(2, 20);
  });
  EXPECT_EQ(reader->port(2), 20u);
  EXPECT_THAT(heard_, IsEmpty()) << "told in a turn of the reader's loop";
  both();
  EXPECT_THAT(taken(), ElementsAre("1=10", "2=20"));
  them_.manager = nullptr;
  EXPECT_THROW(writer->portIs(1, 1), Mox::Error);  // the entity is held for longer, the table is not
  EXPECT_EQ(writer->ports(), 0u);
  both();
  EXPECT_THAT(taken(), IsEmpty());
  EXPECT_EQ(reader->port(2), 20u);
  them_.start();
  writer = them_.writer();
  ASSERT_TRUE(writer);
  EXPECT_EQ(writer->port(1), 10u);
  them_.inTurn([&] {
    writer->portIs(1, 10);
    writer->portDel(2);
  });
  both();
  EXPECT_THAT(taken(), ElementsAre("2-"));
}

TEST_F(MemtabEntity, doorbell_may_be_held_back_to_gather_the_changes_of_several_turns) {
  const auto writer = them_.mount(MountDescriptor::writer({}, 0.5));
  const auto reader = us_.reader();
  const auto watching = watch(reader);
  both();
  for (std::uint32_t key : {1u, 2u}) {
    them_.inTurn([&] { writer->portIs(key, key); });
    both();
    EXPECT_THAT(heard_, IsEmpty());
    EXPECT_EQ(reader->port(key), key);
    clock_.advance(0.25);
  }
  both();
  EXPECT_THAT(taken(), ElementsAre("1=1", "2=2"));
  them_.inTurn([&] { writer->portIs(3, 3); });
  them_.manager = nullptr;  // what is held back is told when the writer goes
  both();
  EXPECT_THAT(taken(), ElementsAre("3=3"));
}

TEST_F(MemtabEntity, group_is_ready_while_its_tables_exist) {
  const auto group = us_.manager->mountGroup();
  Mox::Notifiee<Memtab::MountGroup> watchGroup(group);
  watchGroup.on(Memtab::MountGroup::readyChanged, [&](bool ready) {
    heard_.push_back(ready ? "ready" : "not ready");
    for (int i = 0; i < 20; ++i) us_.manager->mountGroup()->close();  // groups may be made from here
  });
  const auto reader = Mox::dynamicPtrCast<Ports>(*group->mountIs(kPath, "Ports", MountDescriptor::reader()));
  ASSERT_TRUE(reader);
  const auto watching = watch(reader);
  EXPECT_FALSE(reader->portEntry(1));
  EXPECT_EQ(reader->ports(), 0u);
  both();
  group->close();
  both();
  EXPECT_THAT(taken(), IsEmpty());
  EXPECT_FALSE(group->ready());

  const auto writer = them_.writer();
  them_.inTurn([&] { writer->portIs(1, 10); });
  EXPECT_FALSE(group->ready());
  both();
  EXPECT_TRUE(group->ready());
  EXPECT_THAT(taken(), ElementsAre("ready", "1=10"));
  them_.manager = nullptr;
  both();
  EXPECT_TRUE(group->ready());
  directory_.remove(kTable);
  both();
  EXPECT_FALSE(group->ready());
  EXPECT_THAT(taken(), UnorderedElementsAre("not ready", "1-"));
  them_.start();
  them_.writer();
  both();
  EXPECT_THAT(taken(), ElementsAre("ready"));
}

TEST_F(MemtabEntity, mounts_that_cannot_be_are_refused_with_a_reason) {
  EXPECT_EQ(us_.manager->mount(kPath, "Unheard", MountDescriptor::reader()).error(),
            "bridging/ports: unknown shared-memory type Unheard");
  ASSERT_TRUE(us_.writer());
  EXPECT_EQ(us_.manager->mount(kPath, "Hosts", MountDescriptor::reader()).error(),
            "bridging/ports: is a Ports, not a Hosts");
  EXPECT_EQ(us_.manager->typeName(kPath), "Ports");
  EXPECT_THAT(us_.manager->paths(), ElementsAre(kPath));
  EXPECT_FALSE(them_.writer());  // the live writer is another
  EXPECT_THAT(them_.reports, ElementsAre(HasSubstr("bridging+ports.port")));
  EXPECT_FALSE(them_.manager->writable(kPath));
  EXPECT_TRUE(them_.reader());
  const auto group = us_.manager->mountGroup();
  EXPECT_TRUE(group->mountIs(kPath, "Ports", MountDescriptor::reader()));
  EXPECT_FALSE(group->mountIs("somewhere", "Unheard", MountDescriptor::reader()));
  group->close();
  both();
  EXPECT_FALSE(group->ready());
  us_.manager = nullptr;
  EXPECT_FALSE(group->mountIs(kPath, "Ports", MountDescriptor::reader()));
}

TEST_F(MemtabEntity, damaged_table_calls_the_handler_counts_as_absent_and_is_replaced_by_the_next_writer) {
  std::ofstream(directory_.segmentFile(kTable)) << std::string(8192, 'x');
  const auto reader = us_.reader();
  const auto watching = watch(reader);
  std::vector<std::string> corruptions;
  reader->corruptionHandlerIs([&](const std::string& message) { corruptions.push_back(message); });
  EXPECT_FALSE(reader->portEntry(1));
  EXPECT_EQ(reader->port(1), 0u);
  EXPECT_THAT(corruptions, ElementsAre(HasSubstr("bridging+ports.port"), HasSubstr("bridging+ports.port")));
  corruptions.clear();
  reader->portForEach([](std::uint32_t, std::uint32_t) { FAIL() << "an entry of garbage"; });

  const auto writer = them_.writer();
  ASSERT_TRUE(writer);
  ASSERT_EQ(directory_.damaged().size(), 1u);
  EXPECT_THAT(them_.reports, ElementsAre(HasSubstr("; set aside as " + directory_.damaged()[0])));
  them_.inTurn([&] { writer->portIs(1, 10); });
  both();
  EXPECT_THAT(taken(), ElementsAre("1=10"));
  EXPECT_EQ(reader->port(1), 10u);
  EXPECT_THAT(corruptions, IsEmpty());
}

TEST_F(MemtabEntity, table_that_changes_all_the_time_holds_up_no_other) {
  const auto ports = us_.reader();
  Watch rewriting(ports);
  us_.writer();
  rewriting.on(Ports::portChanged, [&](std::uint32_t key) { ports->portIs(key, ports->port(key) + 1); });
  const auto others = us_.mount(MountDescriptor::reader(), "other/ports");
  const auto watchingOthers = watch(others);
  const auto otherWriter = them_.mount(MountDescriptor::writer(), "other/ports");
  both();
  us_.root->mustYieldForTestIs([] { return true; });
  us_.inTurn([&] { ports->portIs(1, 1); });
  for (int turn = 0; turn < 5; ++turn) us_.loop.step();
  them_.inTurn([&] { otherWriter->portIs(7777, 7); });
  for (int turn = 0; turn < 5; ++turn) us_.loop.step();
  EXPECT_GT(ports->port(1), 100u) << "it was meant to change all the time";
  EXPECT_THAT(taken(), ElementsAre("7777=7"));
}

// In a shared-memory file system of its own, of 2 MiB.
class FullMemtabEntity : public MemtabEntity {
 protected:
  void SetUp() override {
    if (unshare(CLONE_NEWNS) != 0 || mount("", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("tmpfs", "/dev/shm", "tmpfs", 0, "size=2m") != 0) {
      GTEST_SKIP() << "needs root, to mount";
    }
    mounted_ = true;
  }
  ~FullMemtabEntity() override {
    if (mounted_) umount2("/dev/shm", MNT_DETACH);
  }

 private:
  bool mounted_ = false;
};

TEST_F(FullMemtabEntity, is_reported_once_and_takes_entries_again_as_soon_as_there_is_room) {
  const auto writer = them_.writer();
  const auto reader = us_.reader();
  writer->corruptionHandlerIs([](const std::string& message) { ADD_FAILURE() << message; });
  // All the memory but what `free` bytes take; 0 gives it back.
  const auto fill = [](std::size_t free) {
    const int fd = open("/dev/shm/filler", O_CREAT | O_RDWR | O_CLOEXEC, 0600);
    struct statvfs status {};
    fstatvfs(fd, &status);
    EXPECT_EQ(free == 0 ? unlink("/dev/shm/filler")
                        : fallocate(fd, 0, 0, static_cast<off_t>(status.f_bavail * status.f_bsize - free)),
              0);
    close(fd);
  };
  std::uint32_t in = 0;
  for (int round = 0; round < 2; ++round) {
    fill(8192);
    while (writer->portIs(in, 1) != Memtab::Written::kFull) ASSERT_LT(++in, 100000u);
    EXPECT_EQ(writer->ports(), in) << "the count of what is in";
    for (int again = 0; again < 3; ++again) EXPECT_EQ(writer->portIs(in + 1, 1), Memtab::Written::kFull);
    EXPECT_EQ(writer->portIs(0, static_cast<std::uint32_t>(round) + 2), Memtab::Written::kChanged);
    EXPECT_THAT(std::exchange(them_.reports, {}),
                ElementsAre(::testing::AllOf(HasSubstr("bridging/ports: "), HasSubstr("No space left"))));
    fill(0);
    EXPECT_EQ(writer->portIs(in, 1), Memtab::Written::kChanged);
    ++in;
    EXPECT_THAT(std::exchange(them_.reports, {}), ElementsAre("bridging/ports: takes entries again"));
  }
  EXPECT_EQ(reader->ports(), in);
  EXPECT_EQ(reader->port(in - 1), 1u);
}

TEST_F(MemtabEntity, watcher_that_raises_an_error_in_one_of_many_slices_loses_nothing_but_its_own_key) {
  const auto ports = us_.reader();
  auto bad = std::make_unique<Watch>(ports);
  bad->on(Ports::portChanged, [](std::uint32_t key) {
    if (key % 50 == 1) throw Mox::RangeError("port " + std::to_string(key));
  });
  const auto watching = watch(ports);
  const auto others = us_.mount(MountDescriptor::reader(), "other/ports");
  const auto watchingOthers = watch(others);
  const auto writer = them_.writer();
  const auto otherWriter = them_.mount(MountDescriptor::writer(), "other/ports");
  both();
  us_.root->mustYieldForTestIs([] { return true; });  // many changes are told in slices
  them_.inTurn([&] {
    for (std::uint32_t key = 0; key < 1000; ++key) writer->portIs(key, 1);
    otherWriter->portIs(7777, 7);
  });
  std::vector<std::size_t> heardByTurn;
  for (std::size_t before = 0; us_.loop.step(); before = heard_.size()) {
    heardByTurn.push_back(heard_.size() - before);
    ASSERT_LT(heardByTurn.size(), 1000u);
  }
  EXPECT_THAT(heardByTurn, ::testing::Each(::testing::Lt(250u)));
  EXPECT_EQ(us_.errors.size(), 20u);
  EXPECT_EQ(us_.errors.front(), "Memtab: port 1");
  EXPECT_EQ(heard_.size(), 1000u - 20 + 1);
  EXPECT_THAT(heard_, ::testing::Contains("999=1"));
  EXPECT_THAT(heard_, ::testing::Contains("7777=7"));
}

// What the system refuses a reader is told once, tried again, and then read as if it had just come.
TEST_F(MemtabEntity, ARefusedTableIsReadLater) {
  const auto written = us_.writer();
  us_.inTurn([&] { written->portIs(7, 1); });
  rlimit usual{};
  getrlimit(RLIMIT_NOFILE, &usual);
  const rlimit none{0, usual.rlim_max};
  setrlimit(RLIMIT_NOFILE, &none);
  const auto ports = them_.reader();
  const auto watching = watch(ports);
  for (int tries = 0; tries < 3; ++tries, clock_.advance(1)) them_.settle();
  setrlimit(RLIMIT_NOFILE, &usual);
  EXPECT_EQ(ports->ports(), 0u);
  EXPECT_THAT(them_.reports, ElementsAre(HasSubstr("Too many open files")));
  clock_.advance(1);
  them_.settle();
  EXPECT_EQ(ports->port(7), 1u);
  EXPECT_THAT(heard_, ElementsAre("7=1"));
  EXPECT_THAT(them_.reports, ElementsAre(HasSubstr(kPath), HasSubstr("can be read again")));
}

}  // namespace
