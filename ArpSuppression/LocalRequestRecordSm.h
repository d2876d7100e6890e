#pragma once

#include "ArpSuppression/LocalRequestRecord.h"
#include "ArpSuppression/TrappedMessage.h"
#include "Mox/Notifiee.h"
#include "Orb/WalkSm.h"

namespace ArpSuppression {

// Records what every trapped request asked for, whatever becomes of the request, and forgets it when it was
// not asked for again within the lifetime.
class LocalRequestRecordSm final : public Orb::WalkSmBase {
 public:
  LocalRequestRecordSm(Ptr<Orb::TaskScheduler> scheduler, Ptr<const MessageTrap> receivedRequestTrap,
                       Ptr<LocalRequestRecord> localRequestRecord);

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
  double entryLifetime_ = 240;
};

}  // namespace ArpSuppression
