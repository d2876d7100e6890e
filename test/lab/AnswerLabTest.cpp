// Answers that the kernel repeats: a host that was shown to the agent gets its next answer at its port.

#include <signal.h>

#include <atomic>
#include <cstring>
#include <thread>

#include "lab/WholeSwitch.h"

namespace Lab {
namespace {

using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;
using testing::IsEmpty;

constexpr int kFailOpenSeconds = 1;

class Answers : public WholeSwitch {
 protected:
  static constexpr Mac kOther{0x02, 0, 0, 0, 0, 0x98};
  static constexpr Ip kOtherIp{10, 0, 10, 98};

  struct Host {
    PacketSocket* port;
    Mac mac;
    Ip ip;
  };
  Host host1() { return {&*host1_, kHost1, kHost1Ip}; }
  // That nobody has heard of.
  Host newHost(PacketSocket& port) {
    ++hosts_;
    return {&port, {0x02, 0, 0, 0, 1, hosts_}, {10, 0, 10, static_cast<std::uint8_t>(100 + hosts_)}};
  }
  static Frame requestOf(const Host& host, const Ip& target) {
    return arpFrame({1, host.mac, host.ip, {}, target});
  }
  static Frame replyTo(const Host& host, const Mac& mac, const Ip& ip) {
    return arpFrame({2, mac, ip, host.mac, host.ip}, host.mac);
  }
  void remoteIs(const char* ip, const char* mac) {
    const Result added = switch_.arpsup({"remote", "add", "10", ip, mac});
    EXPECT_EQ(added.status, 0) << added.error;
  }

  std::int64_t answeredInKernel() const {
    std::int64_t answered = 0;
    for (const json& port : switch_.shown({"forwarding"}).value("ports", json::array()))
      answered += port.value("answered", 0);
    return answered;
  }
  // Until the kernel answers host 1 for the address.
  void awaitQuick(const Ip& target = kRemoteIp) {
    const auto deadline = Clock::now() + kDaemonPatience;
    const std::int64_t before = answeredInKernel();
    do {
      ASSERT_LT(Clock::now(), deadline) << switch_.arpsup({"--json", "forwarding"}).output;
      host1_->send(requestOf(host1(), target));
    } while (answeredInKernel() == before);
    quiet();
  }
  void reload(const json& config) const {
    const auto reload = switch_.reload(config);
    EXPECT_EQ(reload->wait(), 0) << reload->error;
  }

  struct Outcome {
    Seen seen;
    std::int64_t inKernel = 0;
    std::string counters;
  };
  Outcome outcomeOf(const Host& host, const Ip& target) {
    const Counters before = counted();
    const std::int64_t answered = answeredInKernel();
    host.port->send(requestOf(host, target));
    Outcome outcome{quiet(), answeredInKernel() - answered, {}};
    Counters after = counted();
    for (const char* ofQuiet : {"trappedRequest", "floodedToRemoteTeps", "reinjected"}) --after[ofQuiet];
    outcome.counters = difference(before, after);
    return outcome;
  }
  // The agent's counters, once they have all that the kernel answered: that takes a second.
  Counters counted() const {
    const auto deadline = Clock::now() + kPatience;
    Counters counters = switch_.counters();
    while (counters["answeredInDataPlane"] != answeredInKernel() && Clock::now() < deadline)
      counters = switch_.counters();
    return counters;
  }
  bool isQuick(const Host& host, const Ip& target = kRemoteIp) {
    const std::int64_t before = answeredInKernel();
    host.port->send(requestOf(host, target));
    quiet();
    return answeredInKernel() > before;
  }

