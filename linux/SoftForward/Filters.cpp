#include "SoftForward/Filters.h"

#include <arpa/inet.h>
#include <linux/if_ether.h>
#include <linux/pkt_cls.h>
#include <linux/pkt_sched.h>
#include <linux/rtnetlink.h>

#include <cerrno>
#include <cstring>
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

Message qdiscRequest(std::uint16_t type, std::uint16_t flags, Netlink::IfIndex ifIndex) {
  tcmsg qdisc{};
  qdisc.tcm_ifindex = static_cast<int>(ifIndex);
  qdisc.tcm_handle = kClsact;
  qdisc.tcm_parent = TC_H_CLSACT;
  return std::move(Message(type, flags).header(qdisc).string(TCA_KIND, "clsact"));
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
  place.ownQdisc = place.owner == Place::Owner::us && place.name.ends_with(kOwnQdisc);
  if (place.ownQdisc) place.name.resize(place.name.size() - std::strlen(kOwnQdisc));
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
  const Place now = type == RTM_NEWTFILTER ? placeOf(message) : Place();
  if (device->second.places[at(*direction)] == now) return 0;
  placeIs({ifIndex, *direction, {}}, now);
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
  if (const std::optional<Place>& known = device->second.places[at(hook.direction)]) return *known;
  Place found;
  const auto result = requests_.get(std::move(Message(RTM_GETTFILTER).header(filterHeader(hook))),
                                    [&](const Netlink::Received& message) { found = placeOf(message); });
  // No device, no qdisc (EINVAL), or no filter behind it.
  if (!result && !isAbsent(result) && result.number() != EINVAL)
    return named(hook, "looking for a filter", result).failure();
  placeIs(hook, found);
  return found;
}

void Filters::placeIs(const Hook& hook, Place place) {
  Device& device = devices_[hook.ifIndex];
  device.ownQdisc = device.ownQdisc || place.ownQdisc;
  device.places[at(hook.direction)] = std::move(place);
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
    const auto made = requests_.request(qdiscRequest(RTM_NEWQDISC, NLM_F_CREATE | NLM_F_EXCL, hook.ifIndex));
    if (!made && made.number() != EEXIST) return named(hook, "making the clsact qdisc", made);
    // A new one is empty; in one that was there something may be.
    devices_[hook.ifIndex] = made ? Device{{Place(), Place()}, true} : Device();
  }
  // The one of the other direction may be what tells whose the qdisc is.
  const Direction other = hook.direction == Direction::ingress ? Direction::egress : Direction::ingress;
  if (const auto beside = place({hook.ifIndex, other, hook.device}); !beside) return beside.failure();
  const auto present = place(hook);
  if (!present) return present.failure();
  if (present->owner == Place::Owner::other)
    return named(hook, "attaching the program",
                 Failure{"priority " + std::to_string(kPriority) + " handle " + std::to_string(kHandle) +
                         " is taken by the filter " + present->name + ": move that one"});
  const std::string name = std::string(kPrefix) + program.name;
  const bool ownQdisc = devices_[hook.ifIndex].ownQdisc;
  Message message(RTM_NEWTFILTER, NLM_F_CREATE);
  message.header(filterHeader(hook)).string(TCA_KIND, "bpf").nest(TCA_OPTIONS, [&](Message& options) {
    options.u32(TCA_BPF_FD, static_cast<std::uint32_t>(program.descriptor))
        .string(TCA_BPF_NAME, ownQdisc ? name + kOwnQdisc : name)
        .u32(TCA_BPF_FLAGS, TCA_BPF_FLAG_ACT_DIRECT);
  });
  const auto attached = requests_.request(std::move(message));
  if (!attached) {
    devices_[hook.ifIndex].places[at(hook.direction)].reset();
    return named(hook, "attaching the program", attached);
  }
  placeIs(hook, {Place::Owner::us, name, ownQdisc, program.id});
  return {};
}

