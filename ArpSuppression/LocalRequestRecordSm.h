#pragma once

#include "ArpSuppression/LocalRequestRecord.h"
#include "ArpSuppression/TrappedMessage.h"
#include "Mox/Notifiee.h"
#include "Orb/WalkSm.h"
#include "Suppression/Counter.h"
#include "Suppression/Limits.h"
#include "Switch/PassingProblem.h"

namespace ArpSuppression {

// Records what every trapped request asked for, whatever becomes of the request, and forgets it when it was
// not asked for again within the lifetime. What there is no room for is counted and not recorded; nothing
// else becomes of the request for it.
class LocalRequestRecordSm final : public Orb::WalkSmBase {
 public:
  LocalRequestRecordSm(Ptr<Orb::TaskScheduler> scheduler, Ptr<const MessageTrap> receivedRequestTrap,
                       Ptr<LocalRequestRecord> localRequestRecord, Ptr<const Limits> limits = nullptr,
                       Ptr<ArpSuppressionCounterStatus> arpSuppressionCounterStatus = nullptr);

  // Seconds from the latest request for an entry to its end; holds for the entries that are there as well.
  double entryLifetime() const { return entryLifetime_; }
  void entryLifetimeIs(double seconds);

  Mox::String toStrep() const { return "<LocalRequestRecordSm>"; }
  void dumpState(Orb::DumpContext& context, int indent) const;

 private:
  Orb::WalkRet walk() override;
  void handleTrappedRequest();

  Mox::Notifiee<const MessageTrap> receivedRequestTrap_;
  Ptr<LocalRequestRecord> localRequestRecord_;
  Ptr<const Limits> limits_;
  Ptr<ArpSuppressionCounterStatus> arpSuppressionCounterStatus_;
  Switch::PassingProblem full_;
  double entryLifetime_ = 240;
};

}  // namespace ArpSuppression
