// Decision and reply in memory: a trapped buffer goes through the checks, the look-ups, the decision and the
// building of the reply; the socket is one that takes every frame. Beside it, in the same run, the least that
// any answer costs: the same buffer read, two look-ups in std::unordered_map, the reply written.
//
// Also: the initial population (CPU seconds, the longest slice, resident memory a binding), and heap
// allocations a request.

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <new>
#include <random>
#include <string_view>
#include <unordered_map>

#include "ArpSuppression/Rig.h"
#include "Lanix/Wire.h"
#include "Targets.h"

namespace {

std::uint64_t allocations = 0;

double cpuSeconds() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  const auto seconds = [](const timeval& t) {
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) * 1e-6;
  };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

std::size_t residentBytes() {
  std::ifstream statm("/proc/self/statm");
  std::size_t size = 0, resident = 0;
  statm >> size >> resident;
  return resident * static_cast<std::size_t>(getpagesize());
}

double nowSeconds() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

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

// Takes every frame at once.
class SinkSockets final : public Lanix::PacketSockets {
 public:
  std::uint64_t sent = 0;
  int sendBatch(int, std::span<const OutFrame> frames, std::uint16_t) override {
    sent += frames.size();
    return static_cast<int>(frames.size());
  }
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
  const double start = nowSeconds();
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
  const double elapsed = nowSeconds() - start;
  if (check == 0) std::printf("?");
  return elapsed / static_cast<double>(order.size()) * 1e9;
}

// The longest run of any task, from the scheduler's statistics.
double longestSlice(const std::string& statistics) {
  double longest = 0;
  constexpr std::string_view kLabel = "longest=";
  for (std::size_t at = statistics.find(kLabel); at != std::string::npos;
       at = statistics.find(kLabel, at + 1)) {
    longest = std::max(longest, std::atof(statistics.c_str() + at + kLabel.size()));
  }
  return longest;
}

void run(std::uint32_t bindings, std::size_t requests) {
  const Orb::MonotonicClock clock;
  Rig rig(nullptr, &clock);
  rig.start();
  const auto remote = rig.table<RemoteBindingConfig>("arpSuppression/remoteBindingConfig/evpn");
  const auto fdb = rig.table<Memtab::Bridging::Status>("bridging/status");
  rig.kill();

  // What another process writes while the agent is away: its memory is shared, and counted as a part of each
  // binding.
  const std::size_t before = residentBytes();
  for (std::uint32_t i = 0; i < bindings; ++i) {
    const Target t = targetOf(i);
    remote->remoteBindingIs({Vlan(t.vlan), Lanix::IpAddr(t.address)}, {macOf(i), false});
  }
  rig.settle();
  const double cpuBefore = cpuSeconds();
  rig.start();
  while (!rig.root()->remoteBindingStatus->initialPopulationComplete()) rig.settle();
  const double population = cpuSeconds() - cpuBefore;
  const double perBinding = static_cast<double>(residentBytes() - before) / bindings;
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
  SinkSockets sink;
  Lanix::Replaced<Lanix::PacketSockets> replaced(sink);
  for (std::size_t i = 0; i < std::min<std::size_t>(1000, requests); ++i) {
    setTarget(frame, targetOf(order[i]));
    trap.processMessage(frame);
  }
  sink.sent = 0;
  const std::uint64_t allocationsBefore = allocations;
  const double start = nowSeconds();
  for (const std::uint32_t i : order) {
    setTarget(frame, targetOf(i));
    trap.processMessage(frame);
  }
  const double nanoseconds = (nowSeconds() - start) / static_cast<double>(requests) * 1e9;
  const double allocationsEach =
      static_cast<double>(allocations - allocationsBefore) / static_cast<double>(requests);
  if (sink.sent != requests) {
    std::printf("only %llu of %zu requests were answered\n", static_cast<unsigned long long>(sink.sent),
                requests);
    std::exit(1);
  }
  std::printf("%9u  %10.0f  %14.0f  %10.2f  %13.2f  %14.2f  %12.0f\n", bindings, nanoseconds,
              reference(bindings, order, frame), allocationsEach, population,
              longestSlice(rig.scheduler()->debugText()) * 1e3, perBinding);
}

}  // namespace
}  // namespace ArpSuppression

int main(int argc, char** argv) {
  std::printf(
      "in memory: request to reply, one thread (targets: at most 400 ns and 2 allocations a request;\n"
      "population at most 3 s of CPU, 10 ms a slice, 350 bytes a binding)\n\n"
      " bindings  ns/request  reference (ns)  allocs/req  population (s)  longest (ms)  bytes/binding\n");
  if (argc > 2) {  // DecisionBench BINDINGS REQUESTS: one size only, for a profiler
    ArpSuppression::run(static_cast<std::uint32_t>(std::atoi(argv[1])),
                        static_cast<std::size_t>(std::atoi(argv[2])));
    return 0;
  }
  for (const std::uint32_t bindings : {1u, 65536u, 1000000u}) ArpSuppression::run(bindings, 1000000);
  return 0;
}
