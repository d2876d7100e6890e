#include <fcntl.h>
#include <gmock/gmock.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <fstream>
#include <vector>

#include "host/Plugins.h"
#include "test/host/HostFixture.h"

// The two programs, end to end.

namespace HostTest {
namespace {

using testing::HasSubstr;
using Strings = std::vector<std::string>;

constexpr int kPatienceMs = 30000;

// A child process whose output is read here. Killed at the end at the latest.
class Process {
 public:
  explicit Process(const Strings& command, const std::string& input = {}) {
    std::array<int, 2> in{};
    EXPECT_EQ(pipe2(in.data(), O_CLOEXEC), 0);
    EXPECT_EQ(pipe2(out_.data(), O_CLOEXEC), 0);
    EXPECT_EQ(pipe2(err_.data(), O_CLOEXEC), 0);
    std::vector<char*> arguments;
    for (const std::string& argument : command) arguments.push_back(const_cast<char*>(argument.c_str()));
    arguments.push_back(nullptr);
    pid_ = fork();
    if (pid_ == 0) {
      dup2(in[0], STDIN_FILENO);
      dup2(out_[1], STDOUT_FILENO);
      dup2(err_[1], STDERR_FILENO);
      execv(arguments[0], arguments.data());
      _exit(127);
    }
    close(in[0]);
    close(out_[1]);
    close(err_[1]);
    EXPECT_EQ(write(in[1], input.data(), input.size()), static_cast<ssize_t>(input.size()));
    close(in[1]);
  }
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;
  ~Process() {
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
    close(out_[0]);
    close(err_[0]);
  }

  // Reads until stderr has this, or both streams ended, or patience did.
  bool readUntil(const std::string& wanted) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kPatienceMs);
    while (wanted.empty() || error.find(wanted) == std::string::npos) {
      std::array<pollfd, 2> streams{
          {{openOut_ ? out_[0] : -1, POLLIN, 0}, {openErr_ ? err_[0] : -1, POLLIN, 0}}};
      const auto left =
          std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
      if ((!openOut_ && !openErr_) || left.count() <= 0) return wanted.empty() && !openOut_ && !openErr_;
      poll(streams.data(), streams.size(), static_cast<int>(left.count()));
      if (streams[0].revents != 0) openOut_ = readInto(output, out_[0]);
      if (streams[1].revents != 0) openErr_ = readInto(error, err_[0]);
    }
    return true;
  }
  // Waits for its end; -1 when a signal ended it.
  int wait() {
    if (!readUntil("")) {
      ADD_FAILURE() << "does not end: " << error;
      kill(pid_, SIGKILL);
    }
    int status = 0;
    waitpid(pid_, &status, 0);
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
  void signal(int number) const { kill(pid_, number); }

  std::string output;
  std::string error;

 private:
  static bool readInto(std::string& text, int descriptor) {
    std::array<char, 65536> bytes;
    const ssize_t got = read(descriptor, bytes.data(), bytes.size());
    if (got > 0) text.append(bytes.data(), static_cast<std::size_t>(got));
    return got > 0;
  }
  pid_t pid_ = -1;
  std::array<int, 2> out_{};
  std::array<int, 2> err_{};
  bool openOut_ = true;
  bool openErr_ = true;
};

struct Result {
  int status;
  std::string output;
  std::string error;
};

class Programs : public testing::Test {
 protected:
  std::string configFile(const json& more) {
    json config = {{"runDirectory", runDirectory}};
    config.update(more);
    const std::string file = folder.path() + "/config.json";
    std::ofstream(file) << config.dump();
    return file;
  }
  void daemonIs(const json& config = json::object()) {
    daemon.reset();
    daemon = std::make_unique<Process>(Strings{AGENT_HOST, "--config", configFile(config)});
    ASSERT_TRUE(daemon->readUntil("agent-host: runs\n")) << daemon->error;
  }
  Result arpsup(Strings arguments, const std::string& input = {}) const {
    arguments.insert(arguments.begin(), {ARPSUP, "--run-dir", runDirectory});
    Process process(arguments, input);
    const int status = process.wait();
    return {status, process.output, process.error};
  }
  json shown(const std::string& path) const {
    return json::parse(arpsup({"show", path, "--json"}).output, nullptr, false);
  }

