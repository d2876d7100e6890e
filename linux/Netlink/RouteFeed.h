#pragma once

#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Mox/Notifiee.h"
#include "Netlink/KernelAccess.h"
#include "Netlink/Mirror.h"
#include "Orb/FileDescriptor.h"
#include "Orb/WalkSm.h"

namespace Netlink {

// Who keeps the tables that a feed reads. Called from the feed's tasks only; must not open or close the feed
// from inside.
class RouteFeedClient {
 public:
  virtual ~RouteFeedClient() = default;
  virtual void handleMessage(const Received& message, Word word) = 0;
  // A table is about to be read (or found empty); see Mirror.
  virtual void handleReconcile(Table table) = 0;
  // What to ask the kernel for next of a table that is read, of which `part` requests were answered so far;
  // nothing: that was all.
  virtual std::optional<Message> handleRead(Table table, std::size_t part) {
    return part == 0 ? std::optional(dumpRequest(table)) : std::nullopt;
  }
  // After each datagram: whether the rest of the answer is not wanted.
  virtual bool handleEnough(Table /*table*/) { return false; }
  // A batch of what the reading did not mention is to go; true while there is more.
  virtual bool handleSweep(Table table) = 0;
  // The table was read, or could not be.
  virtual void handleTableRead(Table table) = 0;
  // All tables were; whether with success, and without a loss in the meantime.
  virtual void handleRound(bool complete) = 0;
  // What could not be done, and why; in the same round, or with handleBroken.
  virtual void handleFailure(const std::string& problem) = 0;
  // The sockets are of no use any more: openIs with new ones.
  virtual void handleBroken() = 0;
  // After closeIs: the tables are empty.
  virtual void handleClosed() = 0;
};

// Reads some of the kernel's tables of one network namespace: each once when it opens, in the order given, and
// from then on the changes. When the kernel drops notifications, everything is read again and what was missed
// is found by comparison. A table whose reading was disturbed by a change is read again; what cannot be read
// is reported and retried after a pause.
//
// The work is done in slices, notifications before tables.
class RouteFeed final : private Orb::WalkSmBase {
 public:
  enum class State : std::uint8_t { closed, open, closing };

  // Works in the name of that plug-in, on the tables of the namespace of that name. A patient feed reads
  // tables when the loop has nothing else to do, and when notifications are dropped again and again it reads
  // some seconds later.
  RouteFeed(const Mox::Ptr<Orb::TaskScheduler>& scheduler, RouteFeedClient& client, const std::string& plugin,
            const std::string& name, std::vector<Table> tables, bool patient = false);
  ~RouteFeed() override;

  State state() const { return state_; }
  NamespaceId id() const { return source_ ? source_->id() : NamespaceId{}; }
  // Whether the last round that is over read every table; none: there was none since it was closed.
  const std::optional<bool>& read() const { return read_; }
  // Whether a round that begins is to find everything that was missed; otherwise readAgain asked for it.
  bool everything() const { return everything_; }

  // How many feeds of this process may have missed a change and have not read everything again yet.
  static std::size_t outdated() { return outdatedFeeds_; }

  // How often the kernel has dropped notifications.
  std::uint64_t losses() const { return losses_; }

  // In state closed, or open (for new sockets of the same namespace).
  void openIs(std::unique_ptr<RouteSource> source);
  // Gives the sockets up at once, empties the tables in slices, and is closed then.
  void closeIs();
  // Has the tables read in one more round, if it is open and none is due or goes on.
  void readAgain();
  // Asks the kernel for something else than a dump, and hands the answer on; while no dump is being read.
  Mox::Result<> get(Message request, const Handler& handler) {
    return source_->get(std::move(request), handler);
  }

 private:
  enum class Stage : std::uint8_t { start, read, sweep };

  Orb::WalkRet walk() override;
  bool walkStartedNotification() override;
  void walkFinishedNotification() override;
  bool step();
  void ask();
  void readNext();
  void deliver(const Received& message, Word word);
  void tableDone(bool success);
  void roundIs();
  void broken(const std::string& doing, const Mox::Result<>& result);
  void fail(const std::string& doing, const Mox::Failure& failure);
  void receive();
  void sourceIs(std::unique_ptr<RouteSource> source);
  void outdatedIs(bool outdated);

  RouteFeedClient& client_;
  const std::string name_;
  const std::vector<Table> tables_;
  const bool patient_;
  State state_ = State::closed;
  std::unique_ptr<RouteSource> source_;
  Mox::Ptr<Orb::FileDescriptor> descriptor_;
  Mox::Notifiee<Orb::FileDescriptor> readable_;
  Orb::Task receiveTask_;

  std::size_t table_ = 0;
  Stage stage_ = Stage::start;
  std::size_t part_ = 0;    // requests for the present table so far
  bool lost_ = false;       // notifications, and there are still some to be read
  bool again_ = false;      // notifications were lost since this round began
  bool complete_ = true;    // every table of this round so far was read
  unsigned disturbed_ = 0;  // readings of the present table that changes disturbed
  bool everything_ = true;  // is to be found by the round that goes on or comes
  std::optional<bool> read_;
  std::uint64_t losses_ = 0;
  bool outdated_ = false;
  static inline std::size_t outdatedFeeds_ = 0;
  double retryDelay_ = 0;
  double lossDelay_ = 0;
  double lossTime_ = -std::numeric_limits<double>::infinity();
};

}  // namespace Netlink
