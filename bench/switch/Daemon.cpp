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
#include <string_view>
#include <thread>

#include "Memtab/Directory.h"

namespace Bench {
namespace {

constexpr auto kPatience = std::chrono::seconds(120);

}  // namespace

pid_t start(const std::vector<std::string>& command, int output, bool first) {
  std::vector<char*> arguments;
  for (const std::string& argument : command) arguments.push_back(const_cast<char*>(argument.c_str()));
  arguments.push_back(nullptr);
  const pid_t pid = fork();
  if (pid != 0) return pid;
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (first) {
    setsid();
    aheadOfOthers();
  }
  dup2(output, STDOUT_FILENO);
  dup2(output, STDERR_FILENO);
  execv(arguments[0], arguments.data());
  _exit(127);
}

Usage usageOf(pid_t pid) {
  Usage usage;
  const std::string folder = "/proc/" + std::to_string(pid);
  for (const auto& thread : std::filesystem::directory_iterator(folder + "/task")) {
    double nanoseconds = 0;
    std::ifstream(thread.path() / "schedstat") >> nanoseconds;
    usage.cpu += nanoseconds * 1e-9;
  }
  std::ifstream status(folder + "/status");
  for (std::string line; std::getline(status, line);) {
    const std::size_t at = line.find("ctxt_switches:");
    if (at != std::string::npos) usage.switches += std::strtol(line.c_str() + at + 14, nullptr, 10);
    if (line.starts_with("VmRSS:")) usage.resident = std::strtol(line.c_str() + 6, nullptr, 10);
  }
  return usage;
}

void aheadOfOthers() {
  setpriority(PRIO_PROCESS, 0, -20);
  // Where sessions share the processors (sched_autogroup_enabled) a priority only counts within its own.
  std::ofstream("/proc/self/autogroup") << "-20";
}

Daemon::Daemon(const std::string& members, const std::string& agents)
    : agents_(agents), folder_((std::filesystem::temp_directory_path() / "switch-bench-XXXXXX").string()) {
  if (mkdtemp(folder_.data()) == nullptr) throw std::runtime_error("no folder " + folder_);
  runDirectory_ = folder_ + "/run";
  logFile_ = folder_ + "/log";
  configurationIs(members);
  start();
}

void Daemon::configurationIs(const std::string& members) const {
  std::ofstream(folder_ + "/config.json")
      << "{\"runDirectory\":\"" << runDirectory_ << "\",\"agents\":[" << agents_ << "]," << members << "}";
}

void Daemon::reload(const std::string& members) const {
  configurationIs(members);
  if (const auto [status, text] = outcomeOf({"reload"}); status != 0)
    throw std::runtime_error("arpsup reload: " + text);
}

void Daemon::start() {
  const int output = open(logFile_.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  pid_ = Bench::start({AGENT_HOST, "--config", folder_ + "/config.json"}, output, true);
  close(output);
}

Daemon::~Daemon() {
  if (pid_ > 0) {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  Memtab::Directory::forRunDir(runDirectory_).removeAll();
}

std::pair<int, std::string> Daemon::outcomeOf(std::vector<std::string> arguments) const {
  arguments.insert(arguments.begin(), {ARPSUP, "--run-dir", runDirectory_});
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
  const pid_t pid = Bench::start(arguments, ends[1], false);
  close(ends[1]);
  std::string text;
  char buffer[65536];
  for (ssize_t got; (got = read(ends[0], buffer, sizeof buffer)) > 0;)
    text.append(buffer, static_cast<std::size_t>(got));
  close(ends[0]);
  int status = -1;
  waitpid(pid, &status, 0);
  return {status, text};
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

double Daemon::longestTurn(std::string& tasks) const {
  constexpr std::string_view kTurn = "longest turn: ";
  double longest = 0;
  std::istringstream report(asked({"tech-support"}));
  for (std::string line; std::getline(report, line);) {
    if (const std::size_t turn = line.find(kTurn); turn != std::string::npos)
      longest = std::strtod(line.c_str() + turn + kTurn.size(), nullptr);
    const std::size_t run = line.find(" longest=");
    if (run == std::string::npos) continue;
    if (std::strtod(line.c_str() + run + 9, nullptr) > 1e-3)
      tasks += "    " + line.substr(line.find_first_not_of(' ')) + "\n";
  }
  return longest;
}

std::string Daemon::log() const {
  std::ostringstream text;
  text << std::ifstream(logFile_).rdbuf();
  return text.str();
}

void Daemon::end(int signal) {
  kill(pid_, signal);
  int status = 0;
  waitpid(pid_, &status, 0);
  pid_ = -1;
  if (signal != SIGKILL && (!WIFEXITED(status) || WEXITSTATUS(status) != 0))
    throw std::runtime_error("the daemon did not end well; see " + logFile_);
}

void Daemon::stop() {
  end(SIGTERM);
  std::error_code ignored;
  std::filesystem::remove_all(folder_, ignored);
}

void Daemon::restart(int signal) {
  end(signal);
  start();
}

}  // namespace Bench
