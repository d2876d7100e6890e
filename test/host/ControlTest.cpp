#include <gmock/gmock.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <fstream>
#include <memory>

#include "Suppression/RemoteBindingConfig.h"
#include "Switch/Health.h"
#include "Tracelet/Text.h"
#include "host/AgentAnswer.h"
#include "host/Bindings.h"
#include "host/ControlAddress.h"
#include "host/ControlServer.h"
#include "host/HealthSm.h"
#include "test/host/HostFixture.h"

namespace HostTest {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

constexpr const char* kRemote = "arpSuppression/remoteBindingConfig/evpn";
constexpr uid_t kRoot = 0;
constexpr uid_t kNobody = 65534;
constexpr uid_t kSomebody = 1000;

// The far end of a client's connection. Never blocks.
class Peer {
 public:
  explicit Peer(Host::ControlServer& server, uid_t user = kRoot) {
    std::array<int, 2> ends{};
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends.data()), 0);
    socket_ = ends[0];
    server.clientIs(ends[1], user);
  }
  explicit Peer(int socket) : socket_(socket) {}
  Peer(const Peer&) = delete;
  Peer& operator=(const Peer&) = delete;
  ~Peer() { hangUp(); }

  // How much the socket took.
  std::size_t send(std::string_view bytes) const {
    const ssize_t put = ::send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    return put < 0 ? 0 : static_cast<std::size_t>(put);
  }
  // What there is, up to so much.
  std::string receive(std::size_t most = std::string::npos) {
    std::string text;
    std::array<char, 65536> bytes;
    ssize_t got = 1;
    while (text.size() < most &&
           (got = recv(socket_, bytes.data(), std::min(most, bytes.size()), MSG_DONTWAIT)) > 0)
      text.append(bytes.data(), static_cast<std::size_t>(got));
    if (got > 0) return text;
    closed_ = closed_ || got == 0 || (errno != EAGAIN && errno != EWOULDBLOCK);
    return text;
  }
  bool closed() {
    receive();
    return closed_;
  }
  void shutDownSending() const { shutdown(socket_, SHUT_WR); }
  void hangUp() {
    if (socket_ >= 0) close(socket_);
    socket_ = -1;
  }

 private:
  int socket_ = -1;
  bool closed_ = false;
};

class Control : public testing::Test {
 protected:
  void serverIs(Host::ControlLimits limits = {}) {
    server = std::make_unique<Host::ControlServer>(host.scheduler(), *host.state, agents, limits);
  }
  // What a root client gets for this, whole lines.
  std::string answerTo(std::string_view request, uid_t user = kRoot) {
    Peer peer(*server, user);
    peer.send(request);
    return all(peer);
  }
  // Lets the loop run until it holds; false when it does not in time. A copy of the process on a busy machine
  // may write a word at a time: only time says that it is late.
  bool becomes(const std::function<bool()>& condition) {
    for (const double deadline = host.loop.clock().now() + 30; !condition(); host.loop.step(0.01)) {
      if (host.loop.clock().now() > deadline) return false;
    }
    return true;
  }
  void remoteBindingsAre(int count) {
    json bindings;
    for (int i = 0; i < count; ++i)
      bindings["10 10.0." + std::to_string(i / 250) + "." + std::to_string(i % 250)] = {
          {"mac", "02:00:00:00:00:01"}};
    ASSERT_EQ(host.apply({{kRemote, {{"remoteBinding", bindings}}}}), "");
  }
  // Lets the loop run until nothing more comes.
  std::string all(Peer& peer) {
    std::string text;
    for (int idle = 0; idle < 5; ++idle) {
      host.settle();
      const std::string more = peer.receive();
      if (!more.empty()) idle = 0;
      text += more;
    }
    return text;
  }

  RunDir runDir;
  HostState host{runDir};
  Host::ControlCommands::Agents agents;
  std::unique_ptr<Host::ControlServer> server;
};

constexpr const char* kOk = "{\"ok\":true}\n";

