// The whole switch at its sizes, one at a time, in a network namespace of its own: VLANs, each with a bridge, an access
// port and a tunnel port; access ports of one VLAN; VRFs, each with a VLAN; and, on one VLAN with an address, local
// hosts, neighbours of the kernel and remote bindings. Nobody talks but the hosts, once. Prints the time and the CPU until
// all of it is known and all VLANs are ready to be trapped, the longest turn of the daemon's event loop until then
// (wall-clock time), its memory, what it does while there is nothing to do (kernel notifications caused, CPU,
// context switches), how long one more is on its way and the longest turn by then, and how long its clean stop takes.
//
//   SwitchBench [REST_SECONDS [SIZE...]]
//
// A size is "vlans=100"; a number alone is one of VLANs. "all": the sizes of docs/performance.md. Needs root.

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
#include "Sizes.h"
#include "lab/Lab.h"

namespace {

using Clock = std::chrono::steady_clock;
using Bench::Daemon;

constexpr double kTargetTurn = 10e-3;  // seconds
constexpr double kTargetStop = 2;
// A bridge tells of each port once more when the port's forward delay, 15 s, is over after it came up.
constexpr auto kSettle = std::chrono::seconds(18);

double since(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

struct Wanted {
  std::string what;
  unsigned count;
};
const std::vector<Wanted> kDefault{{"vlans", 1}, {"vlans", 100}, {"vlans", 1000}};
const std::vector<Wanted> kAll{{"vlans", 1},           {"vlans", 4094},   {"ports", 1000},
                               {"vrfs", 500},          {"hosts", 20'000}, {"neighbours", 100'000},
                               {"bindings", 1'000'000}};

void bench(const Wanted& wanted, double restSeconds) {
  const Lab::Namespace inside;
  const Lab::Namespace outside;
  const Lab::Entered entered(inside);
  const Bench::Size size = Bench::makeSize(wanted.what, wanted.count, outside);
  const auto begin = Clock::now();
  Daemon daemon(size.members);
  daemon.await("all VLANs are ready", [&] { return size.ready(daemon); });
  if (size.fill) {
    size.fill(daemon);
    daemon.await("all are known", [&] { return size.full(daemon); });
  }
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

  const auto change = Clock::now();
  size.change(daemon);
  daemon.await("one more is known", [&] { return size.changed(daemon); });
  const double changeSeconds = since(change);
  std::string ignored;
  const double turnByThen = daemon.longestTurn(ignored);

  const auto stop = Clock::now();
  daemon.stop();
  const double stopSeconds = since(stop);

  const std::string name = std::to_string(wanted.count) + " " + wanted.what;
  std::printf(
      "%-18s %7.2f s  %6.2f s  %9.2f ms%s %6ld MiB %6zu  %8.3f %%  %8.1f  %6.2f s %9.2f ms%s %6.2f s%s\n",
      name.c_str(), startSeconds, startCpu, turn * 1e3, turn > kTargetTurn ? "!" : " ",
      before.resident / 1024, notifications, (after.cpu - before.cpu) / rested * 100,
      static_cast<double>(after.switches - before.switches) / rested, changeSeconds, turnByThen * 1e3,
      turnByThen > kTargetTurn ? "!" : " ", stopSeconds, stopSeconds > kTargetStop ? "!" : " ");
  for (const auto& [kind, times] : kinds)
    std::printf("  notifications of type %d, family %d: %zu\n", kind.first, kind.second, times);
  if (!tasks.empty()) std::printf("  tasks that ran longer than 1 ms at a time:\n%s", tasks.c_str());
  std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
  const double rest = argc > 1 ? std::strtod(argv[1], nullptr) : 60;
  std::vector<Wanted> sizes;
  for (int i = 2; i < argc; ++i) {
    const std::string text = argv[i];
    const std::size_t at = text.find('=');
    if (text == "all")
      sizes.insert(sizes.end(), kAll.begin(), kAll.end());
    else
      sizes.push_back({at == std::string::npos ? "vlans" : text.substr(0, at),
                       static_cast<unsigned>(std::strtoul(
                           text.c_str() + (at == std::string::npos ? 0 : at + 1), nullptr, 10))});
    if (sizes.back().count == 0) {
      std::fprintf(stderr, "SwitchBench: %s is no size; one is \"vlans=100\"\n", argv[i]);
      return 2;
    }
  }
  if (sizes.empty()) sizes = kDefault;
  std::printf(
      "At rest for %.0f s; wanted: no turn over 10 ms, no notification, no CPU, stop within 2 s (!: not).\n",
      rest);
  std::printf("%-18s %9s  %8s  %12s  %10s %6s  %10s  %8s  %8s %13s %8s\n", "", "start", "its CPU",
              "longest turn", "memory", "notif.", "CPU", "switches/s", "one more", "longest turn", "stop");
  try {
    for (const Wanted& size : sizes) bench(size, rest);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "SwitchBench: %s\n", error.what());
    return 1;
  }
  return 0;
}
