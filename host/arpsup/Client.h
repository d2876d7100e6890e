#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "Mox/Result.h"

namespace Host {

// How a command ends.
inline constexpr int kDone = 0;
inline constexpr int kRefused = 1;  // or not found
inline constexpr int kUsage = 2;    // or there is no daemon

// How long a daemon may be silent that has something to answer.
inline constexpr std::chrono::milliseconds kPatience{15000};

// A connection to the agent-host of a run directory (host/Protocol.h). Blocks, at most for `patience` at a
// time unless it is told to wait for ever: a daemon that hangs is given up.
//
// A failure has the number 0 when the daemon refused the request, and the text why; otherwise a number that
// says why there was no answer. Its text is one line that says what to do; "": nothing needs to be said.
class Client {
 public:
  static Mox::Result<std::unique_ptr<Client>> connect(const std::string& runDirectory,
                                                      std::chrono::milliseconds patience = kPatience);
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;
  ~Client();

  // From here on an answer may take as long as it likes.
  void waitForEver();

  // One request, without its newline. Refused when the daemon has gone, or hangs.
  Mox::Result<> send(std::string_view line);
  // The answer to the oldest request that has none: its texts as they come, then its last line. Refused when
  // the daemon refuses, has gone or hangs, and, without a text, when the sink took no more (it returned
  // false).
  using TextSink = std::function<bool(std::string_view text)>;
  Mox::Result<nlohmann::json> receive(const TextSink& sink);

  // Sends and receives; `text`, when given, becomes the content of the answer.
  Mox::Result<nlohmann::json> ask(const nlohmann::json& request, std::string* text);

 private:
  Client(int socket, std::string file, std::chrono::milliseconds patience)
      : socket_(socket), file_(std::move(file)), patience_(patience) {}
  Mox::Failure noAnswer(int number) const;
  Mox::Result<std::string> receiveLine();

  const int socket_;
  const std::string file_;
  const std::chrono::milliseconds patience_;
  std::string input_;
  std::size_t taken_ = 0;
};

}  // namespace Host
