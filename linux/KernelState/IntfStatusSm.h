#pragma once

#include <map>

#include "Interface/Directory.h"
#include "KernelState/Tables.h"
#include "Mox/Notifiee.h"

namespace KernelState {

// Fills the directories of interfaces: one interface for each kernel device of the default namespace. The
// directories belong to whoever needs them, and may come later, or never.
class IntfStatusSm final : public Mox::Entity {
 public:
  explicit IntfStatusSm(Ptr<const NamespaceState> state);

  // Either may be null. Fills one that is new.
  void directoriesAre(Ptr<Interface::AllIntfStatusDir> all, Ptr<Interface::AllIntfStatusLocalDir> local);

 private:
  void handleLink(IfIndex ifIndex);

  Mox::Notifiee<const NamespaceState> state_;
  Ptr<Interface::AllIntfStatusDir> all_;
  Ptr<Interface::AllIntfStatusLocalDir> local_;
  std::map<IfIndex, Lanix::IntfId> intfOf_;
  std::map<Lanix::IntfId, unsigned> devices_;  // "vlan10" and "Vlan10" are two devices of one interface
};

}  // namespace KernelState
