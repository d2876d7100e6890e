#include "ArpSuppression/RemoteBindingStatus.h"

#include "Mox/Assert.h"

namespace ArpSuppression {

namespace {
constexpr char kSource[] = "ArpSuppression/RemoteBindingStatus";
}

const VlanIdMacAddress& RemoteIpToMac::firstVlanIdMacAddress() const {
  MOX_ASSERT(kSource, "iter", vlanIdMacAddresss() != 0);
  return vlanIdMacAddressCollection().begin()->key;
}

bool RemoteIpToMac::isFirstVlanIdMacAddressLocalMultihomed() const {
  return vlanIdMacAddresss() != 0 && vlanIdMacAddressCollection().begin()->value;
}

Mox::String RemoteIpToMac::toStrep() const {
  Mox::String text = "<vrfIpAddress=" + vrfIpAddress_.toStrep() + " macAddress=[";
  for (const auto& member : vlanIdMacAddressCollection()) {
    text += member.key.toStrep() + (member.value ? "(local multihomed)" : "");
  }
  return text + "]";
}

void RemoteIpToMac::dumpState(Orb::DumpContext& context, int indent) const {
  context.line(indent, "RemoteIpToMac " + toStrep());
}

Mox::String RemoteMacToIp::toStrep() const {
  Mox::String text = "<vlanIdMacAddress=" + vlanIdMacAddress_.toStrep() + " ipAddress=[";
  const char* separator = "";
  for (const Lanix::IpGenAddr& address : ipAddress_.keys()) {
    text += separator + address.toStrep();
    separator = " ";
  }
  return text + "]";
}

void RemoteMacToIp::dumpState(Orb::DumpContext& context, int indent) const {
  context.line(indent, "RemoteMacToIp " + vlanIdMacAddress_.toStrep() + " ->");
  for (const Lanix::IpGenAddr& address : ipAddress_.keys()) context.line(indent + 2, address.toStrep());
}

void RemoteBindingStatus::dumpState(Orb::DumpContext& context, int indent) const {
  context.line(indent, "RemoteBindingStatus #macToIps=" + std::to_string(macToIps()) +
                           " #ipToMacs=" + std::to_string(ipToMacs()));
  context.attribute(indent, "initialPopulationComplete", initialPopulationComplete());
  context.attribute(indent, "refusing", refusing());
  context.line(indent, "macToIp:");
  for (const Ptr<RemoteMacToIp>& member : macToIpCollection())
    context.child(indent + 2, member, "RemoteMacToIp");
  context.line(indent, "ipToMac:");
  for (const Ptr<RemoteIpToMac>& member : ipToMacCollection())
    context.child(indent + 2, member, "RemoteIpToMac");
  dumpVrfReferences(context, indent);
}

}  // namespace ArpSuppression
