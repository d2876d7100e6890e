// A leaf whose remote hosts come from a routing daemon: two leaves with FRR's zebra and bgpd, of which the second
// has the hosts, and the whole switch on the first. Prints, for hosts that come, for the other leaf that is lost
// and comes back, and for restarts of the daemon, when zebra was done and when our bindings were (so much after
// zebra), what each program took of a processor and of memory, and the daemon's longest turn.
//
//   FeedBench [HOSTS [VLANS]]
//
// By default 100,000 hosts on one VLAN. Needs root and FRR as scripts/setup unpacks it.

#include <fcntl.h>
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "Daemon.h"
#include "Netlink/Route.h"
#include "lab/Lab.h"
#include "lab/LabKernel.h"

namespace {

using Clock = std::chrono::steady_clock;
using Bench::Daemon;
using Bench::Usage;

constexpr double kWantedAfter = 1;    // seconds after zebra's last
constexpr double kWantedRestart = 2;  // and after the start of the daemon
constexpr double kWantedTurn = 10e-3;
constexpr std::uint8_t kZebra = 11, kOwn = 110;
constexpr unsigned kFirstVlan = 10;
constexpr auto kPatience = std::chrono::seconds(180);
constexpr auto kLook = std::chrono::milliseconds(20);
constexpr auto kSlowLook =
    std::chrono::milliseconds(100);  // where the answer costs the daemon a copy of itself
constexpr int kReceiveBuffer = 512 << 20;
constexpr int kZebraBuffer = 256 << 20;

double seconds(Clock::duration duration) { return std::chrono::duration<double>(duration).count(); }
std::string vlanName(unsigned i) { return std::to_string(kFirstVlan + i); }
std::string hostIp(std::size_t i) {
  return "10." + std::to_string(1 + (i >> 16)) + "." + std::to_string(i >> 8 & 255) + "." +
         std::to_string(i & 255);
}
std::string hostMac(std::size_t i) {
  char text[18];
  std::snprintf(text, sizeof text, "02:00:00:%02zx:%02zx:%02zx", i >> 16 & 255, i >> 8 & 255, i & 255);
  return text;
}

// Counts what the kernel tells of neighbours in the namespace that it is made in.
class Monitor {
 public:
  Monitor() : socket_(NETLINK_ROUTE, {.receiveBuffer = kReceiveBuffer}) {
    if (const auto joined = socket_.join(RTNLGRP_NEIGH); !joined) throw std::runtime_error(joined.error());
    thread_ = std::jthread([this](const std::stop_token& over) {
      while (!over.stop_requested()) {
        const auto heard = socket_.receive([this](const Netlink::Received& message) { handle(message); });
        overrun = overrun || heard.overrun;
        if (!heard.more) std::this_thread::sleep_for(std::chrono::milliseconds(2));
      }
    });
  }

  std::atomic<long> standing = 0;    // neighbours of zebra
  std::atomic<Clock::rep> last = 0;  // when that last changed
  std::atomic<long> touched = 0;     // notifications of IPv4 and IPv6 neighbours, whoever's
  std::atomic<long> own = 0;         // of these, of our protocol
  std::atomic<bool> overrun = false;
  Clock::time_point lastAt() const { return Clock::time_point(Clock::duration(last)); }

 private:
  void handle(const Netlink::Received& message) {
    const auto neighbour = Netlink::readNeighbour(message);
    if (!neighbour || neighbour->isMacEntry()) return;
    ++touched;
    if (neighbour->protocol == kOwn) ++own;
    if (neighbour->protocol != kZebra) return;
    // zebra writes some of them more than once.
    const std::pair key{neighbour->ifIndex, neighbour->address};
    const bool gone = message.type() == RTM_DELNEIGH || (neighbour->state & NUD_FAILED) != 0;
    if (!(gone ? standing_.erase(key) != 0 : standing_.insert(key).second)) return;
    standing = static_cast<long>(standing_.size());
    last = Clock::now().time_since_epoch().count();
  }

