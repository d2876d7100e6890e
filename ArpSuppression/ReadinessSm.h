#pragma once

#include "ArpSuppression/ArpSuppressionSm.h"
#include "ArpSuppression/MessageReinjectSm.h"
#include "ArpSuppression/MessageTrapSm.h"
#include "ArpSuppression/RemoteBindingStatus.h"
#include "ArpSuppression/VlanL3Info.h"
#include "Switch/Readiness.h"

namespace ArpSuppression {

// The agent's word at "switch/readiness": whether what is trapped from now on is answered or flooded. That
// takes the trap and reinject sockets, the device that answers leave by, and tables that were populated once.
// Until it is made, and when it goes, the word is that suppression does not run.
class ReadinessSm final : public Mox::Entity {
 public:
  ReadinessSm(Ptr<const MessageTrapSm> messageTrapSm, Ptr<const MessageReinjectSmBase> messageReinjectSm,
              Ptr<const RemoteBindingStatus> remoteBindingStatus,
              const Ptr<VlanL3InfoStatus>& vlanL3InfoStatus, Ptr<Switch::Readiness> readiness);
  ~ReadinessSm() override;

  static void notRunning(Switch::Readiness& readiness);

 private:
  void handle();
  const char* awaited() const;

  Mox::Notifiee<const MessageTrapSm> messageTrapSm_;
  Mox::Notifiee<const MessageReinjectSmBase> messageReinjectSm_;
  Mox::Notifiee<const RemoteBindingStatus> remoteBindingStatus_;
  Mox::Notifiee<const VlanL3InfoStatus> vlanL3InfoStatus_;
  Mox::Notifiee<const VrfInterfaceWatch> fabric_;
  Ptr<Switch::Readiness> readiness_;
};

}  // namespace ArpSuppression
