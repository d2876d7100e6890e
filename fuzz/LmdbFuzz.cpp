#include "Statedb/LmdbStore.h"
#include "fuzz/Input.h"

namespace {

namespace fs = std::filesystem;

std::unique_ptr<Statedb::Store> open(const std::string& directory) {
  auto store = Statedb::LmdbStore::open(directory, {});
  Fuzz::check(static_cast<bool>(store), "a store whatever the file holds", store.error());
  return std::move(*store);
}

// A sound database with branch pages, a value on pages of its own and a free list.
std::vector<std::byte> soundFile(const std::string& directory) {
  auto store = open(directory);
  for (int i = 0; i < 200; ++i) store->write("a", "member/" + std::to_string(i), std::string(40, 'x'));
  store->write("a", "long", std::string(9000, 'y'));
  store->flush();
  for (int i = 0; i < 200; i += 2) store->erase("a", "member/" + std::to_string(i));
  store->flush();
  store->write("b", "other", "1");
  store.reset();
  auto bytes = Fuzz::contentOf(directory + "/state.mdb");
  const auto last = std::find_if(bytes.rbegin(), bytes.rend(), [](std::byte b) { return b != std::byte{}; });
  bytes.resize((static_cast<std::size_t>(bytes.rend() - last) + 4095) / 4096 * 4096);
  return bytes;
}

void emptied(const std::string& directory) {
  for (const auto& entry : fs::directory_iterator(directory)) fs::remove(entry.path());
}

}  // namespace

// Whatever is in the database file: the store opens, can be read, written and read again.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const Fuzz::Folder folder;
  static const std::vector<std::byte> sound = soundFile(folder.path());
  Fuzz::Input input(data, size);
  std::vector<std::byte> bytes = sound;
  if (const auto cut = input.number<std::uint16_t>(); cut < bytes.size() / 64)
    bytes.resize(bytes.size() - cut * 64u);
  Fuzz::damage(bytes, input, 16);
  emptied(folder.path());
  Fuzz::contentIs(folder.path() + "/state.mdb", bytes);

  const auto store = open(folder.path());
  std::vector<std::string> keys;
  std::size_t valueBytes = 0;
  store->load("a", std::nullopt, [&](std::string_view key, std::string_view value) {
    keys.emplace_back(key);
    for (const char c : value) valueBytes += c != 0;
    return true;
  });
  Fuzz::check(std::is_sorted(keys.begin(), keys.end()) && valueBytes <= bytes.size(), "keys in order");
  store->write("a", "member/1", "new");
  store->erasePath("b");
  store->flush();
  if (store->waiting() != 0) return 0;
  std::string found;
  store->load("a", std::nullopt, [&](std::string_view key, std::string_view value) {
    if (key == "member/1") found = value;
    return found.empty();
  });
  Fuzz::check(found == "new", "what was written", found);
  return 0;
}