// Of the lines of an answer, put together.
std::string textOf(const std::string& answer) {
  std::string text;
  for (std::size_t at = 0; at < answer.size(); at = answer.find('\n', at) + 1)
    text += json::parse(answer.substr(at, answer.find('\n', at) - at)).value("text", "");
  return text;
}

TEST_F(Control, answersInTurnAndInPieces) {
  serverIs();
  Peer peer(*server);
  const std::string requests =
      R"({"cmd":"set","path":"evpn/mplsConfig","value":{"addInnerDot1Q":true}})"
      "\n\r\n"
      R"({"cmd":"show","path":"evpn/mplsConfig"})"
      "\n"
      R"({"cmd":"apply","state":{"evpn/mplsConfig":{"addInnerDot1Q":null},"evpn/status":{"mplsConfigured":true}}})"
      "\n";
  const std::string expected = std::string(kOk) +
                               R"({"text":"{\"controlWordEnabled\":false,\"addInnerDot1Q\":true}"})"
                               "\n" +
                               kOk + kOk;
  std::string answers;
  for (const char c : requests) {
    peer.send({&c, 1});
    host.loop.step();
    answers += peer.receive();
  }
  answers += all(peer);
  EXPECT_EQ(answers, expected);
  EXPECT_EQ(host.show("evpn/status")["mplsConfigured"], true);
  EXPECT_FALSE(peer.closed());
  // One that ends its side after its requests gets every answer.
  peer.send(requests + "{\"cmd\"");
  peer.shutDownSending();
  EXPECT_THAT(all(peer), testing::AllOf(testing::StartsWith(expected), HasSubstr("ends without a newline")));
  EXPECT_TRUE(peer.closed());
  EXPECT_EQ(server->clients(), 0u);
}

TEST_F(Control, refusesWithoutHarm) {
  serverIs();
  constexpr const char* kOnlyRoot = "only root may change state";
  const struct {
    std::string request;
    const char* error;
    uid_t user = kRoot;
  } cases[] = {
      {"x", "cannot be read: line 1, column 1"},
      {"[]", "it is not a JSON object"},
      {std::string(1000, '['), "nested deeper"},
      {"{\"cmd\":\"show\"} {}", "cannot be read"},
      {std::string("{\"cmd\":\"show\0\"}", 15), "cannot be read"},
      {"\xff\xfe", "cannot be read"},
      {R"({"cmd":1})", "needs \"cmd\", a string"},
      {R"({"cmd":"reboot"})", "unknown command \"reboot\"; known are"},
      {R"({"cmd":"show"})", "needs \"path\""},
      {R"({"cmd":"show","path":"a/b"})", "a/b: there is no such path; allowed: "},
      {R"({"cmd":"set","path":"evpn/status"})", "needs \"value\""},
      {R"({"cmd":"set","path":"evpn/status","value":null})", "evpn/status: null is not an object"},
      {R"({"cmd":"apply","state":[]})", "needs \"state\""},
      {R"({"cmd":"remote"})", "needs \"op\""},
      {R"({"cmd":"remote","op":"set"})", "unknown \"op\" \"set\""},
      {R"({"cmd":"remote","op":"add","bindings":["10 10.0.0.1 02:00:00:00:00:01"]})",
       "needs \"bindings\", a string"},
      {R"({"cmd":"remote","op":"add","bindings":"10 10.0.0.1 02:00:00:00:00:01\n10 10.0.0.2 03:00:00:00:00:01"})",
       "MAC \"03:"},
      {R"({"cmd":"remote","op":"add","bindings":"10 10.0.0.1 02:00:00:00:00:01 x"})",
       "\"x\" is not \"localMultihomed\""},
      {R"({"cmd":"agent","command":"explain"})",
       "no plug-in that is ready answers \"explain\"; loaded: none"},
      {R"({"cmd":"agent","command":"status","args":[1]})", "\"args\" is not a list of strings"},
      {R"({"cmd":"monitor","paths":"evpn/status"})", "\"paths\" is not a list of strings"},
      {R"({"cmd":"monitor","paths":["evpn/status","a/b"]})", "a/b: there is no such path; allowed: "},
      {R"({"cmd":"set","path":"evpn/status","value":{"mplsConfigured":true}})", kOnlyRoot, kNobody},
      {R"({"cmd":"apply","state":{"evpn/status":{"mplsConfigured":true}}})", kOnlyRoot, kNobody},
      {R"({"cmd":"remote","op":"add","bindings":"10 10.0.0.1 02:00:00:00:00:01"})", kOnlyRoot, kNobody},
      {R"({"cmd":"remote","op":"clear"})", kOnlyRoot, kNobody},
  };
  for (const auto& test : cases) {
    const std::string answer = answerTo(test.request + "\n", test.user);
    const json parsed = json::parse(answer, nullptr, false);
    ASSERT_TRUE(parsed.is_object()) << test.request << answer;
    EXPECT_EQ(parsed["ok"], false);
    EXPECT_THAT(parsed["error"].get<std::string>(), HasSubstr(test.error)) << test.request;
    EXPECT_EQ(host.show(kRemote)["remoteBinding"], json::object()) << test.request;
  }
  EXPECT_EQ(host.show("evpn/status")["mplsConfigured"], false);
}

