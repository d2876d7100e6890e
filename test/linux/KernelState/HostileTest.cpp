#include <linux/if_addr.h>
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include "Fixture.h"

namespace KernelState {
namespace {

using Netlink::Message;
using namespace std::string_literals;

using Attributes = std::vector<std::pair<std::uint16_t, std::string>>;  // with their bytes

template <class Header>
Message messageOf(std::uint16_t type, const Header& header, const Attributes& attributes) {
  Message message(type);
  message.header(header);
  for (const auto& [attribute, bytes] : attributes) message.bytes(attribute, std::as_bytes(std::span(bytes)));
  return message;
}
Message link(int ifIndex, const Attributes& attributes, std::uint16_t type = RTM_NEWLINK,
             std::uint8_t family = AF_UNSPEC) {
  return messageOf(type, ifinfomsg{family, 0, 0, ifIndex, 0, 0}, attributes);
}
Message address(std::uint32_t ifIndex, const std::string& ip, std::uint8_t length = 24) {
  return messageOf(RTM_NEWADDR, ifaddrmsg{AF_INET, length, 0, 0, ifIndex}, {{IFA_LOCAL, ip}});
}
Message neighbour(const Attributes& attributes, int ifIndex = 7, std::uint8_t family = AF_INET) {
  return messageOf(RTM_NEWNEIGH, ndmsg{family, 0, 0, ifIndex, NUD_REACHABLE, 0, 0}, attributes);
}

// What a message says that makes no sense is ignored, whatever else is in it.
TEST_F(AgentTest, MessagesThatMakeNoSenseAreIgnored) {
  redComes();
  kernel.in("red").addNeighbour("vlan10", "10.0.0.9");
  kernel.in().addLink("vlan10", 10);
  kernel.in().addLink("Ethernet1", 1);
  starts();
  const auto neighbours = rig->neighbours();
  const auto devices = rig->devices("red");
  const std::string ip = "\x0a\0\0\x4d"s, mac = "\x02\0\0\0\0\x07"s;
  const std::string bridge = "\x0a\0\0\0"s, nobody = "\x63\0\0\0"s;
  const auto zeros = [](std::size_t size) { return std::string(size, '\0'); };
  const struct {
    const char* what;
    Message message;
  } cases[] = {
      {"no header", Message(RTM_NEWLINK)},
      {"no name", link(50, {})},
      {"an empty name", link(50, {{IFLA_IFNAME, "\0"s}})},
      {"a name of sixteen", link(50, {{IFLA_IFNAME, "a-name-of-sixtee\0"s}})},
      {"a long MAC address", link(50, {{IFLA_IFNAME, "ok\0"s}, {IFLA_ADDRESS, zeros(33)}})},
      {"no index", link(0, {{IFLA_IFNAME, "ok\0"s}})},
      {"a negative index", link(-1, {{IFLA_IFNAME, "ok\0"s}})},
      {"a bridge's port", link(7, {{IFLA_IFNAME, "vlan10\0"s}}, RTM_DELLINK, AF_BRIDGE)},
      {"an address of three bytes", address(7, zeros(3))},
      {"address 0.0.0.0", address(7, zeros(4))},
      {"a prefix of 33", address(7, ip, 33)},
      {"an address of no device's", address(0x80000000, ip)},
      {"an address of a device that is not known", address(99, ip)},
      {"a neighbour without a MAC address", neighbour({{NDA_DST, ip}})},
      {"with none but zeros", neighbour({{NDA_DST, ip}, {NDA_LLADDR, zeros(6)}})},
      {"with one of 20 bytes", neighbour({{NDA_DST, ip}, {NDA_LLADDR, mac + zeros(14)}})},
      {"with an IP address of 5 bytes", neighbour({{NDA_DST, ip + "\1"}, {NDA_LLADDR, mac}})},
      {"with one of 16", neighbour({{NDA_DST, ip + zeros(12)}, {NDA_LLADDR, mac}})},
      {"of another family", neighbour({{NDA_DST, ip}, {NDA_LLADDR, mac}}, 7, AF_PACKET)},
      {"with a long protocol", neighbour({{NDA_DST, ip}, {NDA_LLADDR, mac}, {NDA_PROTOCOL, zeros(2)}})},
      {"on a device that is not known", neighbour({{NDA_DST, ip}, {NDA_LLADDR, mac}}, 99)},
      {"a station on no bridge", neighbour({{NDA_LLADDR, mac}}, 1, AF_BRIDGE)},
      {"on one that is not known", neighbour({{NDA_LLADDR, mac}, {NDA_MASTER, nobody}}, 1, AF_BRIDGE)},
      {"on a port that is not known", neighbour({{NDA_LLADDR, mac}, {NDA_MASTER, bridge}}, 99, AF_BRIDGE)},
  };
  for (const auto& test : cases) {
    SCOPED_TRACE(test.what);
    kernel.in("red").tell(test.message);
    kernel.in().tell(test.message);
    settle();
    EXPECT_EQ(rig->neighbours(), neighbours);
    EXPECT_EQ(rig->devices("red"), devices);
    EXPECT_EQ(rig->ip("Vlan10"), "red 10.0.0.1/24");
    EXPECT_THAT(rig->macs(), IsEmpty());
  }
  // What the rows differ from is not.
  kernel.in("red").tell(neighbour({{NDA_DST, ip}, {NDA_LLADDR, mac}}));
  kernel.in().tell(neighbour({{NDA_LLADDR, mac}, {NDA_MASTER, bridge}}, 1, AF_BRIDGE));
  kernel.in("red").tell(address(7, ip));
  settle();
  EXPECT_EQ(rig->neighbours().size(), 2u);
  EXPECT_THAT(rig->macs(), ElementsAre("10 02:00:00:00:00:07 learnedDynamic Ethernet1"));
  EXPECT_EQ(rig->ip("Vlan10"), "red 10.0.0.1/24 10.0.0.77/24");
}

}  // namespace
}  // namespace KernelState
