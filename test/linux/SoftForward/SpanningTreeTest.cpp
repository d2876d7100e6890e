// With the kernel's own spanning tree, which it runs in every network namespace but the first, where
// a program may do it instead.

#include <linux/if_bridge.h>

#include "linux/SoftForward/DatapathRig.h"

namespace SoftForward {
namespace {

using testing::HasSubstr;

using SpanningTreeTest = DatapathTest;

// The state in which the kernel has the way in's port; -1: it is none.
int wayInState() {
  int state = -1;
  Netlink::Socket socket(NETLINK_ROUTE);
  const auto read = socket.dump(
      Netlink::linkDump(),
      [&](const Netlink::Received& message) {
        const auto link = Netlink::readLink(message);
        if (link && link->name == "fabin10-br" && link->port) state = link->port->state;
      },
      [] {});
  EXPECT_TRUE(read) << read.error();
  return state;
}

TEST_F(SpanningTreeTest, TrapsOnceTheWayInForwards) {
  ifinfomsg header{};
  header.ifi_index = static_cast<int>(Lab::ifIndex("vlan10"));
  change(
      std::move(Netlink::Message(RTM_NEWLINK).header(header).nest(IFLA_LINKINFO, [](Netlink::Message& info) {
        info.string(IFLA_INFO_KIND, "bridge").nest(IFLA_INFO_DATA, [](Netlink::Message& data) {
          data.u32(IFLA_BR_FORWARD_DELAY, 200)
              .u32(IFLA_BR_STP_STATE, 1);  // hundredths of a second: the least
        });
      })));
  openDatapath();
  datapath_->vlanIs(kVlan, kWanted);
  datapath_->activeVlanIs(kVlan, true);
  await(false);
  EXPECT_THAT(standings_[kVlan].reason, HasSubstr("spanning tree has the way into bridge vlan10"));
  EXPECT_NE(wayInState(), BR_STATE_FORWARDING);
  host1_->send(request(kHost1, kIp1));
  EXPECT_EQ(datapath_->statistics().trapped, 0U);
  awaitReady();
  EXPECT_EQ(wayInState(), BR_STATE_FORWARDING);
  host1_->send(request(kHost1, kIp1));
  EXPECT_EQ(datapath_->statistics().trapped, 1U);
}

}  // namespace
}  // namespace SoftForward
