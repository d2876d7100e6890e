// From the wire to the reply, on veth pairs in a network namespace of its own: trapped frames go into
// "arpsnoop", replies come out of "fabric". Beside the agent, in the same run and the same arrangement, a
// bare responder that reads a frame, writes a reply of the same size and looks nothing up. Load on one core,
// responder on the other.
//
//   split    the load's core does the receive soft interrupts
//   all-in   the responder's core does them (receive packet steering), so that one core does all the work of
//   answering
//
// Needs root. Bounded: a few seconds for each row.

#include <arpa/inet.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <poll.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "ArpSuppression/Rig.h"
#include "Lanix/Wire.h"
#include "Targets.h"

namespace ArpSuppression {
namespace {

constexpr double kSeconds = 2;
constexpr std::uint32_t kOutstanding = 64;
constexpr std::size_t kReplySize = 46;

[[noreturn]] void fail(const std::string& what) {
  std::fprintf(stderr, "WireBench: %s: %s\n", what.c_str(), std::strerror(errno));
  std::exit(1);
}

void command(const std::string& text) {
  if (std::system(text.c_str()) != 0) fail(text);
}

void pinTo(int core) {
  cpu_set_t cores;
  CPU_ZERO(&cores);
  CPU_SET(core, &cores);
  if (sched_setaffinity(0, sizeof cores, &cores) < 0) fail("sched_setaffinity");
}

double now() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

int packetSocket(const char* device, std::uint16_t protocol) {
  const int sock = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, htons(protocol));
  sockaddr_ll address{};
  address.sll_family = AF_PACKET;
  address.sll_protocol = htons(protocol);
  address.sll_ifindex = static_cast<int>(if_nametoindex(device));
  if (sock < 0 || bind(sock, reinterpret_cast<const sockaddr*>(&address), sizeof address) < 0) fail(device);
  return sock;
}

void steer(const char* device, bool toResponder) {
  std::ofstream mask(std::string("/sys/class/net/") + device + "/queues/rx-0/rps_cpus");
  mask << (toResponder ? "1" : "0") << std::endl;
}

struct Figures {
  double answersPerSecond = 0;
  double p50 = 0;  // microseconds, with one outstanding
  double p99 = 0;
  std::uint64_t lost = 0;
};

// The load, in a process of its own.
Figures load(std::uint32_t bindings) {
  const int out = packetSocket("snoop-p", 0);
  const int in = packetSocket("fabric-p", ETH_P_ALL);
  const int buffer = 4 << 20;
  setsockopt(in, SOL_SOCKET, SO_RCVBUFFORCE, &buffer, sizeof buffer);
  std::mt19937 random(1);
  std::vector<TestSupport::Frame> frames(4096, Trapped{}.frame());
  for (auto& frame : frames) {
    setRequest(frame, targetOf(static_cast<std::uint32_t>(random() % bindings)), 0);
  }
  std::array<std::byte, 256> reply;
  std::size_t next = 0;
  const auto send = [&] {
    const auto& frame = frames[next++ % frames.size()];
    if (::send(out, frame.data(), frame.size(), 0) < 0 && errno != ENOBUFS) fail("send");
  };
  const auto wait = [&](int milliseconds) {
    pollfd readable{in, POLLIN, 0};
    return poll(&readable, 1, milliseconds) > 0;
  };
  const auto receive = [&] { return recv(in, reply.data(), reply.size(), MSG_DONTWAIT) > 0; };

  Figures figures;
  std::vector<double> times;
  for (int i = 0; i < 30000; ++i) {
    const double start = now();
    send();
    while (!receive()) {
      if (now() - start > 0.2) {
        ++figures.lost;
        break;
      }
    }
    if (i >= 1000) times.push_back((now() - start) * 1e6);
  }
  std::sort(times.begin(), times.end());
  figures.p50 = times[times.size() / 2];
  figures.p99 = times[times.size() * 99 / 100];

  std::uint64_t answers = 0;
  std::uint32_t outstanding = 0;
  const double start = now();
  double counted = start;
  while (now() - start < kSeconds) {
    while (outstanding < kOutstanding) {
      send();
      ++outstanding;
    }
    if (!wait(100)) {  // lost on the way
      figures.lost += outstanding;
      outstanding = 0;
      continue;
    }
    while (outstanding > 0 && receive()) {
      --outstanding;
      ++answers;
    }
    counted = now();
  }
  figures.answersPerSecond = static_cast<double>(answers) / (counted - start);
  return figures;
}

// Runs the load beside a responder, which gets a function that tells whether to go on.
Figures measure(std::uint32_t bindings, const std::function<void(const std::function<bool()>&)>& responder) {
  int pipes[2];
  if (pipe(pipes) < 0) fail("pipe");
  const pid_t child = fork();
  if (child < 0) fail("fork");
  if (child == 0) {
    pinTo(1);
    const Figures figures = load(bindings);
    if (write(pipes[1], &figures, sizeof figures) != sizeof figures) _exit(1);
    _exit(0);
  }
  close(pipes[1]);
  responder([&] {
    pollfd done{pipes[0], POLLIN, 0};
    return poll(&done, 1, 0) == 0;
  });
  Figures figures;
  if (read(pipes[0], &figures, sizeof figures) != sizeof figures) fail("the load ended without figures");
  close(pipes[0]);
  waitpid(child, nullptr, 0);
  return figures;
}

// Asks now and then whether to go on.
void runWhile(Orb::EventLoop& loop, const std::function<bool()>& goOn) {
  for (double next = now(); now() < next || goOn();) {
    if (now() >= next) next = now() + 0.1;
    loop.step(0.05);
  }
}

// Reads, turns the frame round, writes; waits for frames like the agent, with epoll.
void echo(const std::function<bool()>& goOn) {
  const int in = packetSocket("arpsnoop", 0x8135);
  const int out = packetSocket("fabric", 0);
  Orb::EventLoop loop;
  auto descriptor = Mox::make<Orb::FileDescriptor>(loop, "echo");
  descriptor->descriptorIs(in);
  descriptor->nonBlockingIs(true);
  Mox::Notifiee<Orb::FileDescriptor> readable(descriptor);
  static std::array<std::byte, 10000> buffer;
  readable.on(Orb::FileDescriptor::readableCountChanged, [&] {
    while (read(in, buffer.data(), buffer.size()) > 0) {
      std::array<std::byte, kReplySize> reply;
      std::memcpy(reply.data(), buffer.data() + 6, 6);
      std::memcpy(reply.data() + 6, buffer.data(), kReplySize - 6);
      if (send(out, reply.data(), reply.size(), 0) < 0 && errno != ENOBUFS) fail("echo");
    }
  });
  descriptor->notifyOnReadableIs(true);
  runWhile(loop, goOn);
  descriptor->descriptorIs(-1);
  close(in);
  close(out);
}

void print(const char* arrangement, std::uint32_t bindings, const Figures& agent, const Figures& bare) {
  std::printf("%-7s %9u  %9.0f  %9.0f  %5.0f%%   %6.1f %6.1f  %4.2fx   %6.1f %6.1f  %4.2fx   %llu\n",
              arrangement, bindings, agent.answersPerSecond, bare.answersPerSecond,
              100 * agent.answersPerSecond / bare.answersPerSecond, agent.p50, bare.p50, agent.p50 / bare.p50,
              agent.p99, bare.p99, agent.p99 / bare.p99,
              static_cast<unsigned long long>(agent.lost + bare.lost));
}

void run(std::uint32_t bindings) {
  const Orb::MonotonicClock clock;
  Rig rig(nullptr, &clock);
  Lanix::PacketSockets real;
  Lanix::Replaced<Lanix::PacketSockets> replaced(real);
  rig.device("default", "fabric", if_nametoindex("fabric"));
  rig.device("default", "arpsnoop", if_nametoindex("arpsnoop"));
  rig.device("default", "arpinject", if_nametoindex("arpinject"));
  makeVlans(rig, bindings);
  const auto remote = rig.table<RemoteBindingConfig>("arpSuppression/remoteBindingConfig/evpn");
  const auto fdb = rig.table<Memtab::Bridging::Status>("bridging/status");
  for (std::uint32_t i = 0; i < bindings; ++i) {
    const Target t = targetOf(i);
    remote->remoteBindingIs({Vlan(t.vlan), Lanix::IpAddr(t.address)}, {macOf(i), false});
    fdb->fdbIs({static_cast<Bridging::Fid>(t.vlan), macOf(i)},
               {Bridging::EntryType::evpnLearned, intf("core10")});
  }
  rig.start();
  rig.settle();
  for (const bool allIn : {true, false}) {
    steer("arpsnoop", allIn);
    const Figures agent =
        measure(bindings, [&](const std::function<bool()>& goOn) { runWhile(rig.eventLoop(), goOn); });
    rig.device("default", "arpsnoop", 0);  // the agent's sockets hear nothing while the bare responder runs
    rig.settle();
    const Figures bare = measure(bindings, echo);
    rig.device("default", "arpsnoop", if_nametoindex("arpsnoop"));
    rig.settle();
    print(allIn ? "all-in" : "split", bindings, agent, bare);
    std::fflush(stdout);
  }
}

}  // namespace
}  // namespace ArpSuppression

