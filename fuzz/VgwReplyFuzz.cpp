#include <algorithm>

#include "fuzz/Input.h"
#include "test/ArpSuppression/Rig.h"

namespace {

using ArpSuppression::Rig;

constexpr char kShared[] = "00:00:5e:00:01:01";

// Listens on VLAN 10 for replies to the shared MAC.
class SwitchOfOneVlan {
 public:
  SwitchOfOneVlan() {
    rig.state<Routing::Fhrp::VirtualRouterMacStatus>("routing/fhrp/vrMacStatus")
        ->vgwVirtualMacIs(ArpSuppression::mac(kShared));
    rig.start();
    Fuzz::check(rig.rootSm()->bindingDiscoverySm()->vgwReplySms() == 1, "a listener");
  }
  Rig rig;
};

// Whether a binding may come of the frame: a complete reply to the shared MAC and nothing else.
bool maySpeak(std::span<const std::uint8_t> frame) {
  constexpr std::uint8_t kArpReply[] = {8, 6, 0, 1, 8, 0, 6, 4, 0, 2};
  constexpr std::uint8_t kTarget[] = {0, 0, 0x5e, 0, 1, 1};
  return frame.size() == 42 && std::equal(std::begin(kArpReply), std::end(kArpReply), frame.begin() + 12) &&
         std::equal(std::begin(kTarget), std::end(kTarget), frame.begin() + 32);
}

}  // namespace

// One frame, from its Ethernet header on.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static SwitchOfOneVlan device;
  Rig& rig = device.rig;
  const auto pkt = Lanix::PktManager::global().newPktWithHeadData(size);
  if (!pkt) return 0;
  std::transform(data, data + size, pkt->headData().begin(), [](std::uint8_t b) { return std::byte{b}; });
  rig.rootSm()->bindingDiscoverySm()->vgwReplySm(ArpSuppression::Vlan(10))->processPacket(pkt);
  auto& record = *rig.root()->localBindingRecord;
  const std::string counters = rig.takeCounters(Rig::Of::discovery);
  Fuzz::check(!counters.empty(), "counted");
  Fuzz::check(maySpeak({data, size}) == (counters.find("vgwReplyAccepted=1") != std::string::npos),
              "the right frames are accepted", counters);
  Fuzz::check(record.bindings() == (counters.find("localBindingCreated=1") != std::string::npos),
              "one binding a frame", counters);
  if (record.bindings() != 0) {
    const auto binding = *record.bindingCollection().begin();
    const auto& station = binding->vlanIdMacAddress().macAddress.bytes();
    Fuzz::check(std::equal(station.begin(), station.end(), data + 22), "the sender's");
    record.deleteLocalBinding(binding);
  }
  Fuzz::check(rig.errors.empty(), "no error", rig.errors);
  return 0;
}
