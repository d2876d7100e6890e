#include <cstring>
#include <fstream>
#include <iterator>
#include <sstream>

#include "Memtab/Layout.h"
#include "Rig.h"
#include "Switch/Forwarding.h"
#include "Switch/Problems.h"
#include "Tracelet/Reader.h"

namespace ArpSuppression {
namespace {

using Bridging::EntryType;
using testing::AllOf;

constexpr char kOtherMac[] = "02:00:00:00:00:64";
constexpr char kBridgeMac[] = "02:00:00:00:be:ef";
constexpr char kVirtualMac[] = "02:00:00:00:00:fe";

TEST(Request, reply_is_right_in_every_byte) {
  Rig rig;
  rig.remoteBinding(10, "10.0.0.99", kHostMac);
  rig.start();
  ASSERT_THAT(rig.publishedVlans(), ElementsAre(10));
  rig.trap(Trapped{});
  const auto expected = TestSupport::frameOf({0x02, 0,    0,    0,  0, 0x0a,         // to the requester
                                              0x02, 0,    0,    0,  0, 0x63,         // from the owner
                                              0x81, 0x00, 0x00, 10,                  // VLAN 10, priority 0
                                              0x08, 0x06,                            // ARP
                                              0,    1,    8,    0,  6, 4,    0,  2,  // Ethernet, IPv4, reply
                                              0x02, 0,    0,    0,  0, 0x63, 10, 0, 0, 99,
                                              0x02, 0,    0,    0,  0, 0x0a, 10, 0, 0, 10});
  EXPECT_THAT(rig.replies(), ElementsAre(expected));
  EXPECT_THAT(rig.reinjected(), IsEmpty());
  EXPECT_EQ(rig.takeCounters(), "replyRemote=1 trappedRequest=1");
}

// Where the owner of the address is in the MAC table, or what else is particular about the switch.
enum Where {
  kNowhere,
  kEvpn,
  kPort,       // another than the requester's
  kPortOfFid,  // in the FID of the VLAN, which is not the VLAN's own number
  kForwarder,  // behind a segment for which this switch is the designated forwarder
  kNonForwarder,
  kNoFabric,
  kNoInterface,
  kExcluded  // by the operator
};

// Who says that 10.0.0.99 is whose, who asks, and what has to come of it.
struct Case {
  const char* name;
  const char* kernel;  // the owner as the kernel knows it, and as EVPN does; null: it does not
  const char* remote;
  Where where;
  Trapped request;
  const char* replyMac;  // null: no reply
  const char* counters;
  char letter = 'U';              // in the trace, of how the owner is attached
  const char* summary = "";       // of `explain`
  const char* outcome = nullptr;  // in the trace, where it is not the last counter
};

constexpr const char* kNone = nullptr;
constexpr char kFlooded[] = "floodedToRemoteTeps=1 trappedRequest=1 reinjected=1";
constexpr char kLocal[] = "noReplyTargetLocal=1 trappedRequest=1";
constexpr char kReplied[] = "replyRemote=1 trappedRequest=1";
constexpr Trapped kRequest{}, kForSwitch{.targetIp = "10.0.0.1"}, kProbe{.senderIp = "0.0.0.0"},
    kAnnouncement{.senderIp = "10.0.0.99"}, kBySwitch{.senderMac = kBridgeMac},
    kByRouter{.senderMac = kVirtualMac}, kOnEthernet2{.ifIndex = Rig::kEthernet2},
    kOnFabric{.ifIndex = Rig::kFabric}, kOnNoPort{.ifIndex = 4711}, kOnCpu{.ifIndex = 40},
    kReply{.operation = 2}, kTagged{.tagged = true, .tag = 20}, kLonger{.extra = 32};

const Case kCases[] = {
    {"unknown target floods", kNone, kNone, kNowhere, kRequest, kNone, kFlooded, 'U',
     "nothing says who has the address"},
    {"kernel entry without a remote binding floods when the MAC is nowhere", kHostMac, kNone, kNowhere,
     kRequest, kNone, kFlooded, 'U', "the kernel knows who has the address"},
    {"the kernel's MAC wins over the remote one", kOtherMac, kHostMac, kNowhere, kRequest, kOtherMac,
     kReplied},
    {"EVPN-learned MAC is remote", kNone, kHostMac, kEvpn, kRequest, kHostMac, kReplied, 'R'},
    {"target on a local port answers itself", kNone, kHostMac, kPort, kRequest, kNone, kLocal, 'S'},
    {"the FID of the VLAN counts", kNone, kHostMac, kPortOfFid, kRequest, kNone, kLocal, 'S'},
    {"own address is left to the switch", kNone, kNone, kNowhere, kForSwitch, kNone,
     "targetIsMine=1 trappedRequest=1"},
    {"probe floods although the binding is known", kNone, kHostMac, kNowhere, kProbe, kNone, kFlooded},
    {"announcement floods", kNone, kHostMac, kNowhere, kAnnouncement, kNone, kFlooded},
    {"an excluded address floods although the binding is known", kNone, kHostMac, kExcluded, kRequest, kNone,
     kFlooded, 'U', "\"neverAnswer\\\" of the configuration has the address"},
    {"an excluded address of its own is left to the switch", kNone, kNone, kExcluded, kForSwitch, kNone,
     "targetIsMine=1 trappedRequest=1"},
    {"the switch asks for an excluded address", kNone, kHostMac, kExcluded, kBySwitch, kNone,
     "replyRemote=1 staticBindingEvent=1 trappedRequest=1"},
    {"designated forwarder leaves it", kNone, kHostMac, kForwarder, kRequest, kNone, kLocal, 'D'},
    {"designated forwarder that asks itself gets a binding", kNone, kHostMac, kForwarder, kBySwitch, kNone,
     "replyMultihomedDf=1 staticBindingEvent=1 trappedRequest=1", 'D'},
    {"not the designated forwarder: answered", kNone, kHostMac, kNonForwarder, kRequest, kHostMac,
     "replyMultihomedNonDf=1 trappedRequest=1", 'N'},
    {"not the designated forwarder, the switch asks, both MACs known: the remote one", kHostMac, kOtherMac,
     kNonForwarder, kBySwitch, kNone, "replyMultihomedNonDf=1 staticBindingEvent=1 trappedRequest=1", 'N'},
    {"not the designated forwarder, the switch asks, only the kernel knows: flooded", kHostMac, kNone,
     kNonForwarder, kBySwitch, kNone, kFlooded, 'N', "the kernel knows who has the address"},
    {"owner on the requester's port", kNone, kHostMac, kNonForwarder, kOnEthernet2, kNone,
     "replyMultihomedNonDf=1 noReplySamePort=1 trappedRequest=1", 'N'},
    {"port without an interface", kNone, kHostMac, kNowhere, kOnFabric, kNone,
     "replyRemote=1 noReplyUnknownSourcePort=1 trappedRequest=1"},
    {"port that nobody knows", kNone, kHostMac, kNowhere, kOnNoPort, kNone,
     "replyRemote=1 noReplyUnknownSourcePort=1 trappedRequest=1"},
    {"the kernel's own device", kNone, kHostMac, kNowhere, kOnCpu, kNone,
     "replyRemote=1 noReplyUnknownSourcePort=1 trappedRequest=1"},
    {"the switch asks: a static binding is asked for", kNone, kHostMac, kNowhere, kBySwitch, kNone,
     "replyRemote=1 staticBindingEvent=1 trappedRequest=1"},
    {"the switch asks for its own MAC", kNone, kBridgeMac, kNowhere, kBySwitch, kNone,
     "replyRemote=1 staticBindingBridgeMac=1 trappedRequest=1"},
    {"the switch asks for what is no host's", kNone, "01:00:5e:00:00:01", kNowhere, kBySwitch, kNone,
     kReplied, 'U', "the answer is no unicast MAC", "notABinding"},
    {"the virtual router asks for the virtual router", kNone, kVirtualMac, kNowhere, kByRouter, kNone,
     "replyRemote=1 staticBindingVirtualRouterMac=1 trappedRequest=1"},
    {"fabric went away", kNone, kHostMac, kNoFabric, kRequest, kNone,
     "replyRemote=1 noReplyFabricNotUsable=1 trappedRequest=1"},
    {"without an interface there is no kernel entry and no static binding, but an answer", kOtherMac,
     kHostMac, kNoInterface, kRequest, kHostMac, kReplied},
    {"the switch asks on a VLAN that lost its interface", kNone, kHostMac, kNoInterface, kBySwitch, kNone,
     "replyRemote=1 staticBindingNoVlanL3Info=1 trappedRequest=1"},
    {"trapped reply goes on", kNone, kNone, kNowhere, kReply, kNone, "trappedReply=1 reinjected=1"},
    {"a foreign tag does not change the VLAN", kNone, kHostMac, kNowhere, kTagged, kHostMac, kReplied},
    {"extra data is counted and answered", kNone, kHostMac, kNowhere, kLonger, kHostMac,
     "replyRemote=1 trapExtraData=1 trappedRequest=1"},
};

void setUp(Rig& rig, const Case& c) {
  rig.state<Routing::Fhrp::VirtualRouterMacStatus>("routing/fhrp/vrMacStatus")
      ->vgwVirtualMacIs(mac(kVirtualMac));
  if (c.kernel) rig.neighbour("10.0.0.99", c.kernel);
  if (c.remote) rig.remoteBinding(10, "10.0.0.99", c.remote);
  if (c.where == kPortOfFid) rig.state<Bridging::Config>("bridging/config")->vidToFidMapIs(Vlan(10), 110);
  if (c.where == kEvpn || c.where == kPortOfFid) rig.fdb(10, kHostMac, EntryType::evpnLearned, "core10");
  if (c.where == kPort || c.where == kForwarder || c.where == kNonForwarder)
    rig.fdb(10, kHostMac, EntryType::learnedDynamic, "Ethernet2");
  if (c.where == kPortOfFid) rig.fdb(110, kHostMac, EntryType::learnedDynamic, "Ethernet2");
  if (c.where == kForwarder) rig.evpn()->segmentStatusIs(intf("Ethernet2"));
  if (c.where == kNonForwarder)
    rig.evpn()->segmentStatusIs(intf("Ethernet2"))->designatedForwarderTepIs(Vlan(10), intf("Tep1"));
  // All but one of these have neither address.
  for (const char* network : {"10.0.0.0/26", "10.0.0.98/32", "10.0.0.0/31", "10.0.0.96/27", "10.0.1.0/24"})
    if (c.where == kExcluded)
      rig.state<NeverAnswer>(kNeverAnswerPath)->prefixIs(*IpNetwork::fromStrep(network));
  rig.device("default", "cpu", kOnCpu.ifIndex);
  rig.state<Interface::AllIntfStatusDir>("interface/status/all")->intfStatusIs(intf("cpu"));
  if (c.where == kNoFabric) rig.device("default", "fabric", 0);
  if (c.where == kNoInterface) rig.noVlanInterface(10);
}

// What `explain` says of an ordinary request, or "" when the case is of another kind.
std::string explanationOf(Rig& rig, const Trapped& request) {
  const bool ordinary = request.operation == 1 && request.senderIp != std::string("0.0.0.0") &&
                        request.senderIp != std::string(request.targetIp);
  const bool known = request.ifIndex == Rig::kEthernet1 || request.ifIndex == Rig::kEthernet2;
  if (!ordinary || !known) return "";
  std::vector<Mox::String> arguments{"10", request.targetIp};
  if (request.ifIndex == Rig::kEthernet2 || request.senderMac == std::string(kBridgeMac) ||
      request.senderMac == std::string(kVirtualMac)) {
    if (request.ifIndex == Rig::kEthernet2)
      rig.fdb(10, request.senderMac, EntryType::learnedDynamic, "Ethernet2");
    arguments.push_back(request.senderMac);
  }
  rig.settle();
  return rig.command("explain", arguments);
}

// Of counters by id, the last one that tells what became of the request.
std::string lastOutcome(const std::string& counters) {
  std::string last;
  std::istringstream words(counters);
  for (std::string word; words >> word;) {
    const std::string name = word.substr(0, word.find('='));
    if (name != "trappedRequest" && name != "reinjected" && name != "trapExtraData") last = name;
  }
  return last;
}

// The latest record in the ring of this process that has the words; "" when none has.
std::string latestRecord(const std::string& words) {
  std::string latest;
  Tracelet::Reader ring = Tracelet::Reader::ofThisProcess();
  while (auto record = ring.next()) {
    if (record->find(words) != std::string::npos) latest = *record;
  }
  return latest;
}

TEST(Request, decision_table) {
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.name);
    Rig rig;
    setUp(rig, c);
    rig.start();
    rig.takeCounters();
    const std::string explanation = explanationOf(rig, c.request);
    EXPECT_EQ(rig.takeCounters(), "");
    const TestSupport::Frame frame = c.request.frame();
    rig.trap(frame);
    const std::string counters = rig.takeCounters();
    EXPECT_EQ(counters, c.counters);
    if (!explanation.empty()) {
      EXPECT_THAT(explanation, HasSubstr("\"name\":\"" + lastOutcome(counters) + "\""));
      EXPECT_THAT(explanation, HasSubstr(c.summary));
    }
    if (c.request.operation == 1) {
      const std::string outcome = c.outcome ? c.outcome : lastOutcome(counters);
      EXPECT_THAT(latestRecord("trappedRequest=<"),
                  AllOf(HasSubstr(std::string(" connectionType=") + c.letter + " "),
                        EndsWith(" outcome=" + outcome)));
    }
    const auto replies = rig.replies();
    ASSERT_THAT(replies, SizeIs(c.replyMac ? 1 : 0));
    if (c.replyMac) {
      EXPECT_EQ(0, std::memcmp(replies[0].data() + 26, mac(c.replyMac).bytes().data(), 6));
    }
    // A flooded message goes back as it came.
    if (counters.ends_with("reinjected=1")) {
      EXPECT_THAT(rig.reinjected(), ElementsAre(frame));
    } else {
      EXPECT_THAT(rig.reinjected(), IsEmpty());
    }
    EXPECT_EQ(rig.errors, "");
  }
}

