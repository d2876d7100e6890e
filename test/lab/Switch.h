#pragma once

// The two programs as a test runs them: agent-host in a namespace of its own, and arpsup beside it.

#include <signal.h>
#include <sys/types.h>

#include <array>
#include <chrono>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "lab/Lab.h"

namespace Lab {

using nlohmann::json;
using Strings = std::vector<std::string>;

// For what a daemon must have done, on a busy machine too.
inline const std::chrono::seconds kDaemonPatience{60 * patienceFactor()};

// A child process in the namespace that the calling thread is in, whose output is read here. It is killed
// with the object at the latest.
class Process {
 public:
  explicit Process(const Strings& command);
  ~Process();
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  // Reads what is written until `patience` is over or something came; false when both streams have ended.
  bool read(std::chrono::milliseconds patience);
  // Until stderr has this; false when the process ended or kDaemonPatience did.
  bool readUntil(const std::string& wantedError);
  int wait();  // its exit status; -1 when a signal ended it or it did not end
  void signal(int number) const;
  pid_t pid() const { return pid_; }

  std::string output;
  std::string error;

 private:
  struct Stream {
    int fd = -1;
    bool open = true;
  };
  static void readInto(std::string& text, Stream& stream);

  pid_t pid_ = -1;
  Stream out_, err_;
};

struct Result {
  int status;
  std::string output;
  std::string error;
};

using Counters = std::map<std::string, std::int64_t>;  // by name, without those that are zero

// A switch: its namespace, its run directory with all that belongs to it, and the daemon, if it runs.
class Switch {
 public:
  Switch();
  ~Switch();
  Switch(const Switch&) = delete;
  Switch& operator=(const Switch&) = delete;

  const Namespace& netNs() const { return netNs_; }
  const std::string& runDirectory() const { return runDirectory_; }

  // Starts the daemon with this configuration ("runDirectory" is added), until it says that it runs. A test
  // failure otherwise.
  void start(json config);
  void launch(json config);  // the same, without waiting for anything
  // Has the daemon take up this configuration: "arpsup reload", under way.
  std::unique_ptr<Process> reload(json config) const;
  void kill();                      // at once, without a chance to tidy up
  void stop(int signal = SIGTERM);  // as an operator would; a test failure when it does not end well
  Result cleanUp() const;           // "agent-host --clean-up", with the configuration of the last start
  Process& daemon() { return *daemon_; }
  bool running() const;
  std::size_t descriptors() const;  // how many the daemon has open

  // `arguments` go behind "arpsup --run-dir ...".
  std::unique_ptr<Process> arpsupProcess(Strings arguments) const;
  Result arpsup(const Strings& arguments) const;
  void set(const std::string& path, const json& content) const;  // a test failure when it is refused
  json shown(const Strings& arguments) const;                    // what "arpsup --json ..." prints
  Counters counters() const;

  // Ask until the answer is the wanted one, or kDaemonPatience is over; what it was last. So
  // EXPECT_EQ(status(wanted), wanted) waits. Of the agent's status only the members that are wanted count.
  json status(const json& wanted);
  // What is at the JSON pointer `at` in the entity `path`; null: nothing.
  json state(const std::string& path, const char* at, const json& wanted);

 private:
  std::string configFile(json config) const;
  template <class Ask>
  json within(const json& wanted, const Ask& ask);

  Namespace netNs_;
  std::string folder_;
  std::string runDirectory_;
  std::unique_ptr<Process> daemon_;
};

// `after` without what was there `before`: "replyRemote=1 trappedRequest=2", by name. What is done with
// frames: the counters of what is learned from them, and of kernel neighbours, are left out.
std::string difference(const Counters& before, const Counters& after);

}  // namespace Lab
