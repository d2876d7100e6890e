// SPDX-License-Identifier: GPL-2.0-or-later

// The forwarding programs. Frames are read with bpf_skb_load_bytes into the stack, so that a frame is never
// linearised or otherwise touched by a program that lets it pass.
//
//   access_ingress  tc ingress of access ports       ARP goes to the agent as a copy, and on marked; or it is
//                                                    answered here (Answer.h); so are neighbour
//                                                    solicitations, and go on otherwise (NdAnswer.h)
//   own_egress      tc egress of the bridge device   the same for what the switch sends itself
//   tunnel_egress   tc egress of tunnel ports        what was marked does not leave
//   trap_egress     tc egress of the trap peer       puts the trap header into the copy
//   inject_strip    XDP of the inject peer           takes the trap header off
//   inject_ingress  tc ingress of the inject peer    sends the frame out of the tunnel ports
//   fabric_ingress  tc ingress of the fabric peer    hands the frame to the VLAN's bridge
//   drop_all        the other directions of the peers, and the host's side of the ways into the bridges
//
// The programs on ports answer TC_ACT_UNSPEC for what they let pass, so that filters of others behind them
// still run.

#include <linux/bpf.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <linux/pkt_cls.h>
#include <stdbool.h>
#include <stddef.h>

#include <bpf/bpf_endian.h>
#include <bpf/bpf_helpers.h>

#include "../Shared.h"

#define ARP_LENGTH 28
#define VLAN_TAG 4
#define MAX_VLAN_ID 4094

struct ArpFrame {
  __u8 destination[ETH_ALEN];
  __u8 source[ETH_ALEN];
  __be16 ethertype;
  __be16 hardware;
  __be16 protocol;
  __u8 hardwareLength;
  __u8 protocolLength;
  __be16 operation;
  __u8 senderMac[ETH_ALEN];
  __u8 senderIp[4];
  __u8 targetMac[ETH_ALEN];
  __u8 targetIp[4];
} __attribute__((packed));
_Static_assert(sizeof(struct ArpFrame) == ETH_HLEN + ARP_LENGTH, "an Ethernet header and an ARP packet");

struct TrapHeader {
  __u8 destination[ETH_ALEN];
  __u8 source[ETH_ALEN];
  __be16 ethertype;
  __u16 zero1;
  __be32 vlan;
  __be32 port;
  __u32 zero2;
} __attribute__((packed));
_Static_assert(sizeof(struct TrapHeader) == 2 * ETH_ALEN + SOFT_FORWARD_TRAP_PUSH,
               "the header before the ethertype");

struct {
  __uint(type, BPF_MAP_TYPE_HASH);
  __uint(max_entries, SOFT_FORWARD_MAX_PORTS);
  __uint(map_flags, BPF_F_NO_PREALLOC);
  __type(key, __u32);
  __type(value, struct SoftForwardPort);
} ports SEC(".maps");

struct {
  __uint(type, BPF_MAP_TYPE_HASH);
  __uint(max_entries, SOFT_FORWARD_MAX_TRUNKS);
  __uint(map_flags, BPF_F_NO_PREALLOC);
  __type(key, __u32);
  __type(value, struct SoftForwardTrunk);
} trunks SEC(".maps");

struct {
  __uint(type, BPF_MAP_TYPE_HASH);
  __uint(max_entries, SOFT_FORWARD_MAX_VLANS);
  __uint(map_flags, BPF_F_NO_PREALLOC);
  __type(key, __u32);
  __type(value, struct SoftForwardActiveVlan);
} active_vlans SEC(".maps");

struct {
  __uint(type, BPF_MAP_TYPE_HASH);
  __uint(max_entries, SOFT_FORWARD_MAX_VLANS);
  __uint(map_flags, BPF_F_NO_PREALLOC);
  __type(key, __u32);
  __type(value, struct SoftForwardVlanPaths);
} vlan_paths SEC(".maps");

struct {
  __uint(type, BPF_MAP_TYPE_ARRAY);
  __uint(max_entries, 1);
  __type(key, __u32);
  __type(value, struct SoftForwardSettings);
} settings SEC(".maps");

struct {
  __uint(type, BPF_MAP_TYPE_HASH);
  __uint(max_entries, SOFT_FORWARD_MAX_PORT_VLANS);
  __uint(map_flags, BPF_F_NO_PREALLOC);
  __type(key, struct SoftForwardPortVlan);
  __type(value, struct SoftForwardPortCounters);
} port_counters SEC(".maps");

