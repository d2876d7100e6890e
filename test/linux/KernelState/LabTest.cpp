#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/neighbour.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "AgentRig.h"
#include "Lanix/Namespaces.h"
#include "Netlink/KernelAccess.h"
#include "lab/LabKernel.h"

// The plug-in on a real kernel: a switch in a namespace of its own, a VRF in another.

namespace KernelState {
namespace {

// Messages that the kernel could not deliver to netlink sockets of the namespace that the thread is in.
std::uint64_t lostNotifications() {
  std::ifstream sockets("/proc/thread-self/net/netlink");
  std::string line, word;
  std::uint64_t lost = 0;
  std::getline(sockets, line);
  while (std::getline(sockets, line)) {
    std::istringstream words(line);  // sk Eth Pid Groups Rmem Wmem Dump Locks Drops Inode
    for (int i = 0; i < 9; ++i) words >> word;
    lost += std::stoull(word);
  }
  return lost;
}

class LabTest : public testing::Test {
 protected:
  LabTest() { startRig(); }

  void startRig() {
    rig = std::make_unique<AgentRig>(Orb::EventLoop::realClock(), tables.directory());
    rig->vrfIs("red", 5, redName);
    rig->vlanIs(10, "vlan10", {"core10"});
    rig->start();
  }
  // Runs the loop until it holds.
  testing::AssertionResult becomes(const std::function<bool()>& condition) {
    const auto deadline = std::chrono::steady_clock::now() + Lab::kPatience;
    while (!condition()) {
      if (std::chrono::steady_clock::now() > deadline) return testing::AssertionFailure() << "it does not";
      rig->loop().step(0.02);
    }
    return testing::AssertionSuccess();
  }
  template <class Expected, class Read>
  void expect(const char* what, const Expected& expected, Read read) {
    SCOPED_TRACE(what);
    ASSERT_TRUE(becomes([&] { return rig->agent()->rootSm() != nullptr; }));
    becomes([&] { return read() == expected; });
    EXPECT_EQ(read(), expected);
  }
  void expectVrf(const char* what, const std::string& state) {
    const std::vector<std::string> expected{"default active default", "red " + state + " " + redName};
    expect(what, expected, [&] { return rig->vrfs(); });
  }
  void expectIp(const char* what, const std::string& expected) {
    expect(what, expected, [&] { return rig->ip("Vlan10"); });
  }
  void expectNeighbours(const char* what, const std::vector<std::string>& expected) {
    expect(what, expected, [&] { return rig->neighbours(); });
  }
  void expectMac(const char* what, const std::string& mac, const std::string& expected) {
    expect(what, expected, [&] { return macEntry(mac); });
  }
  std::string macEntry(const std::string& mac) const {
    for (const std::string& line : rig->macs()) {
      if (line.starts_with("10 " + mac + " ")) return line.substr(mac.size() + 4);
    }
    return "";
  }
  // Red's namespace with its end of VLAN 10.
  void redComes(bool withDevice = true) {
    red = std::make_unique<Lab::Namespace>("red");
    ASSERT_EQ(red->name(), redName);
    if (withDevice) deviceComes();
  }
  void deviceComes() {
    if (Lab::ifIndex("vlan10") == 0) Lab::bridgeIs("vlan10");
    Lab::vethIs("v10", "vlan10", *red);
    Lab::portIs("v10", "vlan10");
  }
  void inRed(const std::function<void()>& call) {
    const Lab::Entered entered(*red);
    call();
  }

