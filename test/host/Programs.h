#pragma once

#include <fcntl.h>
#include <gmock/gmock.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <fstream>
#include <functional>
#include <vector>

#include "test/host/HostFixture.h"

// The two programs as a test runs them.

namespace HostTest {

using Strings = std::vector<std::string>;

inline constexpr int kPatienceMs = 30000;

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

  // Reads until stderr has this (with `fromOutput`: stdout), or both streams ended, or patience did. The
  // other end may be in this process: `meanwhile`.
  bool readUntil(const std::string& wanted, bool fromOutput = false,
                 const std::function<void()>& meanwhile = {}) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kPatienceMs);
    while (wanted.empty() || (fromOutput ? output : error).find(wanted) == std::string::npos) {
      if (meanwhile) meanwhile();
      std::array<pollfd, 2> streams{
          {{openOut_ ? out_[0] : -1, POLLIN, 0}, {openErr_ ? err_[0] : -1, POLLIN, 0}}};
      const auto left =
          std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
      if ((!openOut_ && !openErr_) || left.count() <= 0) return wanted.empty() && !openOut_ && !openErr_;
      poll(streams.data(), streams.size(), meanwhile ? 1 : static_cast<int>(left.count()));
      if (streams[0].revents != 0) openOut_ = readInto(output, out_[0]);
      if (streams[1].revents != 0) openErr_ = readInto(error, err_[0]);
    }
    return true;
  }
  // Waits for its end; -1 when a signal ended it.
  int wait(const std::function<void()>& meanwhile = {}) {
    if (!readUntil("", false, meanwhile)) {
      ADD_FAILURE() << "does not end: " << error;
      signal(SIGKILL);
    }
    int status = 0;
    waitpid(pid_, &status, 0);
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
  void signal(int number) const {
    if (pid_ > 0) kill(pid_, number);  // -1 would be everybody
  }
  pid_t pid() const { return pid_; }

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

inline Result run(const Strings& command, const std::string& input = {},
                  const std::function<void()>& meanwhile = {}) {
  Process process(command, input);
  const int status = process.wait(meanwhile);
  return {status, process.output, process.error};
}

class Programs : public testing::Test {
 protected:
  // In a network namespace of the test's own, of which there is one agent-host.
  Programs() {
    if (geteuid() == 0 && unshare(CLONE_NEWNET) != 0) ADD_FAILURE() << "no network namespace";
  }
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
    return run(arguments, input);
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

}  // namespace HostTest