  Netlink::Socket socket_;
  std::set<std::pair<Netlink::IfIndex, Lanix::IpGenAddr>> standing_;
  std::jthread thread_;
};

class Leaf {
 public:
  Leaf(int number, const std::string& folder)
      : number_(number), folder_(folder + "/" + std::to_string(number)) {
    std::filesystem::create_directories(folder_);
  }
  ~Leaf() {
    for (const auto& [name, pid] : programs_) end(pid);
  }
  void networkIs(unsigned vlans) {
    const Lab::Entered entered(inside);
    Lab::run("ip link set lo up");
    KernelState::addressIs("underlay", address() + "/30");
    std::ofstream links(folder_ + "/links"), ports(folder_ + "/ports");
    for (unsigned i = 0; i < vlans; ++i) {
      const std::string n = vlanName(i), bridge = "vlan" + n, tunnel = "vxlan" + n, port = "Ethernet" + n;
      links << "link add " << bridge << " address 02:00:01:00:00:0" << number_
            << " type bridge mcast_snooping 0 ageing_time 100000000\nlink set " << bridge
            << " up\naddress add 172." << 16 + i / 256 << "." << i % 256 << "." << number_ << "/24 dev "
            << bridge << "\nlink add " << tunnel << " type vxlan id " << n << " local " << address()
            << " dstport 4789 nolearning\nlink add " << port << " type veth peer name far" << n << "\n";
      for (const std::string& device : {tunnel, port})
        links << "link set " << device << " master " << bridge << " up\n";
      links << "link set far" << n << " up\n";
      ports << "link set dev " << tunnel << " learning off\n";
    }
    links.close();
    ports.close();
    Lab::run("ip -batch " + folder_ + "/links");
    Lab::run("bridge -batch " + folder_ + "/ports");
  }
  void routingIs(const std::string& program) {
    std::ofstream(folder_ + "/" + program + ".conf") << (program == "zebra" ? "" : bgp());
    const Lab::Entered entered(inside);
    const int output = open((folder_ + "/" + program + ".log").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    std::vector<std::string> command{FRR_RUN, program, "-u", "root",         "-g",
                                     "root",  "-P",    "0",  "--vty_socket", folder_};
    const std::string at = folder_ + "/" + program;
    for (const std::string& each : {std::string("-i"), at + ".pid", std::string("-z"), folder_ + "/zserv.api",
                                    std::string("-f"), at + ".conf"})
      command.push_back(each);
    // So many notifications at once would not fit into the buffer that it has by default.
    if (program == "zebra") command.insert(command.end(), {"-s", std::to_string(kZebraBuffer)});
    programs_.emplace_back(program, Bench::start(command, output, false));
    close(output);
    if (program != "zebra") return;
    const auto deadline = Clock::now() + kPatience;
    while (!std::filesystem::exists(folder_ + "/zserv.api")) {
      if (Clock::now() > deadline) throw std::runtime_error("zebra does not start; see " + folder_);
      std::this_thread::sleep_for(kLook);
    }
  }
  void routingDel(const std::string& program) {
    end(pidOf(program));
    std::erase_if(programs_, [&](const auto& each) { return each.first == program; });
  }
  pid_t pidOf(const std::string& program) const {
    for (const auto& [name, pid] : programs_)
      if (name == program) return pid;
    throw std::runtime_error(program + " does not run");
  }
  // Hosts of this leaf, which neither the kernel nor the bridge forgets.
  void hostsAre(std::size_t hosts, unsigned vlans) {
    const Lab::Entered entered(inside);
    std::vector<Netlink::Message> messages;
    messages.reserve(2 * hosts);
    for (std::size_t i = 0; i < hosts; ++i) {
      const std::string n = vlanName(static_cast<unsigned>(i % vlans));
      messages.push_back(KernelState::macMessage("Ethernet" + n, hostMac(i), NUD_REACHABLE));
      messages.push_back(KernelState::neighbourMessage("vlan" + n, hostIp(i), hostMac(i), NUD_PERMANENT));
    }
    if (const std::size_t taken = KernelState::requestAll(messages); taken != messages.size())
      throw std::runtime_error("the kernel took " + std::to_string(taken) + " of " +
                               std::to_string(messages.size()) + " entries");
  }

  const Lab::Namespace inside;

 private:
  static void end(pid_t pid) {
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
  }
  std::string address() const { return "192.0.2." + std::to_string(number_); }
  std::string bgp() const {
    const std::string peer = " neighbor 192.0.2." + std::to_string(3 - number_) + " ";
    return "router bgp 65000\n bgp router-id " + address() + "\n no bgp default ipv4-unicast\n" + peer +
           "remote-as 65000\n" + peer + "timers connect 1\n" + peer +
           "advertisement-interval 0\n address-family l2vpn evpn\n " + peer +
           "activate\n  advertise-all-vni\n exit-address-family\n";
  }

  const int number_;
  const std::string folder_;
  std::vector<std::pair<std::string, pid_t>> programs_;
};

class Fabric {
 public:
  Fabric(std::size_t hosts, unsigned vlans)
      : hosts_(hosts),
        vlans_(vlans),
        folder_(std::filesystem::temp_directory_path() / ("feed-bench-" + std::to_string(getpid()))),
        one_(1, folder_),
        two_(2, folder_) {}
  ~Fabric() {
    std::error_code ignored;
    std::filesystem::remove_all(folder_, ignored);
  }

