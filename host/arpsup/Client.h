#pragma once

#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

namespace Host {

// How a command ends.
inline constexpr int kDone = 0;
inline constexpr int kRefused = 1;  // or not found
inline constexpr int kUsage = 2;    // or there is no daemon

struct Failure {
  int status = kDone;
  std::string text;  // one line that says what to do; "": nothing needs to be said
};

// A connection to the agent-host of a run directory (host/Protocol.h). Blocks, at most for a minute at a
// time unless it is told to wait for ever.
class Client {
 public:
  static std::unique_ptr<Client> connect(const std::string& runDirectory, Failure& failure);
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;
  ~Client();

  // From here on an answer may take as long as it likes.
  void waitForEver();

  // One request, without its newline. False, with `failure`, when the daemon has gone.
  bool send(std::string_view line, Failure& failure);
  // The answer to the oldest request that has none: its texts as they come, then its last line. Nothing, with
  // `failure`, when it was refused, the daemon has gone or the sink took no more (it returned false).
  using TextSink = std::function<bool(std::string_view text)>;
  std::optional<nlohmann::json> receive(const TextSink& sink, Failure& failure);

  // Sends and receives; `text`, when given, becomes the content of the answer.
  std::optional<nlohmann::json> ask(const nlohmann::json& request, std::string* text, Failure& failure);

 private:
  Client(int socket, std::string file) : socket_(socket), file_(std::move(file)) {}
  bool receiveLine(std::string& line, Failure& failure);

  const int socket_;
  const std::string file_;
  std::string input_;
  std::size_t taken_ = 0;
};

}  // namespace Host