// Interfaces may have any name: one that is not UTF-8, or speaks to a terminal, ends neither an answer nor the process.
TEST_F(Control, namesOfAnyBytesAreCarried) {
  const std::string name = "e\xff\n\x1b[2J\x7f\xc2\x9b";
  host.state->problems().problemIs("port " + name, "torn", "mend " + name);
  const auto tree = host.state->tree();
  const auto judge = Mox::make<Host::HealthSm>(host.scheduler(), tree);
  host.settle();
  const auto health = tree->entityOf<Switch::Health>(Switch::kHealthPath);
  ASSERT_TRUE(health);
  health->startingIs(false);
  health->vlanIs(Bridging::VlanId(10))->accessPortsIs({name});
  serverIs();
  for (const char* request : {R"({"cmd":"health"})", R"({"cmd":"show","path":"switch/health"})",
                              R"({"cmd":"show","path":"switch/problems"})"}) {
    const std::string answer = answerTo(std::string(request) + "\n", kNobody);
    EXPECT_THAT(answer, testing::EndsWith(kOk)) << request;
    EXPECT_EQ(Tracelet::printableLines(answer), answer) << request;
    const std::string text = textOf(answer);
    EXPECT_EQ(Tracelet::printable(text), text) << request;
    EXPECT_TRUE(json::accept(text)) << text;
    EXPECT_THAT(text, HasSubstr("e\xef\xbf\xbd")) << request;
  }
  const json refused =
      json::parse(answerTo("{\"cmd\":\"agent\",\"command\":\"\\u001b\\n\\u009b\"}\n"), nullptr, false);
  const auto error = refused.value("error", std::string());
  EXPECT_THAT(error, HasSubstr(R"(answers "\x1b\x0a\xc2\x9b")")) << "an error is one line";
  host.state->problems().problemDel("port " + name);
}

TEST_F(Control, boundsWhatAClientSends) {
  serverIs();
  const struct {
    uid_t user;
    std::size_t most;
  } cases[] = {{kRoot, Host::kMaxWriterLine}, {kNobody, Host::kMaxReaderLine}};
  for (const auto& test : cases) {
    for (const std::size_t length : {test.most, test.most + 1}) {
      Peer peer(*server, test.user);
      const std::string line = std::string(length, ' ') + "\n" + "{\"cmd\":\"paths\"}\n";
      std::string answers;
      for (std::size_t sent = 0; sent < line.size() && !peer.closed();) {
        sent += peer.send(std::string_view(line).substr(sent));
        host.settle();
        answers += peer.receive();
      }
      answers += all(peer);
      EXPECT_EQ(peer.closed(), length > test.most);
      EXPECT_EQ(answers.find("\"paths\":[") == std::string::npos, length > test.most);
    }
  }
  // One that never ends a line is told so, before it is dropped, and only it.
  Peer other(*server);
  Peer endless(*server, kNobody);
  std::string told;
  for (int i = 0; i < 1000 && told.empty(); ++i) {
    endless.send(std::string(10000, 'x'));
    host.settle();
    told = endless.receive();
  }
  EXPECT_THAT(told, HasSubstr("longer than 65536 bytes"));
  EXPECT_TRUE(endless.closed());
  EXPECT_FALSE(other.closed());
}