  RunDir folder;
  const std::string runDirectory =
      folder.path() + "/run-" + std::string(100, 'd');  // longer than a socket address
  struct Cleaner {
    ~Cleaner() { Memtab::Directory::forRunDir(path).removeAll(); }
    const std::string& path;
  } cleaner{runDirectory};
  std::unique_ptr<Process> daemon;
};

TEST_F(Programs, showSetAndForget) {
  daemonIs({{"state", {{"evpn/status", {{"vlanToDot1q", {{"10", 10}}}}}}}});
  struct stat status {};
  ASSERT_EQ(stat(runDirectory.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0755u);
  EXPECT_THAT(arpsup({"show"}).output, HasSubstr("\nevpn/status\n"));
  EXPECT_EQ(
      arpsup(
          {"set", "evpn/status",
           R"({"vlanToDot1q": {"10": null, "11": 11}, "segmentStatus": {"Ethernet1": {"esiLabel": 500}}})"})
          .status,
      0);
  EXPECT_EQ(shown("evpn/status")["vlanToDot1q"], json({{"11", 11}}));
  EXPECT_EQ(json::parse(arpsup({"show", "evpn/status"}).output)["segmentStatus"]["Ethernet1"]["esiLabel"],
            500);
  EXPECT_EQ(arpsup({"apply", "-"}, R"({"evpn/status": {"mplsConfigured": true}, // together
      "bridging/status": {"fdb": {"10 02:00:00:00:00:01": {"entryType": "learnedDynamic", "intf": "Ethernet1"}}}})")
                .status,
            0);
  EXPECT_EQ(shown("bridging/status")["fdb"].size(), 1u);
  const std::string nobody = folder.path() + "/absent.json";
  const struct {
    Strings arguments;
    int status;
    const char* error;
  } cases[] = {
      {{"set", "evpn/status", R"({"mplsConfigured": 1})"},
       1,
       "arpsup: evpn/status: mplsConfigured: 1 is not true or false\n"},
      {{"set", "evpn/status", "{mpls}"}, 2, "the value is not JSON"},
      {{"show", "evpn/nothing"}, 1, "there is no such path"},
      {{"apply", nobody}, 1, "absent.json: No such file"},
      {{"status"}, 1, "no plug-in that is ready answers \"status\"; loaded: none"},
      {{"counters"}, 1, "there are no counters"},
      {{"remote", "del", "10", "10.0.0.1"}, 1, "there is no remote binding of 10.0.0.1 on VLAN 10"},
      {{"remote", "add", "10", "10.0.0.1", "03:00:00:00:00:01"}, 2, "MAC \"03:00:00:00:00:01\" is not"},
      {{"remote", "add", "10", "10.0.0.1"}, 2, "MAC is required"},
      {{"frobnicate"}, 2, "\"frobnicate\"; see arpsup --help"},
      {{}, 2, "subcommand is required; see arpsup --help"},
  };
  for (const auto& test : cases) {
    const Result result = arpsup(test.arguments);
    EXPECT_EQ(result.status, test.status) << result.error;
    EXPECT_THAT(result.error, HasSubstr(test.error));
    EXPECT_THAT(result.error, testing::StartsWith("arpsup: "));
    EXPECT_EQ(std::count(result.error.begin(), result.error.end(), '\n'), 1) << result.error;
    EXPECT_EQ(result.output, "");
  }
  EXPECT_THAT(arpsup({"remote", "load", "--help"}).output, HasSubstr("Examples:\n  arpsup remote load"));
  daemon->signal(SIGTERM);
  EXPECT_EQ(daemon->wait(), 0) << daemon->error;
  const Result gone = arpsup({"show"});
  EXPECT_EQ(gone.status, 2);
  EXPECT_THAT(gone.error, HasSubstr("no agent-host answers there"));
  daemonIs();
  EXPECT_EQ(shown("evpn/status")["vlanToDot1q"], json::object());
  EXPECT_EQ(shown("bridging/status")["fdb"], json::object());
}

TEST_F(Programs, remoteBindings) {
  daemonIs();
  constexpr const char* kPath = "arpSuppression/remoteBindingConfig/evpn";
  EXPECT_EQ(arpsup({"remote", "add", "10", "10.0.0.1", "02:00:00:00:00:01", "--local-multihomed"}).status, 0);
  EXPECT_EQ(arpsup({"remote", "add", "10", "2001:db8::1", "02:00:00:00:00:02"}).status, 0);
  EXPECT_EQ(arpsup({"remote", "del", "10", "2001:db8::1"}).status, 0);
  EXPECT_EQ(shown(kPath),
            json({{"remoteBinding",
                   {{"10 10.0.0.1", {{"mac", "02:00:00:00:00:01"}, {"localMultihomed", true}}}}}}));
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
  const Strings usage = {AGENT_HOST};
  Process withoutConfig(usage);
  EXPECT_EQ(withoutConfig.wait(), 2);
  const struct {
    json config;
    const char* error;
  } cases[] = {{{{"agents", {"Nothing"}}}, "config.json: agents[0]: \"Nothing\" is not one of KernelState"},
               {{{"runDirectory", folder.path() + "/no/run"}}, "/no/run: it cannot be made"}};
  for (const auto& test : cases) {
    Process process({AGENT_HOST, "--config", configFile(test.config)});
    EXPECT_EQ(process.wait(), 1);
    EXPECT_THAT(process.error, HasSubstr(test.error));
    EXPECT_EQ(std::count(process.error.begin(), process.error.end(), '\n'), 1) << process.error;
  }
  // A plug-in that is not there: the files are named, and nothing was made.
  setenv(Host::kLibraryDirectoryVariable, folder.path().c_str(), 1);
  Process missing({AGENT_HOST, "--config", configFile({{"agents", {"ArpService"}}})});
  EXPECT_EQ(missing.wait(), 1);
  EXPECT_THAT(missing.error, HasSubstr("the library of the plug-in ArpService is not there: looked for " +
                                       folder.path() + "/libArpService.so\n"));
  std::ofstream(folder.path() + "/libArpService.so") << "no library";
  Process broken({AGENT_HOST, "--config", configFile({{"agents", {"ArpService"}}})});
  EXPECT_EQ(broken.wait(), 1);
  EXPECT_THAT(broken.error, HasSubstr("the plug-in ArpService cannot be loaded"));
  unsetenv(Host::kLibraryDirectoryVariable);

  daemonIs();
  Process second({AGENT_HOST, "--config", configFile(json::object())});
  EXPECT_EQ(second.wait(), 1);
  EXPECT_THAT(second.error, HasSubstr("another agent-host runs there (process "));
  EXPECT_EQ(arpsup({"show"}).status, 0) << "the first one goes on";
}

// One that was killed leaves its socket and lock behind.
TEST_F(Programs, startAfterAKill) {
  daemonIs();
  daemon->signal(SIGKILL);
  daemon->wait();
  ASSERT_EQ(access((runDirectory + "/control").c_str(), F_OK), 0);
  EXPECT_EQ(arpsup({"show"}).status, 2);
  std::ofstream(runDirectory + "/state/state.mdb") << "damaged";
  daemonIs();
  EXPECT_THAT(daemon->error, HasSubstr("the state store is damaged"));
  EXPECT_EQ(arpsup({"show"}).status, 0);
}

TEST_F(Programs, runTheAgent) {
  daemonIs({{"agents", {"ArpSuppression"}},
            {"state", {{"bridging/config", {{"bridgeMacAddr", "02:00:00:00:be:ef"}}}}}});
  json status = json::parse(arpsup({"status", "--json"}).output);
  EXPECT_EQ(status["runnable"], false);
  EXPECT_EQ(status["activeVlans"], json::array());
  EXPECT_THAT(arpsup({"status"}).output, HasSubstr("activeVlans:    none\n"));
  const json counters = json::parse(arpsup({"counters", "--json"}).output);
  EXPECT_EQ(counters.size(), 52u);
  EXPECT_EQ(counters["8"], json({{"name", "replyRemote"}, {"value", 0}}));
  EXPECT_EQ(arpsup({"counters", "--json", "--nonzero"}).output, "{}\n");
  EXPECT_EQ(arpsup({"set", "evpn/status", R"({"mplsConfigured": true, "vlanToDot1q": {"10": 10}})"}).status,
            0);
  status = json::parse(arpsup({"status", "--json"}).output);
  EXPECT_EQ(status["runnable"], true);
  EXPECT_EQ(shown("arpSuppression/status")["runnable"], true);
  EXPECT_EQ(shown("arp/input/config/arpSuppression")["source"], 110);
  const Result refused = arpsup({"set", "arpSuppression/status", "{\"runnable\": false}"});
  EXPECT_EQ(refused.status, 1);
  EXPECT_THAT(refused.error, HasSubstr("ArpSuppression is loaded, which writes it"));
  EXPECT_EQ(arpsup({"set", "interface/status/all", R"({"intfStatus": {"Ethernet1": {}}})"}).status, 0);
  EXPECT_THAT(arpsup({"tech-support"}).output, HasSubstr("ArpSuppressionRootSm"));
  daemon->signal(SIGINT);
  EXPECT_EQ(daemon->wait(), 0) << daemon->error;
}

}  // namespace
}  // namespace HostTest
