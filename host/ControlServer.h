#pragma once

#include <sys/types.h>

#include <list>
#include <memory>
#include <optional>
#include <string>

#include "Mox/Notifiee.h"
#include "Orb/FileDescriptor.h"
#include "Orb/TaskScheduler.h"
#include "host/ControlConnection.h"

namespace Host {

// The group whose members may look, where there is one.
std::optional<gid_t> operatorGroup();

// The control socket (host/Protocol.h). Destroying it drops every client and removes the socket.
class ControlServer {
 public:
  ControlServer(const Mox::Ptr<Orb::TaskScheduler>& scheduler, State& state,
                const ControlCommands::Agents& agents, ControlLimits limits = {}, Reload* reload = nullptr);
  ControlServer(const ControlServer&) = delete;
  ControlServer& operator=(const ControlServer&) = delete;
  ~ControlServer();

  // Listens in the run directory, which belongs to this process alone: a socket that an earlier run left is
  // replaced. The socket has mode 0660, owner root, and the group "arpsup" where there is one.
  Mox::Result<> listen(const std::string& runDirectory);

  // Serves a connected stream socket of a client with this user id; takes the descriptor.
  void clientIs(int descriptor, uid_t user);
  std::size_t clients() const { return connections_.size(); }

 private:
  void handleReadable();
  void removeEnded();

  const Mox::Ptr<Orb::TaskScheduler> scheduler_;
  ControlCommands commands_;
  Switch::ProblemReporter& problems_;
  const ControlLimits limits_;
  int directory_ = -1;
  int socket_ = -1;
  Mox::Notifiee<Orb::FileDescriptor> listening_;
  std::list<ControlConnection> connections_;
  Orb::Task removal_;
  Orb::Timer retry_;
};

}  // namespace Host
