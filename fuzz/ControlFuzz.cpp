#include <sys/socket.h>

#include <array>

#include "Memtab/Directory.h"
#include "Orb/EventLoop.h"
#include "Orb/TaskScheduler.h"
#include "Statedb/Json.h"
#include "fuzz/Input.h"
#include "host/Config.h"
#include "host/ControlServer.h"
#include "host/State.h"

namespace {

constexpr uid_t kRoot = 0;
constexpr uid_t kNobody = 65534;
constexpr int kManyTurns = 100000;
constexpr int kPatientTurns = 2000;  // after which a client whose answer goes on for ever hangs up

// Whether one of the requests may be answered for ever.
bool monitors(std::string_view requests) {
  for (std::size_t end = 0; !requests.empty(); requests.remove_prefix(std::min(end + 1, requests.size()))) {
    end = std::min(requests.find('\n'), requests.size());
    const auto request = Statedb::jsonOf(requests.substr(0, end));
    if (request && request->is_object() && request->value("cmd", nlohmann::json()) == "monitor") return true;
  }
  return false;
}

// What a client gets that sends this and no more.
std::string answersTo(Orb::EventLoop& loop, Host::ControlServer& server, std::string_view requests,
                      uid_t user) {
  const bool endless = monitors(requests);
  std::array<int, 2> ends{};
  Fuzz::check(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends.data()) == 0, "sockets",
              std::strerror(errno));
  server.clientIs(ends[1], user);
  std::string answers;
  std::array<char, 65536> buffer;
  for (int turn = 0; server.clients() != 0; ++turn) {
    Fuzz::check(turn < kManyTurns, "an end of the connection");
    const ssize_t sent = send(ends[0], requests.data(), requests.size(), MSG_NOSIGNAL);
    if (sent > 0) requests.remove_prefix(static_cast<std::size_t>(sent));
    if (requests.empty()) shutdown(ends[0], endless && turn > kPatientTurns ? SHUT_RDWR : SHUT_WR);
    loop.step();
    for (ssize_t got = 0; (got = recv(ends[0], buffer.data(), buffer.size(), 0)) > 0;)
      answers.append(buffer.data(), static_cast<std::size_t>(got));
  }
  close(ends[0]);
  return answers;
}

// How many requests the text has; what is left without a newline is one that is refused.
std::size_t requestsIn(std::string_view text) {
  std::size_t count = 0;
  for (std::size_t end = 0; (end = text.find('\n')) != std::string_view::npos; text.remove_prefix(end + 1))
    count += text.substr(0, end).find_first_not_of(" \t\r") != std::string_view::npos;
  return count + (text.empty() ? 0 : 1);
}

void checkAnswers(std::string_view answers, std::size_t requests) {
  std::size_t ends = 0;
  for (std::size_t end = 0; (end = answers.find('\n')) != std::string_view::npos;
       answers.remove_prefix(end + 1)) {
    const auto line = answers.substr(0, end);
    const auto json = Statedb::jsonOf(line);
    Fuzz::check(json && json->is_object() && (json->contains("ok") || json->contains("text")), "an answer",
                line);
    if (!json->contains("ok")) continue;
    ++ends;
    Fuzz::check(json->at("ok") == true || !json->value("error", "").empty(), "a reason", line);
  }
  Fuzz::check(answers.empty(), "whole lines", answers);
  Fuzz::check(ends == requests, std::to_string(requests) + " answers", std::to_string(ends));
}

}  // namespace

// The first byte says whether the client is root. Every request of whatever it sends is answered, by lines of
// the protocol.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const Fuzz::Folder folder;
  static const Memtab::Directory directory = Memtab::Directory::forRunDir(folder.path());
  Fuzz::Input input(data, size);
  const uid_t user = input.number<std::uint8_t>() % 2 == 0 ? kRoot : kNobody;
  const std::string requests = input.text();
  {
    Orb::EventLoop loop;
    loop.errorHandlerIs([](const char* where, const char* what) { Fuzz::check(false, where, what); });
    const auto tasks = Mox::make<Orb::TaskSchedulerRoot>(loop);
    Host::State state(loop, tasks, folder.path(), {}, nullptr, [](const std::string&) {});
    const Mox::Result<> built = state.build(Host::Config());
    Fuzz::check(static_cast<bool>(built), "the state of an empty configuration", built.error());
    const Host::ControlCommands::Agents agents;
    Host::ControlServer server(tasks->scheduler(), state, agents);
    const std::string answers = answersTo(loop, server, requests, user);
    if (!monitors(requests)) checkAnswers(answers, requestsIn(requests));
  }
  directory.removeAll();
  return 0;
}