  std::uint8_t hosts_ = 0;
};

TEST_P(Answers, AreTheSameFromTheAgentAndFromTheKernel) {
  const std::string never = "10.0.10.97";
  const Ip neverIp{10, 0, 10, 97}, overridden{10, 0, 10, 96}, onSegment{10, 0, 10, 95},
      nobody{10, 0, 10, 200};
  const Mac inKernel{0x02, 0, 0, 0, 0, 0x76}, multihomed{0x02, 0, 0, 0, 0, 0x75};
  json more = {{"neverAnswer", {never + "/32"}}};
  json& remote = config_["state"][kBindings]["remoteBinding"];
  remote["10 10.0.10.12"]["mac"] = "02:00:00:00:00:12";
  remote["10 " + never]["mac"] = "02:00:00:00:00:97";
  remote["10 10.0.10.96"]["mac"] = "02:00:00:00:00:96";
  remote["10 10.0.10.95"] = {{"mac", "02:00:00:00:00:75"}, {"localMultihomed", true}};
  more["state"]["evpn/status"]["segmentStatus"]["Ethernet2"] = {{"esiLabel", 500},
                                                                {"designatedForwarderTep", {{"10", "Tep1"}}}};
  {
    const Entered there(*vlan10_.where);
    run("ip neigh replace 10.0.10.96 lladdr 02:00:00:00:00:76 dev vlan10 nud permanent");
  }
  start(more);
  const auto hear = [&](const Mac& mac, const char* key) {
    host2_->send(plainFrame(mac, kBroadcast, kSentinelType, 0));
    EXPECT_EQ(switch_.state("bridging/status", key, "Ethernet2"), "Ethernet2");
    quiet();
  };
  hear(multihomed, "/fdb/10 02:00:00:00:00:75/intf");
  awaitQuick();
  awaitQuick(overridden);
  awaitQuick(onSegment);

  constexpr const char* kByAgent = "replyRemote=1 trappedRequest=1";
  constexpr const char* kByKernel = "answeredInDataPlane=1 replyRemote=1";
  constexpr const char* kFlooded = "floodedToRemoteTeps=1 reinjected=1 trappedRequest=1";
  enum Who { host, announces, probes };
  const struct {
    const char* name;
    PacketSocket& port;
    Who who;
    Ip target;
    std::optional<Mac> owner;  // that is said
    bool flooded;
    const char* byAgent;
    const char* byKernel;  // nullptr: the agent is asked again
  } kCases[] = {
      {"remote host", *host1_, host, kRemoteIp, kRemote, false, kByAgent, kByKernel},
      {"remote host, on a trunk", *host2_, host, kRemoteIp, kRemote, false, kByAgent, kByKernel},
      {"the kernel knows another MAC", *host1_, host, overridden, inKernel, false, kByAgent, kByKernel},
      {"on a segment that another switch forwards to", *host1_, host, onSegment, multihomed, false,
       "replyMultihomedNonDf=1 trappedRequest=1", "answeredInDataPlane=1 replyMultihomedNonDf=1"},
      {"the same, asked for on its own port", *host2_, host, onSegment, std::nullopt, false,
       "noReplySamePort=1 replyMultihomedNonDf=1 trappedRequest=1", nullptr},
      {"the switch itself", *host1_, host, kGatewayIp, macOf(vlan10_), false,
       "targetIsMine=1 trappedRequest=1", nullptr},
      {"excluded by the operator", *host1_, host, neverIp, {}, true, kFlooded, nullptr},
      {"nobody", *host1_, host, nobody, {}, true, kFlooded, nullptr},
      {"announcement", *host1_, announces, nobody, {}, true, kFlooded, nullptr},
      {"probe", *host1_, probes, kRemoteIp, {}, true, kFlooded, nullptr},
  };
  for (const auto& test : kCases) {
    SCOPED_TRACE(test.name);
    Host asks = newHost(test.port);
    if (test.who == announces) asks.ip = test.target;
    if (test.who == probes) asks.ip = {};
    Texts answer, flood;
    if (test.owner) answer = {hex(replyTo(asks, *test.owner, test.target))};
    const Texts asked = {hex(requestOf(asks, test.target))};
    if (test.flooded) flood = asked;
    for (const bool again : {false, true}) {
      SCOPED_TRACE(again ? "again" : "for the first time");
      const bool quick = again && test.byKernel != nullptr;
      const Outcome outcome = outcomeOf(asks, test.target);
      const bool on1 = &test.port == &*host1_;
      EXPECT_EQ(on1 ? outcome.seen.host1 : outcome.seen.host2, answer);
      EXPECT_EQ(on1 ? outcome.seen.host2 : outcome.seen.host1, quick ? Texts{} : asked) << "local hosts";
      EXPECT_EQ(outcome.seen.far, flood);
      EXPECT_EQ(outcome.seen.far2, flood);
      EXPECT_EQ(outcome.inKernel, quick ? 1 : 0);
      EXPECT_EQ(outcome.counters, quick ? test.byKernel : test.byAgent);
    }
  }

  // An owner that turns out to be here answers for itself; so does one on a segment that this switch forwards to.
  hear(kRemote, "/fdb/10 02:00:00:00:00:99/intf");
  switch_.set("evpn/status", {{"segmentStatus", {{"Ethernet2", nullptr}}}});
  const json none = nullptr;
  EXPECT_EQ(switch_.state("evpn/status", "/segmentStatus/Ethernet2", none), none);
  for (const Ip& target : {kRemoteIp, onSegment, kHost2Ip}) {
    const Host asks = newHost(*host1_);
    for (const char* turn : {"for the first time", "again"}) {
      SCOPED_TRACE(turn);
      const Outcome outcome = outcomeOf(asks, target);
      EXPECT_THAT(outcome.seen.host1, IsEmpty());
      EXPECT_THAT(outcome.seen.host2, testing::ElementsAre(hex(requestOf(asks, target))));
      EXPECT_EQ(outcome.inKernel, 0);
    }
  }
}

TEST_P(Answers, AreForWhoWasShownToTheAgentJustSo) {
  start();
  awaitQuick();
  const Host on1 = newHost(*host1_);
  Host on2 = on1, moreIps = on1, claims = newHost(*host2_);
  on2.port = &*host2_;
  moreIps.ip[2] = 14;
  claims.ip = on1.ip;
  const struct {
    const char* name;
    const Host& host;
    bool quick;
    const char* port;  // that the agent knows the address on then
  } kSteps[] = {
      {"never seen", on1, false, "Ethernet1"},
      {"just so", on1, true, "Ethernet1"},
      {"on another port", on2, false, "Ethernet2"},
      {"still there", on2, true, "Ethernet2"},
      {"back again", on1, false, "Ethernet1"},
      {"and still", on1, true, "Ethernet1"},
      {"with one more address", moreIps, false, "Ethernet1"},
      {"with that one", moreIps, true, "Ethernet1"},
      {"with the first one", on1, true, "Ethernet1"},
      {"another one claims the address", claims, false, nullptr},
      {"the first one says otherwise", on1, false, nullptr},
  };
  for (const auto& step : kSteps) {
    SCOPED_TRACE(step.name);
    const std::int64_t before = answeredInKernel();
    step.host.port->send(requestOf(step.host, kRemoteIp));
    const Seen seen = quiet();
    const Texts answer = {hex(replyTo(step.host, kRemote, kRemoteIp))};
    EXPECT_EQ(step.host.port == &*host1_ ? seen.host1 : seen.host2, answer);
    EXPECT_EQ(answeredInKernel() - before, step.quick ? 1 : 0);
    if (step.port == nullptr) continue;
    json interface;
    for (const json& binding : switch_.shown({"bindings", "local"}))
      if (binding["ip"] == "10.0." + std::to_string(step.host.ip[2]) + "." + std::to_string(step.host.ip[3]))
        interface = binding["interface"];
    EXPECT_EQ(interface, step.port);
  }
}

// A host that asks for some addresses by turns, 10,000 times a second, and when whose MAC was last said.
class Asker {
 public:
  Asker(PacketSocket& host, std::vector<Frame> requests)
      : thread_([this, &host, requests = std::move(requests)] {
          const auto period = std::chrono::microseconds(100) * patienceFactor();
          for (auto next = Clock::now(); !stop_; std::this_thread::sleep_until(next)) {
            // Who was left waiting asks more often for a while, but does not flood the switch.
            next = std::max(next, Clock::now() - kCatchUp * period);
            for (; next <= Clock::now(); next += period)
              host.send(requests[static_cast<std::size_t>(asked++) % requests.size()]);
            while (const auto frame = host.receive(std::chrono::milliseconds(0)))
              if (frame->size() >= 42 && (*frame)[21] == std::byte{2})
                last_[std::to_integer<std::size_t>((*frame)[27])] = Clock::now().time_since_epoch().count();
          }
        }) {}
  ~Asker() {
    stop_ = true;
    thread_.join();
  }
  Asker(const Asker&) = delete;
  Asker& operator=(const Asker&) = delete;

