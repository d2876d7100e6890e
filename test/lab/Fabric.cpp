#include "lab/Fabric.h"

#include <linux/rtnetlink.h>
#include <poll.h>

#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>

namespace Lab {
namespace {

constexpr std::uint16_t kPlainType = 0x88B5;  // for local experiments (IEEE 802)
constexpr int kVlans[] = {10, 20};

std::string numbered(const char* kind, int vlan) { return kind + std::to_string(vlan); }

bool isArp(const Frame& frame) { return frame[12] == std::byte{8} && frame[13] == std::byte{6}; }

}  // namespace

bool eventually(const std::function<bool()>& isSo) {
  const auto deadline = Clock::now() + kDaemonPatience;
  while (!isSo()) {
    if (Clock::now() > deadline) return false;
    poll(nullptr, 0, 5);  // the processor is for others
  }
  return true;
}

std::string textOf(const Mac& mac) {
  char text[18];
  std::snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2], mac[3], mac[4],
                mac[5]);
  return text;
}

std::string textOf(const Ip& ip) {
  std::string text;
  for (const std::uint8_t byte : ip) text += (text.empty() ? "" : ".") + std::to_string(byte);
  return text;
}

Frame request(const Station& from, const Station& to) { return arpFrame({1, from.mac, from.ip, {}, to.ip}); }
Frame gratuitous(const Station& station) { return request(station, station); }
Frame reply(const Station& from, const Station& to) {
  return arpFrame({2, from.mac, from.ip, to.mac, to.ip}, to.mac);
}

// --- A leaf ----------------------------------------------------------------------------------------------

Leaf::Leaf(int number, const FabricLayout& layout)
    : number_(number),
      layout_(layout),
      folder_(switch_.runDirectory() + "-frr"),
      config_{{"agents", {"KernelState", "KernelEvpn", "ArpService", "SoftForward", "ArpSuppression"}},
              {"evpn", {{"feed", "kernel"}}},
              {"neighborRefreshSeconds", 86400}} {
  std::filesystem::create_directories(folder_);
}

Leaf::~Leaf() {
  daemons_.clear();
  std::error_code ignored;
  std::filesystem::remove_all(folder_, ignored);
}

std::string Leaf::lacking() {
  Process frr({FRR_RUN, "zebra", "--version"});
  return frr.wait() == 0 ? "" : frr.error;
}

void Leaf::networkIs() {
  const Entered entered(where());
  const std::string own = "192.0.2." + std::to_string(number_);
  const std::string address = " address 02:00:00:00:01:0" + std::to_string(number_);
  Lab::run("ip link set lo up");
  KernelState::addressIs("underlay", own + "/29");
  if (layout_.filtering)
    Lab::run("ip link add br0" + address + " up type bridge vlan_filtering 1 mcast_snooping 0");
  for (const int vlan : kVlans) {
    const std::string number = std::to_string(vlan), device = "vlan" + number, tunnel = "vxlan" + number;
    if (layout_.filtering) {
      Lab::run("bridge vlan add vid " + number + " dev br0 self");
      Lab::run("ip link add link br0 name " + device + " up type vlan id " + number);
    } else {
      bridgeIs(device);
      Lab::run("ip link set " + device + address);
    }
    KernelState::addressIs(device, "10.0." + number + "." + std::to_string(number_) + "/24");
    // Hosts that are packet sockets do not answer when they are asked whether they are still there.
    neighbourSettingIs(device, "gc_stale_time", 86400);
    std::ofstream("/proc/sys/net/ipv6/conf/" + device + "/disable_ipv6") << 0;
    Lab::run("ip link add " + tunnel + " type vxlan id " + number + " local " + own +
             " dstport 4789 nolearning");
    memberIs(tunnel, vlan);
    Lab::run("ip link set " + tunnel + " up");
    Lab::run("bridge link set dev " + tunnel + " learning off");
    config_["vlans"][number] = {{"bridge", layout_.filtering ? "br0" : device}, {"tunnelPorts", {tunnel}}};
  }
}

void Leaf::memberIs(const std::string& device, int vlan) const {
  Lab::portIs(device, layout_.filtering ? "br0" : numbered("vlan", vlan));
  if (!layout_.filtering) return;
  Lab::run("bridge vlan del vid 1 dev " + device);
  Lab::run("bridge vlan add vid " + std::to_string(vlan) + " dev " + device + " pvid untagged");
}

