#include "host/ControlServer.h"

#include <fcntl.h>
#include <grp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "host/ControlAddress.h"

namespace Host {

namespace {

constexpr const char* kGroup = "arpsup";
constexpr unsigned kLevel = 3;
constexpr double kRetrySeconds = 1;
constexpr const char* kSubject = "control socket";

const sockaddr* generic(const sockaddr_un& address) {
  const void* bytes = &address;
  return static_cast<const sockaddr*>(bytes);
}

}  // namespace

std::optional<gid_t> operatorGroup() {
  const group* const found = getgrnam(kGroup);
  return found ? std::optional(found->gr_gid) : std::nullopt;
}

ControlServer::ControlServer(const Mox::Ptr<Orb::TaskScheduler>& scheduler, State& state,
                             const ControlCommands::Agents& agents, ControlLimits limits, Reload* reload)
    : scheduler_(scheduler),
      commands_(state, agents, scheduler->loop(), reload),
      problems_(state.problems()),
      limits_(limits),
      listening_(Mox::make<Orb::FileDescriptor>(scheduler->loop(), "control socket")),
      removal_(scheduler, "control connections", kLevel, [this] { removeEnded(); }),
      retry_(scheduler->loop(), "control socket", [this] { handleReadable(); }) {
  listening_.on(Orb::FileDescriptor::readableCountChanged, [this] { handleReadable(); });
}

ControlServer::~ControlServer() {
  listening_->descriptorIs(-1);
  if (socket_ >= 0) {
    close(socket_);
    unlinkat(directory_, kControlSocket, 0);
  }
  if (directory_ >= 0) close(directory_);
}

Mox::Result<> ControlServer::listen(const std::string& runDirectory) {
  const std::string file = runDirectory + "/" + kControlSocket;
  const auto failed = [&](const char* doing) {
    const int number = errno;
    return Mox::Failure{file + ": " + doing + ": " + std::strerror(number), number};
  };
  directory_ = open(runDirectory.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
  if (directory_ < 0) return failed("open");
  if (unlinkat(directory_, kControlSocket, 0) < 0 && errno != ENOENT) return failed("remove the old socket");
  const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (listener < 0) return failed("socket");
  socket_ = listener;
  const sockaddr_un address = controlAddress(directory_);
  // Nobody but root can connect before the socket has the group and mode that it is to have.
  const mode_t mask = umask(0177);
  const int bound = bind(socket_, generic(address), sizeof address);
  umask(mask);
  if (bound < 0) return failed("bind");
  if (const auto owners = operatorGroup();
      owners && fchownat(directory_, kControlSocket, 0, *owners, 0) < 0) {
    return failed("change its group");
  }
  if (fchmodat(directory_, kControlSocket, 0660, 0) < 0) return failed("change its mode");
  if (::listen(socket_, SOMAXCONN) < 0) return failed("listen");
  listening_->descriptorIs(socket_);
  listening_->notifyOnReadableIs(true);
  return {};
}

void ControlServer::handleReadable() {
  while (true) {
    const int client = accept4(socket_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (client < 0 && (errno == EINTR || errno == ECONNABORTED)) continue;
    if (client < 0) {
      if (errno == EAGAIN || errno == EWOULDBLOCK) return;
      // Out of descriptors or memory: the clients wait in the queue of the socket.
      problems_.problemIs(kSubject,
                          std::string("it cannot accept clients, who wait: ") + std::strerror(errno));
      return retry_.after(kRetrySeconds);
    }
    problems_.problemDel(kSubject);
    ucred peer{};
    socklen_t size = sizeof peer;
    if (getsockopt(client, SOL_SOCKET, SO_PEERCRED, &peer, &size) < 0 || size != sizeof peer) {
      close(client);
      continue;
    }
    clientIs(client, peer.uid);
  }
}

void ControlServer::clientIs(int descriptor, uid_t user) {
  removeEnded();
  std::vector<uid_t> users;
  for (const ControlConnection& connection : connections_) users.push_back(connection.user());
  const Mox::Result<> allowed = limits_.connections.oneMore(
      users, user, "clients", "are connected already; try again when one has ended");
  if (!allowed) {
    std::string answer;
    ControlCommands::appendError(answer, allowed.error());
    send(descriptor, answer.data(), answer.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    close(descriptor);
    return;
  }
  try {
    connections_.emplace_back(scheduler_, commands_, limits_, descriptor, user,
                              [this] { removal_.schedule(); });
  } catch (const Mox::Error& error) {
    close(descriptor);
    problems_.problemIs(kSubject, std::string("it cannot serve a client: ") + error.what());
  }
}

void ControlServer::removeEnded() {
  connections_.remove_if([](const ControlConnection& connection) { return connection.hasEnded(); });
}

}  // namespace Host
