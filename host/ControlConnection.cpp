#include "host/ControlConnection.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>

#include "host/Protocol.h"

namespace Host {

namespace {
constexpr unsigned kLevel = 3;
constexpr std::size_t kReadSize = 64 << 10;
}  // namespace

ControlConnection::ControlConnection(const Mox::Ptr<Orb::TaskScheduler>& scheduler, ControlCommands& commands,
                                     const ControlLimits& limits, int descriptor, uid_t user,
                                     std::function<void()> ended)
    : commands_(commands),
      limits_(limits),
      descriptor_(descriptor),
      user_(user),
      ended_(std::move(ended)),
      ready_(Mox::make<Orb::FileDescriptor>(scheduler->loop(), "control connection")),
      task_(scheduler, "control connection", kLevel, [this] { work(); }),
      idle_(scheduler->loop(), "control connection", [this] { handleIdle(); }),
      overdue_(scheduler->loop(), "control connection", [this] { handleOverdue(); }) {
  ready_.on(Orb::FileDescriptor::readableCountChanged, [this] { handleReadable(); });
  ready_.on(Orb::FileDescriptor::writableCountChanged, [this] { handleWritable(); });
  ready_->descriptorIs(descriptor_);
  ready_->nonBlockingIs(true);
  ready_->notifyOnWritableIs(true);
  ready_->notifyOnReadableIs(true);
  active();
}

ControlConnection::~ControlConnection() {
  ready_->descriptorIs(-1);
  if (descriptor_ >= 0) close(descriptor_);
}

std::size_t ControlConnection::maxLine() const { return user_ == 0 ? kMaxWriterLine : kMaxReaderLine; }

// Reads as much as one longest line takes; what is beyond stays with the kernel until that one is done.
void ControlConnection::handleReadable() {
  mayRead_ = true;
  std::array<char, kReadSize> bytes;
  input_.erase(0, taken_);
  scanned_ -= std::min(scanned_, taken_);
  taken_ = 0;
  while (!hasEnded() && !eof_ && !refused_ && !congested() && waiting() <= maxLine()) {
    const ssize_t got = recv(descriptor_, bytes.data(), bytes.size(), 0);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
      mayRead_ = false;
      break;
    }
    if (got < 0) return end();
    if (got == 0) {
      eof_ = true;
    } else {
      input_.append(bytes.data(), static_cast<std::size_t>(got));
    }
  }
  if (!hasEnded()) task_.schedule();
}

void ControlConnection::handleWritable() {
  if (hasEnded()) return;
  send();
  if (!hasEnded()) task_.schedule();
}

// One slice: steps of the job in hand and requests, as many as there is time for.
void ControlConnection::work() {
  if (hasEnded() || congested()) return;  // comes back when the client has taken some
  bool again = true;
  do {
    if (job_) {
      again = stepJob() != ControlJob::Step::waiting;
    } else {
      again = takeRequest();
    }
  } while (again && !congested() && !task_.scheduler()->root().mustYield());
  send();
  if (hasEnded()) return;
  if (again) {
    active();  // bytes alone are not enough: a request has to become whole
    task_.schedule();
  } else if (mayRead_ && !eof_ && !refused_) {
    handleReadable();
  } else if ((eof_ || refused_) && output_.empty() && (!job_ || hungUp())) {
    end();
  }
}

// Ends the job when it is done, or when it meets an error, which the client is told.
ControlJob::Step ControlConnection::stepJob() {
  ControlJob::Step step = ControlJob::Step::done;
  try {
    step = job_->step(output_);
  } catch (const Mox::Error& error) {
    ControlCommands::appendError(output_, error.what());
  }
  if (step == ControlJob::Step::done) job_.reset();
  return step;
}

// The client has gone, and not only closed its side of the connection for requests.
bool ControlConnection::hungUp() const {
  pollfd state{descriptor_, 0, 0};
  return poll(&state, 1, 0) > 0 && (state.revents & (POLLHUP | POLLERR)) != 0;
}

bool ControlConnection::takeRequest() {
  if (refused_) return false;
  const std::size_t newline = input_.find('\n', scanned_);
  const std::size_t length = (newline == std::string::npos ? input_.size() : newline) - taken_;
  if (length > maxLine()) {
    refuse("a request line is longer than " + std::to_string(maxLine()) + " bytes; send it in parts");
    return false;
  }
  if (newline == std::string::npos) {
    scanned_ = input_.size();
    if (eof_ && waiting() != 0) refuse("the request ends without a newline");
    return false;
  }
  const std::string_view line = std::string_view(input_).substr(taken_, length);
  taken_ = scanned_ = newline + 1;
  if (line.find_first_not_of(" \t\r") == std::string::npos) return true;
  job_ = commands_.start(line, user_, output_);
  if (job_) job_->wakeIs([this] { task_.schedule(); });
  if (job_ && job_->endless()) {
    overdue_.cancel();
  } else {
    overdue_.after(limits_.answerSeconds);
  }
  return true;
}

void ControlConnection::send() {
  while (sent_ < output_.size()) {
    const ssize_t put = ::send(descriptor_, output_.data() + sent_, output_.size() - sent_, MSG_NOSIGNAL);
    if (put < 0 && errno == EINTR) continue;
    if (put < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) break;
    if (put < 0) return end();
    sent_ += static_cast<std::size_t>(put);
    active();
  }
  if (sent_ == output_.size()) {
    output_.clear();
    sent_ = 0;
    if (!job_) overdue_.cancel();
  } else if (sent_ > limits_.unsent) {
    output_.erase(0, sent_);
    sent_ = 0;
  }
}

void ControlConnection::refuse(const std::string& error) {
  ControlCommands::appendError(output_, error);
  refused_ = true;
  input_.clear();
  input_.shrink_to_fit();
  taken_ = scanned_ = 0;
}

void ControlConnection::active() { idle_.after(limits_.idleSeconds); }

void ControlConnection::handleIdle() {
  if (hasEnded()) return;
  if (job_ && output_.empty()) return active();  // it waits for us
  if (waiting() != 0 && output_.empty()) {
    refuse("the rest of the request did not come");
    send();
  }
  end();
}

void ControlConnection::handleOverdue() {
  if (hasEnded()) return;
  refuse("the answer was not taken in time");
  send();
  end();
}

void ControlConnection::end() {
  if (hasEnded()) return;
  ready_->descriptorIs(-1);
  close(descriptor_);
  descriptor_ = -1;
  task_.cancel();
  idle_.cancel();
  overdue_.cancel();
  job_.reset();
  ended_();
}

}  // namespace Host
