#include "Netlink/Socket.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/filter.h>
#include <linux/neighbour.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <iterator>
#include <limits>
#include <memory>
#include <type_traits>

#include "Lanix/Descriptor.h"

namespace Netlink {
namespace {

// A dump's datagram is at most 32 KiB; a notification about one link with many functions may be longer.
// Lives for one call only, since a switch with many VRFs has thousands of sockets.
class ReceiveBuffer {
 public:
  operator std::span<std::byte>() const { return {bytes_.get(), kSize}; }

 private:
  static constexpr std::size_t kSize = 65536;
  std::unique_ptr<std::byte[]> bytes_ = std::make_unique_for_overwrite<std::byte[]>(kSize);
};

constexpr int kDumpTries = 4;

constexpr Policy kErrorPolicy[] = {{NLMSGERR_ATTR_MSG, Kind::string, 0, 4096}};

Failure failureOf(int number) { return {std::strerror(number), number}; }

// `tail` holds the extended acknowledgement's attributes, if there are any.
Failure failureOf(int number, const Received& message, std::size_t tail) {
  Failure failure = failureOf(number);
  if ((message.flags() & NLM_F_ACK_TLVS) == 0) return failure;
  const Attributes attributes(message.attributes(tail), kErrorPolicy);
  if (const auto text = attributes.string(NLMSGERR_ATTR_MSG)) failure.text += " (" + std::string(*text) + ")";
  return failure;
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
Result<> acknowledged(const Received& message) {
  const auto error = message.header<nlmsgerr>();
  if (!error) return Failure{"the kernel's acknowledgement is cut off", EBADMSG};
  if (error->error == 0) return {};
  std::size_t tail = sizeof(nlmsgerr);
  if ((message.flags() & NLM_F_CAPPED) == 0 && error->msg.nlmsg_len > sizeof(nlmsghdr))
    tail += NLMSG_ALIGN(error->msg.nlmsg_len - sizeof(nlmsghdr));
  return failureOf(-error->error, message, tail);
}

// The result at the end of a dump: 0, or a negative errno.
Result<> finished(const Received& message) {
  const int number = message.header<int>().value_or(0);
  if (number >= 0) return {};
  return failureOf(-number, message, sizeof number);
}

Result<> tooLong() { return Failure{"an attribute exceeds 65531 bytes", EMSGSIZE}; }

}  // namespace

Result<> describe(const std::string& what, Result<> result) {
  if (result) return result;
  return Failure{what + ": " + result.error(), result.number()};
}

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
    : protocol_(protocol), kernel_(kernel), options_(options) {
  static Kernel forwarding;  // without state
  if (kernel_ == nullptr) kernel_ = &forwarding;
  open();
}

const Result<>& Socket::open() {
  if (fd_ >= 0) return opened_;
  fd_ = Lanix::aboveStandard(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, protocol_));
  // Without a port id the kernel chooses one that is free.
  sockaddr_nl address{};
  address.nl_family = AF_NETLINK;
  if (fd_ < 0 || bind(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    opened_ = failureOf(errno);
    if (fd_ >= 0) ::close(std::exchange(fd_, -1));
    return opened_;
  }
  const auto option = [this](int level, int name, int value) {
    return setsockopt(fd_, level, name, &value, sizeof value) == 0;
  };
  // What an older kernel does not know of these only makes messages longer or errors terser.
  option(SOL_NETLINK, NETLINK_EXT_ACK, 1);
  option(SOL_NETLINK, NETLINK_CAP_ACK, 1);
  if (options_.strictDumps) option(SOL_NETLINK, NETLINK_GET_STRICT_CHK, 1);
  if (const int size = options_.receiveBuffer; size > 0 && !option(SOL_SOCKET, SO_RCVBUFFORCE, size))
    option(SOL_SOCKET, SO_RCVBUF, size);
  return opened_ = {};
}

Socket::~Socket() {
  if (fd_ >= 0) ::close(fd_);
}

Result<> Socket::join(unsigned group) {
  if (!opened_) return opened_;
  if (setsockopt(fd_, SOL_NETLINK, NETLINK_ADD_MEMBERSHIP, &group, sizeof group) != 0)
    return failureOf(errno);
  return {};
}

Result<> Socket::neighboursAre(Neighbours wanted) {
  if (!opened_) return opened_;
  constexpr auto kPass = std::numeric_limits<std::uint32_t>::max();
  const bool macs = wanted == Neighbours::macs;
  sock_filter program[] = {
      BPF_STMT(BPF_LD | BPF_H | BPF_ABS, offsetof(nlmsghdr, nlmsg_type)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, htons(RTM_NEWNEIGH), 1, 0),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, htons(RTM_DELNEIGH), 0, 2),
      BPF_STMT(BPF_LD | BPF_B | BPF_ABS, sizeof(nlmsghdr) + offsetof(ndmsg, ndm_family)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, AF_BRIDGE, static_cast<std::uint8_t>(!macs),
               static_cast<std::uint8_t>(macs)),
      BPF_STMT(BPF_RET | BPF_K, kPass),
      BPF_STMT(BPF_RET | BPF_K, 0),
  };
  const sock_fprog filter{static_cast<unsigned short>(std::size(program)), program};
  if (setsockopt(fd_, SOL_SOCKET, SO_ATTACH_FILTER, &filter, sizeof filter) != 0) return failureOf(errno);
  return {};
}

std::uint32_t Socket::nextSequence() {
  if (++sequence_ == 0) ++sequence_;  // 0 is what notifications carry
  return sequence_;
}

Result<> Socket::sendAll(Bytes bytes) {
  if (!opened_) return opened_;
  std::int64_t sent;
  do {
    sent = kernel_->send(fd_, bytes);
  } while (sent < 0 && errno == EINTR);
  if (sent < 0) return failureOf(errno);
  return {};
}

Result<Bytes> Socket::receiveOne(std::span<std::byte> buffer, int timeoutMilliseconds) {
  if (!opened_) return opened_.failure();
  while (true) {
    bool fromKernel = false;
    const std::int64_t length = kernel_->receive(fd_, buffer, fromKernel);
    if (length >= 0) {
      if (!fromKernel) continue;
      if (static_cast<std::size_t>(length) > buffer.size())
        return Failure{"the kernel's datagram of " + std::to_string(length) +
                           " bytes exceeds the buffer of " + std::to_string(buffer.size()),
                       EMSGSIZE};
      return Bytes(buffer).first(static_cast<std::size_t>(length));
    }
    if (errno == EINTR) continue;
    if (errno != EAGAIN && errno != EWOULDBLOCK) return failureOf(errno);
    if (timeoutMilliseconds == 0) return Bytes{};
    const int ready = kernel_->wait(fd_, timeoutMilliseconds);
    if (ready == 0)
      return Failure{"no answer from the kernel within " + std::to_string(timeoutMilliseconds) + " ms",
                     ETIMEDOUT};
    if (ready < 0 && errno != EINTR) return failureOf(errno);
  }
}

// Collects the acknowledgements of the requests numbered `first` and on. Answers of earlier requests, which
// gave up waiting, are passed over.
Result<> Socket::answers(std::uint32_t first, std::span<std::optional<Result<>>> results,
                         const Handler* handler) {
  const ReceiveBuffer buffer;
  auto open = std::ranges::count_if(results, [](const std::optional<Result<>>& result) { return !result; });
  while (open > 0) {
    Result<Bytes> datagram = receiveOne(buffer, options_.receiveTimeoutMilliseconds);
    if (!datagram) return datagram.failure();
    while (const auto message = nextMessage(*datagram)) {
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
  return {};
}

Result<> Socket::request(Message message) {
  return get(std::move(message), [](const Received&) {});
}

Result<> Socket::get(Message message, const Handler& handler) {
  if (!message.valid()) return tooLong();
  const std::uint32_t sequence = nextSequence();
  message.flagsAdd(NLM_F_ACK);
  message.sequenceIs(sequence);
  if (Result<> sent = sendAll(message.data()); !sent) return sent;
  std::optional<Result<>> result;
  if (Result<> answered = answers(sequence, std::span(&result, 1), &handler); !answered) return answered;
  return *result;
}

void Socket::batch(std::span<Message> messages,
                   const std::function<void(std::size_t, const Result<>&)>& result,
                   const std::function<void(std::size_t, const Received&)>& answer) {
  std::vector<std::byte> bytes;
  for (std::size_t done = 0; done < messages.size();) {
    const std::size_t count = std::min(kBatch, messages.size() - done);
    if (sequence_ > UINT32_MAX - count) sequence_ = 0;  // numbers of one batch are consecutive, and none is 0
    const std::uint32_t first = sequence_ + 1;
    std::vector<std::optional<Result<>>> results(count);
    bytes.clear();
    for (std::size_t i = 0; i < count; ++i) {
      Message& message = messages[done + i];
      ++sequence_;
      if (!message.valid()) {
        results[i] = tooLong();
        continue;
      }
      message.flagsAdd(NLM_F_ACK);
      message.sequenceIs(first + static_cast<std::uint32_t>(i));
      bytes.insert(bytes.end(), message.data().begin(), message.data().end());
    }
    Result<> sent;
    if (!bytes.empty()) {
      sent = sendAll(bytes);
      const Handler handler = [&](const Received& message) {
        answer(done + (message.sequence() - first), message);
      };
      if (sent) sent = answers(first, results, answer ? &handler : nullptr);
    }
    for (std::size_t i = 0; i < count; ++i) result(done + i, results[i] ? *results[i] : sent);
    done += count;
  }
}

Result<> Socket::dumpStart(Message message) {
  if (!message.valid()) return tooLong();
  if (dumpSequence_ != 0) return Failure{"the socket's previous dump has not been read to its end", EBUSY};
  dumpInterrupted_ = false;
  const std::uint32_t sequence = nextSequence();
  message.flagsAdd(NLM_F_DUMP);
  message.sequenceIs(sequence);
  if (Result<> sent = sendAll(message.data()); !sent) return sent;
  dumpSequence_ = sequence;
  return {};
}

DumpSlice Socket::dumpSlice(const Handler& handler) {
  DumpSlice slice;
  const auto end = [&](Result<> result) {
    slice.done = true;
    slice.result = std::move(result);
    dumpSequence_ = 0;
  };
  if (dumpSequence_ == 0) {
    end(Failure{"no dump was started on this socket", EINVAL});
    return slice;
  }
  const ReceiveBuffer buffer;
  Result<Bytes> datagram = receiveOne(buffer, options_.receiveTimeoutMilliseconds);
  if (!datagram) {
    slice.interrupted = dumpInterrupted_;
    end(datagram.failure());
    return slice;
  }
  while (const auto message = nextMessage(*datagram)) {
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

Result<> Socket::dump(const Message& message, const Handler& handler,
                      const std::function<void()>& restarted) {
  for (int attempt = 1;; ++attempt) {
    if (Result<> started = dumpStart(message); !started) return started;
    DumpSlice slice;
    do {
      slice = dumpSlice(handler);
    } while (!slice.done);
    if (!slice.result || !slice.interrupted) return slice.result;
    if (attempt == kDumpTries) return Failure{"the dump was interrupted by changes again and again", EINTR};
    restarted();
  }
}

Notifications Socket::receive(const Handler& handler, std::size_t maxMessages) {
  const ReceiveBuffer buffer;
  Notifications heard;
  while (heard.messages < maxMessages) {
    Result<Bytes> datagram = receiveOne(buffer, 0);
    if (!datagram) {
      // A datagram that does not fit is lost as well.
      heard.overrun = heard.more = datagram.number() == ENOBUFS || datagram.number() == EMSGSIZE;
      if (!heard.overrun) heard.result = datagram.failure();
      return heard;
    }
    if (datagram->empty()) return heard;
    while (const auto message = nextMessage(*datagram)) {
      if (message->type() < NLMSG_MIN_TYPE) continue;
      handler(*message);
      ++heard.messages;
    }
  }
  heard.more = true;
  return heard;
}

}  // namespace Netlink
