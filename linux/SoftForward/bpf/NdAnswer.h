// SPDX-License-Identifier: GPL-2.0-or-later

// Neighbour solicitations (RFC 4861) answered in place: what the agent says of an address is advertised to the
// hosts that solicit it. The agent is shown none: what has no answer, and what is not in every field as it is
// wanted here, passes untouched. So do duplicate address detection, whose source is unspecified, and
// reachability probes, which go to the owner alone. A part of SoftForward.bpf.c.

#define ND_ICMPV6 58
#define ND_SOLICITATION 135
#define ND_ADVERTISEMENT 136
#define ND_HOP_LIMIT 255  // it comes from this link
#define ND_SOURCE_ADDRESS 1
#define ND_TARGET_ADDRESS 2
#define ND_ROUTER 0x80000000U
#define ND_SOLICITED 0x40000000U
#define ND_OVERRIDE 0x20000000U

// A solicitation with its source's address for the only option, and the advertisement with its target's.
struct NdFrame {
  __u8 shift[2];  // no part of the frame: what follows its Ethernet header stands at multiples of four
  __u8 destination[ETH_ALEN];
  __u8 source[ETH_ALEN];
  __be16 ethertype;
  __be32 versionClassFlow;
  __be16 payloadLength;
  __u8 nextHeader;
  __u8 hopLimit;
  __be32 sourceIp[4];
  __be32 destinationIp[4];
  __u8 type;
  __u8 code;
  __be16 checksum;
  __be32 flags;  // a solicitation's are reserved
  __be32 target[4];
  __u8 option;
  __u8 optionLength;  // in units of eight bytes
  __u8 optionAddress[ETH_ALEN];
};
#define ND_SIZE (sizeof(struct NdFrame) - offsetof(struct NdFrame, destination))
#define ND_TYPED (offsetof(struct NdFrame, checksum) - offsetof(struct NdFrame, destination))
#define ND_PAYLOAD (sizeof(struct NdFrame) - offsetof(struct NdFrame, type))
#define ND_SUMMED (sizeof(struct NdFrame) - offsetof(struct NdFrame, sourceIp))
_Static_assert(ND_SIZE == 86 && ND_PAYLOAD == 32, "Ethernet, IPv6, ICMPv6 with a target and one option");

struct {
  __uint(type, BPF_MAP_TYPE_HASH);
  __uint(max_entries, SOFT_FORWARD_MAX_ANSWERS);
  __uint(map_flags, BPF_F_NO_PREALLOC);
  __type(key, struct SoftForwardNdAnswerKey);
  __type(value, struct SoftForwardAnswer);
} nd_answers SEC(".maps");

// Of the packet and what IPv6 adds to it: all ones when the checksum that is in it is right.
static __always_inline __u16 sumOf(struct NdFrame* frame) {
  __u32 sum = (__u32)bpf_csum_diff(0, 0, frame->sourceIp, ND_SUMMED, bpf_htons(ND_PAYLOAD + ND_ICMPV6));
  sum = (sum & 0xFFFF) + (sum >> 16);
  return (__u16)((sum & 0xFFFF) + (sum >> 16));
}

static __always_inline bool isGroupOf(const struct NdFrame* frame) {
  const __be32* group = frame->destinationIp;
  __be32 low;
  __builtin_memcpy(&low, frame->destination + 2, sizeof low);
  return frame->destination[0] == 0x33 && frame->destination[1] == 0x33 && low == group[3] &&
         group[0] == bpf_htonl(0xFF020000) && group[1] == 0 && group[2] == bpf_htonl(1) &&
         group[3] == (frame->target[3] | bpf_htonl(0xFF000000));
}

static __always_inline bool isMulticastIp6(const __be32* address) {
  return (address[0] & bpf_htonl(0xFF000000)) == bpf_htonl(0xFF000000);
}

