#include <map>

#include "Statedb/LogFormat.h"
#include "Statedb/LogStore.h"
#include "fuzz/Input.h"

namespace {

namespace fs = std::filesystem;
using Statedb::Journal;
namespace LogFormat = Statedb::LogFormat;

constexpr const char* kPath = "a";
constexpr std::uint64_t kId = 7;

struct NoContent final : Statedb::Content {
  std::size_t size() const override { return 0; }
  bool read(const Visitor&) override { return false; }
  void readAgain() override {}
};

// The file of a killed process: batches, and a part of one.
std::string soundFile() {
  std::string bytes = LogFormat::header(kPath, kId);
  for (int batch = 0; batch < 4; ++batch) {
    std::string operations;
    for (int i = 0; i < 4; ++i) LogFormat::append(operations, "member/" + std::to_string(i), "value");
    LogFormat::append(operations, "member", std::nullopt);
    LogFormat::append(operations, "long", std::string(200, 'y'));
    const auto head = LogFormat::batchHead(kId, bytes.size(), operations);
    bytes.append(head.data(), head.size());
    bytes += operations;
  }
  return bytes;
}

// What is not sound at all is found by its checksum: these operations have a right one.
std::string sealed(std::span<const std::byte> operations) {
  std::string bytes = LogFormat::header(kPath, kId);
  const std::string_view text(reinterpret_cast<const char*>(operations.data()), operations.size());
  const auto head = LogFormat::batchHead(kId, bytes.size(), text);
  bytes.append(head.data(), head.size());
  return bytes += text;
}

using Pairs = std::map<std::string, std::string, std::less<>>;

Pairs load(Journal& journal) {
  Pairs pairs;
  Journal::Operation operation;
  Journal::Step step{};
  while ((step = journal.next(operation)) == Journal::Step::operation) {
    Fuzz::check(operation.key.size() <= LogFormat::kMaxKey, "a key within bounds");
    if (operation.value) {
      pairs.insert_or_assign(std::string(operation.key), std::string(*operation.value));
      continue;
    }
    const std::string below = std::string(operation.key) + "/";
    std::erase_if(pairs, [&](const auto& pair) {
      return pair.first == operation.key || pair.first.starts_with(below);
    });
  }
  if (step == Journal::Step::damaged) pairs.clear();
  return pairs;
}

}  // namespace

// Whatever is in the file: it can be read, written, and what was written is found behind what was read.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const Fuzz::Folder folder;
  static const std::string sound = soundFile();
  static const auto opened = Statedb::LogStore::open(folder.path(), {});
  static const auto& store = *opened;
  Fuzz::Input input(data, size);
  const bool damages = input.number<std::uint8_t>() % 2 == 0;
  std::string bytes = sound;
  if (damages) {
    bytes.resize(bytes.size() - input.number<std::uint16_t>() % (bytes.size() + 1));
    Fuzz::damage(std::as_writable_bytes(std::span(bytes)), input, 16);
  } else {
    bytes = sealed(input.rest());
  }
  Fuzz::contentIs(folder.path() + "/a.log", std::as_bytes(std::span(bytes)));

  NoContent content;
  Pairs pairs;
  {
    const auto journal = store->journal(kPath);
    pairs = load(*journal);
    journal->write("member/1", "new");
    Fuzz::check(!journal->flush(content, Journal::Extent::turn), "all written in one turn");
    Fuzz::check(static_cast<bool>(journal->written()), "what can be written", journal->written().error());
  }
  pairs.insert_or_assign("member/1", "new");
  Fuzz::check(load(*store->journal(kPath)) == pairs, "what was read and written");
  for (const auto& entry : fs::directory_iterator(folder.path())) fs::remove(entry.path());
  return 0;
}
