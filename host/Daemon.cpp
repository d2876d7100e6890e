#include "host/Daemon.h"

#include <sys/resource.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <utility>

#include "Orb/FeatureSwitch.h"
#include "Statedb/LogStore.h"
#include "Tracelet/Trace.h"
#include "Tracelet/Tracelet.h"
#include "host/Plugins.h"

namespace Host {

namespace {

// At the end: how often it is looked whether anything is under way, and for how long at most. What a full
// receive queue holds takes 0.2 s, and some seconds on a machine that is very slow.
constexpr double kEndLookSeconds = 0.01;
constexpr double kLongestEndSeconds = 5;
constexpr unsigned kStartLevel = 0;

sigset_t signalsToRead() {
  sigset_t set;
  sigemptyset(&set);
  for (const int signal : {SIGTERM, SIGINT, SIGHUP, SIGUSR2}) sigaddset(&set, signal);
  return set;
}

// Each VRF costs some descriptors. What few the system gives a program by default is for those that use
// select(2), which nothing here does.
void raiseDescriptorLimit(const Daemon::Report& report) {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur == limit.rlim_max) return;
  limit.rlim_cur = limit.rlim_max;
  if (setrlimit(RLIMIT_NOFILE, &limit) < 0)
    report(std::string("the limit of open files cannot be raised: ") + std::strerror(errno));
}

}  // namespace

Daemon::Daemon(Orb::EventLoop& loop, std::string file, Config config, Report report)
    : loop_(loop),
      file_(std::move(file)),
      config_(std::move(config)),
      report_(std::move(report)),
      tasks_(Mox::make<Orb::TaskSchedulerRoot>(loop)),
      events_(loop),
      signals_(Mox::make<Orb::FileDescriptor>(loop, "signals")),
      pluginStart_(tasks_->scheduler(), "plug-in start", kStartLevel, [this] { loadOrStart(); }),
      endTimer_(loop, "end", [this] { handleEnd(); }),
      serviceManager_(loop) {
  signals_.on(Orb::FileDescriptor::readableCountChanged, [this] { handleSignal(); });
}

Daemon::~Daemon() {
  Orb::FeatureSwitch::sourceIs({});
  signals_->descriptorIs(-1);
  if (signalDescriptor_ >= 0) close(signalDescriptor_);
  metrics_.reset();
  turns_.reset();
  control_.reset();
  reload_.reset();
  health_ = nullptr;
  for (const auto& group : groups_) group->cancel();
  while (!agents_.empty()) agents_.pop_back();
  groups_.clear();
  flushHook_ = {};
  if (state_) state_->flushAll();
  state_.reset();
}

Mox::Result<> Daemon::start() {
  const auto libraries = findPlugins(config_.agents, libraryDirectories());
  if (!libraries) return libraries.failure();
  auto runDirectory = RunDirectory::open(config_.runDirectory);
  if (!runDirectory) return runDirectory.failure();
  runDirectory_ = std::move(*runDirectory);
  auto networkNamespace = lockNetworkNamespace(config_.runDirectory);
  if (!networkNamespace) return networkNamespace.failure();
  networkNamespace_ = std::move(*networkNamespace);
  raiseDescriptorLimit(report_);
  Tracelet::directoryIs(config_.runDirectory);
  processSettingsAre(config_, nullptr, report_);
  auto store = Statedb::LogStore::open(runDirectory_->stateDirectory(), report_);
  if (!store) return store.failure();
  state_ = std::make_unique<State>(loop_, tasks_, config_.runDirectory, config_.agents, std::move(*store),
                                   report_);
  const std::string handedOver = runDirectory_->handOverFile();
  if (auto built = state_->build(config_, readHandOver(handedOver, report_)); !built) return built;
  unlink(handedOver.c_str());
  flushHook_ = loop_.endOfTurn([this] {
    if (state_->flush()) loop_.post([] {});  // the rest comes in another turn
  });
  for (std::size_t i = 0; i < config_.agents.size(); ++i) {
    const auto agent = loadPlugin(config_.agents[i], (*libraries)[i]);
    if (!agent) return agent.failure();
    (*agent)->hostIs(*this);
    agents_.push_back(*agent);
  }
  reload_ = std::make_unique<Reload>(tasks_->scheduler(), *state_, file_, config_, report_);
  control_ =
      std::make_unique<ControlServer>(tasks_->scheduler(), *state_, agents_, ControlLimits(), reload_.get());
  if (auto listening = control_->listen(config_.runDirectory); !listening) return listening;
  if (!config_.metrics.empty()) {
    turns_ = std::make_unique<TurnTimes>(loop_);
    metrics_ =
        std::make_unique<MetricsServer>(tasks_->scheduler(), state_->problems(), config_.metrics, [this] {
          return metricsText({*state_, agents_, events_, *turns_});
        });
  }
  pluginStart_.schedule();
  return {};
}

