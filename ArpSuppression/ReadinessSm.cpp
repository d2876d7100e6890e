#include "ArpSuppression/ReadinessSm.h"

#include <utility>

#include "L3/VrfName.h"

namespace ArpSuppression {

namespace {
constexpr char kAgent[] = "ArpSuppression";
}

ReadinessSm::ReadinessSm(Ptr<const MessageTrapSm> messageTrapSm,
                         Ptr<const MessageReinjectSmBase> messageReinjectSm,
                         Ptr<const RemoteBindingStatus> remoteBindingStatus,
                         const Ptr<VlanL3InfoStatus>& vlanL3InfoStatus, Ptr<Switch::Readiness> readiness)
    : messageTrapSm_(std::move(messageTrapSm)),
      messageReinjectSm_(std::move(messageReinjectSm)),
      remoteBindingStatus_(std::move(remoteBindingStatus)),
      vlanL3InfoStatus_(vlanL3InfoStatus),
      fabric_(vlanL3InfoStatus->findOrCreateVrfInterfaceWatch(L3::VrfName::kDefault, "fabric")),
      readiness_(std::move(readiness)) {
  messageTrapSm_.on(MessageTapSocketSm::socketOpenChanged, [this] { handle(); });
  messageReinjectSm_.on(MessageTapSocketSm::socketOpenChanged, [this] { handle(); });
  remoteBindingStatus_.on(RemoteBindingStatus::initialPopulationCompleteChanged, [this] { handle(); });
  vlanL3InfoStatus_.on(VlanL3InfoStatus::initialArpSuppressionStatusSyncChanged, [this] { handle(); });
  fabric_.on(VrfInterfaceWatch::kniIntfIfIndexChanged, [this] { handle(); });
  handle();
}

ReadinessSm::~ReadinessSm() { notRunning(*readiness_); }

void ReadinessSm::notRunning(Switch::Readiness& readiness) {
  readiness.awaitedIs(kAgent, "EVPN over MPLS to be configured");
}

void ReadinessSm::handle() { readiness_->awaitedIs(kAgent, awaited()); }

const char* ReadinessSm::awaited() const {
  if (!messageTrapSm_->socketOpen()) return "its trap socket";
  if (!messageReinjectSm_->socketOpen()) return "its reinject socket";
  if (!fabric_->usable()) return "the device \"fabric\", by which answers leave";
  if (!remoteBindingStatus_->initialPopulationComplete()) return "the first reading of the remote bindings";
  if (!vlanL3InfoStatus_->initialArpSuppressionStatusSync()) return "the first look at the VLANs' interfaces";
  return "";
}

}  // namespace ArpSuppression
