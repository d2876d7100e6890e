#include <malloc.h>

#include <cstring>

#include "Lanix/Wire.h"
#include "Mox/Error.h"
#include "Orb/FeatureSwitch.h"
#include "Rig.h"
#include "Tracelet/Reader.h"
#include "Tracelet/Tracelet.h"

namespace ArpSuppression {
namespace {

using Type = Bridging::EntryType;

constexpr char kA[] = "02:00:00:00:00:0a";
constexpr char kB[] = "02:00:00:00:00:0b";
constexpr char kBridge[] = "02:00:00:00:be:ef";
constexpr char kShared[] = "00:00:5e:00:01:01";

// A running switch with a second VLAN, 20, in the VRF blue, and the shared gateway MAC set.
class Discovery : public testing::Test {
 public:
  Discovery() {
    rig.vrf("blue", 6);
    rig.vlanInterface(20, "blue", 8, "10.0.20.1/24");
    rig.evpn()->vlanToDot1qIs(Vlan(20), 20);
    rig.namespaces.deviceIs("red", "vlan10", Rig::kVlan10);
    rig.namespaces.deviceIs("blue", "vlan20", 8);
    shared().vgwVirtualMacIs(mac(kShared));
    rig.start();
    trace.emplace(Tracelet::fileName());  // which the agent has begun, unless a test before has
    takeCounters();
    told();
  }
  ~Discovery() override { EXPECT_EQ(rig.errors, ""); }

  Routing::Fhrp::VirtualRouterMacStatus& shared() {
    return *rig.state<Routing::Fhrp::VirtualRouterMacStatus>("routing/fhrp/vrMacStatus");
  }
  Memtab::Bridging::Status& fdb() { return *rig.table<Memtab::Bridging::Status>("bridging/status"); }
  BindingDiscoverySm& sm() { return *rig.rootSm()->bindingDiscoverySm(); }
  LocalBindingRecord& record() { return *rig.root()->localBindingRecord; }
  void fdbIs(std::uint32_t vlan, const char* macText, Type type, const char* port = "Ethernet1") {
    rig.fdb(static_cast<Bridging::Fid>(vlan), macText, type, port);
    rig.settle();
  }
  // "red 10.0.0.10 10/a": VRF, address, interface if any, VLAN and last byte of the station.
  std::vector<std::string> bindings() {
    std::vector<std::string> texts;
    std::size_t members = 0;
    for (const Ptr<LocalBinding>& binding : record().bindingCollection()) {
      const auto& [vrfInfo, ipAddress, intfId] = binding->vrfIpAddress();
      const auto& station = binding->vlanIdMacAddress();
      texts.push_back(vrfInfo->vrfName() + " " + ipAddress.toStrep() + " " + intfId.toStrep() +
                      (intfId == Lanix::IntfId() ? "" : " ") + station.vlanId.toStrep() + "/" +
                      station.macAddress.toStrep().substr(16));
      const auto ofMac = record().macToIp(station);
      EXPECT_TRUE(ofMac && ofMac->binding(binding->vrfIpAddress()) == binding) << texts.back();
    }
    for (const Ptr<LocalMacToIp>& ofMac : record().macToIpCollection()) members += ofMac->bindings();
    EXPECT_EQ(members, record().bindings());
    return texts;
  }
  // The events of local bindings since the last call.
  std::vector<std::string> told() {
    std::vector<std::string> texts;
    while (const auto line = trace->next()) {
      const std::size_t at = line->find(" event ");
      if (at != std::string::npos && line->find(" table=local ") != std::string::npos)
        texts.push_back(line->substr(at + 7));
    }
    return texts;
  }
  std::string takeCounters() { return rig.takeCounters(Rig::Of::discovery); }

