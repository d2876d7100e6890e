#pragma once

#include <array>
#include <cstdint>

#include "Lanix/EthAddr.h"
#include "Lanix/IpAddr.h"

// Frame layouts. Every structure has alignment 1 and no padding; they are read and written by copy, with
// ByteCursor and ByteWriter (Lanix/Bytes.h), never by a cast of a buffer.

namespace Lanix {

// Unsigned numbers in network order; they convert from and to the host's.
class Be16 {
 public:
  constexpr Be16() = default;
  constexpr Be16(std::uint16_t value)
      : bytes_{static_cast<std::uint8_t>(value >> 8), static_cast<std::uint8_t>(value)} {}
  constexpr operator std::uint16_t() const { return static_cast<std::uint16_t>(bytes_[0] << 8 | bytes_[1]); }

 private:
  std::array<std::uint8_t, 2> bytes_{};
};

class Be32 {
 public:
  constexpr Be32() = default;
  constexpr Be32(std::uint32_t value)
      : bytes_{static_cast<std::uint8_t>(value >> 24), static_cast<std::uint8_t>(value >> 16),
               static_cast<std::uint8_t>(value >> 8), static_cast<std::uint8_t>(value)} {}
  constexpr operator std::uint32_t() const {
    return std::uint32_t{bytes_[0]} << 24 | std::uint32_t{bytes_[1]} << 16 | std::uint32_t{bytes_[2]} << 8 |
           bytes_[3];
  }

 private:
  std::array<std::uint8_t, 4> bytes_{};
};

// linux/if_ether.h.
inline constexpr std::uint16_t kEtherTypeAll = 0x0003;
inline constexpr std::uint16_t kEtherTypeIpv4 = 0x0800;
inline constexpr std::uint16_t kEtherTypeArp = 0x0806;
inline constexpr std::uint16_t kEtherTypeDot1q = 0x8100;
inline constexpr std::uint16_t kEtherTypeMpls = 0x8847;  // unicast; RFC 3032, 5
// The trap header of this system.
inline constexpr std::uint16_t kEtherTypeTrap = 0x8135;

// IEEE 802.3.
//   0   6  destination
//   6   6  source
//   12  2  type of what follows
struct EthHdr {
  EthAddr destination;
  EthAddr source;
  Be16 type;
};
static_assert(sizeof(EthHdr) == 14 && alignof(EthHdr) == 1);

// IEEE 802.1Q, behind a type of 0x8100.
//   0   2  tag control: priority (3 bits), drop eligible (1 bit), VLAN id (12 bits)
//   2   2  type of what follows
struct Dot1qTag {
  Be16 tagControl;
  Be16 type;
  constexpr std::uint16_t vlan() const { return tagControl & 0x0fff; }
};
static_assert(sizeof(Dot1qTag) == 4 && alignof(Dot1qTag) == 1);

// ARP for IPv4 over Ethernet (RFC 826).
//   0   2  hardware type: 1
//   2   2  protocol type: 0x0800
//   4   1  hardware address length: 6
//   5   1  protocol address length: 4
//   6   2  operation: 1 request, 2 reply
//   8   6  sender hardware address
//   14  4  sender protocol address
//   18  6  target hardware address
//   24  4  target protocol address
struct ArpIp4 {
  static constexpr std::uint16_t kEthernet = 1;
  static constexpr std::uint16_t kRequest = 1;
  static constexpr std::uint16_t kReply = 2;

  Be16 hardwareType = kEthernet;
  Be16 protocolType = kEtherTypeIpv4;
  std::uint8_t hardwareSize = 6;
  std::uint8_t protocolSize = 4;
  Be16 operation;
  EthAddr senderMac;
  IpAddr senderIp;
  EthAddr targetMac;
  IpAddr targetIp;
};
static_assert(sizeof(ArpIp4) == 28 && alignof(ArpIp4) == 1);

// An entry of an MPLS label stack (RFC 3032, 2.1; RFC 5462 for the traffic class):
//   0   4  label (20 bits), traffic class (3 bits), bottom of stack (1 bit), time to live (8 bits)
struct MplsLabelEntry {
  Be32 word;

  MplsLabelEntry() = default;
  // Traffic class 0. `label` has 20 bits.
  constexpr MplsLabelEntry(std::uint32_t label, bool bottomOfStack, std::uint8_t timeToLive)
      : word(label << 12 | (bottomOfStack ? 0x100U : 0U) | timeToLive) {}
};
static_assert(sizeof(MplsLabelEntry) == 4 && alignof(MplsLabelEntry) == 1);

// What a trapped frame begins with: its own two addresses, then the header of the trap. Behind it the frame
// goes on with its Ethernet type (at offset 28) and, when that is 0x8100, its tag.
//   0   6  destination
//   6   6  source
//   12  2  type: 0x8135
//   14  2  zero, not read
//   16  4  VLAN id
//   20  4  kernel index of the ingress interface
//   24  4  zero, not read
struct TrapHeader {
  EthAddr destination;
  EthAddr source;
  Be16 type = kEtherTypeTrap;
  Be16 unused0;
  Be32 vlanId;
  Be32 ifIndex;
  Be32 unused1;
};
static_assert(sizeof(TrapHeader) == 28 && alignof(TrapHeader) == 1);

}  // namespace Lanix
