#include "Netlink/Socket.h"

#include <fcntl.h>
#include <libmnl/libmnl.h>
#include <linux/netlink.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <type_traits>

namespace Netlink {
namespace {

// A dump's datagram is at most 32 KiB; a notification about one link with many functions may be longer.
constexpr std::size_t kReceiveBuffer = 65536;
constexpr int kDumpTries = 4;

constexpr Policy kErrorPolicy[] = {{NLMSGERR_ATTR_MSG, Kind::string, 0, 4096}};

Error errorOf(int number) { return {number, std::strerror(number)}; }

// `tail` holds the extended acknowledgement's attributes, if there are any.
Error errorOf(int number, const Received& message, std::size_t tail) {
  Error error = errorOf(number);
  if ((message.flags() & NLM_F_ACK_TLVS) == 0) return error;
  const Attributes attributes(message.attributes(tail), kErrorPolicy);
  if (const auto text = attributes.string(NLMSGERR_ATTR_MSG)) error.text += " (" + std::string(*text) + ")";
  return error;
}

// The next whole message of a datagram, which is advanced past it.
std::optional<Received> nextMessage(Bytes& datagram) {
  nlmsghdr header;
  if (datagram.size() < sizeof header) return std::nullopt;
  std::memcpy(&header, datagram.data(), sizeof header);
  if (header.nlmsg_len < sizeof header || header.nlmsg_len > datagram.size()) return std::nullopt;
  const Bytes message = datagram.first(header.nlmsg_len);
  datagram = datagram.subspan(std::min<std::size_t>(datagram.size(), NLMSG_ALIGN(header.nlmsg_len)));
  return Received(message);
}

// The result that an NLMSG_ERROR carries: an acknowledgement when its number is 0.
Result acknowledged(const Received& message) {
  const auto error = message.header<nlmsgerr>();
  if (!error) return Error{EBADMSG, "the kernel's acknowledgement is cut off"};
  if (error->error == 0) return std::nullopt;
  std::size_t tail = sizeof(nlmsgerr);
  if ((message.flags() & NLM_F_CAPPED) == 0 && error->msg.nlmsg_len > sizeof(nlmsghdr))
    tail += NLMSG_ALIGN(error->msg.nlmsg_len - sizeof(nlmsghdr));
  return errorOf(-error->error, message, tail);
}

// The result at the end of a dump: 0, or a negative errno.
Result finished(const Received& message) {
  const int number = message.header<int>().value_or(0);
  if (number >= 0) return std::nullopt;
  return errorOf(-number, message, sizeof number);
}

}  // namespace

std::string describe(const std::string& what, const Error& error) { return what + ": " + error.text; }

Received::Received(Bytes message) {
  nlmsghdr header;
  std::memcpy(&header, message.data(), sizeof header);
  type_ = header.nlmsg_type;
  flags_ = header.nlmsg_flags;
  sequence_ = header.nlmsg_seq;
  payload_ = message.subspan(sizeof header);
}

Bytes Received::attributes(std::size_t fixedHeaderSize) const {
  return payload_.subspan(std::min<std::size_t>(payload_.size(), NLMSG_ALIGN(fixedHeaderSize)));
}

std::int64_t Kernel::send(int descriptor, Bytes bytes) {
  sockaddr_nl address{};
  address.nl_family = AF_NETLINK;
  return sendto(descriptor, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL,
                reinterpret_cast<const sockaddr*>(&address), sizeof address);
}

std::int64_t Kernel::receive(int descriptor, std::span<std::byte> buffer, bool& fromKernel) {
  sockaddr_nl address{};
  socklen_t length = sizeof address;
  const ssize_t received = recvfrom(descriptor, buffer.data(), buffer.size(), MSG_DONTWAIT | MSG_TRUNC,
                                    reinterpret_cast<sockaddr*>(&address), &length);
  fromKernel = address.nl_pid == 0;
  return received;
}

int Kernel::wait(int descriptor, int milliseconds) {
  pollfd entry{descriptor, POLLIN, 0};
  return poll(&entry, 1, milliseconds);
}

Socket::Socket(int protocol, Options options, Kernel* kernel)
    : socket_(mnl_socket_open2(protocol, SOCK_CLOEXEC | SOCK_NONBLOCK), &mnl_socket_close),
      kernel_(kernel),
      options_(options),
      buffer_(kReceiveBuffer) {
  static Kernel forwarding;  // without state
  if (kernel_ == nullptr) kernel_ = &forwarding;
  if (!socket_ || mnl_socket_bind(socket_.get(), 0, MNL_SOCKET_AUTOPID) < 0) {
    openError_ = errorOf(errno);
    socket_.reset();
    return;
  }
  // What an older kernel does not know of these only makes messages longer or errors terser.
  int on = 1;
  mnl_socket_setsockopt(socket_.get(), NETLINK_EXT_ACK, &on, sizeof on);
  mnl_socket_setsockopt(socket_.get(), NETLINK_CAP_ACK, &on, sizeof on);
  if (options_.strictDumps) mnl_socket_setsockopt(socket_.get(), NETLINK_GET_STRICT_CHK, &on, sizeof on);
  if (const int size = options_.receiveBuffer; size > 0) {
    if (setsockopt(fd(), SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof size) != 0)
      setsockopt(fd(), SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
  }
}

Socket::~Socket() = default;
Socket::Socket(Socket&& other) noexcept = default;
Socket& Socket::operator=(Socket&& other) noexcept = default;

int Socket::fd() const { return socket_ ? mnl_socket_get_fd(socket_.get()) : -1; }

Result Socket::join(unsigned group) {
  if (openError_) return openError_;
  if (mnl_socket_setsockopt(socket_.get(), NETLINK_ADD_MEMBERSHIP, &group, sizeof group) < 0)
    return errorOf(errno);
  return std::nullopt;
}

std::uint32_t Socket::nextSequence() {
  if (++sequence_ == 0) ++sequence_;  // 0 is what notifications carry
  return sequence_;
}

Result Socket::sendAll(Bytes bytes) {
  if (openError_) return openError_;
  std::int64_t sent;
  do {
    sent = kernel_->send(fd(), bytes);
  } while (sent < 0 && errno == EINTR);
  if (sent < 0) return errorOf(errno);
  return std::nullopt;
}

Result Socket::receiveOne(int timeoutMilliseconds, Bytes& bytes) {
  bytes = {};
  if (openError_) return openError_;
  while (true) {
    bool fromKernel = false;
    const std::int64_t length = kernel_->receive(fd(), buffer_, fromKernel);
    if (length >= 0) {
      if (!fromKernel) continue;
      if (static_cast<std::size_t>(length) > buffer_.size())
        return Error{EMSGSIZE, "the kernel's datagram of " + std::to_string(length) +
                                   " bytes exceeds the buffer of " + std::to_string(buffer_.size())};
      bytes = Bytes(buffer_).first(static_cast<std::size_t>(length));
      return std::nullopt;
    }
    if (errno == EINTR) continue;
    if (errno != EAGAIN && errno != EWOULDBLOCK) return errorOf(errno);
    if (timeoutMilliseconds == 0) return std::nullopt;
    const int ready = kernel_->wait(fd(), timeoutMilliseconds);
    if (ready == 0)
      return Error{ETIMEDOUT,
                   "no answer from the kernel within " + std::to_string(timeoutMilliseconds) + " ms"};
    if (ready < 0 && errno != EINTR) return errorOf(errno);
  }
}

// Collects the acknowledgements of the requests numbered `first` and on. Answers of earlier requests, which
// gave up waiting, are passed over.
Result Socket::answers(std::uint32_t first, std::span<std::optional<Result>> results,
                       const Handler* handler) {
  auto open = std::ranges::count_if(results, [](const std::optional<Result>& result) { return !result; });
  while (open > 0) {
    Bytes datagram;
    if (Result error = receiveOne(options_.receiveTimeoutMilliseconds, datagram)) return error;
    while (const auto message = nextMessage(datagram)) {
      const std::uint32_t index = message->sequence() - first;
      if (index >= results.size() || results[index].has_value()) continue;
      if (message->type() == NLMSG_ERROR) {
        results[index] = acknowledged(*message);
        --open;
      } else if (handler != nullptr && message->type() >= NLMSG_MIN_TYPE) {
        (*handler)(*message);
      }
    }
  }
  return std::nullopt;
}

Result Socket::request(Message message) {
  return get(std::move(message), [](const Received&) {});
}

Result Socket::get(Message message, const Handler& handler) {
  if (!message.valid()) return Error{EMSGSIZE, "an attribute exceeds 65531 bytes"};
  const std::uint32_t sequence = nextSequence();
  message.flagsAdd(NLM_F_ACK);
  message.sequenceIs(sequence);
  if (Result error = sendAll(message.data())) return error;
  std::optional<Result> result;
  if (Result error = answers(sequence, std::span(&result, 1), &handler)) return error;
  return *result;
}

void Socket::batch(std::span<Message> messages, const std::function<void(std::size_t, const Result&)>& result,
                   const std::function<void(std::size_t, const Received&)>& answer) {
  std::vector<std::byte> bytes;
  for (std::size_t done = 0; done < messages.size();) {
    const std::size_t count = std::min(kBatch, messages.size() - done);
    if (sequence_ > UINT32_MAX - count) sequence_ = 0;  // numbers of one batch are consecutive, and none is 0
    const std::uint32_t first = sequence_ + 1;
    std::vector<std::optional<Result>> results(count);
    bytes.clear();
    for (std::size_t i = 0; i < count; ++i) {
      Message& message = messages[done + i];
      ++sequence_;
      if (!message.valid()) {
        results[i] = Error{EMSGSIZE, "an attribute exceeds 65531 bytes"};
        continue;
      }
      message.flagsAdd(NLM_F_ACK);
      message.sequenceIs(first + static_cast<std::uint32_t>(i));
      bytes.insert(bytes.end(), message.data().begin(), message.data().end());
    }
    Result failure;
    if (!bytes.empty()) {
      failure = sendAll(bytes);
      const Handler handler = [&](const Received& message) {
        answer(done + (message.sequence() - first), message);
      };
      if (!failure) failure = answers(first, results, answer ? &handler : nullptr);
    }
    for (std::size_t i = 0; i < count; ++i) result(done + i, results[i] ? *results[i] : failure);
    done += count;
  }
}

Result Socket::dumpStart(Message message) {
  if (!message.valid()) return Error{EMSGSIZE, "an attribute exceeds 65531 bytes"};
  if (dumpSequence_ != 0) return Error{EBUSY, "the socket's previous dump has not been read to its end"};
  dumpInterrupted_ = false;
  const std::uint32_t sequence = nextSequence();
  message.flagsAdd(NLM_F_DUMP);
  message.sequenceIs(sequence);
  if (Result error = sendAll(message.data())) return error;
  dumpSequence_ = sequence;
  return std::nullopt;
}

DumpSlice Socket::dumpSlice(const Handler& handler) {
  DumpSlice slice;
  const auto end = [&](Result error) {
    slice.done = true;
    slice.error = std::move(error);
    dumpSequence_ = 0;
  };
  if (dumpSequence_ == 0) {
    end(Error{EINVAL, "no dump was started on this socket"});
    return slice;
  }
  Bytes datagram;
  if (Result error = receiveOne(options_.receiveTimeoutMilliseconds, datagram)) {
    slice.interrupted = dumpInterrupted_;
    end(std::move(error));
    return slice;
  }
  while (const auto message = nextMessage(datagram)) {
    if (message->sequence() != dumpSequence_) continue;
    if ((message->flags() & NLM_F_DUMP_INTR) != 0) dumpInterrupted_ = true;
    if (message->type() == NLMSG_DONE) {
      end(finished(*message));
      break;
    }
    if (message->type() == NLMSG_ERROR) {
      end(acknowledged(*message));
      break;
    }
    if (message->type() < NLMSG_MIN_TYPE) continue;
    handler(*message);
    ++slice.messages;
  }
  slice.interrupted = dumpInterrupted_;
  return slice;
}

Result Socket::dump(const Message& message, const Handler& handler, const std::function<void()>& restarted) {
  for (int attempt = 1;; ++attempt) {
    if (Result error = dumpStart(message)) return error;
    DumpSlice slice;
    do {
      slice = dumpSlice(handler);
    } while (!slice.done);
    if (slice.error) return slice.error;
    if (!slice.interrupted) return std::nullopt;
    if (attempt == kDumpTries) return Error{EINTR, "the dump was interrupted by changes again and again"};
    restarted();
  }
}

Notifications Socket::receive(const Handler& handler, std::size_t maxMessages) {
  Notifications result;
  while (result.messages < maxMessages) {
    Bytes datagram;
    if (Result error = receiveOne(0, datagram)) {
      // A datagram that does not fit is lost as well.
      result.overrun = result.more = error->number == ENOBUFS || error->number == EMSGSIZE;
      if (!result.overrun) result.error = std::move(error);
      return result;
    }
    if (datagram.empty()) return result;
    while (const auto message = nextMessage(datagram)) {
      if (message->type() < NLMSG_MIN_TYPE) continue;
      handler(*message);
      ++result.messages;
    }
  }
  result.more = true;
  return result;
}

}  // namespace Netlink