Mox::Result<> Filters::detach(const Hook& hook) {
  const auto present = place(hook);
  if (!present) return present.failure();
  if (present->owner != Place::Owner::us) return {};
  const auto result = requests_.request(deletion(hook));
  if (!result && !isAbsent(result)) return named(hook, "detaching the program", result);
  placeIs(hook, Place());
  return qdiscDel(hook);
}

Mox::Result<> Filters::qdiscDel(const Hook& hook) {
  if (!devices_[hook.ifIndex].ownQdisc) return {};
  const auto empty = isFree(hook.ifIndex, false);
  if (!empty && !isAbsent(empty.failure())) return empty.failure();
  if (empty && !*empty) return {};
  const auto removed = requests_.request(qdiscRequest(RTM_DELQDISC, 0, hook.ifIndex));
  if (!removed && !isAbsent(removed)) return named(hook, "removing the clsact qdisc", removed);
  forget(hook.ifIndex);
  return {};
}

Mox::Result<bool> Filters::isFree(Netlink::IfIndex ifIndex, bool ofOthers) {
  bool empty = true;
  // A priority has a message without a handle in front of its filters.
  const auto isOurs = [](const Netlink::Received& message) {
    const auto header = message.header<tcmsg>();
    return header && TC_H_MAJ(header->tcm_info) >> 16 == kPriority &&
           (header->tcm_handle == 0 || placeOf(message).owner == Place::Owner::us);
  };
  for (const Direction direction : {Direction::ingress, Direction::egress}) {
    tcmsg header{};
    header.tcm_ifindex = static_cast<int>(ifIndex);
    header.tcm_parent = parentOf(direction);
    const auto result = dumps_.dump(
        Message(RTM_GETTFILTER, NLM_F_DUMP).header(header),
        [&](const Netlink::Received& message) {
          empty = empty && (message.type() != RTM_NEWTFILTER || (ofOthers && isOurs(message)));
        },
        [] {});
    if (!result) return Netlink::describe("looking for filters of others", result).failure();
  }
  return empty;
}

// A clsact of ours goes with what is in it: without filters nobody could tell whose it is, if we ended in between.
Mox::Result<> Filters::removeAll(const Removed& removed) {
  Mox::Result<> failed;
  std::vector<std::pair<Netlink::IfIndex, std::vector<std::string>>> what;  // by message
  std::vector<Message> messages;
  const auto note = [&](const Mox::Result<>& result) {
    if (!result && !isAbsent(result) && failed) failed = result;
  };
  for (const Netlink::IfIndex ifIndex : devices()) {
    std::vector<std::string> names;
    std::vector<Message> deletions;
    for (const Direction direction : {Direction::ingress, Direction::egress}) {
      const Hook hook{ifIndex, direction, std::to_string(ifIndex)};
      const auto present = place(hook);
      note(present ? Mox::Result<>() : present.failure());
      if (!present || present->owner != Place::Owner::us) continue;
      names.push_back("filter " + present->name);
      deletions.push_back(deletion(hook));
    }
    const auto free = devices_[ifIndex].ownQdisc ? isFree(ifIndex, true) : Mox::Result<bool>(false);
    note(free ? Mox::Result<>() : free.failure());
    if (free && *free) {
      names.emplace_back("empty clsact");
      what.emplace_back(ifIndex, names);
      messages.push_back(qdiscRequest(RTM_DELQDISC, 0, ifIndex));
      continue;
    }
    for (std::size_t i = 0; i < deletions.size(); ++i) {
      what.push_back({ifIndex, {names[i]}});
      messages.push_back(std::move(deletions[i]));
    }
  }
  requests_.batch(messages, [&](std::size_t i, const Netlink::Result<>& result) {
    if (result)
      for (const std::string& name : what[i].second) removed(what[i].first, name);
    note(Netlink::describe("detaching programs", result));
  });
  clear();
  return failed;
}

}  // namespace SoftForward
