#include <linux/rtnetlink.h>

#include <array>

#include "ArpService/Neighbour.h"
#include "KernelState/Messages.h"
#include "Netlink/Attributes.h"
#include "Netlink/Socket.h"
#include "fuzz/Input.h"

namespace {

using Netlink::Kind;

constexpr Netlink::Policy kInner[] = {{1, Kind::u8},  {2, Kind::u16},          {3, Kind::u32},
                                      {4, Kind::u64}, {5, Kind::string, 1, 8}, {6, Kind::flag}};
constexpr Netlink::Policy kOuter[] = {
    {1, Kind::nested}, {2, Kind::bytes, 4, 16}, {3, Kind::string}, {4, Kind::nested, 4, 64}};

// Touches every byte, so that one outside the message is found.
unsigned sumOf(std::span<const std::byte> bytes) {
  unsigned sum = 0;
  for (const std::byte byte : bytes) sum += std::to_integer<unsigned>(byte);
  return sum;
}

unsigned readInner(const Netlink::Attributes& inner) {
  if (inner.malformed()) return 0;
  const auto text = inner.string(5).value_or("");
  Fuzz::check(text.size() <= 8 && text.find('\0') == std::string_view::npos, "a text of its length", text);
  return inner.u8(1).value_or(0) + inner.u16(2).value_or(0) + inner.u32(3).value_or(0) +
         static_cast<unsigned>(inner.u64(4).value_or(0)) + sumOf(std::as_bytes(std::span(text))) +
         (inner.has(6) ? 1 : 0);
}

unsigned readAttributes(const Netlink::Received& message) {
  const Netlink::Attributes outer(message.attributes(4), kOuter);
  if (outer.malformed()) return 0;
  const auto bytes = outer.bytes(2).value_or(Netlink::Bytes{});
  Fuzz::check(bytes.size() <= 16, "bytes of their length", std::to_string(bytes.size()));
  return sumOf(bytes) + sumOf(std::as_bytes(std::span(outer.string(3).value_or("")))) +
         readInner(outer.nested(1, kInner)) + readInner(outer.nested(4, kInner));
}

void readTables(const Netlink::Received& message) {
  if (const auto vlans = Netlink::readBridgeVlans(message))
    Fuzz::check(vlans->ifIndex != 0 && vlans->pvid < 4095 && (vlans->untagged & ~vlans->carried).none(),
                "VLANs of a port", vlans->carried.to_string());
  if (const auto link = Netlink::readLink(message))
    Fuzz::check(link->index != 0 && !link->name.empty() && link->name.size() < 16,
                "a device with a name that fits", link->name);
  if (const auto address = Netlink::readAddress(message))
    Fuzz::check(address->ifIndex != 0 && address->prefixLength <= 32 && !address->address.isUnspecified(),
                "an address with a prefix", address->address.toStrep());
  const auto neighbour = Netlink::readNeighbour(message);
  if (!neighbour) return;
  if (const auto mac = KernelState::macEntryOf(*neighbour))
    Fuzz::check(neighbour->isMacEntry() && mac->bridge != 0 && !mac->mac.isMulticast(),
                "a station's address on a bridge", mac->mac.toStrep());
  if (neighbour->isMacEntry()) return;
  if (const auto entry = KernelState::entryOf(*neighbour))
    Fuzz::check(!neighbour->address.isMulticast() && !entry->mac.isZero(), "a neighbour with both addresses",
                neighbour->address.toStrep());
  Fuzz::check(neighbour->ifIndex != 0 && neighbour->confirmedAgo >= 0 &&
                  ArpService::judge({}, *neighbour) != ArpService::Verdict::write,
              "a neighbour", neighbour->address.toStrep());
}

}  // namespace

// A whole message: its header's type, the family's fixed header and attributes; its length is made right, as
// the socket does before anybody sees one.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Fuzz::Input input(data, size);
  nlmsghdr header{};
  header.nlmsg_type = input.number<std::uint16_t>();
  const auto payload = input.rest();
  header.nlmsg_len = static_cast<std::uint32_t>(sizeof header + payload.size());
  std::vector<std::byte> bytes(sizeof header + payload.size());
  std::memcpy(bytes.data(), &header, sizeof header);
  std::copy(payload.begin(), payload.end(), bytes.begin() + sizeof header);

  const Netlink::Received message(bytes);
  readTables(message);
  [[maybe_unused]] volatile unsigned sum = readAttributes(message);
  return 0;
}