// A host like any other solicits the address of another one.
static __always_inline bool isOrdinarySolicitation(struct NdFrame* frame,
                                                   const struct SoftForwardSettings* setting) {
  const __be32* from = frame->sourceIp;
  const __be32* target = frame->target;
  const bool isNobody = (from[0] | from[1] | from[2] | (from[3] & ~bpf_htonl(1))) == 0;  // or itself
  const bool isTarget =
      ((from[0] ^ target[0]) | (from[1] ^ target[1]) | (from[2] ^ target[2]) | (from[3] ^ target[3])) == 0;
  return (frame->versionClassFlow & bpf_htonl(0xF0000000)) == bpf_htonl(0x60000000) &&
         frame->payloadLength == bpf_htons(ND_PAYLOAD) && frame->hopLimit == ND_HOP_LIMIT &&
         frame->code == 0 && isGroupOf(frame) && !isMulticastIp6(target) && !isMulticastIp6(from) &&
         !isNobody && !isTarget && frame->option == ND_SOURCE_ADDRESS && frame->optionLength == 1 &&
         isSame(frame->optionAddress, frame->source) && isUnicast(frame->source) &&
         !isSame(frame->source, setting->switchAddress[0]) &&
         !isSame(frame->source, setting->switchAddress[1]) && sumOf(frame) == 0xFFFF;
}

// Turns the solicitation into the advertisement and sends it out of the port that it came from; a tag that
// stands beside the frame stays there. Negative: it could not be done, and the frame is as it was.
static __always_inline int advertise(struct __sk_buff* skb, struct NdFrame* frame, __u32 vlan,
                                     const struct SoftForwardAnswer* answer) {
  __builtin_memcpy(frame->destination, frame->source, ETH_ALEN);
  __builtin_memcpy(frame->source, answer->address, ETH_ALEN);
  frame->versionClassFlow = bpf_htonl(0x60000000);
  for (int i = 0; i < 4; ++i) {
    frame->destinationIp[i] = frame->sourceIp[i];
    frame->sourceIp[i] = frame->target[i];
  }
  frame->type = ND_ADVERTISEMENT;
  frame->flags = bpf_htonl((answer->router ? ND_ROUTER : 0) | ND_SOLICITED | ND_OVERRIDE);
  frame->option = ND_TARGET_ADDRESS;
  __builtin_memcpy(frame->optionAddress, answer->address, ETH_ALEN);
  frame->checksum = 0;
  frame->checksum = (__be16)~sumOf(frame);
  const __u32 counter = answer->counter;
  // The kernel's own sum of a received frame is without its Ethernet header.
  if (bpf_skb_store_bytes(skb, ETH_HLEN, &frame->versionClassFlow, ND_SIZE - ETH_HLEN, BPF_F_RECOMPUTE_CSUM) <
      0)
    return -1;
  bpf_skb_store_bytes(skb, 0, frame->destination, ETH_HLEN, 0);
  count(counter);
  COUNT_AT(skb->ifindex, vlan, answered);
  return bpf_redirect(skb->ifindex, 0);
}

static __always_inline int solicited(struct __sk_buff* skb) {
  if (skb->pkt_type != PACKET_MULTICAST) return TC_ACT_UNSPEC;
  struct NdFrame frame;
  if (bpf_skb_load_bytes(skb, 0, frame.destination, ND_TYPED) < 0) return TC_ACT_UNSPEC;
  if (frame.ethertype != bpf_htons(ETH_P_IPV6) || frame.nextHeader != ND_ICMPV6 ||
      frame.type != ND_SOLICITATION)
    return TC_ACT_UNSPEC;
  struct Place place;
  if (!isTrapping(skb, SOFT_FORWARD_ROLE_ACCESS, &place) || place.setting->refresh == 0 ||
      !answers_hold[place.vlan & SOFT_FORWARD_VLAN_MASK] || !isTrusted(0))
    return TC_ACT_UNSPEC;
  if (place.inPlace && skb->len == ND_SIZE &&
      bpf_skb_load_bytes(skb, ND_TYPED, &frame.checksum, ND_SIZE - ND_TYPED) == 0 &&
      isOrdinarySolicitation(&frame, place.setting)) {
    struct SoftForwardNdAnswerKey key = {.vlan = place.vlan};
    __builtin_memcpy(key.address, frame.target, sizeof key.address);
    const struct SoftForwardAnswer* answer = bpf_map_lookup_elem(&nd_answers, &key);
    if (answer && answer->owner != skb->ifindex) {
      const int sent = advertise(skb, &frame, place.vlan, answer);
      if (sent >= 0) return sent;
    }
  }
  count(SOFT_FORWARD_ND_PASSED);
  return TC_ACT_UNSPEC;
}