// A client that asks and never reads costs a bounded buffer, and what it asked for waits.
TEST_F(Control, stopsForAClientThatDoesNotRead) {
  Host::ControlLimits limits;
  limits.unsent = 64 << 10;
  serverIs(limits);
  remoteBindingsAre(4000);
  Peer peer(*server);
  const std::string request = std::string("{\"cmd\":\"show\",\"path\":\"") + kRemote + "\"}\n";
  std::size_t asked = 0;
  for (int i = 0; i < 200; ++i) asked += peer.send(request) == request.size() ? 1 : 0;
  host.settle();
  for (int turns = 0; host.loop.step(); ++turns) ASSERT_LT(turns, 10000) << "the loop does not come to rest";
  EXPECT_EQ(answerTo("{\"cmd\":\"set\",\"path\":\"evpn/status\",\"value\":{}}\n"), kOk);
  const std::string answers = all(peer);
  std::size_t done = 0;
  for (std::size_t at = 0; (at = answers.find(kOk, at)) != std::string::npos; ++at) ++done;
  EXPECT_EQ(done, asked);
}

TEST_F(Control, outlivesClientsThatVanish) {
  serverIs();
  std::string chunk = R"({"cmd":"remote","op":"add","bindings":")";
  for (std::size_t i = 0; i < Host::kChunkBindings; ++i) {
    chunk += (i == 0 ? "" : "\\n") + std::string("10 10.0.") + std::to_string(i / 256) + "." +
             std::to_string(i % 256 == 0 ? 1 : i % 256) + " 02:00:00:00:00:01";
  }
  chunk += "\"}\n";
  for (std::size_t cut = 0; cut <= chunk.size() * 2; cut += chunk.size() / 7) {
    Peer peer(*server);
    peer.send((chunk + chunk).substr(0, cut));
    if (cut % 2 == 0) host.loop.step();
    peer.hangUp();
    host.settle();
  }
  EXPECT_EQ(server->clients(), 0u);
  // In the middle of a clear, and of a long answer.
  ASSERT_THAT(answerTo(chunk), HasSubstr("\"ok\":true"));
  for (const std::string request :
       {"{\"cmd\":\"remote\",\"op\":\"clear\"}\n", "{\"cmd\":\"show\",\"path\":\"arp/status\"}\n"}) {
    Peer peer(*server);
    peer.send(request);
    for (int turn = 0; turn < 3; ++turn) host.loop.step();
    peer.hangUp();
    host.settle();
  }
  EXPECT_EQ(server->clients(), 0u);
  // What the interrupted clear left, and what came after it, goes with the next.
  ASSERT_EQ(answerTo("{\"cmd\":\"remote\",\"op\":\"add\",\"bindings\":\"11 10.0.0.1 02:00:00:00:00:01\"}\n"),
            "{\"changed\":1,\"ok\":true}\n");
  ASSERT_THAT(answerTo("{\"cmd\":\"remote\",\"op\":\"clear\"}\n"), HasSubstr("\"ok\":true"));
  EXPECT_EQ(host.show(kRemote)["remoteBinding"], json::object());
}