void Leaf::routingIs(const std::string& program) {
  const bool isZebra = program == "zebra";
  const std::string base = folder_ + "/" + program, api = folder_ + "/zserv.api";
  std::ofstream(base + ".conf") << (isZebra ? "" : bgp());
  const Entered entered(where());
  daemons_[program] =
      std::make_unique<Process>(Strings{FRR_RUN, program, "-u", "root", "-g", "root", "-i", base + ".pid",
                                        "-z", api, "--vty_socket", folder_, "-f", base + ".conf", "-P", "0"});
  if (isZebra)
    eventually([&] {
      return std::filesystem::exists(api) || !daemons_[program]->read(std::chrono::milliseconds(20));
    });
}

void Leaf::routingDel(const std::string& program) {
  daemons_.at(program)->signal(SIGKILL);
  daemons_.at(program)->wait();
  if (program == "zebra") std::filesystem::remove(folder_ + "/zserv.api");
}

// All others of the underlay are peers; a session that is lost is noticed in 3 s.
std::string Leaf::bgp() const {
  const std::string peer = " neighbor 192.0.2." + std::to_string(3 - number_) + " ";
  return "router bgp 65000\n bgp router-id 192.0.2." + std::to_string(number_) +
         "\n no bgp default ipv4-unicast\n" + peer + "remote-as 65000\n" + peer + "timers 1 3\n" + peer +
         "timers connect 1\n" + peer + "advertisement-interval 0\n address-family l2vpn evpn\n " + peer +
         "activate\n  advertise-all-vni\n exit-address-family\n";
}

void Leaf::serves() {
  const json vlans = {{"activeVlans", kVlans}};
  ASSERT_EQ(switch_.status(vlans), vlans) << switch_.daemon().error;
  for (const int vlan : kVlans) {
    const std::string ready = "/vlan/" + std::to_string(vlan) + "/ready";
    ASSERT_EQ(switch_.state("switch/forwarding", ready.c_str(), true), json(true));
  }
}

std::string Leaf::portIs(int vlan, const std::string& name, const Namespace& outside) {
  const Entered entered(where());
  const std::string far = "far-" + name + "-" + std::to_string(number_);
  vethIs(name, far, outside);
  memberIs(name, vlan);
  return far;
}

PacketSocket Leaf::port(int vlan, const std::string& name, const Namespace& outside) {
  const std::string far = portIs(vlan, name, outside);
  const Entered entered(outside);
  return PacketSocket(far);
}

std::string Leaf::run(const std::string& command) const {
  const Entered entered(where());
  return Lab::run(command);
}

void Leaf::neighbourSettingIs(const std::string& interface, const std::string& name, int value) const {
  const Entered entered(where());
  std::ofstream("/proc/sys/net/ipv4/neigh/" + interface + "/" + name) << value;
}

Strings Leaf::bindings(const std::string& kind, int vlan) const {
  Strings texts;
  for (const json& binding : switch_.shown({"bindings", kind}))
    if (binding.at("vlan") == vlan)
      texts.push_back(binding.at("ip").get<std::string>() + " " + binding.at("mac").get<std::string>());
  std::ranges::sort(texts);
  return texts;
}

Strings Leaf::routes(int vlan) const {
  Strings texts;
  for (const char* family : {"-4", "-6"}) {
    std::istringstream lines(run(std::string("ip ") + family + " neigh show dev " + numbered("vlan", vlan) +
                                 " nud noarp proto zebra"));
    for (std::string line; std::getline(lines, line);) {
      std::istringstream words(line);
      std::string ip, lladdr, mac;
      words >> ip >> lladdr >> mac;
      texts.push_back(ip + " " + mac);
    }
  }
  std::ranges::sort(texts);
  return texts;
}

bool Leaf::knows(const Station& station, int vlan) const {
  return std::ranges::count(bindings("remote", vlan), textOf(station.ip) + " " + textOf(station.mac)) != 0;
}

std::string Leaf::all() {
  std::string text = run("ip neigh show dev vlan10") + run("bridge fdb show dev vxlan10");
  for (const Strings& shown : {Strings{"health"}, {"bindings"}, {"counters", "--nonzero"}})
    text += switch_.arpsup(shown).output;
  for (const auto& [name, process] : daemons_) {
    process->read(std::chrono::milliseconds(0));
    text += name + ": " + process->output + process->error;
  }
  return text;
}

Monitor::Monitor(const Leaf& leaf)
    : socket_([&] {
        const Entered entered(leaf.where());
        return Netlink::Socket(NETLINK_ROUTE, {.receiveBuffer = 256 << 20});
      }()) {
  EXPECT_TRUE(socket_.join(RTNLGRP_NEIGH));
}

