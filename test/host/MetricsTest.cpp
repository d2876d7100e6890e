#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/socket.h>

#include <regex>
#include <set>

#include "host/EventLog.h"
#include "host/Metrics.h"
#include "host/MetricsServer.h"
#include "test/host/HostFixture.h"

namespace HostTest {
namespace {

using testing::HasSubstr;
using testing::StartsWith;

// Answers commands as the plug-ins do that know of the routing daemon and of the ports.
struct Telling final : Plugin::AgentBase {
  struct Command final : Plugin::AgentCommandCallback {
    Command(const char* name, json said) : AgentCommandCallback("", name), text(said.dump()) {}
    void handleCommand(int descriptor, const std::vector<Mox::String>& /*arguments*/) override {
      EXPECT_EQ(write(descriptor, text.data(), text.size()), std::ssize(text));
    }
    const std::string text;
  };
  Telling() : AgentBase("Telling") {
    agentCommandCallbackIs(Mox::make<Command>(
        "feed", json{{"source", "kernel"}, {"ready", true}, {"ipv6", 2}, {"readingAgeSeconds", 1.5}}));
    const json shown = {{"noAnswer", 1}, {"sender", 2}, {"other", 3}};
    agentCommandCallbackIs(
        Mox::make<Command>("forwarding", json{{"heartbeatAgeMs", 5},
                                              {"counters", {{"trapped", 6}, {"\x1b\"\n", 1}}},
                                              {"answers",
                                               {{"held", 7},
                                                {"refused", 8},
                                                {"hits", 9},
                                                {"nd", {{"hits", 4}, {"passed", 5}}},
                                                {"shown", shown}}}}));
  }
  void doInit() override {}
  void doMountsComplete(Statedb::MountStatus, const Mox::Ptr<Statedb::EntityManager>&) override {}
};

class MetricsTest : public testing::Test {
 protected:
  int connected() {
    const auto address = Host::MetricsAddress::of(file_);
    const int client = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const void* bytes = &address->address;
    EXPECT_EQ(connect(client, static_cast<const sockaddr*>(bytes), address->size), 0);
    return client;
  }
  // What it is answered by now; "closed" behind it when nothing more comes.
  std::string received(int client) {
    host_.settle();
    std::string text;
    std::array<char, 65536> bytes;
    ssize_t got = 0;
    while ((got = recv(client, bytes.data(), bytes.size(), 0)) > 0)
      text.append(bytes.data(), static_cast<std::size_t>(got));
    return text + (got == 0 || errno == ECONNRESET ? "closed" : "");
  }
  std::string answerTo(const std::string& request) {
    const int client = connected();
    host_.settle();
    EXPECT_EQ(send(client, request.data(), request.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(request.size()));
    const std::string answer = received(client);
    close(client);
    host_.settle();
    EXPECT_EQ(server_.clients(), 0u);
    return answer;
  }

  RunDir runDir_;
  Orb::ManualClock clock_;
  HostState host_{runDir_, json::object(), nullptr, clock_};
  const Host::EventLog events_{host_.loop};
  const Host::TurnTimes turns_{host_.loop};
  const Host::ControlCommands::Agents agents_{Mox::make<Telling>()};
  const std::string file_ = runDir_.path() + "/metrics";
  Host::MetricsServer server_{host_.scheduler(), host_.state->problems(), file_, [this] {
                                return Host::metricsText({*host_.state, agents_, events_, turns_});
                              }};
};

TEST_F(MetricsTest, AnswersOnlyWhatIsARequestForThem) {
  const struct {
    std::string request;
    const char* answer;
  } rows[] = {
      {"GET /metrics HTTP/1.1\r\nHost: here\r\n\r\n", "HTTP/1.1 200 OK\r\n"},
      {"GET /metrics?a=b HTTP/1.0\n\n", "HTTP/1.1 200 OK\r\n"},
      {"GET /metricsX HTTP/1.1\r\n\r\n", "HTTP/1.1 404 "},
      {"POST /metrics HTTP/1.1\r\n\r\n", "HTTP/1.1 405 "},
      {"GET /metrics HTTP/2\r\n\r\n", "HTTP/1.1 505 "},
      {"GET /metrics\r\n\r\n", "HTTP/1.1 400 "},
      {"\r\n\r\n", "HTTP/1.1 400 "},
      {std::string("GET /\0 HTTP/1.1\r\n\r\n", 20), "HTTP/1.1 400 "},
      {"GET /metrics HTTP/1.1\r\nCookie: " + std::string(2 * Host::MetricsServer::kRequestBytes, 'x'),
       "HTTP/1.1 431 "},
  };
  for (const auto& row : rows) EXPECT_THAT(answerTo(row.request), StartsWith(row.answer)) << row.request;
  EXPECT_THAT(answerTo("HEAD /metrics HTTP/1.1\r\n\r\n"), testing::EndsWith("\r\n\r\nclosed"));
}

// One who says nothing, and more than there may be, hold up nobody for long.
TEST_F(MetricsTest, ClientsAreFewAndBrief) {
  std::vector<int> silent;
  for (std::size_t i = 0; i < Host::MetricsServer::kClients; ++i) silent.push_back(connected());
  const int late = connected();
  const std::string request = "GET /metrics HTTP/1.1\r\n\r\n";
  ASSERT_GT(send(late, request.data(), request.size(), 0), 0);
  EXPECT_EQ(received(late), "");
  EXPECT_EQ(server_.clients(), Host::MetricsServer::kClients);
  clock_.advance(Host::MetricsServer::kClientSeconds + 1);
  EXPECT_THAT(received(late), StartsWith("HTTP/1.1 200 "));
  for (const int client : silent) {
    EXPECT_EQ(received(client), "closed");
    close(client);
  }
  close(late);
}

// The rules of the text format: each metric is described once, before its samples, which are together and unique.
TEST_F(MetricsTest, TextIsOfTheFormat) {
  host_.apply({{"evpn/status", {{"mplsConfigured", true}}}});
  const std::string answer = answerTo("GET /metrics HTTP/1.1\r\n\r\n");
  std::istringstream lines(answer.substr(answer.find("\r\n\r\n") + 4, answer.size()));
  const std::regex sample(R"re(([a-z_]+?)(_bucket|_sum|_count)?(\{[a-z]+="([^"\\]|\\.)*"\})? [0-9.e+-]+)re");
  std::set<std::string> described;
  std::set<std::string> seen;
  std::string metric;
  for (std::string line; std::getline(lines, line) && line != "closed";) {
    std::smatch parts;
    if (line.starts_with("# HELP ")) {
      metric = line.substr(7, line.find(' ', 7) - 7);
      EXPECT_TRUE(described.insert(metric).second) << line;
    } else if (line.starts_with("# TYPE ")) {
      EXPECT_THAT(line, StartsWith("# TYPE " + metric + " "));
    } else {
      ASSERT_TRUE(std::regex_match(line, parts, sample)) << line;
      EXPECT_EQ(parts[1].str(), metric);
      EXPECT_TRUE(seen.insert(line.substr(0, line.rfind(' '))).second) << line;
    }
  }
  EXPECT_TRUE(described.contains("arp_suppression_loop_turn_seconds"));
  for (const char* line :
       {"loop_turn_seconds_bucket{le=\"+Inf\"} ", "answers{state=\"refused\"} 8\n", "answers_given_total 9\n",
        "solicitations_total{outcome=\"passed\"} 5\n", "requests_shown_total{reason=\"sender\"} 2\n",
        "forwarding_frames_total{action=\"trapped\"} 6\n",
        R"(forwarding_frames_total{action="\\x1b\"\\x0a"} 1)", "feed_entries{family=\"ipv6\"} 2\n",
        "feed_reading_age_seconds 1.5\n"})
    EXPECT_THAT(answer, HasSubstr(std::string("\narp_suppression_") + line));
}

}  // namespace
}  // namespace HostTest
