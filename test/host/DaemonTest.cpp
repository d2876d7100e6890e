#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <sstream>

#include "Memtab/Table.h"
#include "host/LockFile.h"
#include "host/Plugins.h"
#include "test/host/Programs.h"

// The two programs, end to end.

namespace HostTest {
namespace {

using testing::HasSubstr;

TEST_F(Programs, showSetAndForget) {
  rlimit usual{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &usual), 0);
  const rlimit low{256, usual.rlim_max};
  setrlimit(RLIMIT_NOFILE, &low);
  daemonIs({{"state", {{"evpn/status", {{"vlanToDot1q", {{"10", 10}}}}}}}});
  setrlimit(RLIMIT_NOFILE, &usual);
  rlimit raised{};
  ASSERT_EQ(prlimit(daemon->pid(), RLIMIT_NOFILE, nullptr, &raised), 0);
  EXPECT_EQ(raised.rlim_cur, usual.rlim_max);
  struct stat status {};
  ASSERT_EQ(stat(runDirectory.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0755u);
  EXPECT_THAT(arpsup({"show"}).output, HasSubstr("\nevpn/status\n"));
  EXPECT_EQ(arpsup({"set", "evpn/status", R"({"vlanToDot1q": {"10": null, "11": 11}})"}).status, 0);
  EXPECT_EQ(shown("evpn/status")["vlanToDot1q"], json({{"11", 11}}));
  EXPECT_EQ(arpsup({"apply", "-"}, R"({"evpn/status": {"mplsConfigured": true}, // together
      "bridging/status": {"fdb": {"10 02:00:00:00:00:01": {"entryType": "learnedDynamic", "intf": "Ethernet1"}}}})")
                .status,
            0);
  EXPECT_EQ(shown("bridging/status")["fdb"].size(), 1u);
  daemon->signal(SIGTERM);
  EXPECT_EQ(daemon->wait(), 0) << daemon->error;
  const Result gone = arpsup({"show"});
  EXPECT_EQ(gone.status, 2);
  EXPECT_THAT(gone.error, HasSubstr("no agent-host answers there"));
  daemonIs();
  EXPECT_EQ(shown("evpn/status")["vlanToDot1q"], json::object());
  EXPECT_EQ(shown("bridging/status")["fdb"], json::object());
}

// What the configuration said before and says no more goes; so does everything with the next clean end.
TEST_F(Programs, keepWhatWasSetByHandForTheNextStart) {
  constexpr const char* kPath = "arpSuppression/remoteBindingConfig/evpn";
  const auto config = [](int vlan, const char* ip) {
    return json{{"state", {{"evpn/status", {{"vlanToDot1q", {{std::to_string(vlan), vlan}}}}}}},
                {"bindings", {{{"vlan", 10}, {"ip", ip}, {"mac", "02:00:00:00:00:09"}}}}};
  };
  const auto bindings = [&] {
    std::string names;
    const json all = shown(kPath)["remoteBinding"];
    for (const auto& [name, binding] : all.items()) names += name + ";";
    return names;
  };
  const auto ends = [&](int signal) {
    daemon->signal(signal);
    EXPECT_EQ(daemon->wait(), 0) << daemon->error;
  };
  daemonIs(config(10, "10.0.0.1"));
  EXPECT_EQ(arpsup({"remote", "add", "10", "10.0.0.2", "02:00:00:00:00:02"}).status, 0);
  EXPECT_EQ(arpsup({"set", "evpn/status", R"({"vlanToDot1q": {"11": 11}, "mplsConfigured": true})"}).status,
            0);
  ends(SIGUSR2);
  const std::string kept = runDirectory + "/state/hand-over.json";
  std::stringstream content;
  content << std::ifstream(kept).rdbuf();
  daemonIs(config(12, "10.0.0.3"));
  EXPECT_EQ(bindings(), "10 10.0.0.2;10 10.0.0.3;");
  EXPECT_EQ(shown("evpn/status")["vlanToDot1q"], json({{"11", 11}, {"12", 12}}));
  EXPECT_EQ(shown("evpn/status")["mplsConfigured"], true);
  ends(SIGTERM);
  for (const std::string& damaged :
       {std::string(), content.str().substr(1), std::string(R"({"state": {"x": 1}})")}) {
    if (!damaged.empty()) std::ofstream(kept) << damaged;
    daemonIs(config(12, "10.0.0.3"));
    EXPECT_EQ(daemon->error.find("hand-over.json: it is damaged") == std::string::npos, damaged.empty());
    EXPECT_EQ(bindings(), "10 10.0.0.3;");
    EXPECT_EQ(shown("evpn/status")["vlanToDot1q"], json({{"12", 12}}));
    ends(SIGTERM);
  }
}

TEST_F(Programs, remoteBindings) {
  daemonIs();
  constexpr const char* kPath = "arpSuppression/remoteBindingConfig/evpn";
  EXPECT_EQ(arpsup({"remote", "add", "10", "10.0.0.1", "02:00:00:00:00:01", "--local-multihomed"}).status, 0);
  EXPECT_EQ(arpsup({"remote", "add", "10", "2001:db8::1", "02:00:00:00:00:02"}).status, 0);
  EXPECT_EQ(arpsup({"remote", "add", "10", "2001:db8::2", "02:00:00:00:00:03", "--router"}).status, 0);
  EXPECT_EQ(arpsup({"remote", "del", "10", "2001:db8::1"}).status, 0);
  EXPECT_EQ(
      shown(kPath),
      json({{"remoteBinding",
             {{"10 10.0.0.1", {{"mac", "02:00:00:00:00:01"}, {"localMultihomed", true}, {"router", false}}},
              {"10 2001:db8::2",
               {{"mac", "02:00:00:00:00:03"}, {"localMultihomed", false}, {"router", true}}}}}}));
  EXPECT_EQ(arpsup({"remote", "clear"}).status, 0);

  std::string file = "vlan,ip,mac\n";
  constexpr int kLines = 20000;
  for (int i = 0; i < kLines; ++i) {
    file += std::to_string(1 + i % 4094) + ",10.0." + std::to_string(i / 250) + "." +
            std::to_string(1 + i % 250) + ",02:00:00:00:00:01\n";
  }
  for (int i = 0; i < 25; ++i) file += "10,10.0.0.1,nothing\n";
  const std::string name = folder.path() + "/hosts.csv";
  std::ofstream(name) << file;
  const Result refused = arpsup({"remote", "load", name});
  EXPECT_EQ(refused.status, 1);
  EXPECT_THAT(
      refused.error,
      testing::AllOf(HasSubstr("hosts.csv line 20002: MAC \"nothing\" is not"), HasSubstr("line 20021"),
                     testing::Not(HasSubstr("line 20022")), HasSubstr("5 more bad lines"),
                     HasSubstr("nothing was loaded, because 25 of 20025 lines are bad")));
  EXPECT_EQ(shown(kPath)["remoteBinding"].size(), 0u);
  const Result loaded = arpsup({"remote", "load", "--skip-bad", "--json", name});
  EXPECT_EQ(loaded.status, 0) << loaded.error;
  EXPECT_EQ(json::parse(loaded.output), json({{"loaded", kLines}, {"skipped", 25}}));
  EXPECT_EQ(shown(kPath)["remoteBinding"].size(), static_cast<std::size_t>(kLines));
  EXPECT_EQ(arpsup({"remote", "clear"}).status, 0);
  EXPECT_EQ(
      arpsup({"remote", "load", "-"}, R"({"vlan": 10, "ip": "10.0.0.9", "mac": "02:00:00:00:00:09"})").status,
      0);
  EXPECT_EQ(shown(kPath)["remoteBinding"].size(), 1u);
}

TEST_F(Programs, doNotStartOnWhatIsWrong) {
  EXPECT_EQ(run({AGENT_HOST, "--confg", "x"}).status, 2);
  const Result version = run({AGENT_HOST, "--version"});
  EXPECT_EQ(version.status, 0);
  EXPECT_THAT(version.output, testing::ContainsRegex("^agent-host [0-9]+\\.[0-9]+\\.[0-9]+\n$"));
  const auto refuses = [&](const json& config, const std::string& error) {
    const Result result = run({AGENT_HOST, "--config", configFile(config)});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.error, HasSubstr(error));
    EXPECT_EQ(std::count(result.error.begin(), result.error.end(), '\n'), 1) << result.error;
  };
  refuses({{"agents", {"Nothing"}}}, "config.json: agents[0]: \"Nothing\" is not one of KernelState");
  const Result wrong = run({AGENT_HOST, "--check", configFile({{"agents", {"x", "y"}}})});
  EXPECT_EQ(wrong.status, 1);
  EXPECT_THAT(wrong.error, testing::ContainsRegex("config.json: agents.0.: .*\n.*config.json: agents.1.: "));
  const Result good = run({AGENT_HOST, "--config", configFile(json::object()), "--check"});
  EXPECT_EQ(good.status, 0);
  EXPECT_THAT(good.error,
              testing::EndsWith("config.json: no plug-in is named in \"agents\": nothing is suppressed\n"));
  refuses({{"runDirectory", folder.path() + "/no/run"}}, "/no/run: it cannot be made");
  // A plug-in that is not there: the files are named, and nothing was made.
  setenv(Host::kLibraryDirectoryVariable, folder.path().c_str(), 1);
  const std::string library = folder.path() + "/libArpService.so";
  refuses({{"agents", {"ArpService"}}},
          "the library of the plug-in ArpService is not there: looked for " + library + "\n");
  std::ofstream(library) << "no library";
  refuses({{"agents", {"ArpService"}}}, "the plug-in ArpService cannot be loaded");
  unsetenv(Host::kLibraryDirectoryVariable);

