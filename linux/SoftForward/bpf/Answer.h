// SPDX-License-Identifier: GPL-2.0-or-later

// Answers in place: what the agent has decided for an address is repeated to hosts that it was shown lately.
// A part of SoftForward.bpf.c.

struct {
  __uint(type, BPF_MAP_TYPE_HASH);
  __uint(max_entries, SOFT_FORWARD_MAX_ANSWERS);
  __uint(map_flags, BPF_F_NO_PREALLOC);
  __type(key, struct SoftForwardAnswerKey);
  __type(value, struct SoftForwardAnswer);
} answers SEC(".maps");

struct {
  __uint(type, BPF_MAP_TYPE_LRU_HASH);
  __uint(max_entries, SOFT_FORWARD_MAX_SHOWN);
  __type(key, struct SoftForwardStation);
  __type(value, __u32);  // interface index of the port
} shown_stations SEC(".maps");

struct {
  __uint(type, BPF_MAP_TYPE_LRU_HASH);
  __uint(max_entries, SOFT_FORWARD_MAX_SHOWN);
  __type(key, struct SoftForwardSender);
  __type(value, struct SoftForwardShown);
} shown_addresses SEC(".maps");

static __always_inline bool isUnicast(const __u8* address) {
  return (address[0] & 1) == 0 &&
         (address[0] | address[1] | address[2] | address[3] | address[4] | address[5]) != 0;
}

static __always_inline bool isSameIp(const __u8* address, const __u8* other) {
  return address[0] == other[0] && address[1] == other[1] && address[2] == other[2] && address[3] == other[3];
}

// A host like any other asks for the address of another one.
static __always_inline bool isOrdinary(const struct ArpFrame* frame,
                                       const struct SoftForwardSettings* setting) {
  const __u8 nobody[4] = {};
  return isUnicast(frame->source) && isSame(frame->source, frame->senderMac) &&
         !isSame(frame->source, setting->switchAddress[0]) &&
         !isSame(frame->source, setting->switchAddress[1]) && !isSameIp(frame->senderIp, nobody) &&
         !isSameIp(frame->senderIp, frame->targetIp);
}

// The agent was shown the sender just so, and not long ago.
static __always_inline bool isShown(const struct __sk_buff* skb, const struct ArpFrame* frame, __u32 vlan,
                                    const struct SoftForwardSettings* setting) {
  struct SoftForwardStation station = {.vlan = vlan};
  __builtin_memcpy(station.address, frame->source, ETH_ALEN);
  const __u32* port = bpf_map_lookup_elem(&shown_stations, &station);
  if (!port || *port != skb->ifindex) return false;
  struct SoftForwardSender sender = {.vlan = vlan};
  __builtin_memcpy(sender.address, frame->senderIp, sizeof sender.address);
  const struct SoftForwardShown* last = bpf_map_lookup_elem(&shown_addresses, &sender);
  return last && isSame(last->station, frame->source) && bpf_ktime_get_ns() - last->at < setting->refresh;
}

// The agent was shown a frame. Whatever it says of its sender takes the place of what was shown before.
static __always_inline void shown(const struct __sk_buff* skb, const struct ArpFrame* frame, __u32 vlan) {
  struct SoftForwardStation station = {.vlan = vlan};
  __builtin_memcpy(station.address, frame->source, ETH_ALEN);
  const __u32 port = skb->ifindex;
  bpf_map_update_elem(&shown_stations, &station, &port, BPF_ANY);
  struct SoftForwardSender sender = {.vlan = vlan};
  __builtin_memcpy(sender.address, frame->senderIp, sizeof sender.address);
  struct SoftForwardShown now = {.at = bpf_ktime_get_ns()};
  __builtin_memcpy(now.station, frame->senderMac, ETH_ALEN);
  bpf_map_update_elem(&shown_addresses, &sender, &now, BPF_ANY);
}

// The answer to a request, if it may be given here. `why` says which counter takes it if the agent is to be
// shown the request first; it is left alone if not.
static __always_inline struct SoftForwardAnswer* answerOf(const struct __sk_buff* skb,
                                                          const struct ArpFrame* frame, __u32 vlan,
                                                          bool inPlace,
                                                          const struct SoftForwardSettings* setting,
                                                          __u32* why) {
  if (setting->refresh == 0) return 0;
  if (frame->operation != bpf_htons(1)) return 0;
  *why = SOFT_FORWARD_SHOWN_OTHER;
  if (!inPlace || !isOrdinary(frame, setting)) return 0;
  struct SoftForwardAnswerKey key = {.vlan = vlan};
  __builtin_memcpy(key.address, frame->targetIp, sizeof key.address);
  struct SoftForwardAnswer* answer = bpf_map_lookup_elem(&answers, &key);
  *why = SOFT_FORWARD_SHOWN_NO_ANSWER;
  if (!answer) return 0;
  *why = SOFT_FORWARD_SHOWN_OTHER;
  if (answer->owner == skb->ifindex) return 0;
  *why = isShown(skb, frame, vlan, setting) ? SOFT_FORWARD_COUNTERS : SOFT_FORWARD_SHOWN_SENDER;
  return answer;
}

// Turns the request into the reply and sends it out of the port that it came from, as the bridge would
// deliver it; a tag that stands beside the frame stays there. Negative: it could not be done, and the frame
// is as it was.
static __always_inline int reply(struct __sk_buff* skb, const struct ArpFrame* request, __u32 vlan,
                                 const struct SoftForwardAnswer* answer) {
  struct ArpFrame frame = *request;
  __builtin_memcpy(frame.destination, request->source, ETH_ALEN);
  __builtin_memcpy(frame.source, answer->address, ETH_ALEN);
  frame.operation = bpf_htons(2);
  __builtin_memcpy(frame.senderMac, answer->address, ETH_ALEN);
  __builtin_memcpy(frame.senderIp, request->targetIp, sizeof frame.senderIp);
  __builtin_memcpy(frame.targetMac, request->source, ETH_ALEN);
  __builtin_memcpy(frame.targetIp, request->senderIp, sizeof frame.targetIp);
  const __u32 counter = answer->counter;
  if (skb->len > sizeof frame && bpf_skb_change_tail(skb, sizeof frame, 0) < 0) return -1;
  if (bpf_skb_store_bytes(skb, 0, &frame, sizeof frame, 0) < 0) return -1;
  count(counter);
  COUNT_AT(skb->ifindex, vlan, answered);
  return bpf_redirect(skb->ifindex, 0);
}
