#include <linux/neighbour.h>
#include <linux/rtnetlink.h>

#include "KernelEvpn/KernelEvpnAgent.h"
#include "Suppression/RemoteBindingConfig.h"
#include "fuzz/Input.h"
#include "test/linux/KernelState/Fixture.h"

namespace {

using ArpSuppression::RemoteBindingConfig;
using Netlink::FakeNeighbour;

constexpr char kPath[] = "arpSuppression/remoteBindingConfig/evpn";
constexpr double kLong = 100;  // seconds, in which whatever was put off is done

// VLAN 10 is bridge vlan10 with a port, VLAN 20 a device on br0; a routing daemon has written hosts of both.
class FedSwitch {
 public:
  FedSwitch() {
    auto& in = kernel_.in();
    in.addLink("vlan10", 10);
    in.filtersVlans("vlan10", false);
    in.addAddress("vlan10", "10.0.0.1/24");
    in.addLink("Ethernet1", 1);
    in.portIs("Ethernet1", "vlan10");
    in.addMac("vlan10", "02:00:00:00:00:77", {"Ethernet1"});
    in.addLink("br0", 20);
    in.filtersVlans("br0", true);
    in.addVlan("vlan20", 21, 20, 20);
    const auto route = [](const char* mac) { return FakeNeighbour{mac, NUD_NOARP, NTF_EXT_LEARNED, 11}; };
    in.addNeighbour("vlan10", "10.0.0.9", route("02:00:00:00:00:09"));
    in.addNeighbour("vlan10", "2001:db8::9", route("02:00:00:00:00:09"));
    in.addNeighbour("vlan20", "10.0.20.9", route("02:00:00:00:20:09"));
    in.addNeighbour("vlan10", "10.0.0.5");
    rig_.vlanIs(10, "vlan10", {"core10"});
    rig_.vlanIs(20, "br0");
    rig_.config()->evpn()->feedIs(Switch::EvpnFeed::kernel);
    rig_.start();
    rig_.start(KernelEvpn::kernelEvpnAgentFactory("KernelEvpn"));
    comesToRest();
    first_ = published();
    Fuzz::check(first_.find("10 10.0.0.9") != std::string::npos, "the hosts of the feed", first_);
  }

  void tell(const Netlink::Message& message) { kernel_.in().tell(message); }
  // The kernel says that it dropped notifications: everything is read again, and what was told is forgotten.
  void isReadAgain() {
    comesToRest();
    kernel_.in().overrun();
    comesToRest();
    Fuzz::check(published() == first_, first_, published());
  }

 private:
  void comesToRest() {
    for (int times = 0; times < 2; ++times) {
      Fuzz::check(rig_.settle(), "a loop that comes to rest");
      clock_.advance(kLong);
    }
    Fuzz::check(rig_.settle(), "a loop that comes to rest");
  }
  std::string published() {
    std::vector<std::string> lines;
    rig_.table<RemoteBindingConfig>(kPath)->remoteBindingForEach([&](const auto& key, const auto& value) {
      lines.push_back(Mox::toStrep(key) + " " + Mox::toStrep(value));
    });
    std::ranges::sort(lines);
    for (const auto& more : {rig_.neighbours(), rig_.macs(), rig_.vrfs(), rig_.devices("default")})
      lines.insert(lines.end(), more.begin(), more.end());
    lines.push_back(rig_.ip("Vlan10"));
    std::string text;
    for (const std::string& line : lines) text += line + "\n";
    return text;
  }

  KernelState::Reports reports_;
  Netlink::FakeKernel kernel_;
  Orb::ManualClock clock_;
  KernelState::ScratchTables tables_;
  KernelState::AgentRig rig_{clock_, tables_.directory()};
  std::string first_;
};

}  // namespace

// Notifications that make no sense, or lie: of each a byte for its type, a byte of length, and what follows the
// message's header. Once all is read again the switch is as it was.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  constexpr std::uint16_t kTypes[] = {RTM_NEWNEIGH, RTM_DELNEIGH, RTM_NEWLINK,
                                      RTM_DELLINK,  RTM_NEWADDR,  RTM_DELADDR};
  static FedSwitch device;
  Fuzz::Input input(data, size);
  while (!input.empty()) {
    Netlink::Message message(kTypes[input.number<std::uint8_t>() % std::size(kTypes)]);
    Fuzz::Input payload = input.part(input.number<std::uint8_t>());
    while (!payload.empty()) message.header(payload.number<std::uint32_t>());
    device.tell(message);
  }
  device.isReadAgain();
  return 0;
}