TEST(Request, explanations_of_what_is_never_trapped_and_of_nonsense) {
  Rig rig;
  rig.evpn()->vlanToDot1qIs(Vlan(30), 30);
  rig.vlanInterface(30, "red", 9);
  rig.fdb(10, kOtherMac, EntryType::evpnLearned, "core10");
  rig.remoteBinding(10, "10.0.0.99", kHostMac, true);
  rig.start();
  const struct {
    std::vector<Mox::String> arguments;
    const char* answer;
  } cases[] = {
      {{"20", "10.0.0.99"}, "VLAN 20: it is not in"},
      {{"10", "fe80::1"}, "the solicitation passes untouched: nothing says who has the address"},
      {{"10", "10.0.0.99", kOtherMac}, "what comes from there is never trapped"},
      {{"10", "10.0.0.99"}, "on a segment that is attached here too"},
      {{"10"}, "explain takes"},
      {{"4095", "10.0.0.99"}, "the VLAN \"4095\" is not a VLAN id from 1 to 4094"},
      {{"10", "10.0.0"}, "the address \"10.0.0\" is not"},
      {{"10", "10.0.0.99", "me"}, "the MAC \"me\" is not"},
  };
  for (const auto& c : cases) EXPECT_THAT(rig.command("explain", c.arguments), HasSubstr(c.answer));

  // What the software data plane says, once it says anything.
  const auto ofVlan10 = rig.state<Switch::Forwarding>(Switch::kForwardingPath)->vlanIs(Vlan(10));
  EXPECT_THAT(rig.command("explain", {"30", "10.0.0.99"}),
              AllOf(HasSubstr("\"notTrapped\""), HasSubstr("VLAN 30 is not among the \\\"vlans\\\"")));
  ofVlan10->reasonIs("device fabric is gone");
  EXPECT_THAT(rig.command("explain", {"10", "10.0.0.99"}),
              AllOf(HasSubstr("\"notTrapped\""),
                    HasSubstr("the software data plane does not trap the VLAN: device fabric is gone")));
  ofVlan10->readyIs(true);
  EXPECT_THAT(rig.command("explain", {"10", "10.0.0.99"}), HasSubstr("\"action\":\"reply\""));

  rig.evpn()->mplsConfiguredIs(false);
  rig.settle();
  EXPECT_THAT(rig.command("explain", {"10", "10.0.0.99"}), HasSubstr("suppression does not run"));

  EXPECT_EQ(rig.command("bindings", {"remote"}),
            "[\n{\"vrf\":\"\",\"ip\":\"10.0.0.99\",\"vlan\":10,\"mac\":\"02:00:00:00:00:63\","
            "\"localMultihomed\":true}\n]\n");
  EXPECT_EQ(rig.command("bindings", {"local"}), "[\n]\n");
}