struct {
  __uint(type, BPF_MAP_TYPE_PERCPU_ARRAY);
  __uint(max_entries, SOFT_FORWARD_COUNTERS);
  __type(key, __u32);
  __type(value, __u64);
} counters SEC(".maps");

// Until when somebody takes what is trapped, in nanoseconds of the kernel's monotonic clock. The loader keeps
// it some seconds ahead of that clock for as long as the agent is there; once it has passed, everything is
// forwarded as if there were no agent.
volatile __u64 trusted_until;

// By VLAN: 1 while what the maps of answers have of it holds. The loader writes it, so that all of a VLAN's
// answers are void at once.
volatile __u8 answers_hold[SOFT_FORWARD_MAX_VLANS];

// How many frames policers refused, for the loader to see at a glance whether any did.
volatile __u64 policed_in_all;

static __always_inline bool isTrusted(__u64 ago) { return bpf_ktime_get_ns() - ago < trusted_until; }

static __always_inline void count(__u32 counter) {
  __u64* value = bpf_map_lookup_elem(&counters, &counter);
  if (value) ++*value;
}

// Null: there is no room for one more.
static __always_inline struct SoftForwardPortCounters* countersOf(__u32 ifIndex, __u32 vlan) {
  const struct SoftForwardPortVlan key = {ifIndex, vlan};
  struct SoftForwardPortCounters* value = bpf_map_lookup_elem(&port_counters, &key);
  if (value) return value;
  const struct SoftForwardPortCounters none = {};
  bpf_map_update_elem(&port_counters, &key, &none, BPF_NOEXIST);
  return bpf_map_lookup_elem(&port_counters, &key);
}

#define COUNT_AT(ifIndex, vlan, member)                                   \
  do {                                                                    \
    struct SoftForwardPortCounters* const at = countersOf(ifIndex, vlan); \
    if (at) __sync_fetch_and_add(&at->member, 1);                         \
  } while (0)

// Takes a token; whether there was one. Other CPUs may take theirs at the same time.
static __always_inline bool takesToken(struct SoftForwardPolicer* policer) {
  if (policer->interval == 0) return true;
  const __u64 now = bpf_ktime_get_ns();
  for (int tries = 0; tries < 4; ++tries) {
    const __u64 full = *(volatile __u64*)&policer->full;
    const __u64 from = full > now ? full : now;
    if (from - now > policer->tolerance) return false;
    if (__sync_val_compare_and_swap(&policer->full, full, from + policer->interval) == full) return true;
  }
  return false;
}

static __always_inline int unexpected(void) {
  count(SOFT_FORWARD_UNEXPECTED);
  return TC_ACT_SHOT;
}

static __always_inline bool isBroadcast(const __u8* address) {
  return (address[0] & address[1] & address[2] & address[3] & address[4] & address[5]) == 0xFF;
}

static __always_inline bool isIpv4Arp(const struct ArpFrame* frame) {
  return frame->ethertype == bpf_htons(ETH_P_ARP) && frame->hardware == bpf_htons(1) &&
         frame->protocol == bpf_htons(ETH_P_IP) && frame->hardwareLength == ETH_ALEN &&
         frame->protocolLength == 4 && (frame->operation == bpf_htons(1) || frame->operation == bpf_htons(2));
}

static __always_inline bool isMarked(const struct __sk_buff* skb) {
  return (skb->mark & SOFT_FORWARD_MARK_MASK) == SOFT_FORWARD_MARK;
}

static __always_inline bool isSame(const __u8* address, const __u8* other) {
  __u8 difference = 0;
  for (int i = 0; i < ETH_ALEN; ++i) difference |= address[i] ^ other[i];
  return difference == 0;
}

static __always_inline bool holds(const __u64* set, __u32 vlan) {
  return set[(vlan >> 6) & (SOFT_FORWARD_VLAN_WORDS - 1)] >> (vlan & 63) & 1;
}

