#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Mox/Notifiee.h"
#include "Orb/FileDescriptor.h"
#include "Orb/TaskScheduler.h"
#include "Plugin/AgentBase.h"
#include "host/Config.h"
#include "host/ControlServer.h"
#include "host/EventLog.h"
#include "host/HealthSm.h"
#include "host/LockFile.h"
#include "host/Metrics.h"
#include "host/MetricsServer.h"
#include "host/Reload.h"
#include "host/RunDirectory.h"
#include "host/ServiceManager.h"
#include "host/State.h"

namespace Host {

// The agent host: one event loop with all state, the plug-ins and the control socket.
class Daemon final : public Plugin::AgentHost {
 public:
  using Report = std::function<void(const std::string& message)>;
  // `config` was read from `file`. `loop` must outlive this.
  Daemon(Orb::EventLoop& loop, std::string file, Config config, Report report);
  Daemon(const Daemon&) = delete;
  Daemon& operator=(const Daemon&) = delete;
  // Ends everything in the reverse order of its start: control socket, plug-ins (the last one first), what is
  // published and waits for the state store, state, run directory. Shared-memory tables stay.
  ~Daemon() override;

  // From here on SIGTERM and SIGINT end the loop, SIGUSR2 hands over to the next start, and SIGHUP has the
  // configuration file taken up again; they are blocked for the process, and wait until the plug-ins start.
  // Whatever the end, nothing more is trapped before it, and what was trapped is dealt with.
  Mox::Result<> watchSignals();
  // Does everything up to the first turn of the loop. From there on what is stored is read, in slices, and then
  // the plug-ins start. When a plug-in is not there, or another agent-host is in the way, no state was created.
  Mox::Result<> start();
  // Runs the loop until a signal ends it, and says so in the log once every plug-in has started. Refused when
  // one of them could not complete its start, whatever it met: the others would only look as if they worked.
  Mox::Result<> run();
  // After run(): everything is to stay as it is for the next start. What was set by hand is written down; the
  // process is to end without destroying anything, as a killed one does.
  bool handsOver() const { return started_ && end_ == End::handsOver; }

 private:
  Orb::EventLoop& loop() override { return loop_; }
  Mox::Ptr<Orb::TaskSchedulerRoot> taskSchedulerRoot() override { return tasks_; }
  bool isPhysicalHardware() override { return config_.hardware; }
  Mox::Ptr<Statedb::MountGroup> mountGroup(Plugin::AgentBase& agent) override;
  Mox::Ptr<Statedb::EntityManager> entityManager() override { return state_->tree(); }
  Mox::Ptr<Memtab::EntityManager> sharedMemory() override { return state_->tables(); }
  void createLocalEntity(const Mox::String& name, const Mox::String& type, const Mox::String& path) override;

  void loadOrStart();
  void startPlugins();
  template <class Call>
  void startStep(Plugin::AgentBase& agent, const Call& call);
  void handleStarted();
  void handleSignal();
  enum class End : std::uint8_t { none, takesBack, handsOver };
  void endIs(End end);
  void handleEnd();
  void handOver();

  Orb::EventLoop& loop_;
  const std::string file_;
  const Config config_;  // as it was at start
  const Report report_;
  const Mox::Ptr<Orb::TaskSchedulerRoot> tasks_;
  EventLog events_;
  std::unique_ptr<LockFile> networkNamespace_;
  std::unique_ptr<RunDirectory> runDirectory_;
  std::unique_ptr<State> state_;
  std::vector<Mox::Ptr<Statedb::MountGroup>> groups_;
  ControlCommands::Agents agents_;
  std::size_t starting_ = 0;  // plug-ins whose start is not complete
  Mox::Result<> started_;     // refused: why it cannot be completed
  std::unique_ptr<Reload> reload_;
  std::unique_ptr<ControlServer> control_;
  Mox::Ptr<HealthSm> health_;
  std::unique_ptr<TurnTimes> turns_;  // with the metrics only
  std::unique_ptr<MetricsServer> metrics_;
  int signalDescriptor_ = -1;
  Mox::Notifiee<Orb::FileDescriptor> signals_;
  Orb::Task pluginStart_;
  End end_ = End::none;
  double endsAt_ = 0;      // at the latest
  bool finished_ = false;  // nothing was under way when last looked
  Orb::Timer endTimer_;
  ServiceManager serviceManager_;
  Orb::EventLoop::HookHandle flushHook_;
};

}  // namespace Host
