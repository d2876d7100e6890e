// 100,000 configured neighbours into the kernel: installed, found again by the next run, and removed, in a
// network namespace of its own; then 1,000 VLANs with an entry each. Prints CPU time (the kernel's share
// included), wall time and the longest turn of the loop, and beside them what the same requests cost in bare
// batches.
//
//   ArpServiceBench [ENTRIES]

#include <linux/neighbour.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "Lanix/Namespaces.h"
#include "linux/ArpService/ServiceRig.h"

namespace {

using ArpService::ServiceRig;

constexpr double kTargetTurn = 10e-3;  // seconds

double seconds(clockid_t clock) {
  timespec time{};
  clock_gettime(clock, &time);
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

Lanix::IpAddr address(std::size_t i) { return Lanix::IpAddr(static_cast<std::uint32_t>(0x0A000002 + i)); }

Arp::ArpEntryInput entry(std::size_t i) {
  return {Lanix::EthAddr({2, 0, 0, static_cast<std::uint8_t>(i >> 16), static_cast<std::uint8_t>(i >> 8),
                          static_cast<std::uint8_t>(i)}),
          Lanix::IntfId::fromName("vlan10"), 0, false};
}

// Until nothing is left to do.
void measure(const char* what, ServiceRig& rig) {
  double longest = 0;
  const double wall = seconds(CLOCK_MONOTONIC);
  const double cpu = seconds(CLOCK_THREAD_CPUTIME_ID);
  for (bool worked = true; worked;) {
    const double start = seconds(CLOCK_THREAD_CPUTIME_ID);
    worked = rig.loop.step(0);
    longest = std::max(longest, seconds(CLOCK_THREAD_CPUTIME_ID) - start);
  }
  std::printf("%-40s %7.3f s CPU  %7.3f s wall  longest turn %6.2f ms  %s\n", what,
              seconds(CLOCK_THREAD_CPUTIME_ID) - cpu, seconds(CLOCK_MONOTONIC) - wall, longest * 1e3,
              longest <= kTargetTurn ? "within 10 ms" : "ABOVE 10 ms");
}

// The least that can be done: one request an entry, in the socket's batches.
void bare(std::size_t entries) {
  const auto index = Lab::ifIndex("vlan10");
  Netlink::Socket socket(NETLINK_ROUTE);
  for (const bool install : {true, false}) {
    std::vector<Netlink::Message> messages;
    for (std::size_t i = 0; i < entries; ++i) {
      const ArpService::Wish wish{ArpService::Wish::Kind::permanent, entry(i).mac};
      messages.push_back(install ? ArpService::writeRequest(index, address(i), wish, NLM_F_EXCL)
                                 : ArpService::removeRequest(index, address(i)));
    }
    std::size_t refused = 0;
    const double cpu = seconds(CLOCK_THREAD_CPUTIME_ID);
    socket.batch(messages, [&](std::size_t, const Mox::Result<>& result) { refused += result ? 0 : 1; });
    std::printf("%-40s %7.3f s CPU  (%zu refused)\n",
                install ? "bare batches: install" : "bare batches: remove",
                seconds(CLOCK_THREAD_CPUTIME_ID) - cpu, refused);
  }
}

// So many VLANs with an entry each: coming up, and one device more.
void vlans(std::size_t count) {
  const Lab::Namespace leaf;
  const Lab::Entered entered(leaf);
  ServiceRig rig;
  rig.vrfIs("default", "default");
  const auto config = rig.input->vrfIs("default");
  for (std::size_t i = 0; i <= count; ++i) {
    Arp::ArpEntryInput wanted = entry(i);
    wanted.intf = Lanix::IntfId::fromName("vlan" + std::to_string(i + 2));
    config->ipv4Is(address(i), wanted);
    if (i != count) Lab::bridgeIs(wanted.intf.kernelName());
  }
  std::printf("%zu VLANs\n", count);
  rig.start();
  measure("come up", rig);
  Lab::bridgeIs("vlan" + std::to_string(count + 2));
  measure("one more", rig);
  rig.clock.ahead += 1;
  measure("and a second later", rig);
}

}  // namespace

int main(int argc, char** argv) {
  const std::size_t entries = argc > 1 ? std::strtoul(argv[1], nullptr, 10) : 100000;
  const Lab::Namespace leaf;
  const Lab::Entered entered(leaf);
  Lanix::Namespaces namespaces;
  const Lanix::Replaced<Lanix::Namespaces> replaced(namespaces);
  Lab::bridgeIs("vlan10");
  std::printf("%zu permanent neighbours\n", entries);
  bare(entries);

  ServiceRig rig;
  rig.vrfIs("default", "default");
  const auto config = rig.input->vrfIs("default");
  for (std::size_t i = 0; i < entries; ++i) config->ipv4Is(address(i), entry(i));
  rig.start();
  measure("ArpService: install what is configured", rig);
  if (rig.status->vrf("default")->programmed() != entries) std::printf("NOT ALL ARE INSTALLED\n");
  rig.root = nullptr;
  rig.start();
  measure("ArpService: find it again at start", rig);
  rig.clock.ahead += 3600;  // whenever it is due
  measure("ArpService: one round", rig);
  rig.vrfIs("default", "default", Ip::VrfState::inactive);
  measure("ArpService: VRF inactive", rig);
  rig.vrfIs("default", "default");
  measure("ArpService: VRF active again", rig);
  rig.input->vrfDelAll();
  measure("ArpService: remove", rig);
  vlans(1000);
  return 0;
}
