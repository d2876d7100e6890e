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

using Mox::Failure;
using Netlink::Kind;
using Netlink::Message;

constexpr Netlink::Policy kTcPolicy[] = {{TCA_KIND, Kind::string, 1, 32}, {TCA_OPTIONS, Kind::nested}};
constexpr Netlink::Policy kBpfPolicy[] = {{TCA_BPF_NAME, Kind::string, 0, 256}, {TCA_BPF_ID, Kind::u32}};

constexpr std::uint32_t kClsact = TC_H_MAKE(TC_H_CLSACT, 0);

std::uint32_t parentOf(Direction direction) {
  return TC_H_MAKE(TC_H_CLSACT, direction == Direction::ingress ? TC_H_MIN_INGRESS : TC_H_MIN_EGRESS);
}

std::optional<Direction> directionOf(const tcmsg& header) {
  for (const Direction direction : {Direction::ingress, Direction::egress})
    if (header.tcm_parent == parentOf(direction)) return direction;
  return std::nullopt;
}

tcmsg filterHeader(const Hook& hook) {
  tcmsg header{};
  header.tcm_ifindex = static_cast<int>(hook.ifIndex);
  header.tcm_handle = Filters::kHandle;
  header.tcm_parent = parentOf(hook.direction);
  header.tcm_info = TC_H_MAKE(static_cast<std::uint32_t>(Filters::kPriority) << 16, htons(ETH_P_ALL));
  return header;
}

Message deletion(const Hook& hook) {
  return std::move(Message(RTM_DELTFILTER).header(filterHeader(hook)).string(TCA_KIND, "bpf"));
}

bool isAbsent(const Netlink::Result<>& result) {
  return result.number() == ENOENT || result.number() == ENODEV;
}

Mox::Result<> named(const Hook& hook, const char* step, const Netlink::Result<>& result) {
  const char* direction = hook.direction == Direction::ingress ? ", ingress: " : ", egress: ";
  return Netlink::describe("port " + hook.device + direction + step, result);
}

std::size_t at(Direction direction) { return static_cast<std::size_t>(direction); }

}  // namespace

Filters::Place Filters::placeOf(const Netlink::Received& message) {
  const Netlink::Attributes attributes(message.attributes(sizeof(tcmsg)), kTcPolicy);
  const Netlink::Attributes bpf = attributes.nested(TCA_OPTIONS, kBpfPolicy);
  Place place;
  place.name = bpf.string(TCA_BPF_NAME).value_or("without a name");
  place.program = bpf.u32(TCA_BPF_ID).value_or(0);
  place.owner = place.name.starts_with(kPrefix) && attributes.string(TCA_KIND) == "bpf" ? Place::Owner::us
                                                                                        : Place::Owner::other;
  return place;
}

Message Filters::qdiscDump() { return std::move(Message(RTM_GETQDISC).header(tcmsg{})); }

Netlink::IfIndex Filters::applyQdisc(const Netlink::Received& message) {
  const auto header = message.header<tcmsg>();
  if (!header || header->tcm_ifindex <= 0 || header->tcm_parent != TC_H_CLSACT) return 0;
  const auto ifIndex = static_cast<Netlink::IfIndex>(header->tcm_ifindex);
  if (message.type() == RTM_DELQDISC) return devices_.erase(ifIndex) != 0 ? ifIndex : 0;
  devices_.try_emplace(ifIndex);  // a notification of our own making finds it there
  return 0;
}

Netlink::IfIndex Filters::apply(const Netlink::Received& message) {
  const std::uint16_t type = message.type();
  if (type == RTM_NEWQDISC || type == RTM_DELQDISC) return applyQdisc(message);
  if (type != RTM_NEWTFILTER && type != RTM_DELTFILTER) return 0;
  const auto header = message.header<tcmsg>();
  if (!header || header->tcm_ifindex <= 0) return 0;
  const auto direction = directionOf(*header);
  const auto ifIndex = static_cast<Netlink::IfIndex>(header->tcm_ifindex);
  const auto device = devices_.find(ifIndex);
  if (!direction || device == devices_.end()) return 0;
  // A whole priority goes without a handle, everything behind a qdisc without a priority too.
  const std::uint32_t priority = TC_H_MAJ(header->tcm_info) >> 16;
  if (header->tcm_handle != kHandle && header->tcm_handle != 0) return 0;
  if (priority != kPriority && priority != 0) return 0;
  std::optional<Place>& place = device->second[at(*direction)];
  const Place now = type == RTM_NEWTFILTER ? placeOf(message) : Place();
  if (place == now) return 0;
  place = now;
  return ifIndex;
}