// The VLAN of a frame on a device with that role; 0: none of ours, or one that the device does not carry.
// Where it is one of ours, `policer` is the device's, and `inPlace` says whether an answer may leave by the
// port just as the frame came: with the same tag, or without one.
static __always_inline __u32 vlanOf(const struct __sk_buff* skb, __u8 role,
                                    struct SoftForwardPolicer** policer, bool* inPlace) {
  // The kernel took a tag off the frame and keeps it beside. What it keeps is stale unless it says so.
  __u32 tag = 0;
  if (skb->vlan_present) {
    if (skb->vlan_proto != bpf_htons(ETH_P_8021Q)) return 0;
    tag = skb->vlan_tci & SOFT_FORWARD_VLAN_MASK;  // 0: only a priority
  }
  __u32 ifIndex = skb->ifindex;
  struct SoftForwardPort* port = bpf_map_lookup_elem(&ports, &ifIndex);
  if (port) {
    *policer = &port->policer;
    *inPlace = port->answers && !skb->vlan_present;
    return port->role == role && tag == 0 ? port->vlan : 0;
  }
  struct SoftForwardTrunk* trunk = bpf_map_lookup_elem(&trunks, &ifIndex);
  if (!trunk || trunk->own != (role == SOFT_FORWARD_ROLE_OWN)) return 0;
  *policer = &trunk->policer;
  const __u32 vlan = tag ? tag : trunk->pvid;
  *inPlace = holds(trunk->answers, vlan) && holds(trunk->tagged, vlan) == (tag != 0) &&
             (tag != 0) == skb->vlan_present;
  return holds(trunk->trapped, vlan) ? vlan : 0;
}

// Where a frame came from, if requests are trapped there.
struct Place {
  __u32 vlan;
  bool inPlace;
  struct SoftForwardPolicer* policer;
  const struct SoftForwardSettings* setting;
};

static __always_inline bool isTrapping(const struct __sk_buff* skb, __u8 role, struct Place* place) {
  place->policer = 0;
  place->inPlace = false;
  const __u32 vlan = vlanOf(skb, role, &place->policer, &place->inPlace);
  place->vlan = vlan;
  if (vlan == 0 || !place->policer) return false;
  const struct SoftForwardActiveVlan* activeVlan = bpf_map_lookup_elem(&active_vlans, &vlan);
  if (!activeVlan || !activeVlan->active) return false;
  const __u32 zero = 0;
  place->setting = bpf_map_lookup_elem(&settings, &zero);
  return place->setting && place->setting->trapPeer;
}

#include "Answer.h"
#include "NdAnswer.h"

static __always_inline int trap(struct __sk_buff* skb, __u8 role) {
  if (skb->protocol != bpf_htons(ETH_P_ARP)) return TC_ACT_UNSPEC;
  if (skb->len > SOFT_FORWARD_MAX_FRAME) return TC_ACT_UNSPEC;
  struct ArpFrame frame;
  if (bpf_skb_load_bytes(skb, 0, &frame, sizeof frame) < 0) return TC_ACT_UNSPEC;
  if (!isBroadcast(frame.destination) || !isIpv4Arp(&frame)) return TC_ACT_UNSPEC;

  struct Place place;
  if (!isTrapping(skb, role, &place)) return TC_ACT_UNSPEC;
  const __u32 vlan = place.vlan;
  const struct SoftForwardSettings* setting = place.setting;
  if (setting->ownPasses && isSame(frame.source, setting->ownAddress)) return TC_ACT_UNSPEC;
  if (!isTrusted(0)) {
    count(SOFT_FORWARD_FAILED_OPEN);
    return TC_ACT_UNSPEC;
  }
  __u32 why = SOFT_FORWARD_COUNTERS;
  struct SoftForwardAnswer* answer = 0;
  if (role == SOFT_FORWARD_ROLE_ACCESS && answers_hold[vlan & SOFT_FORWARD_VLAN_MASK])
    answer = answerOf(skb, &frame, vlan, place.inPlace, setting, &why);
  if (answer && why == SOFT_FORWARD_COUNTERS) {
    const int sent = reply(skb, &frame, vlan, answer);
    if (sent >= 0) return sent;
  }
  if (!takesToken(place.policer)) {
    // Somebody asks for more than a port may show, and the answer is known all the same.
    if (answer) {
      const int sent = reply(skb, &frame, vlan, answer);
      if (sent >= 0) return sent;
    }
    count(SOFT_FORWARD_POLICED);
    COUNT_AT(skb->ifindex, vlan, policed);
    __sync_fetch_and_add(&policed_in_all, 1);
    return TC_ACT_UNSPEC;
  }

  // The copy takes the mark along: that is how trap_egress learns the VLAN.
  const __u32 before = skb->mark;
  skb->mark = SOFT_FORWARD_MARK | (vlan & SOFT_FORWARD_VLAN_MASK);
  if (bpf_clone_redirect(skb, setting->trapPeer, 0) != 0) {
    // Nobody will decide about this frame, so it must reach everybody.
    skb->mark = before;
    count(SOFT_FORWARD_TRAP_FAILED);
    return TC_ACT_UNSPEC;
  }
  count(SOFT_FORWARD_TRAPPED);
  COUNT_AT(skb->ifindex, vlan, trapped);
  if (why != SOFT_FORWARD_COUNTERS) count(why);
  if (role == SOFT_FORWARD_ROLE_ACCESS && setting->refresh != 0) shown(skb, &frame, vlan);
  return TC_ACT_UNSPEC;
}

