#pragma once

// The daemon as a benchmark runs it, and arpsup beside it. Failures throw std::runtime_error.

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

namespace Bench {

// agent-host with all four plug-ins, in the namespace that the calling thread is in. It runs at the highest
// priority for ordinary programs, so that what else the machine does counts less. Killed with the object,
// unless stopped before; then its folder goes too.
class Daemon {
 public:
  // Members of the configuration, as text: "\"vlans\": {...}".
  explicit Daemon(const std::string& members);
  ~Daemon();
  Daemon(const Daemon&) = delete;
  Daemon& operator=(const Daemon&) = delete;

  std::string asked(std::vector<std::string> arguments) const;  // what "arpsup ..." prints
  // Until it is so; `what` is for the text when it does not become so.
  void await(const std::string& what, const std::function<bool()>& isSo);
  struct Usage {
    double cpu = 0;  // seconds
    long switches = 0;
    long resident = 0;  // KiB
  };
  Usage usage() const;
  std::string log() const;  // what it has written
  void stop();              // a clean end

 private:
  std::string folder_, runDirectory_, logFile_;
  pid_t pid_ = -1;
};

}  // namespace Bench
