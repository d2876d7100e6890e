#include "Netlink/RouteFeed.h"

#include <algorithm>
#include <utility>

#include "Netlink/Trace.h"

namespace Netlink {
namespace {

constexpr char kSource[] = "Netlink/RouteFeed";
// Changes are more urgent than the tables that they are about.
constexpr unsigned kReceiveLevel = 2;
constexpr unsigned kPatientLevel = 4;
constexpr std::size_t kMessagesPerCall = 64;
// A table that changes all the time is left to its notifications after so many readings, and to a later
// round.
constexpr unsigned kMaxDisturbed = 8;
constexpr double kFirstRetry = 0.1;  // seconds
constexpr double kLastRetry = 60;
// Between a loss and the reading that makes it good, where others go first: nothing for the first one in a
// while, then from here on and twice as much each time, for a reading gains nothing while changes are lost.
constexpr double kFirstLoss = 0.25;
constexpr double kLastLoss = 8;
constexpr double kQuiet = 30;

}  // namespace

RouteFeed::RouteFeed(const Mox::Ptr<Orb::TaskScheduler>& scheduler, RouteFeedClient& client,
                     const std::string& plugin, const std::string& name, std::vector<Table> tables,
                     bool patient)
    : WalkSmBase(scheduler, plugin + " tables of " + name, patient ? kPatientLevel : kDefaultLevel),
      client_(client),
      name_(name),
      tables_(std::move(tables)),
      patient_(patient),
      descriptor_(Mox::make<Orb::FileDescriptor>(scheduler->loop(), plugin + " changes of " + name)),
      readable_(descriptor_),
      receiveTask_(scheduler, plugin + " changes of " + name, kReceiveLevel, [this] { receive(); }) {
  readable_.on(Orb::FileDescriptor::readableCountChanged, [this] { receiveTask_.schedule(); });
  descriptor_->notifyOnReadableIs(true);
}

// The descriptor may be held by the loop for the rest of a turn; the socket behind it closes now.
RouteFeed::~RouteFeed() {
  outdatedIs(false);
  sourceIs(nullptr);
}

void RouteFeed::outdatedIs(bool outdated) {
  if (std::exchange(outdated_, outdated) == outdated) return;
  outdated ? ++outdatedFeeds_ : --outdatedFeeds_;
}

void RouteFeed::sourceIs(std::unique_ptr<RouteSource> source) {
  descriptor_->descriptorIs(-1);
  receiveTask_.cancel();
  lost_ = false;
  source_ = std::move(source);
  if (!source_) return;
  try {
    descriptor_->descriptorIs(source_->descriptor());
  } catch (const Mox::Error&) {
    descriptor_->descriptorIs(-1);
    source_ = nullptr;
    throw;
  }
}

void RouteFeed::openIs(std::unique_ptr<RouteSource> source) {
  sourceIs(std::move(source));
  state_ = State::open;
  roundIs();
  everything_ = true;
  scheduleWalk();
}

void RouteFeed::roundIs() {
  table_ = 0;
  stage_ = Stage::start;
  complete_ = true;
  again_ = false;
}

void RouteFeed::readAgain() {
  if (state_ == State::open && !walkScheduled()) scheduleWalk();
}

void RouteFeed::closeIs() {
  if (state_ != State::open) return;
  sourceIs(nullptr);
  outdatedIs(false);
  state_ = State::closing;
  disturbed_ = 0;
  table_ = 0;
  stage_ = Stage::start;
  scheduleWalk();
}

bool RouteFeed::walkStartedNotification() {
  roundIs();
  return state_ != State::closed;
}

Orb::WalkRet RouteFeed::walk() {
  Orb::WalkRet ret;
  do {
    ++ret.processed;
    if (!step()) return ret;
  } while (!mustYield());
  ret.moreWork = true;
  return ret;
}

// One datagram or one batch; false when the round is over.
bool RouteFeed::step() {
  const Table table = tables_[table_];
  switch (stage_) {
    case Stage::start:
      client_.handleReconcile(table);
      stage_ = Stage::sweep;
      if (state_ == State::closing) break;
      part_ = 0;
      ask();
      break;
    case Stage::read:
      readNext();
      break;
    case Stage::sweep:
      if (!client_.handleSweep(table)) tableDone(true);
      break;
  }
  return table_ < tables_.size();
}

void RouteFeed::ask() {
  auto request = client_.handleRead(tables_[table_], part_++);
  stage_ = request ? Stage::read : Stage::sweep;
  if (!request) return;
  if (const auto started = source_->dumpStart(std::move(*request)); !started) {
    fail("asking for ", started.failure());
    tableDone(false);
  }
}

void RouteFeed::readNext() {
  const DumpSlice slice =
      source_->dumpSlice([this](const Received& message) { deliver(message, Word::dump); });
  if (!slice.done) {
    if (!client_.handleEnough(tables_[table_])) return;
    if (const auto ended = source_->dumpEnd(); !ended) return broken("ending a reading: ", ended);
    return ask();
  }
  if (!slice.result) {
    fail("reading ", slice.result.failure());
    tableDone(false);
  } else if (!slice.interrupted) {
    ask();
  } else if (++disturbed_ < kMaxDisturbed) {
    stage_ = Stage::start;
  } else {
    fail("reading ", {"it changes all the time", 0});
    tableDone(false);
  }
}

// A value out of range costs the message that has it, not those behind it.
void RouteFeed::deliver(const Received& message, Word word) {
  try {
    client_.handleMessage(message, word);
  } catch (const Mox::Error& error) {
    NETLINK_TRACE(0, "network namespace \"" << name_ << "\": message of type " << message.type()
                                            << " ignored: " << error.what());
  }
}

void RouteFeed::tableDone(bool success) {
  complete_ = complete_ && success;
  disturbed_ = 0;
  client_.handleTableRead(tables_[table_]);
  ++table_;
  stage_ = Stage::start;
}

void RouteFeed::fail(const std::string& doing, const Mox::Failure& failure) {
  client_.handleFailure(doing + nameOf(tables_[table_]) + ": " + failure.text);
}

void RouteFeed::walkFinishedNotification() {
  if (state_ == State::closing) {
    state_ = State::closed;
    read_.reset();
    client_.handleClosed();
    return;
  }
  if (state_ == State::closed) return;
  everything_ = again_ || !complete_;
  if (!everything_) outdatedIs(false);
  if (again_) scheduleWalk(lossDelay_);
  if (again_ && lossDelay_ == 0) return;
  read_ = !everything_;
  client_.handleRound(!everything_);
  if (again_) return;
  retryDelay_ = complete_ ? 0 : std::clamp(retryDelay_ * 2, kFirstRetry, kLastRetry);
  if (!complete_) scheduleWalk(retryDelay_);
}

// A socket that has overrun drops everything, without another word, until it has been read empty: only what
// is read after that is complete together with the notifications.
void RouteFeed::receive() {
  Notifications result;
  do {
    result = source_->receive([this](const Received& message) { deliver(message, Word::notification); },
                              kMessagesPerCall);
    lost_ = lost_ || result.overrun;
    losses_ += result.overrun ? 1 : 0;
    if (result.overrun) outdatedIs(true);
    if (!result.result) return broken("receiving changes: ", result.result);
  } while (result.more && !scheduler()->root().mustYield());
  if (result.more) {
    receiveTask_.schedule();
  } else if (std::exchange(lost_, false)) {
    TRACELET_RECORD("kernel dropped notifications of namespace {}", name_);
    const double now = scheduler()->loop().now();
    const bool repeated = patient_ && now < lossTime_ + kQuiet;
    lossDelay_ = repeated ? std::clamp(lossDelay_ * 2, kFirstLoss, kLastLoss) : 0;
    lossTime_ = now;
    everything_ = again_ = true;
    scheduleWalk(lossDelay_);
  }
}

void RouteFeed::broken(const std::string& doing, const Mox::Result<>& result) {
  outdatedIs(true);
  client_.handleFailure(doing + result.error());
  client_.handleBroken();
}

}  // namespace Netlink
