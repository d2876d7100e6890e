#include "Orb/EventLoop.h"
#include "Orb/TaskScheduler.h"
#include "Statedb/Json.h"
#include "Switch/Problems.h"
#include "fuzz/Input.h"
#include "host/Config.h"
#include "host/Reload.h"
#include "host/State.h"

namespace {

constexpr int kManyTurns = 100000;

// The state of a host with a configuration, in a run directory of its own.
class Running {
 public:
  Running(const std::string& folder, const Host::Config& config)
      : directory_(Memtab::Directory::forRunDir(folder)),
        tasks_(Mox::make<Orb::TaskSchedulerRoot>(loop_)),
        state_(loop_, tasks_, folder, config.agents, nullptr, [](const std::string&) {}) {
    loop_.errorHandlerIs([](const char* where, const char* what) { Fuzz::check(false, where, what); });
    built = state_.build(config);
  }
  Running(const Running&) = delete;
  Running& operator=(const Running&) = delete;
  ~Running() { directory_.removeAll(); }

  // What is wrong, a line each.
  std::vector<std::string> reload(const std::string& file, const Host::Config& config) {
    Host::Reload reload(tasks_->scheduler(), state_, file, config, [](const std::string&) {});
    bool over = false;
    std::vector<std::string> wrong;
    reload.begin([&](const std::vector<std::string>& problems) {
      over = true;
      wrong = problems;
    });
    int turns = 0;
    while (!over) {
      Fuzz::check(++turns < kManyTurns, "an end of the reload");
      loop_.step();
    }
    return wrong;
  }
  // By path; what is wrong with the host is no part of it.
  nlohmann::json shown() {
    nlohmann::json all;
    for (const std::string& path : state_.paths()) {
      if (path == Switch::kProblemsPath) continue;
      const auto dump = state_.dump(path);
      Fuzz::check(static_cast<bool>(dump), path, dump.error());
      std::string text;
      while ((*dump)->step(1000, text)) {
      }
      const auto json = Statedb::jsonOf(text);
      Fuzz::check(json.has_value(), "JSON of " + path, text);
      all[path] = *json;
    }
    return all;
  }

  Mox::Result<> built;

 private:
  const Memtab::Directory directory_;
  Orb::EventLoop loop_;
  const Mox::Ptr<Orb::TaskSchedulerRoot> tasks_;
  Host::State state_;
};

// The process's own settings are no part of this, nor are files of this machine.
bool isFit(const Host::Config& config) {
  return config.featureDirectory == Host::Config().featureDirectory && config.trace.empty();
}

}  // namespace

// Two configurations, a NUL between them: the second is refused as a whole, or what there is then is what a start
// with it makes.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const Fuzz::Folder folder;
  static const Fuzz::Folder fresh;
  const std::string file = folder.path() + "/config.json";
  const std::string text = Fuzz::Input(data, size).text();
  const std::size_t end = text.find('\0');
  if (end == std::string::npos) return 0;
  const Host::ConfigReading before = Host::parseConfig(text.substr(0, end), file);
  const Host::ConfigReading now = Host::parseConfig(text.substr(end + 1), file);
  if (!before.good() || !now.good() || !isFit(before.config) || !isFit(now.config)) return 0;

  Running running(folder.path(), before.config);
  if (!running.built) return 0;
  const nlohmann::json was = running.shown();
  const std::string second = text.substr(end + 1);
  Fuzz::contentIs(file, std::as_bytes(std::span(second)));
  const auto problems = running.reload(file, before.config);
  const nlohmann::json is = running.shown();
  if (!problems.empty()) {
    for (const std::string& problem : problems) Fuzz::checkPrintable(problem);
    Fuzz::check(is == was, Statedb::jsonText(was), Statedb::jsonText(is));
    return 0;
  }
  Running started(fresh.path(), now.config);
  Fuzz::check(static_cast<bool>(started.built), "a start with what was taken up", started.built.error());
  // A path that only the configuration before had is empty, and stays.
  const nlohmann::json expected = started.shown();
  for (const auto& [path, content] : expected.items())
    Fuzz::check(is.contains(path) && is[path] == content, path + " " + Statedb::jsonText(content),
                Statedb::jsonText(is.value(path, nlohmann::json())));
  return 0;
}
