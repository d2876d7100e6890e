#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <vector>

#include "Lanix/PacketSockets.h"

namespace TestSupport {

using Frame = std::vector<std::byte>;

// Of numbers that are bytes.
Frame frameOf(const std::vector<unsigned>& bytes);

class FakePacketSockets;

// One device behind the fake packet sockets.
class FakeDevice {
 public:
  // A frame comes in: every socket that is bound to the device gets it when it is bound to all protocols or
  // to the frame's own. Returns how many did; a socket whose queue is full loses it.
  int receives(const Frame& frame);
  // What was sent on the device, in order.
  const std::vector<Frame>& sent() const { return sent_; }
  std::vector<Frame> takeSent() { return std::exchange(sent_, {}); }
  // While full, nothing can be sent (EAGAIN), and its sockets are not writable; the end of it makes them
  // writable again, which the event loop sees.
  void fullIs(bool full);
  // It goes down and comes up again: its sockets report that, in place of the next frame that they send.
  void flaps();
  // What its sockets are told of bytes that wait in its queue, call by call; the last answer stands.
  void unsentAre(std::deque<int> bytes) { unsent_ = std::move(bytes); }
  // Sockets that are bound to it now, and the receive buffer that was set for the last of them; -1: none was.
  int bound() const;
  int receiveBuffer() const;

 private:
  friend class FakePacketSockets;
  FakePacketSockets* sockets_ = nullptr;
  std::uint32_t ifIndex_ = 0;
  bool full_ = false;
  std::vector<Frame> sent_;
  std::deque<int> unsent_;
};

// Packet sockets without a kernel behind them, and without its rights. Each is one end of a pair of real
// sequenced-packet sockets, so that an event loop sees it become readable and writable.
class FakePacketSockets final : public Lanix::PacketSockets {
 public:
  enum class Call { open, bind, nonBlocking, receiveBuffer, read, send };

  FakePacketSockets() : replaced_(*this) {}
  ~FakePacketSockets() override;

  // The device of a kernel index; it is there from the first mention on.
  FakeDevice& device(std::uint32_t ifIndex);
  // The frame comes in on some other device whenever a socket is about to be bound: who was opened for its
  // protocol already has it then.
  void otherDevicesReceive(const Frame& frame) { beforeBinding_ = frame; }
  // The next `times` calls of a kind fail with this errno.
  void fails(Call call, int error, int times = 1) { failures_[call] = {error, times}; }

  int openSockets() const { return static_cast<int>(sockets_.size()); }
  // System calls that would have been made for sending.
  int sendCalls() const { return sendCalls_; }

  int open(int type, std::uint16_t protocol) override;
  int bind(int socket, std::uint32_t ifIndex, std::uint16_t protocol) override;
  int nonBlockingIs(int socket, bool nonBlocking) override;
  int receiveBufferIs(int socket, int bytes) override;
  std::uint32_t takeDropped(int socket) override;
  int takeError(int socket) override;
  int unsent(int socket) override;
  ssize_t read(int socket, std::span<std::byte> buffer) override;
  ssize_t write(int socket, std::span<const std::byte> frame) override;
  ssize_t sendTo(int socket, const OutFrame& frame, std::uint16_t protocol) override;
  int receiveBatch(int socket, std::span<InFrame> frames) override;
  int sendBatch(int socket, std::span<const OutFrame> frames, std::uint16_t protocol) override;
  void close(int socket) override;

 private:
  friend class FakeDevice;
  struct Socket {
    int far;  // the test's end of the pair
    std::uint32_t ifIndex = 0;
    std::uint16_t protocol = 0;
    int receiveBuffer = -1;
    std::uint32_t dropped = 0;
    int error = 0;
  };
  struct Failure {
    int error;
    int times;
  };

  bool failing(Call call);
  ssize_t send(std::uint32_t ifIndex, std::span<const std::byte> bytes);
  void fill(int socket);
  void drain(int far);

  std::map<int, Socket> sockets_;
  std::map<std::uint32_t, std::unique_ptr<FakeDevice>> devices_;
  std::map<Call, Failure> failures_;
  Frame beforeBinding_;
  int sendCalls_ = 0;
  Lanix::Replaced<Lanix::PacketSockets> replaced_;
};

}  // namespace TestSupport
