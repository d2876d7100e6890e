// Host to host through the whole switch: hosts at one port ask for remote hosts, and the answers come back to them.
// Two switches, each in a network namespace of its own, with a bridge, an access port and a vxlan device to the
// overlay, are asked by turns in the same run:
//
//   - ours: agent-host with all its plug-ins. First the slow way, in which the agent answers each request (answers in
//     the data plane and the policer are off); then as it is delivered.
//   - the kernel bridge's own neighbour suppression ("neigh_suppress"), with an externally learned neighbour and a MAC
//     table entry on the vxlan device for each remote host.
//
// Hosts ask by ARP; then, of both switches anew, by neighbour solicitations ("nd"), which no agent sees.
//
//   split    the asking hosts' processor does the receive work of the switch
//   all-in   the other one does it (receive packet steering), and runs the daemon: one processor does all the work
//   of answering
//
//   WholeBench [ROUNDS [SECONDS [REMOTE_HOSTS...]]]
//
// By default 3 rounds of 1 s each with 1, 65,536 and 1,048,576 remote hosts, which takes about a quarter of an hour; the
// figures are medians over the rounds. "WholeBench 1 0.1 1000" is a look whether it works. Needs root and two
// processors. It runs ahead of what else the machine does, and says how busy the machine was.

#include <linux/neighbour.h>
#include <pthread.h>
#include <sched.h>
#include <sys/mount.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "../switch/Daemon.h"
#include "Asking.h"
#include "lab/Lab.h"
#include "lab/LabKernel.h"

