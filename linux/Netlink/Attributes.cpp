#include "Netlink/Attributes.h"

#include <linux/netlink.h>

#include <algorithm>
#include <cstring>

#include "Mox/Assert.h"

namespace Netlink {
namespace {

constexpr const char* kSource = "Netlink/Attributes";

std::string refused(unsigned attribute, std::size_t length, const std::string& allowed) {
  return "attribute " + std::to_string(attribute) + " has " + std::to_string(length) + " bytes, allowed is " +
         allowed;
}

// What the kind allows for a payload of that length; empty: nothing to object.
std::string check(const Policy& policy, std::size_t length) {
  std::size_t exact = 0;
  switch (policy.kind) {
    case Kind::u8:
      exact = 1;
      break;
    case Kind::u16:
      exact = 2;
      break;
    case Kind::u32:
      exact = 4;
      break;
    case Kind::u64:
      exact = 8;
      break;
    case Kind::flag:
      return length == 0 ? std::string() : refused(policy.attribute, length, "0");
    case Kind::string:
    case Kind::bytes:
    case Kind::nested:
      if (length < policy.minimum)
        return refused(policy.attribute, length, "at least " + std::to_string(policy.minimum));
      if (policy.maximum != 0 && length > policy.maximum)
        return refused(policy.attribute, length, "at most " + std::to_string(policy.maximum));
      return {};
  }
  return length == exact ? std::string() : refused(policy.attribute, length, std::to_string(exact));
}

}  // namespace

std::optional<Attributes::Part> Attributes::next(Bytes& payload) {
  if (payload.size() < sizeof(nlattr)) return std::nullopt;
  nlattr header;
  std::memcpy(&header, payload.data(), sizeof header);
  Part part{static_cast<std::uint16_t>(header.nla_type & NLA_TYPE_MASK), header.nla_len, false, {}};
  part.whole = header.nla_len >= sizeof header && header.nla_len <= payload.size();
  if (!part.whole) return part;
  part.value = payload.subspan(sizeof header, header.nla_len - sizeof header);
  payload = payload.subspan(std::min<std::size_t>(payload.size(), NLA_ALIGN(header.nla_len)));
  return part;
}

void Attributes::parse(Bytes payload) {
  while (const std::optional<Part> part = next(payload)) {
    if (!part->whole) {
      error_ = refused(part->attribute, part->length,
                       "4 to the " + std::to_string(payload.size()) + " that are left");
      return;
    }
    const std::size_t index = indexOf(part->attribute);
    if (index >= policy_.size()) continue;
    error_ = check(policy_[index], part->value.size());
    if (malformed()) return;
    values_[index] = part->value;
    present_ |= 1U << index;
  }
}

std::size_t Attributes::indexOf(std::uint16_t attribute) const {
  return static_cast<std::size_t>(
      std::ranges::find(policy_, attribute, [](const Policy& policy) { return policy.attribute; }) -
      policy_.begin());
}

std::optional<Bytes> Attributes::find(std::uint16_t attribute, Kind kind) const {
  if (policy_.empty()) return std::nullopt;  // made by the default constructor
  const std::size_t index = indexOf(attribute);
  MOX_ASSERT(kSource, "the policy names the attribute with this kind",
             index < policy_.size() && policy_[index].kind == kind);
  if (malformed() || (present_ & (1U << index)) == 0) return std::nullopt;
  return values_[index];
}

bool Attributes::has(std::uint16_t attribute) const {
  const std::size_t index = indexOf(attribute);
  MOX_ASSERT(kSource, "the policy names the attribute", policy_.empty() || index < policy_.size());
  return !malformed() && index < policy_.size() && (present_ & (1U << index)) != 0;
}

template <class Integer>
std::optional<Integer> Attributes::integer(std::uint16_t attribute, Kind kind) const {
  const std::optional<Bytes> value = find(attribute, kind);
  if (!value) return std::nullopt;
  Integer number;
  std::memcpy(&number, value->data(), sizeof number);
  return number;
}

std::optional<std::uint8_t> Attributes::u8(std::uint16_t attribute) const {
  return integer<std::uint8_t>(attribute, Kind::u8);
}
std::optional<std::uint16_t> Attributes::u16(std::uint16_t attribute) const {
  return integer<std::uint16_t>(attribute, Kind::u16);
}
std::optional<std::uint32_t> Attributes::u32(std::uint16_t attribute) const {
  return integer<std::uint32_t>(attribute, Kind::u32);
}
std::optional<std::uint64_t> Attributes::u64(std::uint16_t attribute) const {
  return integer<std::uint64_t>(attribute, Kind::u64);
}

std::optional<std::string_view> Attributes::string(std::uint16_t attribute) const {
  const std::optional<Bytes> value = find(attribute, Kind::string);
  if (!value) return std::nullopt;
  const Bytes text =
      value->first(static_cast<std::size_t>(std::ranges::find(*value, std::byte{0}) - value->begin()));
  return std::string_view(reinterpret_cast<const char*>(text.data()),
                          text.size());  // char may alias anything
}

std::optional<Bytes> Attributes::bytes(std::uint16_t attribute) const { return find(attribute, Kind::bytes); }

}  // namespace Netlink
