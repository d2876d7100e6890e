#pragma once

#include <cstdint>

#include "Lanix/EthDevPam.h"
#include "Mox/Notifiee.h"
#include "Mox/Owner.h"
#include "Orb/DumpContext.h"
#include "Orb/TimerTask.h"

namespace ArpSuppression {

using Mox::Ptr;

class SafeEthDevPam;

// Enables its owner: in the next turn, and every kRetryDelay seconds again while the device cannot be opened.
// It refers to the owner by plain pointer and goes with it.
class SafeEthDevPamEnableSm final : public Mox::Entity {
 public:
  static constexpr double kRetryDelay = 5.0;

  SafeEthDevPamEnableSm(Ptr<Orb::TaskScheduler> scheduler, SafeEthDevPam* owner);
  ~SafeEthDevPamEnableSm() override;

  Mox::String toStrep() const;

 private:
  void enableTaskIs(Ptr<Orb::TaskScheduler> scheduler);
  void handleEnableTaskRun();
  Mox::String subject() const;

  SafeEthDevPam* owner_;
  Mox::String refusal_;  // of the last attempt
  Mox::Notifiee<Orb::TimerTask> enableTask_;
};

// Receives the frames of one Ethernet protocol (host order) on one device of a network namespace, whether or
// not the device is there yet: making it never fails, and it is not readable before it could be opened. Once
// open it stays so: whoever watches the device drops it when the device goes, which closes it and ends the
// attempts.
class SafeEthDevPam final : public Lanix::EthDevPam {
 public:
  SafeEthDevPam(const Mox::String& deviceName, std::uint16_t ethProtocol, const Lanix::NamespaceName& netNs,
                const Ptr<Orb::TaskScheduler>& scheduler);

  // Keeps the reactor that was made with the same scheduler.
  void enableSmIs(const Ptr<Orb::TaskScheduler>& scheduler) { enableSm_.is(scheduler, this); }
  void enableSmDel() { enableSm_.del(); }

  // "<SafeEthDevPam vlan10 netNs=red enabled=yes>"
  Mox::String toStrep() const;
  void dumpState(Orb::DumpContext& context, int indent) const;

 private:
  Mox::Owner<SafeEthDevPamEnableSm> enableSm_;
};

inline Ptr<SafeEthDevPam> safeEthDevPamFactory(const Mox::String& deviceName, std::uint16_t ethProtocol,
                                               const Lanix::NamespaceName& netNs,
                                               const Ptr<Orb::TaskScheduler>& scheduler) {
  return Mox::make<SafeEthDevPam>(deviceName, ethProtocol, netNs, scheduler);
}

}  // namespace ArpSuppression
