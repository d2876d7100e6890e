#include "lab/Switch.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "Memtab/Directory.h"

namespace Lab {

namespace {

using Clock = std::chrono::steady_clock;

std::chrono::milliseconds left(Clock::time_point deadline) {
  return std::max(std::chrono::milliseconds(0),
                  std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()));
}

}  // namespace

Process::Process(const Strings& command) {
  std::array<int, 2> out{};
  std::array<int, 2> err{};
  if (pipe2(out.data(), O_CLOEXEC) != 0 || pipe2(err.data(), O_CLOEXEC) != 0)
    throw std::runtime_error("lab: no pipes for a process");
  std::vector<char*> arguments;
  for (const std::string& argument : command) arguments.push_back(const_cast<char*>(argument.c_str()));
  arguments.push_back(nullptr);
  pid_ = fork();
  if (pid_ == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);  // also when the test is killed
    dup2(out[1], STDOUT_FILENO);
    dup2(err[1], STDERR_FILENO);
    execv(arguments[0], arguments.data());
    _exit(127);
  }
  close(out[1]);
  close(err[1]);
  out_.fd = out[0];
  err_.fd = err[0];
  if (pid_ < 0) throw std::runtime_error("lab: no process for " + command.front());
}

Process::~Process() {
  if (pid_ > 0) {
    ::kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  close(out_.fd);
  close(err_.fd);
}

void Process::readInto(std::string& text, Stream& stream) {
  std::array<char, 65536> bytes;
  const ssize_t got = ::read(stream.fd, bytes.data(), bytes.size());
  if (got > 0) text.append(bytes.data(), static_cast<std::size_t>(got));
  stream.open = got > 0;
}

bool Process::read(std::chrono::milliseconds patience) {
  std::array<pollfd, 2> streams{
      {{out_.open ? out_.fd : -1, POLLIN, 0}, {err_.open ? err_.fd : -1, POLLIN, 0}}};
  if (!out_.open && !err_.open) return false;
  poll(streams.data(), streams.size(), static_cast<int>(patience.count()));
  if (streams[0].revents != 0) readInto(output, out_);
  if (streams[1].revents != 0) readInto(error, err_);
  return true;
}

bool Process::readUntil(const std::string& wantedError) {
  const auto deadline = Clock::now() + kDaemonPatience;
  while (error.find(wantedError) == std::string::npos) {
    if (left(deadline).count() == 0 || !read(left(deadline))) return false;
  }
  return true;
}

int Process::wait() {
  const auto deadline = Clock::now() + kDaemonPatience;
  while (left(deadline).count() != 0 && read(left(deadline))) {
  }
  if (out_.open || err_.open) {
    ADD_FAILURE() << "process " << pid_ << " does not end: " << error;
    signal(SIGKILL);
  }
  int status = 0;
  waitpid(pid_, &status, 0);
  pid_ = -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

void Process::signal(int number) const {
  if (pid_ > 0) ::kill(pid_, number);  // -1 would be everybody
}

Switch::Switch() {
  std::string name = (std::filesystem::temp_directory_path() / "lab-switch-XXXXXX").string();
  if (mkdtemp(name.data()) == nullptr) throw std::runtime_error("lab: no folder " + name);
  folder_ = name;
  runDirectory_ = folder_ + "/run";
}

Switch::~Switch() {
  daemon_.reset();
  Memtab::Directory::forRunDir(runDirectory_).removeAll();
  std::error_code ignored;
  std::filesystem::remove_all(folder_, ignored);
}

std::string Switch::configFile(json config) const {
  config["runDirectory"] = runDirectory_;
  const std::string file = folder_ + "/config.json";
  std::ofstream(file) << config.dump();
  return file;
}

std::unique_ptr<Process> Switch::reload(json config) const {
  configFile(std::move(config));
  return arpsupProcess({"reload"});
}

void Switch::launch(json config) {
  const std::string file = configFile(std::move(config));
  const Entered entered(netNs_);
  daemon_ = std::make_unique<Process>(Strings{AGENT_HOST, "--config", file});
}

void Switch::start(json config) {
  launch(std::move(config));
  ASSERT_TRUE(daemon_->readUntil("agent-host: runs\n")) << daemon_->error;
}

void Switch::kill() {
  daemon_->signal(SIGKILL);
  EXPECT_EQ(daemon_->wait(), -1) << daemon_->error;
}

void Switch::stop(int signal) {
  daemon_->signal(signal);
  EXPECT_EQ(daemon_->wait(), 0) << daemon_->error;
}

Result Switch::cleanUp() const {
  const Entered entered(netNs_);
  Process process({AGENT_HOST, "--clean-up", folder_ + "/config.json"});
  const int status = process.wait();
  return {status, process.output, process.error};
}

bool Switch::running() const {
  siginfo_t end{};
  return waitid(P_PID, static_cast<id_t>(daemon_->pid()), &end, WEXITED | WNOHANG | WNOWAIT) == 0 &&
         end.si_pid == 0;
}

std::size_t Switch::descriptors() const {
  const std::filesystem::directory_iterator files("/proc/" + std::to_string(daemon_->pid()) + "/fd");
  return static_cast<std::size_t>(std::distance(begin(files), end(files)));
}

std::unique_ptr<Process> Switch::arpsupProcess(Strings arguments) const {
  arguments.insert(arguments.begin(), {ARPSUP, "--run-dir", runDirectory_});
  return std::make_unique<Process>(arguments);
}

Result Switch::arpsup(const Strings& arguments) const {
  const auto process = arpsupProcess(arguments);
  const int status = process->wait();
  return {status, process->output, process->error};
}

void Switch::set(const std::string& path, const json& content) const {
  const Result result = arpsup({"set", path, content.dump()});
  EXPECT_EQ(result.status, 0) << result.error;
}

json Switch::shown(const Strings& arguments) const {
  Strings command = arguments;
  command.insert(command.begin(), "--json");
  const Result result = arpsup(command);
  EXPECT_EQ(result.status, 0) << result.error;
  return json::parse(result.output, nullptr, false);
}

Counters Switch::counters() const {
  Counters counters;
  for (const json& counter : shown({"counters", "--nonzero"}))
    counters[counter.at("name")] = counter.at("value");
  return counters;
}

template <class Ask>
json Switch::within(const json& wanted, const Ask& ask) {
  const auto deadline = Clock::now() + kDaemonPatience;
  while (true) {
    json had = ask();
    if (had == wanted || left(deadline).count() == 0) return had;
    if (!daemon_->read(std::chrono::milliseconds(20))) {
      ADD_FAILURE() << "the daemon has ended: " << daemon_->error;
      return had;
    }
  }
}

json Switch::status(const json& wanted) {
  return within(wanted, [&] {
    // Refused while the agent is not ready yet.
    const json status = json::parse(arpsup({"--json", "status"}).output, nullptr, false);
    json had = json::object();
    for (const auto& [name, value] : wanted.items())
      had[name] = status.is_object() ? status.value(name, json()) : json();
    return had;
  });
}

json Switch::state(const std::string& path, const char* at, const json& wanted) {
  return within(wanted, [&] {
    const json content = json::parse(arpsup({"--json", "show", path}).output, nullptr, false);
    const json::json_pointer pointer(at);
    return content.contains(pointer) ? content.at(pointer) : json();
  });
}

// What counts learning and kernel neighbours.
constexpr const char* kBeside[] = {"localBinding", "discovery", "arpInput", "kernelInstall"};

std::string difference(const Counters& before, const Counters& after) {
  std::string text;
  for (const auto& [name, value] : after) {
    const bool beside =
        std::ranges::any_of(kBeside, [&name = name](const char* with) { return name.starts_with(with); });
    if (beside) continue;
    const auto old = before.find(name);
    const std::int64_t change = value - (old == before.end() ? 0 : old->second);
    if (change != 0) text += (text.empty() ? "" : " ") + name + "=" + std::to_string(change);
  }
  return text;
}

}  // namespace Lab
