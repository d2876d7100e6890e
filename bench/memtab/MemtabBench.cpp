// Shared-memory tables beside the maps that a program would use if the table were its own, and beside LMDB,
// which shares tables between processes as well. One run, one machine, the same keys in the same order: judge
// by the ratios.
//
//   MemtabBench [entries] [rounds]
//
// Independent look-ups overlap in the processor; of dependent ones each needs the result of the one before.
// Two key sizes: 8 bytes (VLAN and IPv4 address) and 20 bytes (VLAN and IPv6 address), both with 8-byte
// values. Figures are the best of the rounds, which go through the maps in turn so that a disturbance does
// not hit one of them alone. Reads through a reader's own mapping, as another process would. Exits with 1 if
// a target is missed.

#include <absl/container/flat_hash_map.h>
#include <lmdb.h>
#include <malloc.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <compare>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "Memtab/Table.h"

namespace {

using Clock = std::chrono::steady_clock;

template <std::size_t Words>
struct Key {
  std::array<std::uint32_t, Words> words;
  bool operator==(const Key&) const = default;
  template <class H>
  friend H AbslHashValue(H h, const Key& key) {
    return H::combine_contiguous(std::move(h), key.words.data(), Words);
  }
};

struct Value {
  std::uint32_t words[2];
};

template <std::size_t Words>
struct StdHash {
  std::size_t operator()(const Key<Words>& key) const {
    return std::hash<std::string_view>{}({reinterpret_cast<const char*>(key.words.data()), sizeof(key)});
  }
};

double microseconds(Clock::duration time) { return std::chrono::duration<double, std::micro>(time).count(); }

struct Figures {
  double independent = 1e9;
  double dependent = 1e9;
  double bytes = 0;
};

struct Subject {
  std::string name;
  double bytes;
  std::function<double()> independent;  // nanoseconds a look-up
  std::function<double()> dependent;
};

std::uint64_t sink = 0;

// find(key) returns the value's first word, which is the index of the key.
template <class K, class Find>
Subject subject(std::string name, double bytes, const std::vector<K>& keys,
                const std::vector<std::uint32_t>& order, Find find) {
  const auto perLookup = [&order](Clock::duration time) {
    return microseconds(time) * 1000 / static_cast<double>(order.size());
  };
  return {std::move(name), bytes,
          [&keys, &order, find, perLookup] {
            const auto start = Clock::now();
            std::uint64_t sum = 0;
            for (const std::uint32_t i : order) sum += find(keys[i]);
            sink += sum;
            return perLookup(Clock::now() - start);
          },
          // The order is one cycle through all keys; the found value names the next key.
          [&keys, &order, find, perLookup] {
            const auto start = Clock::now();
            std::uint32_t at = 0;
            for (std::size_t n = 0; n < order.size(); ++n) at = order[find(keys[at])];
            sink += at;
            return perLookup(Clock::now() - start);
          }};
}

// A random cycle through all indices: order[i] is the successor of i.
std::vector<std::uint32_t> cycle(std::size_t count, std::mt19937_64& random) {
  std::vector<std::uint32_t> order(count);
  for (std::uint32_t i = 0; i < count; ++i) order[i] = i;
  for (std::size_t i = count - 1; i > 0; --i) std::swap(order[i], order[random() % i]);
  return order;
}

double heapBytes() {
  const struct mallinfo2 info = mallinfo2();
  return static_cast<double>(info.uordblks + info.hblkhd);
}

class LmdbMap {
 public:
  explicit LmdbMap(std::size_t entries) {
    std::string folder = "/dev/shm/MemtabBench-lmdb-XXXXXX";
    if (!mkdtemp(folder.data())) std::abort();
    folder_ = folder;
    check(mdb_env_create(&env_));
    check(mdb_env_set_mapsize(env_, entries * 400 + (64U << 20)));
    check(mdb_env_open(env_, folder_.c_str(), MDB_NOSYNC | MDB_WRITEMAP, 0600));
    check(mdb_txn_begin(env_, nullptr, 0, &txn_));
    check(mdb_dbi_open(txn_, nullptr, 0, &dbi_));
  }
  ~LmdbMap() {
    mdb_txn_abort(txn_);
    mdb_env_close(env_);
    unlink((folder_ + "/data.mdb").c_str());
    unlink((folder_ + "/lock.mdb").c_str());
    rmdir(folder_.c_str());
  }
  LmdbMap(const LmdbMap&) = delete;
  LmdbMap& operator=(const LmdbMap&) = delete;

  template <class K>
  void put(const K& key, const Value& value) {
    MDB_val k{sizeof(key), const_cast<K*>(&key)}, v{sizeof(value), const_cast<Value*>(&value)};
    check(mdb_put(txn_, dbi_, &k, &v, 0));
  }
  void filled() {
    check(mdb_txn_commit(txn_));
    check(mdb_txn_begin(env_, nullptr, MDB_RDONLY, &txn_));
  }
  template <class K>
  std::uint32_t find(const K& key) const {
    MDB_val k{sizeof(key), const_cast<K*>(&key)}, v{};
    check(mdb_get(txn_, dbi_, &k, &v));
    std::uint32_t word = 0;
    std::memcpy(&word, v.mv_data, sizeof(word));
    return word;
  }
  double bytes() const {
    MDB_stat stat{};
    check(mdb_stat(txn_, dbi_, &stat));
    return static_cast<double>((stat.ms_branch_pages + stat.ms_leaf_pages) * stat.ms_psize);
  }

