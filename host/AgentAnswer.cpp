#include "host/AgentAnswer.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "Mox/Error.h"
#include "Tracelet/Tracelet.h"

namespace Host {

namespace {

constexpr std::size_t kTextPerSlice = 32 << 10;
// Ends the text of a copy: without it the copy died in the middle. No text has it.
constexpr char kComplete = '\0';
constexpr int kAnswer = 3;  // the copy's only descriptor besides the standard ones

// Never returns. Runs in the copy.
[[noreturn]] void answer(Plugin::AgentCommandCallback& command, const std::vector<Mox::String>& arguments,
                         int descriptor, pid_t parent) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != parent) _exit(1);
  setpriority(PRIO_PROCESS, 0, 10);
  // The ring file is shared with the parent, who goes on writing it.
  Tracelet::textSinkIs([](std::string_view) {});
  Tracelet::finalize();
  if (dup3(descriptor, kAnswer, 0) < 0 && errno != EINVAL) _exit(1);
  syscall(SYS_close_range, kAnswer + 1, ~0U, 0);
  try {
    command.handleCommand(kAnswer, arguments);
  } catch (...) {
    _exit(1);
  }
  while (write(kAnswer, &kComplete, 1) < 0 && errno == EINTR) {
  }
  _exit(0);
}

Mox::Failure failureOf(const char* what, int number) {
  return {std::string(what) + ": " + std::strerror(number), number};
}

}  // namespace

// A file in memory that the command wrote its answer to.
class AgentAnswers::SmallJob final : public ControlJob {
 public:
  explicit SmallJob(int descriptor) : descriptor_(descriptor) {}
  SmallJob(const SmallJob&) = delete;
  SmallJob& operator=(const SmallJob&) = delete;
  ~SmallJob() override { close(descriptor_); }

  Step step(std::string& output) override {
    std::array<char, kTextPerSlice> bytes;
    const ssize_t got = pread(descriptor_, bytes.data(), bytes.size(), at_);
    if (got <= 0) {
      got == 0 ? ControlCommands::appendOk(output)
               : ControlCommands::appendError(output,
                                              std::string("the answer broke off: ") + std::strerror(errno));
      return Step::done;
    }
    at_ += static_cast<off_t>(
        ControlCommands::appendText(output, {bytes.data(), static_cast<std::size_t>(got)}));
    return Step::more;
  }

 private:
  const int descriptor_;
  off_t at_ = 0;
};

// The text that a copy writes into a pipe, passed on as whole lines.
class AgentAnswers::LargeJob final : public ControlJob {
 public:
  LargeJob(Orb::EventLoop& loop, Copy& copy, int descriptor)
      : copy_(&copy), descriptor_(descriptor), ready_(Mox::make<Orb::FileDescriptor>(loop, "agent answer")) {
    copy.job = this;
    ready_.on(Orb::FileDescriptor::readableCountChanged, [this] { wake(); });
    ready_->descriptorIs(descriptor_);
    ready_->nonBlockingIs(true);
    ready_->notifyOnReadableIs(true);
  }
  LargeJob(const LargeJob&) = delete;
  LargeJob& operator=(const LargeJob&) = delete;
  ~LargeJob() override {
    ready_->descriptorIs(-1);
    close(descriptor_);
    if (!copy_) return;
    copy_->job = nullptr;
    ::kill(copy_->id, SIGKILL);  // not waited for yet, so the number is still its own
  }

  void handleEnded() {
    copy_ = nullptr;
    wake();
  }

  Step step(std::string& output) override {
    std::array<char, kTextPerSlice> bytes;
    const ssize_t got = read(descriptor_, bytes.data(), bytes.size());
    if (got < 0) return errno == EINTR ? Step::more : Step::waiting;
    if (got == 0) return copy_ ? Step::waiting : end(output);
    text_.append(bytes.data(), static_cast<std::size_t>(got));
    if (text_.find('\n') != std::string::npos) text_.erase(0, ControlCommands::appendText(output, text_));
    return Step::more;
  }

 private:
  Step end(std::string& output) {
    if (text_.ends_with(kComplete)) {
      text_.pop_back();
      if (!text_.empty()) ControlCommands::appendText(output, text_);
      ControlCommands::appendOk(output);
    } else {
      ControlCommands::appendError(output, "the answer broke off: is there too little memory for it?");
    }
    return Step::done;
  }

