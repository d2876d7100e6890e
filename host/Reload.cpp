#include "host/Reload.h"

#include <sys/stat.h>

#include <utility>

#include "Orb/FeatureSwitch.h"
#include "Statedb/Json.h"
#include "Tracelet/Trace.h"
#include "host/Bindings.h"
#include "host/FeatureFiles.h"

namespace Host {

namespace {

constexpr unsigned kLevel = 4;
constexpr std::size_t kEntriesPerSlice = 256;

// What a running process cannot change.
std::vector<std::string> needRestart(const std::string& file, const Config& before, const Config& now) {
  std::vector<std::string> problems;
  const auto compare = [&](const char* key, const nlohmann::json& running, const nlohmann::json& wanted) {
    if (running == wanted) return;
    problems.push_back(file + ": " + key + ": " + Statedb::jsonText(wanted) + " needs a restart; " +
                       Statedb::jsonText(running) + " is in force");
  };
  compare("runDirectory", before.runDirectory, now.runDirectory);
  compare("hardware", before.hardware, now.hardware);
  compare("agents", before.agents, now.agents);
  compare("metrics.listen", before.metrics, now.metrics);
  return problems;
}

// New bindings for addresses that this switch has. At its start it does not know them yet.
std::vector<std::string> ownAddresses(const std::string& file, const State& state, const Config& before,
                                      const Config& now) {
  std::vector<std::string> problems;
  const Ip::OwnAddresses own(state.tree()->entityOf<const Ip::Status>("ip/status"));
  for (const auto& [key, binding] : now.bindings) {
    if (before.bindings.contains(key)) continue;
    if (const Mox::Result<> good = notOwn(own, key); !good)
      problems.push_back(file + ": bindings: " + good.error());
  }
  return problems;
}

// Reading anything else might wait.
bool isFile(const std::string& file) {
  struct stat status {};
  return stat(file.c_str(), &status) != 0 || S_ISREG(status.st_mode);
}

}  // namespace

void processSettingsAre(const Config& config, const Config* before, const State::Report& report) {
  if (before) {
    for (const auto& [handle, level] : before->trace)
      if (!config.trace.contains(handle)) Tracelet::levelIs(handle, Tracelet::kErrorsOnly);
  }
  for (const auto& [handle, level] : config.trace) Tracelet::levelIs(handle, level);
  Orb::FeatureSwitch::sourceIs(
      [report, directory = featureDirectory(config.featureDirectory)](const auto& group, const auto& name) {
        return featureSwitch(directory, group, name, report);
      });
}

Reload::Reload(const Mox::Ptr<Orb::TaskScheduler>& scheduler, State& state, std::string file, Config config,
               State::Report report)
    : state_(state),
      file_(std::move(file)),
      config_(std::move(config)),
      report_(std::move(report)),
      task_(scheduler, "reload", kLevel, [this] { run(); }) {}

void Reload::begin(Done done) {
  waiting_.push_back(std::move(done));
  task_.schedule();
}

void Reload::run() {
  if (!change_) {
    served_ = std::exchange(waiting_, {});
    if (const auto problems = read(); !problems.empty()) return end(problems);
  }
  Mox::Result<bool> more = true;
  do {
    more = change_->step(kEntriesPerSlice);
  } while (more && *more && !task_.scheduler()->root().mustYield());
  if (more && *more) return task_.schedule();
  change_.reset();
  // What was written stays, and is compared with the configuration before again, so that the rest is tried
  // again the next time.
  if (!more) return end({file_ + ": " + more.error() + "; what comes before it is in force"});
  processSettingsAre(next_, &config_, report_);
  config_ = std::move(next_);
  for (const std::string& remark : remarks(config_)) report_(remark);
  end({});
}

// Begins to carry it out, unless anything is wrong.
std::vector<std::string> Reload::read() {
  if (!isFile(file_)) return {file_ + ": not a regular file: it cannot be read again"};
  ConfigReading reading = readConfig(file_);
  if (!reading.good()) return reading.problems;
  if (auto problems = ownAddresses(file_, state_, config_, reading.config); !problems.empty())
    return problems;
  if (auto problems = needRestart(file_, config_, reading.config); !problems.empty()) return problems;
  auto change = state_.reconfigure(config_, reading.config);
  if (!change) return {file_ + ": " + change.error()};
  change_ = std::move(*change);
  next_ = std::move(reading.config);
  return {};
}

void Reload::end(const std::vector<std::string>& problems) {
  for (const std::string& problem : problems) report_(problem);
  report_(problems.empty() ? file_ + " is in force"
                           : file_ + " is refused: the configuration before it stays in force");
  const std::vector<Done> served = std::exchange(served_, {});
  for (const Done& done : served) done(problems);
  if (!waiting_.empty()) task_.schedule();
}

}  // namespace Host
