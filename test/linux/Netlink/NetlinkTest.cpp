#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/if_bridge.h>
#include <linux/if_link.h>
#include <linux/neighbour.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>

#include <algorithm>
#include <cerrno>
#include <deque>

#include "Netlink/Attributes.h"
#include "Netlink/Message.h"
#include "Netlink/Route.h"
#include "Netlink/Socket.h"

namespace Netlink {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

using Datagram = std::vector<std::byte>;

constexpr Policy kInner[] = {{1, Kind::u16}, {2, Kind::string, 1, 8}};
constexpr Policy kOuter[] = {{1, Kind::u8},   {2, Kind::u16},          {3, Kind::u32},
                             {4, Kind::u64},  {5, Kind::string, 2, 6}, {6, Kind::bytes, 6, 6},
                             {7, Kind::flag}, {8, Kind::nested}};

Bytes attributesOf(const Message& message) { return message.data().subspan(sizeof(nlmsghdr)); }

TEST(Attributes, ReadWhatAMessageHolds) {
  Message message(RTM_NEWLINK);
  const std::array<std::byte, 6> address{std::byte{2}, std::byte{3}};
  message.u8(1, 0xA1)
      .u16(2, 0xB1B2)
      .u32(3, 0xC1C2C3C4)
      .u64(4, 0xD1D2D3D4D5D6D7D8)
      .string(5, "abc")
      .bytes(6, address);
  message.u32(99, 5);  // not in the table
  message.flag(7).nest(8, [](Message& inner) { inner.u16(1, 7).string(2, "in"); });
  message.u32(3, 0xE1E2E3E4);  // the last one counts
  const Attributes attributes(attributesOf(message), kOuter);
  ASSERT_FALSE(attributes.malformed()) << attributes.error();
  EXPECT_EQ(attributes.u8(1), 0xA1);
  EXPECT_EQ(attributes.u16(2), 0xB1B2);
  EXPECT_EQ(attributes.u32(3), 0xE1E2E3E4);
  EXPECT_EQ(attributes.u64(4), 0xD1D2D3D4D5D6D7D8);
  EXPECT_EQ(attributes.string(5), "abc");
  ASSERT_TRUE(attributes.bytes(6).has_value());
  EXPECT_TRUE(std::ranges::equal(*attributes.bytes(6), address));
  EXPECT_TRUE(attributes.has(7));
  const Attributes inner = attributes.nested(8, kInner);
  EXPECT_EQ(inner.u16(1), 7);
  EXPECT_EQ(inner.string(2), "in");

  const Attributes none(Bytes{}, kOuter);
  EXPECT_FALSE(none.malformed());
  EXPECT_EQ(none.u32(3), std::nullopt);
  EXPECT_EQ(none.nested(8, kInner).u16(1), std::nullopt);
  EXPECT_EQ(Attributes().u32(3), std::nullopt);
}

TEST(Attributes, RefuseWhatTheTableDoesNotAllow) {
  const auto withBytes = [](std::uint16_t attribute, std::size_t size) {
    Message message(RTM_NEWLINK);
    message.u8(1, 1).bytes(attribute, Datagram(size));
    return Datagram(attributesOf(message).begin(), attributesOf(message).end());
  };
  const struct {
    std::uint16_t attribute;
    std::size_t size;
    bool allowed;
  } kCases[] = {{1, 0, false}, {1, 2, false}, {2, 1, false}, {2, 2, true}, {3, 3, false},
                {3, 8, false}, {4, 4, false}, {5, 1, false}, {5, 2, true}, {5, 6, true},
                {5, 7, false}, {6, 5, false}, {6, 7, false}, {7, 1, false}};
  for (const auto& test : kCases) {
    SCOPED_TRACE(std::to_string(test.attribute) + " with " + std::to_string(test.size));
    const Datagram bytes = withBytes(test.attribute, test.size);
    const Attributes attributes(bytes, kOuter);
    EXPECT_EQ(attributes.malformed(), !test.allowed);
    EXPECT_EQ(attributes.u8(1).has_value(), test.allowed);  // nothing of a malformed set is to be had
  }
  EXPECT_THAT(Attributes(withBytes(3, 3), kOuter).error(),
              HasSubstr("attribute 3 has 3 bytes, allowed is 4"));

  // Lengths that lead out of the message, or nowhere. nla_len is the first field, in the host's order.
  Datagram bytes = withBytes(6, 6);
  for (const std::uint16_t length : std::initializer_list<std::uint16_t>{0, 3, 15, 65535}) {
    SCOPED_TRACE(length);
    std::memcpy(bytes.data() + 8, &length, sizeof length);
    EXPECT_TRUE(Attributes(bytes, kOuter).malformed());
  }
  // The last attribute may lack its padding, and a string its NUL.
  Message text(RTM_NEWLINK);
  text.string(5, "abcd");
  EXPECT_EQ(Attributes(attributesOf(text).first(9), kOuter).string(5), "abcd");
  EXPECT_TRUE(Attributes(attributesOf(text).first(8), kOuter).malformed());
  const std::uint16_t withoutNul = 4 + 4;
  Datagram cut(attributesOf(text).begin(), attributesOf(text).begin() + withoutNul);
  std::memcpy(cut.data(), &withoutNul, sizeof withoutNul);
  EXPECT_EQ(Attributes(cut, kOuter).string(5), "abcd");
}

TEST(Route, ReadsDevicesTheirPeersAndPorts) {
  const auto port = [](Message& attributes) {
    attributes.u8(IFLA_BRPORT_STATE, BR_STATE_LEARNING)
        .u8(IFLA_BRPORT_LEARNING, 1)
        .u8(IFLA_BRPORT_BCAST_FLOOD, 1)
        .u8(IFLA_BRPORT_LOCKED, 1);
  };
  const auto device = [](std::uint8_t family, int index) {
    Message message(RTM_NEWLINK);
    message.header(ifinfomsg{family, 0, 0, index, IFF_UP, 0})
        .string(IFLA_IFNAME, "arpsnoop")
        .u32(IFLA_MASTER, 9);
    return message;
  };
  const auto ofKind = [&](const char* kind, auto data) {
    Message message = device(AF_UNSPEC, 7);
    message.nest(IFLA_LINKINFO,
                 [&](Message& info) { info.string(IFLA_INFO_KIND, kind).nest(IFLA_INFO_DATA, data); });
    return readLink(Received(message.data())).value();
  };
  const auto veth = [&](const char* slave) {
    Message message = device(AF_UNSPEC, 7);
    message.u32(IFLA_LINK, 8).u32(IFLA_MTU, 1500).u32(IFLA_GROUP, 5).nest(IFLA_LINKINFO, [&](Message& info) {
      info.string(IFLA_INFO_KIND, "veth")
          .string(IFLA_INFO_SLAVE_KIND, slave)
          .nest(IFLA_INFO_SLAVE_DATA, port);
    });
    return message;
  };
  const BridgePort learning{BR_STATE_LEARNING, true, false, false, true, false, true};

  const auto ofBridge = readLink(Received(veth("bridge").data()));
  ASSERT_TRUE(ofBridge);
  EXPECT_EQ(ofBridge->name + " " + ofBridge->kind, "arpsnoop veth");
  EXPECT_THAT(
      (std::vector{ofBridge->index, ofBridge->peer, ofBridge->master, ofBridge->mtu, ofBridge->group}),
      ElementsAre(7U, 8U, 9U, 1500U, 5U));
  EXPECT_EQ(ofBridge->flags, static_cast<unsigned>(IFF_UP));
  EXPECT_EQ(ofBridge->port, learning);
  EXPECT_FALSE(ofBridge->ofBridge);
  // Of another master the same numbers mean something else.
  EXPECT_EQ(readLink(Received(veth("bond").data()))->port, std::nullopt);
  // So do those of another kind of device.
  const auto filters = [](Message& data) {
    data.u8(IFLA_BR_VLAN_FILTERING, 1).u16(IFLA_BR_VLAN_PROTOCOL, 0x0081);
  };
  EXPECT_TRUE(ofKind("bridge", filters).filtersVlans);
  EXPECT_EQ(ofKind("bridge", filters).vlanProtocol, 0x8100);
  EXPECT_FALSE(ofKind("bond", filters).filtersVlans);
  const auto collects = [](Message& data) { data.u8(IFLA_VXLAN_COLLECT_METADATA, 1); };
  EXPECT_TRUE(ofKind("vxlan", collects).collectsMetadata);
  EXPECT_FALSE(ofKind("gretap", collects).collectsMetadata);
  // Index 8 in another namespace is no device of this one.
  Message far = veth("bridge");
  EXPECT_EQ(readLink(Received(far.u32(IFLA_LINK_NETNSID, 0).data()))->peer, 0U);

  Message bridges = device(AF_BRIDGE, 7);
  const auto told = readLink(Received(bridges.nest(IFLA_PROTINFO, port).data()));
  ASSERT_TRUE(told);
  EXPECT_TRUE(told->ofBridge);
  EXPECT_EQ(told->port, learning);
  EXPECT_FALSE(readLink(Received(device(AF_INET6, 7).data())));
  EXPECT_FALSE(readLink(Received(device(AF_UNSPEC, 0).data())));
  Message torn = device(AF_BRIDGE, 7);
  EXPECT_EQ(
      readLink(Received(torn.nest(IFLA_PROTINFO, [](Message& in) { in.u32(IFLA_BRPORT_STATE, 3); }).data()))
          ->port,
      std::nullopt);
}

TEST(Route, ReadsTheVlansOfABridgesPort) {
  struct Entry {
    std::uint16_t flags;
    std::uint16_t first;
    std::uint16_t last;  // 0: no range
    int state = -1;      // -1: not said
  };
  const auto told = [](const std::vector<Entry>& entries, std::size_t infoSize = sizeof(bridge_vlan_info)) {
    Message message(RTM_NEWVLAN);
    br_vlan_msg header{};
    header.family = AF_BRIDGE;
    header.ifindex = 7;
    message.header(header);
    for (const Entry& entry : entries) {
      message.nest(BRIDGE_VLANDB_ENTRY, [&](Message& inside) {
        const bridge_vlan_info info{entry.flags, entry.first};
        inside.bytes(BRIDGE_VLANDB_ENTRY_INFO, std::as_bytes(std::span(&info, 1)).first(infoSize));
        if (entry.last != 0) inside.u16(BRIDGE_VLANDB_ENTRY_RANGE, entry.last);
        if (entry.state >= 0) inside.u8(BRIDGE_VLANDB_ENTRY_STATE, static_cast<std::uint8_t>(entry.state));
      });
    }
    return readBridgeVlans(Received(message.data()));
  };
  constexpr std::uint16_t kPvidUntagged = BRIDGE_VLAN_INFO_PVID | BRIDGE_VLAN_INFO_UNTAGGED;
  const auto vlans =
      told({{kPvidUntagged, 5, 0}, {0, 10, 12, BR_STATE_LEARNING}, {0, 4094, 0, BR_STATE_FORWARDING}});
  ASSERT_TRUE(vlans);
  BridgeVlans expected{7, {}, {}, 5};
  for (const std::size_t vid : {5U, 10U, 11U, 12U, 4094U}) expected.carried.set(vid);
  expected.untagged.set(5);
  for (const std::size_t vid : {10U, 11U, 12U}) expected.blocked.set(vid);
  EXPECT_EQ(*vlans, expected);
  EXPECT_TRUE(told({}));

  for (const Entry& bad : {Entry{0, 0, 0}, Entry{0, 4095, 0}, Entry{0, 12, 10}, Entry{0, 10, 65535}})
    EXPECT_FALSE(told({{0, 1, 0}, bad})) << bad.first << " to " << bad.last;
  EXPECT_FALSE(told({{0, 10, 0}}, 3));
  EXPECT_FALSE(readBridgeVlans(Received(Message(RTM_NEWVLAN).header(br_vlan_msg{}).data())));
}

// A kernel whose answers are written down. Answers quote the sequence numbers of what was sent.
class ScriptedKernel : public Kernel {
 public:
  struct Answer {
    Datagram bytes;
    int error = 0;  // an errno instead of a datagram
    bool fromKernel = true;
  };

