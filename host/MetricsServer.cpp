#include "host/MetricsServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <optional>

#include "host/ControlServer.h"

namespace Host {

namespace {

constexpr unsigned kLevel = 3;
constexpr const char* kSubject = "metrics";
constexpr std::string_view kTarget = "/metrics";

Mox::Failure failed(const std::string& where, const char* doing) {
  const int number = errno;
  return {where + ": " + doing + ": " + std::strerror(number), number};
}

template <class Address>
const sockaddr* generic(const Address& address) {
  const void* const bytes = &address;
  return static_cast<const sockaddr*>(bytes);
}

template <class Address>
MetricsAddress filled(const Address& address) {
  MetricsAddress result;
  std::memcpy(&result.address, &address, sizeof address);
  result.size = sizeof address;
  return result;
}

std::optional<std::uint16_t> portOf(std::string_view text) {
  std::uint16_t port = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), port);
  if (error != std::errc() || end != text.data() + text.size() || port == 0) return std::nullopt;
  return port;
}

// Of the answer: its status line and what goes with it.
std::string headOf(unsigned status, std::size_t bytes) {
  const char* const reason = status == 200   ? "OK"
                             : status == 404 ? "Not Found"
                             : status == 405 ? "Method Not Allowed"
                             : status == 431 ? "Request Header Fields Too Large"
                             : status == 505 ? "HTTP Version Not Supported"
                                             : "Bad Request";
  return "HTTP/1.1 " + std::to_string(status) + " " + reason +
         "\r\nContent-Type: text/plain; version=0.0.4; charset=utf-8\r\nContent-Length: " +
         std::to_string(bytes) + (status == 405 ? "\r\nAllow: GET, HEAD" : "") +
         "\r\nConnection: close\r\n\r\n";
}

}  // namespace

const char* MetricsAddress::allowed() {
  return "a loopback address with a port like \"127.0.0.1:9341\" or \"[::1]:9341\", or the absolute path of "
         "a socket";
}

Mox::Result<MetricsAddress> MetricsAddress::of(const std::string& text) {
  const Mox::Failure refused{"\"" + text + "\" is not " + allowed()};
  if (text.starts_with('/')) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (text.size() >= sizeof address.sun_path || text.find('\0') != std::string::npos) return refused;
    std::memcpy(address.sun_path, text.data(), text.size());
    MetricsAddress result = filled(address);
    result.path = text;
    return result;
  }
  const std::size_t colon = text.rfind(':');
  if (colon == std::string::npos) return refused;
  const auto port = portOf(std::string_view(text).substr(colon + 1));
  if (!port) return refused;
  std::string host = text.substr(0, colon);
  if (host.starts_with('[') && host.ends_with(']')) {
    sockaddr_in6 address{};
    address.sin6_family = AF_INET6;
    address.sin6_port = htons(*port);
    host = host.substr(1, host.size() - 2);
    if (inet_pton(AF_INET6, host.c_str(), &address.sin6_addr) != 1 ||
        !IN6_IS_ADDR_LOOPBACK(&address.sin6_addr))
      return refused;
    return filled(address);
  }
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(*port);
  if (inet_pton(AF_INET, host.c_str(), &address.sin_addr) != 1 || ntohl(address.sin_addr.s_addr) >> 24 != 127)
    return refused;
  return filled(address);
}

HttpRequest httpRequestOf(std::string_view received) {
  const std::size_t lineEnd = received.find('\n');
  const bool whole =
      received.find("\r\n\r\n") != std::string_view::npos || received.find("\n\n") != std::string_view::npos;
  if (!whole) return {received.size() > MetricsServer::kRequestBytes ? 431u : 0u};
  std::string_view line = received.substr(0, lineEnd);
  if (line.ends_with('\r')) line.remove_suffix(1);
  const std::size_t first = line.find(' ');
  const std::size_t last = line.rfind(' ');
  if (first == std::string_view::npos || first == last || first == 0) return {400};
  const std::string_view method = line.substr(0, first);
  std::string_view target = line.substr(first + 1, last - first - 1);
  const std::string_view version = line.substr(last + 1);
  for (const char c : line)
    if (c < ' ' || c > '~') return {400};
  if (target.empty() || target.find(' ') != std::string_view::npos || !version.starts_with("HTTP/"))
    return {400};
  if (!version.starts_with("HTTP/1.")) return {505};
  if (method != "GET" && method != "HEAD") return {405};
  target = target.substr(0, target.find('?'));
  return {target == kTarget ? 200u : 404u, method == "HEAD"};
}

// --- Clients -----------------------------------------------------------------------------------------------

class MetricsServer::Client {
 public:
  Client(MetricsServer& server, int descriptor)
      : server_(server),
        descriptor_(descriptor),
        ready_(Mox::make<Orb::FileDescriptor>(server.scheduler_->loop(), "metrics client")),
        overdue_(server.scheduler_->loop(), "metrics client", [this] { end(); }) {
    ready_.on(Orb::FileDescriptor::readableCountChanged, [this] { read(); });
    ready_.on(Orb::FileDescriptor::writableCountChanged, [this] { write(); });
    ready_->descriptorIs(descriptor_);
    ready_->notifyOnWritableIs(true);
    ready_->notifyOnReadableIs(true);
    overdue_.after(kClientSeconds);
  }
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;
  ~Client() {
    ready_->descriptorIs(-1);
    if (descriptor_ >= 0) close(descriptor_);
  }

  bool hasEnded() const { return descriptor_ < 0; }

