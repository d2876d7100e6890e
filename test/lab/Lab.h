#pragma once

// Small networks for tests that need the kernel: namespaces, veth pairs, bridges, packet sockets and ARP
// frames.
//
// All of it lives in namespaces of the test's own, so that nothing clashes with the machine or with another
// test, and all of it is gone when the process is, however that ends. Needs root. Failures to build a network
// throw std::runtime_error, which fails the test with a text that says what could not be done.
//
// A thread that sends and receives should call pinToOneCpu() first: veth then delivers in the order of
// sending, and what has not arrived before a frame that was sent later was not delivered at all. That is how
// "nothing arrives" is tested without waiting.

#include <linux/filter.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace Lab {

using Frame = std::vector<std::byte>;  // from the destination address on, an 802.1Q tag in its place
using Mac = std::array<std::uint8_t, 6>;
using Ip = std::array<std::uint8_t, 4>;

inline constexpr Mac kBroadcast{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
// How much longer than usual what must happen may take: LAB_PATIENCE of the environment, a whole number, for
// machines that are emulated.
inline int patienceFactor() {
  static const char* const text = std::getenv("LAB_PATIENCE");
  static const int factor = text == nullptr ? 1 : std::max(1, std::atoi(text));
  return factor;
}
inline const std::chrono::milliseconds kPatience{5000 * patienceFactor()};  // for what must happen

void pinToOneCpu();

// Something that this kernel does not have; a test that needs it is skipped.
struct Unsupported : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// Runs iproute2 in the namespace that the calling thread is in: "ip link add vlan10 type bridge", as it would
// stand in a shell without quotes. Returns what it prints. Refusals throw.
std::string run(const std::string& command);

// A network namespace, without IPv6 on devices that are made in it later, with its loopback down.
class Namespace {
 public:
  // Without a name it is held by a descriptor. With one it is also mounted as /run/netns/<name>-<pid>, for
  // what looks namespaces up by name, until the object goes.
  explicit Namespace(const std::string& name = {});
  ~Namespace();
  Namespace(const Namespace&) = delete;
  Namespace& operator=(const Namespace&) = delete;

  int fd() const { return fd_; }
  const std::string& name() const { return name_; }  // with the process id; empty: none

 private:
  int fd_ = -1;
  std::string name_;
};

// The calling thread is in the namespace while this lives.
class Entered {
 public:
  explicit Entered(const Namespace& where);
  ~Entered();
  Entered(const Entered&) = delete;
  Entered& operator=(const Entered&) = delete;

 private:
  int before_;
};

// Devices of the namespace that the calling thread is in.
std::uint32_t ifIndex(const std::string& device);  // 0: there is none
void vethIs(const std::string& device, const std::string& peer,
            const Namespace& peerNamespace);  // both operational
void bridgeIs(const std::string& bridge);  // up, without multicast snooping, whose frames would be in the way
void portIs(const std::string& device, const std::string& bridge);
void linkDel(const std::string& device);
void upIs(const std::string& device, bool up = true);
// Waits until the device is up and has a carrier. The kernel notices a veth's carrier a moment after both
// ends are up, and drops what is sent before.
void awaitOperational(const std::string& device);
void mtuIs(const std::string& device, std::uint32_t mtu);
Mac macOf(const std::string& device);
std::uint32_t mtuOf(const std::string& device);
bool bridgeKnows(const std::string& bridge, const Mac& mac);  // has an entry for it in its MAC table

// A packet socket on one device, for sending and for what the device receives (not for what others send on
// it).
class PacketSocket {
 public:
  // In the namespace that the calling thread is in. `ethertype` 0: all.
  explicit PacketSocket(const std::string& device, std::uint16_t ethertype = 0);
  // Of what is sent on the device, and of nothing else, whatever becomes of it.
  static PacketSocket sentOn(const std::string& device);
  ~PacketSocket();
  PacketSocket(PacketSocket&& from) noexcept : fd_(std::exchange(from.fd_, -1)), vlan_(from.vlan_) {}
  PacketSocket(const PacketSocket&) = delete;
  PacketSocket& operator=(const PacketSocket&) = delete;

  void markIs(std::uint32_t mark);  // of the frames sent from here on
  // Nothing else takes room among the frames that wait to be received.
  void onlyFramesTo(const Mac& address) { onlyFramesWith(0, address); }
  void onlyFramesFrom(const Mac& address) { onlyFramesWith(6, address); }
  // The socket stands for a host on a trunk, of which only this VLAN is looked at: frames that are sent get its
  // tag, those that are received with it lose it. One without a tag is received with the tag 0.
  void vlanIs(std::uint16_t vlan) { vlan_ = vlan; }
  void send(std::span<const std::byte> frame);
  bool trySend(std::span<const std::byte> frame);  // false when the kernel refused it
  // The next frame; std::nullopt when none came in time. The tag that the kernel took off is put back.
  std::optional<Frame> receive(std::chrono::milliseconds patience = 4 * kPatience);
  // What arrived before `last` did, which must be on its way already; std::nullopt when it never came.
  std::optional<std::vector<Frame>> receiveUntil(const Frame& last,
                                                 std::chrono::milliseconds patience = 4 * kPatience);

 private:
  void onlyFramesWith(std::uint32_t offset, const Mac& address);
  void filterIs(std::vector<sock_filter> code);

  int fd_ = -1;
  std::optional<std::uint16_t> vlan_;
};

struct Arp {
  std::uint16_t operation = 1;
  Mac senderMac{};
  Ip senderIp{};
  Mac targetMac{};
  Ip targetIp{};
};

Frame arpFrame(const Arp& arp, const Mac& destination = kBroadcast);  // 42 bytes, from arp.senderMac
Frame tagged(const Frame& frame, std::uint16_t tci);                  // with an 802.1Q tag
// Behind the trap header, as the agent gets it on "arpsnoop" and writes it to "arpinject".
Frame trapped(const Frame& frame, std::uint32_t vlan, std::uint32_t port);
Frame plainFrame(const Mac& source, const Mac& destination, std::uint16_t ethertype,
                 std::uint8_t fill);  // 60 bytes
std::string hex(const Frame& frame);

}  // namespace Lab
