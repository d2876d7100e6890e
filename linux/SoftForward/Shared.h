// SPDX-License-Identifier: MIT

#pragma once

// What the eBPF programs and the loader both know: map keys and values, marks, frame sizes. Included from C
// (the programs) and from C++ (the loader and the tests). Every structure spells out its padding, which is
// zero.
//
// Integers in maps are in the byte order of the host; what is in frames is big-endian.

#include <linux/types.h>

// A frame that was copied to the agent carries this mark while it crosses the bridge: the upper 20 bits say
// that it is ours, the lower 12 bits are the VLAN. The kernel clears marks when a frame leaves the network
// namespace.
#define SOFT_FORWARD_MARK 0xA5B07000U
#define SOFT_FORWARD_MARK_MASK 0xFFFFF000U
#define SOFT_FORWARD_VLAN_MASK 0x00000FFFU

// The trap header, as the agent reads it on "arpsnoop" and writes it back to "arpinject". It is the original
// frame with 16 bytes put between its source address and its ethertype:
//
//   offset  size  field
//        0     6  destination address of the frame
//        6     6  source address of the frame
//       12     2  SOFT_FORWARD_TRAP_ETHERTYPE
//       14     2  zero
//       16     4  VLAN
//       20     4  interface index of the port that received the frame; of the bridge, if that sent it
//       24     4  zero
//       28     -  the frame from its ethertype on
#define SOFT_FORWARD_TRAP_ETHERTYPE 0x8135
#define SOFT_FORWARD_TRAP_PUSH 16

// The longest frame that is trapped, Ethernet header included; the devices of the pairs are made for it.
#define SOFT_FORWARD_MAX_FRAME 9216

// A frame that was trapped is on its way through the bridge for at most so many nanoseconds.
#define SOFT_FORWARD_CROSSING_NS 100000000ULL

#define SOFT_FORWARD_MAX_TUNNEL_PORTS 32
#define SOFT_FORWARD_MAX_VLANS 4096
#define SOFT_FORWARD_MAX_PORTS 16384
#define SOFT_FORWARD_MAX_TRUNKS 4096
#define SOFT_FORWARD_MAX_PORT_VLANS 65536
#define SOFT_FORWARD_VLAN_WORDS 64        // of 64 bits: one for each VLAN
#define SOFT_FORWARD_MAX_ANSWERS 1048576  // of each family
#define SOFT_FORWARD_MAX_SHOWN 131072     // as many as there are local bindings by default

enum SoftForwardRole {
  SOFT_FORWARD_ROLE_ACCESS = 1,
  SOFT_FORWARD_ROLE_TUNNEL = 2,
  SOFT_FORWARD_ROLE_OWN = 3,  // the bridge itself, as far as it sends
};

// How many frames of an access port may be copied to the agent: a token bucket, kept as the time when it will
// be full. What it refuses is flooded as if suppression were off.
struct SoftForwardPolicer {
  __u64 interval;   // nanoseconds in which one token comes; 0: nothing is refused
  __u64 tolerance;  // nanoseconds in which all but one of a full bucket's tokens come
  __u64 full;       // by the kernel's monotonic clock; the programs write it
};

// Map "ports": what a port of a bridge that is one VLAN is, by interface index (__u32). Its frames are those
// without a tag, or with a priority's; what carries another tag is none of the VLAN's.
struct SoftForwardPort {
  struct SoftForwardPolicer policer;
  __u16 vlan;
  __u8 role;     // SoftForwardRole
  __u8 answers;  // 1: frames without any tag are answered here
  __u8 zero[4];
};

// Map "trunks": what a port of a bridge that filters VLANs is, by interface index (__u32); it is not in
// "ports". A frame's VLAN is that of its tag; without one, or with a priority's, it is `pvid`. In the sets
// VLAN v is bit v % 64 of word v / 64. A VLAN in neither is not carried by the port, or none of ours: its
// frames pass.
struct SoftForwardTrunk {
  struct SoftForwardPolicer policer;       // of all its VLANs together
  __u64 trapped[SOFT_FORWARD_VLAN_WORDS];  // VLANs of which the port is an access port; that the bridge sends
  __u64 tunnel[SOFT_FORWARD_VLAN_WORDS];   // VLANs of which the port is a tunnel port
  __u64 tagged[SOFT_FORWARD_VLAN_WORDS];   // VLANs whose frames leave the port with a tag
  __u64 answers[SOFT_FORWARD_VLAN_WORDS];  // VLANs answered here, if a frame comes as the answer leaves
  __u16 pvid;                              // 0: none
  __u8 own;                                // 1: the bridge itself, as far as it sends
  __u8 zero[5];
};

// Map "active_vlans": the VLANs (__u32) on which suppression is active. A VLAN that is absent has its frames
// passed.
struct SoftForwardActiveVlan {
  __u32 active;  // 1
  __u32 zero;
};

// Maps "answers" (IPv4) and "nd_answers" (IPv6): what a host that asks for an address is answered. An entry
// that is not there costs nothing but time: the agent decides on ARP, and the owner answers a neighbour
// solicitation itself.
struct SoftForwardAnswerKey {
  __u8 address[4];
  __u16 vlan;
  __u16 zero;
};
struct SoftForwardNdAnswerKey {
  __u8 address[16];
  __u16 vlan;
  __u16 zero;
};
struct SoftForwardAnswer {
  __u8 address[6];
  __u8 counter;  // SoftForwardCounter
  __u8 router;   // 1: the owner is a router, as its advertisement says; 0 of IPv4
  __u32 owner;   // interface index of the port that the owner is on, which gets no such answer; 0: none
};

