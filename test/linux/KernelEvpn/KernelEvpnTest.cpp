#include "KernelEvpn/KernelEvpnAgent.h"

#include <linux/neighbour.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include "Switch/Problems.h"
#include "linux/KernelState/Fixture.h"

namespace KernelEvpn {
namespace {

using KernelState::AgentRig;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr char kPath[] = "arpSuppression/remoteBindingConfig/evpn";
const std::string kMac = "02:00:00:00:00:";  // and the host's number

Netlink::FakeNeighbour route(const std::string& host, std::uint8_t protocol = 11) {
  return {kMac + host, NUD_NOARP, NTF_EXT_LEARNED, protocol};
}

// VLAN 10 is bridge vlan10; VLANs 20 and 30 are on br0, where VLAN 20 has a device.
class Feed : public testing::Test {
 protected:
  Feed() {
    kernel.in().addLink("vlan10", 10);
    kernel.in().filtersVlans("vlan10", false);
    kernel.in().addLink("br0", 20);
    kernel.in().filtersVlans("br0", true);
    kernel.in().addVlan("any", 21, 20, 20);
  }
  void starts(Switch::EvpnFeed feed = Switch::EvpnFeed::kernel) {
    rig = std::make_unique<AgentRig>(clock, tables.directory());
    rig->vlanIs(10, "vlan10");
    rig->vlanIs(20, "br0");
    rig->config()->evpn()->feedIs(feed);
    bindingsAre(configured);
    const auto started = kernelEvpnAgentFactory("KernelEvpn");
    rig->start(started);
    agent = started.get();
    group = rig->sharedMemory()->mountGroup();
    ASSERT_TRUE(
        group->mountIs(kPath, "ArpSuppression::RemoteBindingConfig", Memtab::MountDescriptor::reader()));
    group->close();
    settle();
  }
  void settle() { ASSERT_TRUE(rig->settle()); }
  void bindingsAre(const Switch::RemoteBindings& bindings) {
    configured = bindings;
    const auto all = Mox::make<Switch::EvpnConfig::Bindings>();
    all->all = bindings;
    rig->config()->evpn()->bindingsIs(Mox::Ptr<const Switch::EvpnConfig::Bindings>(all));
  }
  static Switch::RemoteBindings binding(std::uint16_t vlanId, const std::string& ip,
                                        const std::string& host) {
    RemoteBindingKey key;
    key.vlanId = Bridging::VlanId(vlanId);
    key.ipAddress = *Lanix::IpGenAddr::fromStrep(ip);
    return {{key, {*Lanix::EthAddr::fromStrep(kMac + host)}}};
  }
  // "VLAN IP host source", sorted.
  std::vector<std::string> bindings() {
    std::vector<std::string> lines;
    rig->table<RemoteBindingConfig>(kPath)->remoteBindingForEach([&](const auto& key, const auto& value) {
      const bool isFeed = value.source == ArpSuppression::BindingSource::feed;
      lines.push_back(Mox::toStrep(key) + " " + value.macAddress.toStrep().substr(kMac.size()) +
                      (value.router ? " router" : "") + (isFeed ? "" : " people"));
    });
    std::ranges::sort(lines);
    return lines;
  }
  std::vector<std::string> problems() {
    std::vector<std::string> subjects;
    for (const auto& [key, problem] : rig->at<Switch::Problems>(Switch::kProblemsPath)->problemCollection())
      subjects.push_back(problem->subject());
    return subjects;
  }

  // What the feed says of itself, but for its protocols and its name.
  std::string status() const {
    char path[] = "/tmp/feed-XXXXXX";
    const int file = mkstemp(path);
    unlink(path);
    agent->agentCommand("", "feed")->handleCommand(file, {});
    char text[512] = {};
    EXPECT_GT(pread(file, text, sizeof text - 1, 0), 0);
    close(file);
    const std::string all = text;
    return all.substr(all.find("\"ready\""), all.rfind('}') - all.find("\"ready\""));
  }

