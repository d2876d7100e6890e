// The whole switch at rest, at 1, 100 and 1,000 VLANs: one bridge for each, with an access port and a tunnel
// port, in a network namespace of its own; nobody talks. Prints the time and the CPU until all VLANs are
// ready to be trapped, the longest turn of the daemon's event loop until then (wall-clock time), what it does
// while there is nothing to do (kernel notifications caused, CPU, context switches), and how long its clean
// stop takes.
//
//   SwitchBench [REST_SECONDS [VLANS...]]
//
// Needs root.

#include <linux/rtnetlink.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "Daemon.h"
#include "Netlink/Socket.h"
#include "lab/ManyVlans.h"

namespace {

using Clock = std::chrono::steady_clock;
using Bench::Daemon;

constexpr double kTargetTurn = 10e-3;  // seconds
constexpr double kTargetStop = 2;
// A bridge tells of each port once more when the port's forward delay, 15 s, is over after it came up.
constexpr auto kSettle = std::chrono::seconds(18);

double since(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

std::size_t count(const std::string& text, const std::string& what) {
  std::size_t found = 0;
  for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++found;
  return found;
}

void bench(unsigned vlans, double restSeconds) {
  const Lab::Namespace inside;
  const Lab::Namespace outside;
  const Lab::Entered entered(inside);
  const Lab::ManyVlans network(vlans, outside);
  const auto begin = Clock::now();
  Daemon daemon(network.configuration());
  const auto ready = [&] {
    return count(daemon.asked({"--json", "show", "switch/forwarding"}), "\"ready\":true") == vlans;
  };
  daemon.await("all VLANs are ready", ready);
  const double startSeconds = since(begin);
  const double startCpu = daemon.usage().cpu;
  std::this_thread::sleep_for(kSettle);
  std::string tasks;
  const double turn = daemon.longestTurn(tasks);

  Netlink::Socket monitor(NETLINK_ROUTE, {.receiveBuffer = 8 << 20});
  for (const unsigned group : {RTNLGRP_LINK, RTNLGRP_TC, RTNLGRP_NEIGH, RTNLGRP_IPV4_IFADDR})
    if (const auto joined = monitor.join(group); !joined) throw std::runtime_error(joined.error());
  const Bench::Usage before = daemon.usage();
  const auto restBegin = Clock::now();
  std::this_thread::sleep_for(std::chrono::duration<double>(restSeconds));
  const Bench::Usage after = daemon.usage();
  const double rested = since(restBegin);
  std::size_t notifications = 0;
  std::map<std::pair<int, int>, std::size_t> kinds;  // by message type and family
  bool more = true;
  while (more) {
    const auto count = [&](const Netlink::Received& message) {
      ++notifications;
      ++kinds[{message.type(), message.payload().empty() ? 0 : static_cast<int>(message.payload()[0])}];
    };
    more = monitor.receive(count, 10'000).more;
  }

  const auto stop = Clock::now();
  daemon.stop();
  const double stopSeconds = since(stop);

  std::printf("%5u  %7.2f s  %6.2f s  %9.2f ms%s  %6zu  %8.3f %%  %8.1f  %6.2f s%s\n", vlans, startSeconds,
              startCpu, turn * 1e3, turn > kTargetTurn ? "!" : " ", notifications,
              (after.cpu - before.cpu) / rested * 100,
              static_cast<double>(after.switches - before.switches) / rested, stopSeconds,
              stopSeconds > kTargetStop ? "!" : " ");
  for (const auto& [kind, times] : kinds)
    std::printf("  notifications of type %d, family %d: %zu\n", kind.first, kind.second, times);
  if (!tasks.empty()) std::printf("  tasks that ran longer than 1 ms at a time:\n%s", tasks.c_str());
  std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
  const double rest = argc > 1 ? std::strtod(argv[1], nullptr) : 60;
  std::vector<unsigned> vlans;
  for (int i = 2; i < argc; ++i) vlans.push_back(static_cast<unsigned>(std::strtoul(argv[i], nullptr, 10)));
  if (vlans.empty()) vlans = {1, 100, 1000};
  std::printf(
      "At rest for %.0f s; wanted: no turn over 10 ms, no notification, no CPU, stop within 2 s (!: not).\n",
      rest);
  std::printf("%5s  %9s  %8s  %12s   %6s  %10s  %8s  %7s\n", "VLANs", "start", "its CPU", "longest turn",
              "notif.", "CPU", "switches/s", "stop");
  try {
    for (const unsigned count : vlans) bench(count, rest);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "SwitchBench: %s\n", error.what());
    return 1;
  }
  return 0;
}
