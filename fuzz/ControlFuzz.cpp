#include <sys/socket.h>

#include <array>
#include <set>

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
constexpr int kPatientTurns = 50;  // after which a client whose answer goes on for ever hangs up

std::set<std::string> commandsIn(std::string_view requests) {
  std::set<std::string> commands;
  for (std::size_t end = 0; !requests.empty(); requests.remove_prefix(std::min(end + 1, requests.size()))) {
    end = std::min(requests.find('\n'), requests.size());
    const auto request = Statedb::jsonOf(requests.substr(0, end));
    if (!request || !request->is_object()) continue;
    const auto command = request->value("cmd", nlohmann::json());
    if (command.is_string()) commands.insert(command.get<std::string>());
  }
  return commands;
}

// A host with an empty configuration.
class Served {
 public:
  explicit Served(const std::string& runDirectory)
      : directory_(Memtab::Directory::forRunDir(runDirectory)),
        tasks_(Mox::make<Orb::TaskSchedulerRoot>(loop_)),
        state_(loop_, tasks_, runDirectory, {}, nullptr, [](const std::string&) {}),
        server_(tasks_->scheduler(), state_, agents_) {
    loop_.errorHandlerIs([](const char* where, const char* what) { Fuzz::check(false, where, what); });
    const Mox::Result<> built = state_.build(Host::Config());
    Fuzz::check(static_cast<bool>(built), "the state of an empty configuration", built.error());
  }
  Served(const Served&) = delete;
  Served& operator=(const Served&) = delete;
  ~Served() { directory_.removeAll(); }

  // What a client gets that sends this and no more.
  std::string answersTo(std::string_view requests, uid_t user, bool endless) {
    std::array<int, 2> ends{};
    Fuzz::check(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends.data()) == 0,
                "sockets", std::strerror(errno));
    server_.clientIs(ends[1], user);
    std::string answers;
    static std::array<char, 65536> buffer;
    for (int turn = 0; server_.clients() != 0; ++turn) {
      Fuzz::check(turn < kManyTurns, "an end of the connection");
      const ssize_t sent = send(ends[0], requests.data(), requests.size(), MSG_NOSIGNAL);
      if (sent > 0) requests.remove_prefix(static_cast<std::size_t>(sent));
      if (requests.empty()) shutdown(ends[0], endless && turn > kPatientTurns ? SHUT_RDWR : SHUT_WR);
      loop_.step();
      for (ssize_t got = 0; (got = recv(ends[0], buffer.data(), buffer.size(), 0)) > 0;)
        answers.append(buffer.data(), static_cast<std::size_t>(got));
    }
    close(ends[0]);
    return answers;
  }

 private:
  const Memtab::Directory directory_;
  Orb::EventLoop loop_;
  const Mox::Ptr<Orb::TaskSchedulerRoot> tasks_;
  Host::State state_;
  const Host::ControlCommands::Agents agents_;
  Host::ControlServer server_;
};

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
    Fuzz::checkPrintable(line);
    const auto json = Statedb::jsonOf(line);
    Fuzz::check(json && json->is_object() && (json->contains("ok") || json->contains("text")), "an answer",
                line);
    if (!json->contains("ok")) continue;
    ++ends;
    const std::string error = json->value("error", "");
    Fuzz::check(json->at("ok") == true || !error.empty(), "a reason", line);
    Fuzz::checkPrintable(error);
  }
  Fuzz::check(answers.empty(), "whole lines", answers);
  Fuzz::check(ends == requests, std::to_string(requests) + " answers", std::to_string(ends));
}

}  // namespace

// The first byte says whether the client is root. Every request of whatever it sends is answered, by lines of
// the protocol.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const Fuzz::Folder folder;
  // Made anew once something was written: that takes longer than a hundred requests. What is refused changes nothing.
  static std::unique_ptr<Served> served;
  if (!served) served = std::make_unique<Served>(folder.path());
  Fuzz::Input input(data, size);
  const uid_t user = input.number<std::uint8_t>() % 2 == 0 ? kRoot : kNobody;
  const std::string requests = input.text();
  const std::set<std::string> commands = commandsIn(requests);
  const bool endless = commands.contains("monitor");
  const std::string answers = served->answersTo(requests, user, endless);
  if (!endless) checkAnswers(answers, requestsIn(requests));
  const bool writes = commands.contains("set") || commands.contains("apply") || commands.contains("remote");
  if (writes && user == kRoot && answers.find("\"ok\":true") != std::string::npos) served.reset();
  return 0;
}
