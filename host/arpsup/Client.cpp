#include "host/arpsup/Client.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "Statedb/Json.h"
#include "host/ControlAddress.h"

namespace Host {

namespace {

timeval timevalOf(std::chrono::milliseconds time) {
  return {static_cast<time_t>(time.count() / 1000), static_cast<suseconds_t>(time.count() % 1000 * 1000)};
}

// A new connection, or -1 with errno.
int connected(int directory, const timeval& patience) {
  const int connection = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (connection < 0) return -1;
  // The kernel's queue of clients that wait to be accepted may be full as well.
  setsockopt(connection, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
  setsockopt(connection, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
  const sockaddr_un address = controlAddress(directory);
  const void* bytes = &address;
  if (connect(connection, static_cast<const sockaddr*>(bytes), sizeof address) == 0) return connection;
  const int number = errno;
  close(connection);
  errno = number;
  return -1;
}

bool isLate(int number) { return number == EAGAIN || number == EWOULDBLOCK; }

std::string secondsOf(std::chrono::milliseconds time) {
  return std::to_string((time.count() + 999) / 1000) + " seconds";
}

}  // namespace

Mox::Result<std::unique_ptr<Client>> Client::connect(const std::string& runDirectory,
                                                     std::chrono::milliseconds patience) {
  const std::string file = runDirectory + "/" + kControlSocket;
  const int directory = open(runDirectory.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
  const int connection = directory < 0 ? -1 : connected(directory, timevalOf(patience));
  const int number = errno;
  if (directory >= 0) close(directory);
  if (connection >= 0) return std::unique_ptr<Client>(new Client(connection, file, patience));
  if (number == EACCES) {
    return Mox::Failure{file + ": permission denied; run it as root or as a member of the group arpsup",
                        number};
  }
  if (isLate(number)) {
    return Mox::Failure{file + ": the agent-host has accepted nobody for " + secondsOf(patience) +
                            ": it hangs; look at its log, and restart it",
                        ETIMEDOUT};
  }
  return Mox::Failure{file + ": no agent-host answers there (" + std::strerror(number) +
                          "); start it, or name its run directory with --run-dir",
                      number};
}

Client::~Client() { close(socket_); }

void Client::waitForEver() {
  const timeval none = {0, 0};
  setsockopt(socket_, SOL_SOCKET, SO_RCVTIMEO, &none, sizeof none);
}

// `number` is what the connection failed with; 0: it has ended.
Mox::Failure Client::noAnswer(int number) const {
  if (isLate(number)) {
    return {file_ + ": the agent-host has not answered for " + secondsOf(patience_) +
                ": it hangs, or is very busy; look at its log",
            ETIMEDOUT};
  }
  if (number == 0) return {file_ + ": the agent-host ended the connection; look at its log", ECONNRESET};
  return {file_ + ": the agent-host has gone (" + std::strerror(number) + "); look at its log", number};
}

Mox::Result<> Client::send(std::string_view line) {
  std::string bytes(line);
  bytes += '\n';
  for (std::size_t sent = 0; sent < bytes.size();) {
    const ssize_t put = ::send(socket_, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    if (put < 0 && errno == EINTR) continue;
    // A daemon that refuses to read on has said why: that answer is waiting.
    if (put < 0 && errno == EPIPE && sent != 0) return {};
    if (put < 0) return noAnswer(errno);
    sent += static_cast<std::size_t>(put);
  }
  return {};
}

Mox::Result<std::string> Client::receiveLine() {
  std::array<char, 64 << 10> bytes;
  std::size_t scanned = taken_;
  while (true) {
    const std::size_t newline = input_.find('\n', scanned);
    if (newline != std::string::npos) {
      std::string line(input_, taken_, newline - taken_);
      taken_ = newline + 1;
      return line;
    }
    input_.erase(0, taken_);
    taken_ = 0;
    scanned = input_.size();
    const ssize_t got = recv(socket_, bytes.data(), bytes.size(), 0);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return noAnswer(got < 0 && errno != ECONNRESET ? errno : 0);
    input_.append(bytes.data(), static_cast<std::size_t>(got));
  }
}

Mox::Result<nlohmann::json> Client::receive(const TextSink& sink) {
  while (true) {
    const Mox::Result<std::string> line = receiveLine();
    if (!line) return line.failure();
    std::optional<nlohmann::json> answer = Statedb::jsonOf(*line);
    if (!answer || !answer->is_object()) {
      return Mox::Failure{file_ + ": the answer cannot be read: is it an agent-host of this version?",
                          EPROTO};
    }
    const auto text = answer->find("text");
    if (text != answer->end() && text->is_string()) {
      if (sink(text->get_ref<const std::string&>())) continue;
      return Mox::Failure{};
    }
    if (answer->value("ok", false)) return std::move(*answer);
    return Mox::Failure{answer->value("error", std::string("refused without a reason"))};
  }
}

Mox::Result<nlohmann::json> Client::ask(const nlohmann::json& request, std::string* text) {
  if (const auto sent = send(Statedb::jsonText(request)); !sent) return sent.failure();
  return receive([&](std::string_view piece) {
    if (text) *text += piece;
    return true;
  });
}

}  // namespace Host