  const std::string redName = "red-" + std::to_string(getpid());
  Lab::Namespace leaf;
  Lab::Entered entered{leaf};
  Lanix::Namespaces namespaces;  // whose home is where this thread is now
  Lanix::Replaced<Lanix::Namespaces> replaced{namespaces};
  ScratchTables tables;
  std::unique_ptr<Lab::Namespace> red;
  std::unique_ptr<AgentRig> rig;
};

TEST_F(LabTest, NamespacesComeAndGo) {
  redComes();
  inRed([] {
    addressIs("vlan10", "10.0.0.1/24"), addressIs("vlan10", "10.0.0.2/24"),
        addressIs("vlan10", "10.0.1.1/24");
  });
  expectIp("with addresses", "red 10.0.0.1/24 10.0.1.1/24 10.0.0.2/24");
  inRed([] { addressDel("vlan10", "10.0.0.1/24"); });  // takes the secondary one along
  expectIp("less addresses", "red 10.0.1.1/24");

  // Replaced before anybody looked.
  red = nullptr;
  redComes(false);
  expectIp("replaced, and the bridge is left", "default ");
  expectVrf("replaced", "active");

  const std::string mount = "/run/netns/" + redName;
  ASSERT_EQ(umount2(mount.c_str(), MNT_DETACH), 0);
  expectVrf("name left without its namespace", "inactive");
  const std::string source = "/proc/self/fd/" + std::to_string(red->fd());
  ASSERT_EQ(::mount(source.c_str(), mount.c_str(), nullptr, MS_BIND, nullptr), 0);
  expectVrf("namespace back behind its name", "active");

  using Files = std::filesystem::directory_iterator;
  const auto open = [] { return std::distance(Files("/proc/self/fd"), Files()); };
  const auto before = open();
  for (int i = 0; i < 3; ++i) {
    EXPECT_TRUE(Netlink::KernelAccess::current().look(redName));
    EXPECT_TRUE(Netlink::KernelAccess::current().open(redName, {Netlink::Table::links}));
  }
  EXPECT_EQ(open(), before) << "descriptors";
}

// No more files can be opened for as long as it lives.
class Exhausted {
 public:
  Exhausted() {
    getrlimit(RLIMIT_NOFILE, &before_);
    const rlimit none{0, before_.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
  }
  ~Exhausted() { setrlimit(RLIMIT_NOFILE, &before_); }
  Exhausted(const Exhausted&) = delete;
  Exhausted& operator=(const Exhausted&) = delete;

 private:
  rlimit before_{};
};

TEST_F(LabTest, DescriptorsExhausted) {
  redComes();
  expectVrf("there", "active");
  const auto problems = rig->at<Switch::Problems>(Switch::kProblemsPath);
  {
    const Lab::Namespace other("other");  // a reason to look at every name
    const Exhausted exhausted;
    EXPECT_TRUE(
        becomes([&] { return problems->problem("KernelState network namespace " + redName) != nullptr; }));
    expectVrf("refused is not gone", "active");
    expectIp("nor are its devices", "red ");
  }
  EXPECT_TRUE(becomes([&] { return problems->problems() == 0; }));
  expectVrf("and can be looked at again", "active");
  red = nullptr;
  expectVrf("now it has gone", "inactive");
}

TEST_F(LabTest, NeighboursAndMacs) {
  redComes();
  Lab::Namespace host;
  Lab::Namespace core;
  Lab::vethIs("Ethernet1", "eth0", host);
  Lab::portIs("Ethernet1", "vlan10");
  Lab::vethIs("core10", "eth0", core);
  Lab::portIs("core10", "vlan10");
  inRed([] {
    request(neighbourMessage("vlan10", "10.0.0.9", "02:00:00:00:00:09", NUD_PERMANENT));
    request(neighbourMessage("vlan10", "10.0.0.10", "02:00:00:00:00:10", NUD_PERMANENT, 110));
    request(neighbourMessage("vlan10", "10.0.0.11", "02:00:00:00:00:11", NUD_STALE));
    request(neighbourMessage("lo", "10.0.0.12", "02:00:00:00:00:12", NUD_PERMANENT));
  });
  expectNeighbours("neighbours", {"5 10.0.0.10 Vlan10 02:00:00:00:00:10 true 110",
                                  "5 10.0.0.11 Vlan10 02:00:00:00:00:11 false 0",
                                  "5 10.0.0.9 Vlan10 02:00:00:00:00:09 true 255"});

  // A station that speaks, moves to the overlay, and back.
  const Lab::Mac station{2, 0, 0, 0, 0, 0x77};
  const auto speaks = [&](const Lab::Namespace& where) {
    const Lab::Entered there(where);
    Lab::PacketSocket("eth0").send(Lab::plainFrame(station, Lab::kBroadcast, 0x88B5, 0));
  };
  speaks(host);
  expectMac("learned", "02:00:00:00:00:77", "learnedDynamic Ethernet1");
  speaks(core);
  expectMac("moved", "02:00:00:00:00:77", "evpnLearned core10");
  speaks(host);
  expectMac("moved back", "02:00:00:00:00:77", "learnedDynamic Ethernet1");
  request(macMessage("Ethernet1", "02:00:00:00:00:78", NUD_NOARP));
  expectMac("by hand", "02:00:00:00:00:78", "static Ethernet1");
  request(macMessage("Ethernet1", "02:00:00:00:00:79", NUD_REACHABLE, NTF_EXT_LEARNED));
  expectMac("externally", "02:00:00:00:00:79", "evpnLearned Ethernet1");
  request(macMessage("Ethernet1", "02:00:00:00:00:80", NUD_PERMANENT));
  request(macMessage("Ethernet1", "02:00:00:00:00:81", NUD_NOARP));
  expectMac("after one of its own", "02:00:00:00:00:81", "static Ethernet1");
  EXPECT_EQ(macEntry("02:00:00:00:00:80"), "");
  for (const char* device : {"vlan10", "Ethernet1", "core10", "v10"}) {
    const Lanix::EthAddr own(Lab::macOf(device));
    EXPECT_EQ(macEntry(own.toStrep()), "") << device;
  }
  renameLink("Ethernet1", "Ethernet2");
  expectMac("port renamed", "02:00:00:00:00:78", "static Ethernet2");
  const auto before = rig->macs();
  rig = nullptr;  // and what the next run finds, it takes over
  startRig();
  expect("next run", before,
         [&] { return rig->agent()->rootSm()->reconciled() ? rig->macs() : std::vector<std::string>(); });
  Lab::linkDel("Ethernet2");
  expect("port gone", std::vector<std::string>(), [&] { return rig->macs(); });
  Lab::linkDel("v10");
  expectNeighbours("device gone", {});
}

// What has no room is dropped in the kernel, and nothing else is.
TEST_F(LabTest, FullPort) {
  Lab::bridgeIs("vlan10");
  const Lab::Namespace far;
  for (const std::string port : {"Ethernet1", "Ethernet2"}) {
    Lab::vethIs(port, "far-" + port, far);
    Lab::portIs(port, "vlan10");
  }
  rig->at<ArpSuppression::Limits>(ArpSuppression::kLimitsPath)->macTablePerPortIs(2);
  const auto mac = [](int station) { return "02:00:00:00:01:0" + std::to_string(station); };
  const auto learns = [&](const std::string& port, std::uint8_t station) {
    const Lab::Entered there(far);
    Lab::PacketSocket("far-" + port)
        .send(Lab::plainFrame({2, 0, 0, 0, 1, station}, Lab::kBroadcast, 0x88B5, 0));
  };
  for (std::uint8_t station = 1; station <= 3; ++station) {
    learns("Ethernet1", station);
    if (station < 3) expectMac("room", mac(station), "learnedDynamic Ethernet1");
  }
  learns("Ethernet2", 4);
  expectMac("another port", mac(4), "learnedDynamic Ethernet2");
  EXPECT_EQ(macEntry(mac(3)), "");
  learns("Ethernet1", 4);
  expectMac("known, comes to the full port", mac(4), "learnedDynamic Ethernet1");
  learns("Ethernet1", 5);
  request(macMessage("Ethernet1", mac(6), NUD_NOARP));
  expectMac("by hand", mac(6), "static Ethernet1");
  EXPECT_EQ(macEntry(mac(5)), "");
  learns("Ethernet2", 1);
  learns("Ethernet2", 2);
  expect("room for one", 1, [&] { return !macEntry(mac(3)).empty() + !macEntry(mac(5)).empty(); });
  EXPECT_EQ(macEntry(mac(2)), "learnedDynamic Ethernet2");
}

// VLANs 20 and 30 of one bridge, with 802.1Q interfaces below a VRF device each, which have one address.
TEST_F(LabTest, VrfDevicesAndABridgeThatFiltersVlans) {
  const auto vlanIs = [&](const std::string& id, const std::string& vrf, int table) {
    Lab::run("ip link add " + vrf + " up type vrf table " + std::to_string(table));
    Lab::run("ip link add link br0 name vlan" + id + " up type vlan id " + id);
    rig->vlanIs(static_cast<std::uint16_t>(std::stoi(id)), "br0");
    rig->vrfIs(vrf, static_cast<Vrf::VrfIdMap::VrfId>(table), "default", vrf);
  };
  try {
    Lab::run("ip link add br0 up type bridge vlan_filtering 1 mcast_snooping 0");
    vlanIs("20", "blue", 6), vlanIs("30", "green", 7);
  } catch (const Lab::Unsupported& lacking) {
    GTEST_SKIP() << lacking.what();
  }
  rig->config()->vrfDel("red");
  const auto putBelow = [](const std::string& device, const std::string& vrf) {
    Lab::run("ip link set " + device + " master " + vrf);
    request(neighbourMessage(device, "10.0.0.9", "02:00:00:00:00:09", NUD_PERMANENT));
  };
  for (const char* device : {"vlan20", "vlan30"}) addressIs(device, "10.0.0.1/24");
  putBelow("vlan20", "blue"), putBelow("vlan30", "green");
  const auto shown = [&] {
    std::vector<std::string> lines = rig->vrfs();
    for (const char* intf : {"Vlan20", "Vlan30"}) lines.push_back(std::string(intf) + " " + rig->ip(intf));
    for (const std::string& line : rig->neighbours()) lines.push_back(line.substr(0, 17));
    return lines;
  };
  using Lines = std::vector<std::string>;
  const Lines both{"blue active default",     "default active default",   "green active default",
                   "Vlan20 blue 10.0.0.1/24", "Vlan30 green 10.0.0.1/24", "6 10.0.0.9 Vlan20",
                   "7 10.0.0.9 Vlan30"};
  expect("one address in two VRF devices", both, shown);
  Lab::linkDel("blue");
  expect("VRF device deleted",
         Lines{"blue inactive default", "default active default", "green active default", "Vlan20 ",
               "Vlan30 green 10.0.0.1/24", "7 10.0.0.9 Vlan30"},
         shown);
  Lab::run("ip link add blue up type vrf table 16");
  putBelow("vlan20", "blue");
  expect("made again", both, shown);
  Lab::run("ip link set vlan20 nomaster");
  expect("taken out from below it",
         Lines{"blue active default", "default active default", "green active default",
               "Vlan20 default 10.0.0.1/24", "Vlan30 green 10.0.0.1/24", "7 10.0.0.9 Vlan30"},
         shown);

  Lab::Namespace host;
  Lab::vethIs("Ethernet1", "eth0", host);
  Lab::portIs("Ethernet1", "br0");
  const auto speaksIn = [&](const char* vlan) {
    Lab::run(std::string("bridge vlan add dev Ethernet1 pvid untagged vid ") + vlan);
    const Lab::Entered there(host);
    Lab::PacketSocket("eth0").send(
        Lab::plainFrame(Lab::Mac{2, 0, 0, 0, 0, 0x77}, Lab::kBroadcast, 0x88B5, 0));
  };
  const auto macs = [&] { return rig->macs(); };
  speaksIn("20");
  expect("learned in one VLAN", Lines{"20 02:00:00:00:00:77 learnedDynamic Ethernet1"}, macs);
  speaksIn("30");
  Lab::run("bridge fdb add 02:00:00:00:00:78 dev Ethernet1 master static vlan 30");
  const Lines three{"20 02:00:00:00:00:77 learnedDynamic Ethernet1",
                    "30 02:00:00:00:00:77 learnedDynamic Ethernet1", "30 02:00:00:00:00:78 static Ethernet1"};
  expect("and in the other", three, macs);
  Lab::run("ip link set br0 type bridge vlan_filtering 0");
  expect("the bridge filters no more", Lines{}, macs);
  Lab::run("ip link set br0 type bridge vlan_filtering 1");
  expect("and again", three, macs);
  Lab::run("bridge vlan del dev Ethernet1 vid 30");
  expect("VLAN taken off the port: what was learned goes", Lines{three[0], three[2]}, macs);

  Lab::run("ip link set vlan30 down"), Lab::run("ip link set vlan30 name br0.30");
  const auto problems = rig->at<Switch::Problems>(Switch::kProblemsPath);
  EXPECT_TRUE(becomes([&] { return problems->problem("KernelState VLAN 30") != nullptr; }));
}

// Shared memory is full for a while: what it had no room for comes as soon as there is some.
TEST_F(LabTest, SharedMemoryIsFull) {
  rig = nullptr;
  ASSERT_EQ(unshare(CLONE_NEWNS), 0);
  ASSERT_EQ(mount("", "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
  ASSERT_EQ(mount("tmpfs", "/dev/shm", "tmpfs", 0, "size=64m"), 0);
  Orb::ManualClock clock;
  rig = std::make_unique<AgentRig>(clock, tables.directory());
  rig->vlanIs(10, "vlan10", {});
  rig->start();
  Lab::bridgeIs("vlan10");
  expectIp("there", "default ");
  std::ofstream("/dev/shm/filler") << std::string(std::size_t{64} << 20, 'x');
  constexpr std::size_t kNeighbours = 20000;
  std::vector<Netlink::Message> messages;
  for (std::uint32_t i = 0; i < kNeighbours; ++i) {
    messages.push_back(neighbourMessage("vlan10", Lanix::IpAddr(0x0A000002 + i).toStrep(),
                                        "02:00:00:00:00:09", NUD_PERMANENT));
  }
  ASSERT_EQ(requestAll(messages), kNeighbours);
  ASSERT_TRUE(becomes([&] { return !rig->loop().step(0); }));
  const auto count = [&] { return rig->table<Arp::Table::Status>("arp/status")->arpEntrys(); };
  ASSERT_LT(count(), kNeighbours) << "the test is to fill the shared memory";
  unlink("/dev/shm/filler");
  clock.advance(30);
  expect("all of them", kNeighbours, count);
  rig = nullptr;
  umount2("/dev/shm", MNT_DETACH);
}

// More changes than the sockets can hold while nobody reads them.
TEST_F(LabTest, FloodOfChanges) {
  redComes();
  expectIp("there", "red ");
  constexpr std::size_t kNeighbours = 30000;
  std::vector<Netlink::Message> messages;
  inRed([&] {
    for (std::size_t i = 0; i < kNeighbours; ++i) {
      messages.push_back(neighbourMessage("vlan10",
                                          Lanix::IpAddr(static_cast<std::uint32_t>(0x0A000002 + i)).toStrep(),
                                          "02:00:00:00:00:09", NUD_PERMANENT));
    }
    ASSERT_EQ(requestAll(messages), kNeighbours);
    EXPECT_NE(lostNotifications(), 0u) << "the test is to flood the sockets";
  });
  const auto count = [&] { return rig->table<Arp::Table::Status>("arp/status")->arpEntrys(); };
  expect("all of them", kNeighbours, count);
  Lab::linkDel("v10");
  expect("none of them", 0u, count);
  deviceComes();
  expectIp("still working", "red ");
}

}  // namespace
}  // namespace KernelState