  Rig rig;
  std::optional<Tracelet::Reader> trace;
};

TEST_F(Discovery, senders_are_learned_in_order_once_and_follow_the_latest_claim) {
  std::vector<std::string> events;
  Mox::Notifiee<ArpInputConfigTrigger> trigger(rig.root()->arpInputConfigTrigger);
  trigger.on(ArpInputConfigTrigger::triggerChanged, [&] {
    events.push_back(trigger->vrfIpAddress().ipAddress.toStrep() + (trigger->suppressionEvent() ? "!" : ""));
  });
  // One batch: the first claim, its repetition, another station's, and the first one's again.
  for (const char* sender : {kA, kA, kB, kA})
    rig.sockets.device(Rig::kArpsnoop).receives(Trapped{.senderMac = sender}.frame());
  rig.settle();
  EXPECT_EQ(takeCounters(), "localBindingCreated=3 localBindingAlreadyPresent=1");
  EXPECT_THAT(bindings(), ElementsAre("red 10.0.0.10 10/a"));
  EXPECT_THAT(events, ElementsAre("10.0.0.10")) << "only what was there is asked for";

  const std::string of = " table=local vlan=10 ip=10.0.0.10 mac=";
  EXPECT_THAT(told(),
              ElementsAre(testing::MatchesRegex("learned" + of + kA + " interface=.* text="),
                          testing::MatchesRegex("moved" + of + kB + ".* text=was " + kA + " on VLAN 10"),
                          testing::MatchesRegex("moved" + of + kA + ".* text=was " + kB + " on VLAN 10")));

  // It moves to another VLAN of its VRF, and back.
  rig.vlanInterface(30, "red", 12, "10.0.30.1/24");
  rig.evpn()->vlanToDot1qIs(Vlan(30), 30);
  rig.settle();
  for (const std::uint32_t vlan : {30u, 10u}) {
    rig.trap(Trapped{.vlan = vlan});
    EXPECT_THAT(bindings(), ElementsAre("red 10.0.0.10 " + std::to_string(vlan) + "/a"));
  }

  rig.trap(Trapped{.senderIp = "10.0.0.11"});
  rig.trap(Trapped{.vlan = 20});
  for (const std::uint32_t vlan : {10u, 20u}) {
    sm().createLocalBinding(Vlan(vlan), ip("fe80::1"), mac(kA), true);
    sm().createLocalBinding(Vlan(vlan), ip("2001:db8::1"), mac(kA), true);
  }
  EXPECT_THAT(bindings(),
              UnorderedElementsAre("red 10.0.0.10 10/a", "red 10.0.0.11 10/a", "blue 10.0.0.10 20/a",
                                   "red fe80::1 Vlan10 10/a", "blue fe80::1 Vlan20 20/a",
                                   "red 2001:db8::1 10/a", "blue 2001:db8::1 20/a"));
  fdbIs(20, kA, Type::evpnLearned, "core10");
  const std::vector<std::string> last = told();
  ASSERT_FALSE(last.empty());
  EXPECT_THAT(last.back(),
              testing::MatchesRegex("withdrawn table=local vlan=20 .* text=its station is no longer .*"));
}

TEST_F(Discovery, what_cannot_be_a_host_is_counted_and_not_learned) {
  rig.noVlanInterface(20);
  rig.settle();
  const struct {
    std::uint16_t vlan;
    const char* address;
    const char* station;
    const char* counter;
  } kCases[] = {
      {10, "10.0.0.10", "00:00:00:00:00:00", "discoveryBadMac"},
      {10, "10.0.0.10", "ff:ff:ff:ff:ff:ff", "discoveryBadMac"},
      {10, "10.0.0.10", "01:00:5e:00:00:05", "discoveryBadMac"},
      {10, "0.0.0.0", kA, "discoveryBadIp"},
      {10, "224.0.0.5", kA, "discoveryBadIp"},
      {10, "::", kA, "discoveryBadIp"},
      {10, "ff02::1", kA, "discoveryBadIp"},
      {10, nullptr, kA, "discoveryBadIp"},
      {10, "10.0.0.10", kBridge, "discoveryBridgeMac"},
      {10, "10.0.0.10", kShared, "discoveryVirtualRouterMac"},
      {20, "10.0.0.10", kA, "discoveryNoVlanL3Info"},
      {30, "10.0.0.10", kA, "discoveryNoVlanL3Info"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(testing::Message() << c.vlan << ' ' << (c.address ? c.address : "") << ' ' << c.station);
    sm().createLocalBinding(Vlan(c.vlan), c.address ? ip(c.address) : Lanix::IpGenAddr(), mac(c.station),
                            true);
    EXPECT_EQ(takeCounters(), std::string(c.counter) + "=1");
  }
  rig.trap(Trapped{.senderIp = "0.0.0.0"});
  EXPECT_EQ(takeCounters(), "discoveryBadIp=1") << "a probe, off the wire";
  EXPECT_THAT(bindings(), IsEmpty());
}

TEST_F(Discovery, station_keeps_its_addresses_when_it_moves_here_and_loses_them_when_it_leaves) {
  const char* kInherited = "discoveryLocalMacHasRemoteBindings=1 localBindingCreated=2";
  rig.remoteBinding(10, "10.0.0.50", kA);
  rig.remoteBinding(10, "2001:db8::50", kA);
  rig.evpn()->segmentStatusIs(intf("Ethernet2"));
  rig.settle();
  fdbIs(10, kA, Type::learnedDynamic, "Ethernet2");
  EXPECT_EQ(takeCounters(), "") << "on an Ethernet segment";
  fdbIs(20, kA, Type::learnedDynamic);
  fdbIs(10, kB, Type::learnedDynamic);
  EXPECT_EQ(takeCounters(), "") << "another VLAN, another station";
  for (const Type here : {Type::learnedDynamic, Type::staticEntry}) {
    for (const Type gone : {Type::evpnLearned, Type::remote, Type::none}) {
      SCOPED_TRACE(testing::Message() << static_cast<int>(here) << " to " << static_cast<int>(gone));
      fdbIs(10, kA, here);
      EXPECT_EQ(takeCounters(), kInherited);
      EXPECT_THAT(bindings(), UnorderedElementsAre("red 10.0.0.50 10/a", "red 2001:db8::50 10/a"));
      rig.trap(Trapped{.senderIp = "10.0.0.51"});
      takeCounters();
      if (gone == Type::none) {
        fdb().fdbDel({10, mac(kA)});
        rig.settle();
      } else {
        fdbIs(10, kA, gone);
      }
      EXPECT_EQ(takeCounters(), "localBindingDeleted=3");
      EXPECT_THAT(bindings(), IsEmpty());
    }
  }
  // The other switch withdraws what moved here; a later advertisement takes it back, whoever has it.
  fdbIs(10, kA, Type::learnedDynamic);
  rig.noRemoteBinding(10, "10.0.0.50");
  rig.settle();
  EXPECT_EQ(record().bindings(), 2u);
  rig.remoteBinding(10, "10.0.0.50", kB);
  rig.settle();
  EXPECT_THAT(bindings(), ElementsAre("red 2001:db8::50 10/a"));
  EXPECT_EQ(takeCounters(), std::string(kInherited) + " localBindingDeleted=1");
}

TEST_F(Discovery, mac_table_key_that_is_no_vlan_costs_nothing_but_itself) {
  rig.remoteBinding(10, "10.0.0.50", kA);
  rig.settle();
  for (const std::uint32_t fid : {0u, 4095u, 65535u})
    rig.fdb(static_cast<Bridging::Fid>(fid), kA, Type::learnedDynamic, "Ethernet1");
  fdbIs(10, kA, Type::learnedDynamic);
  EXPECT_THAT(bindings(), ElementsAre("red 10.0.0.50 10/a"));
  EXPECT_THAT(std::exchange(rig.errors, ""), HasSubstr("Bridging::VlanId::value < 1 or > 4094 not allowed"));
}

TEST_F(Discovery, multihomed_host_is_left_to_the_peer_that_advertises_it) {
  const struct {
    const char* what;
    bool segment, remoteDf, multihomed;
    const char* remoteMac;
    std::uint32_t ifIndex;
    bool feature;
    bool learned;
  } kCases[] = {
      {"advertised by the peer", true, false, true, kA, Rig::kEthernet1, true, false},
      {"the peer is the forwarder too", true, true, true, kA, Rig::kEthernet1, true, false},
      {"not advertised", true, false, false, nullptr, Rig::kEthernet1, true, true},
      {"not advertised, the peer forwards", true, true, false, nullptr, Rig::kEthernet1, true, true},
      {"with another station", true, false, true, kB, Rig::kEthernet1, true, true},
      {"from somewhere else", true, false, false, kA, Rig::kEthernet1, true, true},
      {"single-homed", false, false, true, kA, Rig::kEthernet1, true, true},
      {"from an unknown port", true, false, true, kA, 77, true, true},
      {"switched off", true, false, true, kA, Rig::kEthernet1, false, true},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.what);
    const auto before = Orb::FeatureSwitch::sourceIs(
        [&](const std::string& group, const std::string& name) -> std::optional<bool> {
          EXPECT_EQ(group + " " + name, "ArpSuppression.json LocalMultihomeSelectiveArpInstall");
          return c.feature;
        });
    if (c.segment) {
      const auto segment = rig.evpn()->segmentStatusIs(intf("Ethernet1"));
      if (c.remoteDf) segment->designatedForwarderTepIs(Vlan(10), intf("Tep1"));
    }
    if (c.remoteMac) rig.remoteBinding(10, "10.0.0.10", c.remoteMac, c.multihomed);
    rig.settle();
    rig.trap(Trapped{.ifIndex = c.ifIndex});
    EXPECT_EQ(takeCounters(), c.learned ? "localBindingCreated=1" : "discoveryLocalMultihomed=1");
    Orb::FeatureSwitch::sourceIs(before);
    rig.evpn()->segmentStatusDelAll();
    rig.noRemoteBinding(10, "10.0.0.10");
    rig.settle();
    ASSERT_EQ(record().bindings(), c.learned ? 1U : 0U);
    if (c.learned) sm().deleteLocalBinding(*record().bindingCollection().begin(), "the test");
    takeCounters();
  }
}

// The reply of host A, 10.0.0.10, to the shared MAC.
TestSupport::Frame reply(std::size_t size = 42) {
  auto frame = TestSupport::frameOf({0, 0, 0x5e, 0, 1, 1,    2,  0, 0, 0,  0, 0x0a, 8, 6,  //
                                     0, 1, 8,    0, 6, 4,    0,  2,                        //
                                     2, 0, 0,    0, 0, 0x0a, 10, 0, 0, 10,                 //
                                     0, 0, 0x5e, 0, 1, 1,    10, 0, 0, 1});
  frame.resize(size);
  return frame;
}

TEST_F(Discovery, listener_learns_from_the_one_right_frame_only) {
  auto* const listener = sm().vgwReplySm(Vlan(10));
  ASSERT_NE(listener, nullptr);
  const auto outcome = [&](const TestSupport::Frame& frame) {
    const auto pkt = Lanix::PktManager::global().newPktWithHeadData(frame.size());
    std::copy(frame.begin(), frame.end(), pkt->headData().begin());
    listener->processPacket(pkt);
    return takeCounters();
  };
  for (std::size_t size = 0; size <= 61; ++size) {
    EXPECT_EQ(outcome(reply(size)), size < 42    ? "vgwReplyMalformed=1"
                                    : size == 42 ? "localBindingCreated=1 vgwReplyAccepted=1"
                                                 : "vgwReplyExtraData=1")
        << size;
  }
  EXPECT_THAT(bindings(), ElementsAre("red 10.0.0.10 10/a"));
  const struct {
    std::size_t offset;
    unsigned value;
    const char* counters;
  } kCases[] = {
      {12, 9, "vgwReplyMalformed=1"},
      {13, 7, "vgwReplyMalformed=1"},
      {15, 2, "vgwReplyMalformed=1"},
      {16, 9, "vgwReplyMalformed=1"},
      {18, 5, "vgwReplyMalformed=1"},
      {19, 16, "vgwReplyMalformed=1"},
      {21, 1, "vgwReplyNotReply=1"},
      {20, 1, "vgwReplyNotReply=1"},
      {37, 2, "vgwReplyNotVirtualMac=1"},
      {22, 1, "discoveryBadMac=1 vgwReplyAccepted=1"},
      {28, 230, "discoveryBadIp=1 vgwReplyAccepted=1"},
      {0, 0xff, "localBindingAlreadyPresent=1 vgwReplyAccepted=1"},
  };
  for (const auto& c : kCases) {
    auto frame = reply();
    frame[c.offset] = static_cast<std::byte>(c.value);
    EXPECT_EQ(outcome(frame), c.counters) << c.offset;
  }
}

TEST_F(Discovery, listeners_are_open_exactly_where_and_while_the_vlan_is_usable) {
  const auto heard = [&](std::uint32_t ifIndex) {
    const int delivered = rig.sockets.device(ifIndex).receives(reply());
    rig.settle();
    const bool learned = takeCounters() == "localBindingCreated=1 vgwReplyAccepted=1";
    while (record().bindings() != 0) record().deleteLocalBinding(*record().bindingCollection().begin());
    EXPECT_EQ(delivered, learned) << "at most one listener, and it works";
    return learned;
  };
  const auto step = [&](auto change) {
    change();
    rig.settle();
  };
  EXPECT_TRUE(heard(Rig::kVlan10));
  EXPECT_TRUE(heard(8));
  const auto* const before = sm().vgwReplySm(Vlan(10));
  step([&] { rig.root()->vlanL3InfoStatus->vlanUpdated(Vlan(10)); });
  EXPECT_EQ(sm().vgwReplySm(Vlan(10)), before) << "announced without a change";

  step([&] { shared().vgwVirtualMacIs({}); });
  EXPECT_FALSE(heard(Rig::kVlan10));
  EXPECT_EQ(sm().vgwReplySms(), 0u);
  step([&] { shared().vgwVirtualMacIs(mac(kShared)); });
  EXPECT_TRUE(heard(Rig::kVlan10));

  step([&] {
    rig.namespaces.deviceIs("red", "vlan10", 9);
    rig.device("red", "vlan10", 9);
  });
  EXPECT_FALSE(heard(Rig::kVlan10)) << "another device of the same name";
  EXPECT_TRUE(heard(9));
  step([&] { rig.device("red", "vlan10", 0); });
  EXPECT_FALSE(heard(9));
  step([&] { rig.device("red", "vlan10", 9); });
  EXPECT_TRUE(heard(9));

  step([&] { rig.vrf("red", 5, Ip::VrfState::inactive); });
  EXPECT_FALSE(heard(9));
  // It comes back in another namespace, where the device has the same index.
  rig.namespaces.has("red2");
  rig.namespaces.deviceIs("red2", "vlan10", 9);
  rig.device("red2", "vlan10", 9);
  step([&] {
    auto vrf = rig.state<Ip::AllVrfStatusLocal>("ip/vrf/status/local")->vrf("red");
    vrf->networkNamespaceIs("red2");
    vrf->stateIs(Ip::VrfState::active);
  });
  EXPECT_TRUE(heard(9));
  step([&] {
    rig.namespaces.deviceIs("red", "vlan10", 9);
    auto vrf = rig.state<Ip::AllVrfStatusLocal>("ip/vrf/status/local")->vrf("red");
    vrf->stateIs(Ip::VrfState::inactive);  // and back, in one turn
    vrf->networkNamespaceIs("red");
    vrf->stateIs(Ip::VrfState::active);
  });
  EXPECT_EQ(rig.namespaces.inside(), "default");
  EXPECT_TRUE(heard(9));
  EXPECT_THAT(rig.command("showTechSupport"), HasSubstr("vgwReplySm #2\n    BindingDiscoveryVgwReplySm\n"
                                                        "    vlanL3Info=<vrfName=red vlanId=10>\n"
                                                        "      SafeEthDevPam\n      deviceName=vlan10\n"
                                                        "      netNs=red\n      enabled=true\n"));

  rig.namespaces.deviceIs("blue", "vlan10", 9);  // the same index once more
  step([&] {
    rig.device("red", "vlan10", 0);
    rig.vlanInterface(10, "blue", 9);
  });
  EXPECT_TRUE(heard(9));
  step([&] { rig.noVlanInterface(10); });
  EXPECT_FALSE(heard(9));
  EXPECT_EQ(sm().vgwReplySms(), 1u);
  rig.evpn()->mplsConfiguredIs(false);
  EXPECT_EQ(rig.sockets.openSockets(), 0);
}

TEST_F(Discovery, listener_waits_for_its_device_and_stops_waiting_when_it_is_not_wanted) {
  rig.namespaces.deviceIs("red", "vlan10", 0);
  rig.device("red", "vlan10", 5);  // known to the kernel's state before the device can be opened
  rig.settle();
  const auto boundAt = [&](double seconds) {
    rig.clock.advance(seconds);
    rig.settle();
    return rig.sockets.device(5).bound();
  };
  EXPECT_EQ(boundAt(5), 0);
  rig.sockets.fails(TestSupport::FakePacketSockets::Call::bind, ENETDOWN);
  rig.namespaces.deviceIs("red", "vlan10", 5);
  EXPECT_EQ(boundAt(4.999), 0);
  EXPECT_EQ(boundAt(0.001), 0) << "refused this time";
  EXPECT_EQ(boundAt(5), 1);
  rig.clock.advance(100);
  EXPECT_FALSE(rig.turn()) << "no further attempt";

  rig.namespaces.deviceIs("red", "vlan10", 0);
  rig.device("red", "vlan10", 0);
  rig.settle();
  rig.device("red", "vlan10", 5);
  rig.settle();
  shared().vgwVirtualMacIs({});
  rig.namespaces.deviceIs("red", "vlan10", 5);
  EXPECT_EQ(boundAt(5), 0);
}

TEST_F(Discovery, replies_are_drained_in_slices) {
  rig.tasks().mustYieldForTestIs([] { return true; });
  for (unsigned host = 1; host <= 20; ++host) {
    auto frame = reply();
    frame[31] = static_cast<std::byte>(host);
    EXPECT_EQ(rig.sockets.device(Rig::kVlan10).receives(frame), 1);
  }
  // One of them is met by an error, which the others do not pay for.
  Mox::Notifiee<LocalBindingRecord> raises{Ptr<LocalBindingRecord>(&record())};
  raises.on(LocalBindingRecord::bindingChanged, [](const VrfIpAddress& key) {
    if (key.ipAddress == ip("10.0.0.7")) throw Mox::RangeError("raised by the test");
  });
  rig.settle();
  EXPECT_EQ(takeCounters(), "localBindingCreated=19 vgwReplyAccepted=20");
  EXPECT_EQ(std::exchange(rig.errors, ""), "BindingDiscoveryVgwReplySm: raised by the test\n");
}

TEST_F(Discovery, storm_of_senders_leaves_no_memory_behind) {
  constexpr std::uint32_t kSenders = 10000, kLearned = 4096;
  const auto address = [](std::uint32_t i) { return Lanix::Be32((10u << 24) + 256 + i); };
  std::vector<std::size_t> inUse;
  for (int round = 0; round < 4; ++round) {
    for (std::uint32_t i = 0; i < kSenders; ++i) {
      auto frame = Trapped{}.frame();
      const Lanix::Be32 number = address(i);
      std::memcpy(&frame[40], &number, 4);  // the station's last bytes
      std::memcpy(&frame[44], &number, 4);  // the sender's address
      std::memcpy(&frame[54], &number, 4);  // the target's
      rig.rootSm()->messageTrapSm()->processMessage(frame);
    }
    EXPECT_EQ(rig.takeCounters(Rig::Of::discovery), "localBindingCreated=4096");
    EXPECT_EQ(record().bindings(), kLearned);
    EXPECT_EQ(rig.root()->localRequestRecord->entrys(), kSenders);
    rig.settle();
    rig.reinjected();
    // They all leave, and nobody asks again.
    std::vector<VlanIdMacAddress> stations;
    for (const auto& ofMac : record().macToIpCollection()) stations.push_back(ofMac->vlanIdMacAddress());
    for (const bool there : {true, false}) {
      for (const auto& station : stations) {
        const Bridging::HostKey key{station.vlanId.value(), station.macAddress};
        if (there) {
          fdb().fdbIs(key, {Type::learnedDynamic, intf("Ethernet1")});
        } else {
          fdb().fdbDel(key);
        }
      }
      rig.settle();
    }
    rig.clock.advance(240);
    rig.settle();
    EXPECT_EQ(record().bindings() + record().macToIps() + rig.root()->localRequestRecord->entrys(), 0u);
    EXPECT_EQ(takeCounters(), "localBindingDeleted=4096");
    inUse.push_back(mallinfo2().uordblks);
  }
  EXPECT_LT(inUse[3], inUse[1] + kSenders) << "what pools keep was kept by then";
}

}  // namespace
}  // namespace ArpSuppression
