#pragma once

// A netlink socket of the network namespace that the calling thread is in when it is opened.
//
// Three ways to use one, and a socket is used in one way only (a notification could otherwise push an answer
// out of the receive buffer, or be taken for one):
//   - requests: request(), get() and batch() send and wait for the kernel's answer, at most
//     `receiveTimeoutMilliseconds` for each datagram of it. rtnetlink answers from within the send, so that
//     the wait is a bound and not a habit;
//   - dumps: dumpStart() and then dumpSlice() until it says `done`, at most one datagram (32 KiB or less) a
//     slice;
//   - notifications: join() the groups, watch fd() for readability, and receive() until it says no more.
//
// Nothing here throws. The descriptor is close-on-exec and non-blocking. Not thread-safe.

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "Mox/Result.h"
#include "Netlink/Attributes.h"
#include "Netlink/Message.h"

namespace Netlink {

// What the kernel refuses has errno's number, and its text with what the kernel added to it (its extended
// acknowledgement).
using Mox::Failure;
using Mox::Result;

// One received message. A view: valid only inside the handler that it was given to.
class Received {
 public:
  explicit Received(Bytes message);  // a whole message, at least its header

  std::uint16_t type() const { return type_; }
  std::uint16_t flags() const { return flags_; }
  std::uint32_t sequence() const { return sequence_; }
  Bytes payload() const { return payload_; }

  // The family's fixed header, copied; std::nullopt when the message is shorter than that.
  template <class Fixed>
  std::optional<Fixed> header() const {
    static_assert(std::is_trivially_copyable_v<Fixed>);
    if (payload_.size() < sizeof(Fixed)) return std::nullopt;
    Fixed fixed;
    std::memcpy(&fixed, payload_.data(), sizeof fixed);
    return fixed;
  }

  // What follows a fixed header of that size (empty when the message is shorter).
  Bytes attributes(std::size_t fixedHeaderSize) const;

 private:
  std::uint16_t type_ = 0;
  std::uint16_t flags_ = 0;
  std::uint32_t sequence_ = 0;
  Bytes payload_;
};

using Handler = std::function<void(const Received&)>;

// What the socket asks of the kernel. The default forwards; tests put a scripted one in its place. Results
// are those of the system calls: -1 and errno on failure.
class Kernel {
 public:
  virtual ~Kernel() = default;
  // `bytes` to the kernel (port id 0), without blocking.
  virtual std::int64_t send(int descriptor, Bytes bytes);
  // One datagram. The result is its true length, which exceeds the buffer when it was cut off. `fromKernel`
  // is false for a datagram of another process, which the socket ignores.
  virtual std::int64_t receive(int descriptor, std::span<std::byte> buffer, bool& fromKernel);
  // Waits for readability, at most `milliseconds`: 1 readable, 0 not.
  virtual int wait(int descriptor, int milliseconds);
};

struct Options {
  int receiveTimeoutMilliseconds = 1000;
  // Bytes, 0: the system's default. Set with SO_RCVBUFFORCE where that is permitted, so that it may exceed
  // rmem_max.
  int receiveBuffer = 0;
  // Asks the kernel to refuse filters in dump requests that it does not know (NETLINK_GET_STRICT_CHK).
  bool strictDumps = true;
};

struct DumpSlice {
  bool done = false;  // the dump ended, with or without a failure
  // Something changed while the dump ran (NLM_F_DUMP_INTR): what was seen may be inconsistent.
  bool interrupted = false;
  std::size_t messages = 0;  // handed to the handler in this slice
  Result<> result;
};

struct Notifications {
  std::size_t messages = 0;
  bool more = false;  // stopped at the bound or at an overrun; there may be more to read
  // The kernel dropped notifications (ENOBUFS): everything they told must be read again.
  bool overrun = false;
  Result<> result;  // anything else that failed; the socket is not usable any more
};

class Socket {
 public:
  // Requests of one batch that are sent together. Bounded by the acknowledgements, which all wait in the
  // receive buffer.
  static constexpr std::size_t kBatch = 64;

  // `protocol` as in <linux/netlink.h>, usually NETLINK_ROUTE. `kernel` must outlive the socket; null: the
  // real one.
  explicit Socket(int protocol, Options options = {}, Kernel* kernel = nullptr);
  ~Socket();
  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;

  // Whether the socket could be opened. Every other operation otherwise fails with the same error.
  const Result<>& opened() const { return opened_; }
  // Tries that again, in the network namespace that the thread is in now, if it could not be.
  const Result<>& open();
  int fd() const { return fd_; }  // -1 when not open

  // Joins the multicast group of that number (RTNLGRP_LINK ...).
  Result<> join(unsigned group);

  // Neighbours and MAC tables are told in one group (RTNLGRP_NEIGH). Lets only one of them wait to be received,
  // so that who wants one is not woken for the other; before join.
  enum class Neighbours : bool { addresses, macs };
  Result<> neighboursAre(Neighbours wanted);

  // Sends and waits for the acknowledgement.
  Result<> request(Message message);

  // Sends a request whose answer is one message, which goes to `handler`, and waits for the acknowledgement.
  Result<> get(Message message, const Handler& handler);

  // Sends all, kBatch at a time, and reports one result for each, by position and in order. The kernel
  // carries on after a request that it refuses. If the socket itself fails, the requests without an answer
  // all get that error. Messages are given up to the batch: their flags and sequence numbers are written.
  // Where a request is answered with a message, `answer` gets that first, with the request's position.
  void batch(std::span<Message> messages, const std::function<void(std::size_t, const Result<>&)>& result,
             const std::function<void(std::size_t, const Received&)>& answer = {});

  // Starts a dump; one at a time.
  Result<> dumpStart(Message message);
  // Reads one datagram of it. Waits as bounded above only if the kernel has none ready.
  DumpSlice dumpSlice(const Handler& handler);
  // The whole dump at once, for short ones. Tried again when it was interrupted, at most three times;
  // `restarted` runs before each further try, for the caller to forget what it collected.
  Result<> dump(const Message& message, const Handler& handler, const std::function<void()>& restarted);

  // Hands over the notifications that wait, without blocking, up to a datagram beyond `maxMessages`.
  Notifications receive(const Handler& handler, std::size_t maxMessages = 256);

 private:
  Result<> sendAll(Bytes bytes);
  // Receives one datagram from the kernel, waiting until the timeout. Empty: nothing came.
  Result<Bytes> receiveOne(std::span<std::byte> buffer, int timeoutMilliseconds);
  Result<> answers(std::uint32_t first, std::span<std::optional<Result<>>> results, const Handler* handler);
  std::uint32_t nextSequence();

  const int protocol_;
  int fd_ = -1;
  Kernel* kernel_;
  Options options_;
  Result<> opened_;
  std::uint32_t sequence_ = 0;
  std::uint32_t dumpSequence_ = 0;  // 0: no dump is running
  bool dumpInterrupted_ = false;
};

// What was being done in front of why it failed: "adding link arpsnoop: File exists". Nothing to say when it
// was done.
Result<> describe(const std::string& what, Result<> result);

}  // namespace Netlink
