#pragma once

#include <functional>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "Tracelet/Text.h"
#include "host/JsonText.h"
#include "host/arpsup/Client.h"
#include "host/arpsup/Commands.h"

// What the commands of arpsup share: asking the daemon, and writing what it says.

namespace Host {

// To stdout at once, as it is: what comes from outside was made printable. False when its reader has gone (a
// pipe into `head`), which ends a command quietly.
bool print(std::string_view text);
// What the daemon says, in printable lines.
bool printAnswer(std::string_view text);
// As `print`, as an exit status.
int printed(std::string_view text);

enum class Colour { dim, red, yellow, green };
// In that colour where stdout is a terminal and NO_COLOR is not set.
std::string coloured(Colour colour, std::string_view text);

// Writes one line "arpsup: ..." to stderr, what in it is not printable as \xNN, unless there is nothing to say;
// returns the status.
int fail(int status, const std::string& text);
// With the status that the failure of a Client stands for.
int fail(const Mox::Failure& failure);
int unreadable(const char* command);

// From here on SIGINT ends the process with status 0: it is how a command that goes on for ever is ended.
void endsQuietly();

// A value as people read it, printable: a text as it is, the elements of a list, anything else as JSON.
template <class Json>
std::string forPeople(const Json& value) {
  if (value.is_string()) return Tracelet::printable(value.template get_ref<const std::string&>());
  if (!value.is_array()) return textOf(value);
  std::string list;
  for (const auto& element : value) list += (list.empty() ? "" : ", ") + forPeople(element);
  return list.empty() ? "none" : list;
}
// Of a member of an object; "" where there is none.
template <class Json>
std::string forPeople(const Json& object, const char* key) {
  const auto value = object.is_object() ? object.find(key) : object.end();
  return value == object.end() || value->is_null() ? std::string() : forPeople(*value);
}

// One request on a connection of its own. `text` becomes the content of the answer, `answer` its last line;
// both may be null. Returns the exit status.
int request(const CommonOptions& options, const nlohmann::json& request, std::string* text,
            nlohmann::json* answer = nullptr);
// The same for content of any length, which goes to the sink piece by piece.
int requestStream(const CommonOptions& options, const nlohmann::json& request, const Client::TextSink& sink);

// An agent command whose answer is one JSON object; `shown` becomes it. Returns the exit status.
int requestObject(const CommonOptions& options, const char* command, const nlohmann::json& arguments,
                  nlohmann::ordered_json& shown);

// The answer to the agent command "bindings", which may be of any length: each binding to `take`, until that is
// false, which is a failure without a text.
using TakeBinding = std::function<bool(const nlohmann::json& binding)>;
Mox::Result<> receiveBindings(Client& client, const TakeBinding& take);

}  // namespace Host