TEST(Request, a_binding_that_comes_and_goes_changes_the_answer_at_once) {
  Rig rig;
  rig.start();
  rig.trap(Trapped{});
  EXPECT_THAT(rig.replies(), IsEmpty());
  rig.remoteBinding(10, "10.0.0.99", kHostMac);
  rig.trap(Trapped{});
  EXPECT_THAT(rig.replies(), SizeIs(1));
  rig.noRemoteBinding(10, "10.0.0.99");
  rig.trap(Trapped{});
  EXPECT_THAT(rig.replies(), IsEmpty());
}

// Its writer died in the middle of the value. Many bindings: only then requests are looked ahead for.
TEST(Request, corrupt_binding_is_reported_once_a_request_and_flooded) {
  Rig rig;
  for (unsigned i = 0; i < 16384; ++i)
    rig.remoteBinding(10, ("10.1." + std::to_string(i / 128) + "." + std::to_string(i % 128)).c_str(),
                      kHostMac);
  rig.start();
  const char* const path = "arpSuppression/remoteBindingConfig/evpn";
  std::fstream file(rig.tables().directory().segmentFile(std::string(path) + ".remoteBinding"));
  const std::string bytes{std::istreambuf_iterator<char>(file), {}};
  const RemoteBindingKey key{Vlan(10), ip("10.1.7.7")};
  const std::size_t at = bytes.find(std::string(reinterpret_cast<const char*>(&key), sizeof key)) - 4;
  ASSERT_LT(at, bytes.size());
  std::uint32_t state = 0;
  std::memcpy(&state, &bytes[at], sizeof state);
  state |= Memtab::kBusy;
  file.seekp(static_cast<std::streamoff>(at))
      .write(reinterpret_cast<const char*>(&state), sizeof state)
      .flush();
  std::vector<std::string> reports;
  rig.table<RemoteBindingConfig>(path)->corruptionHandlerIs(
      [&](const std::string& message) { reports.push_back(message); });
  for (int i = 0; i < 2; ++i)
    rig.sockets.device(Rig::kArpsnoop).receives(Trapped{.targetIp = "10.1.7.7"}.frame());
  rig.settle();
  EXPECT_THAT(reports, ElementsAre(HasSubstr("stays half written"), HasSubstr("stays half written")));
  EXPECT_EQ(rig.takeCounters(), "floodedToRemoteTeps=2 trappedRequest=2 reinjected=2");
}

