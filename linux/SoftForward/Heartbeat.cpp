#include "SoftForward/Heartbeat.h"

#include <cstdio>
#include <limits>
#include <utility>

#include "SoftForward/Shared.h"
#include "Tracelet/Record.h"
#include "Tracelet/Trace.h"

namespace SoftForward {
namespace {

constexpr double kBeats = 3;  // in the time that one lasts
constexpr double kNanoseconds = 1e9;

}  // namespace

Heartbeat::Heartbeat(Orb::EventLoop& loop, Programs& programs, std::function<void()> late,
                     std::function<void()> beaten)
    : loop_(loop),
      programs_(programs),
      late_(std::move(late)),
      beaten_(std::move(beaten)),
      timer_(loop, "SoftForward heartbeat", [this] { beat(); }) {}

Heartbeat::~Heartbeat() { beatingIs(false); }

void Heartbeat::secondsIs(double seconds) {
  seconds_ = seconds;
  if (beating_) beat();
}

void Heartbeat::beatingIs(bool beating) {
  if (beating == beating_ || expired_) return;
  beating_ = beating;
  if (beating) {
    last_ = loop_.clock().now();
    until_ = std::numeric_limits<double>::infinity();  // the first is not late
    return beat();
  }
  timer_.cancel();
  programs_.trustedUntilIs(0);
}

void Heartbeat::expire() {
  if (expired_) return;
  const double now = loop_.clock().now();
  expired_ = now;
  if (!std::exchange(beating_, false)) return;
  timer_.cancel();
  programs_.trustedUntilIs(static_cast<std::uint64_t>(now * kNanoseconds));
  *expired_ += SOFT_FORWARD_CROSSING_NS / kNanoseconds;
}

void Heartbeat::beat() {
  const double now = loop_.clock().now();
  const double flooded = now - until_;
  const double silence = now - last_;
  if (flooded > 0) late_();
  until_ = now + seconds_;
  programs_.trustedUntilIs(static_cast<std::uint64_t>(until_ * kNanoseconds));
  timer_.after(seconds_ / kBeats);
  last_ = now;
  beaten_();
  if (flooded <= 0) return;
  char line[160];
  std::snprintf(
      line, sizeof line,
      "SoftForward: the agent-host did nothing for %.1f s, and requests were flooded for %.1f s of it",
      silence, flooded);
  Tracelet::writeLine(line, Tracelet::Priority::warning);
  TRACELET_RECORD("late heartbeat after {} s", silence);
}

std::optional<double> Heartbeat::age() const {
  if (!beating_) return std::nullopt;
  return loop_.clock().now() - last_;
}

}  // namespace SoftForward