const std::vector<std::pair<bool, Netlink::Neighbour>>& Monitor::heard() {
  Netlink::Notifications notifications;
  do {
    notifications = socket_.receive([&](const Netlink::Received& message) {
      const auto neighbour = Netlink::readNeighbour(message);
      if (neighbour && !neighbour->isMacEntry())
        heard_.emplace_back(message.type() == RTM_DELNEIGH, *neighbour);
    });
    EXPECT_FALSE(notifications.overrun);
  } while (notifications.more);
  return heard_;
}

// --- Two of them -----------------------------------------------------------------------------------------

void FabricTest::SetUp() {
  if (const std::string lacking = Leaf::lacking(); !lacking.empty()) GTEST_SKIP() << lacking;
  pinToOneCpu();
  {
    const Entered entered(one.where());
    vethIs("underlay", "underlay", two.where());
  }
  try {
    for (Leaf* leaf : {&one, &two}) leaf->networkIs();
  } catch (const Unsupported& lacking) {
    GTEST_SKIP() << lacking.what();
  }
  for (Leaf* leaf : {&one, &two}) {
    for (const char* program : {"zebra", "bgpd"}) leaf->routingIs(program);
    leaf->start();
  }
  const auto sideOf = [&](Leaf& leaf, const Station& station) {
    leaf.serves();
    const Entered entered(leaf.where());
    return Side{station, leaf.port(10, "Ethernet1", outside), leaf.port(10, "Ethernet2", outside),
                PacketSocket::sentOn("vxlan10")};
  };
  here.emplace(sideOf(one, kHost1));
  there.emplace(sideOf(two, kHost2));
}

void FabricTest::TearDown() {
  if (HasFailure()) std::cerr << "leaf 1:\n" << one.all() << "leaf 2:\n" << two.all();
}

void FabricTest::untilKnown(Leaf& leaf, const Station& station, const std::function<void()>& says, int vlan) {
  EXPECT_TRUE(eventually([&] {
    says();
    return leaf.knows(station, vlan);
  })) << textOf(station.ip);
}

void FabricTest::hostsAreKnown() {
  untilKnown(two, kHost1, [&] { here->host.send(request(kHost1, kHost2)); });
  untilKnown(one, kHost2, [&] { there->host.send(gratuitous(kHost2)); });
}

bool FabricTest::arrives(PacketSocket& from, const Station& sender, PacketSocket& to,
                         const Station& receiver) {
  static std::uint8_t fill = 0;
  const Frame frame = plainFrame(sender.mac, receiver.mac, kPlainType, ++fill);
  return eventually([&] {
    from.send(frame);
    while (const auto heard = to.receive(std::chrono::milliseconds(100)))
      if (*heard == frame) return true;
    return false;
  });
}

std::string FabricTest::gets(Side& side, const Station& other) {
  for (PacketSocket* earlier : {&side.host, &side.overlay})
    while (earlier->receive(std::chrono::milliseconds(0))) {
    }
  const Frame asked = request(side.station, other);
  side.host.send(asked);
  // Behind all that follows from it: a round trip through the agent, and then one from port to port.
  sentinel = sentinel < 250 ? static_cast<std::uint8_t>(sentinel + 1) : std::uint8_t{100};
  const Frame last = request(side.station, {{}, {10, 0, 10, sentinel}});
  side.host.send(last);
  const std::chrono::milliseconds patience = kPatience / 20;
  const auto left = side.overlay.receiveUntil(last, patience);
  Mac neighbour = side.station.mac;
  neighbour[3] = 1;
  const Frame echo = plainFrame(neighbour, kBroadcast, kPlainType, sentinel);
  side.spare.send(echo);
  const auto came = side.host.receiveUntil(echo, patience);
  if (!left || !came) return "nothing";
  // What the leaf itself asks is none of the host's.
  Strings heard, flooded;
  const std::string own = hex(asked).substr(12, 12);
  for (const Frame& frame : *left)
    if (isArp(frame) && hex(frame).substr(12, 12) == own) flooded.push_back(hex(frame));
  for (const Frame& frame : *came)
    if (isArp(frame) && frame[21] == std::byte{2}) heard.push_back(hex(frame));
  if (heard == Strings{hex(reply(other, side.station))} && flooded.empty()) return "answered";
  if (heard.empty() && flooded == Strings{hex(asked)}) return "flooded";
  return "host: " + testing::PrintToString(heard) + ", overlay: " + testing::PrintToString(flooded);
}

}  // namespace Lab