 private:
  // Once it has been answered whatever else comes is dropped, until the client closes: closing with something
  // unread would take the answer away from it.
  void read() {
    std::array<char, 4096> bytes;
    for (std::size_t taken = 0; descriptor_ >= 0 && taken <= kRequestBytes;) {
      const ssize_t got = recv(descriptor_, bytes.data(), bytes.size(), 0);
      if (got < 0 && errno == EINTR) continue;
      if (got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return;
      if (got <= 0) return end();
      taken += static_cast<std::size_t>(got);
      if (!answer_.empty()) continue;
      request_.append(bytes.data(), static_cast<std::size_t>(got));
      const HttpRequest request = httpRequestOf(request_);
      if (request.status != 0) answer(request);
    }
    end();  // it sends more than any request has
  }

  void answer(const HttpRequest& request) {
    const std::string body = request.status == 200   ? server_.text()
                             : request.status == 404 ? "The metrics are at /metrics\n"
                                                     : "This is not a request for /metrics\n";
    answer_ = headOf(request.status, body.size()) + (request.head ? "" : body);
    request_.clear();
    write();
  }

  void write() {
    while (descriptor_ >= 0 && sent_ < answer_.size()) {
      const ssize_t put = send(descriptor_, answer_.data() + sent_, answer_.size() - sent_, MSG_NOSIGNAL);
      if (put < 0 && errno == EINTR) continue;
      if (put < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return;
      if (put < 0) return end();
      sent_ += static_cast<std::size_t>(put);
      if (sent_ == answer_.size()) shutdown(descriptor_, SHUT_WR);
    }
  }

  void end() {
    if (descriptor_ < 0) return;
    overdue_.cancel();
    ready_->descriptorIs(-1);
    close(descriptor_);
    descriptor_ = -1;
    server_.removal_.schedule();
  }

  MetricsServer& server_;
  int descriptor_;
  std::string request_;
  std::string answer_;
  std::size_t sent_ = 0;
  Mox::Notifiee<Orb::FileDescriptor> ready_;
  Orb::Timer overdue_;
};

// --- The server --------------------------------------------------------------------------------------------

MetricsServer::MetricsServer(const Mox::Ptr<Orb::TaskScheduler>& scheduler, Switch::ProblemReporter& problems,
                             std::string listen, std::function<std::string()> text)
    : scheduler_(scheduler),
      problems_(problems),
      listen_(std::move(listen)),
      makeText_(std::move(text)),
      listening_(Mox::make<Orb::FileDescriptor>(scheduler->loop(), "metrics")),
      removal_(scheduler, "metrics clients", kLevel, [this] { removeEnded(); }),
      retry_(scheduler->loop(), "metrics", [this] { socket_ < 0 ? this->listen() : accept(); }) {
  listening_.on(Orb::FileDescriptor::readableCountChanged, [this] { accept(); });
  this->listen();
}

MetricsServer::~MetricsServer() {
  listening_->descriptorIs(-1);
  if (socket_ >= 0) close(socket_);
  if (!path_.empty()) unlink(path_.c_str());
  problems_.problemDel(kSubject);
}

void MetricsServer::listen() {
  const auto address = MetricsAddress::of(listen_);
  const Mox::Result<> opened = address ? open(*address) : Mox::Result<>(address.failure());
  if (!problems_.check(kSubject, opened,
                       "nobody can read the metrics; correct \"metrics\" in the configuration"))
    retry_.after(kRetrySeconds);
}

Mox::Result<> MetricsServer::open(const MetricsAddress& address) {
  const int descriptor = socket(address.address.ss_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (descriptor < 0) return failed(listen_, "socket");
  const auto refused = [descriptor](Mox::Failure failure) {
    close(descriptor);
    return failure;
  };
  if (!address.path.empty()) {
    struct stat status {};
    if (lstat(listen_.c_str(), &status) == 0) {
      if (!S_ISSOCK(status.st_mode)) return refused({listen_ + ": it is there, and not a socket"});
      if (unlink(listen_.c_str()) < 0) return refused(failed(listen_, "remove the old socket"));
    }
  } else if (const int yes = 1; setsockopt(descriptor, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes) < 0) {
    return refused(failed(listen_, "SO_REUSEADDR"));
  }
  // A socket of a path is for root and the operators, as the control socket is.
  const mode_t mask = umask(0117);
  const int bound = bind(descriptor, generic(address.address), address.size);
  umask(mask);
  if (bound < 0) return refused(failed(listen_, "bind"));
  if (!address.path.empty()) {
    path_ = listen_;
    if (const auto group = operatorGroup(); group && lchown(listen_.c_str(), 0, *group) < 0)
      return refused(failed(listen_, "change its group"));
  }
  if (::listen(descriptor, SOMAXCONN) < 0) return refused(failed(listen_, "listen"));
  socket_ = descriptor;
  listening_->descriptorIs(socket_);
  listening_->notifyOnReadableIs(true);
  return {};
}

// With as many clients as there may be the next ones wait in the queue of the socket.
void MetricsServer::accept() {
  while (clients_.size() < kClients) {
    const int client = accept4(socket_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (client < 0 && (errno == EINTR || errno == ECONNABORTED)) continue;
    if (client < 0) {
      if (errno != EAGAIN && errno != EWOULDBLOCK) retry_.after(kRetrySeconds);
      return;
    }
    try {
      clients_.emplace_back(*this, client);
    } catch (const Mox::Error&) {
      close(client);
      return retry_.after(kRetrySeconds);
    }
  }
}

const std::string& MetricsServer::text() {
  const double now = scheduler_->loop().clock().now();
  if (now >= madeAt_ + kFreshSeconds) {
    text_ = makeText_();
    madeAt_ = now;
  }
  return text_;
}

void MetricsServer::removeEnded() {
  clients_.remove_if([](const Client& client) { return client.hasEnded(); });
  if (socket_ >= 0) accept();
}

}  // namespace Host
