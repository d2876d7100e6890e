// The agent in memory, without kernel sockets: what a request costs, what a million bindings cost to take in
// and to hold, and what the next run pays for taking the output over.
//
// Decision: a trapped buffer goes through the checks, the look-ups, the decision, the record of requests, the
// learning of its sender and the building of the reply; the socket is one that takes every frame. One at a
// time, as one host asks; as many hosts ask in turn; and in batches, as they are read from a socket. Beside
// it, in the same run, the least that any answer costs: the same buffer read, two look-ups in
// std::unordered_map, the reply written.
//
// Population: remote bindings become binding tables and kernel neighbours in the output, and the output goes
// into the store on disk. The slices of all walks are timed, and the flush of every turn.
//
// Times are CPU time of this process, so that other programs on the machine do not count as slices.

#include <malloc.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <memory>
#include <new>
#include <random>
#include <string>
#include <string_view>
#include <unordered_map>

#include "ArpSuppression/Rig.h"
#include "Lanix/Wire.h"
#include "Statedb/LogStore.h"
#include "Targets.h"
#include "support/StateTypes.h"

namespace {

std::uint64_t allocations = 0;

double cpuSeconds() {
  timespec time{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

class CpuClock final : public Orb::Clock {
 public:
  double now() const override { return cpuSeconds(); }
};

// Resident memory in bytes: of the process itself, and of shared-memory tables.
struct Resident {
  double own = 0, tables = 0;
  static Resident now() {
    malloc_trim(0);
    std::ifstream status("/proc/self/status");
    Resident resident;
    for (std::string word; status >> word;) {
      double* const part = word == "RssAnon:"    ? &resident.own
                           : word == "RssShmem:" ? &resident.tables
                                                 : nullptr;
      if (part && status >> *part) *part *= 1024;
    }
    return resident;
  }
  Resident operator-(const Resident& other) const { return {own - other.own, tables - other.tables}; }
};

}  // namespace

[[gnu::noinline]] void* operator new(std::size_t size) {
  ++allocations;
  if (void* memory = std::malloc(size)) return memory;
  throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void* memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }

namespace ArpSuppression {
namespace {

constexpr char kOutput[] = "arp/input/config/arpSuppression";
constexpr double kSlice = 1e-3;

// Hands out prepared requests and takes every frame at once.
class BenchSockets final : public Lanix::PacketSockets {
 public:
  std::uint64_t sent = 0;
  std::function<bool(std::span<std::byte>)> next;  // false: there is none for now

  int sendBatch(int, std::span<const OutFrame> frames, std::uint16_t) override {
    sent += frames.size();
    return static_cast<int>(frames.size());
  }
  int receiveBatch(int, std::span<InFrame> frames) override {
    int count = 0;
    for (InFrame& frame : frames) {
      if (!next(frame.buffer)) break;
      frame.size = frameSize;
      ++count;
    }
    errno = EAGAIN;
    return count == 0 ? -1 : count;
  }
  std::size_t frameSize = 0;
};

// As in operation, in memory: the run directory is.
class Directory {
 public:
  Directory() {
    if (mkdtemp(path_.data()) == nullptr) std::perror(path_.c_str()), std::exit(1);
  }
  ~Directory() { std::filesystem::remove_all(path_); }
  std::unique_ptr<Statedb::Store> store() const {
    auto store = Statedb::LogStore::open(path_, {});
    if (!store) std::fprintf(stderr, "%s\n", store.error().c_str()), std::exit(1);
    return std::move(*store);
  }
  double bytes() const {
    double bytes = 0;
    for (const auto& entry : std::filesystem::directory_iterator(path_))
      bytes += static_cast<double>(entry.file_size());
    return bytes;
  }

 private:
  std::string path_ = "/dev/shm/decision-bench-XXXXXX";
};

double reference(std::uint32_t bindings, const std::vector<std::uint32_t>& order,
                 const TestSupport::Frame& frame) {
  std::unordered_map<std::uint64_t, std::uint64_t> byAddress, byMac;
  byAddress.reserve(bindings);
  byMac.reserve(bindings);
  for (std::uint32_t i = 0; i < bindings; ++i) {
    byAddress[std::uint64_t{targetOf(i).vlan} << 32 | targetOf(i).address] = i;
    byMac[std::uint64_t{targetOf(i).vlan} << 48 | i] = 1;
  }
  auto request = frame;
  std::array<std::byte, 46> reply{};
  std::uint64_t check = 0;
  const double start = cpuSeconds();
  for (const std::uint32_t i : order) {
    setTarget(request, targetOf(i));
    Lanix::Be32 vlan, address;
    std::memcpy(&vlan, request.data() + 16, 4);
    std::memcpy(&address, request.data() + 54, 4);
    const std::uint64_t found = byAddress.find(std::uint64_t{vlan} << 32 | address)->second;
    check += byMac.find(std::uint64_t{vlan} << 48 | found)->second;
    std::memcpy(reply.data(), request.data(), 46);
    std::memcpy(reply.data() + 6, &found, 6);
    check += static_cast<std::uint64_t>(reply[9]);
  }
  const double elapsed = cpuSeconds() - start;
  if (check == 0) std::printf("?");
  return elapsed / static_cast<double>(order.size()) * 1e9;
}

// The longest run of any task, from the scheduler's statistics, and which.
double longestSlice(const std::string& statistics, std::string& task) {
  double longest = 0;
  constexpr std::string_view kLabel = "longest=";
  for (std::size_t at = statistics.find(kLabel); at != std::string::npos;
       at = statistics.find(kLabel, at + 1)) {
    const double seconds = std::atof(statistics.c_str() + at + kLabel.size());
    if (seconds <= longest) continue;
    longest = seconds;
    const std::size_t line = statistics.rfind('\n', at) + 3;
    task = statistics.substr(line, statistics.find(' ', line) - line);
  }
  return longest;
}

// What the next run of the program does before its plug-ins start, and what a VRF costs that goes away whole.
void restart(std::uint32_t bindings, const Directory& directory) {
  Statedb::TypeRegistry types;
  TestSupport::registerStateTypes(types);
  double start = cpuSeconds();
  const auto tree = Mox::make<Statedb::EntityManager>(
      types, [](auto call) { call(); }, directory.store());
  const double opened = cpuSeconds() - start;
  tree->persist(kOutput);
  double longestSlice = 0, sliceEnd = 0;
  for (bool more = true; more;) {
    const double sliceStart = cpuSeconds();
    sliceEnd = Orb::EventLoop::realClock().now() + kSlice;
    more = tree->loadAhead(kOutput, "Arp::ArpInputConfig",
                           [&sliceEnd] { return Orb::EventLoop::realClock().now() >= sliceEnd; });
    longestSlice = std::max(longestSlice, cpuSeconds() - sliceStart);
  }
  static_cast<void>(tree->entityIs(kOutput, "Arp::ArpInputConfig"));
  const auto output = tree->entityOf<Arp::ArpInputConfig>(kOutput);
  const double load = cpuSeconds() - start;
  const std::size_t loaded = output->vrfs() == 0 ? 0 : output->vrf("red")->ipv4s();
  // Changes, a thousand a turn, until the log is rewritten.
  double longest = 0, flushed = 0;
  const auto turn = [&] {
    const double flush = cpuSeconds();
    const bool more = tree->flush();
    longest = std::max(longest, cpuSeconds() - flush);
    flushed += cpuSeconds() - flush;
    return more;
  };
  const double bytesBefore = directory.bytes();
  double bytesMost = 0;
  if (loaded != 0) {
    std::vector<Lanix::IpAddr> addresses;
    for (const auto& element : output->vrf("red")->ipv4Collection()) addresses.push_back(element.key);
    for (std::size_t i = 0; i < 3 * addresses.size(); ++i) {
      Arp::ArpEntryInput entry = output->vrf("red")->ipv4(addresses[i % addresses.size()]);
      entry.dynamic = !entry.dynamic;
      output->vrf("red")->ipv4Is(addresses[i % addresses.size()], entry);
      if (i % 1000 != 0) continue;
      turn();
      bytesMost = std::max(bytesMost, directory.bytes());
    }
  }
  while (turn()) continue;
  std::printf(
      "   every neighbour changed three times: store %.2f s, longest turn %.1f ms; its files %.0f MB before, "
      "%.0f at "
      "most, %.0f then\n",
      flushed, longest * 1e3, bytesBefore / 1e6, bytesMost / 1e6, directory.bytes() / 1e6);
  longest = 0;
  start = cpuSeconds();
  output->vrfDelAll();
  const double gone = cpuSeconds() - start;
  start = cpuSeconds();
  while (turn()) continue;
  std::printf(
      "   the next run: store opened in %.2f s, %zu of %u neighbours loaded in %.2f s, longest slice %.1f "
      "ms;\n"
      "   all removed in %.1f ms, and from the store in %.2f s, longest turn %.1f ms\n",
      opened, loaded, bindings, load - opened, longestSlice * 1e3, gone * 1e3, cpuSeconds() - start,
      longest * 1e3);
}

void run(std::uint32_t bindings, std::size_t requests, bool stored) {
  const CpuClock clock;
  const Directory directory;
  {
    Rig rig(stored ? directory.store() : nullptr, &clock);
    // The time is asked for behind each entry of a walk, and reading the CPU's is a system call. So slices end
    // by the clock of operation; how long they were is CPU time.
    double sliceEnd = 0;
    rig.tasks().mustYieldForTestIs([&sliceEnd] {
      const double now = Orb::EventLoop::realClock().now();
      if (now < sliceEnd) return false;
      sliceEnd = now + kSlice;
      return true;
    });
    rig.tree().persist(kOutput);
    double longestFlush = 0, flushed = 0;
    const auto flushes = rig.eventLoop().endOfTurn([&] {
      const double start = cpuSeconds();
      if (rig.tree().flush()) rig.eventLoop().post([] {});
      longestFlush = std::max(longestFlush, cpuSeconds() - start);
      flushed += cpuSeconds() - start;
    });
    makeVlans(rig, bindings);
    rig.start();
    const auto remote = rig.table<RemoteBindingConfig>("arpSuppression/remoteBindingConfig/evpn");
    const auto fdb = rig.table<Memtab::Bridging::Status>("bridging/status");
    rig.kill();

    // What another process writes while the agent is away: its memory is shared, and counted as a part of
    // each binding.
    const Resident before = Resident::now();
    for (std::uint32_t i = 0; i < bindings; ++i) {
      const Target t = targetOf(i);
      remote->remoteBindingIs({Vlan(t.vlan), Lanix::IpAddr(t.address)}, {macOf(i), false});
    }
    rig.settle();
    const double cpuBefore = cpuSeconds();
    flushed = 0;
    rig.start();
    const double population = cpuSeconds() - cpuBefore;
    const Resident after = Resident::now() - before;
    const auto output = rig.state<Arp::ArpInputConfig>(kOutput)->vrf("red");
    if (!output || output->ipv4s() != bindings)
      std::printf("not all bindings are in the output\n"), std::exit(1);
    std::string task;
    const double slice = longestSlice(rig.scheduler()->debugText(), task);
    std::printf(
        "%u bindings\n   population: %.2f s, %.2f s of them the store; longest slice %.2f ms (%s), longest "
        "flush %.2f "
        "ms\n",
        bindings, population, flushed, slice * 1e3, task.c_str(), longestFlush * 1e3);
    std::printf("   resident: %.0f bytes a binding: own %.0f, tables %.0f, store %.0f\n",
                (after.own + after.tables + directory.bytes()) / bindings, after.own / bindings,
                after.tables / bindings, directory.bytes() / bindings);
    if (requests == 0) return;
    for (std::uint32_t i = 0; i < bindings; ++i) {
      fdb->fdbIs({static_cast<Bridging::Fid>(targetOf(i).vlan), macOf(i)},
                 {Bridging::EntryType::evpnLearned, intf("core10")});
    }
    rig.settle();

    std::mt19937 random(1);
    std::vector<std::uint32_t> order(requests);
    for (auto& i : order) i = static_cast<std::uint32_t>(random() % bindings);
    auto frame = Trapped{}.frame();
    MessageTrapSm& trap = *rig.rootSm()->messageTrapSm();
    BenchSockets sockets;
    Lanix::Replaced<Lanix::PacketSockets> replaced(sockets);
    std::size_t at = 0;
    sockets.frameSize = frame.size();
    sockets.next = [&](std::span<std::byte> buffer) {
      if (at == order.size()) return false;
      setRequest(frame, targetOf(order[at]), order[at] % kHosts);
      ++at;
      std::copy(frame.begin(), frame.end(), buffer.begin());
      return true;
    };
    const auto each = [&](std::uint32_t hosts, bool batched) {
      sockets.sent = 0;
      at = 0;
      const std::uint64_t allocationsBefore = allocations;
      const double start = cpuSeconds();
      if (batched) {
        trap.scheduleWalk();
        while (trap.walkScheduled()) rig.eventLoop().step(0);
      } else {
        for (const std::uint32_t i : order) {
          setRequest(frame, targetOf(i), i % hosts);
          trap.processMessage(frame);
        }
      }
      const double nanoseconds = (cpuSeconds() - start) / static_cast<double>(requests) * 1e9;
      const double allocationsEach =
          static_cast<double>(allocations - allocationsBefore) / static_cast<double>(requests);
      if (sockets.sent != requests)
        std::printf("only %llu of %zu requests were answered\n",
                    static_cast<unsigned long long>(sockets.sent), requests),
            std::exit(1);
      return std::pair(nanoseconds, allocationsEach);
    };
    // Each target is asked for once before: its record is made, and its host learned.
    const auto first = each(kHosts, true);
    rig.settle();
    const auto one = each(1, false);
    const auto many = each(kHosts, false);
    const auto batches = each(kHosts, true);
    std::printf(
        "   a request: one host a VLAN %.0f ns, %u hosts a VLAN %.0f ns, those in batches %.0f ns, reference "
        "%.0f ns;\n"
        "   asked for the first time, in batches, %.0f ns; allocations %.2f %.2f %.2f, first time %.2f\n",
        one.first, kHosts, many.first, batches.first, reference(bindings, order, frame), first.first,
        one.second, many.second, batches.second, first.second);
    rig.settle();
    rig.rootSm()->arpInputConfigSm()->skipArpInputCleanupForTestIs(true);  // as if the process were killed
  }
  if (stored) restart(bindings, directory);
}

}  // namespace
}  // namespace ArpSuppression

int main(int argc, char** argv) {
  std::printf(
      "in memory, one thread, CPU time (targets: at most 400 ns and 2 allocations a request;\n"
      "population at most 3 s of CPU, 10 ms a slice, 350 bytes a binding)\n\n");
  // DecisionBench BINDINGS REQUESTS [nostore]: one size only, for a profiler; without requests the population
  // alone.
  if (argc > 2) {
    ArpSuppression::run(static_cast<std::uint32_t>(std::atoi(argv[1])),
                        static_cast<std::size_t>(std::atoi(argv[2])), argc == 3);
    return 0;
  }
  for (const std::uint32_t bindings : {1u, 65536u, 1000000u}) ArpSuppression::run(bindings, 1000000, true);
  return 0;
}
