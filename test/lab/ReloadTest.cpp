// The daemon takes up another configuration while hosts go on.

#include "lab/WholeSwitch.h"

namespace Lab {
namespace {

using testing::Each;
using testing::IsEmpty;

class Reload : public WholeSwitch {
 protected:
  // Has the configuration taken up, and a host of VLAN 10 ask for a remote one until `pointer` into the
  // switch's health is as wanted. Each request is answered, and none comes to the overlay.
  void takesUp(const json& config, const char* pointer, const json& wanted) {
    SCOPED_TRACE(pointer);
    constexpr std::chrono::milliseconds kBetween{5};
    std::size_t answered = 0;
    const auto asks = [&](Process& arpsup) {
      std::size_t asked = 0;
      do {
        host1_->send(request(kRemoteIp));
        ++asked;
        while (const auto answer = host1_->receive(std::chrono::milliseconds(0)))
          answered += hex(*answer) == hex(reply(kRemote, kRemoteIp)) ? 1 : 0;
        while (host2_->receive(std::chrono::milliseconds(0))) {
        }
      } while (arpsup.read(kBetween));
      return asked;
    };
    std::size_t asked = 0;
    const auto reload = switch_.reload(config);
    asked += asks(*reload);
    EXPECT_EQ(reload->wait(), 0) << reload->error;
    const auto deadline = std::chrono::steady_clock::now() + kDaemonPatience;
    json now;
    while (now != wanted && std::chrono::steady_clock::now() < deadline) {
      const auto shows = switch_.arpsupProcess({"show", "switch/health", "--json"});
      asked += asks(*shows);
      shows->wait();
      now = json::parse(shows->output, nullptr, false).value(json::json_pointer(pointer), json());
    }
    EXPECT_EQ(now, wanted);
    const Seen seen = quiet();
    EXPECT_EQ(answered + seen.host1.size(), asked);
    EXPECT_THAT(seen.host1, Each(hex(reply(kRemote, kRemoteIp))));
    EXPECT_THAT(seen.far, IsEmpty());
    EXPECT_THAT(seen.far2, IsEmpty());
  }
  // Who hears a host of VLAN 20 ask for its remote one, once it is those. Another host each time: what the kernel
  // answers again is heard by nobody.
  void expectHeardBy(const Texts& wanted) {
    const auto deadline = std::chrono::steady_clock::now() + kDaemonPatience;
    Texts names;
    do {
      ++host_;
      host20_->send(arpFrame({1, {0x02, 0, 0, 0, 2, host_}, {10, 0, 21, host_}, {}, {10, 0, 20, 99}}));
      names.clear();
      if (far20_->receive(kPatience / 20)) names.push_back("core20");
      if (core21_->receive(kPatience / 20)) names.push_back("core21");
    } while (names != wanted && std::chrono::steady_clock::now() < deadline);
    EXPECT_EQ(names, wanted);
  }

  std::optional<PacketSocket> host20_, core21_;
  std::uint8_t host_ = 0;
};

TEST_P(Reload, ConcernsNobodyElse) {
  const json without = config_;
  vlan20Is();
  json with = config_;
  host20_.emplace(portOf(vlan20_, "Ethernet3"));
  core21_.emplace(portOf(vlan20_, "core21"));
  config_ = without;
  start();

  takesUp(with, "/vlan/20/state", "active");
  EXPECT_EQ(switch_.status({{"activeVlans", {10, 20}}}), json({{"activeVlans", {10, 20}}}));
  expectHeardBy({"core21"});  // an ordinary port as yet
  with["vlans"]["20"]["tunnelPorts"] = {"core21"};
  takesUp(with, "/vlan/20/tunnelPorts", {"core21"});
  expectHeardBy({"core20"});
  const std::string remote20 = "20 10.0.20.99";
  EXPECT_EQ(switch_.shown({"show", kBindings})["remoteBinding"].count(remote20), 1u);

  takesUp(without, "/vlan/20", json());
  EXPECT_EQ(switch_.shown({"show", kBindings})["remoteBinding"].count(remote20), 0u);
  EXPECT_EQ(switch_.state("switch/forwarding", "/vlan/20", json()), json());
  expectHeardBy({"core20", "core21"});
  for (const std::string port : {"core20", "core21", "Ethernet3"})
    EXPECT_THAT(run("tc qdisc show dev " + port), testing::Not(testing::HasSubstr("clsact"))) << port;
  expectSuppression();
}

INSTANTIATE_TEST_SUITE_P(Layouts, Reload, testing::Values(kLayouts[0], kLayouts[3]), nameOf);

}  // namespace
}  // namespace Lab