TEST_F(Control, chunksAreAllOrNothingAndCounted) {
  serverIs();
  const auto remote = [&](const char* op, const std::string& lines) {
    return answerTo(json{{"cmd", "remote"}, {"op", op}, {"bindings", lines}}.dump() + "\n");
  };
  EXPECT_EQ(
      remote("add", "10 10.0.0.1 02:00:00:00:00:01\n10 fe80::1 02:00:00:00:00:02 localMultihomed router\n"),
      "{\"changed\":2,\"ok\":true}\n");
  EXPECT_EQ(remote("add", "10 10.0.0.1 02:00:00:00:00:01"), "{\"changed\":0,\"ok\":true}\n");
  EXPECT_EQ(remote("add", ""), "{\"changed\":0,\"ok\":true}\n");
  EXPECT_EQ(remote("del", "10 10.0.0.1\n10 10.0.0.9"), "{\"changed\":1,\"ok\":true}\n");
  EXPECT_EQ(
      host.show(kRemote)["remoteBinding"],
      json({{"10 fe80::1", {{"mac", "02:00:00:00:00:02"}, {"localMultihomed", true}, {"router", true}}}}));
  std::string many;
  for (std::size_t i = 0; i <= Host::kChunkBindings; ++i) many += "10 10.0.0.1 02:00:00:00:00:01\n";
  EXPECT_THAT(remote("add", many), HasSubstr("more than 512 bindings"));
  const json interface = {{"vrfName", "default"}, {"activeAddr", "10.0.0.254/24"}};
  ASSERT_EQ(host.apply({{"ip/status", {{"ipIntfStatus", {{"Vlan10", interface}}}}}}), "");
  EXPECT_THAT(remote("add", "10 10.0.0.7 02:00:00:00:00:07\n10 10.0.0.254 02:00:00:00:00:08"),
              HasSubstr("10.0.0.254\\\" on VLAN 10 is the address of Vlan10 of this switch"));
  EXPECT_EQ(host.show(kRemote)["remoteBinding"].size(), 1u);
  ASSERT_EQ(host.apply({{"arpSuppression/limits", {{"remoteBindings", 2}}}}), "");
  EXPECT_THAT(remote("add",
                     "10 fe80::1 02:00:00:00:00:03\n10 10.0.0.1 02:00:00:00:00:01\n"
                     "10 10.0.0.2 02:00:00:00:00:02"),
              HasSubstr("no room for 2 more remote bindings: there are 1, and limits.remoteBindings is 2"));
  EXPECT_FALSE(host.show(kRemote)["remoteBinding"].contains("10 10.0.0.1"));
}

