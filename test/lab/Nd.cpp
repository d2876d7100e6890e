#include "lab/Nd.h"

#include <arpa/inet.h>

namespace Lab {

namespace {

constexpr std::uint8_t kSolicitation = 135, kAdvertisement = 136;
constexpr std::size_t kIpHeader = 40, kEthernetHeader = 14;

template <std::size_t kSize>
void put(Frame& frame, std::size_t at, const std::array<std::uint8_t, kSize>& bytes) {
  for (std::size_t i = 0; i < kSize; ++i) frame.at(at + i) = std::byte{bytes[i]};
}

Ip6 groupOf(const Ip6& target) {
  return {0xFF, 2, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0xFF, target[13], target[14], target[15]};
}
Mac macOfGroup(const Ip6& group) { return {0x33, 0x33, group[12], group[13], group[14], group[15]}; }

Frame begun(const Mac& source, const Mac& destination, const Ip6& from, const Ip6& to, std::uint8_t type,
            const Ip6& target, std::size_t size) {
  Frame frame(size, std::byte{0});
  put(frame, 0, destination);
  put(frame, 6, source);
  put(frame, 12, std::array<std::uint8_t, 2>{0x86, 0xDD});
  frame[Nd::kVersion] = std::byte{0x60};
  frame[Nd::kLength + 1] = static_cast<std::byte>(size - kEthernetHeader - kIpHeader);
  frame[Nd::kNextHeader] = std::byte{58};
  frame[Nd::kHopLimit] = std::byte{255};
  put(frame, Nd::kSourceIp, from);
  put(frame, Nd::kDestinationIp, to);
  frame[Nd::kType] = std::byte{type};
  put(frame, Nd::kTarget, target);
  return frame;
}

void optionIs(Frame& frame, std::uint8_t type, const Mac& mac) {
  frame[Nd::kOption] = std::byte{type};
  frame[Nd::kOptionLength] = std::byte{1};
  put(frame, Nd::kOptionAddress, mac);
}

}  // namespace

Ip6 ip6(const char* text) {
  Ip6 address{};
  if (inet_pton(AF_INET6, text, address.data()) != 1)
    throw std::runtime_error(std::string(text) + " is no IPv6 address");
  return address;
}

Frame solicitation(const Mac& mac, const Ip6& ip, const Ip6& target) {
  const Ip6 group = groupOf(target);
  Frame frame = begun(mac, macOfGroup(group), ip, group, kSolicitation, target, 86);
  optionIs(frame, 1, mac);
  return summed(frame);
}

Frame duplicateDetection(const Mac& mac, const Ip6& target) {
  const Ip6 group = groupOf(target);
  return summed(begun(mac, macOfGroup(group), {}, group, kSolicitation, target, 78));
}

Frame advertisement(const Mac& owner, const Ip6& target, const Mac& to, const Ip6& toIp, bool router) {
  Frame frame = begun(owner, to, target, toIp, kAdvertisement, target, 86);
  frame[Nd::kFlags] = std::byte(router ? 0xE0 : 0x60);
  optionIs(frame, 2, owner);
  return summed(frame);
}

Frame summed(Frame frame) {
  frame[Nd::kChecksum] = frame[Nd::kChecksum + 1] = std::byte{0};
  const auto word = [&](std::size_t at) {
    return std::to_integer<std::uint32_t>(frame[at]) << 8 |
           (at + 1 < frame.size() ? std::to_integer<std::uint32_t>(frame[at + 1]) : 0U);
  };
  const std::uint32_t length = word(Nd::kLength);
  std::uint32_t sum = length + std::to_integer<std::uint32_t>(frame[Nd::kNextHeader]);
  const std::size_t end = std::min(frame.size(), Nd::kType + length);
  for (std::size_t at = Nd::kSourceIp; at < end; at += 2) sum += word(at);
  while (sum > 0xFFFF) sum = (sum & 0xFFFF) + (sum >> 16);
  frame[Nd::kChecksum] = static_cast<std::byte>(~sum >> 8 & 0xFF);
  frame[Nd::kChecksum + 1] = static_cast<std::byte>(~sum & 0xFF);
  return frame;
}

}  // namespace Lab
