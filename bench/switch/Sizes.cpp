#include "Sizes.h"

#include <linux/neighbour.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <stdexcept>
#include <thread>

#include "lab/LabKernel.h"
#include "lab/ManyVlans.h"

namespace Bench {
namespace {

constexpr std::uint32_t kFirst =
    0x0A000100;                  // 10.0.1.0: the first of the hosts and neighbours, below 10.0.0.1/8
constexpr unsigned kBurst = 50;  // frames of hosts that speak at a time
constexpr auto kBetween = std::chrono::milliseconds(5);

Lab::Ip ipOf(unsigned i) {
  const std::uint32_t ip = kFirst + i;
  return {static_cast<std::uint8_t>(ip >> 24), static_cast<std::uint8_t>(ip >> 16),
          static_cast<std::uint8_t>(ip >> 8), static_cast<std::uint8_t>(ip)};
}
Lab::Mac macOf(unsigned i) {
  return {0x02,
          0,
          1,
          static_cast<std::uint8_t>(i >> 16),
          static_cast<std::uint8_t>(i >> 8),
          static_cast<std::uint8_t>(i)};
}
std::string text(const Lab::Ip& ip) {
  return std::to_string(ip[0]) + "." + std::to_string(ip[1]) + "." + std::to_string(ip[2]) + "." +
         std::to_string(ip[3]);
}
std::string text(const Lab::Mac& mac) {
  char text[18];
  std::snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2], mac[3], mac[4],
                mac[5]);
  return text;
}

std::size_t count(const std::string& text, const std::string& what) {
  std::size_t found = 0;
  for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++found;
  return found;
}
// The number behind `"key":` in what arpsup says.
unsigned long numberOf(const std::string& text, const std::string& key) {
  const std::size_t at = text.find("\"" + key + "\":");
  return at == std::string::npos ? 0 : std::strtoul(text.c_str() + at + key.size() + 3, nullptr, 10);
}

std::function<bool(const Daemon&)> vlansAreReady(unsigned vlans) {
  return [vlans](const Daemon& daemon) {
    return count(daemon.asked({"--json", "show", "switch/forwarding"}), "\"ready\":true") == vlans;
  };
}

void batch(const std::string& lines) {
  char name[] = "/tmp/switch-bench-XXXXXX";
  const int fd = mkstemp(name);
  if (fd < 0) throw std::runtime_error("no file for devices");
  close(fd);
  std::ofstream(name) << lines;
  try {
    Lab::run("ip -batch " + std::string(name));
  } catch (...) {
    unlink(name);
    throw;
  }
  unlink(name);
}

// One more access port of VLAN 1, or of its bridge.
void portComes(Size& size, const std::string& bridge, const Lab::Namespace& outside) {
  size.change = [bridge, &outside](const Daemon&) {
    Lab::vethIs("another", "f-another", outside);
    Lab::portIs("another", bridge);
  };
  size.changed = [](const Daemon& daemon) {
    return daemon.asked({"--json", "show", "switch/forwarding"}).find("\"another\"") != std::string::npos;
  };
}

Size vlans(unsigned count, const Lab::Namespace& outside) {
  const auto network = std::make_shared<Lab::ManyVlans>(count, outside);
  Size size{network->configuration(), network, vlansAreReady(count), {}, {}, {}, {}};
  portComes(size, "vlan1", outside);
  return size;
}

// VLAN 1, with an address, and these members besides.
Size oneVlan(const std::string& members, const Lab::Namespace& outside) {
  Size size = vlans(1, outside);
  KernelState::addressIs("vlan1", "10.0.0.1/8");
  size.members += members;
  return size;
}

Size ports(unsigned count, const Lab::Namespace& outside) {
  Size size = oneVlan("", outside);
  Lab::run("ip link set vlan1 address 02:00:00:00:00:01");
  std::string links, far;
  for (unsigned i = 2; i <= count; ++i) {
    const std::string port = "Access" + std::to_string(i);
    links += "link add " + port + " up group 2 master vlan1 type veth peer name f-" + port + " netns /proc/" +
             std::to_string(getpid()) + "/fd/" + std::to_string(outside.fd()) + "\n";
    far += "link set f-" + port + " up\n";
  }
  batch(links);
  const Lab::Entered entered(outside);
  batch(far);
  return size;
}

