#include "Daemon.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace Bench {
namespace {

constexpr auto kPatience = std::chrono::seconds(120);

pid_t start(const std::vector<std::string>& command, int output, bool first) {
  std::vector<char*> arguments;
  for (const std::string& argument : command) arguments.push_back(const_cast<char*>(argument.c_str()));
  arguments.push_back(nullptr);
  const pid_t pid = fork();
  if (pid != 0) return pid;
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (first) setpriority(PRIO_PROCESS, 0, -20);
  dup2(output, STDOUT_FILENO);
  dup2(output, STDERR_FILENO);
  execv(arguments[0], arguments.data());
  _exit(127);
}

}  // namespace

Daemon::Daemon(const std::string& members)
    : folder_((std::filesystem::temp_directory_path() / "switch-bench-XXXXXX").string()) {
  if (mkdtemp(folder_.data()) == nullptr) throw std::runtime_error("no folder " + folder_);
  runDirectory_ = folder_ + "/run";
  logFile_ = folder_ + "/log";
  std::ofstream(folder_ + "/config.json")
      << "{\"runDirectory\":\"" << runDirectory_
      << "\",\"agents\":[\"KernelState\",\"ArpService\",\"SoftForward\",\"ArpSuppression\"]," << members
      << "}";
  const int output = open(logFile_.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
  pid_ = start({AGENT_HOST, "--config", folder_ + "/config.json"}, output, true);
  close(output);
}

Daemon::~Daemon() {
  if (pid_ <= 0) return;
  kill(pid_, SIGKILL);
  waitpid(pid_, nullptr, 0);
}

std::string Daemon::asked(std::vector<std::string> arguments) const {
  arguments.insert(arguments.begin(), {ARPSUP, "--run-dir", runDirectory_});
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
  const pid_t pid = start(arguments, ends[1], false);
  close(ends[1]);
  std::string text;
  char buffer[65536];
  for (ssize_t got; (got = read(ends[0], buffer, sizeof buffer)) > 0;)
    text.append(buffer, static_cast<std::size_t>(got));
  close(ends[0]);
  waitpid(pid, nullptr, 0);
  return text;
}

void Daemon::await(const std::string& what, const std::function<bool()>& isSo) {
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  while (!isSo()) {
    if (waitpid(pid_, nullptr, WNOHANG) == pid_) {
      pid_ = -1;
      throw std::runtime_error("the daemon ended before " + what + "; see " + logFile_);
    }
    if (std::chrono::steady_clock::now() > deadline)
      throw std::runtime_error("waiting until " + what + " took too long; see " + logFile_);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
}

Daemon::Usage Daemon::usage() const {
  Usage usage;
  const std::string folder = "/proc/" + std::to_string(pid_);
  std::ifstream(folder + "/schedstat") >> usage.cpu;
  usage.cpu *= 1e-9;
  std::ifstream status(folder + "/status");
  for (std::string line; std::getline(status, line);) {
    const std::size_t at = line.find("ctxt_switches:");
    if (at != std::string::npos) usage.switches += std::strtol(line.c_str() + at + 14, nullptr, 10);
    if (line.starts_with("VmRSS:")) usage.resident = std::strtol(line.c_str() + 6, nullptr, 10);
  }
  return usage;
}

std::string Daemon::log() const {
  std::ostringstream text;
  text << std::ifstream(logFile_).rdbuf();
  return text.str();
}

void Daemon::stop() {
  kill(pid_, SIGTERM);
  int status = 0;
  waitpid(pid_, &status, 0);
  pid_ = -1;
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
    throw std::runtime_error("the daemon did not end well; see " + logFile_);
  std::error_code ignored;
  std::filesystem::remove_all(folder_, ignored);
}

}  // namespace Bench
