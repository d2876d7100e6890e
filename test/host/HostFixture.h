#pragma once

#include <gmock/gmock.h>

#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>

#include "Memtab/Directory.h"
#include "Orb/EventLoop.h"
#include "Orb/TaskScheduler.h"
#include "Statedb/Json.h"
#include "host/Config.h"
#include "host/State.h"

namespace HostTest {

using nlohmann::json;

// A run directory of its own, removed with its shared memory.
class RunDir {
 public:
  RunDir() {
    std::string name = (std::filesystem::temp_directory_path() / "host-test-XXXXXX").string();
    path_ = mkdtemp(name.data());
  }
  RunDir(const RunDir&) = delete;
  RunDir& operator=(const RunDir&) = delete;
  ~RunDir() {
    Memtab::Directory::forRunDir(path_).removeAll();
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

inline Host::Config configOf(const json& content) {
  const Host::ConfigReading reading = Host::parseConfig(content.dump(), "test.json");
  EXPECT_THAT(reading.problems, testing::IsEmpty());
  return reading.good() ? reading.config : Host::Config();
}

// A loop that the test steps, and the state of a host in it.
class HostState {
 public:
  explicit HostState(const RunDir& runDir, const json& config = json::object(),
                     std::unique_ptr<Statedb::Store> store = nullptr,
                     const Orb::Clock& clock = Orb::EventLoop::realClock())
      : config_(configOf(config)), loop(clock), tasks_(Mox::make<Orb::TaskSchedulerRoot>(loop)) {
    state = std::make_unique<Host::State>(loop, tasks_, runDir.path(), config_.agents, std::move(store),
                                          [this](const std::string& message) { reports += message + "\n"; });
    EXPECT_EQ(state->build(config_).error(), "");
  }

  const Mox::Ptr<Orb::TaskScheduler>& scheduler() const { return tasks_->scheduler(); }

  void settle() {
    for (int turn = 0; turn < 50; ++turn) loop.step();
  }
  // The content of a path, read in slices of that size; `between` runs between them.
  std::string text(const std::string& path, std::size_t slice = 1000,
                   const std::function<void()>& between = {}) const {
    const auto dump = state->dump(path);
    if (!dump) return dump.error();
    std::string text;
    while ((*dump)->step(slice, text)) {
      if (between) between();
    }
    return text;
  }
  // Merges all of it; "", or the refusal.
  std::string apply(const json& content) const {
    const auto change = state->change(content);
    if (!change) return change.error();
    auto more = (*change)->step(1000);
    while (more && *more) more = (*change)->step(1000);
    return more.error();
  }
  json show(const std::string& path) const { return json::parse(text(path), nullptr, false); }

 private:
  Host::Config config_;

 public:
  Orb::EventLoop loop;
  std::string reports;

 private:
  Mox::Ptr<Orb::TaskSchedulerRoot> tasks_;

 public:
  std::unique_ptr<Host::State> state;
};

}  // namespace HostTest
