#include "Netlink/Message.h"

#include <linux/netlink.h>

#include <cstring>
#include <limits>

namespace Netlink {
namespace {

constexpr std::size_t kAlignment = 4;

nlmsghdr headerOf(std::span<const std::byte> buffer) {
  nlmsghdr header;
  std::memcpy(&header, buffer.data(), sizeof header);
  return header;
}

void headerIs(std::span<std::byte> buffer, const nlmsghdr& header) {
  std::memcpy(buffer.data(), &header, sizeof header);
}

}  // namespace

Message::Message(std::uint16_t type, std::uint16_t flags) : buffer_(sizeof(nlmsghdr)) {
  nlmsghdr header{};
  header.nlmsg_len = sizeof header;
  header.nlmsg_type = type;
  header.nlmsg_flags = static_cast<std::uint16_t>(flags | NLM_F_REQUEST);
  headerIs(buffer_, header);
}

void Message::append(std::span<const std::byte> value) {
  buffer_.insert(buffer_.end(), value.begin(), value.end());
  buffer_.resize((buffer_.size() + kAlignment - 1) / kAlignment * kAlignment);
  nlmsghdr header = headerOf(buffer_);
  header.nlmsg_len = static_cast<std::uint32_t>(buffer_.size());
  headerIs(buffer_, header);
}

Message& Message::bytes(std::uint16_t attribute, std::span<const std::byte> value) {
  const std::size_t length = sizeof(nlattr) + value.size();
  if (length > std::numeric_limits<std::uint16_t>::max()) {
    valid_ = false;
    return *this;
  }
  const nlattr header{static_cast<std::uint16_t>(length), attribute};
  append(std::as_bytes(std::span(&header, 1)));
  append(value);
  return *this;
}

Message& Message::u8(std::uint16_t attribute, std::uint8_t value) {
  return bytes(attribute, std::as_bytes(std::span(&value, 1)));
}
Message& Message::u16(std::uint16_t attribute, std::uint16_t value) {
  return bytes(attribute, std::as_bytes(std::span(&value, 1)));
}
Message& Message::u32(std::uint16_t attribute, std::uint32_t value) {
  return bytes(attribute, std::as_bytes(std::span(&value, 1)));
}
Message& Message::u64(std::uint16_t attribute, std::uint64_t value) {
  return bytes(attribute, std::as_bytes(std::span(&value, 1)));
}

Message& Message::string(std::uint16_t attribute, std::string_view value) {
  std::vector<std::byte> text(value.size() + 1);
  std::memcpy(text.data(), value.data(), value.size());
  return bytes(attribute, text);
}

std::size_t Message::nestStart(std::uint16_t attribute) {
  const std::size_t start = buffer_.size();
  const nlattr header{sizeof(nlattr), static_cast<std::uint16_t>(attribute | NLA_F_NESTED)};
  append(std::as_bytes(std::span(&header, 1)));
  return start;
}

void Message::nestEnd(std::size_t start) {
  const std::size_t length = buffer_.size() - start;
  if (length > std::numeric_limits<std::uint16_t>::max()) {
    valid_ = false;
    return;
  }
  nlattr header;
  std::memcpy(&header, buffer_.data() + start, sizeof header);
  header.nla_len = static_cast<std::uint16_t>(length);
  std::memcpy(buffer_.data() + start, &header, sizeof header);
}

std::uint16_t Message::type() const { return headerOf(buffer_).nlmsg_type; }

void Message::flagsAdd(std::uint16_t flags) {
  nlmsghdr header = headerOf(buffer_);
  header.nlmsg_flags = static_cast<std::uint16_t>(header.nlmsg_flags | flags);
  headerIs(buffer_, header);
}

void Message::sequenceIs(std::uint32_t sequence) {
  nlmsghdr header = headerOf(buffer_);
  header.nlmsg_seq = sequence;
  headerIs(buffer_, header);
}

}  // namespace Netlink
