#include "host/Daemon.h"

#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>

#include "Orb/FeatureSwitch.h"
#include "Statedb/LmdbStore.h"
#include "Tracelet/Trace.h"
#include "Tracelet/Tracelet.h"
#include "host/FeatureFiles.h"
#include "host/Plugins.h"

namespace Host {

namespace {

sigset_t endingSignals() {
  sigset_t set;
  sigemptyset(&set);
  for (const int signal : {SIGTERM, SIGINT, SIGHUP}) sigaddset(&set, signal);
  return set;
}

}  // namespace

Daemon::Daemon(Orb::EventLoop& loop, Config config, Report report)
    : loop_(loop),
      config_(std::move(config)),
      report_(std::move(report)),
      tasks_(Mox::make<Orb::TaskSchedulerRoot>(loop)),
      signals_(Mox::make<Orb::FileDescriptor>(loop, "signals")),
      pluginStart_(loop, "plug-in start", [this] { startPlugins(); }) {
  signals_.on(Orb::FileDescriptor::readableCountChanged, [this] { handleSignal(); });
}

Daemon::~Daemon() {
  Orb::FeatureSwitch::sourceIs({});
  signals_->descriptorIs(-1);
  if (signalDescriptor_ >= 0) close(signalDescriptor_);
  control_.reset();
  for (const auto& group : groups_) group->cancel();
  while (!agents_.empty()) agents_.pop_back();
  groups_.clear();
  flushHook_ = {};
  if (state_) state_->flushAll();
  state_.reset();
}

std::string Daemon::start() {
  std::string error;
  const auto libraries = findPlugins(config_.agents, libraryDirectories(), error);
  if (!libraries) return error;
  runDirectory_ = RunDirectory::open(config_.runDirectory, error);
  if (!runDirectory_) return error;
  Tracelet::directoryIs(config_.runDirectory);
  for (const auto& [handle, level] : config_.trace) Tracelet::levelIs(handle, level);
  Orb::FeatureSwitch::sourceIs(
      [this, directory = featureDirectory(config_.featureDirectory)](const auto& group, const auto& name) {
        return featureSwitch(directory, group, name, report_);
      });
  auto store = Statedb::LmdbStore::open(runDirectory_->stateDirectory(), report_, error);
  if (!store) return error;
  state_ =
      std::make_unique<State>(loop_, tasks_, config_.runDirectory, config_.agents, std::move(store), report_);
  state_->build(config_);
  flushHook_ = loop_.endOfTurn([this] {
    if (state_->flush()) loop_.post([] {});  // the rest comes in another turn
  });
  for (std::size_t i = 0; i < config_.agents.size(); ++i) {
    Mox::Ptr<Orb::AgentBase> agent = loadPlugin(config_.agents[i], (*libraries)[i], error);
    if (!agent) return error;
    agent->hostIs(*this);
    agents_.push_back(std::move(agent));
  }
  control_ = std::make_unique<ControlServer>(tasks_->scheduler(), *state_, agents_, report_);
  error = control_->listen(config_.runDirectory);
  if (!error.empty()) return error;
  pluginStart_.after(0);
  return {};
}

void Daemon::startPlugins() {
  for (const auto& agent : agents_) loop_.dispatch(agent->name().c_str(), [&] { agent->doInit(); });
  state_->createAbsent();
}

Mox::Ptr<Statedb::MountGroup> Daemon::mountGroup(Orb::AgentBase& agent) {
  const std::size_t index = groups_.size();
  groups_.push_back(state_->tree()->mountGroup([this, index, &agent](Statedb::MountStatus status) {
    for (const std::string& message : groups_[index]->messages()) report_(agent.name() + ": " + message);
    agent.doMountsComplete(status, state_->tree());
  }));
  return groups_.back();
}

void Daemon::createLocalEntity(const Mox::String& name, const Mox::String& type, const Mox::String& path) {
  std::string problem;
  if (!state_->tree()->entityIs(path, type, &problem)) report_(name + ": " + problem);
}

std::string Daemon::watchSignals() {
  const sigset_t set = endingSignals();
  if (sigprocmask(SIG_BLOCK, &set, nullptr) < 0) return std::string("signals: ") + std::strerror(errno);
  signalDescriptor_ = signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC);
  if (signalDescriptor_ < 0) return std::string("signals: ") + std::strerror(errno);
  signals_->descriptorIs(signalDescriptor_);
  signals_->notifyOnReadableIs(true);
  return {};
}

void Daemon::handleSignal() {
  signalfd_siginfo signal{};
  while (read(signalDescriptor_, &signal, sizeof signal) == sizeof signal) {
    report_(std::string("ends on ") + strsignal(static_cast<int>(signal.ssi_signo)));
    loop_.stop();
  }
}

}  // namespace Host
