#include "lab/WholeSwitch.h"

namespace Lab {

void WholeSwitch::SetUp() {
  pinToOneCpu();  // the daemon too: frames arrive in the order of sending
  try {
    if (GetParam().filtering) run("ip link add br0 up type bridge vlan_filtering 1 mcast_snooping 0");
    vlan10_ = vlanIs(10, GetParam().vlan10, "blue", 6, {"core10", "core11"});
  } catch (const Unsupported& lacking) {
    GTEST_SKIP() << lacking.what();
  }
  host1_.emplace(portOf(vlan10_, "Ethernet1"));
  host2_.emplace(portOf(vlan10_, "Ethernet2", Tags::onTrunks));
  far_.emplace(portOf(vlan10_, "core10", Tags::onTrunks));
  far2_.emplace(portOf(vlan10_, "core11"));
}

void WholeSwitch::vlan20Is() {
  vlan20_ = vlanIs(20, GetParam().vlan20, "red", 5, {"core20"});
  far20_.emplace(portOf(vlan20_, "core20"));
  if (GetParam().filtering) return;
  const Mac own = macOf(vlan10_);  // they share it
  const Entered entered(*vlan20_.where);
  ifinfomsg link{};
  link.ifi_index = static_cast<int>(ifIndex(vlan20_.device));
  KernelState::request(std::move(
      Netlink::Message(RTM_SETLINK).header(link).bytes(IFLA_ADDRESS, std::as_bytes(std::span(own)))));
}

WholeSwitch::Vlan WholeSwitch::vlanIs(std::uint16_t id, Placed placed, const std::string& vrf, int vrfId,
                                      const Strings& tunnelPorts) {
  const std::string number = std::to_string(id);
  const std::string device = "vlan" + number;
  const bool separate = placed == Placed::inNamespace && !GetParam().filtering;
  Vlan vlan{id,        GetParam().filtering ? "br0" : separate ? "br" + number : device,
            device,    &switch_.netNs(),
            "default", 0};
  if (GetParam().filtering) {
    run("bridge vlan add vid " + number + " dev br0 self");
    run("ip link add link br0 name " + device + " type vlan id " + number);
  } else {
    bridgeIs(vlan.bridge);
  }
  if (placed != Placed::inDefaultVrf) {
    vlan.vrf = vrf;
    vlan.vrfId = vrfId;
    config_["vrfs"][vrf]["id"] = vrfId;
  }
  if (placed == Placed::inNamespace) {
    const Namespace& where = vrfs_.try_emplace(vrf, vrf).first->second;
    vlan.where = &where;
    config_["vrfs"][vrf]["networkNamespace"] = where.name();
    if (separate) {
      vethIs("to-" + device, device, where);
      portIs("to-" + device, vlan.bridge);
    } else {
      run("ip link set " + device + " netns " + where.name());
    }
  } else if (placed == Placed::belowVrfDevice) {
    run("ip link add " + vrf + " up type vrf table " + std::to_string(vrfId));
    run("ip link set " + device + " master " + vrf);
    config_["vrfs"][vrf]["device"] = vrf;
  }
  {
    const Entered entered(*vlan.where);
    upIs(device);
    KernelState::addressIs(device, "10.0." + number + ".1/24");
  }
  config_["vlans"][number] = {{"bridge", vlan.bridge}, {"tunnelPorts", tunnelPorts}};
  json& state = config_["state"];
  state["evpn/status"]["vlanToDot1q"][number] = id;
  const std::string remote = "02:00:00:00:00:" + std::string(id == 10 ? "99" : "98");
  state[kBindings]["remoteBinding"][number + " 10.0." + number + ".99"]["mac"] = remote;
  return vlan;
}

PacketSocket WholeSwitch::portOf(const Vlan& vlan, const std::string& port, Tags tags) {
  vethIs(port, "far-" + port, outside_);
  portIs(port, vlan.bridge);
  const bool trunk = GetParam().filtering && tags == Tags::onTrunks;
  if (GetParam().filtering) {
    run("bridge vlan del vid 1 dev " + port);
    run("bridge vlan add vid " + std::to_string(vlan.id) + " dev " + port + (trunk ? "" : " pvid untagged"));
  }
  const Entered entered(outside_);
  PacketSocket socket("far-" + port);
  if (trunk) socket.vlanIs(vlan.id);
  return socket;
}

}  // namespace Lab