 private:
  static void check(int result) {
    if (result == 0) return;
    std::fprintf(stderr, "LMDB: %s\n", mdb_strerror(result));
    std::abort();
  }
  std::string folder_;
  MDB_env* env_ = nullptr;
  MDB_txn* txn_ = nullptr;
  MDB_dbi dbi_ = 0;
};

// Fills a table as an agent would, and says what the longest single write took; what exceeds a millisecond
// only because the process was not running is told apart by the processor time of the write.
template <class K>
void fill(Memtab::TableWriter<K, Value>& writer, const std::vector<K>& keys) {
  double longest = 0, longestCpu = 0, total = 0;
  std::size_t grown = 0, largest = 0;
  bool growing = false;
  const auto cpu = [] {
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) * 1e6 + static_cast<double>(now.tv_nsec) / 1e3;
  };
  for (std::uint32_t i = 0; i < keys.size(); ++i) {
    const double before = cpu();
    const auto start = Clock::now();
    writer.entryIs(keys[i], {{i, ~i}});
    const double took = microseconds(Clock::now() - start);
    longest = std::max(longest, took);
    longestCpu = std::max(longestCpu, cpu() - before);
    total += took;
    grown += growing && !writer.core().growing() ? 1 : 0;
    growing = writer.core().growing();
    largest = std::max(largest, writer.core().bytes());
  }
  std::printf("  fill: %.0f ms in all, moved %zu times; longest write %.0f us (%.0f us of processor time)\n",
              total / 1000, grown, longest, longestCpu);
  const auto entries = static_cast<double>(keys.size());
  std::printf("  segment: %.1f bytes an entry, %.1f at the most while moving\n",
              static_cast<double>(writer.core().segment().bytes()) / entries,
              static_cast<double>(largest) / entries);
}

template <std::size_t Words>
bool measure(std::size_t entries, int rounds) {
  using K = Key<Words>;
  std::mt19937_64 random(42);
  std::vector<K> keys(entries);
  for (std::uint32_t i = 0; i < entries; ++i) {
    for (auto& word : keys[i].words) word = static_cast<std::uint32_t>(random());
    keys[i].words[0] = static_cast<std::uint32_t>(random() % 4094 + 1);  // a VLAN
    keys[i].words[1] = i * 2654435761U;                                  // all keys differ
  }
  const std::vector<std::uint32_t> order = cycle(entries, random);
  const auto count = static_cast<double>(entries);
  std::printf("%zu entries, key %zu bytes, value %zu bytes\n", entries, sizeof(K), sizeof(Value));

  const Memtab::Directory directory("MemtabBench-" + std::to_string(getpid()));
  const auto opened = Memtab::TableWriter<K, Value>::open(directory, "bench", {});
  if (!opened) {
    std::fprintf(stderr, "%s\n", opened.error().c_str());
    return false;
  }
  const auto& writer = *opened;
  fill(*writer, keys);
  while (writer->core().growStep(4096)) {
  }
  Memtab::TableReader<K, Value> reader(directory, "bench");

  double heap = heapBytes();
  absl::flat_hash_map<K, Value> flat;
  for (std::uint32_t i = 0; i < entries; ++i) flat[keys[i]] = {{i, ~i}};
  const double flatBytes = heapBytes() - heap;
  heap = heapBytes();
  std::unordered_map<K, Value, StdHash<Words>> chained;
  for (std::uint32_t i = 0; i < entries; ++i) chained[keys[i]] = {{i, ~i}};
  const double chainedBytes = heapBytes() - heap;
  LmdbMap lmdb(entries);
  for (std::uint32_t i = 0; i < entries; ++i) lmdb.put(keys[i], {{i, ~i}});
  lmdb.filled();

  const std::array subjects{
      subject("Memtab", static_cast<double>(writer->core().segment().bytes()) / count, keys, order,
              [&reader](const K& key) { return reader.lookup(key)->words[0]; }),
      subject("absl::flat_hash_map", flatBytes / count, keys, order,
              [&flat](const K& key) { return flat.find(key)->second.words[0]; }),
      subject("std::unordered_map", chainedBytes / count, keys, order,
              [&chained](const K& key) { return chained.find(key)->second.words[0]; }),
      subject("LMDB", lmdb.bytes() / count, keys, order, [&lmdb](const K& key) { return lmdb.find(key); }),
  };
  std::array<Figures, subjects.size()> best;
  for (int round = 0; round < rounds; ++round) {
    for (std::size_t i = 0; i < subjects.size(); ++i) {
      best[i].independent = std::min(best[i].independent, subjects[i].independent());
      best[i].dependent = std::min(best[i].dependent, subjects[i].dependent());
    }
  }
  std::printf("  %-22s %14s %14s %14s\n", "", "independent ns", "dependent ns", "bytes an entry");
  for (std::size_t i = 0; i < subjects.size(); ++i) {
    std::printf("  %-22s %14.1f %14.1f %14.1f\n", subjects[i].name.c_str(), best[i].independent,
                best[i].dependent, subjects[i].bytes);
  }
  // Two percent is what two runs of the same thing differ by.
  const bool met = best[0].independent <= best[1].independent * 1.02 &&
                   best[0].dependent <= best[1].dependent * 1.02 && subjects[0].bytes <= 64;
  std::printf("  no slower than the flat map, at most 64 bytes an entry: %s\n\n", met ? "met" : "MISSED");
  writer->core().remove();
  return met;
}

}  // namespace

int main(int argc, char** argv) {
  const std::size_t entries = argc > 1 ? std::strtoul(argv[1], nullptr, 10) : 1'000'000;
  const int rounds = argc > 2 ? std::atoi(argv[2]) : 5;
  if (entries < 2 || entries > 50'000'000 || rounds < 1) {
    std::fprintf(stderr, "MemtabBench [entries, 2 to 50000000] [rounds]\n");
    return 2;
  }
  const bool small = measure<2>(entries, rounds);
  const bool large = measure<5>(entries, rounds);
  return small && large && sink != 0 ? 0 : 1;
}