  // The beginning of time: it never was.
  Clock::time_point last(const Mac& mac) const { return Clock::time_point(Clock::duration(last_[mac[5]])); }
  // Until so many more were asked.
  void await(int more) const {
    for (const int until = asked + more; asked < until;)
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  bool awaitSaid(const Mac& mac) const {
    const auto since = Clock::now();
    while (last(mac) < since)
      if (Clock::now() > since + kDaemonPatience) return false;
    return true;
  }

  std::atomic<int> asked = 0;

 private:
  static constexpr int kCatchUp = 100;
  std::array<std::atomic<Clock::rep>, 256> last_{};
  std::atomic<bool> stop_ = false;
  std::thread thread_;
};

TEST_P(Answers, EndWithWhatTheyRestOn) {
  const int kTimes = patienceFactor() > 1 ? 10 : 100;  // an emulated processor takes seconds for each
  // On an idle machine it is less than a millisecond; a shared one may leave a thread waiting once.
  const double kUsual = 0.1 * patienceFactor(), kAtMost = 1.0 * patienceFactor();  // seconds
  start();
  remoteIs("10.0.10.98", "02:00:00:00:00:98");
  awaitQuick(kOtherIp);
  awaitQuick();
  const auto movesTo = [&](PacketSocket& port, const char* name) {
    port.send(plainFrame(kRemote, kBroadcast, kSentinelType, 0));
    EXPECT_EQ(switch_.state("bridging/status", "/fdb/10 02:00:00:00:00:99/intf", name), name);
  };
  const struct {
    const char* name;
    std::function<void()> change, undo;
    int times;
  } kCases[] = {
      {"another MAC", [&] { remoteIs("10.0.10.99", "02:00:00:00:00:97"); },
       [&] { remoteIs("10.0.10.99", "02:00:00:00:00:99"); }, kTimes},
      {"withdrawn",
       [&] {
         EXPECT_EQ(switch_.arpsup({"remote", "del", "10", "10.0.10.99"}).status, 0);
       },
       [&] { remoteIs("10.0.10.99", "02:00:00:00:00:99"); }, kTimes},
      {"on a port of this switch", [&] { movesTo(*host2_, "Ethernet2"); }, [&] { movesTo(*far_, "core10"); },
       kTimes / 10},
  };
  const Asker asker(*host1_, {requestOf(host1(), kRemoteIp), requestOf(host1(), kOtherIp)});
  for (const auto& test : kCases) {
    SCOPED_TRACE(test.name);
    std::vector<double> delays;
    const std::int64_t answered = answeredInKernel();
    const int asked = asker.asked;
    const auto begun = Clock::now();
    for (int i = 0; i < test.times; ++i) {
      ASSERT_TRUE(asker.awaitSaid(kRemote)) << switch_.daemon().error;
      test.change();
      const auto changed = Clock::now();
      asker.await(200);
      delays.push_back(std::max(0.0, Seconds(asker.last(kRemote) - changed).count()));
      test.undo();
    }
    EXPECT_TRUE(asker.awaitSaid(kOther)) << "nobody else is concerned";
    std::ranges::sort(delays);
    const auto at = [&](double part) {
      return delays[static_cast<std::size_t>(part * (test.times - 1))] * 1e3;
    };
    printf(
        "%s, %d times: the old answer was last heard p50 %.2f, p90 %.2f, p99 %.2f, at most %.2f ms after; "
        "%d asked, %.0f a second, %lld answered in the kernel\n",
        test.name, test.times, at(0.5), at(0.9), at(0.99), at(1), asker.asked - asked,
        (asker.asked - asked) / Seconds(Clock::now() - begun).count(),
        static_cast<long long>(answeredInKernel() - answered));
    EXPECT_LE(at(0.9), kUsual * 1e3);
    EXPECT_LE(delays.back(), kAtMost);
    EXPECT_GT(answeredInKernel(), answered);
  }
}

TEST_P(Answers, EndWithTheAgentAndComeBackTrue) {
  const json settings = {{"softForward", {{"failOpenSeconds", kFailOpenSeconds}}}};
  const double kAtOnce = 0.4 * patienceFactor();
  config_["state"][kBindings]["remoteBinding"]["10 10.0.10.98"]["mac"] = "02:00:00:00:00:98";
  start(settings);
  json config = config_;
  config.merge_patch(settings);
  const struct {
    const char* name;
    int ends;
    std::function<void()> goesOn;
  } kCases[] = {
      {"it hangs", SIGSTOP, [&] { switch_.daemon().signal(SIGCONT); }},
      {"it is killed", SIGKILL, [&] { switch_.daemon().wait(), switch_.start(config); }},
  };
  for (const auto& test : kCases) {
    SCOPED_TRACE(test.name);
    far_->send(plainFrame(kRemote, kBroadcast, kSentinelType, 0));
    awaitQuick();
    awaitQuick(kOtherIp);
    const Asker asker(*host1_, {requestOf(host1(), kRemoteIp), requestOf(host1(), kOtherIp)});
    ASSERT_TRUE(asker.awaitSaid(kRemote) && asker.awaitSaid(kOther));
    const auto ends = Clock::now();
    switch_.daemon().signal(test.ends);
    // Meanwhile the owner of one of the addresses comes here, and nobody tells the kernel's answers.
    host2_->send(plainFrame(kRemote, kBroadcast, kSentinelType, 0));
    std::optional<Frame> heard;
    do heard = far_->receive();
    while (heard && *heard != requestOf(host1(), kRemoteIp));
    const auto flooded = Clock::now();
    ASSERT_TRUE(heard) << "nothing is flooded";
    EXPECT_LE(Seconds(flooded - ends).count(), kFailOpenSeconds + kAtOnce);
    printf("%s: flooded after %.2f s; last answered in the kernel %.3f s before\n", test.name,
           Seconds(flooded - ends).count(), Seconds(flooded - asker.last(kRemote)).count());
    asker.await(200);
    EXPECT_LE(asker.last(kRemote), flooded);
    EXPECT_LE(asker.last(kOther), flooded + std::chrono::milliseconds(10) * patienceFactor());
    test.goesOn();
    EXPECT_TRUE(asker.awaitSaid(kOther)) << "what is still so is answered again";
    asker.await(200);
    EXPECT_LE(asker.last(kRemote), flooded) << "what is not so any more";
  }
}

TEST_P(Answers, AreLeftToTheAgentWhereTheConfigurationSaysSo) {
  start();
  awaitQuick();
  const struct {
    const char* name;
    json change;
    bool otherPort;  // whether the kernel answers there
  } kCases[] = {
      {"everywhere", {{"softForward", {{"answers", {{"enabled", false}}}}}}, false},
      {"on the VLAN", {{"vlans", {{"10", {{"answers", false}}}}}}, false},
      {"at the port", {{"softForward", {{"ports", {{"Ethernet1", {{"answers", false}}}}}}}}, true},
  };
  for (const auto& test : kCases) {
    SCOPED_TRACE(test.name);
    json config = config_;
    config.merge_patch(test.change);
    reload(config);
    const auto deadline = Clock::now() + kDaemonPatience;
    while (isQuick(host1()) && Clock::now() < deadline) {
    }
    host1_->send(request(kRemoteIp));
    EXPECT_EQ(quiet().host1, Texts{hex(reply(kRemote, kRemoteIp))}) << "by the agent";
    EXPECT_FALSE(isQuick(host1()));
    const Host other = newHost(*host2_);
    isQuick(other);
    EXPECT_EQ(isQuick(other), test.otherPort);
    reload(config_);
    awaitQuick();
  }
}

INSTANTIATE_TEST_SUITE_P(Layouts, Answers, testing::ValuesIn(kLayouts), nameOf);

}  // namespace
}  // namespace Lab
