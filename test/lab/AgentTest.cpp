// The agent alone: what it does with frames, seen from outside.

#include <signal.h>

#include <fstream>

#include "lab/AgentSwitch.h"

namespace Lab {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr Ip kOnEthernet2{10, 0, 0, 100};
constexpr Mac kSentinel{0x02, 0, 0, 0, 0, 0x65};
constexpr Ip kSentinelIp{10, 0, 0, 97};

class AgentOnly : public AgentSwitch {
 protected:
  // What the agent did with a frame.
  struct Outcome {
    std::vector<std::string> replies;
    std::vector<std::string> floods;
    std::string counters;
  };

  // The agent handles frames in their order: when a request that it answers and one that it floods are
  // through, so is the frame before them.
  Outcome outcomeOf(const Frame& frame) {
    const Counters before = switch_.counters();
    const Frame flooded = trapped(requestFor({10, 0, 0, ++sentinels_}));
    snoop_->send(frame);
    snoop_->send(trapped(requestFor(kSentinelIp)));
    snoop_->send(flooded);
    Outcome outcome;
    const auto replies = fabric_->receiveUntil(replyOf(kSentinel, kSentinelIp));
    const auto floods = inject_->receiveUntil(flooded);
    EXPECT_TRUE(replies && floods) << "the agent does not answer any more";
    for (const Frame& reply : replies.value_or(std::vector<Frame>())) outcome.replies.push_back(hex(reply));
    for (const Frame& flood : floods.value_or(std::vector<Frame>())) outcome.floods.push_back(hex(flood));
    Counters after = switch_.counters();
    after["replyRemote"] -= 1;
    after["floodedToRemoteTeps"] -= 1;
    after["trappedRequest"] -= 2;
    after["reinjected"] -= 1;
    outcome.counters = difference(before, after);
    return outcome;
  }

