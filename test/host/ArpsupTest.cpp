#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <regex>

#include "Tracelet/Text.h"
#include "host/ControlAddress.h"
#include "host/arpsup/Output.h"
#include "host/arpsup/PrettyJson.h"
#include "test/host/Programs.h"

// The command line as its users meet it.

namespace HostTest {
namespace {

using testing::HasSubstr;

TEST(PrettyJson, laysOutPiecesOfAnySize) {
  const std::string text = R"({"a":1,"none":{},"list":[],"short":{"x":"a{[,:\"","y":[1,2]},"long":{"key":")" +
                           std::string(100, 'z') + R"(","b":{"c":null}}})";
  const std::string expected =
      "{\n  \"a\": 1,\n  \"none\": {},\n  \"list\": [],\n  \"short\": {\n"
      "    \"x\": \"a{[,:\\\"\",\n    \"y\": [1, 2]\n  },\n  \"long\": {\n    \"key\": \"" +
      std::string(100, 'z') + "\",\n    \"b\": {\"c\": null}\n  }\n}";
  for (const std::size_t size : {std::size_t{1}, std::size_t{7}, text.size()}) {
    Host::PrettyJson pretty;
    std::string result;
    for (std::size_t at = 0; at < text.size(); at += size) result += pretty.next(text.substr(at, size));
    EXPECT_EQ(result, expected);
  }
}

TEST_F(Programs, tellWhatToDoNext) {
  daemonIs({{"vlans", {{"10", json::object()}, {"20", json::object()}}}});
  EXPECT_THAT(daemon->error, testing::ContainsRegex("^agent-host: version [0-9.]+ begins at 20.*Z with /"));
  const std::string absent = folder.path() + "/absent";
  struct Case {
    Strings arguments;
    int status;
    const char* text;  // of stdout when the status is 0, otherwise of the one line on stderr
  };
  const std::vector<Case> cases = {
      {{}, 0, "Usage: arpsup.*Look:\n +health.*Change:.*Find out why:"},
      {{"--version"}, 0, "^arpsup [0-9]+\\.[0-9]+\\.[0-9]+\n$"},
      {{"explain", "--help"}, 0, "Examples:\n  arpsup explain 10 10\\.0\\.10\\.99\n.*--from"},
      {{"counters", "extra"}, 2, "unknown argument \"extra\"; see arpsup counters --help"},
      {{"statsu"}, 2, "unknown command \"statsu\", did you mean status\\?; see arpsup --help"},
      {{"remote"}, 2, "one of add, del, list, clear, load is required; see arpsup remote --help"},
      {{"counters", "--nonzro"}, 2, "unknown option \"--nonzro\", did you mean --nonzero\\?"},
      {{"remote", "add", "10", "10.0.0.1", "03:00:00:00:00:01"}, 2, "MAC \"03:00:00:00:00:01\" is not"},
      {{"remote", "del", "10", "10.0.0.1"},
       1,
       "no remote binding of 10.0.0.1 on VLAN 10; `arpsup bindings remote --vlan 10`"},
      {{"bindings", "lokal"}, 2, "KIND \"lokal\" is not local or remote"},
      {{"bindings", "local", "--vlan", "4095"}, 2, "--vlan \"4095\" is not a VLAN id from 1 to 4094"},
      {{"bindings", "--mac", "0200.00"}, 2, "--mac \"0200.00\" is not a MAC address"},
      {{"find", "10.0.0"}, 2, "ADDRESS \"10.0.0\" is not a MAC address like .* or an IP address"},
      {{"find", "0200.0000.0001"}, 1, "no plug-in that is ready answers \"find\""},
      {{"rem", "d", "10", "10.0.0.1"}, 1, "there is no remote binding"},
      {{"s"}, 2, "unknown command \"s\""},
      {{"bindings", "local"}, 1, "no plug-in that is ready answers \"bindings\"; loaded: none"},
      {{"explain", "10", "ff02::1"}, 2, "IP \"ff02::1\" is not the IPv4 or IPv6 address of one host"},
      {{"status"}, 0, "runnable: +false\nactiveVlans: +none\n.*\nreason: +no plug-in that is ready answers"},
      {{"counters"}, 1, "there are no counters: the plug-in ArpSuppression is not loaded"},
      {{"show", "evpn/nothing"}, 1, "evpn/nothing: there is no such path; allowed: .*evpn/status"},
      {{"set", "evpn/status", R"({"mplsConfigured": 1})"},
       1,
       "^arpsup: evpn/status: mplsConfigured: 1 is not true or false\n$"},
      {{"set", "evpn/status", "{mpls}"}, 2, "the value is not JSON: line 1, .*quote it for the shell"},
      {{"apply", absent}, 1, "/absent: No such file"},
      {{"trace"}, 1, "no trace ring is there that can be read"},
      {{"trace", "--run-dir", absent}, 2, "/absent: No such file .*--run-dir"},
      {{"events", "--event", "moves"}, 2, "--event: moves not in .learned,moved,"},
      {{"events", "--since", "9"}, 2, "--since \"9\" is not a time: 10m, 2h or 1d ago"},
      {{"trace", "--level", "6"}, 2, "--level: Value 6 not in range 0 to 5"},
  };
  const auto check = [](const Case& test, const Result& result) {
    EXPECT_EQ(result.status, test.status) << test.text << result.error;
    EXPECT_THAT(test.status == 0 ? result.output : result.error, testing::ContainsRegex(test.text));
    if (test.status == 0) return;
    EXPECT_EQ(result.output, "") << test.text;
    EXPECT_THAT(result.error, testing::StartsWith("arpsup: "));
    EXPECT_EQ(std::count(result.error.begin(), result.error.end(), '\n'), 1) << result.error;
  };
  for (const Case& test : cases) check(test, arpsup(test.arguments));
  // The shell's question comes first of all.
  const std::vector<Case> completions = {
      {{"remote", ""}, 0, "^add\nclear\ndel\nlist\nload\n$"},
      {{"bindings", "local", "--v"}, 0, "^--version\n--vlan\n--vrf\n$"},
      {{"--run-dir", runDirectory, "monitor", "arp/status", "evpn/s"}, 0, "^evpn/status\n$"},
      {{"--run-dir", absent, "show", "evpn/s"}, 0, "^evpn/status\n$"},
      {{"show", "evpn/status", ""}, 0, "^$"},
      {{"--json", "stat"}, 0, "^status\n$"},
      {{"--run-dir", runDirectory, "explain", ""}, 0, "^10\n20\n$"},
      {{"--run-dir", runDirectory, "trace", "--vlan", "2"}, 0, "^20\n$"},
  };
  for (const Case& test : completions) {
    Strings command = {ARPSUP, "complete-words"};
    command.insert(command.end(), test.arguments.begin(), test.arguments.end());
    check(test, run(command));
  }
  const std::string status = std::string(ARPSUP) + " --run-dir " + runDirectory + " status >/dev/full";
  check({{}, 1, "the output cannot be written: No space left on device"}, run({"/bin/sh", "-c", status}));
  EXPECT_EQ(arpsup({"health"}).output, "good\n");
  daemon.reset();
  check({{}, 2, "no agent-host answers there"}, arpsup({"health"}));
  check({{}, 2, "no agent-host answers there .*start it, or name its run directory"}, arpsup({"show"}));
}

TEST_F(Programs, monitorAndTrace) {
  daemonIs({{"agents", {"ArpSuppression"}}});
  Process monitor(Strings{ARPSUP, "--run-dir", runDirectory, "monitor", "evpn/status"});
  // It says nothing until something changes after it has begun.
  int label = 0;
  ASSERT_TRUE(monitor.readUntil("\n", true, [&] {
    arpsup({"set", "evpn/status", "{\"imetLabel\": {\"10\": " + std::to_string(++label) + "}}"});
  }));
  const json line = json::parse(monitor.output.substr(0, monitor.output.find('\n')));
  EXPECT_EQ(line["path"], "evpn/status");
  EXPECT_GE(line["change"]["imetLabel"]["10"], 1);
  EXPECT_GT(line["time"], 1.7e9);
  monitor.signal(SIGINT);
  EXPECT_EQ(monitor.wait(), 0);
  EXPECT_EQ(monitor.error, "");

  Process follow(Strings{ARPSUP, "--run-dir", runDirectory, "trace", "--follow", "--grep", "vlanId=77"});
  ASSERT_EQ(arpsup({"set", "evpn/status", R"({"mplsConfigured": true, "vlanToDot1q": {"77": 77}})"}).status,
            0);
  ASSERT_EQ(arpsup({"remote", "add", "77", "10.0.0.9", "02:00:00:00:00:09"}).status, 0);
  ASSERT_TRUE(follow.readUntil("vlanId=77\n", true));
  follow.signal(SIGINT);
  EXPECT_EQ(follow.wait(), 0);
  EXPECT_EQ(arpsup({"trace", "--vlan", "7"}).status, 1) << "77 is another VLAN";
  const Result found = arpsup({"trace", "--vlan", "77", "--level", "2", "--json"});
  const json record = json::parse(found.output.substr(0, found.output.find('\n')));
  EXPECT_EQ(record["level"], 2);
  EXPECT_THAT(record["text"], HasSubstr("vlanId=77"));

  // Earlier runs stay readable, and what is no trace ring is reported.
  daemon->signal(SIGKILL);
  daemon->wait();
  std::ofstream(runDirectory + "/Other-1.tl") << "damaged";
  daemonIs({{"agents", {"ArpSuppression"}}});
  ASSERT_EQ(arpsup({"show"}).status, 0) << "its plug-ins have started";
  EXPECT_THAT(arpsup({"trace"}).output, testing::Not(HasSubstr("vlanId=77")));
  const Result events = arpsup({"events", "--vlan", "77", "--since", "1h", "--json"});
  json event = json::parse(events.output, nullptr, false);
  EXPECT_GT(event["time"], 1.7e9);
  event.erase("time");
  EXPECT_EQ(event, json::parse(R"({"event": "learned", "table": "remote", "vlan": 77, "ip": "10.0.0.9",
                                  "mac": "02:00:00:00:00:09"})"))
      << events.output << events.error;
  EXPECT_EQ(arpsup({"events", "--since", "2100-01-01"}).output, "");
  const Result all = arpsup({"trace", "--all"});
  EXPECT_EQ(all.status, 0);
  EXPECT_THAT(all.output, testing::ContainsRegex("^== agent-host, process [0-9]+, running\n"));
  EXPECT_THAT(all.output, testing::ContainsRegex("\n== agent-host, process [0-9]+, ended\n.*\n.*"));
  EXPECT_THAT(all.output, HasSubstr("vlanId=77"));
  EXPECT_THAT(all.error, HasSubstr("/Other-1.tl: too short for a trace file; it is left out\n"));

  // Somebody without rights gets one line, however many rings there are.
  std::filesystem::remove(runDirectory + "/Other-1.tl");
  std::filesystem::permissions(folder.path(), std::filesystem::perms(0755));
  const auto asNobody = [&](const char* command) {
    return run({"/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", ARPSUP, "--run-dir",
                runDirectory, command});
  };
  if (geteuid() != 0 || asNobody("--version").status != 0) return;  // whom we cannot be, or who is kept out
  EXPECT_EQ(asNobody("trace").error, "arpsup: " + runDirectory +
                                         ": 2 trace rings cannot be read: permission denied; run it as root, "
                                         "or as a member of the group arpsup\n");
  EXPECT_EQ(asNobody("status").error,
            "arpsup: " + runDirectory +
                "/control: permission denied; run it as root or as a member of the group arpsup\n");
}

// Listens where a daemon does, and answers every request with the same lines.
class FalseDaemon {
 public:
  explicit FalseDaemon(const std::string& runDirectory)
      : folder_(open(runDirectory.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC)),
        listener_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
    const sockaddr_un address = Host::controlAddress(folder_);
    const void* bytes = &address;
    EXPECT_EQ(bind(listener_, static_cast<const sockaddr*>(bytes), sizeof address), 0);
    EXPECT_EQ(listen(listener_, 8), 0);
  }
  FalseDaemon(const FalseDaemon&) = delete;
  FalseDaemon& operator=(const FalseDaemon&) = delete;
  ~FalseDaemon() {
    for (const int client : clients_) close(client);
    close(listener_);
    close(folder_);
  }
  // Whoever has come by now is answered, and left to hang up.
  void answer(const std::string& lines) {
    for (int client = 0; (client = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC)) >= 0;) {
      clients_.push_back(client);
      EXPECT_EQ(send(client, lines.data(), lines.size(), MSG_NOSIGNAL), std::ssize(lines));
    }
  }

 private:
  const int folder_;
  const int listener_;
  std::vector<int> clients_;
};

