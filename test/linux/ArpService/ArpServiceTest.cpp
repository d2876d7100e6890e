#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <cstring>
#include <fstream>
#include <optional>
#include <set>

#include "Lanix/Namespaces.h"
#include "ServiceRig.h"
#include "lab/LabKernel.h"

// A switch in a namespace of its own, with VLANs 10 and 20 in VRF "default", and VLAN 10's number again in
// VRF "red".

namespace ArpService {
namespace {

using KernelState::neighbourMessage;
using KernelState::request;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

using Lines = std::vector<std::string>;
constexpr const char* kMac1 = "02:00:00:00:00:01";
constexpr const char* kMac2 = "02:00:00:00:00:02";
constexpr std::uint8_t kLocal = 1;

std::string line(const Netlink::Neighbour& neighbour) {
  const std::string state = (neighbour.state & NUD_PERMANENT) != 0    ? "permanent"
                            : (neighbour.state & NUD_REACHABLE) != 0  ? "reachable"
                            : (neighbour.state & NUD_FAILED) != 0     ? "failed"
                            : (neighbour.state & NUD_INCOMPLETE) != 0 ? "incomplete"
                            : (neighbour.state & NUD_NOARP) != 0      ? "zebra's"
                                                                      : "stale";
  return neighbour.address.toStrep() + " " + neighbour.mac.toStrep() + " " + state + " " +
         std::to_string(neighbour.protocol);
}

// Those on a device of the namespace that the thread is in.
Lines neighbours(const std::string& device) {
  Lines lines;
  Netlink::Socket socket(NETLINK_ROUTE);
  const auto dumped = socket.dump(
      Netlink::neighbourDump(AF_UNSPEC),
      [&](const Netlink::Received& message) {
        const auto neighbour = Netlink::readNeighbour(message);
        if (neighbour && neighbour->ifIndex == Lab::ifIndex(device) && !neighbour->address.isMulticast())
          lines.push_back(line(*neighbour));
      },
      [&] { lines.clear(); });
  EXPECT_TRUE(dumped) << dumped.error();
  std::ranges::sort(lines);
  return lines;
}

// What the kernel tells about neighbours from here on, as "ip monitor neigh" sees it.
class Monitor {
 public:
  Monitor() { EXPECT_TRUE(socket_.join(RTNLGRP_NEIGH)); }
  Lines told() {
    Lines lines;
    socket_.receive(
        [&](const Netlink::Received& message) {
          if (const auto neighbour = Netlink::readNeighbour(message))
            lines.push_back((message.type() == RTM_DELNEIGH ? "gone " : "") + line(*neighbour));
        },
        100000);
    return lines;
  }

 private:
  Netlink::Socket socket_{NETLINK_ROUTE};
};

class ArpServiceTest : public testing::Test {
 protected:
  ArpServiceTest() {
    for (const char* device : {"vlan10", "vlan20", "eth9"}) Lab::bridgeIs(device);
    redComes();
    rigIs();
  }
  void rigIs(NamespaceSm::Settings settings = {}) {
    rig = std::make_unique<ServiceRig>(settings);
    rig->vrfIs("default", "default");
    rig->vrfIs("red", red->name());
    config = rig->input->vrfIs("default");
  }
  void redComes() {
    red.emplace("red");
    Lab::vethIs("v10", "vlan10", *red);
  }
  void configIs(const std::string& ip, const Arp::ArpEntryInput& entry) {
    config->ipv4Is(ServiceRig::ip(ip), entry);
  }
  void kernelHas(const std::string& ip, const std::string& mac, std::uint16_t state,
                 std::uint8_t protocol = 0) {
    request(neighbourMessage("vlan10", ip, mac, state, protocol));
  }
  void expect(const std::string& device, const Lines& expected, const char* what = "") {
    rig->becomes([&] { return neighbours(device) == expected; });
    rig->settle();
    EXPECT_EQ(neighbours(device), expected) << what;
  }
  template <class Call>
  auto inRed(Call call) {
    const Lab::Entered entered(*red);
    return call();
  }