  Copy* copy_;  // null: it has ended
  const int descriptor_;
  std::string text_;  // read, and not passed on
  Mox::Notifiee<Orb::FileDescriptor> ready_;
};

AgentAnswers::~AgentAnswers() {
  for (Copy& copy : copies_) {
    ::kill(copy.id, SIGKILL);
    copy.ended->descriptorIs(-1);
    close(copy.handle);
    waitpid(copy.id, nullptr, 0);
  }
}

Mox::Result<std::unique_ptr<ControlJob>> AgentAnswers::run(Plugin::AgentCommandCallback& command,
                                                           const std::vector<Mox::String>& arguments,
                                                           uid_t user) {
  if (const auto checked = command.check(arguments); !checked) return checked.failure();
  return command.answer() == Plugin::AgentCommandCallback::Answer::small ? runSmall(command, arguments)
                                                                         : runLarge(command, arguments, user);
}

Mox::Result<std::unique_ptr<ControlJob>> AgentAnswers::runSmall(Plugin::AgentCommandCallback& command,
                                                                const std::vector<Mox::String>& arguments) {
  const int descriptor = memfd_create("agent answer", MFD_CLOEXEC);
  if (descriptor < 0) return failureOf("no memory for the answer", errno);
  std::unique_ptr<ControlJob> job = std::make_unique<SmallJob>(descriptor);
  command.handleCommand(descriptor, arguments);
  return job;
}

Mox::Result<std::unique_ptr<ControlJob>> AgentAnswers::runLarge(Plugin::AgentCommandCallback& command,
                                                                const std::vector<Mox::String>& arguments,
                                                                uid_t user) {
  std::vector<uid_t> holders;
  for (const Copy& copy : copies_) holders.push_back(copy.user);
  const Mox::Result<> allowed =
      kCopies.oneMore(holders, user, "such answers", "are being written already; try again in a moment");
  if (!allowed) return allowed.failure();
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) return failureOf("no pipe for the answer", errno);
  const pid_t parent = getpid();
  const pid_t id = fork();
  if (id == 0) answer(command, arguments, ends[1], parent);
  int reason = errno;
  close(ends[1]);
  const int handle = id < 0 ? -1 : static_cast<int>(syscall(SYS_pidfd_open, id, 0));
  if (handle < 0) {
    if (id > 0) {
      reason = errno;
      ::kill(id, SIGKILL);
      waitpid(id, nullptr, 0);
    }
    close(ends[0]);
    return failureOf("no process for the answer", reason);
  }
  const auto copy = copies_.emplace(copies_.end());
  copy->id = id;
  copy->user = user;
  copy->handle = handle;
  copy->ended.notifierIs(Mox::make<Orb::FileDescriptor>(loop_, "copy of the process"));
  copy->ended.on(Orb::FileDescriptor::readableCountChanged, [this, copy] { handleEnded(copy); });
  try {
    copy->ended->descriptorIs(handle);
    copy->ended->notifyOnReadableIs(true);
    return std::unique_ptr<ControlJob>(std::make_unique<LargeJob>(loop_, *copy, ends[0]));
  } catch (const Mox::Error&) {
    close(ends[0]);
    ::kill(id, SIGKILL);
    copy->job = nullptr;
    handleEnded(copy);
    throw;
  }
}

void AgentAnswers::handleEnded(std::list<Copy>::iterator copy) {
  waitpid(copy->id, nullptr, 0);
  copy->ended->descriptorIs(-1);
  close(copy->handle);
  if (copy->job) copy->job->handleEnded();
  copies_.erase(copy);
}

Mox::Result<std::string> smallAnswer(Plugin::AgentCommandCallback& command,
                                     const std::vector<Mox::String>& arguments) {
  if (const auto checked = command.check(arguments); !checked) return checked.failure();
  const int descriptor = memfd_create("agent answer", MFD_CLOEXEC);
  if (descriptor < 0) return failureOf("no memory for the answer", errno);
  std::string answer;
  try {
    command.handleCommand(descriptor, arguments);
    std::array<char, 4096> bytes;
    for (ssize_t got = 0;
         (got = pread(descriptor, bytes.data(), bytes.size(), static_cast<off_t>(answer.size()))) > 0;)
      answer.append(bytes.data(), static_cast<std::size_t>(got));
  } catch (const Mox::Error& error) {
    close(descriptor);
    return Mox::Failure{error.what()};
  }
  close(descriptor);
  return answer;
}

}  // namespace Host