TEST(Request, failed_sends_are_counted_and_harm_nothing) {
  Rig rig;
  rig.remoteBinding(10, "10.0.0.99", kHostMac);
  rig.start();
  rig.sockets.fails(TestSupport::FakePacketSockets::Call::send, ENOBUFS);
  rig.trap(Trapped{});
  EXPECT_EQ(rig.takeCounters(), "replyRemote=1 replySendFailed=1 trappedRequest=1");
  rig.sockets.fails(TestSupport::FakePacketSockets::Call::send, ENOBUFS);
  for (int i = 0; i < 3; ++i) rig.sockets.device(Rig::kArpsnoop).receives(Trapped{}.frame());
  rig.settle();
  EXPECT_THAT(rig.replies(), SizeIs(2)) << "those behind the refused one of a batch";
  EXPECT_EQ(rig.takeCounters(), "replyRemote=3 replySendFailed=1 trappedRequest=3");
}

TEST(Request, what_a_full_queue_gives_up_is_counted) {
  Rig rig;
  rig.start();
  rig.takeCounters();
  rig.root()->reinjectMessageQueue->updateQueueLimit(0);  // 50
  for (int i = 0; i < 60; ++i) rig.sockets.device(Rig::kArpsnoop).receives(Trapped{}.frame());
  rig.settle();
  EXPECT_EQ(rig.takeCounters(),
            "floodedToRemoteTeps=60 floodDroppedOldest=10 trappedRequest=60 reinjected=50");
}

