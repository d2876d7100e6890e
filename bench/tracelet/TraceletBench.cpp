// What tracing costs where it is not looked at: a line whose handle is off, and a record of the ring. The
// clock reading that is part of each record is measured beside them.

#include <benchmark/benchmark.h>

#include <cstdio>
#include <ctime>
#include <string>

#include "Tracelet/Tracelet.h"

namespace {

struct Address {
  Tracelet::Mac mac{{2, 0, 0, 0, 0, 1}};
  Tracelet::Mac traceletArg() const { return mac; }
};

Tracelet::Handle traceHandle("TraceletBench");

void lineOff(benchmark::State& state) {
  int vlan = 10;
  for (auto _ : state) {
    benchmark::DoNotOptimize(vlan);
    TRACELET_TRACE(traceHandle, 8, "bench/TraceletBench",
                   "vlanId=" << vlan << " text=" << std::to_string(vlan));
  }
}
BENCHMARK(lineOff);

void clockReading(benchmark::State& state) {
  timespec now{};
  for (auto _ : state) {
    clock_gettime(CLOCK_REALTIME, &now);
    benchmark::DoNotOptimize(now);
  }
}
BENCHMARK(clockReading);

void recordNumber(benchmark::State& state) {
  int vlan = 10;
  for (auto _ : state) {
    benchmark::DoNotOptimize(vlan);
    TRACELET_RECORD("vlanId={}", vlan);
  }
}
BENCHMARK(recordNumber);

void recordOfADecision(benchmark::State& state) {
  int vlan = 10;
  const std::string interface = "Ethernet1";
  const Address mac;
  for (auto _ : state) {
    benchmark::DoNotOptimize(vlan);
    TRACELET_RECORD("vlanId={};srcIntf={};senderMac={};targetMac={} connectionType={} probe={}", vlan,
                    interface, mac, mac, 'U', false);
  }
}
BENCHMARK(recordOfADecision);

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  const std::string file =
      Tracelet::initialize({.fileName = "/tmp/tracelet-bench-%d.tl", .options = Tracelet::kStartEmpty});
  benchmark::RunSpecifiedBenchmarks();
  if (!file.empty()) std::remove(file.c_str());
}
