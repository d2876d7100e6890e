#include <linux/if_addr.h>
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <random>

#include "Fixture.h"

namespace KernelState {
namespace {

using Netlink::Message;

// A message cut to any length, or with a byte changed, changes at most what it speaks of, and never harms.
class HostileTest : public AgentTest {
 protected:
  HostileTest() {
    redComes();
    kernel.in("red").addNeighbour("vlan10", "10.0.0.9");
    kernel.in().addLink("vlan10", 10);
    kernel.in().addLink("Ethernet1", 1);
    kernel.in().addMac("vlan10", "02:00:00:00:00:01", {"Ethernet1"});
    starts();
  }
};

template <class Header>
Message messageOf(std::uint16_t type, const Header& header) {
  Message message(type);
  message.header(header);
  return message;
}

TEST_F(HostileTest, MessagesOutOfRangeAreIgnored) {
  const auto neighbours = rig->neighbours();
  const auto devices = rig->devices("red");
  const std::byte bytes[64] = {};
  const auto span = [&](std::size_t size) { return std::span(bytes).first(size); };

  ifinfomsg link{};
  link.ifi_index = 50;
  ifinfomsg noIndex{}, negative{}, port{};
  negative.ifi_index = -1;
  port.ifi_index = 7;
  port.ifi_family = AF_BRIDGE;
  ifaddrmsg address{};
  address.ifa_family = AF_INET;
  address.ifa_index = 7;
  address.ifa_prefixlen = 24;
  ifaddrmsg longPrefix = address, noDevice = address;
  longPrefix.ifa_prefixlen = 33;
  noDevice.ifa_index = 0x80000000;
  ndmsg neighbour{};
  neighbour.ndm_family = AF_INET;
  neighbour.ndm_ifindex = 7;
  neighbour.ndm_state = NUD_REACHABLE;
  ndmsg otherFamily = neighbour;
  otherFamily.ndm_family = AF_PACKET;

  const std::byte ip[4] = {std::byte{10}, std::byte{0}, std::byte{0}, std::byte{77}};
  const std::byte mac[6] = {std::byte{2}};
  std::vector<Message> messages;
  messages.push_back(Message(RTM_NEWLINK));
  messages.push_back(messageOf(RTM_NEWLINK, link));
  messages.push_back(std::move(messageOf(RTM_NEWLINK, link).string(IFLA_IFNAME, "")));
  messages.push_back(std::move(messageOf(RTM_NEWLINK, link).string(IFLA_IFNAME, "a-name-of-sixteen")));
  messages.push_back(
      std::move(messageOf(RTM_NEWLINK, link).string(IFLA_IFNAME, "ok").bytes(IFLA_ADDRESS, span(33))));
  messages.push_back(std::move(messageOf(RTM_NEWLINK, noIndex).string(IFLA_IFNAME, "ok")));
  messages.push_back(std::move(messageOf(RTM_NEWLINK, negative).string(IFLA_IFNAME, "ok")));
  messages.push_back(std::move(messageOf(RTM_DELLINK, port).string(IFLA_IFNAME, "vlan10")));
  messages.push_back(std::move(messageOf(RTM_NEWADDR, address).bytes(IFA_LOCAL, span(3))));
  messages.push_back(std::move(messageOf(RTM_NEWADDR, address).bytes(IFA_LOCAL, span(4))));
  messages.push_back(std::move(messageOf(RTM_NEWADDR, longPrefix).bytes(IFA_LOCAL, ip)));
  messages.push_back(std::move(messageOf(RTM_NEWADDR, noDevice).bytes(IFA_LOCAL, ip)));
  messages.push_back(std::move(messageOf(RTM_NEWNEIGH, neighbour).bytes(NDA_DST, ip)));
  messages.push_back(
      std::move(messageOf(RTM_NEWNEIGH, neighbour).bytes(NDA_DST, ip).bytes(NDA_LLADDR, span(6))));
  messages.push_back(
      std::move(messageOf(RTM_NEWNEIGH, neighbour).bytes(NDA_DST, ip).bytes(NDA_LLADDR, span(20))));
  messages.push_back(
      std::move(messageOf(RTM_NEWNEIGH, neighbour).bytes(NDA_DST, span(5)).bytes(NDA_LLADDR, mac)));
  messages.push_back(
      std::move(messageOf(RTM_NEWNEIGH, neighbour).bytes(NDA_DST, span(16)).bytes(NDA_LLADDR, mac)));
  messages.push_back(
      std::move(messageOf(RTM_NEWNEIGH, otherFamily).bytes(NDA_DST, ip).bytes(NDA_LLADDR, mac)));
  messages.push_back(std::move(messageOf(RTM_NEWNEIGH, neighbour)
                                   .bytes(NDA_DST, ip)
                                   .bytes(NDA_LLADDR, mac)
                                   .bytes(NDA_PROTOCOL, span(2))));
  for (std::size_t i = 0; i < messages.size(); ++i) {
    SCOPED_TRACE(i);
    kernel.in("red").tell(messages[i]);
    settle();
    EXPECT_EQ(rig->neighbours(), neighbours);
    EXPECT_EQ(rig->devices("red"), devices);
    EXPECT_EQ(rig->ip("Vlan10"), "red 10.0.0.1/24");
  }
}

TEST_F(HostileTest, DamagedMessagesDoNoHarm) {
  std::mt19937 random(1);
  const Reports reports;
  ndmsg neighbour{};
  neighbour.ndm_family = AF_INET;
  neighbour.ndm_ifindex = 7;
  neighbour.ndm_state = NUD_REACHABLE;
  ndmsg entry = neighbour;
  entry.ndm_family = AF_BRIDGE;
  ifinfomsg link{};
  link.ifi_index = 7;
  ifaddrmsg address{};
  address.ifa_family = AF_INET;
  address.ifa_index = 7;
  const std::byte bytes[6] = {std::byte{10}, std::byte{1}, std::byte{2}, std::byte{3}};
  const Message good[] = {
      std::move(messageOf(RTM_NEWLINK, link).string(IFLA_IFNAME, "vlan10").bytes(IFLA_ADDRESS, bytes)),
      std::move(messageOf(RTM_NEWADDR, address).bytes(IFA_LOCAL, std::span(bytes).first(4))),
      std::move(messageOf(RTM_NEWNEIGH, neighbour)
                    .bytes(NDA_DST, std::span(bytes).first(4))
                    .bytes(NDA_LLADDR, bytes)),
      std::move(messageOf(RTM_NEWNEIGH, entry).bytes(NDA_LLADDR, bytes).u32(NDA_MASTER, 10)),
  };
  for (int round = 0; round < 4000; ++round) {
    const Message& from = good[random() % 4];
    const std::size_t fixed = sizeof(nlmsghdr);
    std::vector<std::byte> payload(from.data().begin() + fixed, from.data().end());
    if (random() % 2 == 0) payload.resize(random() % payload.size());
    for (std::size_t i = random() % 4; i > 0 && !payload.empty(); --i) {
      payload[random() % payload.size()] = static_cast<std::byte>(random());
    }
    // As a fixed header of that many words, so that the message's own length is right.
    Message message(round % 5 == 0 ? static_cast<std::uint16_t>(from.type() + 1) : from.type());
    struct Word {
      std::byte bytes[4];
    };
    for (std::size_t at = 0; at + 4 <= payload.size(); at += 4) {
      Word word;
      std::memcpy(word.bytes, payload.data() + at, 4);
      message.header(word);
    }
    (round % 2 == 0 ? kernel.in() : kernel.in("red")).tell(message);
    if (round % 50 == 0) settle();
  }
  // Whatever they did, reading the tables sets it right.
  kernel.in().overrun();
  kernel.in("red").overrun();
  settle();
  EXPECT_THAT(rig->neighbours(), ElementsAre("5 10.0.0.9 Vlan10 02:00:00:00:00:01 false 0"));
  EXPECT_THAT(rig->macs(), ElementsAre("10 02:00:00:00:00:01 learnedDynamic Ethernet1"));
  EXPECT_THAT(rig->devices("red"), ElementsAre("vlan10 7"));
  EXPECT_THAT(rig->devices("default"), ElementsAre("Ethernet1 1", "vlan10 10"));
  EXPECT_EQ(rig->ip("Vlan10"), "red 10.0.0.1/24");
}

}  // namespace
}  // namespace KernelState
