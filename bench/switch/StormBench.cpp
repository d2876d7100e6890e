// A storm on one port, and what the other ports notice of it: a host asks for a remote one, again and again,
// while another port's host sends requests in the name of invented hosts. Both without the daemon (the bridge
// floods all of it, the remote host answers for itself) and with it (the switch answers), by turns and in
// several rounds, each on a network of its own. Prints, as medians over the rounds, how long the host waited
// for its answers, and what the storm cost the daemon.
//
//   StormBench [ROUNDS [SECONDS [REQUESTS_A_SECOND]]]
//
// By default 3 rounds of 30 s each way, of 100,000 requests a second; in shorter ones the burst that the policer
// lets through at once weighs more. Needs root, and two processors: the storm has one to itself, as that of a
// network card whose interrupts go there, and everything else the other. All of it runs ahead of what else the
// machine does.

#include <pthread.h>
#include <sched.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "Daemon.h"
#include "lab/Lab.h"

namespace {

using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;
using Lab::arpFrame;
using Lab::Frame;

constexpr Lab::Mac kHost{0x02, 0, 0, 0, 0, 0x12}, kRemote{0x02, 0, 0, 0, 0, 0x99};
constexpr Lab::Ip kHostIp{10, 0, 10, 12}, kRemoteIp{10, 0, 10, 99};
constexpr auto kBetween = std::chrono::milliseconds(2);  // less than the port's own policer lets pass
constexpr auto kAnswerPatience = std::chrono::milliseconds(500);
constexpr double kTargetRatio = 1.2;
constexpr double kQuietSeconds = 1;
constexpr int kBurst = 50;
constexpr int kStormProcessor = 0, kOtherProcessor = 1;

double passed(Clock::time_point since) { return Seconds(Clock::now() - since).count(); }

void runOn(int processor) {
  cpu_set_t set;
  CPU_ZERO(&set);
  CPU_SET(processor, &set);
  pthread_setaffinity_np(pthread_self(), sizeof set, &set);
}

// In the name of hosts whose addresses nobody else has. At its rate, in bursts; what the machine cannot send in
// time is not made up for.
class Storm {
 public:
  Storm(Lab::PacketSocket& socket, double perSecond)
      : thread_([this, &socket, perSecond] {
          runOn(kStormProcessor);
          const auto begin = Clock::now();
          for (auto next = begin; !over_;
               next += std::chrono::nanoseconds(static_cast<long>(1e9 * kBurst / perSecond))) {
            std::this_thread::sleep_until(next);
            next = std::max(next, Clock::now() - std::chrono::milliseconds(10));
            for (int i = 0; i < kBurst; ++i, ++sent_) {
              const auto byte = [this](unsigned shift) { return static_cast<std::uint8_t>(sent_ >> shift); };
              const Lab::Mac mac{0x02, 1, byte(24), byte(16), byte(8), byte(0)};
              socket.trySend(arpFrame({1, mac, {11, byte(16), byte(8), byte(0)}, {}, kRemoteIp}));
            }
          }
          perSecond_ = sent_ / passed(begin);
        }) {}
  double end() {
    over_ = true;
    thread_.join();
    return perSecond_;
  }

 private:
  std::atomic<bool> over_ = false;
  std::uint32_t sent_ = 0;
  double perSecond_ = 0;
  std::thread thread_;
};

// Answers for the remote host, if it is asked.
class Remote {
 public:
  explicit Remote(Lab::PacketSocket& socket)
      : thread_([this, &socket] {
          const Frame answer = arpFrame({2, kRemote, kRemoteIp, kHost, kHostIp}, kHost);
          while (!over_)
            if (socket.receive(std::chrono::milliseconds(100))) socket.trySend(answer);
        }) {}
  ~Remote() {
    over_ = true;
    thread_.join();
  }

 private:
  std::atomic<bool> over_ = false;
  std::thread thread_;
};

struct Waited {
  std::size_t asked = 0;
  std::vector<double> seconds;  // for each answer, sorted
  double storm = 0;             // requests a second
  double at(double part) const {
    return seconds.empty()
               ? 0
               : seconds[static_cast<std::size_t>(part * static_cast<double>(seconds.size() - 1))];
  }
};

Waited asks(Lab::PacketSocket& host, Lab::PacketSocket* stormy, double seconds, double perSecond) {
  const Frame request = arpFrame({1, kHost, kHostIp, {}, kRemoteIp});
  std::optional<Storm> storm;
  if (stormy != nullptr) storm.emplace(*stormy, perSecond);
  Waited waited;
  for (const auto begin = Clock::now(); passed(begin) < seconds; ++waited.asked) {
    const auto asked = Clock::now();
    host.send(request);
    if (host.receive(kAnswerPatience)) waited.seconds.push_back(passed(asked));
    std::this_thread::sleep_until(asked + kBetween);
    while (host.receive(std::chrono::milliseconds(0))) {
    }
  }
  if (storm) waited.storm = storm->end();
  std::ranges::sort(waited.seconds);
  return waited;
}

double median(std::vector<double> values) {
  std::ranges::sort(values);
  return values.empty() ? 0 : values[values.size() / 2];
}

// What came of one way, a value a round.
struct Way {
  const char* name;
  std::vector<double> p50{}, p99{}, longest{}, storm{}, cpu{}, memory{};
  std::size_t asked = 0, answered = 0;