TEST(Request, sockets_that_cannot_be_opened_are_problems_and_replies_are_tried_again) {
  using Call = TestSupport::FakePacketSockets::Call;
  Rig rig;
  const auto problems = rig.state<Switch::Problems>(Switch::kProblemsPath);
  const auto subjects = [&] {
    std::string subjects;
    for (const auto& [key, problem] : problems->problemCollection()) subjects += problem->subject() + "; ";
    return subjects;
  };
  rig.remoteBinding(10, "10.0.0.99", kHostMac);
  rig.sockets.fails(Call::open, EPERM, 2);  // for replies and for reinjection
  rig.start();
  EXPECT_THAT(rig.command("status"), HasSubstr("\"reinjectSocket\":\"closed\""));
  EXPECT_EQ(subjects(), "packet socket for answers; packet socket on arpinject; ");
  EXPECT_EQ(rig.awaited(), "its reinject socket");
  EXPECT_THAT(rig.command("explain", {"10", "10.0.0.99"}),
              AllOf(HasSubstr("\"action\":\"leave\""), HasSubstr("\"name\":\"replySendFailed\""),
                    HasSubstr("no socket to send by: RawTxPam: packet socket: Operation not permitted")));
  EXPECT_THAT(rig.command("explain", {"10", "10.0.0.98"}),
              AllOf(HasSubstr("\"action\":\"leave\""), HasSubstr("cannot be made: Operation not permitted")));
  rig.sockets.fails(Call::open, EMFILE);
  rig.trap(Trapped{});
  EXPECT_EQ(rig.takeCounters(), "replyRemote=1 replySendFailed=1 trappedRequest=1");
  rig.trap(Trapped{});
  EXPECT_THAT(rig.replies(), SizeIs(1));
  EXPECT_EQ(subjects(), "packet socket on arpinject; ");
  EXPECT_THAT(rig.command("explain", {"10", "10.0.0.99"}), HasSubstr("\"action\":\"reply\""));
  rig.clock.advance(3);
  rig.settle();
  EXPECT_EQ(subjects() + rig.awaited(), "") << "tried again";
  rig.sockets.fails(Call::bind, ENODEV);
  rig.device("default", "arpinject", 60);
  rig.state<Routing::Fhrp::VirtualRouterMacStatus>("routing/fhrp/vrMacStatus")
      ->vgwVirtualMacIs(mac(kVirtualMac));
  rig.netlinkSockets.refusesWith(EMFILE);
  rig.evpn()->vlanToDot1qIs(Vlan(20), 20);
  rig.vrf("blue", 6);
  rig.vlanInterface(20, "blue", 9);
  rig.settle();
  for (const char* record :
       {"replies cannot be sent what=RawTxPam: packet socket: Operation not permitted",
        "socket creation failed intfId=arpinject errno=Operation not permitted",
        "replies cannot be sent what=RawTxPam: packet socket: Too many open files",
        "bind failed intfId=arpinject errno=No such device",
        "listening refused what=vlan10 in network namespace red: no such device: ",
        "no netlink socket vrfName=blue netNs=blue errno=",
        "add ipToMac vrfIpAddress=<red;10.0.0.99;> > newVlanIdMacAddress=<10;02:00:00:00:00:63> create=yes"
        " activeLocalChanged=no"}) {
    EXPECT_NE(latestRecord(record), "") << record;
  }
  rig.device("default", "arpinject", 0);
  rig.settle();
  EXPECT_EQ(subjects(), "VRF blue; ") << "what is absent cannot be refused";
  EXPECT_THAT(rig.command("explain", {"10", "10.0.0.98"}), HasSubstr("\\\"arpinject\\\" is missing or down"));
  rig.device("default", "arpsnoop", 0);
  rig.settle();
  EXPECT_THAT(rig.command("explain", {"10", "10.0.0.99"}), HasSubstr("the trap device is missing or down"));
}

}  // namespace
}  // namespace ArpSuppression