  std::uint8_t sentinels_ = 200;
};

TEST_F(AgentOnly, WorksOnInputsSetByHand) {
  switch_.start({{"agents", {"ArpSuppression"}}});
  const json all = inputs();
  for (const auto& [path, content] : all.items()) {
    SCOPED_TRACE(path);
    switch_.set(path, content);
  }
  for (const auto& [ip, mac] : std::map<std::string, std::string>{{"10.0.0.99", "02:00:00:00:00:63"},
                                                                  {"10.0.0.98", "02:00:00:00:00:61"},
                                                                  {"10.0.0.97", "02:00:00:00:00:65"},
                                                                  {"10.0.0.100", "02:00:00:00:00:64"}}) {
    const Result added = switch_.arpsup({"remote", "add", "10", ip, mac});
    EXPECT_EQ(added.status, 0) << added.error;
  }
  ASSERT_EQ(switch_.status(runningOn({10})), runningOn({10}));

  const Frame good = trapped(requestFor(kRemoteIp));
  const Frame unknown = trapped(requestFor({10, 0, 0, 120}));
  const Frame announcement = trapped(arpFrame({2, kHost, kHostIp, kHost, kHostIp}));
  const Frame bytes46 = [] {
    constexpr unsigned kBytes[] = {0x02, 0, 0, 0,  0,    0x0a, 0x02, 0, 0, 0,  0, 0x63,  // from the owner
                                   0x81, 0, 0, 10, 0x08, 0x06,                           // VLAN 10, ARP
                                   0,    1, 8, 0,  6,    4,    0,    2,                  // a reply
                                   0x02, 0, 0, 0,  0,    0x63, 10,   0, 0, 99,           // the owner
                                   0x02, 0, 0, 0,  0,    0x0a, 10,   0, 0, 10};          // who asked
    Frame frame;
    for (const unsigned byte : kBytes) frame.push_back(static_cast<std::byte>(byte));
    return frame;
  }();
  const struct {
    const char* name;
    Frame frame;
    std::optional<Frame> reply;
    bool flooded;
    const char* counters;
  } cases[] = {
      {"remote host", good, bytes46, false, "replyRemote=1 trappedRequest=1"},
      {"the kernel knows another MAC", trapped(requestFor({10, 0, 0, 98})),
       replyOf({0x02, 0, 0, 0, 0, 0x62}, {10, 0, 0, 98}), false, "replyRemote=1 trappedRequest=1"},
      {"host on a port of this switch", trapped(requestFor(kOnEthernet2)), std::nullopt, false,
       "noReplyTargetLocal=1 trappedRequest=1"},
      {"the switch itself", trapped(requestFor({10, 0, 0, 1})), std::nullopt, false,
       "targetIsMine=1 trappedRequest=1"},
      {"nobody known", unknown, std::nullopt, true, "floodedToRemoteTeps=1 reinjected=1 trappedRequest=1"},
      {"announcement", announcement, std::nullopt, true, "reinjected=1 trappedReply=1"},
      {"unknown port", trapped(requestFor(kRemoteIp), 10, 4711), std::nullopt, false,
       "noReplyUnknownSourcePort=1 replyRemote=1 trappedRequest=1"},
      {"cut in the trap header", Frame(good.begin(), good.begin() + 27), std::nullopt, false,
       "trapMalformed=1"},
  };
  for (const auto& test : cases) {
    SCOPED_TRACE(test.name);
    const Outcome outcome = outcomeOf(test.frame);
    if (test.reply) {
      EXPECT_THAT(outcome.replies, ElementsAre(hex(*test.reply)));
    } else {
      EXPECT_THAT(outcome.replies, IsEmpty());
    }
    if (test.flooded) {
      EXPECT_THAT(outcome.floods, ElementsAre(hex(test.frame)));
    } else {
      EXPECT_THAT(outcome.floods, IsEmpty());
    }
    EXPECT_EQ(outcome.counters, test.counters);
  }
  // A host that answers on another socket gets nothing: what is not a trapped frame is not looked at.
  snoop_->send(requestFor(kRemoteIp));
  EXPECT_EQ(outcomeOf(good).counters, "replyRemote=1 trappedRequest=1");
}

// A burst waits while the agent does something else, what is too much for that is counted, and a device that
// was down for a moment costs no request.
TEST_F(AgentOnly, LosesNoFrameUnseen) {
  switch_.start(config());
  ASSERT_EQ(switch_.status(runningOn({10})), runningOn({10}));
  const Frame request = trapped(requestFor(kRemoteIp));
  std::int64_t asked = 0;
  for (const auto& [frames, lost] : {std::pair(3000, false), {12000, true}}) {
    switch_.daemon().signal(SIGSTOP);
    for (int i = 0; i < frames; ++i) snoop_->send(request);
    switch_.daemon().signal(SIGCONT);
    asked += frames;
    const auto deadline = std::chrono::steady_clock::now() + kDaemonPatience;
    Counters counters = switch_.counters();
    while (counters["trappedRequest"] + counters["trapDropped"] < asked &&
           std::chrono::steady_clock::now() < deadline)
      counters = switch_.counters();
    EXPECT_EQ(counters["trappedRequest"] + counters["trapDropped"], asked);
    EXPECT_EQ(counters["trapDropped"] != 0, lost) << counters["trapDropped"];
  }
  for (const char* device : {"arpinject", "fabric"}) {
    upIs(device, false);
    upIs(device);
    awaitOperational(device);
  }
  const Frame unknown = trapped(requestFor({10, 0, 0, 120}));
  snoop_->send(unknown);
  EXPECT_TRUE(inject_->receiveUntil(unknown)) << "the first flood after that";
}

// A million bindings come in by the control socket, and then all of them once more as an agent that starts
// finds them. Who asks meanwhile gets an answer each time.
TEST_F(AgentOnly, AnswersWhileAMillionBindingsComeIn) {
  constexpr int kBindings = 1'000'000;
  const std::string name = switch_.runDirectory() + "-bindings.csv";  // goes with the switch
  {
    std::ofstream file(name);
    for (int i = 0; i < kBindings; ++i) {
      file << "10,11." << (i >> 16) << '.' << (i >> 8 & 255) << '.' << (i & 255) << ",02:00:00:00:01:01\n";
    }
  }
  switch_.start(config());
  ASSERT_EQ(switch_.status(runningOn({10})), runningOn({10}));
  std::int64_t asked = 0;
  std::int64_t answered = 0;
  const auto ask = [&] {
    snoop_->send(trapped(requestFor(kRemoteIp)));
    ++asked;
    const auto reply = fabric_->receive();
    if (reply && *reply == replyOf(kRemote, kRemoteIp)) ++answered;
  };
  const auto load = switch_.arpsupProcess({"--json", "remote", "load", name});
  while (load->read(std::chrono::milliseconds(3)) && answered == asked) ask();
  EXPECT_EQ(load->wait(), 0) << load->error;
  EXPECT_EQ(json::parse(load->output, nullptr, false).value("loaded", 0), kBindings) << load->output;
  const json loaded = {{"remoteBindings", kBindings + 1}};
  EXPECT_EQ(switch_.status(loaded), loaded);
  EXPECT_GT(asked, 10);

  switch_.set("evpn/status", {{"mplsConfigured", false}});
  ASSERT_EQ(switch_.status(notRunning()), notRunning());
  switch_.set("evpn/status", {{"mplsConfigured", true}});
  ASSERT_EQ(switch_.status(runningOn({10})), runningOn({10}));
  for (int i = 0; i < 300 && answered == asked; ++i) {
    ask();
    ASSERT_TRUE(switch_.daemon().read(std::chrono::milliseconds(3))) << switch_.daemon().error;
  }
  EXPECT_EQ(answered, asked);
  EXPECT_EQ(switch_.counters()["replyRemote"], answered);
  snoop_->send(trapped(requestFor({11, 15, 0x42, 0x3f})));  // the last one of the file
  const auto reply = fabric_->receive();
  ASSERT_TRUE(reply.has_value());
  EXPECT_EQ(hex(*reply), hex(replyOf({0x02, 0, 0, 0, 1, 1}, {11, 15, 0x42, 0x3f})));
}

}  // namespace
}  // namespace Lab
