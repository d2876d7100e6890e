#include "SoftForward/Filters.h"

#include <arpa/inet.h>
#include <linux/if_ether.h>
#include <linux/pkt_cls.h>
#include <linux/pkt_sched.h>
#include <linux/rtnetlink.h>

#include <cerrno>
#include <utility>

namespace SoftForward {
namespace {

using Netlink::Kind;
using Netlink::Message;

constexpr Netlink::Policy kTcPolicy[] = {{TCA_KIND, Kind::string, 1, 32}, {TCA_OPTIONS, Kind::nested}};
constexpr Netlink::Policy kBpfPolicy[] = {{TCA_BPF_NAME, Kind::string, 0, 256}};

constexpr std::uint32_t kClsact = TC_H_MAKE(TC_H_CLSACT, 0);

tcmsg filterHeader(const Hook& hook) {
  tcmsg header{};
  header.tcm_ifindex = static_cast<int>(hook.ifIndex);
  header.tcm_handle = Filters::kHandle;
  header.tcm_parent =
      TC_H_MAKE(TC_H_CLSACT, hook.direction == Direction::ingress ? TC_H_MIN_INGRESS : TC_H_MIN_EGRESS);
  header.tcm_info = TC_H_MAKE(static_cast<std::uint32_t>(Filters::kPriority) << 16, htons(ETH_P_ALL));
  return header;
}

Failure failed(const Hook& hook, const char* step, const Mox::Result<>& result) {
  if (result) return std::nullopt;
  return Netlink::describe(toString(hook) + ": " + step, result).error();
}

}  // namespace

std::string toString(const Hook& hook) {
  return "port " + std::to_string(hook.ifIndex) +
         (hook.direction == Direction::ingress ? " ingress" : " egress");
}

Failure Filters::owner(const Hook& hook, Owner& owner, std::string& name) {
  owner = Owner::nobody;
  const Mox::Result<> result = socket_.get(
      std::move(Message(RTM_GETTFILTER).header(filterHeader(hook))), [&](const Netlink::Received& message) {
        const Netlink::Attributes attributes(message.attributes(sizeof(tcmsg)), kTcPolicy);
        const Netlink::Attributes bpf = attributes.nested(TCA_OPTIONS, kBpfPolicy);
        name = bpf.string(TCA_BPF_NAME).value_or("without a name");
        owner =
            name.starts_with(kPrefix) && attributes.string(TCA_KIND) == "bpf" ? Owner::ours : Owner::other;
      });
  // No device, no clsact qdisc (EINVAL), or no filter behind it.
  if (result || result.number() == ENOENT || result.number() == EINVAL || result.number() == ENODEV)
    return std::nullopt;
  return failed(hook, "looking for a filter", result);
}

Failure Filters::attach(const Hook& hook, int program, const std::string& name) {
  tcmsg qdisc{};
  qdisc.tcm_ifindex = static_cast<int>(hook.ifIndex);
  qdisc.tcm_handle = kClsact;
  qdisc.tcm_parent = TC_H_CLSACT;
  const Mox::Result<> made = socket_.request(
      std::move(Message(RTM_NEWQDISC, NLM_F_CREATE | NLM_F_EXCL).header(qdisc).string(TCA_KIND, "clsact")));
  if (!made && made.number() != EEXIST) return failed(hook, "making the clsact qdisc", made);

  Owner owner = Owner::nobody;
  std::string present;
  if (Failure failure = this->owner(hook, owner, present)) return failure;
  if (owner == Owner::other)
    return toString(hook) + ": priority " + std::to_string(kPriority) + " handle " + std::to_string(kHandle) +
           " is taken by the filter " + present + ": move that one";

  Message message(RTM_NEWTFILTER, NLM_F_CREATE);
  message.header(filterHeader(hook)).string(TCA_KIND, "bpf").nest(TCA_OPTIONS, [&](Message& options) {
    options.u32(TCA_BPF_FD, static_cast<std::uint32_t>(program))
        .string(TCA_BPF_NAME, kPrefix + name)
        .u32(TCA_BPF_FLAGS, TCA_BPF_FLAG_ACT_DIRECT);
  });
  return failed(hook, "attaching the program", socket_.request(std::move(message)));
}

Failure Filters::detach(const Hook& hook) {
  Owner owner = Owner::nobody;
  std::string present;
  if (Failure failure = this->owner(hook, owner, present)) return failure;
  if (owner != Owner::ours) return std::nullopt;
  const Mox::Result<> result =
      socket_.request(std::move(Message(RTM_DELTFILTER).header(filterHeader(hook)).string(TCA_KIND, "bpf")));
  if (result.number() == ENOENT || result.number() == ENODEV) return std::nullopt;
  return failed(hook, "detaching the program", result);
}

Failure Filters::attached(std::vector<Hook>& hooks) {
  std::vector<std::uint32_t> devices;
  const Mox::Result<> result = socket_.dump(
      Message(RTM_GETQDISC).header(tcmsg{}),
      [&](const Netlink::Received& message) {
        const auto header = message.header<tcmsg>();
        const Netlink::Attributes attributes(message.attributes(sizeof(tcmsg)), kTcPolicy);
        if (header && header->tcm_ifindex > 0 && attributes.string(TCA_KIND) == "clsact")
          devices.push_back(static_cast<std::uint32_t>(header->tcm_ifindex));
      },
      [&] { devices.clear(); });
  if (!result) return Netlink::describe("listing clsact qdiscs", result).error();
  hooks.clear();
  for (const std::uint32_t device : devices) {
    for (const Direction direction : {Direction::ingress, Direction::egress}) {
      const Hook hook{device, direction};
      Owner owner = Owner::nobody;
      std::string name;
      if (Failure failure = this->owner(hook, owner, name)) return failure;
      if (owner == Owner::ours) hooks.push_back(hook);
    }
  }
  return std::nullopt;
}

}  // namespace SoftForward