  daemonIs();
  const std::string process = "process " + std::to_string(daemon->pid());
  refuses(json::object(), "another agent-host runs there (" + process + ")");
  if (geteuid() == 0) {
    refuses({{"runDirectory", folder.path() + "/other"}},
            "another agent-host serves this network namespace: " + process + ", run directory " +
                runDirectory + "; stop it");
    // Where others could keep an agent-host from starting: in a /run of the test's own.
    for (const std::string make :
         {"mkdir -m 0722", "mkdir -m 0700 -p $0 && chown 1", "ln -s /tmp", "touch"}) {
      const Result foreign =
          run({"/usr/bin/unshare", "-m", "/bin/sh", "-c",
               "mount -t tmpfs tmpfs /run && " + make + R"( $0 && exec "$@")", Host::kNamespaceLocks,
               AGENT_HOST, "--config", configFile({{"runDirectory", folder.path() + "/other"}})});
      EXPECT_EQ(foreign.status, 1) << make;
      EXPECT_THAT(foreign.error, HasSubstr("it is not a directory of root alone; remove it")) << make;
    }
  }
  EXPECT_EQ(arpsup({"show"}).status, 0) << "the first one goes on";
}

// What a service manager is told, in order, and that it is told of a loop that turns as often as it asks.
TEST_F(Programs, tellTheServiceManager) {
  const int listener = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{AF_UNIX, {}};
  const std::string name = folder.path() + "/notify";
  std::copy(name.begin(), name.end(), address.sun_path);
  ASSERT_EQ(bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  const auto told = [&] {
    std::array<char, 256> bytes{};
    pollfd readable{listener, POLLIN, 0};
    if (poll(&readable, 1, kPatienceMs) <= 0) return std::string("nothing");
    const ssize_t got = recv(listener, bytes.data(), bytes.size(), 0);
    return std::string(bytes.data(), static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
  };
  setenv("NOTIFY_SOCKET", name.c_str(), 1);
  setenv("WATCHDOG_USEC", "100000", 1);
  daemonIs();
  unsetenv("NOTIFY_SOCKET");
  unsetenv("WATCHDOG_USEC");
  std::string first = told();
  while (first == "WATCHDOG=1") first = told();
  EXPECT_EQ(first, "READY=1");
  EXPECT_EQ(told(), "WATCHDOG=1");
  EXPECT_EQ(told(), "WATCHDOG=1");
  daemon->signal(SIGTERM);
  std::string last = told();
  while (last == "WATCHDOG=1") last = told();
  EXPECT_EQ(last, "STOPPING=1");
  close(listener);
}

// A plug-in that cannot start is not left out quietly.
TEST_F(Programs, endWhenAStartCannotBeCompleted) {
  const auto writer = Memtab::TableWriter<std::uint32_t, std::uint64_t>::open(
      Memtab::Directory::forRunDir(runDirectory), "arpSuppression/counter.counter", {});
  ASSERT_TRUE(writer) << writer.error();
  const Result process = run({AGENT_HOST, "--config", configFile({{"agents", {"ArpSuppression"}}})});
  EXPECT_EQ(process.status, 1) << process.error;
  EXPECT_THAT(process.error, HasSubstr("agent-host: the plug-in ArpSuppression cannot start: "));
  EXPECT_THAT(process.error, HasSubstr("has a live writer already, process " + std::to_string(getpid())));
  EXPECT_THAT(process.error, testing::Not(HasSubstr("agent-host: runs")));
}

// One that was killed leaves its socket and lock behind.
TEST_F(Programs, startAfterAKill) {
  const json config{{"agents", {"ArpSuppression"}}};
  daemonIs(config);
  daemon->signal(SIGKILL);
  daemon->wait();
  ASSERT_EQ(access((runDirectory + "/control").c_str(), F_OK), 0);
  EXPECT_EQ(arpsup({"show"}).status, 2);
  std::ofstream(runDirectory + "/state/arpSuppression%2Fstatus.log") << "damaged";
  daemonIs(config);
  EXPECT_THAT(daemon->error, HasSubstr("the state store is damaged"));
  EXPECT_EQ(arpsup({"show"}).status, 0);
}

TEST_F(Programs, takeUpTheirConfigurationAgain) {
  daemonIs({{"vlans", {{"10", json::object()}}}});
  const auto vlans = [&] { return shown("switch/config")["vlan"].size(); };
  configFile({{"vlans", {{"10", json::object()}, {"20", json::object()}}}});
  const Result done = arpsup({"reload"});
  EXPECT_EQ(done.status, 0) << done.error;
  EXPECT_EQ(vlans(), 2u);
  configFile({{"vlans", {{"10", {{"vrf", "x"}}}}}, {"colour", 1}});
  const Result refused = arpsup({"reload"});
  EXPECT_EQ(refused.status, 1);
  EXPECT_THAT(refused.error,
              testing::ContainsRegex("json: colour: .*\n.*json: vlans.10.vrf: .*\narpsup: .*stays in force"));
  EXPECT_EQ(vlans(), 2u);
  configFile(json::object());
  daemon->error.clear();
  daemon->signal(SIGHUP);
  ASSERT_TRUE(daemon->readUntil("config.json is in force\n")) << daemon->error;
  EXPECT_EQ(vlans(), 0u);
}

}  // namespace
}  // namespace HostTest