  std::int64_t send(int, Bytes bytes) override {
    sent.emplace_back(bytes.begin(), bytes.end());
    sequences.clear();
    while (bytes.size() >= sizeof(nlmsghdr)) {
      nlmsghdr header;
      std::memcpy(&header, bytes.data(), sizeof header);
      sequences.push_back(header.nlmsg_seq);
      bytes = bytes.subspan(std::min<std::size_t>(bytes.size(), header.nlmsg_len));
    }
    if (onSend) onSend();
    return 1;
  }

  std::int64_t receive(int, std::span<std::byte> buffer, bool& fromKernel) override {
    const Answer answer = answers.empty() ? Answer{{}, EAGAIN} : answers.front();
    if (!answers.empty()) answers.pop_front();
    fromKernel = answer.fromKernel;
    errno = answer.error;
    if (answer.error != 0) return -1;
    std::copy_n(answer.bytes.begin(), std::min(buffer.size(), answer.bytes.size()), buffer.begin());
    return static_cast<std::int64_t>(answer.bytes.size());
  }

  int wait(int, int milliseconds) override {
    waited.push_back(milliseconds);
    return answers.empty() ? 0 : 1;
  }

  void answer(const Datagram& bytes, int error = 0) { answers.push_back({bytes, error}); }

  std::vector<Datagram> sent;
  std::vector<std::uint32_t> sequences;  // of the last send
  std::deque<Answer> answers;
  std::vector<int> waited;
  std::function<void()> onSend;
};

Datagram operator+(Datagram left, const Datagram& right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

template <class Plain>
Datagram bytesOf(const Plain& plain) {
  const auto view = std::as_bytes(std::span(&plain, 1));
  return {view.begin(), view.end()};
}

Datagram number(std::uint32_t value) { return bytesOf(value); }

Datagram raw(std::uint16_t type, std::uint16_t flags, std::uint32_t sequence, const Datagram& payload) {
  const nlmsghdr header{static_cast<std::uint32_t>(sizeof header + payload.size()), type, flags, sequence, 0};
  return bytesOf(header) + payload;
}

Datagram acknowledgement(std::uint32_t sequence, int error, const std::string& text = {}) {
  nlmsgerr body{};
  body.error = -error;
  body.msg.nlmsg_len = 1000;  // of the request, which is not quoted
  Message tail(0);
  if (!text.empty()) tail.string(NLMSGERR_ATTR_MSG, text);
  return raw(NLMSG_ERROR, NLM_F_CAPPED | NLM_F_ACK_TLVS, sequence,
             bytesOf(body) + Datagram(attributesOf(tail).begin(), attributesOf(tail).end()));
}

class SocketTest : public testing::Test {
 protected:
  std::vector<std::uint32_t> seen_;
  Handler collect_ = [this](const Received& message) {
    seen_.push_back(message.header<std::uint32_t>().value_or(0));
  };
  ScriptedKernel kernel_;
  Socket socket_{NETLINK_ROUTE, {250, 0, true}, &kernel_};
};

TEST_F(SocketTest, RequestTakesItsOwnAnswerOnly) {
  kernel_.onSend = [&] {
    const std::uint32_t sequence = kernel_.sequences[0];
    kernel_.answers.push_back({acknowledgement(sequence, EPERM), 0, false});  // another process pretends
    kernel_.answer(acknowledgement(sequence - 1, EPERM));                     // late, of an earlier request
    kernel_.answer(raw(RTM_NEWLINK, 0, 0, number(1)));                        // a notification
    kernel_.answer({}, EINTR);
    kernel_.answer({});
    kernel_.answer(raw(RTM_NEWLINK, 0, sequence, number(7)) + Datagram(3));  // with a torn end
    kernel_.answer(acknowledgement(sequence, EEXIST, "it is there"));
  };
  const Result<> result = socket_.get(Message(RTM_GETLINK), collect_);
  ASSERT_EQ(result.number(), EEXIST);
  EXPECT_EQ(describe("adding it", result).error(), "adding it: File exists (it is there)");
  EXPECT_THAT(seen_, ElementsAre(7U));
}

TEST_F(SocketTest, RequestEndsWithoutAnAnswer) {
  EXPECT_EQ(socket_.request(Message(RTM_NEWLINK)).number(), ETIMEDOUT);
  EXPECT_THAT(kernel_.waited, ElementsAre(250));

  Message message(RTM_NEWLINK);
  message.bytes(1, Datagram(65532));
  EXPECT_EQ(socket_.request(message).number(), EMSGSIZE);

  Message nested(RTM_NEWLINK);
  nested.nest(1, [](Message& inner) { inner.bytes(2, Datagram(40000)).bytes(2, Datagram(40000)); });
  EXPECT_FALSE(nested.valid());
  EXPECT_EQ(kernel_.sent.size(), 1U);

  kernel_.onSend = [&] { kernel_.answer(raw(NLMSG_ERROR, 0, kernel_.sequences[0], Datagram(2))); };
  EXPECT_EQ(socket_.request(Message(RTM_NEWLINK)).number(), EBADMSG);
}

TEST_F(SocketTest, BatchHasAResultForEachRequest) {
  std::vector<Message> messages(70, Message(RTM_NEWNEIGH));
  messages[3].bytes(1, Datagram(65532));  // refused before it is sent
  kernel_.onSend = [&] {
    Datagram first, second;
    for (std::size_t i = 0; i < kernel_.sequences.size(); ++i)
      (i % 2 == 0 ? first : second) =
          (i % 2 == 0 ? first : second) + acknowledgement(kernel_.sequences[i], i == 5 ? ENOSPC : 0);
    kernel_.answer(second);  // in whatever order and packing
    kernel_.answer(first);
  };
  std::vector<std::size_t> order;
  std::vector<std::size_t> failed;
  socket_.batch(messages, [&](std::size_t index, const Result<>& result) {
    order.push_back(index);
    if (!result) failed.push_back(index);
  });
  ASSERT_EQ(order.size(), 70U);
  EXPECT_TRUE(std::ranges::is_sorted(order));
  EXPECT_EQ(kernel_.sent.size(), 2U);
  // The sixth that was sent is the seventh given, and so is that of the second send: 64 + 5.
  EXPECT_THAT(failed, ElementsAre(3U, 6U, 69U));

  // What is answered before the socket fails keeps its answer.
  std::vector<Message> two(2, Message(RTM_NEWNEIGH));
  kernel_.onSend = [&] {
    for (int twice = 0; twice < 2; ++twice) kernel_.answer(acknowledgement(kernel_.sequences[1], 0));
  };
  std::vector<int> numbers;
  socket_.batch(two, [&](std::size_t, const Result<>& result) { numbers.push_back(result.number()); });
  EXPECT_THAT(numbers, ElementsAre(ETIMEDOUT, 0));
}

TEST_F(SocketTest, DumpComesInSlices) {
  kernel_.onSend = [&] {
    const std::uint32_t sequence = kernel_.sequences[0];
    kernel_.answer(raw(RTM_NEWLINK, NLM_F_MULTI, sequence, number(1)) +
                   raw(RTM_NEWLINK, NLM_F_MULTI, sequence, number(2)));
    kernel_.answer(raw(RTM_NEWLINK, NLM_F_MULTI | NLM_F_DUMP_INTR, sequence, number(3)));
    kernel_.answer(raw(NLMSG_DONE, NLM_F_MULTI, sequence, number(0)));
  };
  ASSERT_TRUE(socket_.dumpStart(Message(RTM_GETLINK)));
  EXPECT_FALSE(socket_.dumpStart(Message(RTM_GETLINK))) << "one at a time";
  DumpSlice slice = socket_.dumpSlice(collect_);
  EXPECT_EQ(slice.messages, 2U);
  EXPECT_FALSE(slice.done || slice.interrupted);
  slice = socket_.dumpSlice(collect_);
  EXPECT_EQ(slice.messages, 1U);
  EXPECT_TRUE(slice.interrupted);
  slice = socket_.dumpSlice(collect_);
  EXPECT_TRUE(slice.done && slice.interrupted);
  EXPECT_TRUE(slice.result);
  EXPECT_THAT(seen_, ElementsAre(1U, 2U, 3U));
  EXPECT_FALSE(socket_.dumpSlice(collect_).result) << "none is running";
}

TEST_F(SocketTest, DumpIsTriedAgainWhenInterrupted) {
  int tries = 0;
  int interruptions = 1;
  kernel_.onSend = [&] {
    const std::uint32_t sequence = kernel_.sequences[0];
    const std::uint16_t flags = tries++ < interruptions ? NLM_F_DUMP_INTR : 0;
    kernel_.answer(raw(RTM_NEWLINK, flags, sequence, number(9)) + raw(NLMSG_DONE, 0, sequence, number(0)));
  };
  const auto forget = [&] { seen_.clear(); };
  EXPECT_TRUE(socket_.dump(Message(RTM_GETLINK), collect_, forget));
  EXPECT_THAT(seen_, ElementsAre(9U));
  tries = 0;
  interruptions = 100;
  EXPECT_EQ(socket_.dump(Message(RTM_GETLINK), collect_, forget).number(), EINTR);
  EXPECT_EQ(tries, 4);

  kernel_.onSend = [&] {
    kernel_.answer(raw(NLMSG_DONE, 0, kernel_.sequences[0], number(static_cast<std::uint32_t>(-EINVAL))));
  };
  EXPECT_EQ(socket_.dump(Message(RTM_GETLINK), collect_, forget).number(), EINVAL);
}

TEST_F(SocketTest, NotificationsReportOverruns) {
  const auto notify = [&](std::uint32_t value) { kernel_.answer(raw(RTM_NEWLINK, 0, 0, number(value))); };
  notify(1);
  kernel_.answer({}, ENOBUFS);
  notify(2);
  kernel_.answer(Datagram(70000));  // cut off
  notify(3);
  notify(4);

  Notifications result = socket_.receive(collect_);
  EXPECT_TRUE(result.overrun && result.more && result.result);
  result = socket_.receive(collect_);
  EXPECT_TRUE(result.overrun && result.more && result.result);
  result = socket_.receive(collect_, 1);
  EXPECT_TRUE(result.more && !result.overrun);
  result = socket_.receive(collect_);
  EXPECT_TRUE(!result.more && !result.overrun && result.result);
  EXPECT_THAT(seen_, ElementsAre(1U, 2U, 3U, 4U));
  EXPECT_TRUE(kernel_.waited.empty()) << "never waits";

  kernel_.answer({}, EBADF);
  EXPECT_FALSE(socket_.receive(collect_).result);
}

// The real kernel, which every user may ask.
TEST(RealSocket, FindsTheLoopback) {
  static constexpr Policy kLink[] = {{IFLA_IFNAME, Kind::string, 1, IFNAMSIZ}, {IFLA_MTU, Kind::u32}};
  Socket socket(NETLINK_ROUTE);
  ASSERT_TRUE(socket.opened());
  bool found = false;
  const auto look = [&](const Received& message) {
    ASSERT_EQ(message.type(), RTM_NEWLINK);
    ASSERT_TRUE(message.header<ifinfomsg>().has_value());
    const Attributes link(message.attributes(sizeof(ifinfomsg)), kLink);
    ASSERT_FALSE(link.malformed()) << link.error();
    if (link.string(IFLA_IFNAME) == "lo") found = link.u32(IFLA_MTU).value_or(0) > 0;
  };
  const auto named = [](const char* name) {
    return std::move(Message(RTM_GETLINK).header(ifinfomsg{}).string(IFLA_IFNAME, name));
  };
  EXPECT_TRUE(socket.get(named("lo"), look));
  EXPECT_TRUE(found);
  found = false;
  EXPECT_TRUE(socket.dump(Message(RTM_GETLINK).header(ifinfomsg{}), look, [] {}));
  EXPECT_TRUE(found);

  EXPECT_EQ(socket.get(named("no-such-dev"), look).number(), ENODEV);
  Socket listener(NETLINK_ROUTE);
  EXPECT_TRUE(listener.join(RTNLGRP_LINK));
  EXPECT_FALSE(listener.join(100000));
  EXPECT_TRUE(listener.receive(look).result);

  Socket unknown(31);
  ASSERT_FALSE(unknown.opened());
  EXPECT_EQ(unknown.request(Message(RTM_GETLINK)).number(), EPROTONOSUPPORT);
  EXPECT_EQ(unknown.fd(), -1);
}

}  // namespace
}  // namespace Netlink