  void run() {
    {
      const Lab::Entered entered(one_.inside);
      Lab::vethIs("underlay", "underlay", two_.inside);
    }
    for (Leaf* leaf : {&one_, &two_}) {
      leaf->networkIs(vlans_);
      leaf->routingIs("zebra");
      leaf->routingIs("bgpd");
    }
    const Lab::Entered entered(one_.inside);
    Monitor monitor;
    const auto begin = Clock::now();
    Daemon daemon(configuration(),
                  R"("KernelState","KernelEvpn","ArpService","SoftForward","ArpSuppression")");
    await(daemon, "all VLANs are ready", [&] { return isReady(daemon); });
    std::printf("%zu hosts on %u VLANs; the switch was ready after %.2f s\n", hosts_, vlans_,
                seconds(Clock::now() - begin));
    std::fflush(stdout);
    std::printf("%-28s %9s %9s %9s | %8s %8s %8s | %12s\n", "", "zebra", "we after", "wanted", "our CPU",
                "zebra's", "bgpd's", "longest turn");
    const auto hosts = static_cast<long>(hosts_);
    follow("hosts come", daemon, monitor, hosts, [&] { two_.hostsAre(hosts_, vlans_); });
    print("memory, MiB", daemon);
    follow("the other leaf is lost", daemon, monitor, 0, [&] { two_.routingDel("bgpd"); });
    follow("it comes back", daemon, monitor, hosts, [&] { two_.routingIs("bgpd"); });
    for (const auto& [what, signal] :
         {std::pair("killed, and started", SIGKILL), {"stopped, and started", SIGTERM}})
      restart(what, daemon, monitor, signal);
    rest(daemon, monitor);
    std::printf("neighbours of ours seen: %ld; notifications lost by this program: %s\n", monitor.own.load(),
                monitor.overrun ? "yes, figures are not to be trusted" : "none");
    daemon.stop();
  }