  Netlink::FakeKernel kernel;
  Orb::ManualClock clock;
  KernelState::ScratchTables tables;
  Switch::RemoteBindings configured;
  std::unique_ptr<AgentRig> rig;
  Plugin::AgentBase* agent = nullptr;  // the rig has it
  Mox::Ptr<Memtab::MountGroup> group;
};

TEST_F(Feed, takesWhatTheRoutingDaemonKnowsOfConfiguredVlans) {
  kernel.in().addNeighbour("vlan10", "10.0.0.1", route("01"));
  kernel.in().addNeighbour("vlan10", "fe80::1", route("02", 186));
  starts();
  EXPECT_TRUE(group->ready());
  EXPECT_THAT(bindings(), ElementsAre("10 10.0.0.1 01", "10 fe80::1 02"));
  // Of others, of no host, without a station, of devices that are no VLAN's.
  kernel.in().addNeighbour("vlan10", "10.0.0.2", {kMac + "02", NUD_REACHABLE, 0, 11});
  kernel.in().addNeighbour("vlan10", "10.0.0.3", route("03", 4));
  kernel.in().addNeighbour("vlan10", "10.0.0.4", {"", NUD_NOARP, NTF_EXT_LEARNED, 11});
  kernel.in().addNeighbour("vlan10", "10.0.0.5", {kMac + "05", NUD_FAILED, NTF_EXT_LEARNED, 11});
  kernel.in().addNeighbour("vlan10", "127.0.0.1", route("06"));
  kernel.in().addNeighbour("vlan10", "224.0.0.1", route("07"));
  kernel.in().addNeighbour("br0", "10.0.0.8", route("08"));
  kernel.in().addNeighbour("any", "10.0.0.9", route("09"));
  settle();
  EXPECT_THAT(bindings(), ElementsAre("10 10.0.0.1 01", "10 fe80::1 02", "20 10.0.0.9 09"));
  clock.advance(2);
  settle();
  EXPECT_THAT(problems(), ElementsAre("addresses of the feed"));
  EXPECT_EQ(status(),
            R"("ready":true,"ipv4":2,"ipv6":1,"refused":2,"readings":1,"overruns":0,"readingAgeSeconds":2)");
  // A router is one, until it says otherwise, and only by IPv6.
  for (const char* ip : {"10.0.0.1", "fe80::1"})
    kernel.in().addNeighbour("vlan10", ip, {kMac + "01", NUD_NOARP, NTF_EXT_LEARNED | NTF_ROUTER, 11});
  settle();
  EXPECT_THAT(bindings(), ElementsAre("10 10.0.0.1 01", "10 fe80::1 01 router", "20 10.0.0.9 09"));
  kernel.in().addNeighbour("vlan10", "fe80::1", route("01"));
  settle();
  EXPECT_THAT(bindings(), ElementsAre("10 10.0.0.1 01", "10 fe80::1 01", "20 10.0.0.9 09"));
  // A move is one write; withdrawn in two ways.
  kernel.in().addNeighbour("vlan10", "10.0.0.1", route("11"));
  kernel.in().delNeighbour("vlan10", "127.0.0.1");
  kernel.in().delNeighbour("vlan10", "224.0.0.1");
  kernel.in().addNeighbour("vlan10", "fe80::1", {kMac + "02", NUD_FAILED, NTF_EXT_LEARNED, 186});
  kernel.in().delNeighbour("any", "10.0.0.9");
  settle();
  clock.advance(2);
  settle();
  EXPECT_THAT(bindings(), ElementsAre("10 10.0.0.1 11"));
  EXPECT_THAT(problems(), IsEmpty());
}

TEST_F(Feed, isPassedOverWhereAMessageIsMalformed) {
  starts();
  const auto tell = [&](std::size_t ipBytes, std::size_t macBytes) {
    ndmsg header{};
    header.ndm_family = AF_INET;
    header.ndm_ifindex = 10;
    header.ndm_state = NUD_NOARP;
    header.ndm_flags = NTF_EXT_LEARNED;
    const std::vector<std::byte> bytes(32, std::byte{2});
    kernel.in().tell(std::move(Netlink::Message(RTM_NEWNEIGH)
                                   .header(header)
                                   .bytes(NDA_DST, std::span(bytes).first(ipBytes))
                                   .bytes(NDA_LLADDR, std::span(bytes).first(macBytes))
                                   .u8(NDA_PROTOCOL, 11)));
  };
  for (const std::size_t wrong : std::initializer_list<std::size_t>{0, 3, 5, 7, 20}) {
    tell(4, wrong);
    tell(wrong, 6);
  }
  settle();
  EXPECT_THAT(bindings(), IsEmpty());
  tell(4, 6);
  settle();
  EXPECT_THAT(bindings(), ElementsAre("10 2.2.2.2 02"));
}

TEST_F(Feed, liesOverTheConfiguredBindings) {
  configured = binding(10, "10.0.0.1", "aa");
  kernel.in().addNeighbour("vlan10", "10.0.0.1", route("01"));
  starts();
  EXPECT_THAT(bindings(), ElementsAre("10 10.0.0.1 01"));
  std::vector<bool> seen;
  Mox::Notifiee<RemoteBindingConfig> watch(rig->table<RemoteBindingConfig>(kPath));
  watch.on(RemoteBindingConfig::remoteBindingChanged, [&](const RemoteBindingKey& key) {
    seen.push_back(watch->remoteBinding(key).source == ArpSuppression::BindingSource::feed);
  });
  kernel.in().delNeighbour("vlan10", "10.0.0.1");
  settle();
  EXPECT_THAT(bindings(), ElementsAre("10 10.0.0.1 aa people"));
  kernel.in().addNeighbour("vlan10", "10.0.0.1", route("01"));
  settle();
  EXPECT_THAT(bindings(), ElementsAre("10 10.0.0.1 01"));
  EXPECT_THAT(seen, ElementsAre(false, true));
  // The configuration changes: what it says of the key, the feed, and that there is one.
  bindingsAre(binding(10, "10.0.0.2", "bb"));
  rig->config()->evpn()->protocolsIs({186});
  settle();
  EXPECT_THAT(bindings(), ElementsAre("10 10.0.0.2 bb people"));
  rig->config()->evpn()->protocolsIs({11});
  settle();
  EXPECT_THAT(bindings(), ElementsAre("10 10.0.0.1 01", "10 10.0.0.2 bb people"));
  rig->config()->evpn()->feedIs(Switch::EvpnFeed::none);
  settle();
  EXPECT_EQ(kernel.openSources(), 0);
  EXPECT_THAT(bindings(), ElementsAre("10 10.0.0.2 bb people"));
  rig->config()->evpn()->feedIs(Switch::EvpnFeed::kernel);
  settle();
  EXPECT_THAT(bindings(), ElementsAre("10 10.0.0.1 01", "10 10.0.0.2 bb people"));
  // All of them change, more than one step takes.
  for (const char* host : {"cc", "dd"}) {
    Switch::RemoteBindings many;
    for (int i = 0; i < 200; ++i) many.merge(binding(10, "10.0.1." + std::to_string(i), host));
    bindingsAre(many);
    settle();
    const auto is = [&](const std::string& line) { return line.ends_with(std::string(host) + " people"); };
    EXPECT_EQ(std::ranges::count_if(bindings(), is), 200) << host;
  }
}

TEST_F(Feed, followsDevicesAndVlans) {
  kernel.in().addNeighbour("vlan10", "10.0.0.1", route("01"));
  kernel.in().addNeighbour("any", "10.0.0.2", route("02"));
  starts();
  const std::vector<std::string> both{"10 10.0.0.1 01", "20 10.0.0.2 02"};
  const struct {
    const char* what;
    std::function<void()> happens;
    std::vector<std::string> then;
  } steps[] = {
      {"a bridge is renamed", [&] { kernel.in().renameLink("vlan10", "other"); }, {both[1]}},
      {"and back", [&] { kernel.in().renameLink("other", "vlan10"); }, both},
      {"one stops filtering VLANs", [&] { kernel.in().filtersVlans("br0", false); }, {both[0]}},
      {"and filters again", [&] { kernel.in().filtersVlans("br0", true); }, both},
      {"a VLAN's device has another name", [&] { kernel.in().renameLink("any", "vlan20"); }, both},
      {"a VLAN goes", [&] { rig->config()->vlanDel(Bridging::VlanId(10)); }, {both[1]}},
      {"and comes", [&] { rig->vlanIs(10, "vlan10"); }, both},
      {"a VLAN without device comes", [&] { rig->vlanIs(30, "br0"); }, both},
      {"a device goes", [&] { kernel.in().delLink("vlan20"); }, {both[0]}},
  };
  for (const auto& step : steps) {
    SCOPED_TRACE(step.what);
    step.happens();
    settle();
    clock.advance(2);
    settle();
    EXPECT_EQ(bindings(), step.then);
  }
  EXPECT_THAT(problems(), ElementsAre("VLAN 20", "VLAN 30"));
}

TEST_F(Feed, isReadAgainWhenNotificationsWereLost) {
  kernel.in().addNeighbour("vlan10", "10.0.0.1", route("01"));
  kernel.in().addNeighbour("vlan10", "10.0.0.2", route("02"));
  starts();
  kernel.in().loses();
  kernel.in().delNeighbour("vlan10", "10.0.0.1");
  kernel.in().addNeighbour("vlan10", "10.0.0.3", route("03"));
  kernel.in().overrun();
  kernel.in().disturbs(Netlink::Table::neighbours, 1);
  settle();
  EXPECT_THAT(bindings(), ElementsAre("10 10.0.0.2 02", "10 10.0.0.3 03"));
  EXPECT_EQ(status(),
            R"("ready":true,"ipv4":2,"ipv6":0,"refused":0,"readings":2,"overruns":1,"readingAgeSeconds":0)");
}

// What is there may be the feed's word, and what is not there yet may come.
TEST_F(Feed, waitsForTheFirstReadingBeforeItTakesAnythingAway) {
  kernel.in().addNeighbour("vlan10", "10.0.0.1", route("01"));
  kernel.in().addNeighbour("vlan10", "10.0.0.2", route("02"));
  starts();
  rig = nullptr;
  kernel.in().delNeighbour("vlan10", "10.0.0.2");
  configured = binding(10, "10.0.0.1", "aa");
  configured.merge(binding(10, "10.0.0.4", "bb"));
  kernel.in().refuses(Netlink::Table::neighbours, ENOBUFS);
  starts();
  EXPECT_THAT(bindings(), ElementsAre("10 10.0.0.1 01", "10 10.0.0.2 02", "10 10.0.0.4 bb people"));
  EXPECT_FALSE(group->ready());
  EXPECT_THAT(status(), testing::AllOf(testing::StartsWith("\"ready\":false"), testing::EndsWith(":null")));
  EXPECT_THAT(problems(), ElementsAre("feed"));
  clock.advance(2);
  settle();
  EXPECT_THAT(bindings(), ElementsAre("10 10.0.0.1 01", "10 10.0.0.4 bb people"));
  EXPECT_TRUE(group->ready());
  EXPECT_THAT(problems(), IsEmpty());
}

TEST_F(Feed, refusesTheSwitchsOwnAddresses) {
  kernel.in().addNeighbour("vlan10", "10.0.0.1", route("01"));
  starts();
  const auto ip = Mox::dynamicPtrCast<Ip::Status>(*rig->tree()->entityIs("ip/status", "Ip::Status"));
  const auto vlan10 = ip->ipIntfStatusIs(Lanix::IntfId::fromName("Vlan10"));
  vlan10->vrfNameIs("default");
  vlan10->activeAddrIs(*Lanix::IpGenPrefix::fromStrep("10.0.0.1/24"));
  settle();
  EXPECT_THAT(bindings(), IsEmpty());
  vlan10->activeAddrIs(*Lanix::IpGenPrefix::fromStrep("10.0.0.254/24"));
  settle();
  EXPECT_THAT(bindings(), ElementsAre("10 10.0.0.1 01"));
}

}  // namespace
}  // namespace KernelEvpn
