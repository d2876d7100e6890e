#pragma once

#include <sys/types.h>

#include <list>
#include <memory>
#include <string>
#include <vector>

#include "Mox/Notifiee.h"
#include "Mox/Result.h"
#include "Orb/FileDescriptor.h"
#include "Plugin/AgentBase.h"
#include "host/ControlCommands.h"
#include "host/Quota.h"

namespace Host {

// Runs agent commands for the control socket. One with a small answer runs in place. One with a large answer
// runs in a copy of the process (fork(2)): it sees the state of one moment, takes as long as it needs, and
// neither it nor a slow client holds up the event loop. The copy has nothing of this process but its memory:
// no descriptor, no trace ring; it ends when its client goes, and with this process.
class AgentAnswers {
 public:
  // More at a time would only fight for the other processor.
  static constexpr Quota kCopies = {.all = 4, .ofUser = 2, .keptForRoot = 1};

  explicit AgentAnswers(Orb::EventLoop& loop) : loop_(loop) {}
  AgentAnswers(const AgentAnswers&) = delete;
  AgentAnswers& operator=(const AgentAnswers&) = delete;
  ~AgentAnswers();

  // For a client of this user. Refused when the command refuses the arguments, or there are no means to run
  // it. The job must not outlive this.
  Mox::Result<std::unique_ptr<ControlJob>> run(Plugin::AgentCommandCallback& command,
                                               const std::vector<Mox::String>& arguments, uid_t user);

 private:
  class SmallJob;
  class LargeJob;

  // A copy of the process, until it has been waited for. Its answer is over no earlier, so that a client who
  // has one can ask for the next.
  struct Copy {
    pid_t id = 0;
    uid_t user = 0;
    LargeJob* job = nullptr;  // null: its client has gone
    int handle = -1;          // becomes readable at its end (pidfd_open(2))
    Mox::Notifiee<Orb::FileDescriptor> ended;
  };
  Mox::Result<std::unique_ptr<ControlJob>> runSmall(Plugin::AgentCommandCallback& command,
                                                    const std::vector<Mox::String>& arguments);
  Mox::Result<std::unique_ptr<ControlJob>> runLarge(Plugin::AgentCommandCallback& command,
                                                    const std::vector<Mox::String>& arguments, uid_t user);
  void handleEnded(std::list<Copy>::iterator copy);

  Orb::EventLoop& loop_;
  std::list<Copy> copies_;
};

// The answer of a command whose answers are small.
Mox::Result<std::string> smallAnswer(Plugin::AgentCommandCallback& command,
                                     const std::vector<Mox::String>& arguments);

}  // namespace Host