namespace {

using Bench::Asked;
using Bench::Asking;
using Clock = std::chrono::steady_clock;

constexpr int kSwitchProcessor = 0, kHostsProcessor = 1;
constexpr std::uint32_t kMostRemoteHosts = 1U << 20;
constexpr std::uint32_t kOutstanding = 64;
constexpr std::uint32_t kSenders[] = {1, 256};
constexpr std::size_t kChunk = 4096;  // netlink requests made at a time
constexpr auto kRest = std::chrono::milliseconds(300);
constexpr double kAtRest = 0.01;  // seconds of CPU in that time
constexpr double kLook = 0.01;    // and to see whether the data plane answers
constexpr double kWarmUp = 0.1;   // seconds: tables in the caches, senders known
// What is wanted of the answers of the data plane with the most remote hosts.
constexpr double kWantedRate = 1.5, kWantedTime = 1, kWantedFill = 2;

double since(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

void runOn(int processor) {
  cpu_set_t set;
  CPU_ZERO(&set);
  CPU_SET(processor, &set);
  pthread_setaffinity_np(pthread_self(), sizeof set, &set);
}

double median(std::vector<double> values) {
  std::ranges::sort(values);
  return values.empty() ? 0 : values[values.size() / 2];
}

// A folder that goes with the object.
class Folder {
 public:
  Folder() {
    if (mkdtemp(path_.data()) == nullptr) throw std::runtime_error("no folder " + path_);
  }
  ~Folder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  Folder(const Folder&) = delete;
  Folder& operator=(const Folder&) = delete;
  const std::string& path() const { return path_; }

 private:
  std::string path_ = (std::filesystem::temp_directory_path() / "whole-bench-XXXXXX").string();
};

void requestAll(std::uint32_t count, const std::function<Netlink::Message(std::uint32_t)>& message) {
  std::vector<Netlink::Message> messages;
  for (std::uint32_t i = 0; i < count; ++i) {
    messages.push_back(message(i));
    if (messages.size() < kChunk && i + 1 < count) continue;
    if (KernelState::requestAll(messages) != messages.size())
      throw std::runtime_error("the kernel refused entries of remote hosts");
    messages.clear();
  }
}

// A switch with the MAC addresses of the remote hosts on its vxlan device, as a routing daemon writes them.
class Network {
 public:
  Network(std::uint32_t remoteHosts, bool ip6) : ip6_(ip6) {
    const Lab::Entered entered(inside);
    Lab::bridgeIs("vlan10");
    KernelState::addressIs("vlan10", "10.0.0.1/8");
    if (ip6) {
      std::ofstream("/proc/sys/net/ipv6/conf/vlan10/disable_ipv6") << 0;
      Lab::run("ip -6 addr add 2001:db8:10::1/64 dev vlan10 nodad");
    }
    Lab::vethIs("Ethernet1", "far-Ethernet1", outside);
    Lab::portIs("Ethernet1", "vlan10");
    Lab::run("ip link add vxlan10 type vxlan id 10 local 192.0.2.1 dstport 4789 nolearning");
    Lab::run("ip link set vxlan10 master vlan10 up");
    Lab::run("bridge link set dev vxlan10 learning off");
    requestAll(remoteHosts, [](std::uint32_t i) {
      return KernelState::macMessage("vxlan10", Bench::remoteMac(i).toStrep(), NUD_NOARP, NTF_EXT_LEARNED);
    });
  }
  // The bridge answers by itself.
  void suppressionIs(std::uint32_t remoteHosts) {
    const Lab::Entered entered(inside);
    requestAll(remoteHosts, [this](std::uint32_t i) {
      return KernelState::neighbourMessage("vlan10", Bench::remoteIp(i, ip6_).toStrep(),
                                           Bench::remoteMac(i).toStrep(), NUD_NOARP, 0, NTF_EXT_LEARNED);
    });
    Lab::run("bridge link set dev vxlan10 neigh_suppress on");
  }
  // Which processor does the receive work of the access port: the switch's, or whichever sends.
  void steeringIs(const Folder& folder, bool toSwitch) {
    const Lab::Entered entered(inside);
    const std::string devices = folder.path() + "/sys";
    std::filesystem::create_directories(devices);
    // What is mounted shows the devices of the namespace that it is mounted from.
    if (mount("sysfs", devices.c_str(), "sysfs", 0, nullptr) != 0)
      throw std::runtime_error("sysfs cannot be mounted");
    const bool done = static_cast<bool>(std::ofstream(devices + "/class/net/Ethernet1/queues/rx-0/rps_cpus")
                                        << (toSwitch ? 1U << kSwitchProcessor : 0U) << std::flush);
    umount(devices.c_str());
    if (!done) throw std::runtime_error("the receive work of Ethernet1 cannot be steered");
  }
  Asked asked(Asking asking) const {
    asking.ip6 = ip6_;
    Asked result;
    std::exception_ptr failure;
    std::thread([&] {
      try {
        runOn(kHostsProcessor);
        const Lab::Entered entered(outside);
        result = Bench::ask("far-Ethernet1", asking);
      } catch (...) {
        failure = std::current_exception();
      }
    }).join();
    if (failure) std::rethrow_exception(failure);
    return result;
  }

  bool ip6() const { return ip6_; }

  Lab::Namespace inside, outside;

 private:
  const bool ip6_;
};

// The number behind the first `label` of a text; -1: there is none.
double numberOf(const std::string& text, const std::string& label) {
  const std::size_t at = text.find(label);
  return at == text.npos ? -1 : std::strtod(text.c_str() + at + label.size(), nullptr);
}

constexpr char kAnswered[] = "\"answered\":";  // at the only access port
constexpr char kVlans[] =
    R"("vlans":{"10":{"tunnelPorts":["vxlan10"]}},"state":{"evpn/status":{"mplsConfigured":true,"vlanToDot1q":{"10":10}}})";
constexpr char kSlow[] =
    R"(,"softForward":{"answers":{"enabled":false},"policer":{"perSecond":1000000,"burst":1000000}})";

constexpr char kNoRoom[] = R"(,"softForward":{"answers":{"maxEntries":1}})";

class Ours {
 public:
  explicit Ours(Network& network)
      : entered_(network.inside), ip6_(network.ip6()), daemon_(std::string(kVlans) + kSlow) {}

  void remoteHostsAre(std::uint32_t count, const Folder& folder) {
    const std::string file = folder.path() + "/bindings.csv";
    {
      std::ofstream lines(file);
      for (std::uint32_t i = 0; i < count; ++i)
        lines << "10," << Bench::remoteIp(i, ip6_).toStrep() << "," << Bench::remoteMac(i).toStrep() << "\n";
    }
    daemon_.await("the VLAN is ready", [&] {
      return daemon_.asked({"--json", "show", "switch/forwarding"}).find("\"ready\":true") !=
             std::string::npos;
    });
    const auto begin = Clock::now();
    const std::string loaded = daemon_.asked({"--json", "remote", "load", file});
    if (numberOf(loaded, "\"loaded\":") != count) throw std::runtime_error("arpsup remote load: " + loaded);
    const double load = since(begin);
    daemon_.await("the kernel has all neighbours", [&] {
      return numberOf(daemon_.asked({"--json", "show", "arp/service/status"}), "\"programmed\":") == count;
    });
    const double neighbours = since(begin);
    atRest();
    const Bench::Usage usage = daemon_.usage();
    std::printf(
        "%u remote hosts: loaded after %.2f s, kernel neighbours after %.2f s, %.2f s of CPU, %ld MiB\n",
        count, load, neighbours, usage.cpu, usage.resident >> 10);
  }
  // From now on as it is delivered. First the agent makes its table of answers, and the data plane its map; then the
  // map is emptied, and filled from the table that stands.
  void answersAre(const Network& network, std::uint32_t count) {
    const auto [both, bothCpu] = untilAnswered(network, count);
    daemon_.reload(std::string(kVlans) + kNoRoom);
    daemon_.await("the data plane is emptied", [&] { return number("\"held\":") <= 1; });
    atRest();
    const auto [map, mapCpu] = untilAnswered(network, count);
    std::printf(
        "%u answers: in the agent's table and the data plane's map %.2f s after they were switched on, %.2f "
        "s of "
        "CPU; the map alone %.2f s%s, %.2f s of CPU\n",
        count, both, bothCpu, map, map > kWantedFill ? "!" : "", mapCpu);
  }
  double number(const std::string& label) const {
    return numberOf(daemon_.asked({"--json", "forwarding"}), label);
  }
  void stop() { daemon_.stop(); }

 private:
  void atRest() {
    double cpu = 0;
    daemon_.await("the daemon is at rest", [&] {
      const double before = std::exchange(cpu, daemon_.usage().cpu);
      std::this_thread::sleep_for(kRest);
      return cpu - before < kAtRest;
    });
  }
  // Seconds, and those of CPU, from switching answers on until the data plane has and gives all of them.
  std::pair<double, double> untilAnswered(const Network& network, std::uint32_t count) {
    const double cpu = daemon_.usage().cpu;
    const auto begin = Clock::now();
    daemon_.reload(kVlans);
    daemon_.await("the data plane answers everything", [&] {
      const double before = number(kAnswered);
      const Asked look = network.asked({count, 1, 1, kLook});
      return number("\"held\":") == count && number(kAnswered) - before == static_cast<double>(look.asked);
    });
    return {since(begin), daemon_.usage().cpu - cpu};
  }

  Lab::Entered entered_;
  const bool ip6_;
  Bench::Daemon daemon_;
};

// What came of one of the two, a value a round.
struct Figures {
  std::vector<double> perSecond{}, p50{}, p99{};
  std::uint64_t asked = 0, lost = 0, wrong = 0;

  void add(const Asked& many, const Asked& one) {
    perSecond.push_back(many.perSecond);
    p50.push_back(one.p50);
    p99.push_back(one.p99);
    for (const Asked* each : {&many, &one}) asked += each->asked, lost += each->lost, wrong += each->wrong;
  }
};

struct Bounds {
  unsigned rounds = 3;
  double seconds = 1;
};

void row(const char* way, const char* receive, const Asking& asking, const Figures& ours,
         const Figures& bridge, double inKernel) {
  const double rate = median(ours.perSecond) / median(bridge.perSecond),
               time = median(ours.p50) / median(bridge.p50);
  const bool judged = inKernel >= 0 && *receive == 'a' && asking.remoteHosts == kMostRemoteHosts;
  std::printf(
      "%8u %5u  %-6s  %-5s %9.0f %9.0f %5.2f%s  %7.1f %7.1f %5.2f%s  %7.1f %7.1f  %5.1f%%  %llu/%llu "
      "%llu/%llu\n",
      asking.remoteHosts, asking.senders, receive, way, median(ours.perSecond), median(bridge.perSecond),
      rate, judged && rate < kWantedRate ? "!" : " ", median(ours.p50), median(bridge.p50), time,
      judged && time > kWantedTime ? "!" : " ", median(ours.p99), median(bridge.p99),
      std::max(inKernel, 0.0) * 100, static_cast<unsigned long long>(ours.lost),
      static_cast<unsigned long long>(bridge.lost), static_cast<unsigned long long>(ours.wrong),
      static_cast<unsigned long long>(bridge.wrong));
  std::fflush(stdout);
}

constexpr char kHead[] =
    "  remote  from                   answers/s with 64 out     us, p50 with one out      p99           in "
    "the  lost  "
    "wrong\n   hosts hosts                   ours    bridge ratio     ours  bridge ratio     ours  bridge  "
    "kernel  "
    "ours/bridge";

void compare(const char* way, Network& our, Network& theirs, const Ours& ours, std::uint32_t remoteHosts,
             const Bounds& bounds, const Folder& folder) {
  const bool quick = *way != 's';
  for (const bool allIn : {true, false}) {
    for (Network* network : {&our, &theirs}) network->steeringIs(folder, allIn);
    for (const std::uint32_t senders : kSenders) {
      const Asking one{remoteHosts, senders, 1, bounds.seconds};
      const Asking many{remoteHosts, senders, kOutstanding, bounds.seconds};
      for (const Network* network : {&our, &theirs})
        network->asked({remoteHosts, senders, kOutstanding, kWarmUp});
      const double before = quick ? ours.number(kAnswered) : 0;
      Figures figures[2];
      for (unsigned round = 0; round < 2 * bounds.rounds; ++round) {
        const std::size_t which = (round / 2 + round) % 2;  // ours, bridge, bridge, ours, ...
        const Network& network = which == 0 ? our : theirs;
        const Asked rate = network.asked(many);
        figures[which].add(rate, network.asked(one));
      }
      const double answered = quick ? ours.number(kAnswered) - before : 0;
      row(way, allIn ? "all-in" : "split", many, figures[0], figures[1],
          quick ? answered / static_cast<double>(figures[0].asked) : -1);
    }
  }
}

void bench(std::uint32_t remoteHosts, bool ip6, const Bounds& bounds) {
  const Folder folder;
  Network our(remoteHosts, ip6), theirs(remoteHosts, ip6);
  theirs.suppressionIs(remoteHosts);
  Ours ours(our);
  ours.remoteHostsAre(remoteHosts, folder);
  if (!ip6) compare("slow", our, theirs, ours, remoteHosts, bounds, folder);
  ours.answersAre(our, remoteHosts);
  compare(ip6 ? "nd" : "quick", our, theirs, ours, remoteHosts, bounds, folder);
  ours.stop();
}

std::string loadOfTheMachine() {
  std::string text;
  std::getline(std::ifstream("/proc/loadavg"), text);
  return text;
}

}  // namespace

int main(int argc, char** argv) {
  Bounds bounds;
  if (argc > 1) bounds.rounds = static_cast<unsigned>(std::strtoul(argv[1], nullptr, 10));
  if (argc > 2) bounds.seconds = std::strtod(argv[2], nullptr);
  std::vector<std::uint32_t> sizes;
  bool good = bounds.rounds >= 1 && bounds.rounds <= 20 && bounds.seconds >= 0.01 && bounds.seconds <= 60;
  for (int i = 3; i < argc; ++i) {
    const unsigned long count = std::strtoul(argv[i], nullptr, 10);
    good = good && count >= 1 && count <= kMostRemoteHosts;
    sizes.push_back(static_cast<std::uint32_t>(count));
  }
  if (sizes.empty()) sizes = {1, 65536, kMostRemoteHosts};
  if (!good) {
    std::fprintf(stderr,
                 "WholeBench: ROUNDS from 1 to 20, SECONDS from 0.01 to 60, REMOTE_HOSTS from 1 to %u\n",
                 kMostRemoteHosts);
    return 2;
  }
  try {
    if (unshare(CLONE_NEWNS) != 0 || mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
      throw std::runtime_error("no mounts of its own; it needs root");
    Bench::aheadOfOthers();
    runOn(kSwitchProcessor);  // and the daemon
    std::printf("the machine's load: %s\n%s\n", loadOfTheMachine().c_str(), kHead);
    for (const bool ip6 : {false, true})
      for (const std::uint32_t count : sizes) bench(count, ip6, bounds);
    std::printf(
        "wanted of the quick way and of nd, all-in, with %u remote hosts (!: missed): %.1f times the "
        "bridge's rate, "
        "p50 at "
        "most %.1f times the bridge's; filled within %.0f s\nthe machine's load: %s\n",
        kMostRemoteHosts, kWantedRate, kWantedTime, kWantedFill, loadOfTheMachine().c_str());
  } catch (const std::exception& error) {
    std::fprintf(stderr, "WholeBench: %s\n", error.what());
    return 1;
  }
  return 0;
}