 private:
  std::string configuration() const {
    std::string list;
    for (unsigned i = 0; i < vlans_; ++i)
      list += (i == 0 ? "\"" : ",\"") + vlanName(i) + R"(":{"tunnelPorts":["vxlan)" + vlanName(i) + "\"]}";
    return "\"vlans\":{" + list + R"(},"evpn":{"feed":"kernel"},"neighborRefreshSeconds":86400)";
  }
  static long numberAt(const std::string& text, const std::string& key) {
    const std::size_t at = text.find("\"" + key + "\":");
    return at == std::string::npos ? -1 : std::strtol(text.c_str() + at + key.size() + 3, nullptr, 10);
  }
  static long bindings(Daemon& daemon) {
    return numberAt(daemon.asked({"--json", "status"}), "remoteBindings");
  }
  bool isReady(Daemon& daemon) const {
    const std::string text = daemon.asked({"--json", "show", "switch/forwarding"});
    unsigned ready = 0;
    for (std::size_t at = 0; (at = text.find("\"ready\":true", at)) != std::string::npos; ++at) ++ready;
    return ready == vlans_;
  }
  template <class IsSo>
  static void await(Daemon&, const std::string& what, IsSo isSo) {
    const auto deadline = Clock::now() + kPatience;
    while (!isSo()) {
      if (Clock::now() > deadline) throw std::runtime_error("waiting until " + what + " took too long");
      std::this_thread::sleep_for(kLook);
    }
  }
  void print(const char* what, Daemon& daemon) const {
    std::printf("%-28s ours %.1f, zebra %.1f, bgpd %.1f\n", what,
                static_cast<double>(daemon.usage().resident) / 1024,
                static_cast<double>(Bench::usageOf(one_.pidOf("zebra")).resident) / 1024,
                static_cast<double>(Bench::usageOf(one_.pidOf("bgpd")).resident) / 1024);
  }

  template <class Cause>
  void follow(const char* what, Daemon& daemon, Monitor& monitor, long wanted, Cause cause) {
    const auto usages = [&] {
      return std::array{daemon.usage(), Bench::usageOf(one_.pidOf("zebra")),
                        Bench::usageOf(one_.pidOf("bgpd"))};
    };
    const auto before = usages();
    const auto begin = Clock::now();
    cause();
    await(daemon, std::string("zebra has ") + std::to_string(wanted) + " neighbours",
          [&] { return monitor.standing == wanted; });
    await(daemon, "our bindings are the same", [&] { return bindings(daemon) == wanted; });
    const auto done = Clock::now();
    const auto after = usages();
    const double late = seconds(done - monitor.lastAt());
    std::string tasks;
    const double turn = daemon.longestTurn(tasks) * 1e3;
    std::printf("%-28s %7.2f s %7.2f s%s %7.1f s | %6.2f s %6.2f s %6.2f s | %9.1f ms%s\n", what,
                seconds(monitor.lastAt() - begin), late, late > kWantedAfter ? "!" : " ", kWantedAfter,
                after[0].cpu - before[0].cpu, after[1].cpu - before[1].cpu, after[2].cpu - before[2].cpu,
                turn, turn > kWantedTurn * 1e3 ? "!" : " ");
    std::printf("  tasks that ran longer than 1 ms at a time:\n%s", tasks.c_str());
    std::fflush(stdout);
  }

  void restart(const char* what, Daemon& daemon, Monitor& monitor, int signal) {
    monitor.touched = 0;
    daemon.restart(signal);
    const auto begin = Clock::now();
    await(daemon, "our bindings are there", [&] { return bindings(daemon) == static_cast<long>(hosts_); });
    const double complete = seconds(Clock::now() - begin);
    await(daemon, "it serves", [&] {
      const std::string text = daemon.asked({"--json", "show", "switch/readiness"});
      return std::ranges::all_of(
          std::array{"KernelEvpn", "KernelState", "ArpSuppression"}, [&](const char* plugin) {
            return text.find(std::string("\"") + plugin + "\":\"\"") != std::string::npos;
          });
    });
    const double ready = seconds(Clock::now() - begin);
    std::string tasks;
    const double turn = daemon.longestTurn(tasks) * 1e3;
    std::printf(
        "%-28s complete after %.2f s%s (wanted %.0f s), ready after %.2f s, our CPU %.2f s, longest turn "
        "%.1f "
        "ms%s, neighbours touched: %ld\n",
        what, complete, complete > kWantedRestart ? "!" : "", kWantedRestart, ready, daemon.usage().cpu, turn,
        turn > kWantedTurn * 1e3 ? "!" : "", monitor.touched.load());
    std::printf("  tasks that ran longer than 1 ms at a time:\n%s", tasks.c_str());
    print("memory, MiB", daemon);
    std::fflush(stdout);
  }

  void rest(Daemon& daemon, Monitor& monitor) {
    constexpr int kRest = 10;
    std::this_thread::sleep_for(std::chrono::seconds(5));
    const Usage before = daemon.usage();
    monitor.touched = 0;
    std::this_thread::sleep_for(std::chrono::seconds(kRest));
    const Usage after = daemon.usage();
    std::printf("at rest for %d s: CPU %.3f %%, %.1f context switches a second, notifications %ld\n", kRest,
                (after.cpu - before.cpu) / kRest * 100,
                static_cast<double>(after.switches - before.switches) / kRest, monitor.touched.load());
  }

  const std::size_t hosts_;
  const unsigned vlans_;
  const std::string folder_;
  Leaf one_, two_;
};

}  // namespace

int main(int argc, char** argv) {
  const long hosts = argc > 1 ? std::strtol(argv[1], nullptr, 10) : 100'000;
  const long vlans = argc > 2 ? std::strtol(argv[2], nullptr, 10) : 1;
  if (hosts < 1 || hosts > 1'000'000 || vlans < 1 || vlans > 2'000) {
    std::fprintf(stderr, "FeedBench: HOSTS from 1 to 1000000, VLANS from 1 to 2000\n");
    return 2;
  }
  try {
    Fabric(static_cast<std::size_t>(hosts), static_cast<unsigned>(vlans)).run();
  } catch (const std::exception& error) {
    std::fprintf(stderr, "FeedBench: %s\n", error.what());
    return 1;
  }
  return 0;
}