SEC("tc")
int access_ingress(struct __sk_buff* skb) {
  if (skb->protocol == bpf_htons(ETH_P_IPV6)) return solicited(skb);
  return trap(skb, SOFT_FORWARD_ROLE_ACCESS);
}

SEC("tc")
int own_egress(struct __sk_buff* skb) { return trap(skb, SOFT_FORWARD_ROLE_OWN); }

SEC("tc")
int tunnel_egress(struct __sk_buff* skb) {
  if (!isMarked(skb) || skb->protocol != bpf_htons(ETH_P_ARP)) return TC_ACT_UNSPEC;
  __u32 ifIndex = skb->ifindex;
  const struct SoftForwardPort* port = bpf_map_lookup_elem(&ports, &ifIndex);
  const struct SoftForwardTrunk* trunk = port ? 0 : bpf_map_lookup_elem(&trunks, &ifIndex);
  const bool isTunnel = port ? port->role == SOFT_FORWARD_ROLE_TUNNEL
                             : trunk && holds(trunk->tunnel, skb->mark & SOFT_FORWARD_VLAN_MASK);
  if (!isTunnel || !isTrusted(SOFT_FORWARD_CROSSING_NS)) return TC_ACT_UNSPEC;
  count(SOFT_FORWARD_TUNNEL_DROPPED);
  COUNT_AT(ifIndex, skb->mark & SOFT_FORWARD_VLAN_MASK, tunnelDropped);
  return TC_ACT_SHOT;
}

SEC("tc")
int trap_egress(struct __sk_buff* skb) {
  if (!isMarked(skb)) return unexpected();
  // A copy that another run's programs made. They find it refused, and pass the frame as if it had never been
  // trapped.
  if (!isTrusted(SOFT_FORWARD_CROSSING_NS)) return TC_ACT_SHOT;
  if (skb->vlan_present && bpf_skb_vlan_pop(skb) < 0) return unexpected();
  __u32 vlan = skb->mark & SOFT_FORWARD_VLAN_MASK;
  __u32 from = skb->ingress_ifindex;
  if (from == 0) {
    const struct SoftForwardVlanPaths* paths = bpf_map_lookup_elem(&vlan_paths, &vlan);
    if (paths) from = paths->bridge;
  }
  struct TrapHeader header = {
      .ethertype = bpf_htons(SOFT_FORWARD_TRAP_ETHERTYPE),
      .vlan = bpf_htonl(vlan),
      .port = bpf_htonl(from),
  };
  if (bpf_skb_load_bytes(skb, 0, header.destination, 2 * ETH_ALEN) < 0) return unexpected();
  if (bpf_skb_change_head(skb, SOFT_FORWARD_TRAP_PUSH, 0) < 0) return unexpected();
  if (bpf_skb_store_bytes(skb, 0, &header, sizeof header, 0) < 0) return unexpected();
  skb->mark = 0;
  return TC_ACT_OK;
}

