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
constexpr timeval kPatience = {60, 0};
}

std::unique_ptr<Client> Client::connect(const std::string& runDirectory, Failure& failure) {
  const std::string file = runDirectory + "/" + kControlSocket;
  int error = 0;
  int connected = -1;
  const int directory = open(runDirectory.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
  if (directory >= 0) {
    connected = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_un address = controlAddress(directory);
    const void* bytes = &address;
    if (connected < 0 || ::connect(connected, static_cast<const sockaddr*>(bytes), sizeof address) < 0)
      error = errno;
    close(directory);
  } else {
    error = errno;
  }
  if (error == 0) {
    setsockopt(connected, SOL_SOCKET, SO_RCVTIMEO, &kPatience, sizeof kPatience);
    setsockopt(connected, SOL_SOCKET, SO_SNDTIMEO, &kPatience, sizeof kPatience);
    return std::unique_ptr<Client>(new Client(connected, file));
  }
  if (connected >= 0) close(connected);
  if (error == EACCES) {
    failure = {kRefused, file + ": permission denied; run it as root or as a member of the group arpsup"};
  } else {
    failure = {kUsage, file + ": no agent-host answers there (" + std::strerror(error) +
                           "); start it, or name its run directory with --run-dir"};
  }
  return nullptr;
}

Client::~Client() { close(socket_); }

void Client::waitForEver() {
  const timeval none = {0, 0};
  setsockopt(socket_, SOL_SOCKET, SO_RCVTIMEO, &none, sizeof none);
}

bool Client::send(std::string_view line, Failure& failure) {
  std::string bytes(line);
  bytes += '\n';
  for (std::size_t sent = 0; sent < bytes.size();) {
    const ssize_t put = ::send(socket_, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    if (put < 0 && errno == EINTR) continue;
    // A daemon that refuses to read on has said why: that answer is waiting.
    if (put < 0 && errno == EPIPE && sent != 0) return true;
    if (put < 0) {
      failure = {kUsage, file_ + ": the agent-host has gone (" + std::strerror(errno) + "); look at its log"};
      return false;
    }
    sent += static_cast<std::size_t>(put);
  }
  return true;
}

bool Client::receiveLine(std::string& line, Failure& failure) {
  std::array<char, 64 << 10> bytes;
  std::size_t scanned = taken_;
  while (true) {
    const std::size_t newline = input_.find('\n', scanned);
    if (newline != std::string::npos) {
      line.assign(input_, taken_, newline - taken_);
      taken_ = newline + 1;
      return true;
    }
    input_.erase(0, taken_);
    taken_ = 0;
    scanned = input_.size();
    const ssize_t got = recv(socket_, bytes.data(), bytes.size(), 0);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) {
      const bool late = got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK);
      failure = {kUsage, file_ + (late ? ": the agent-host does not answer; look at its log"
                                       : ": the agent-host ended the connection; look at its log")};
      return false;
    }
    input_.append(bytes.data(), static_cast<std::size_t>(got));
  }
}

std::optional<nlohmann::json> Client::receive(const TextSink& sink, Failure& failure) {
  std::string line;
  while (receiveLine(line, failure)) {
    std::optional<nlohmann::json> answer = Statedb::jsonOf(line);
    if (!answer || !answer->is_object()) {
      failure = {kUsage, file_ + ": the answer cannot be read: is it an agent-host of this version?"};
      return std::nullopt;
    }
    const auto text = answer->find("text");
    if (text != answer->end() && text->is_string()) {
      if (sink(text->get_ref<const std::string&>())) continue;
      failure = {kRefused, ""};
      return std::nullopt;
    }
    if (answer->value("ok", false)) return answer;
    failure = {kRefused, answer->value("error", std::string("refused without a reason"))};
    return std::nullopt;
  }
  return std::nullopt;
}

std::optional<nlohmann::json> Client::ask(const nlohmann::json& request, std::string* text,
                                          Failure& failure) {
  if (!send(Statedb::jsonText(request), failure)) return std::nullopt;
  return receive(
      [&](std::string_view piece) {
        if (text) *text += piece;
        return true;
      },
      failure);
}

}  // namespace Host
