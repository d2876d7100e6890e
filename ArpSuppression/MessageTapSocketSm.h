#pragma once

#include <cstdint>
#include <optional>

#include "ArpSuppression/VlanL3Info.h"
#include "Mox/Attribute.h"
#include "Mox/Notifiee.h"
#include "Mox/Result.h"
#include "Orb/EventLoop.h"
#include "Orb/FileDescriptor.h"
#include "Orb/WalkSm.h"

namespace ArpSuppression {

// Owns one raw packet socket on a named kernel device of the default VRF: open while the device is usable,
// opened again whenever its kernel index changes. Each time it becomes ready the walk of the derived class is
// scheduled; that walk reads or writes until the socket would block, or comes back by itself.
class MessageTapSocketSm : public Orb::WalkSmBase {
 public:
  // Which frames the socket receives.
  enum class Protocol : std::uint8_t {
    invalid,
    tervakArpSnoop,  // the trap Ethernet type, 0x8135
    allProtocols,    // ETH_P_ALL
  };
  // Which readiness schedules the walk. A writable socket is for sending only: it receives nothing.
  enum class NotifyMode : std::uint8_t { readable, writable };

  const Mox::String& interfaceName() const { return interfaceName_; }
  Mox::String toStrep() const { return "<" + walkName() + " " + interfaceName_ + ">"; }
  // Written here only.
  MOX_ATTRIBUTE(bool, socketOpen, false)
  // Why there is no socket although the device is usable; good otherwise.
  const Mox::Result<>& opened() const { return opened_; }

 protected:
  MessageTapSocketSm(Ptr<Orb::TaskScheduler> scheduler, Mox::String taskName, unsigned level,
                     Mox::String interfaceName, Protocol protocol, NotifyMode notifyMode,
                     Ptr<VlanL3InfoStatus> vlanL3InfoStatus);
  ~MessageTapSocketSm() override;

  // The open socket, or -1.
  int socket() const;
  // After a refused write: readiness does not schedule the walk before half of what waits in the device's
  // queue has left it. With none of ours in the queue (others filled it, or it was emptied since) no readiness
  // will tell of place: the walk runs 0.1 s later. False: any readiness schedules it.
  void awaitSentIs(bool await);
  void dumpSocket(Orb::DumpContext& context, int indent) const;

 private:
  void handleMessageTapSocketSmInitialized();
  void handleMessageTapSocketSmDestroy();
  void handleKniIntfIfIndex();
  void handleFileDescriptor();
  void openSocket();
  Mox::Result<> tryOpenSocket();
  void openedIs(Mox::Result<> opened);
  void closeSocket();

  Mox::String interfaceName_;
  Protocol protocol_;
  NotifyMode notifyMode_;
  Ptr<VlanL3InfoStatus> vlanL3InfoStatus_;
  Mox::Notifiee<VrfInterfaceWatch> interfaceWatch_;
  Mox::Notifiee<Orb::FileDescriptor> fileDescriptor_;
  Mox::Result<> opened_;
  Orb::Timer retry_;
  std::optional<int> awaitedUnsent_;  // bytes that may still wait; set while they are waited for
};

}  // namespace ArpSuppression
