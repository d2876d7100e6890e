#include <fcntl.h>
#include <sys/mman.h>

#include "Memtab/ChangeFeed.h"
#include "Memtab/TableView.h"
#include "Memtab/Writer.h"
#include "fuzz/Input.h"

namespace {

using Memtab::Cursor;

constexpr const char* kTable = "fuzz/table";
constexpr Memtab::Shape kShape{4, 8, 1};
constexpr std::uint32_t kKeys = 48;  // of which half are in the sound segment
constexpr int kManyRounds = 10000;

using Value = std::array<std::uint32_t, 2>;

std::unique_ptr<Memtab::Writer> writerOf(const Memtab::Directory& directory) {
  auto writer = Memtab::Writer::open(directory, kTable, kShape, {.capacity = 32, .ringEntries = 16});
  Fuzz::check(static_cast<bool>(writer), "a writer whatever the file holds", writer.error());
  return std::move(*writer);
}

// A sound segment with entries, deleted ones and a ring that went round.
std::vector<std::byte> soundFile(const Memtab::Directory& directory) {
  auto writer = writerOf(directory);
  for (std::uint32_t key = 0; key < kKeys / 2; ++key) writer->put(&key, Value{key, 1}.data());
  for (std::uint32_t key = 0; key < kKeys / 2; key += 3) writer->del(&key);
  writer.reset();
  auto bytes = Fuzz::contentOf(directory.segmentFile(kTable));
  directory.removeAll();
  return bytes;
}

// Overwrites the segment while others have it mapped.
void damageMapped(const std::string& file, std::size_t size, Fuzz::Input& input) {
  const int descriptor = open(file.c_str(), O_RDWR | O_CLOEXEC);
  void* const mapping = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0);
  close(descriptor);
  Fuzz::check(mapping != MAP_FAILED, "a mapping of the segment", std::strerror(errno));
  Fuzz::damage({static_cast<std::byte*>(mapping), size}, input, 16);
  munmap(mapping, size);
}

void readAll(Memtab::TableView& view, Memtab::ChangeFeed& feed, std::size_t slots) {
  for (std::uint32_t key = 0; key < kKeys; ++key) {
    Value value{};
    try {
      view.lookup(&key, value.data());
    } catch (const Memtab::CorruptionError&) {
    }
  }
  view.size();
  Cursor cursor;
  std::size_t visited = 0;
  int rounds = 0;
  for (bool more = true; more;) {
    const auto slice = view.visit(cursor, 7, [](const std::uint32_t*, const std::uint32_t*) {});
    visited += slice.visited + slice.unreadable;
    more = slice.more;
    Fuzz::check(++rounds < kManyRounds, "a walk that ends");
  }
  Fuzz::check(visited <= slots, "no more entries than slots", std::to_string(visited));
  for (rounds = 0; feed.drain(7, [](const std::uint32_t*) {});)
    Fuzz::check(++rounds < kManyRounds, "changes that end");
}

// From whatever it found, a writer comes to exactly what it says, and readers with it.
void writeAll(Memtab::Writer& writer, Memtab::TableView& view, const std::string& before,
              std::uint32_t keys) {
  const auto check = [&before](bool holds, const char* expected, std::string_view found = {}) {
    if (!holds) Fuzz::check(false, expected + (" after " + before), found);
  };
  for (std::uint32_t key = 0; key < keys; ++key) {
    check(writer.put(&key, Value{key, 2}.data()) != Memtab::Written::kFull, "room", writer.grown().error());
    Value value{};
    check(writer.get(&key, value.data()) && value == Value{key, 2}, "what was written");
  }
  for (std::uint32_t key = 0; key < keys; key += 2) check(writer.del(&key), "a deletion");
  writer.reconcileBegin();
  for (std::uint32_t key = 1; key < 7; key += 2) writer.put(&key, Value{key, 3}.data());
  int rounds = 0;
  while (writer.sweep(7)) check(++rounds < kManyRounds, "a sweep that ends");
  while (writer.growStep(64)) check(++rounds < kManyRounds, "growth that ends");
  writer.flush();
  check(writer.size() == 3, "3 entries", std::to_string(writer.size()));
  view.refresh();
  std::size_t visited = 0;
  Cursor cursor;
  while (view.visit(cursor, 7, [&](const std::uint32_t*, const std::uint32_t*) { ++visited; }).more)
    check(++rounds < kManyRounds, "a walk that ends");
  check(visited == 3, "3 entries of a walk", std::to_string(visited));
}

}  // namespace

// A reader waits a little for an entry that is half written. Nobody will ever finish one here, and each turn that is given
// away takes as long as the machine's other work likes.
extern "C" int sched_yield() noexcept { return 0; }

// A segment that is damaged before a reader maps it, and again while it reads; then a writer takes what is
// left, and fills it or (bit 4 of the first byte) has it grow.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const Memtab::Directory directory("fuzz-" + std::to_string(getpid()));
  static const std::vector<std::byte> sound = soundFile(directory);
  const std::string file = directory.segmentFile(kTable);
  Fuzz::Input input(data, size);
  std::vector<std::byte> bytes = sound;
  const auto how = input.number<std::uint8_t>();
  const std::uint32_t keys =
      (how & 16) != 0 ? kKeys : kKeys / 2;  // more than there is room for; as many as before
  Fuzz::damage(bytes, input, how % 16);
  Fuzz::contentIs(file, bytes);
  {
    Memtab::TableView view(directory, kTable, kShape);
    Memtab::ChangeFeed feed(view);
    readAll(view, feed, bytes.size() / 4);
    damageMapped(file, bytes.size(), input);
    readAll(view, feed, bytes.size() / 4);

    const auto writer = writerOf(directory);
    const std::string& replaced = writer->openReport().replaced;
    writeAll(*writer, view, replaced.empty() ? "a takeover" : replaced, keys);
    readAll(view, feed, writer->bytes() / 4);
  }
  directory.removeAll();
  return 0;
}
