#pragma once

// Reading the attributes of a netlink message through a policy table.
//
// A table says, for each attribute that a reader wants, its number, its kind and its length. Everything else
// in the message is skipped, so that newer kernels may add what they like. Whatever the table names is
// checked before anything is read: an attribute that is shorter or longer than its kind allows, or that runs
// past the end of the message, makes the whole set malformed and is then the caller's reason to ignore the
// message.
//
//   constexpr Netlink::Policy kLinkPolicy[] = {{IFLA_IFNAME, Netlink::Kind::string, 1, IFNAMSIZ},
//                                              {IFLA_MASTER, Netlink::Kind::u32},
//                                              {IFLA_ADDRESS, Netlink::Kind::bytes, 6, 6}};
//   Netlink::Attributes attributes(message.attributes(sizeof(ifinfomsg)), kLinkPolicy);
//   if (attributes.malformed()) return;
//   auto master = attributes.u32(IFLA_MASTER);  // std::nullopt when absent
//
// Integers are in the byte order of the host, as rtnetlink has them. The attributes that are big-endian on
// the wire (addresses, NDA_PORT, VLAN protocols) are read as `bytes`, so that the caller names the order.
//
// Layout of an attribute: struct nlattr of <linux/netlink.h>; nla_len counts the four bytes of header, not
// the padding.

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace Netlink {

using Bytes = std::span<const std::byte>;

enum class Kind : std::uint8_t {
  u8,      // exactly the size of the integer
  u16,     //
  u32,     //
  u64,     //
  string,  // text; what follows the first NUL is no part of it, and the NUL itself may be missing
  bytes,   // anything, copied out by the caller
  nested,  // attributes again
  flag,    // its presence is the value
};

struct Policy {
  std::uint16_t attribute;
  Kind kind;
  std::uint16_t minimum = 0;  // payload bytes; for string, bytes and nested only
  std::uint16_t maximum = 0;  // 0: no bound but the message's
};

// The attributes of one message or of one nested attribute. Holds views: it must not outlive the message, nor
// the table, which is to be a constant of static storage. Never allocates unless the set is malformed.
//
// Asking for an attribute that the table does not name, or names with another kind, is a programming error
// and asserts. If an attribute occurs twice the last one counts, as it does in the kernel.
class Attributes {
 public:
  static constexpr std::size_t kMaxPolicies = 32;

  Attributes() = default;

  template <std::size_t N>
  Attributes(Bytes payload, const Policy (&policy)[N]) : policy_(policy) {
    static_assert(N <= kMaxPolicies);
    parse(payload);
  }

  bool malformed() const { return !error_.empty(); }
  const std::string& error() const { return error_; }  // which attribute, its length and what is allowed

  bool has(std::uint16_t attribute) const;
  std::optional<std::uint8_t> u8(std::uint16_t attribute) const;
  std::optional<std::uint16_t> u16(std::uint16_t attribute) const;
  std::optional<std::uint32_t> u32(std::uint16_t attribute) const;
  std::optional<std::uint64_t> u64(std::uint16_t attribute) const;
  std::optional<std::string_view> string(std::uint16_t attribute) const;
  std::optional<Bytes> bytes(std::uint16_t attribute) const;

  // The attributes inside a nested one: an empty set when that is absent.
  template <std::size_t N>
  Attributes nested(std::uint16_t attribute, const Policy (&policy)[N]) const {
    return Attributes(find(attribute, Kind::nested).value_or(Bytes{}), policy);
  }

  // What is inside each attribute of that number, where one stands for each entry of a list. Whether all of
  // it is well-formed; `handle` gets those before the first that is not.
  template <std::size_t N, class Handle>
  static bool each(Bytes payload, std::uint16_t attribute, const Policy (&policy)[N], Handle&& handle) {
    while (const std::optional<Part> part = next(payload)) {
      if (!part->whole) return false;
      if (part->attribute != attribute) continue;
      const Attributes inside(part->value, policy);
      if (inside.malformed()) return false;
      handle(inside);
    }
    return true;
  }

 private:
  struct Part {
    std::uint16_t attribute;
    std::uint16_t length;  // what its header says
    bool whole;            // that is possible; otherwise there is no value
    Bytes value;
  };
  // Cuts the next one off; nothing when none is left.
  static std::optional<Part> next(Bytes& payload);
  void parse(Bytes payload);
  std::size_t indexOf(std::uint16_t attribute) const;  // the table's size when it does not name the attribute
  std::optional<Bytes> find(std::uint16_t attribute, Kind kind) const;
  template <class Integer>
  std::optional<Integer> integer(std::uint16_t attribute, Kind kind) const;

  std::span<const Policy> policy_;
  std::array<Bytes, kMaxPolicies> values_{};
  std::uint32_t present_ = 0;  // bit i: the attribute of policy_[i] was there
  std::string error_;
};

}  // namespace Netlink
