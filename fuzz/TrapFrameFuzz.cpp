#include "fuzz/Input.h"
#include "test/ArpSuppression/Rig.h"

namespace {

using ArpSuppression::Rig;

constexpr char kOwnerMac[] = "02:00:00:00:00:63";
constexpr char kOwner[] = "10.0.0.99";
constexpr std::uint32_t kFirstDevice = 1000;

// Serves every VLAN, and knows one remote station, in VLAN 10.
class SwitchOfOneVlan {
 public:
  SwitchOfOneVlan() {
    for (std::uint32_t vlan = 1; vlan <= 4094; ++vlan) {
      rig.evpn()->vlanToDot1qIs(ArpSuppression::Vlan(vlan), static_cast<std::uint16_t>(vlan));
      if (vlan != 10) rig.vlanInterface(vlan, "red", kFirstDevice + vlan);
    }
    rig.remoteBinding(10, kOwner, kOwnerMac);
    rig.start();
    const std::size_t published = rig.publishedVlans().size();
    Fuzz::check(published == 4094, "every VLAN published", std::to_string(published));
    // Both are answered, and the pools of what they are kept in, made by now, outlive this at exit.
    rig.trap(ArpSuppression::Trapped{});
    rig.trap(ArpSuppression::Trapped{});
    Fuzz::check(rig.replies().size() == 2, "two replies");
  }
  Rig rig;
};

// The only reply there can be: of that station, in its VLAN, to one requester.
void checkReply(const TestSupport::Frame& reply) {
  const auto expected = TestSupport::frameOf({0x81, 0, 0, 10, 8, 6,  // VLAN 10, ARP
                                              0,    1, 8, 0,  6, 4, 0, 2, 2, 0, 0, 0, 0, 0x63, 10, 0, 0, 99});
  Fuzz::check(reply.size() == 46 && std::equal(expected.begin(), expected.end(), reply.begin() + 12),
              "a reply of the station");
  Fuzz::check(std::equal(reply.begin(), reply.begin() + 6, reply.begin() + 36), "a reply to who asked");
}

}  // namespace

// Frames that came in before the agent looked: of each a byte of length, and the bytes from its Ethernet
// header on.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  constexpr int kMostFrames = 40;  // more than one batch
  constexpr std::size_t kEthernetHeader = 14;
  static SwitchOfOneVlan device;
  Rig& rig = device.rig;
  Fuzz::Input input(data, size);
  std::size_t delivered = 0;
  for (int frames = 0; frames < kMostFrames && !input.empty(); ++frames) {
    const auto bytes = input.bytes(input.number<std::uint8_t>());
    if (bytes.size() < kEthernetHeader) continue;
    delivered +=
        static_cast<std::size_t>(rig.sockets.device(Rig::kArpsnoop).receives({bytes.begin(), bytes.end()}));
  }
  rig.settle();
  const auto replies = rig.replies();
  Fuzz::check(replies.size() <= delivered, "at most one reply a frame", std::to_string(replies.size()));
  for (const auto& reply : replies) checkReply(reply);
  Fuzz::check(rig.reinjected().size() <= delivered, "at most one reinjected frame a frame");
  Fuzz::check(rig.errors.empty(), "no error", rig.errors);
  rig.clock.advance(1);
  rig.settle();
  return 0;
}