// Neither an agent's answer of any length nor its characters come out changed, also from a copy of the
// process.
TEST_F(Control, carriesAgentCommands) {
  using Answer = Plugin::AgentCommandCallback::Answer;
  struct Command final : Plugin::AgentCommandCallback {
    Command(const char* name, Answer answer) : AgentCommandCallback("", name, answer) {}
    Mox::Result<> check(const std::vector<Mox::String>& arguments) const override {
      if (arguments.size() > 100) return Mox::Failure{"more than 100 words"};
      return {};
    }
    void handleCommand(int descriptor, const std::vector<Mox::String>& arguments) override {
      if (arguments == std::vector<Mox::String>{"fail"}) throw Mox::RangeError("out of range");
      if (arguments == std::vector<Mox::String>{"endless"}) {
        while (write(descriptor, "more\n", 5) == 5) {
        }
        return;  // its reader has gone
      }
      for (const auto& argument : arguments)
        EXPECT_GT(write(descriptor, argument.data(), argument.size()), 0);
    }
  };
  struct Agent final : Plugin::AgentBase {
    Agent() : AgentBase("Echo") {
      agentCommandCallbackIs(Mox::make<Command>("small", Answer::small));
      agentCommandCallbackIs(Mox::make<Command>("large", Answer::large));
    }
    void doInit() override {}
    void doMountsComplete(Statedb::MountStatus, const Mox::Ptr<Statedb::EntityManager>&) override {}
  };
  agents.push_back(Mox::make<Agent>());
  serverIs();
  const auto ask = [&](const char* name, const json& args, uid_t user = kNobody) {
    Peer peer(*server, user);
    peer.send(json{{"cmd", "agent"}, {"command", name}, {"args", args}}.dump() + "\n");
    std::string answer;
    becomes([&] { return (answer += peer.receive()).find("\"ok\":") != std::string::npos; });
    return answer;
  };
  const std::string line = "\xc3\xa4 \"quoted\" \\ \t" + std::string(300, 'z') + "\n";
  const json args(100, line);
  for (const char* name : {"small", "large"}) {
    const std::string answer = ask(name, args);
    std::string expected;
    for (int i = 0; i < 100; ++i) expected += line;
    EXPECT_EQ(textOf(answer), expected) << name;
    EXPECT_THAT(answer, testing::EndsWith(kOk));
    EXPECT_EQ(ask(name, json::array()), kOk);
    EXPECT_THAT(ask(name, json(101, "x")), HasSubstr("more than 100 words"));
  }
  EXPECT_EQ(ask("small", {"fail"}), "{\"error\":\"out of range\",\"ok\":false}\n");
  EXPECT_THAT(ask("large", {"fail"}), HasSubstr("broke off"));

  // Clients that go away, or do not read, cost a copy each until they go, and then nothing. One user has two,
  // and there is always one for root.
  for (int round = 0; round < 3; ++round) {
    siginfo_t child{};
    ASSERT_TRUE(becomes([&] { return waitid(P_ALL, 0, &child, WEXITED | WNOHANG | WNOWAIT) != 0; }))
        << "copies stay";
    std::vector<std::unique_ptr<Peer>> peers;
    const auto endless = [&](uid_t user) {
      peers.push_back(std::make_unique<Peer>(*server, user));
      peers.back()->send("{\"cmd\":\"agent\",\"command\":\"large\",\"args\":[\"endless\"]}\n");
      host.settle();
    };
    endless(kNobody);
    endless(kNobody);
    EXPECT_THAT(ask("large", {"x"}), HasSubstr("\"2 such answers of this user are being written already; "));
    endless(kSomebody);
    EXPECT_THAT(ask("large", {"x"}, kSomebody), HasSubstr("\"3 such answers are being written already; "));
    endless(kRoot);
    EXPECT_THAT(ask("large", {"x"}, kRoot),
                HasSubstr("\"4 such answers are being written already; try again"));
  }
}

json linesOf(const std::string& answer) {
  const std::string text = textOf(answer);
  json lines = json::array();
  for (std::size_t at = 0; at < text.size(); at = text.find('\n', at) + 1) {
    lines.push_back(json::parse(text.substr(at, text.find('\n', at) - at)));
    EXPECT_GT(lines.back()["time"], 1.7e9);
    lines.back().erase("time");
  }
  return lines;
}

TEST_F(Control, monitorTellsWhatChanged) {
  Host::ControlLimits limits;
  limits.idleSeconds = 0.01;
  serverIs(limits);
  ASSERT_EQ(host.apply({{"evpn/status",
                         {{"vlanToDot1q", {{"9", 9}}}, {"segmentStatus", {{"Ethernet1", json::object()}}}}}}),
            "");
  Peer peer(*server, kNobody);
  peer.send("{\"cmd\":\"monitor\"}\n");
  EXPECT_EQ(all(peer), "") << "what is there already is no change";
  const auto changes = [&](const json& state) {
    EXPECT_EQ(host.apply(state), "");
    std::string answer;
    becomes([&] { return !(answer = all(peer)).empty(); });
    return linesOf(answer);
  };
  const auto line = [](const char* path, const json& change) {
    return json{{"path", path}, {"change", change}};
  };
  const auto toldAsWritten = [&](const char* path, const json& change) {
    EXPECT_EQ(changes({{path, change}}), json::array({line(path, change)}));
  };
  // Those of one turn are one line, with what is there in the end.
  host.apply({{"evpn/status", {{"imetLabel", {{"10", 1}}}}}});
  toldAsWritten("evpn/status", {{"mplsConfigured", true},
                                {"vlanToDot1q", {{"9", nullptr}}},
                                {"imetLabel", {{"10", 2}}},
                                {"segmentStatus", {{"Ethernet1", {{"esiLabel", 5}}}}}});
  // A child that was replaced in between goes first, with its old members.
  const json gone = {{"segmentStatus", {{"Ethernet1", nullptr}}}};
  const json made = {
      {"segmentStatus", {{"Ethernet1", {{"esiLabel", 6}, {"designatedForwarderTep", json::object()}}}}}};
  host.apply({{"evpn/status", gone}});
  EXPECT_EQ(changes({{"evpn/status", {{"segmentStatus", {{"Ethernet1", {{"esiLabel", 6}}}}}}}}),
            json::array({line("evpn/status", gone), line("evpn/status", made)}));
  const json binding = {{"mac", "02:00:00:00:00:01"}, {"localMultihomed", false}, {"router", false}};
  toldAsWritten(kRemote, {{"remoteBinding", {{"10 10.0.0.1", binding}}}});
  EXPECT_EQ(changes({{kRemote, {{"remoteBinding", nullptr}}}}),
            json::array({line(kRemote, {{"remoteBinding", {{"10 10.0.0.1", nullptr}}}})}));
  toldAsWritten("kni/ns/red/status", {{"interface", {{"vlan10", {{"ifIndex", 7}}}}}});
  host.state->tree()->entityDel("kni/ns/red/status");
  EXPECT_EQ(changes({}), json::array({line("kni/ns/red/status", nullptr)}));
  EXPECT_EQ(server->clients(), 1u) << "one that waits for changes is not idle";
  peer.hangUp();
  host.settle();
  EXPECT_EQ(server->clients(), 0u);
}

