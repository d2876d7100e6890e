#pragma once

#include "lab/WholeSwitch.h"

namespace Lab {

// The whole switch, told of remote hosts and asked by host 1: who hears what.
class Listening : public WholeSwitch {
 protected:
  struct Heard {
    Texts host1, host2, far;
    bool operator==(const Heard&) const = default;
  };
  friend void PrintTo(const Heard& heard, std::ostream* out) {
    *out << "host 1: " << testing::PrintToString(heard.host1)
         << ", host 2: " << testing::PrintToString(heard.host2)
         << ", far end: " << testing::PrintToString(heard.far);
  }
  Heard heard(const Frame& frame) {
    quiet();
    host1_->send(frame);
    const Seen seen = quiet();
    return {seen.host1, seen.host2, seen.far};
  }
  // Once it is so: forwarding follows in its own time.
  void expectHeard(const char* scenario, const Frame& frame, const Heard& wanted) {
    SCOPED_TRACE(scenario);
    const auto deadline = std::chrono::steady_clock::now() + kDaemonPatience;
    Heard last = heard(frame);
    while (!(last == wanted) && std::chrono::steady_clock::now() < deadline) last = heard(frame);
    EXPECT_EQ(last, wanted);
  }
  void remote(const Strings& change) const {
    Strings command = {"remote"};
    command.insert(command.end(), change.begin(), change.end());
    const Result done = switch_.arpsup(command);
    EXPECT_EQ(done.status, 0) << done.error;
  }
  void reload(const json& config) const {
    const auto reload = switch_.reload(config);
    EXPECT_EQ(reload->wait(), 0) << reload->error;
  }
};

}  // namespace Lab