// Maps "shown_stations" and "shown_addresses": who asked lately, as the agent was shown. Of each station and
// of each address what was shown last; what is not there any more is shown again.
struct SoftForwardStation {
  __u8 address[6];
  __u16 vlan;
};
struct SoftForwardSender {
  __u8 address[4];
  __u16 vlan;
  __u16 zero;
};
struct SoftForwardShown {
  __u64 at;  // by the kernel's monotonic clock
  __u8 station[6];
  __u16 zero;
};

// Map "vlan_paths": where frames of the agent go, by VLAN (__u32).
struct SoftForwardVlanPaths {
  __u32 wayIn;        // interface index of the device that leads into the bridge; 0: none
  __u32 wayInTagged;  // 1: frames go there with the VLAN's tag
  __u32 tunnelPorts;  // how many of the indexes below are there
  __u32 untagged;     // the first so many of them get frames as the agent wrote them, the rest with the tag
  __u32 tunnelPort[SOFT_FORWARD_MAX_TUNNEL_PORTS];
  __u32 bridge;  // interface index; for what it sends itself, which no port received
};

// Map "settings", one entry.
struct SoftForwardSettings {
  __u32 trapPeer;      // interface index of the inner end of "arpsnoop"; 0: nothing is trapped
  __u8 ownAddress[6];  // the address of the switch's VLAN interfaces
  __u16 ownPasses;     // 1: frames from that address are not trapped, whatever port they come from
  // Senders that are never answered here: the switch itself, by its own address and by the one it shares.
  __u8 switchAddress[2][6];
  __u64 refresh;  // nanoseconds for which a sender that was shown is answered here; 0: nobody is
};

// Map "port_counters": frames by port and VLAN, of those that had any.
struct SoftForwardPortVlan {
  __u32 ifIndex;
  __u32 vlan;
};
struct SoftForwardPortCounters {
  __u64 trapped;        // copied to the agent
  __u64 policed;        // refused by the policer
  __u64 tunnelDropped;  // kept from this tunnel port
  __u64 answered;       // answered here
};

// Map "counters", one per-CPU __u64 each.
enum SoftForwardCounter {
  SOFT_FORWARD_TRAPPED,             // frames copied to the agent
  SOFT_FORWARD_TRAP_FAILED,         // copies that failed: the frame was passed as if suppression were off
  SOFT_FORWARD_FAILED_OPEN,         // frames that were not trapped because there was no sign of the agent
  SOFT_FORWARD_POLICED,             // frames that a port's policer refused: passed as if suppression were off
  SOFT_FORWARD_TUNNEL_DROPPED,      // marked frames kept from a tunnel port
  SOFT_FORWARD_INJECTED,            // frames of "arpinject" that were sent out of their VLAN's tunnel ports
  SOFT_FORWARD_INJECT_SEND_FAILED,  // a tunnel port did not take such a frame
  SOFT_FORWARD_REPLIED,             // frames of "fabric" that were handed to their VLAN's bridge
  SOFT_FORWARD_UNEXPECTED,          // frames on the pairs that belong to none of the above: dropped
  // Requests answered here, by the agent's counter of such answers.
  SOFT_FORWARD_ANSWERED_REMOTE,
  SOFT_FORWARD_ANSWERED_DF,
  SOFT_FORWARD_ANSWERED_NON_DF,
  SOFT_FORWARD_ND_ANSWERED,
  // Neighbour solicitations to a group that were not answered here while the VLAN's answers hold: passed.
  SOFT_FORWARD_ND_PASSED,
  // Requests copied to the agent while there are answers, and why.
  SOFT_FORWARD_SHOWN_NO_ANSWER,  // there is none for the address
  SOFT_FORWARD_SHOWN_SENDER,     // the sender has not asked lately, or otherwise
  SOFT_FORWARD_SHOWN_OTHER,      // sender, port or tag are answered by the agent only
  SOFT_FORWARD_COUNTERS,
};

// What the first program behind "arpinject" tells the second in front of the frame (XDP metadata).
struct SoftForwardInjectMeta {
  __u32 magic;  // SOFT_FORWARD_MARK
  __u32 vlan;
};

#ifdef __cplusplus
static_assert(sizeof(SoftForwardPort) == 32);
static_assert(sizeof(SoftForwardActiveVlan) == 8);
static_assert(sizeof(SoftForwardAnswerKey) == 8 && sizeof(SoftForwardNdAnswerKey) == 20 &&
              sizeof(SoftForwardAnswer) == 12);
static_assert(sizeof(SoftForwardStation) == 8 && sizeof(SoftForwardSender) == 8 &&
              sizeof(SoftForwardShown) == 16);
static_assert(sizeof(SoftForwardTrunk) == 24 + 4 * 512 + 8);
static_assert(sizeof(SoftForwardVlanPaths) == 20 + 4 * SOFT_FORWARD_MAX_TUNNEL_PORTS);
static_assert(sizeof(SoftForwardSettings) == 32);
static_assert(sizeof(SoftForwardInjectMeta) == 8);
#endif