// Names of interfaces and what else others wrote: nothing of it speaks to the terminal, or begins a line.
TEST(Arpsup, showsWhatSpeaksToTerminalsByItsBytes) {
  RunDir runDir;
  FalseDaemon daemon(runDir.path());
  const std::string evil = "\x1b[2J\nforged: \x7f\xc2\x9b";
  const std::string seen = R"(\x1b[2J\x0aforged: \x7f\xc2\x9b)";
  const auto text = [](const std::string& of) { return json{{"text", of}}.dump() + "\n{\"ok\":true}\n"; };
  const json problem = {
      {"plugin", "P"}, {"subject", evil}, {"problem", evil}, {"advice", evil}, {"since", 1}};
  const json vlan = {{"vlan", 10},
                     {"state", evil},
                     {"bridge", evil},
                     {"accessPorts", {evil, "e"}},
                     {"tunnelPorts", {evil}},
                     {"missing", {evil}},
                     {"vrf", evil},
                     {"reason", evil}};
  const json host = {{"vlan", 10},  {"ip", evil},        {"mac", evil},
                     {"vrf", evil}, {"interface", evil}, {"source", evil}};
  const struct {
    Strings arguments;
    std::string answer;
    std::string shown;  // somewhere in it
    int status = 0;
    std::ptrdiff_t lines = 1;  // of stdout and stderr
  } cases[] = {
      {{"health"}, text(json{{"health", "degraded"}, {"problems", {problem}}}.dump()), "; " + seen, 1, 2},
      {{"status"}, text(json{{"health", "good"}, {"vlans", {vlan}}, {evil, evil}}.dump()), seen + ": ", 0, 8},
      {{"forwarding"},
       text(json{{"counters", {{evil, 1}}}, {"ports", {{{"port", evil}}}}}.dump()),
       seen,
       0,
       11},
      {{"bindings", "local"}, text("[\n" + host.dump() + "\n]\n"), seen, 0, 2},
      {{"bindings", "local", "--vrf", evil}, text("[\n]\n"), "no local bindings with vrf " + seen},
      {{"find", "10.0.0.9"}, text("[\n" + host.dump() + "\n]\n"), seen, 0, 2},
      {{"explain", "10", "10.0.0.9"},
       text(json{
           {"action", evil}, {"summary", evil}, {"facts", {{{"text", evil}}}}, {"counter", {{"name", evil}}}}
                .dump()),
       "1. " + seen,
       0,
       3},
      {{"show"}, json{{"ok", true}, {"paths", {evil}}}.dump() + "\n", seen},
      {{"show", "switch/health"}, text("\"\x1b[2J\x7f\xc2\x9b\""), R"("\x1b[2J\x7f\xc2\x9b")"},
      {{"tech-support"}, text("name=\x1b[2J\x7f\nmore\n"), "name=\\x1b[2J\\x7f\nmore\n", 0, 2},
      {{"reload"},
       json{{"text", "a\x1b\n"}}.dump() + "\n" + json{{"ok", false}, {"error", evil}}.dump() + "\n",
       "a\\x1b\n",
       1,
       2},
      {{"set", "evpn/status", "{}"},
       json{{"ok", false}, {"error", evil}}.dump() + "\n",
       "arpsup: " + seen,
       1},
      {{"remote", "load", runDir.path() + "/" + evil}, "", seen + ": No such file", 1},
      {{evil}, "", "unknown command \"" + seen, 2},
      {{"bindings", "--vlan", evil}, "", R"(--vlan "\u001b[2J\nforged: \u007f\u009b")", 2},
      {{"find", "\xff"}, "", "ADDRESS \"\xef\xbf\xbd\"", 2},
      {{"bindings", "local", "--vrf", "\xff"}, text("[\n]\n"), R"(with vrf \xff)"},
      {{"health", "--json"},
       text(json{{"health", "good"}, {"x", evil}}.dump()),
       R"("\u001b[2J\nforged: \u007f\u009b")"},
  };
  for (const auto& test : cases) {
    Strings command = {ARPSUP, "--run-dir", runDir.path()};
    command.insert(command.end(), test.arguments.begin(), test.arguments.end());
    const Result result = run(command, "", [&] { daemon.answer(test.answer); });
    const std::string said = result.output + result.error;
    EXPECT_EQ(result.status, test.status) << said;
    EXPECT_THAT(said, HasSubstr(test.shown));
    EXPECT_EQ(Tracelet::printableLines(said), said);
    EXPECT_EQ(std::ranges::count(said, '\n'), test.lines) << said;
  }
}

// A daemon that hangs is given up, whether or not it has accepted the connection.
TEST(Arpsup, doesNotWaitForADaemonThatHangs) {
  RunDir runDir;
  const int folder = open(runDir.path().c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
  const sockaddr_un address = Host::controlAddress(folder);
  const void* bytes = &address;
  const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  ASSERT_EQ(bind(listener, static_cast<const sockaddr*>(bytes), sizeof address), 0);
  ASSERT_EQ(listen(listener, 0), 0);
  constexpr std::chrono::milliseconds kLittle{50};
  const auto client = Host::Client::connect(runDir.path(), kLittle);
  ASSERT_TRUE(client) << client.error();
  const auto answer = (*client)->ask({{"cmd", "paths"}}, nullptr);
  EXPECT_THAT(answer.error(), HasSubstr("/control: the agent-host has not answered for 1 seconds: it hangs"));
  EXPECT_EQ(Host::fail(answer.failure()), Host::kUsage);
  const auto second = Host::Client::connect(runDir.path(), kLittle);
  EXPECT_THAT(second.error(), HasSubstr("the agent-host has accepted nobody for 1 seconds: it hangs"));
  EXPECT_EQ(Host::fail(second.failure()), Host::kUsage);
  close(listener);
  close(folder);
}

// Shared memory of 2 MiB, and bindings for several times that.
TEST_F(Programs, saysHowManyBindingsAreInWhenThereIsNoRoomForMore) {
  if (unshare(CLONE_NEWNS) != 0 || mount("", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
      mount("tmpfs", "/dev/shm", "tmpfs", 0, "size=2m") != 0) {
    GTEST_SKIP() << "needs root, to mount";
  }
  daemonIs();
  std::string lines;
  for (int i = 0; i < 100000; ++i) {
    lines += "10,10." + std::to_string(i >> 16) + "." + std::to_string(i >> 8 & 255) + "." +
             std::to_string(i & 255) + ",02:00:00:00:00:01\n";
  }
  const Result loaded = arpsup({"remote", "load", "-"}, lines);
  EXPECT_EQ(loaded.status, 1);
  std::smatch counts;
  ASSERT_TRUE(std::regex_search(
      loaded.error, counts, std::regex("([0-9]+) of these 512 are in.*the ([0-9]+) bindings before are in")))
      << loaded.error;
  EXPECT_EQ(shown("arpSuppression/remoteBindingConfig/evpn")["remoteBinding"].size(),
            std::stoul(counts[1]) + std::stoul(counts[2]));
  const auto refused = [&] {
    return shown("switch/problems")["problem"].contains(
        "agent-host table arpSuppression/remoteBindingConfig/evpn");
  };
  EXPECT_TRUE(refused());
  EXPECT_EQ(mount("tmpfs", "/dev/shm", "tmpfs", MS_REMOUNT, "size=16m"), 0);
  EXPECT_EQ(arpsup({"remote", "add", "10", "10.9.9.9", "02:00:00:00:00:01"}).status, 0);
  EXPECT_FALSE(refused());
  daemon.reset();
  umount2("/dev/shm", MNT_DETACH);
}

}  // namespace
}  // namespace HostTest
