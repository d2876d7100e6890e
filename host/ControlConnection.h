#pragma once

#include <sys/types.h>

#include <functional>
#include <memory>
#include <string>

#include "Mox/Notifiee.h"
#include "Orb/FileDescriptor.h"
#include "Orb/TaskScheduler.h"
#include "host/ControlCommands.h"
#include "host/Quota.h"

namespace Host {

// What clients may cost.
struct ControlLimits {
  Quota connections = {.all = 64, .ofUser = 16, .keptForRoot = 16};
  // Bytes of answers that wait for the client; while there are more, nothing of it is read or worked on.
  std::size_t unsent = 256 << 10;
  // A client that for so long neither completes a request, nor takes what it is sent, nor waits for an answer
  // is dropped.
  double idleSeconds = 60;
  // A client that has not taken the whole answer to a request so long after it was read is dropped, however
  // steadily it takes some. Answers that go on for ever (monitor) are excepted.
  double answerSeconds = 300;
};

// One client of the control socket. Its requests are worked on in turn, in slices, by a background task, so
// that no client holds up a packet; it may come and go at any time.
class ControlConnection {
 public:
  // Takes the descriptor. `ended` is called once, when the client has gone or was dropped, from the event
  // loop; the connection does nothing after it and may be destroyed in any later turn, or at any time before.
  ControlConnection(const Mox::Ptr<Orb::TaskScheduler>& scheduler, ControlCommands& commands,
                    const ControlLimits& limits, int descriptor, uid_t user, std::function<void()> ended);
  ControlConnection(const ControlConnection&) = delete;
  ControlConnection& operator=(const ControlConnection&) = delete;
  ~ControlConnection();

  bool hasEnded() const { return descriptor_ < 0; }
  uid_t user() const { return user_; }

 private:
  void handleReadable();
  void handleWritable();
  void work();
  bool takeRequest();
  void send();
  void refuse(const std::string& error);
  void active();
  void handleIdle();
  void handleOverdue();
  ControlJob::Step stepJob();
  void end();
  bool hungUp() const;
  std::size_t maxLine() const;
  std::size_t waiting() const { return input_.size() - taken_; }
  bool congested() const { return output_.size() - sent_ > limits_.unsent; }

  ControlCommands& commands_;
  const ControlLimits limits_;
  int descriptor_;
  const uid_t user_;
  const std::function<void()> ended_;

  std::string input_;
  std::size_t taken_ = 0;    // of `input_`: requests that were worked on
  std::size_t scanned_ = 0;  // of `input_`, for a newline
  bool mayRead_ = false;     // the socket may hold more than was read
  bool eof_ = false;         // the client sends no more
  bool refused_ = false;     // nothing more of it is taken
  std::string output_;
  std::size_t sent_ = 0;
  std::unique_ptr<ControlJob> job_;

  Mox::Notifiee<Orb::FileDescriptor> ready_;
  Orb::Task task_;
  Orb::Timer idle_;
  Orb::Timer overdue_;
};

}  // namespace Host
