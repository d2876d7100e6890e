// What the kernel's own bridge does with "neigh_suppress", scenario by scenario, done by this switch.
//
// Where the two differ, on purpose:
// - The bridge answers when its neighbour table has the address and its MAC table has the MAC behind a port
//   that suppresses; here a binding that another switch advertises is enough.
// - The bridge floods a question that it does not answer by itself; here the agent does, once to each tunnel.
// - The bridge keeps a question that it answers from its other ports. Here local hosts hear a host's first one, and
//   one every 30 s; what the kernel answers in between they do not hear either.
// Equal is: a MAC alone is no answer, the answer does not depend on the remote host's being up, a request to
// one station goes to that station, and VLANs are suppressed one by one.

#include "lab/Listening.h"

namespace Lab {
namespace {

class NeighbourSuppression : public Listening {
 protected:
  void reload(std::uint16_t vlan, bool suppression) {
    config_["vlans"][std::to_string(vlan)]["suppression"] = suppression;
    Listening::reload(config_);
  }
};

TEST_P(NeighbourSuppression, IsWhatTheBridgesOwnIs) {
  vlan20Is();
  PacketSocket host20 = portOf(vlan20_, "Ethernet20");
  config_["state"][kBindings]["remoteBinding"].erase("10 10.0.10.99");
  start(json::object(), {10, 20});
  reload(20, false);

  const Frame broadcast = request(kRemoteIp);
  const Frame unicast = arpFrame({1, kHost1, kHost1Ip, {}, kRemoteIp}, kRemote);
  const Texts asked = {hex(broadcast)};
  const Heard flooded{{}, asked, asked};
  const Heard answered{{hex(reply(kRemote, kRemoteIp))}, {}, {}};
  const Heard toItsStation{{}, {}, {hex(unicast)}};
  const std::string mac = "02:00:00:00:00:99";  // kRemote
  const std::string entry = mac + " dev core10 master static" + (GetParam().filtering ? " vlan 10" : "");

  expectHeard("on, nothing known", broadcast, flooded);
  reload(10, false);
  expectHeard("off", broadcast, flooded);
  reload(10, true);
  run("bridge fdb replace " + entry);
  expectHeard("on again, the MAC known", broadcast, flooded);
  expectHeard("the MAC known, to its station", unicast, toItsStation);
  remote({"add", "10", "10.0.10.99", mac});
  // Nobody is up there: the far end answers in no scenario.
  expectHeard("MAC and address known", broadcast, answered);
  expectHeard("MAC and address known, to its station", unicast, toItsStation);
  run("bridge fdb del " + entry);
  expectHeard("the address known, the MAC not in the MAC table", broadcast, answered);
  reload(10, false);
  expectHeard("off, though all is known", broadcast, flooded);
  reload(10, true);
  expectHeard("on once more", broadcast, answered);

  // VLAN 20 is not suppressed meanwhile, and a binding is there.
  const Frame asks20 = arpFrame({1, kHost1, {10, 0, 20, 11}, {}, {10, 0, 20, 99}});
  const Frame last = plainFrame(kHost1, kBroadcast, kSentinelType, ++sentinels_);
  host20.send(asks20);
  host20.send(last);
  EXPECT_EQ(hexOf(far20_->receiveUntil(last)), Texts{hex(asks20)});

  remote({"del", "10", "10.0.10.99"});
  expectHeard("withdrawn", broadcast, flooded);
}

INSTANTIATE_TEST_SUITE_P(Layouts, NeighbourSuppression, testing::ValuesIn(kLayouts), nameOf);

}  // namespace
}  // namespace Lab
