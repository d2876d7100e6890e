#pragma once

// The daemon as a benchmark runs it, and arpsup beside it. Failures throw std::runtime_error.

#include <sys/types.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace Bench {

struct Usage {
  double cpu = 0;  // seconds
  long switches = 0;
  long resident = 0;  // KiB
};
Usage usageOf(pid_t pid);

// From here on the calling thread, and those that it makes, run at the highest priority for ordinary programs,
// and so does the session that it is in.
void aheadOfOthers();

// Starts a program, which is killed when the calling thread ends at the latest. Its output goes to the
// descriptor; `first`: ahead of others, in a session of its own.
pid_t start(const std::vector<std::string>& command, int output, bool first);

// agent-host, in the namespace that the calling thread is in. It runs ahead of others, so that what else the
// machine does counts less. Killed with the object, unless stopped before; then its folder goes
// too. Its shared memory goes in either case.
class Daemon {
 public:
  // Members of the configuration, as text: "\"vlans\": {...}", and the plug-ins that are loaded.
  explicit Daemon(const std::string& members,
                  const std::string& agents = R"("KernelState","ArpService","SoftForward","ArpSuppression")");
  ~Daemon();
  Daemon(const Daemon&) = delete;
  Daemon& operator=(const Daemon&) = delete;

  // What "arpsup ..." prints.
  std::string asked(std::vector<std::string> arguments) const {
    return outcomeOf(std::move(arguments)).second;
  }
  void reload(const std::string& members) const;  // with the same plug-ins
  // Until it is so; `what` is for the text when it does not become so.
  void await(const std::string& what, const std::function<bool()>& isSo);
  // In seconds, since it started, and the tasks whose longest run was above 1 ms, a line each.
  double longestTurn(std::string& tasks) const;
  Usage usage() const { return usageOf(pid_); }
  std::string log() const;   // what it has written
  void stop();               // a clean end, for good
  void restart(int signal);  // ends it so, and starts it with the same configuration and run directory

 private:
  void start();
  void end(int signal);
  void configurationIs(const std::string& members) const;
  std::pair<int, std::string> outcomeOf(std::vector<std::string> arguments) const;  // with its wait status

  std::string agents_, folder_, runDirectory_, logFile_;
  pid_t pid_ = -1;
};

}  // namespace Bench
