#include "ArpSuppression/LocalRequestRecordSm.h"

#include <utility>

#include "ArpSuppression/Problems.h"
#include "ArpSuppression/Trace.h"

namespace ArpSuppression {

namespace {
constexpr char kSource[] = "ArpSuppression/LocalRequestRecordSm";
}

LocalRequestRecordSm::LocalRequestRecordSm(Ptr<Orb::TaskScheduler> scheduler,
                                           Ptr<const MessageTrap> receivedRequestTrap,
                                           Ptr<LocalRequestRecord> localRequestRecord,
                                           Ptr<const Limits> limits,
                                           Ptr<ArpSuppressionCounterStatus> arpSuppressionCounterStatus)
    : WalkSmBase(std::move(scheduler), "LocalRequestRecordSm"),
      receivedRequestTrap_(std::move(receivedRequestTrap)),
      localRequestRecord_(std::move(localRequestRecord)),
      limits_(limits ? std::move(limits) : Mox::make<Limits>()),
      arpSuppressionCounterStatus_(std::move(arpSuppressionCounterStatus)),
      full_(problems(), this->scheduler()->loop(), "request records",
            [this] { return localRequestRecord_->entrys() >= limits_->requestRecords(); }) {
  receivedRequestTrap_.on(MessageTrap::lastTrappedMessageChanged, [this] { handleTrappedRequest(); });
}

void LocalRequestRecordSm::entryLifetimeIs(double seconds) {
  entryLifetime_ = seconds;
  if (localRequestRecord_->entrys() != 0) scheduleWalk();
}

void LocalRequestRecordSm::handleTrappedRequest() {
  const Ptr<const TrappedMessage> request = receivedRequestTrap_->lastTrappedMessage();
  if (!request) return;
  TRACE8("trappedRequest=" << request);
  // A walk is scheduled while there are entries, unless an error ended it.
  if (!walkScheduled()) scheduleWalk(entryLifetime_);
  if (localRequestRecord_->recordLocalRequest({request->vlanId(), request->targetIpAddress()},
                                              scheduler()->loop().now(), limits_->requestRecords()))
    return;
  if (arpSuppressionCounterStatus_)
    arpSuppressionCounterStatus_->increment(ArpSuppressionCounterId::requestRecordRefused);
  full_.happened(
      "as many addresses are recorded that hosts asked for as limits.requestRecords of the configuration "
      "allows: further ones are answered or flooded as ever, and not recorded",
      "find out who asks for that many addresses; where that is right, raise that limit and reload",
      Switch::Origin::perhapsStorm);
}

Orb::WalkRet LocalRequestRecordSm::walk() {
  Orb::WalkRet ret;
  const double now = scheduler()->loop().now();
  const auto left = [&](double requestTime) { return requestTime + entryLifetime_ - now; };
  while (const LocalRequestRecordEntry* const entry = localRequestRecord_->oldest()) {
    if (const double wait = left(entry->lastRequestTime); wait > 0) {
      scheduleWalk(wait);
      break;
    }
    const RemoteBindingKey key = entry->remoteBindingKey;
    if (left(localRequestRecord_->lastRequestTime(key)) > 0) {
      localRequestRecord_->entryRequeue();
    } else {
      TRACE8("expired remoteBindingKey=" << key);
      localRequestRecord_->entryDel(key);
    }
    ++ret.processed;
    if (mustYield()) {
      ret.moreWork = true;
      break;
    }
  }
  return ret;
}

void LocalRequestRecordSm::dumpState(Orb::DumpContext& context, int indent) const {
  context.line(indent, "LocalRequestRecordSm");
  context.attribute(indent, "entryLifetime", entryLifetime_);
  context.child(indent + 2, localRequestRecord_, "LocalRequestRecord");
}

}  // namespace ArpSuppression
