// The agent on switch hardware: traps, replies and floods are on "fabric". What it floods is read by a
// decoder of its own, tshark.

#include <signal.h>

#include <fstream>

#include "lab/AgentSwitch.h"

namespace Lab {
namespace {

constexpr Ip kNobody{10, 0, 0, 120};

Strings shell(const std::string& command) { return {"/bin/sh", "-c", "exec " + command}; }

// A capture file (pcap, LINKTYPE_ETHERNET); no times.
void capture(const std::string& name, const std::vector<Frame>& frames) {
  std::ofstream file(name, std::ios::binary);
  const auto put = [&](const std::vector<std::uint32_t>& words) {
    file.write(reinterpret_cast<const char*>(words.data()), static_cast<std::streamsize>(4 * words.size()));
  };
  put({0xA1B2C3D4, 4U << 16 | 2, 0, 0, 65535, 1});
  for (const Frame& frame : frames) {
    const auto size = static_cast<std::uint32_t>(frame.size());
    put({0, 0, size, size});
    file.write(reinterpret_cast<const char*>(frame.data()), size);
  }
}

class HardwareSwitch : public AgentSwitch {
 protected:
  void start() {
    json config = this->config();
    config["hardware"] = true;
    config["state"]["evpn/status"]["imetLabel"] = {{"10", 703710}};
    switch_.start(config);
    ASSERT_EQ(switch_.status(runningOn({10})), runningOn({10}));
  }
};

TEST_F(HardwareSwitch, AnswersOnTheDeviceThatTraps) {
  start();
  snoop_->send(trapped(requestFor(kRemoteIp)));  // to nobody
  fabric_->send(trapped(requestFor(kRemoteIp)));
  const auto reply = fabric_->receive(kDaemonPatience);
  ASSERT_TRUE(reply.has_value());
  EXPECT_EQ(hex(*reply), hex(replyOf(kRemote, kRemoteIp)));
  EXPECT_EQ(difference({}, switch_.counters()), "replyRemote=1 trappedRequest=1");
}

TEST_F(HardwareSwitch, FloodsAreWhatADecoderReads) {
  start();
  const std::string name = switch_.runDirectory() + "-floods.pcap";  // goes with the switch
  const Frame request = requestFor(kNobody);
  for (const bool controlWord : {false, true}) {
    std::vector<Frame> frames;
    std::string expected;
    for (const auto& [id, tagAll, innerTag] : {std::tuple<json, bool, std::string>{nullptr, false, ""},
                                               {nullptr, true, ",10"},
                                               {0, false, ",10"},
                                               {77, false, ",77"}}) {
      switch_.set("evpn/mplsConfig", {{"controlWordEnabled", controlWord}, {"addInnerDot1Q", tagAll}});
      for (const auto& [esiLabel, label] : {std::pair(0, "3"), {74565, "74565"}}) {
        switch_.set("evpn/status", {{"vlanAwareVlanId", {{"10", id}}},
                                    {"segmentStatus", {{"Ethernet1", {{"esiLabel", esiLabel}}}}}});
        for (const Frame& asked : {request, tagged(request, 99)}) {
          fabric_->send(trapped(asked));
          const auto flood = fabric_->receive(kDaemonPatience);
          ASSERT_TRUE(flood.has_value());
          frames.push_back(*flood);
          expected += std::to_string(68 + (controlWord ? 4 : 0) + (innerTag.empty() ? 0 : 4)) +
                      " 02:00:00:00:be:ef,ff:ff:ff:ff:ff:ff 02:00:00:00:00:0a,02:00:00:00:00:0a 4095" +
                      innerTag + (innerTag.empty() ? " 0" : " 0,0") + " 703710," + label +
                      " 0,0 0,1 255,255 " + (controlWord ? "0" : "") +
                      " 1 02:00:00:00:00:0a 10.0.0.10 00:00:00:00:00:00 10.0.0.120 \n";
        }
      }
    }
    capture(name, frames);
    // Nothing in a label tells whether a control word follows: the decoder is told.
    const std::string inside = controlWord ? ",pwethcw" : ",pwethnocw";
    Process decoder(
        shell("tshark -n -T fields -E separator='/s' -e frame.len -e eth.dst -e eth.src -e vlan.id "
              "-e vlan.priority -e mpls.label -e mpls.exp -e mpls.bottom -e mpls.ttl "
              "-e pweth.cw.sequence_number -e arp.opcode -e arp.src.hw_mac -e arp.src.proto_ipv4 "
              "-e arp.dst.hw_mac -e arp.dst.proto_ipv4 -e _ws.malformed -d mpls.label==3" +
              inside + " -d mpls.label==74565" + inside + " -r " + name));
    ASSERT_EQ(decoder.wait(), 0) << decoder.error;
    EXPECT_EQ(decoder.output, expected);
  }
}

// The kernel refuses what the queue of a device has no place for, and with that wakes the socket: what waits
// in the agent must not follow.
TEST_F(HardwareSwitch, FullDeviceDoesNotUseUpWhatWaits) {
  start();
  const auto tc = [](const std::string& what) {
    Process process(shell("tc qdisc " + what));
    return process.wait() == 0 ? std::string() : "tc refused: " + process.error;
  };
  // A second's worth is 125 bytes, and some 20 frames wait.
  const std::string refused = tc("add dev fabric root tbf rate 1kbit burst 1600 limit 1600");
  if (refused.find("kind is unknown") != std::string::npos)
    GTEST_SKIP() << "this kernel has no token bucket queue: " << refused;
  ASSERT_EQ(refused, "");
  constexpr int kAsked = 120;
  // All at once: each one that comes by itself is tried, and may be lost.
  switch_.daemon().signal(SIGSTOP);
  for (std::uint8_t i = 0; i < kAsked; ++i) fabric_->send(trapped(requestFor({10, 0, 1, i})));
  switch_.daemon().signal(SIGCONT);
  const auto await = [&](const auto& done) {
    const auto deadline = std::chrono::steady_clock::now() + kDaemonPatience;
    Counters counters = switch_.counters();
    while (!done(counters) && std::chrono::steady_clock::now() < deadline) counters = switch_.counters();
    return counters;
  };
  Counters counters =
      await([](Counters& c) { return c["trappedRequest"] == kAsked && c["reinjectWriteFailed"] > 0; });
  EXPECT_GT(counters["reinjected"], 0);
  EXPECT_GT(counters["reinjectWriteFailed"], 0);
  EXPECT_LT(counters["reinjectWriteFailed"], 20);
  EXPECT_EQ(tc("del dev fabric root"), "");
  // Where all of them are read before the first is written, the queue has no room for the oldest.
  const auto ended = [](Counters& c) {
    return c["reinjected"] + c["reinjectWriteFailed"] + c["floodDroppedOldest"];
  };
  counters = await([&](Counters& c) { return ended(c) == kAsked; });
  EXPECT_EQ(ended(counters), kAsked) << "the rest goes when there is place";
  EXPECT_LT(counters["reinjectWriteFailed"], 20);
}

}  // namespace
}  // namespace Lab