std::vector<Netlink::IfIndex> Filters::devices() const {
  std::vector<Netlink::IfIndex> all;
  for (const auto& [ifIndex, places] : devices_) all.push_back(ifIndex);
  return all;
}

Mox::Result<Filters::Place> Filters::place(const Hook& hook) {
  const auto device = devices_.find(hook.ifIndex);
  if (device == devices_.end()) return Place();
  std::optional<Place>& known = device->second[at(hook.direction)];
  if (known) return *known;
  Place found;
  const auto result = requests_.get(std::move(Message(RTM_GETTFILTER).header(filterHeader(hook))),
                                    [&](const Netlink::Received& message) { found = placeOf(message); });
  // No device, no qdisc (EINVAL), or no filter behind it.
  if (!result && !isAbsent(result) && result.number() != EINVAL)
    return named(hook, "looking for a filter", result).failure();
  known = found;
  return found;
}

void Filters::placeIs(const Hook& hook, Place place) {
  devices_[hook.ifIndex][at(hook.direction)] = std::move(place);
}

Mox::Result<bool> Filters::has(const Hook& hook, const LoadedProgram& program) {
  const auto present = place(hook);
  if (!present) return present.failure();
  return present->owner == Place::Owner::us && present->program == program.id &&
         present->name == std::string(kPrefix) + program.name;
}

Mox::Result<> Filters::attachedIs(const Hook& hook, const LoadedProgram& program) {
  const auto present = has(hook, program);
  if (!present) return present.failure();
  return *present ? Mox::Result<>() : attach(hook, program);
}

Mox::Result<> Filters::attach(const Hook& hook, const LoadedProgram& program) {
  if (!devices_.contains(hook.ifIndex)) {
    tcmsg qdisc{};
    qdisc.tcm_ifindex = static_cast<int>(hook.ifIndex);
    qdisc.tcm_handle = kClsact;
    qdisc.tcm_parent = TC_H_CLSACT;
    const auto made = requests_.request(
        std::move(Message(RTM_NEWQDISC, NLM_F_CREATE | NLM_F_EXCL).header(qdisc).string(TCA_KIND, "clsact")));
    if (!made && made.number() != EEXIST) return named(hook, "making the clsact qdisc", made);
    // A new one is empty; in one that was there something may be.
    devices_[hook.ifIndex] = made ? Places{Place(), Place()} : Places{};
  }
  const auto present = place(hook);
  if (!present) return present.failure();
  if (present->owner == Place::Owner::other)
    return named(hook, "attaching the program",
                 Failure{"priority " + std::to_string(kPriority) + " handle " + std::to_string(kHandle) +
                         " is taken by the filter " + present->name + ": move that one"});
  const std::string name = std::string(kPrefix) + program.name;
  Message message(RTM_NEWTFILTER, NLM_F_CREATE);
  message.header(filterHeader(hook)).string(TCA_KIND, "bpf").nest(TCA_OPTIONS, [&](Message& options) {
    options.u32(TCA_BPF_FD, static_cast<std::uint32_t>(program.descriptor))
        .string(TCA_BPF_NAME, name)
        .u32(TCA_BPF_FLAGS, TCA_BPF_FLAG_ACT_DIRECT);
  });
  const auto attached = requests_.request(std::move(message));
  if (!attached) {
    devices_[hook.ifIndex][at(hook.direction)].reset();
    return named(hook, "attaching the program", attached);
  }
  placeIs(hook, {Place::Owner::us, name, program.id});
  return {};
}

Mox::Result<> Filters::detach(const Hook& hook) {
  const auto present = place(hook);
  if (!present) return present.failure();
  if (present->owner != Place::Owner::us) return {};
  const auto result = requests_.request(deletion(hook));
  if (!result && !isAbsent(result)) return named(hook, "detaching the program", result);
  placeIs(hook, Place());
  return {};
}

Mox::Result<> Filters::detachAll() {
  std::vector<Message> messages;
  for (const auto& [ifIndex, places] : devices_) {
    for (const Direction direction : {Direction::ingress, Direction::egress}) {
      const std::optional<Place>& place = places[at(direction)];
      if (place && place->owner == Place::Owner::us) messages.push_back(deletion({ifIndex, direction, {}}));
    }
  }
  Mox::Result<> failed;
  requests_.batch(messages, [&](std::size_t, const Netlink::Result<>& result) {
    if (!result && !isAbsent(result) && failed) failed = Netlink::describe("detaching programs", result);
  });
  clear();
  return failed;
}

}  // namespace SoftForward