Mox::Result<> Daemon::run() {
  loop_.run();
  if (handsOver()) handOver();
  return started_;
}

void Daemon::endIs(End end) {
  const bool begins = std::exchange(end_, end) == End::none;
  if (!begins) return;  // it is under way already
  serviceManager_.ending();
  endsAt_ = loop_.clock().now() + kLongestEndSeconds;
  for (const auto& agent : agents_) agent->endBegins();
  endTimer_.after(0);
}

// Found twice: what was written last has left the devices, which may be removed next.
void Daemon::handleEnd() {
  const bool finished = std::ranges::all_of(agents_, [](const auto& agent) { return agent->finished(); });
  if (std::exchange(finished_, finished) && finished) return loop_.stop();
  if (loop_.clock().now() < endsAt_) return endTimer_.after(kEndLookSeconds);
  report_("what was trapped last could not be dealt with in time");
  loop_.stop();
}

void Daemon::handOver() {
  state_->flushAll();
  const auto written = state_->handOver(reload_->config(), runDirectory_->handOverFile());
  if (!written) report_("what was set by hand is not kept: " + written.error());
}

// Not before all is loaded: what is not there yet would count as gone. An end waits for the plug-ins, which know
// what of an earlier run has to be taken back.
void Daemon::loadOrStart() try {
  if (state_->loadAhead([this] { return tasks_->mustYield(); })) return pluginStart_.schedule();
  signals_->notifyOnReadableIs(true);
  startPlugins();
} catch (const std::exception& error) {
  // Half a start would neither serve nor end when it is told to.
  started_ = Mox::Failure{std::string("the plug-ins cannot start: ") + error.what()};
  loop_.stop();
}

void Daemon::startPlugins() {
  starting_ = agents_.size() + 1;  // and this one
  for (const auto& agent : agents_) startStep(*agent, [&] { agent->doInit(); });
  state_->createAbsent();
  health_ = Mox::make<HealthSm>(tasks_->scheduler(), state_->tree());
  handleStarted();
}

// Part of a plug-in's start. The first one that fails is the last one.
template <class Call>
void Daemon::startStep(Plugin::AgentBase& agent, const Call& call) {
  if (!started_) return;
  try {
    call();
  } catch (const std::exception& error) {
    started_ = Mox::Failure{"the plug-in " + agent.name() + " cannot start: " + error.what() +
                            "; correct that and start the agent-host again"};
    loop_.stop();
  }
}

void Daemon::handleStarted() {
  if (--starting_ > 0 || !started_) return;
  for (const std::string& remark : remarks(config_)) report_(remark);
  // Who may look may also look back.
  const std::string trace = Tracelet::fileName();
  if (const auto group = operatorGroup(); group && !trace.empty())
    if (chown(trace.c_str(), static_cast<uid_t>(-1), *group) < 0)
      report_(trace + ": its group cannot be changed: " + std::strerror(errno));
  report_("runs");
  serviceManager_.started();
}

Mox::Ptr<Statedb::MountGroup> Daemon::mountGroup(Plugin::AgentBase& agent) {
  const std::size_t index = groups_.size();
  groups_.push_back(state_->tree()->mountGroup([this, index, &agent](Statedb::MountStatus status) {
    startStep(agent, [&] {
      std::string refusals;
      for (const std::string& message : groups_[index]->messages())
        refusals += (refusals.empty() ? "" : "; ") + message;
      if (status == Statedb::MountStatus::failed) throw Mox::Error(refusals);
      agent.doMountsComplete(status, state_->tree());
    });
    handleStarted();
  }));
  return groups_.back();
}

void Daemon::createLocalEntity(const Mox::String& name, const Mox::String& type, const Mox::String& path) {
  const auto made = state_->tree()->entityIs(path, type);
  if (!made) throw Mox::Error(name + ": " + made.error());
}

Mox::Result<> Daemon::watchSignals() {
  const sigset_t set = signalsToRead();
  if (sigprocmask(SIG_BLOCK, &set, nullptr) < 0)
    return Mox::Failure{std::string("signals: ") + std::strerror(errno), errno};
  signalDescriptor_ = signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC);
  if (signalDescriptor_ < 0) return Mox::Failure{std::string("signals: ") + std::strerror(errno), errno};
  signals_->descriptorIs(signalDescriptor_);
  return {};
}

void Daemon::handleSignal() {
  signalfd_siginfo signal{};
  while (read(signalDescriptor_, &signal, sizeof signal) == sizeof signal) {
    if (signal.ssi_signo == SIGHUP) {
      if (reload_) reload_->begin([](const std::vector<std::string>&) {});
      continue;
    }
    const bool handsOver = signal.ssi_signo == SIGUSR2;
    report_(std::string("ends on ") + strsignal(static_cast<int>(signal.ssi_signo)) +
            (handsOver ? ", and leaves everything to the next start" : ""));
    endIs(handsOver ? End::handsOver : End::takesBack);
  }
}

}  // namespace Host