// Whatever changes meanwhile, a client that does not read costs a bounded amount of memory.
TEST_F(Control, monitorSaysWhatIsLost) {
  Host::ControlLimits limits;
  limits.unsent = 4 << 10;
  serverIs(limits);
  Peer peer(*server);
  peer.send(std::string(R"({"cmd":"monitor","paths":["evpn/status/",")") + kRemote + "\"]}\n");
  host.settle();
  constexpr int kRounds = 12;
  for (int round = 0; round < kRounds; ++round) {
    json entries;
    for (int vlan = 1; vlan <= 1000; ++vlan) {
      entries["vlanToDot1q"][std::to_string(vlan)] = round % 2 + 1;
      entries["imetLabel"][std::to_string(vlan)] = round;
      entries["vlanAwareVlanId"][std::to_string(vlan)] = round + 1;
      entries["segmentStatus"]["Ethernet" + std::to_string(vlan) + "/" + std::to_string(round)] = {
          {"esiLabel", 1}};
    }
    ASSERT_EQ(host.apply({{"evpn/status", entries}, {"arp/status", {{"arpEntry", nullptr}}}}), "");
    remoteBindingsAre(250 * (round + 1));
    host.settle();
  }
  std::size_t lost = 0;
  std::set<std::string> bindings;
  std::string answer;
  EXPECT_TRUE(becomes([&] {
    answer += peer.receive();
    const std::size_t whole = answer.rfind('\n') + 1;
    for (const json& line : linesOf(answer.substr(0, whole))) {
      lost += line.contains("lost") && line["path"] == "evpn/status" ? 1 : 0;
      if (line["path"] != kRemote) continue;
      for (const auto& [key, value] : line["change"]["remoteBinding"].items()) bindings.insert(key);
    }
    answer.erase(0, whole);
    return bindings.size() == kRounds * 250u;
  })) << "shared memory keeps what changed: "
      << bindings.size();
  EXPECT_GE(lost, 1u);
}

TEST_F(Control, dropsIdleClientsAndServesSoMany) {
  Host::ControlLimits limits;
  limits.connections = {.all = 4, .ofUser = 2, .keptForRoot = 1};
  limits.idleSeconds = 0.05;
  serverIs(limits);
  Peer first(*server, kNobody);
  Peer halfLine(*server, kNobody);
  halfLine.send("{\"cmd\":");
  const auto refused = [&](uid_t user, const char* error) {
    Peer peer(*server, user);
    EXPECT_THAT(peer.receive(), HasSubstr(error));
    EXPECT_TRUE(peer.closed());
  };
  refused(kNobody, "\"2 clients of this user are connected already; ");
  Peer other(*server, kSomebody);
  refused(kSomebody, "\"3 clients are connected already; ");
  Peer root(*server, kRoot);
  refused(kRoot, "\"4 clients are connected already; ");
  std::string told;
  becomes([&] {
    told += halfLine.receive();
    return server->clients() == 0;
  });
  EXPECT_THAT(told, HasSubstr("the rest of the request did not come"));
  EXPECT_TRUE(first.closed());
  EXPECT_TRUE(halfLine.closed());
}

