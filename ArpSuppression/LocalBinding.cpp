#include "ArpSuppression/LocalBinding.h"

#include <utility>

#include "ArpSuppression/Trace.h"
#include "Mox/Assert.h"

namespace ArpSuppression {

namespace {
constexpr char kSource[] = "ArpSuppression/LocalBinding";
}

Mox::String LocalBinding::toStrep() const {
  return "<" + vrfIpAddress_.toStrep() + ";" + vlanIdMacAddress_.toStrep() +
         ";dynSt=" + (arpStatusHasDynamicEntry() ? "yes" : "no") + " >";
}

void LocalBinding::dumpState(Orb::DumpContext& context, int indent) const {
  context.line(indent, "LocalBinding " + toStrep());
}

Mox::String LocalMacToIp::toStrep() const {
  Mox::String text = "<" + vlanIdMacAddress_.toStrep() + " binding=[";
  for (const auto& [key, binding] : bindingCollection()) text += " " + key.toStrep();
  return text + " ]>";
}

void LocalMacToIp::dumpState(Orb::DumpContext& context, int indent) const {
  context.line(indent, "LocalMacToIp " + toStrep());
}

// The VRF counts are left alone: the status that they belong to goes at the same time.
LocalBindingRecord::~LocalBindingRecord() {
  bindingDelAll();
  macToIpDelAll();
}

Ptr<LocalBinding> LocalBindingRecord::createLocalBinding(const VrfIpAddress& vrfIpAddress,
                                                         const VlanIdMacAddress& vlanIdMacAddress,
                                                         bool confirmed) {
  // Counted before anything is removed: replacing the only binding of a VRF must not let the VRF go.
  referenceVrf(vrfIpAddress.vrfInfo);
  const Ptr<LocalBinding> existing = binding(vrfIpAddress);
  TRACE8("vrfIpAddress=" << vrfIpAddress << " vlanIdMacAddress=" << vlanIdMacAddress
                         << " existingBinding=" << existing);
  if (existing) deleteLocalBinding(existing);
  const Ptr<LocalBinding> created = bindingIs(vrfIpAddress, vlanIdMacAddress, confirmed);
  const Ptr<LocalMacToIp> ofMac = macToIpIs(vlanIdMacAddress);
  ofMac->bindingIs(created);
  countAtPort(ofMac->port(), 1, 0);
  ++bindingsOfVlans_[vlanIdMacAddress.vlanId];
  return created;
}

void LocalBindingRecord::deleteLocalBinding(const Ptr<LocalBinding>& given) {
  const Ptr<LocalBinding> doomed = given;  // what was given may be a member that goes below
  TRACE8("binding=" << doomed);
  const VrfIpAddress vrfIpAddress = doomed->vrfIpAddress();
  const VlanIdMacAddress vlanIdMacAddress = doomed->vlanIdMacAddress();
  Ptr<LocalBinding> deleted = bindingDel(vrfIpAddress);
  MOX_ASSERT(kSource, "deletedBinding == _binding", deleted == doomed);
  const Ptr<LocalMacToIp> ofMac = macToIp(vlanIdMacAddress);
  MOX_ASSERT(kSource, "nullptr != _macToIp", ofMac != nullptr);
  deleted = ofMac->binding(vrfIpAddress);
  ofMac->bindingDel(vrfIpAddress);
  MOX_ASSERT(kSource, "deletedBinding == _binding", deleted == doomed);
  countAtPort(ofMac->port(), 0, 1);
  if (ofMac->bindings() == 0) macToIpDel(vlanIdMacAddress);
  if (--bindingsOfVlans_[vlanIdMacAddress.vlanId] == 0) bindingsOfVlans_.erase(vlanIdMacAddress.vlanId);
  releaseVrf(vrfIpAddress.vrfInfo);
}

Lanix::IntfId LocalBindingRecord::portIs(const VlanIdMacAddress& vlanIdMacAddress,
                                         const Lanix::IntfId& port) {
  const Ptr<LocalMacToIp> ofMac = macToIp(vlanIdMacAddress);
  if (!ofMac || ofMac->port() == port) return port;
  const Lanix::IntfId before = std::exchange(ofMac->port_, port);
  countAtPort(before, 0, ofMac->bindings());
  countAtPort(port, ofMac->bindings(), 0);
  return before;
}

std::size_t LocalBindingRecord::bindingsOfPort(const Lanix::IntfId& port) const {
  const auto found = bindingsOfPorts_.find(port);
  return found == bindingsOfPorts_.end() ? 0 : found->second;
}

void LocalBindingRecord::countAtPort(const Lanix::IntfId& port, std::size_t more, std::size_t fewer) {
  if (!port) return;
  std::size_t& bindings = bindingsOfPorts_[port];
  bindings = bindings + more - fewer;
  if (bindings == 0) bindingsOfPorts_.erase(port);
}

void LocalBindingRecord::dumpState(Orb::DumpContext& context, int indent) const {
  context.line(indent, "LocalBindingRecord");
  context.line(indent, "binding #" + std::to_string(bindings()));
  for (const Ptr<LocalBinding>& member : bindingCollection())
    context.child(indent + 2, member, "LocalBinding");
  context.line(indent, "macToIp #" + std::to_string(macToIps()));
  for (const Ptr<LocalMacToIp>& member : macToIpCollection())
    context.child(indent + 2, member, "LocalMacToIp");
  dumpVrfReferences(context, indent);
}

}  // namespace ArpSuppression