// Each VLAN's interface in a namespace of its own.
Size vrfs(unsigned count, const Lab::Namespace& outside) {
  struct Network {
    Network(unsigned count, const Lab::Namespace& outside) : vlans(count, outside) {}
    Lab::ManyVlans vlans;
    std::vector<std::unique_ptr<Lab::Namespace>> namespaces;
  };
  const auto network = std::make_shared<Network>(count, outside);
  std::string vrfs, vlans, tags, links;
  for (unsigned i = 1; i <= count; ++i) {
    const std::string n = std::to_string(i);
    network->namespaces.push_back(std::make_unique<Lab::Namespace>("vrf" + n));
    const std::string name = network->namespaces.back()->name();
    // ManyVlans names the bridge as the interface is to be named.
    links += "link set vlan" + n + " name br" + n + "\nlink add to-vlan" + n + " up group 2 master br" + n +
             " type veth peer name vlan" + n + " netns " + name + "\n";
    const std::string comma = i == 1 ? "" : ",";
    vrfs += comma + "\"v" + n + "\":{\"id\":" + n + ",\"networkNamespace\":\"" + name + "\"}";
    vlans += comma + "\"" + n + "\":{\"bridge\":\"br" + n + "\",\"tunnelPorts\":[\"core" + n + "\"]}";
    tags += comma + "\"" + n + "\":" + n;
  }
  batch(links);
  for (unsigned i = 0; i < count; ++i) {
    const Lab::Entered entered(*network->namespaces[i]);
    const std::string device = "vlan" + std::to_string(i + 1);
    Lab::upIs(device);
    KernelState::addressIs(device, "10.0.0.1/8");
  }
  Size size{"\"vrfs\":{" + vrfs + "},\"vlans\":{" + vlans +
                "},\"state\":{\"evpn/status\":{\"mplsConfigured\":true,\"vlanToDot1q\":{" + tags + "}}}",
            network,
            vlansAreReady(count),
            {},
            {},
            {},
            {}};
  portComes(size, "br1", outside);
  return size;
}

void hostsSpeak(const Lab::Namespace& outside, unsigned first, unsigned end) {
  const Lab::Entered entered(outside);
  Lab::PacketSocket port("f-Ethernet1", 0x88B5);  // it receives nothing
  for (unsigned i = first; i < end; ++i) {
    port.send(Lab::arpFrame({1, macOf(i), ipOf(i), {}, ipOf(i)}));
    if (i % kBurst == 0) std::this_thread::sleep_for(kBetween);
  }
}

Size hosts(unsigned count, const Lab::Namespace& outside) {
  Size size = oneVlan(
      R"(,"limits":{"localBindingsPerPort":1000000,"localBindings":1000000,"macTablePerPort":1000000},
          "softForward":{"policer":{"perSecond":1000000,"burst":1000000}})",
      outside);
  const auto known = [](unsigned wanted) {
    return [wanted](const Daemon& daemon) {
      return numberOf(daemon.asked({"--json", "status"}), "localBindings") >= wanted;
    };
  };
  size.fill = [count, &outside](const Daemon&) { hostsSpeak(outside, 0, count); };
  size.full = known(count);
  size.change = [count, &outside](const Daemon&) { hostsSpeak(outside, count, count + 1); };
  size.changed = [count](const Daemon& daemon) {
    return daemon.asked({"--json", "find", text(ipOf(count))}).find("\"local\"") != std::string::npos;
  };
  return size;
}

Size neighbours(unsigned count, const Lab::Namespace& outside) {
  Size size = oneVlan("", outside);
  const auto add = [](unsigned first, unsigned end) {
    std::vector<Netlink::Message> messages;
    for (unsigned i = first; i < end; ++i)
      messages.push_back(
          KernelState::neighbourMessage("vlan1", text(ipOf(i)), text(macOf(i)), NUD_PERMANENT));
    if (KernelState::requestAll(messages) != messages.size())
      throw std::runtime_error("the kernel refuses neighbours");
  };
  const auto knows = [](unsigned i) {
    return [i](const Daemon& daemon) {
      return daemon.asked({"--json", "find", text(ipOf(i))}).find("kernel") != std::string::npos;
    };
  };
  add(0, count);
  size.ready = [ready = size.ready, known = knows(count - 1)](const Daemon& daemon) {
    return ready(daemon) && known(daemon);
  };
  size.change = [add, count](const Daemon&) { add(count, count + 1); };
  size.changed = knows(count);
  return size;
}

Size bindings(unsigned count, const Lab::Namespace& outside) {
  Size size = oneVlan("", outside);
  const auto held = [](unsigned wanted) {
    return [wanted](const Daemon& daemon) {
      return numberOf(daemon.asked({"--json", "forwarding"}), "held") >= wanted;
    };
  };
  size.fill = [count](const Daemon& daemon) {
    const std::string file = "/tmp/switch-bench-bindings-" + std::to_string(getpid());
    std::ofstream csv(file);
    for (unsigned i = 0; i < count; ++i) csv << "1," << text(ipOf(i)) << "," << text(macOf(i)) << "\n";
    csv.close();
    daemon.asked({"remote", "load", file});
    unlink(file.c_str());
  };
  size.full = held(count);
  size.change = [count](const Daemon& daemon) {
    daemon.asked({"remote", "add", "1", text(ipOf(count)), text(macOf(count))});
  };
  size.changed = held(count + 1);
  return size;
}

}  // namespace

Size makeSize(const std::string& what, unsigned count, const Lab::Namespace& outside) {
  constexpr std::pair<const char*, Size (*)(unsigned, const Lab::Namespace&)> kKinds[] = {
      {"vlans", vlans}, {"ports", ports},           {"vrfs", vrfs},
      {"hosts", hosts}, {"neighbours", neighbours}, {"bindings", bindings}};
  for (const auto& [name, make] : kKinds)
    if (what == name) return make(count, outside);
  throw std::runtime_error(what +
                           ": no such size; known are vlans, ports, vrfs, hosts, neighbours and bindings");
}

}  // namespace Bench
