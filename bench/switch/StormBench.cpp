// A storm on one port, and what the other ports notice of it: a host asks for a remote one, again and again,
// while another port's host sends requests in the name of invented hosts. Done twice on the same network,
// without the daemon (the bridge floods all of it, the remote host answers for itself) and with it (the switch
// answers). Prints how long the host waited for its answers, how many there were, and what the storm cost the
// daemon.
//
//   StormBench [SECONDS [REQUESTS_A_SECOND]]
//
// By default 30 s of 100,000 requests a second. Needs root.

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
constexpr auto kBetween = std::chrono::milliseconds(5);  // less than the port's own policer lets pass
constexpr auto kAnswerPatience = std::chrono::milliseconds(500);
constexpr double kTargetRatio = 1.2;
constexpr int kBurst = 50;

double passed(Clock::time_point since) { return Seconds(Clock::now() - since).count(); }

// In the name of hosts whose addresses nobody else has. At its rate, in bursts; what the machine cannot send in
// time is not made up for.
class Storm {
 public:
  Storm(Lab::PacketSocket& socket, double perSecond)
      : thread_([this, &socket, perSecond] {
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

void print(const char* what, const Waited& waited) {
  std::printf("%-34s %9.0f/s   %zu of %zu answered   p50 %7.3f ms   p99 %7.3f ms   longest %7.3f ms\n", what,
              waited.storm, waited.seconds.size(), waited.asked, waited.at(0.5) * 1e3, waited.at(0.99) * 1e3,
              waited.at(1) * 1e3);
  std::fflush(stdout);
}

// A bridge with a port for the storm, one for the host, and one to the overlay. Each round has its own: a bridge
// remembers every sender of a storm.
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
  Lab::Namespace inside, outside;
  Lab::Entered entered{inside};
  std::optional<Lab::PacketSocket> stormy, host, far;
  std::optional<Remote> remote;
};

Waited flooded(double seconds, double perSecond) {
  Network network;
  print("no suppression, quiet", asks(*network.host, nullptr, 3, 0));
  const Waited waited = asks(*network.host, &*network.stormy, seconds, perSecond);
  print("no suppression, storm", waited);
  return waited;
}

void bench(double seconds, double perSecond) {
  const Waited without = flooded(seconds, perSecond);
  Network network;
  Bench::Daemon daemon(R"("vlans":{"10":{"tunnelPorts":["core10"]}},"state":{
      "evpn/status":{"mplsConfigured":true,"vlanToDot1q":{"10":10}},
      "arpSuppression/remoteBindingConfig/evpn":{"remoteBinding":{"10 10.0.10.99":{"mac":"02:00:00:00:00:99"}}}})");
  daemon.await("a request is answered", [&] {
    network.host->send(arpFrame({1, kHost, kHostIp, {}, kRemoteIp}));
    return daemon.asked({"counters", "--nonzero"}).find("replyRemote") != std::string::npos;
  });
  print("suppression, quiet", asks(*network.host, nullptr, 3, 0));
  const Bench::Daemon::Usage before = daemon.usage();
  const Waited suppressed = asks(*network.host, &*network.stormy, seconds, perSecond);
  const Bench::Daemon::Usage after = daemon.usage();
  print("suppression, storm", suppressed);
  const double ratio = without.at(0.99) > 0 ? suppressed.at(0.99) / without.at(0.99) : 0;
  std::printf(
      "p99 of the other port with suppression against without: %.2f (wanted: at most %.1f, and every request "
      "answered)\nthe daemon took %.1f%% of a processor and %ld KiB more memory; its log:\n%s",
      ratio, kTargetRatio, (after.cpu - before.cpu) / seconds * 100, after.resident - before.resident,
      daemon.log().c_str());
  daemon.stop();
}

}  // namespace

int main(int argc, char** argv) {
  const double seconds = argc > 1 ? std::strtod(argv[1], nullptr) : 30;
  const double perSecond = argc > 2 ? std::strtod(argv[2], nullptr) : 100'000;
  if (!(seconds > 0 && seconds <= 600 && perSecond >= 1)) {
    std::fprintf(stderr, "StormBench: SECONDS from above 0 to 600, REQUESTS_A_SECOND from 1\n");
    return 2;
  }
  try {
    bench(seconds, perSecond);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "StormBench: %s\n", error.what());
    return 1;
  }
  return 0;
}
