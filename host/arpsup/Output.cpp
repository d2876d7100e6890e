#include "host/arpsup/Output.h"

#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "Statedb/Json.h"

namespace Host {

using nlohmann::json;
using nlohmann::ordered_json;

bool print(std::string_view text) {
  if (std::fwrite(text.data(), 1, text.size(), stdout) == text.size() && std::fflush(stdout) == 0)
    return true;
  if (errno != EPIPE) fail(kRefused, std::string("the output cannot be written: ") + std::strerror(errno));
  return false;
}

bool printAnswer(std::string_view text) { return print(Tracelet::printableLines(text)); }

int printed(std::string_view text) { return print(text) ? kDone : kRefused; }

std::string coloured(Colour colour, std::string_view text) {
  static const bool wanted = [] {
    const char* const off = std::getenv("NO_COLOR");
    const char* const terminal = std::getenv("TERM");
    return isatty(STDOUT_FILENO) && !(off && *off) && terminal && std::string_view(terminal) != "dumb";
  }();
  constexpr const char* kCodes[] = {"2", "31", "33", "32"};
  if (!wanted || text.empty()) return std::string(text);
  return std::string("\033[") + kCodes[static_cast<std::size_t>(colour)] + "m" + std::string(text) +
         "\033[0m";
}

int fail(int status, const std::string& text) {
  if (!text.empty()) std::fprintf(stderr, "arpsup: %s\n", Tracelet::printable(text).c_str());
  return status;
}

int fail(const Mox::Failure& failure) {
  const bool refused = failure.number == 0 || failure.number == EACCES;
  return fail(refused ? kRefused : kUsage, failure.text);
}

int unreadable(const char* command) {
  return fail(kRefused, std::string("the answer to ") + command +
                            " cannot be read: is it an agent-host of this version?");
}

// Everything is written as soon as it is whole, so there is nothing to tidy up.
void endsQuietly() {
  std::signal(SIGINT, [](int) { _exit(kDone); });
}

int request(const CommonOptions& options, const json& request, std::string* text, json* answer) {
  const auto client = Client::connect(options.runDirectory);
  if (!client) return fail(client.failure());
  Mox::Result<json> got = (*client)->ask(request, text);
  if (!got) return fail(got.failure());
  if (answer) *answer = std::move(*got);
  return kDone;
}

int requestStream(const CommonOptions& options, const json& request, const Client::TextSink& sink) {
  const auto client = Client::connect(options.runDirectory);
  if (!client) return fail(client.failure());
  if (const auto sent = (*client)->send(Statedb::jsonText(request)); !sent) return fail(sent.failure());
  const auto received = (*client)->receive(sink);
  return received ? kDone : fail(received.failure());
}

int requestObject(const CommonOptions& options, const char* command, const json& arguments,
                  ordered_json& shown) {
  std::string text;
  const json whole = {{"cmd", "agent"}, {"command", command}, {"args", arguments}};
  if (const int status = request(options, whole, &text)) return status;
  shown = ordered_json::parse(text, nullptr, false);
  return shown.is_object() ? kDone : unreadable(command);
}

}  // namespace Host
