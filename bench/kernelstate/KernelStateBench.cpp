// Import of the kernel's state: 100,000 neighbours of a VRF and 100,000 MAC table entries of a VLAN's bridge,
// in network namespaces of its own. Prints the CPU time (the kernel's share included) and the longest slice,
// and beside them what reading the same tables costs when nothing is done with them.
//
// Before that VLANs, 1, 1,000 and 4,000 of them, and 500 VRFs, without entries.
//
//   KernelStateBench [ENTRIES]

#include <linux/neighbour.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "Lanix/Namespaces.h"
#include "lab/LabKernel.h"
#include "linux/KernelState/AgentRig.h"

namespace {

using KernelState::AgentRig;
using KernelState::Table;

constexpr double kTargetCpu = 1;        // seconds
constexpr double kTargetSlice = 10e-3;  // seconds

double cpu() {
  timespec time{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

double residentMiB() {
  long pages = 0;
  long resident = 0;
  if (std::FILE* file = std::fopen("/proc/self/statm", "r")) {
    if (std::fscanf(file, "%ld %ld", &pages, &resident) != 2) resident = 0;
    std::fclose(file);
  }
  return static_cast<double>(resident) * static_cast<double>(sysconf(_SC_PAGESIZE)) / (1 << 20);
}

struct Cost {
  double cpu = 0;
  double turn = 0;  // the longest turn of the loop, in CPU time
};

template <class Done>
Cost runUntil(AgentRig& rig, Done done) {
  Cost cost;
  const double begin = cpu();
  while (!done()) {
    const double start = cpu();
    rig.loop().step(0.1);
    cost.turn = std::max(cost.turn, cpu() - start);
  }
  cost.cpu = cpu() - begin;
  return cost;
}

void print(const char* what, const Cost& cost) {
  std::printf(
      "%-44s %7.3f s CPU   longest turn %6.2f ms   %s\n", what, cost.cpu, cost.turn * 1e3,
      cost.cpu <= kTargetCpu && cost.turn <= kTargetSlice ? "within 1 s and 10 ms" : "ABOVE 1 s or 10 ms");
}

// Reads a table, and nothing else.
double readOnly(Table table, std::size_t& messages) {
  Netlink::Socket socket(NETLINK_ROUTE);
  const double begin = cpu();
  const auto dumped = socket.dump(
      Netlink::dumpRequest(table), [&](const Netlink::Received&) { ++messages; }, [&] { messages = 0; });
  if (!dumped) std::printf("reading %s: %s\n", Netlink::nameOf(table), dumped.error().c_str());
  return cpu() - begin;
}

std::string macOf(std::size_t i) {
  char text[18];
  std::snprintf(text, sizeof text, "02:00:%02x:%02x:%02x:%02x", static_cast<unsigned>(i >> 24 & 0xff),
                static_cast<unsigned>(i >> 16 & 0xff), static_cast<unsigned>(i >> 8 & 0xff),
                static_cast<unsigned>(i & 0xff));
  return text;
}

std::vector<Netlink::Message> neighbours(std::size_t count, std::size_t first = 0) {
  std::vector<Netlink::Message> messages;
  for (std::size_t i = first; i < first + count; ++i) {
    messages.push_back(KernelState::neighbourMessage(
        "vlan10", Lanix::IpAddr(static_cast<std::uint32_t>(0x0A000002 + i)).toStrep(), macOf(i),
        NUD_PERMANENT));
  }
  return messages;
}

// A switch's namespace, which the thread is in, and its shared memory.
struct Place {
  const Lab::Namespace leaf;
  const Lab::Entered entered{leaf};
  Lanix::Namespaces namespaces;
  const Lanix::Replaced<Lanix::Namespaces> replaced{namespaces};
  const KernelState::ScratchTables tables;
};

// So many VLANs, a bridge each: what coming up costs, being at rest, and one device that comes and goes.
void vlans(std::size_t count) {
  const Place place;
  AgentRig rig(Orb::EventLoop::realClock(), place.tables.directory());
  for (std::size_t i = 0; i < count; ++i) {
    const std::string bridge = "vlan" + std::to_string(i + 2);
    Lab::bridgeIs(bridge);
    rig.vlanIs(static_cast<std::uint16_t>(i + 2), bridge, {"core" + std::to_string(i + 2)});
  }
  rig.start();
  const auto interfaces = [&] { return rig.at<Ip::Status>("ip/status")->ipIntfStatuss(); };
  std::printf("%zu VLANs\n", count);
  print("  come up",
        runUntil(rig, [&] { return interfaces() == count && rig.agent()->rootSm()->reconciled(); }));
  while (rig.loop().step(0)) {
  }
  const double rest = cpu();
  for (int i = 0; i < 50; ++i) rig.loop().step(0.1);
  std::printf("%-44s %7.3f ms CPU in 5 s\n", "  at rest", (cpu() - rest) * 1e3);
  Lab::bridgeIs("vlan4094");
  print("  one more", runUntil(rig, [&] { return interfaces() == count + 1; }));
  Lab::linkDel("vlan4094");
  print("  one less", runUntil(rig, [&] { return interfaces() == count; }));
}

// So many VRFs, each with the interface of a VLAN.
void vrfs(std::size_t count) {
  rlimit files{};
  getrlimit(RLIMIT_NOFILE, &files);
  files.rlim_cur = files.rlim_max;
  setrlimit(RLIMIT_NOFILE, &files);
  const Place place;
  AgentRig rig(Orb::EventLoop::realClock(), place.tables.directory());
  std::vector<std::unique_ptr<Lab::Namespace>> all;
  for (std::size_t i = 0; i < count; ++i) {
    all.push_back(std::make_unique<Lab::Namespace>("vrf" + std::to_string(i)));
    const Lab::Entered there(*all.back());
    Lab::bridgeIs("vlan" + std::to_string(i + 2));
    rig.vrfIs("vrf" + std::to_string(i), static_cast<Vrf::VrfIdMap::VrfId>(i + 1), all.back()->name());
  }
  rig.start();
  std::printf("%zu VRFs\n", count);
  print("  come up", runUntil(rig, [&] {
          return rig.at<Ip::Status>("ip/status")->ipIntfStatuss() == count &&
                 rig.agent()->rootSm()->reconciled();
        }));
  const Lab::Namespace other("other");
  print("  another name", runUntil(rig, [&] { return !rig.loop().step(0); }));
}

}  // namespace

int main(int argc, char** argv) {
  const std::size_t entries = argc > 1 ? std::strtoul(argv[1], nullptr, 10) : 100000;
  // First, since the kernel has one neighbour table for all namespaces, and each dump goes through all of it.
  for (const std::size_t count : {1U, 1000U, 4000U}) vlans(count);
  vrfs(500);
  const std::string redName = "red-" + std::to_string(getpid());
  const Place place;
  const Lab::Namespace red("red");
  const Lab::Namespace host;
  Lab::bridgeIs("vlan10");
  Lab::vethIs("v10", "vlan10", red);
  Lab::portIs("v10", "vlan10");
  Lab::vethIs("Ethernet1", "eth0", host);
  Lab::portIs("Ethernet1", "vlan10");

  std::size_t readNeighbours = 0;
  std::size_t readMacs = 0;
  double bare = 0;
  {
    const Lab::Entered there(red);
    auto messages = neighbours(entries);
    std::printf("neighbours in the kernel: %zu\n", KernelState::requestAll(messages));
    bare += readOnly(Table::neighbours, readNeighbours);
  }
  {
    std::vector<Netlink::Message> messages;
    for (std::size_t i = 0; i < entries; ++i)
      messages.push_back(KernelState::macMessage("Ethernet1", macOf(i), NUD_REACHABLE));
    std::printf("MAC entries in the kernel: %zu\n", KernelState::requestAll(messages));
    bare += readOnly(Table::macs, readMacs);
  }
  std::printf("%-44s %7.3f s CPU   (%zu and %zu messages)\n", "reading both tables, nothing else", bare,
              readNeighbours, readMacs);

  const auto make = [&] {
    auto rig = std::make_unique<AgentRig>(Orb::EventLoop::realClock(), place.tables.directory());
    rig->vrfIs("red", 5, redName);
    rig->vlanIs(10, "vlan10");
    rig->at<ArpSuppression::Limits>(ArpSuppression::kLimitsPath)
        ->macTablePerPortIs(static_cast<std::uint32_t>(entries));
    rig->start();
    return rig;
  };
  const auto published = [](const AgentRig& rig, std::size_t neighbours, std::size_t macs) {
    return rig.agent()->rootSm() && rig.agent()->rootSm()->reconciled() &&
           rig.table<Arp::Table::Status>("arp/status")->arpEntrys() == neighbours &&
           rig.table<Memtab::Bridging::Status>("bridging/status")->fdbs() == macs;
  };
  const double before = residentMiB();
  auto rig = make();
  print("import", runUntil(*rig, [&] { return published(*rig, entries, entries); }));
  std::printf("%-44s %7.0f bytes an entry\n", "resident memory, shared tables included",
              (residentMiB() - before) * (1 << 20) / static_cast<double>(2 * entries));
  std::fputs(rig->taskSchedulerRoot()->debugText().c_str(), stdout);
  rig = nullptr;
  rig = make();
  print("import over the tables of an earlier run",
        runUntil(*rig, [&] { return published(*rig, entries, entries); }));

  // As they happen, in the steps of a busy switch.
  Cost live;
  {
    constexpr std::size_t kStep = 1000;
    std::size_t added = 0;
    while (added < entries) {
      {
        const Lab::Entered there(red);
        auto messages = neighbours(kStep, entries + added);
        KernelState::requestAll(messages);
      }
      added += kStep;
      const Cost cost = runUntil(*rig, [&] { return published(*rig, entries + added, entries); });
      live.cpu += cost.cpu;
      live.turn = std::max(live.turn, cost.turn);
    }
  }
  print("as many neighbours again, by notification", live);
  return 0;
}