  Lab::Namespace leaf;
  Lab::Entered entered{leaf};
  Lanix::Namespaces namespaces;  // whose home is where this thread is now
  Lanix::Replaced<Lanix::Namespaces> replaced{namespaces};
  std::optional<Lab::Namespace> red;
  std::unique_ptr<ServiceRig> rig;
  Ptr<Arp::ArpInputVrfConfig> config;
};

TEST_F(ArpServiceTest, WhatIsFoundAtStart) {
  struct Case {
    const char* what;
    std::uint16_t state;  // of the kernel's neighbour, which has kMac1; 0: none
    std::uint8_t protocol;
    std::optional<Arp::ArpEntryInput> wanted;
    const char* expected;
  };
  const auto entry = [](const char* mac, std::uint8_t arpType = 0, bool dynamic = false) {
    return ServiceRig::entry(mac, "Vlan10", arpType, dynamic);
  };
  const std::vector<Case> cases = {
      {"right already", NUD_PERMANENT, 110, entry(kMac1), "02:00:00:00:00:01 permanent 110"},
      {"another station", NUD_PERMANENT, 110, entry(kMac2), "02:00:00:00:00:02 permanent 110"},
      {"not configured any more", NUD_PERMANENT, 110, {}, ""},
      {"dynamic and not configured any more", NUD_STALE, 110, {}, "02:00:00:00:00:01 stale 110"},
      {"an operator's", NUD_PERMANENT, 0, entry(kMac2), "02:00:00:00:00:01 permanent 0"},
      {"an operator's, not configured", NUD_PERMANENT, 0, {}, "02:00:00:00:00:01 permanent 0"},
      {"not there", 0, 0, entry(kMac1), "02:00:00:00:00:01 permanent 110"},
      {"unanswered", NUD_FAILED, 0, entry(kMac1), "02:00:00:00:00:01 permanent 110"},
      {"remote, resolved by the kernel", NUD_REACHABLE, 0, entry(kMac2), "02:00:00:00:00:02 permanent 110"},
      {"local, resolved by the kernel", NUD_STALE, 0, entry(kMac1, kLocal), "02:00:00:00:00:01 stale 0"},
      {"dynamic", 0, 0, entry(kMac1, kLocal, true), "02:00:00:00:00:01 reachable 110"},
      {"dynamic and there", NUD_STALE, 110, entry(kMac1, kLocal, true), "02:00:00:00:00:01 stale 110"},
      {"dynamic now", NUD_PERMANENT, 110, entry(kMac1, kLocal, true), "02:00:00:00:00:01 reachable 110"},
  };
  Lines expected;
  for (std::size_t i = 0; i < cases.size(); ++i) {
    const std::string ip = "10.0.0." + std::to_string(10 + i);
    if (cases[i].state != 0) kernelHas(ip, kMac1, cases[i].state, cases[i].protocol);
    if (cases[i].wanted) configIs(ip, *cases[i].wanted);
    if (*cases[i].expected) expected.push_back(ip + " " + cases[i].expected);
  }
  request(neighbourMessage("eth9", "10.0.0.1", kMac1, NUD_PERMANENT, 110));
  inRed([] { request(neighbourMessage("vlan10", "10.0.0.10", kMac1, NUD_PERMANENT, 110)); });
  Monitor monitor;
  rig->start();
  expect("vlan10", expected);
  EXPECT_THAT(neighbours("eth9"), ElementsAre("10.0.0.1 02:00:00:00:00:01 permanent 110"))
      << "no VLAN interface";
  EXPECT_THAT(inRed([] { return neighbours("vlan10"); }), IsEmpty());
  std::set<std::string> changed;
  for (const std::string& told : monitor.told()) changed.insert(told.substr(told.find("10.0.0."), 9));
  EXPECT_THAT(changed, ElementsAre("10.0.0.11", "10.0.0.12", "10.0.0.16", "10.0.0.17", "10.0.0.18",
                                   "10.0.0.20", "10.0.0.22"))
      << "nothing but what had to change was written";
  EXPECT_EQ(rig->status->vrf("default")->programmed(), 10U);
  EXPECT_EQ(rig->status->vrf("default")->pending(), 0U);

  // Run again, or evaluated again, it finds everything right.
  const auto again = [&] {
    rig->clock.ahead += 100;
    rig->settle();
    EXPECT_THAT(monitor.told(), IsEmpty());
  };
  again();
  rig->root = nullptr;
  rig->start();
  again();
}

// As zebra writes a host of another switch, and as it takes it back.
void zebraHas(const std::string& ip, const std::string& mac = kMac1) {
  request(neighbourMessage("vlan10", ip, mac, NUD_NOARP, 11, NTF_EXT_LEARNED));
}
void zebraHasNot(const std::string& ip) {
  request(removeRequest(Lab::ifIndex("vlan10"), ServiceRig::ip(ip)));
}

TEST_F(ArpServiceTest, ARoutingDaemonsHostsAreItsOwn) {
  struct Case {
    const char* what;
    std::uint16_t
        state;  // of the kernel's neighbour of protocol 110, which has kMac1; NUD_NOARP: zebra's; 0: none
    std::optional<Arp::ArpEntryInput> wanted;
    const char* bound;      // the operator's binding
    const char* beside;     // what the kernel has then
    const char* withdrawn;  // and when zebra has nothing any more
    const char* without;    // and without a feed
  };
  const auto remote = ServiceRig::entry(kMac1, "Vlan10");
  const auto local = ServiceRig::entry(kMac1, "Vlan10", Arp::kArpTypeLocal);
  const std::vector<Case> cases = {
      {"zebra's", NUD_NOARP, remote, nullptr, "zebra's 11", "", "permanent 110"},
      {"not in the kernel yet", 0, remote, nullptr, "", "", "permanent 110"},
      {"ours of before", NUD_PERMANENT, remote, nullptr, "", "", "permanent 110"},
      {"ours, and not wanted", NUD_PERMANENT, {}, nullptr, "", "", ""},
      {"zebra's, and not wanted", NUD_NOARP, {}, nullptr, "zebra's 11", "", ""},
      {"the operator's", 0, remote, kMac1, "permanent 110", "permanent 110", "permanent 110"},
      {"both's", NUD_NOARP, remote, kMac1, "zebra's 11", "permanent 110", "permanent 110"},
      {"moved from what the operator says", 0, remote, kMac2, "", "", "permanent 110"},
      {"a local host", 0, local, nullptr, "reachable 110", "reachable 110", "reachable 110"},
      {"a local host of before", NUD_PERMANENT, local, nullptr, "reachable 110", "reachable 110",
       "reachable 110"},
      {"a local host that zebra has", NUD_NOARP, local, nullptr, "zebra's 11", "", "permanent 110"},
  };
  const auto ipOf = [](std::size_t i) { return "10.0.0." + std::to_string(10 + i); };
  const auto lines = [&](const char* Case::*expected) {
    Lines result;
    for (std::size_t i = 0; i < cases.size(); ++i) {
      if (*(cases[i].*expected)) result.push_back(ipOf(i) + " " + kMac1 + " " + cases[i].*expected);
    }
    return result;
  };
  const auto bindings = Mox::make<Switch::EvpnConfig::Bindings>();
  for (std::size_t i = 0; i < cases.size(); ++i) {
    const Case& item = cases[i];
    if (item.state == NUD_NOARP) zebraHas(ipOf(i));
    if (item.state == NUD_PERMANENT) kernelHas(ipOf(i), kMac1, item.state, 110);
    if (item.wanted) configIs(ipOf(i), *item.wanted);
    if (item.bound)
      bindings->all[{Bridging::VlanId(10), ServiceRig::ip(ipOf(i))}] = {
          Lanix::EthAddr::fromStrep(item.bound).value()};
  }
  const auto red10 = rig->input->vrfIs("red");
  red10->ipv4Is(ServiceRig::ip("10.0.0.9"), remote);
  rig->config->vlanIs(Bridging::VlanId(10))->bridgeIs("vlan10");
  rig->config->agentsIs({"KernelEvpn", "ArpService"});
  rig->config->evpn()->bindingsIs(bindings);
  rig->config->evpn()->feedIs(Switch::EvpnFeed::kernel);
  // What is reachable stays so, however slow the machine is.
  std::ofstream("/proc/sys/net/ipv4/neigh/vlan10/base_reachable_time_ms") << 3'600'000;
  Monitor monitor;
  rig->start();
  expect("vlan10", lines(&Case::beside), "at start");
  EXPECT_TRUE(rig->confirmation->vlanHas(Bridging::VlanId(10)));
  EXPECT_EQ(rig->status->vrf("default")->pending(), 0U);
  expect("vlan10", lines(&Case::beside), "whatever rounds find");
  EXPECT_THAT(inRed([] { return neighbours("vlan10"); }),
              ElementsAre("10.0.0.9 02:00:00:00:00:01 permanent 110"))
      << "in another namespace";

  monitor.told();
  for (std::size_t i = 0; i < cases.size(); ++i)
    if (cases[i].state == NUD_NOARP) zebraHasNot(ipOf(i));
  expect("vlan10", lines(&Case::withdrawn), "zebra withdraws all");
  // The order of the two is nobody's to choose: what zebra has is never written over, nor taken away.
  for (int i = 0; i < 20; ++i) {
    zebraHas("10.0.0.10"), rig->settle(), zebraHasNot("10.0.0.10"), rig->settle();
    config->ipv4Del(ServiceRig::ip("10.0.0.10")), rig->settle();
    zebraHas("10.0.0.10"), configIs("10.0.0.10", remote), rig->settle();
    config->ipv4Del(ServiceRig::ip("10.0.0.10")), zebraHasNot("10.0.0.10"), configIs("10.0.0.10", remote);
    rig->settle();
  }
  for (const std::string& told : monitor.told())
    EXPECT_FALSE(told.starts_with("10.0.0.10 ") && told.ends_with("110")) << told;

  rig->config->evpn()->feedIs(Switch::EvpnFeed::none);
  expect("vlan10", lines(&Case::without), "without a feed");
  EXPECT_EQ(rig->confirmation->vlans(), 0U);
  rig->config->evpn()->feedIs(Switch::EvpnFeed::kernel);
  for (std::size_t i = 0; i < cases.size(); ++i)
    if (cases[i].state == NUD_NOARP) zebraHas(ipOf(i));
  expect("vlan10", lines(&Case::beside), "with one again, which wrote over ours");
}

// In a namespace with hosts behind its interface; the service does not mind which.
TEST_F(ArpServiceTest, AsksForWhatIsToBeConfirmed) {
  KernelState::addressIs("v10", "10.0.0.2/24");
  const std::string host = Lanix::EthAddr(Lab::macOf("v10")).toStrep();
  config = rig->input->vrfIs("red");
  const auto asked = ServiceRig::entry(host.c_str(), "Vlan10", Arp::kArpTypeAsked);
  inRed([&] {
    std::ofstream("/proc/sys/net/ipv4/neigh/vlan10/retrans_time_ms") << 20;
    KernelState::addressIs("vlan10", "10.0.0.1/24");
    zebraHas("10.0.0.3"), zebraHas("10.0.0.4"), zebraHas("10.0.0.5");
  });
  for (const char* ip : {"10.0.0.2", "10.0.0.3", "10.0.0.4", "10.0.0.6"}) configIs(ip, asked);
  Monitor monitor;
  rig->start();
  const auto silent = [&](const char* ip) {
    return rig->confirmation->silentHas({Bridging::VlanId(10), ServiceRig::ip(ip)});
  };
  const auto expectInRed = [&](const Lines& expected, const char* what) {
    Lines now;
    rig->becomes([&] {
      now = inRed([] { return neighbours("vlan10"); });
      return now == expected;
    });
    rig->settle();
    EXPECT_EQ(now, expected) << what;
  };
  const std::string answered = "10.0.0.2 " + host + " reachable 110";
  const std::string failed = " 00:00:00:00:00:00 failed 110";
  EXPECT_TRUE(rig->becomes([&] { return silent("10.0.0.6"); }));
  expectInRed({answered, "10.0.0.3 02:00:00:00:00:01 zebra's 11", "10.0.0.4 02:00:00:00:00:01 zebra's 11",
               "10.0.0.5 02:00:00:00:00:01 zebra's 11", "10.0.0.6" + failed},
              "where zebra has nothing");
  // Another namespace's crowd has the kernel drop the entry of one that is silent: it is asked again then.
  EXPECT_TRUE(rig->becomes([&] { return rig->confirmation->silents() == 1 && silent("10.0.0.6"); }));

  inRed([&] { zebraHasNot("10.0.0.4"); });
  EXPECT_TRUE(rig->becomes([&] { return silent("10.0.0.4"); })) << "asked once zebra's has gone";
  EXPECT_FALSE(silent("10.0.0.3"));
  int words = 0;
  Mox::Notifiee<const Arp::Confirmation> told(rig->confirmation);
  told.on(Arp::Confirmation::silentChanged, [&](const Arp::HostAddress&) { ++words; });
  config->ipv4Del(ServiceRig::ip("10.0.0.6")), configIs("10.0.0.6", asked);
  EXPECT_TRUE(rig->becomes([&] { return words == 2; }))
      << "wanted again at once: asked again, and told again";
  EXPECT_TRUE(silent("10.0.0.6"));
  configIs("10.0.0.6", ServiceRig::entry(host.c_str(), "Vlan10", Arp::kArpTypeLocal, true));
  EXPECT_TRUE(rig->becomes([&] {
    return inRed([] { return neighbours("vlan10").back(); }).ends_with("reachable 110");
  })) << "it was heard of otherwise";
  EXPECT_FALSE(silent("10.0.0.6"));
  configIs("10.0.0.7", asked);
  EXPECT_TRUE(rig->becomes([&] { return silent("10.0.0.7"); }));
  config->ipv4Del(ServiceRig::ip("10.0.0.7"));
  rig->settle();
  EXPECT_FALSE(silent("10.0.0.7")) << "nobody wants to know any more";
  // It answers late, and by a word of its own.
  inRed([&] { request(neighbourMessage("vlan10", "10.0.0.4", kMac1, NUD_REACHABLE)); });
  EXPECT_TRUE(rig->becomes([&] { return !silent("10.0.0.4"); }));
  configIs("10.0.0.3", ServiceRig::entry(host.c_str(), "Vlan10", Arp::kArpTypeLocal));
  rig->settle();
  EXPECT_EQ(inRed([] { return neighbours("vlan10"); })[1], "10.0.0.3 02:00:00:00:00:01 zebra's 11");
}

TEST_F(ArpServiceTest, FollowsTheConfiguration) {
  rig->start();
  const auto remote = [](const char* mac, const char* intf = "Vlan10") {
    return ServiceRig::entry(mac, intf);
  };
  configIs("10.0.0.1", remote(kMac1));
  configIs("10.0.0.2", remote(kMac1));
  expect("vlan10", {"10.0.0.1 02:00:00:00:00:01 permanent 110", "10.0.0.2 02:00:00:00:00:01 permanent 110"});
  configIs("10.0.0.1", remote(kMac2));
  config->ipv4Del(ServiceRig::ip("10.0.0.2"));
  expect("vlan10", {"10.0.0.1 02:00:00:00:00:02 permanent 110"}, "changed and deleted");
  {
    Monitor monitor;
    config->ipv4Del(ServiceRig::ip("10.0.0.1"));
    configIs("10.0.0.1", remote(kMac2));
    rig->settle();
    EXPECT_THAT(monitor.told(), IsEmpty()) << "deleted and made again in one go";
  }
  configIs("10.0.0.1", remote(kMac2, "Vlan20"));
  expect("vlan20", {"10.0.0.1 02:00:00:00:00:02 permanent 110"}, "on another VLAN");
  expect("vlan10", {}, "and no longer on this one");

  configIs("10.0.0.1", ServiceRig::entry(kMac2, "Vlan10", kLocal, true));
  expect("vlan10", {"10.0.0.1 02:00:00:00:00:02 reachable 110"});
  request(removeRequest(Lab::ifIndex("vlan10"), ServiceRig::ip("10.0.0.1")));
  expect("vlan10", {}, "a dynamic one that went stays gone");
  config->ipv4Del(ServiceRig::ip("10.0.0.1"));
  configIs("10.0.0.1", ServiceRig::entry(kMac2, "Vlan10", kLocal, true));
  expect("vlan10", {"10.0.0.1 02:00:00:00:00:02 reachable 110"}, "configured anew");
  config->ipv4Del(ServiceRig::ip("10.0.0.1"));
  expect("vlan10", {"10.0.0.1 02:00:00:00:00:02 reachable 110"}, "left to the kernel's ageing");

  configIs("10.0.0.3", remote(kMac1));
  expect("vlan10", {"10.0.0.1 02:00:00:00:00:02 reachable 110", "10.0.0.3 02:00:00:00:00:01 permanent 110"});
  request(removeRequest(Lab::ifIndex("vlan10"), ServiceRig::ip("10.0.0.1")));
  request(removeRequest(Lab::ifIndex("vlan10"), ServiceRig::ip("10.0.0.3")));
  expect("vlan10", {"10.0.0.3 02:00:00:00:00:01 permanent 110"}, "taken away by hand");
  kernelHas("10.0.0.3", kMac2, NUD_PERMANENT, 4);
  config->ipv4Del(ServiceRig::ip("10.0.0.3"));
  expect("vlan10", {"10.0.0.3 02:00:00:00:00:02 permanent 4"}, "an operator's own by now");

  configIs("10.0.0.4", remote(kMac1));
  const auto other = rig->input->vrfIs("red");
  other->ipv4Is(ServiceRig::ip("10.0.0.4"), remote(kMac2));
  expect("vlan10", {"10.0.0.3 02:00:00:00:00:02 permanent 4", "10.0.0.4 02:00:00:00:00:01 permanent 110"});
  rig->becomes([&] { return inRed([] { return neighbours("vlan10").size() == 1; }); });
  EXPECT_THAT(inRed([] { return neighbours("vlan10"); }),
              ElementsAre("10.0.0.4 02:00:00:00:00:02 permanent 110"));
  rig->input->vrfDel("red");
  rig->becomes([&] { return inRed([] { return neighbours("vlan10").empty(); }); });
  EXPECT_THAT(inRed([] { return neighbours("vlan10"); }), IsEmpty()) << "the VRF's configuration is gone";
  // There is no turn of the loop between the end of the agent, which empties the configuration, and ours.
  rig->input->vrfDelAll();
  rig->root = nullptr;
  EXPECT_THAT(neighbours("vlan10"), ElementsAre("10.0.0.3 02:00:00:00:00:02 permanent 4"));
}

TEST_F(ArpServiceTest, Ipv6) {
  std::ofstream("/proc/sys/net/ipv6/conf/vlan10/disable_ipv6") << "0";
  std::ofstream("/proc/sys/net/ipv6/conf/vlan20/disable_ipv6") << "0";
  rig->start();
  for (const char* text : {"2001:db8::1", "fe80::1"}) {
    for (const char* intf : {"Vlan10", "Vlan20"}) {
      config->ipv6Is({Lanix::Ip6Addr::fromStrep(text).value(), Lanix::IntfId::fromName(intf)},
                     ServiceRig::entry(kMac1, intf));
    }
  }
  const Lines both = {"2001:db8::1 02:00:00:00:00:01 permanent 110",
                      "fe80::1 02:00:00:00:00:01 permanent 110"};
  expect("vlan10", both);
  expect("vlan20", both);
  config->ipv6Del({Lanix::Ip6Addr::fromStrep("fe80::1").value(), Lanix::IntfId::fromName("Vlan10")});
  expect("vlan10", {both[0]});
  expect("vlan20", both);
}

TEST_F(ArpServiceTest, DevicesAndNamespacesComeAndGo) {
  config = rig->input->vrfIs("red");
  configIs("10.0.0.1", ServiceRig::entry(kMac1, "Vlan10"));
  configIs("10.0.0.2", ServiceRig::entry(kMac1, "Vlan30"));
  rig->start();
  const auto programmed = [&](std::uint64_t count, const char* what) {
    const auto status = rig->status->vrf("red");
    EXPECT_TRUE(rig->becomes([&] { return status->programmed() == count; })) << what;
    EXPECT_EQ(status->pending(), config->ipv4s() - count) << what;
    EXPECT_EQ(status->refusals(), 0U) << what << ": " << status->problem();
  };
  programmed(1, "one device of two");
  Lab::vethIs("v30", "vlan30", *red);
  programmed(2, "a new device");
  const auto there = [&] {
    return inRed([] { return neighbours("vlan10").size() + neighbours("vlan30").size(); });
  };
  EXPECT_EQ(there(), 2U);
  inRed([] { Lab::upIs("vlan30", false), Lab::upIs("vlan30"); });  // takes its neighbours along
  EXPECT_TRUE(rig->becomes([&] { return there() == 2; }));
  Lab::linkDel("v10");
  programmed(1, "device gone");
  Lab::vethIs("v10", "vlan10", *red);
  programmed(2, "device made again");
  EXPECT_EQ(there(), 2U);

  rig->vrfIs("red", red->name(), Ip::VrfState::inactive);
  programmed(0, "VRF inactive");
  red.reset();
  // Nothing keeps the namespace alive: the kernel takes the pair away with it.
  EXPECT_TRUE(rig->becomes([] { return Lab::ifIndex("v10") == 0; }));
  redComes();
  rig->vrfIs("red", red->name());
  programmed(1, "another namespace");
  EXPECT_EQ(there(), 1U);
  rig->vrfIs("red", "no-such-namespace");
  EXPECT_TRUE(rig->becomes([&] { return !rig->status->vrf("red")->problem().empty(); }));
  EXPECT_THAT(rig->status->vrf("red")->problem(), HasSubstr("no-such-namespace"));
  rig->vrfs->vrfDel("red");
  EXPECT_TRUE(rig->becomes([&] { return !rig->status->vrf("red"); }));
  EXPECT_EQ(rig->problems->problems(), 0U);
}

// One address in two VRFs, each on an interface of its own, which go from one to the other.
TEST_F(ArpServiceTest, VrfDevices) {
  const auto deviceIs = [&](const std::string& name, int table) {
    Lab::run("ip link add " + name + " up type vrf table " + std::to_string(table));
    rig->config->vrfIs(name)->deviceIs(name);
    rig->vrfIs(name, "default");
  };
  try {
    deviceIs("blue", 100);
  } catch (const Lab::Unsupported& lacking) {
    GTEST_SKIP() << lacking.what();
  }
  deviceIs("green", 200);
  for (const char* vrf : {"default", "blue", "green"}) {
    config = rig->input->vrfIs(vrf);
    configIs("10.0.0.1", ServiceRig::entry(vrf == std::string("blue") ? kMac2 : kMac1, "Vlan10"));
    configIs("10.0.0.2", ServiceRig::entry(kMac1, vrf == std::string("default") ? "Vlan20" : "Vlan10"));
  }
  Lab::run("ip link set vlan10 master blue");
  // Left by an earlier run: this one in its VRF is to go, that one is nobody's to judge.
  request(neighbourMessage("vlan10", "10.0.0.3", kMac1, NUD_PERMANENT, 110));
  Lab::run("ip link add other up type vrf table 300"), Lab::bridgeIs("vlan30");
  Lab::run("ip link set vlan30 master other");
  const Lines others = {"10.0.0.3 02:00:00:00:00:01 permanent 110"};
  request(neighbourMessage("vlan30", "10.0.0.3", kMac1, NUD_PERMANENT, 110));
  rig->start();
  const Lines blue = {"10.0.0.1 02:00:00:00:00:02 permanent 110", "10.0.0.2 02:00:00:00:00:01 permanent 110"};
  const Lines green = {"10.0.0.1 02:00:00:00:00:01 permanent 110",
                       "10.0.0.2 02:00:00:00:00:01 permanent 110"};
  const struct {
    const char* what;
    std::function<void()> happens;
    Lines vlan10;
  } cases[] = {
      {"at start", [] {}, blue},
      {"below another device", [] { Lab::run("ip link set vlan10 master green"); }, green},
      {"and back", [] { Lab::run("ip link set vlan10 master blue"); }, blue},
      {"below none", [] { Lab::run("ip link set vlan10 nomaster"); }, {green[0]}},
      {"and back again", [] { Lab::run("ip link set vlan10 master blue"); }, blue},
      {"the device is deleted", [] { Lab::linkDel("blue"); }, {green[0]}},
      {"and made again", [&] { deviceIs("blue", 101), Lab::run("ip link set vlan10 master blue"); }, blue},
  };
  for (const auto& item : cases) {
    item.happens();
    expect("vlan10", item.vlan10, item.what);
    for (int i = 0; i < 3; ++i) rig->clock.ahead += 100, rig->settle();  // rounds find nothing to do
    expect("vlan10", item.vlan10, item.what);
  }
  expect("vlan20", {"10.0.0.2 02:00:00:00:00:01 permanent 110"});
  expect("vlan30", others);
  EXPECT_EQ(rig->status->vrf("blue")->programmed(), 2U);
  EXPECT_EQ(rig->status->vrf("green")->pending(), 2U);
  EXPECT_EQ(rig->problems->problems(), 0U);
}

// A kernel that may have no room for more neighbours, or for a change that it was to tell, and counts how often
// all neighbours are asked for.
class FullKernel final : public Netlink::Kernel {
 public:
  std::int64_t receive(int descriptor, std::span<std::byte> buffer, bool& fromKernel) override {
    const auto size = Netlink::Kernel::receive(descriptor, buffer, fromKernel);
    nlmsghdr header;
    std::memcpy(&header, buffer.data(), sizeof header);
    if (size < 0 || !losing || header.nlmsg_type != RTM_DELNEIGH) return size;
    losing = false;
    errno = ENOBUFS;
    return -1;
  }
  std::int64_t send(int descriptor, Netlink::Bytes bytes) override {
    nlmsghdr header;
    std::memcpy(&header, bytes.data(), sizeof header);
    dumps += (header.nlmsg_flags & NLM_F_DUMP) == NLM_F_DUMP ? 1 : 0;
    if (!full || header.nlmsg_type != RTM_NEWNEIGH) return Netlink::Kernel::send(descriptor, bytes);
    ++refused;
    errno = ENOBUFS;
    return -1;
  }
  bool full = true;
  bool losing = false;
  int refused = 0;  // requests, of many neighbours each
  int dumps = 0;
};

TEST_F(ArpServiceTest, ADeviceCostsWorkForItsOwnEntries) {
  FullKernel kernel;
  kernel.full = false;
  rigIs({&kernel});
  for (int i = 1; i <= 200; ++i)
    configIs("10.0.0." + std::to_string(i), ServiceRig::entry(kMac1, i <= 100 ? "Vlan10" : "Vlan30"));
  rig->start();
  const auto status = rig->status->vrf("default");
  EXPECT_TRUE(rig->becomes([&] { return status->programmed() == 100; }));
  rig->settle();
  EXPECT_EQ(std::exchange(kernel.dumps, 0), 6) << "devices, parameters and neighbours of two VRFs";
  Lab::bridgeIs("vlan30");
  EXPECT_TRUE(rig->becomes([&] { return status->programmed() == 200; }));
  Lab::linkDel("vlan30");
  EXPECT_TRUE(rig->becomes([&] { return status->programmed() == 100; }));
  configIs("10.0.0.200", ServiceRig::entry(kMac1, "Vlan10"));  // moves while its interface is not there
  Lab::bridgeIs("vlan30");
  EXPECT_TRUE(rig->becomes([&] { return status->programmed() == 200; }));
  rig->settle();
  EXPECT_EQ(neighbours("vlan30").size(), 99U);
  EXPECT_EQ(neighbours("vlan10").size(), 101U);
  EXPECT_EQ(kernel.dumps, 0);
}

TEST_F(ArpServiceTest, WhatChangedUnheardIsFoundAtOnce) {
  FullKernel kernel;
  kernel.full = false;
  rigIs({&kernel});
  configIs("10.0.0.1", ServiceRig::entry(kMac1, "Vlan10"));
  rig->start();
  const Lines there = {"10.0.0.1 02:00:00:00:00:01 permanent 110"};
  expect("vlan10", there);
  kernel.losing = true;
  request(removeRequest(Lab::ifIndex("vlan10"), ServiceRig::ip("10.0.0.1")));
  EXPECT_THAT(neighbours("vlan10"), IsEmpty());
  expect("vlan10", there, "without waiting for the next round");
  EXPECT_FALSE(kernel.losing);
}

TEST_F(ArpServiceTest, RefusedEntriesAreReportedAndTriedAgain) {
  FullKernel kernel;
  rigIs({&kernel});
  for (int i = 1; i <= 200; ++i)
    configIs("10.0.0." + std::to_string(i), ServiceRig::entry(kMac1, i <= 100 ? "Vlan10" : "Vlan20"));
  rig->start();
  EXPECT_TRUE(rig->becomes([&] { return rig->status->vrf("default")->refusals() == 200; }));
  EXPECT_EQ(rig->status->vrf("default")->pending(), 200U);
  EXPECT_THAT(rig->status->vrf("default")->problem(), HasSubstr("neighbour table is full"));
  EXPECT_TRUE(rig->problems->problem("ArpService VRF default"));
  // Less and less often.
  for (int i = 0; i < 600; ++i) rig->clock.ahead += 1, rig->settle();
  EXPECT_LT(rig->status->vrf("default")->refusals(), 200U * 25);
  EXPECT_GT(rig->status->vrf("default")->refusals(), 200U * 5);
  kernel.full = false;
  rig->clock.ahead += 60;
  EXPECT_TRUE(rig->becomes([&] { return rig->status->vrf("default")->programmed() == 200; }));
  rig->settle();
  EXPECT_EQ(rig->status->vrf("default")->problem(), "");
  EXPECT_EQ(rig->problems->problems(), 0U);
  EXPECT_EQ(neighbours("vlan10").size() + neighbours("vlan20").size(), 200U);
}

// Not each neighbour that the kernel is to age costs it a pass over its full table.
TEST_F(ArpServiceTest, AFullTableIsLeftAloneForAWhile) {
  FullKernel kernel;
  rigIs({&kernel});
  rig->start();
  rig->settle();
  for (int i = 1; i <= 200; ++i)
    configIs("10.0.0." + std::to_string(i), ServiceRig::entry(kMac1, "Vlan10", 0, true));
  const auto status = rig->status->vrf("default");
  EXPECT_TRUE(rig->becomes([&] { return status->refusals() == 200; }));
  EXPECT_EQ(std::exchange(kernel.refused, 0), 1);
  EXPECT_TRUE(rig->problems->problem("ArpService VRF default"));
  configIs("10.0.0.201", ServiceRig::entry(kMac1, "Vlan10", 0, true));
  rig->settle();
  EXPECT_EQ(kernel.refused, 0);
  kernel.full = false;
  rig->clock.ahead += 1;
  EXPECT_TRUE(rig->becomes([&] { return status->programmed() == 201; }));
}

TEST_F(ArpServiceTest, StaleNeighboursAreProbed) {
  rigIs();
  // The host of the first one is there.
  KernelState::addressIs("v10", "10.0.0.2/24");
  const std::string host = Lanix::EthAddr(Lab::macOf("v10")).toStrep();
  inRed([&] {
    std::ofstream("/proc/sys/net/ipv4/neigh/vlan10/delay_first_probe_time") << 0;
    std::ofstream("/proc/sys/net/ipv4/neigh/vlan10/retrans_time_ms") << 20;
    KernelState::addressIs("vlan10", "10.0.0.1/24");
    request(neighbourMessage("vlan10", "10.0.0.2", host, NUD_STALE));
    request(neighbourMessage("vlan10", "10.0.0.3", kMac1, NUD_STALE));
    request(neighbourMessage("vlan10", "10.0.0.4", kMac1, NUD_STALE, 110));
    request(neighbourMessage("vlan10", "10.0.0.5", kMac1, NUD_REACHABLE));
    request(neighbourMessage("vlan10", "10.0.0.6", kMac1, NUD_PERMANENT));
  });
  rig->start();
  ASSERT_TRUE(rig->becomes([&] { return rig->status->vrf("red") != nullptr; }));
  rig->config->neighborRefreshSecondsIs(50);  // one that is made stale counts as confirmed a minute ago
  const Lines expected = {"10.0.0.2 " + host + " reachable 0", "10.0.0.3 00:00:00:00:00:00 failed 0",
                          "10.0.0.4 00:00:00:00:00:00 failed 110", "10.0.0.5 02:00:00:00:00:01 reachable 0",
                          "10.0.0.6 02:00:00:00:00:01 permanent 0"};
  Lines now;
  rig->becomes([&] {
    now = inRed([] { return neighbours("vlan10"); });
    return now == expected;
  });
  EXPECT_EQ(now, expected);
  EXPECT_EQ(rig->status->vrf("red")->probes(), 3U);
}

}  // namespace
}  // namespace ArpService
