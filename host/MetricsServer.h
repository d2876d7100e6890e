#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include <functional>
#include <list>
#include <string>
#include <string_view>

#include "Mox/Notifiee.h"
#include "Mox/Result.h"
#include "Orb/FileDescriptor.h"
#include "Orb/TaskScheduler.h"
#include "Switch/ProblemReporter.h"

namespace Host {

// Where metrics are served: "127.0.0.1:9341", "[::1]:9341" or the absolute path of a socket.
struct MetricsAddress {
  sockaddr_storage address{};
  socklen_t size = 0;
  std::string path;  // "": not a path

  static Mox::Result<MetricsAddress> of(const std::string& text);
  static const char* allowed();
};

// What an HTTP/1.1 request asks for: the status of the answer, 200 when it is the metrics. The head may be cut off
// anywhere; 0 then.
struct HttpRequest {
  unsigned status = 0;
  bool head = false;  // only the head of the answer is wanted
};
HttpRequest httpRequestOf(std::string_view received);

// Serves `text` as GET /metrics over HTTP/1.1. One request a connection. Clients may be anybody on this machine: there
// are only so many at a time, a request is bounded, and everything has to be over soon.
class MetricsServer {
 public:
  static constexpr std::size_t kClients = 8;
  static constexpr std::size_t kRequestBytes = 8192;
  static constexpr double kClientSeconds = 10;
  // An answer is given again for so long: asking often costs nothing.
  static constexpr double kFreshSeconds = 1;
  static constexpr double kRetrySeconds = 10;

  // What cannot be listened at is a problem, and tried again.
  MetricsServer(const Mox::Ptr<Orb::TaskScheduler>& scheduler, Switch::ProblemReporter& problems,
                std::string listen, std::function<std::string()> text);
  MetricsServer(const MetricsServer&) = delete;
  MetricsServer& operator=(const MetricsServer&) = delete;
  ~MetricsServer();

  std::size_t clients() const { return clients_.size(); }

 private:
  class Client;

  void listen();
  Mox::Result<> open(const MetricsAddress& address);
  void accept();
  const std::string& text();
  void removeEnded();

  const Mox::Ptr<Orb::TaskScheduler> scheduler_;
  Switch::ProblemReporter& problems_;
  const std::string listen_;
  const std::function<std::string()> makeText_;
  std::string text_;
  double madeAt_ = -kFreshSeconds;
  int socket_ = -1;
  std::string path_;  // of the socket, to be removed
  std::list<Client> clients_;
  Mox::Notifiee<Orb::FileDescriptor> listening_;
  Orb::Task removal_;
  Orb::Timer retry_;
};

}  // namespace Host