// However steadily a client takes a little, it does not hold an answer for ever; one that only waits for
// changes may.
TEST_F(Control, dropsClientsThatTakeAnAnswerTooSlowly) {
  Host::ControlLimits limits;
  limits.unsent = 16 << 10;
  limits.answerSeconds = 0.05;
  serverIs(limits);
  remoteBindingsAre(20000);
  Peer follower(*server, kNobody);
  follower.send("{\"cmd\":\"monitor\"}\n");
  Peer slow(*server, kNobody);
  slow.send(std::string("{\"cmd\":\"show\",\"path\":\"") + kRemote + "\"}\n");
  becomes([&] {
    slow.receive(1);
    return server->clients() == 1;
  });
  EXPECT_TRUE(slow.closed());
  EXPECT_FALSE(follower.closed());
}

// Many entries that go at once hold up nobody.
TEST_F(Control, mergesInSlices) {
  serverIs();
  const auto table = host.state->remoteBindings();
  ASSERT_TRUE(table);
  for (std::uint32_t i = 0; i < 5000; ++i) {
    (*table)->remoteBindingCollection().tableWriter()->entryIs(
        {Bridging::VlanId(10), Lanix::IpGenAddr(Lanix::IpAddr(0x0a000000u + i))}, {});
  }
  host.scheduler()->root().mustYieldForTestIs([] { return true; });
  Peer peer(*server);
  peer.send(json{{"cmd", "set"}, {"path", kRemote}, {"value", {{"remoteBinding", nullptr}}}}.dump() + "\n");
  for (int turn = 0; turn < 5; ++turn) host.loop.step();
  EXPECT_GT((*table)->remoteBindings(), 0u);
  EXPECT_LT((*table)->remoteBindings(), 5000u);
  EXPECT_EQ(answerTo("{\"cmd\":\"remote\",\"op\":\"add\",\"bindings\":\"11 10.0.0.1 02:00:00:00:00:01\"}\n"),
            "{\"changed\":1,\"ok\":true}\n");
  EXPECT_EQ(all(peer), kOk);
  EXPECT_EQ((*table)->remoteBindings(), 1u) << "what came in between stays";
}

TEST_F(Control, listensWithTheRightModeAndReplacesAStaleSocket) {
  const std::string file = runDir.path() + "/" + Host::kControlSocket;
  std::ofstream(file) << "left over";
  serverIs();
  ASSERT_EQ(server->listen(runDir.path()).error(), "");
  struct stat status {};
  ASSERT_EQ(stat(file.c_str(), &status), 0);
  EXPECT_TRUE(S_ISSOCK(status.st_mode));
  EXPECT_EQ(status.st_mode & 07777, 0660u);
  EXPECT_EQ(status.st_uid, geteuid());
  const int socket = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  file.copy(address.sun_path, sizeof address.sun_path - 1);
  const void* bytes = &address;
  ASSERT_EQ(connect(socket, static_cast<const sockaddr*>(bytes), sizeof address), 0);
  Peer peer(socket);
  peer.send("{\"cmd\":\"set\",\"path\":\"evpn/status\",\"value\":{}}\n");
  // Whoever runs the test is what the socket says it is.
  EXPECT_THAT(all(peer), HasSubstr(geteuid() == 0 ? "\"ok\":true" : "only root"));
  server.reset();
  EXPECT_NE(access(file.c_str(), F_OK), 0);
  EXPECT_TRUE(peer.closed());
}

}  // namespace
}  // namespace HostTest