  void add(const Waited& waited) {
    p50.push_back(waited.at(0.5));
    p99.push_back(waited.at(0.99));
    longest.push_back(waited.at(1));
    storm.push_back(waited.storm);
    asked += waited.asked;
    answered += waited.seconds.size();
  }
  void print() const {
    std::printf(
        "%-24s %7.0f/s   %zu of %zu answered   p50 %.3f   p99 %.3f (%.3f to %.3f)   longest %.1f ms\n", name,
        median(storm), answered, asked, median(p50) * 1e3, median(p99) * 1e3, std::ranges::min(p99) * 1e3,
        std::ranges::max(p99) * 1e3, std::ranges::max(longest) * 1e3);
    std::fflush(stdout);
  }
};

// A bridge with a port for the storm, one for the host, and one to the overlay. A bridge remembers every sender of
// a storm; here it has forgotten them when this is gone.
struct Network {
  Network() {
    Lab::bridgeIs("vlan10");
    for (const std::string port : {"Ethernet1", "Ethernet2", "core10"}) {
      Lab::vethIs(port, "far-" + port, outside);
      Lab::portIs(port, "vlan10");
    }
    const Lab::Entered there(outside);
    stormy.emplace("far-Ethernet1", 0x88B5);  // it receives nothing
    host.emplace("far-Ethernet2");
    far.emplace("far-core10");
    host->onlyFramesTo(kHost);
    far->onlyFramesFrom(kHost);
    remote.emplace(*far);
  }
  ~Network() { Lab::linkDel("vlan10"); }
  Lab::Namespace inside, outside;
  Lab::Entered entered{inside};
  std::optional<Lab::PacketSocket> stormy, host, far;
  std::optional<Remote> remote;
};

struct Ways {
  Way quietFlooded{"no suppression, quiet"}, flooded{"no suppression, storm"};
  Way quietAnswered{"suppression, quiet"}, answered{"suppression, storm"};
  std::string log;  // of the last daemon
};

void floodedRound(Ways& ways, double seconds, double perSecond) {
  Network network;
  ways.quietFlooded.add(asks(*network.host, nullptr, kQuietSeconds, 0));
  ways.flooded.add(asks(*network.host, &*network.stormy, seconds, perSecond));
}

void answeredRound(Ways& ways, double seconds, double perSecond) {
  Network network;
  Bench::Daemon daemon(R"("vlans":{"10":{"tunnelPorts":["core10"]}},"state":{
      "evpn/status":{"mplsConfigured":true,"vlanToDot1q":{"10":10}},
      "arpSuppression/remoteBindingConfig/evpn":{"remoteBinding":{"10 10.0.10.99":{"mac":"02:00:00:00:00:99"}}}})");
  daemon.await("a request is answered", [&] {
    network.host->send(arpFrame({1, kHost, kHostIp, {}, kRemoteIp}));
    return daemon.asked({"counters", "--nonzero"}).find("replyRemote") != std::string::npos;
  });
  ways.quietAnswered.add(asks(*network.host, nullptr, kQuietSeconds, 0));
  const Bench::Usage before = daemon.usage();
  ways.answered.add(asks(*network.host, &*network.stormy, seconds, perSecond));
  const Bench::Usage after = daemon.usage();
  ways.answered.cpu.push_back((after.cpu - before.cpu) / seconds);
  ways.answered.memory.push_back(static_cast<double>(after.resident - before.resident));
  ways.log = daemon.log();
  daemon.stop();
}

void bench(unsigned rounds, double seconds, double perSecond) {
  Bench::aheadOfOthers();
  runOn(kOtherProcessor);  // and what it starts
  Ways ways;
  for (unsigned round = 0; round < rounds; ++round) {
    for (const bool first : {true, false})
      (first == (round % 2 == 0) ? floodedRound : answeredRound)(ways, seconds, perSecond);
    std::printf("round %u: p99 %.3f and %.3f ms\n", round + 1, ways.flooded.p99.back() * 1e3,
                ways.answered.p99.back() * 1e3);
    std::fflush(stdout);
  }
  std::printf("medians of %u rounds:\n", rounds);
  for (const Way* way : {&ways.quietFlooded, &ways.quietAnswered, &ways.flooded, &ways.answered})
    way->print();
  const double reference = median(ways.flooded.p99);
  std::printf(
      "p99 of the other port with suppression against without: %.2f (wanted: at most %.1f, and every request "
      "answered)\nthe daemon took %.1f%% of a processor and %.0f KiB more memory; its log:\n%s",
      reference > 0 ? median(ways.answered.p99) / reference : 0, kTargetRatio,
      median(ways.answered.cpu) * 100, median(ways.answered.memory), ways.log.c_str());
}

}  // namespace

int main(int argc, char** argv) {
  const unsigned long rounds = argc > 1 ? std::strtoul(argv[1], nullptr, 10) : 3;
  const double seconds = argc > 2 ? std::strtod(argv[2], nullptr) : 30;
  const double perSecond = argc > 3 ? std::strtod(argv[3], nullptr) : 100'000;
  if (rounds < 1 || rounds > 100 || !(seconds > 0 && seconds <= 600 && perSecond >= 1)) {
    std::fprintf(stderr,
                 "StormBench: ROUNDS from 1 to 100, SECONDS from above 0 to 600, REQUESTS_A_SECOND from 1\n");
    return 2;
  }
  try {
    bench(static_cast<unsigned>(rounds), seconds, perSecond);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "StormBench: %s\n", error.what());
    return 1;
  }
  return 0;
}
