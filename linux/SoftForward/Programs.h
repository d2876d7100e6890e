#pragma once

// The loaded eBPF programs and their maps.
//
// Programs live as long as something holds them: this object, or what they are attached to. After this object
// is gone, attached programs run on with the maps as they were left.

#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "SoftForward/Failure.h"
#include "SoftForward/Links.h"

namespace SoftForward {

enum class Program : std::uint8_t {
  accessIngress,
  ownEgress,
  tunnelEgress,
  trapEgress,
  injectStrip,  // XDP; the others are tc programs
  injectIngress,
  fabricIngress,
  dropAll,
};

const char* toString(Program program);  // the program's name in the kernel

// `own` is the bridge device as far as it sends.
enum class PortRole : std::uint8_t { access, tunnel, own };

// Frames since the programs were loaded.
struct Statistics {
  std::uint64_t trapped = 0;           // copied to the agent
  std::uint64_t trapFailed = 0;        // could not be copied, and were passed as if suppression were off
  std::uint64_t tunnelDropped = 0;     // kept from a tunnel port, one for each port
  std::uint64_t injected = 0;          // of the agent, sent out of the tunnel ports
  std::uint64_t injectSendFailed = 0;  // sends that a tunnel port did not take, one for each port
  std::uint64_t replied = 0;           // of the agent, handed to a bridge
  std::uint64_t unexpected = 0;        // dropped on the pairs
};

class Programs {
 public:
  Programs();
  ~Programs();
  Programs(const Programs&) = delete;
  Programs& operator=(const Programs&) = delete;

  // Once, before everything else. What libbpf has to say about a refused program is part of the failure.
  [[nodiscard]] Failure load();

  int fd(Program program) const;

  [[nodiscard]] Failure trapPeerIs(std::uint32_t ifIndex);
  // What comes from this address is never trapped.
  [[nodiscard]] Failure passedAddressIs(const std::optional<MacAddress>& address);
  [[nodiscard]] Failure portIs(std::uint32_t ifIndex, std::uint16_t vlan, PortRole role);
  [[nodiscard]] Failure portDel(std::uint32_t ifIndex);
  [[nodiscard]] Failure activeVlanIs(std::uint16_t vlan, bool active);
  // At most SOFT_FORWARD_MAX_TUNNEL_PORTS; `wayIn` 0: none. A frame sees the old set or the new one, nothing
  // between.
  [[nodiscard]] Failure vlanPathsIs(std::uint16_t vlan, std::uint32_t wayIn,
                                    const std::vector<std::uint32_t>& tunnelPorts, std::uint32_t bridge);
  [[nodiscard]] Failure vlanPathsDel(std::uint16_t vlan);

  // All zero when the counters cannot be read.
  Statistics statistics() const;

 private:
  [[nodiscard]] Failure settingsPut();

  struct Skeleton;
  std::unique_ptr<Skeleton> skeleton_;
  std::uint32_t trapPeer_ = 0;
  std::optional<MacAddress> passedAddress_;
};

}  // namespace SoftForward
