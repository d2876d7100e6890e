#include "ArpSuppression/ArpSuppressionSafeEthDevPam.h"

#include <cerrno>
#include <utility>

#include "ArpSuppression/Problems.h"
#include "ArpSuppression/Trace.h"

namespace ArpSuppression {

namespace {
constexpr char kSource[] = "ArpSuppression/ArpSuppressionSafeEthDevPam";
}

SafeEthDevPamEnableSm::~SafeEthDevPamEnableSm() { problems().problemDel(subject()); }

Mox::String SafeEthDevPamEnableSm::subject() const {
  return "listening on " + owner_->deviceName() + " in network namespace " + owner_->netNs();
}

SafeEthDevPamEnableSm::SafeEthDevPamEnableSm(Ptr<Orb::TaskScheduler> scheduler, SafeEthDevPam* owner)
    : owner_(owner) {
  enableTask_.on(Orb::TimerTask::runsChanged, [this] { handleEnableTaskRun(); });
  enableTaskIs(std::move(scheduler));
}

void SafeEthDevPamEnableSm::enableTaskIs(Ptr<Orb::TaskScheduler> scheduler) {
  enableTask_.notifierIs(
      Mox::make<Orb::TimerTask>(std::move(scheduler), "SafeEthDevPam-" + owner_->deviceName()));
  enableTask_->schedule();
}

void SafeEthDevPamEnableSm::handleEnableTaskRun() {
  if (owner_->enabled()) return;
  const Mox::Result<> enabled = owner_->enabledIs(true);
  // A device that is not there yet, or not any more, is no problem: it is waited for.
  const bool absent = enabled.number() == ENODEV || enabled.number() == ENOENT;
  problems().check(subject(), absent ? Mox::Result<>() : enabled, "correct that; it is tried again");
  if (enabled) {
    TRACE8("enabled");
    return;
  }
  TRACE8("what=" << enabled.error());
  // Once, not with every attempt.
  if (std::exchange(refusal_, enabled.error()) != enabled.error())
    TRACELET_RECORD("listening refused what={}", enabled.error());
  enableTask_->schedule(kRetryDelay);
}

Mox::String SafeEthDevPamEnableSm::toStrep() const {
  return "<SafeEthDevPamEnableSm " + owner_->deviceName() + ">";
}

SafeEthDevPam::SafeEthDevPam(const Mox::String& deviceName, std::uint16_t ethProtocol,
                             const Lanix::NamespaceName& netNs, const Ptr<Orb::TaskScheduler>& scheduler)
    : EthDevPam(scheduler->loop(), deviceName) {
  ethProtocolIs(ethProtocol);
  netNsIs(netNs);
  enableSmIs(scheduler);
}

Mox::String SafeEthDevPam::toStrep() const {
  return "<SafeEthDevPam " + deviceName() + " netNs=" + netNs() + " enabled=" + (enabled() ? "yes" : "no") +
         ">";
}

void SafeEthDevPam::dumpState(Orb::DumpContext& context, int indent) const {
  context.line(indent, "SafeEthDevPam");
  context.attribute(indent, "deviceName", deviceName());
  context.attribute(indent, "netNs", netNs());
  context.attribute(indent, "enabled", enabled());
  context.attribute(indent, "readableCount", readableCount());
}

}  // namespace ArpSuppression