int main(int argc, char** argv) {
  using namespace ArpSuppression;
  if (unshare(CLONE_NEWNET | CLONE_NEWNS) < 0) fail("a network namespace of its own (are you root?)");
  if (mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) < 0 ||
      mount("sysfs", "/sys", "sysfs", 0, nullptr) < 0)
    fail("sysfs");
  for (const char* pair : {"arpsnoop type veth peer name snoop-p", "fabric type veth peer name fabric-p",
                           "arpinject type veth peer name inject-p"}) {
    command(std::string("ip link add ") + pair);
  }
  for (const char* device : {"arpsnoop", "snoop-p", "fabric", "fabric-p", "arpinject", "inject-p"}) {
    command(std::string("sysctl -qw net.ipv6.conf.") + device + ".disable_ipv6=1 2>/dev/null; ip link set " +
            device + " arp off up");
  }
  pinTo(0);
  std::printf(
      "wire to reply, %u outstanding, and one (targets: at least 85%% of the bare responder; p50 at most "
      "1.2x, p99 1.5x)\n\n"
      "        bindings  answers/s  bare (/s)          p50 us   bare         p99 us   bare         lost\n",
      kOutstanding);
  if (argc > 1) {
    run(static_cast<std::uint32_t>(std::atoi(argv[1])));
    return 0;
  }
  for (const std::uint32_t bindings : {1u, 1000000u}) run(bindings);
  return 0;
}