SEC("xdp")
int inject_strip(struct xdp_md* context) {
  void* data = (void*)(long)context->data;
  const void* end = (const void*)(long)context->data_end;
  struct TrapHeader header;
  if (data + sizeof header + sizeof(__be16) + ARP_LENGTH > end) goto unexpected;
  __builtin_memcpy(&header, data, sizeof header);
  __be16 inner;
  __builtin_memcpy(&inner, data + sizeof header, sizeof inner);
  const __u32 vlan = bpf_ntohl(header.vlan);
  if (header.ethertype != bpf_htons(SOFT_FORWARD_TRAP_ETHERTYPE) || vlan == 0 || vlan > MAX_VLAN_ID)
    goto unexpected;
  if (inner != bpf_htons(ETH_P_ARP) && inner != bpf_htons(ETH_P_8021Q)) goto unexpected;

  if (bpf_xdp_adjust_head(context, SOFT_FORWARD_TRAP_PUSH) < 0) goto unexpected;
  data = (void*)(long)context->data;
  end = (const void*)(long)context->data_end;
  if (data + 2 * ETH_ALEN > end) goto unexpected;
  __builtin_memcpy(data, &header, 2 * ETH_ALEN);

  if (bpf_xdp_adjust_meta(context, -(int)sizeof(struct SoftForwardInjectMeta)) < 0) goto unexpected;
  struct SoftForwardInjectMeta* meta = (void*)(long)context->data_meta;
  if ((const void*)(meta + 1) > (const void*)(long)context->data) goto unexpected;
  meta->magic = SOFT_FORWARD_MARK;
  meta->vlan = vlan;
  return XDP_PASS;

unexpected:
  count(SOFT_FORWARD_UNEXPECTED);
  return XDP_DROP;
}

SEC("tc")
int inject_ingress(struct __sk_buff* skb) {
  const struct SoftForwardInjectMeta* meta = (const void*)(long)skb->data_meta;
  if ((const void*)(meta + 1) > (const void*)(long)skb->data || meta->magic != SOFT_FORWARD_MARK)
    return unexpected();
  __u32 vlan = meta->vlan;
  const struct SoftForwardVlanPaths* paths = bpf_map_lookup_elem(&vlan_paths, &vlan);
  if (!paths) return unexpected();

  skb->mark = 0;  // whatever the sender's socket put there: a marked frame would not get out
  for (__u32 i = 0; i < SOFT_FORWARD_MAX_TUNNEL_PORTS; ++i) {
    if (i >= paths->tunnelPorts) break;
    if (i == paths->untagged && bpf_skb_vlan_push(skb, bpf_htons(ETH_P_8021Q), (__u16)vlan) < 0)
      return unexpected();
    if (bpf_clone_redirect(skb, paths->tunnelPort[i], 0) != 0) count(SOFT_FORWARD_INJECT_SEND_FAILED);
  }
  count(SOFT_FORWARD_INJECTED);
  return TC_ACT_SHOT;
}

SEC("tc")
int fabric_ingress(struct __sk_buff* skb) {
  // The tag is beside the frame when the kernel took it off, and inside when the frame did not come through
  // its receive path.
  __u32 vlan;
  if (skb->vlan_present) {
    if (skb->vlan_proto != bpf_htons(ETH_P_8021Q)) return unexpected();
    vlan = skb->vlan_tci & SOFT_FORWARD_VLAN_MASK;
  } else {
    __be16 tag[2];
    if (bpf_skb_load_bytes(skb, 2 * ETH_ALEN, tag, sizeof tag) < 0) return unexpected();
    if (tag[0] != bpf_htons(ETH_P_8021Q)) return unexpected();
    vlan = bpf_ntohs(tag[1]) & SOFT_FORWARD_VLAN_MASK;
  }
  const struct SoftForwardVlanPaths* paths = bpf_map_lookup_elem(&vlan_paths, &vlan);
  if (!paths || !paths->wayIn) return unexpected();
  const __u32 wayIn = paths->wayIn;
  const __u32 tagged = paths->wayInTagged;

  if (bpf_skb_vlan_pop(skb) < 0 || skb->vlan_present) return unexpected();
  struct ArpFrame frame;
  if (bpf_skb_load_bytes(skb, 0, &frame, sizeof frame) < 0) return unexpected();
  if (!isIpv4Arp(&frame)) return unexpected();

  if (tagged && bpf_skb_vlan_push(skb, bpf_htons(ETH_P_8021Q), (__u16)vlan) < 0) return unexpected();

  // An answer is for a host of this switch. Should the bridge have forgotten where that host is and flood the
  // frame, the mark keeps it from the overlay.
  skb->mark = SOFT_FORWARD_MARK | vlan;
  count(SOFT_FORWARD_REPLIED);
  return bpf_redirect(wayIn, 0);
}

SEC("tc")
int drop_all(struct __sk_buff* skb) {
  (void)skb;
  return unexpected();
}

char LICENSE[] SEC("license") = "GPL";
