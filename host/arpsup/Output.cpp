#include "host/arpsup/Output.h"

#include <unistd.h>

#include <csignal>
#include <cstdio>

#include "Statedb/Json.h"

namespace Host {

using nlohmann::json;
using nlohmann::ordered_json;

bool print(std::string_view text) {
  return std::fwrite(text.data(), 1, text.size(), stdout) == text.size() && std::fflush(stdout) == 0;
}

int printed(std::string_view text) { return print(text) ? kDone : kRefused; }

int fail(int status, const std::string& text) {
  if (!text.empty()) std::fprintf(stderr, "arpsup: %s\n", text.c_str());
  return status;
}

int fail(const Failure& failure) { return fail(failure.status, failure.text); }

int unreadable(const char* command) {
  return fail(kRefused, std::string("the answer to ") + command +
                            " cannot be read: is it an agent-host of this version?");
}

// Everything is written as soon as it is whole, so there is nothing to tidy up.
void endsQuietly() {
  std::signal(SIGINT, [](int) { _exit(kDone); });
}

std::string textOf(const ordered_json& value) {
  return value.dump(-1, ' ', false, ordered_json::error_handler_t::replace);
}

int request(const CommonOptions& options, const json& request, std::string* text, json* answer) {
  Failure failure;
  const auto client = Client::connect(options.runDirectory, failure);
  if (!client) return fail(failure);
  std::optional<json> got = client->ask(request, text, failure);
  if (!got) return fail(failure);
  if (answer) *answer = std::move(*got);
  return kDone;
}

int requestStream(const CommonOptions& options, const json& request, const Client::TextSink& sink) {
  Failure failure;
  const auto client = Client::connect(options.runDirectory, failure);
  if (!client || !client->send(Statedb::jsonText(request), failure) || !client->receive(sink, failure)) {
    return fail(failure);
  }
  return kDone;
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
