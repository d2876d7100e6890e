#pragma once

// Building a netlink request.
//
//   Netlink::Message message(RTM_NEWLINK, NLM_F_CREATE | NLM_F_EXCL);
//   message.header(ifinfomsg{}).string(IFLA_IFNAME, "arpsnoop").nest(IFLA_LINKINFO, [](Netlink::Message&
//   info) {
//     info.string(IFLA_INFO_KIND, "veth");
//   });
//
// NLM_F_REQUEST is always set; the socket adds NLM_F_ACK or NLM_F_DUMP, the sequence number, and counts the
// answers. Integers go in the byte order of the host; what the kernel wants big-endian is given as bytes.
//
// Formats: struct nlmsghdr and struct nlattr of <linux/netlink.h>, each padded to four bytes.

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

namespace Netlink {

class Message {
 public:
  // `type` and `flags` as in <linux/rtnetlink.h>, the flags without NLM_F_REQUEST.
  explicit Message(std::uint16_t type, std::uint16_t flags = 0);

  // The family's fixed header (ifinfomsg, ndmsg, tcmsg ...). Once, before the attributes.
  template <class Fixed>
  Message& header(const Fixed& fixed) {
    static_assert(std::is_trivially_copyable_v<Fixed>);
    append(std::as_bytes(std::span(&fixed, 1)));
    return *this;
  }

  Message& u8(std::uint16_t attribute, std::uint8_t value);
  Message& u16(std::uint16_t attribute, std::uint16_t value);
  Message& u32(std::uint16_t attribute, std::uint32_t value);
  Message& u64(std::uint16_t attribute, std::uint64_t value);
  Message& string(std::uint16_t attribute, std::string_view value);  // a NUL is appended
  Message& bytes(std::uint16_t attribute, std::span<const std::byte> value);
  Message& flag(std::uint16_t attribute) { return bytes(attribute, {}); }

  // `fill(message)` appends what goes inside the attribute. NLA_F_NESTED is set.
  template <class Fill>
  Message& nest(std::uint16_t attribute, Fill&& fill) {
    const std::size_t start = nestStart(attribute);
    std::forward<Fill>(fill)(*this);
    nestEnd(start);
    return *this;
  }

  // False once an attribute exceeded what its 16-bit length can say: the socket refuses such a message.
  bool valid() const { return valid_; }

  std::uint16_t type() const;
  std::size_t size() const { return buffer_.size(); }
  std::span<const std::byte> data() const { return buffer_; }

  // For the socket: adds to the header's flags, and sets the sequence number by which answers are matched.
  void flagsAdd(std::uint16_t flags);
  void sequenceIs(std::uint32_t sequence);

 private:
  void append(std::span<const std::byte> value);  // padded to four bytes; keeps the message's length right
  std::size_t nestStart(std::uint16_t attribute);
  void nestEnd(std::size_t start);

  std::vector<std::byte> buffer_;
  bool valid_ = true;
};

}  // namespace Netlink
