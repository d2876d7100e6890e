#include <gtest/gtest.h>

#include <bit>
#include <string>
#include <type_traits>
#include <vector>

#include "Lanix/EthAddr.h"
#include "Lanix/IntfId.h"
#include "Lanix/IpAddr.h"
#include "Lanix/IpGenAddr.h"
#include "Lanix/IpGenPrefix.h"
#include "Mox/Error.h"
#include "Mox/Hash.h"
#include "Mox/Strep.h"

namespace Lanix {
namespace {

// Each may be a key in shared memory: plain bytes, and equal values are equal bytes.
template <class T>
constexpr bool kKey = std::is_trivially_copyable_v<T>&& std::has_unique_object_representations_v<T>&&
    std::is_standard_layout_v<T>;
static_assert(kKey<EthAddr> && kKey<IpAddr> && kKey<Ip6Addr> && kKey<IpGenAddr> && kKey<IpGenPrefix> &&
              kKey<IntfId>);

template <class T>
class Strep : public ::testing::Test {};

// Good texts in ascending order of their values; texts that come back as another good one; bad texts.
struct Texts {
  std::vector<std::string> good;
  std::vector<std::pair<std::string, std::string>> others;
  std::vector<std::string> bad;
};

template <class T>
Texts texts();

template <>
Texts texts<EthAddr>() {
  return {
      {"00:00:00:00:00:00", "02:00:00:00:be:ef", "02:00:00:01:00:00", "ff:ff:ff:ff:ff:ff"},
      {{"02:00:00:00:be:EF", "02:00:00:00:be:ef"}},
      {"", "02:00:00:00:be", "02:00:00:00:be:ef:01", "2:00:00:00:be:eff", "02-00-00-00-be-ef",
       "020000.00beef", "02:00:00:00:be:eg", "02:00:00:00:be:-f", "02:00:00:00:be:+f", " 02:00:00:00:be:e",
       "02:00:00:00:be:e ", "0x:00:00:00:be:ef", std::string("02:00:00:00:be:e\0", 17)}};
}

template <>
Texts texts<IpAddr>() {
  return {{"0.0.0.0", "9.255.255.255", "10.0.0.1", "255.255.255.255"},
          {},
          {"", "10.0.0", "10.0.0.256", "10.0.0.1.1", "10.0.0.01", " 10.0.0.1", "10.0.0.1 ", "10.0.0.1/24",
           "0x0a.0.0.1", "167772161", "::1", std::string("10.0.0.1\0", 9), std::string(100, '1')}};
}

template <>
Texts texts<Ip6Addr>() {
  return {
      {"::", "::1", "2001:db8::1:0:0:1", "fe80::1", "ff02::1"},
      {{"2001:DB8:0:0:1:0:0:1", "2001:db8::1:0:0:1"}, {"fe80:0000:0000:0000:0000:0000:0000:0001", "fe80::1"}},
      {"", ":", ":::", "1", "10.0.0.1", "fe80::1%eth0", "fe80::1/64", "1::2::3", "1:2:3:4:5:6:7",
       "1:2:3:4:5:6:7:8:9", "12345::", "g::", " ::1", "::1 ", std::string(100, ':')}};
}

template <>
Texts texts<IpGenAddr>() {
  // The family is part of the identity: a00:1:: begins with the bytes of 10.0.0.1.
  return {{"", "0.0.0.0", "10.0.0.1", "::", "::1", "a00:1::", "fe80::1"},
          {},
          {" ", "none", "10.0.0.1/24", "10.0.0.01", "fe80::1%vlan10", "10.0.0.1 ::1"}};
}

template <>
Texts texts<IpGenPrefix>() {
  return {{"", "0.0.0.0/0", "10.0.0.1/24", "10.0.0.1/32", "2001:db8::1/64", "2001:db8::1/128"},
          {},
          {"/", "/24", "10.0.0.1", "10.0.0.1/", "10.0.0.1/33", "10.0.0.1/-1", "10.0.0.1/024",
           "10.0.0.1/24/24", "10.0.0.1/ 24", "10.0.0.1/24 ", "2001:db8::1/129", "2001:db8::1/4294967296",
           "10.0.0.1/255.255.255.0"}};
}

template <>
Texts texts<IntfId>() {
  return {{"Ethernet1", "Tep1", "Vlan10", "Vlan20", "fabric", "fifteen-bytes-x", ""},
          {{"vlan20", "Vlan20"}},
          {"sixteen-bytes-xx", "with blank", " Vlan10", "Vlan10\n", "\x7f", std::string("Vlan10\0", 7)}};
}

using Types = ::testing::Types<EthAddr, IpAddr, Ip6Addr, IpGenAddr, IpGenPrefix, IntfId>;
TYPED_TEST_SUITE(Strep, Types);

TYPED_TEST(Strep, TextsRoundTripAndOrder) {
  std::vector<TypeParam> values;
  for (const std::string& text : texts<TypeParam>().good) {
    const auto value = Mox::fromStrep<TypeParam>(text);
    ASSERT_TRUE(value) << text;
    EXPECT_EQ(value->toStrep(), text);
    values.push_back(*value);
  }
  for (const auto& [text, back] : texts<TypeParam>().others)
    EXPECT_EQ(Mox::fromStrep<TypeParam>(text), Mox::fromStrep<TypeParam>(back)) << text;
  for (std::size_t i = 0; i < values.size(); ++i) {
    for (std::size_t j = 0; j < values.size(); ++j) {
      EXPECT_EQ(values[i] < values[j], i < j) << values[i].toStrep() << " " << values[j].toStrep();
      EXPECT_EQ(values[i] == values[j], i == j);
      EXPECT_EQ(Mox::hashOf(values[i], 7) == Mox::hashOf(values[j], 7), i == j);
    }
    EXPECT_NE(Mox::hashOf(values[i], 7), Mox::hashOf(values[i], 8));
  }
}

TYPED_TEST(Strep, BadTextsAreRefused) {
  for (const std::string& text : texts<TypeParam>().bad)
    EXPECT_FALSE(Mox::fromStrep<TypeParam>(text)) << text;
}

TEST(IpGenAddr, ForeignBytesAreToldApart) {
  std::array<std::uint8_t, 17> bytes{};
  bytes.fill(0xff);
  const auto address = std::bit_cast<IpGenAddr>(bytes);
  EXPECT_FALSE(address.sound());
  EXPECT_EQ(address.toStrep(), "");
  EXPECT_FALSE(address.isLinkLocal() || address.isMulticast());
  // A family that uses fewer bytes leaves the others zero, or two different addresses would look the same.
  for (const auto& [family, used] : {std::pair{0, 0}, std::pair{1, 4}, std::pair{2, 16}}) {
    for (std::size_t at = 1; at < bytes.size(); ++at) {
      bytes.fill(0);
      bytes[0] = static_cast<std::uint8_t>(family);
      bytes[at] = 1;
      EXPECT_EQ(std::bit_cast<IpGenAddr>(bytes).sound(), at <= static_cast<std::size_t>(used))
          << family << at;
    }
  }
}

TEST(IpGenPrefix, LengthIsChecked) {
  EXPECT_THROW(IpGenPrefix(IpAddr(1), 33), Mox::RangeError);
  EXPECT_THROW(IpGenPrefix(Ip6Addr(), 129), Mox::RangeError);
  EXPECT_THROW(IpGenPrefix(IpGenAddr(), 1), Mox::RangeError);
  EXPECT_EQ(IpGenPrefix(IpAddr(0x0a000001u), 24).address().toStrep(), "10.0.0.1");
}

TEST(IntfId, VlanInterfaces) {
  // The name in the kernel, ours, the number, and the name in the kernel that comes back.
  const std::tuple<const char*, const char*, std::uint32_t, const char*> vlans[] = {
      {"vlan1", "Vlan1", 1, "vlan1"},
      {"vlan4094", "Vlan4094", 4094, "vlan4094"},
      {"Vlan10", "Vlan10", 10, "vlan10"},
      {"Vlan4095", "Vlan4095", 4095, "Vlan4095"},
      {"Vlan0", "Vlan0", 0, "Vlan0"},
      {"Vlan99999999999", "Vlan99999999999", UINT32_MAX, "Vlan99999999999"},
  };
  for (const auto& [kernel, name, number, kernelAgain] : vlans) {
    const IntfId id = IntfId::fromName(kernel);
    EXPECT_EQ(id.name(), name);
    EXPECT_TRUE(id.isVlan()) << kernel;
    EXPECT_EQ(id.vlanNumber(), number) << kernel;
    EXPECT_EQ(id.kernelName(), kernelAgain);
  }
  for (const char* const other :
       {"vlan0", "vlan4095", "vlan010", "vlan", "vlan10x", "vlan-1", "VLAN10", "Vlan", "Vlan010", "eth0"}) {
    const IntfId id = IntfId::fromName(other);
    EXPECT_EQ(id.name(), other);
    EXPECT_FALSE(id.isVlan()) << other;
    EXPECT_EQ(id.vlanNumber(), 0u) << other;
    EXPECT_EQ(id.kernelName(), other);
  }
}

TEST(IntfId, DefaultIsTheInvalidAllOnes) {
  std::array<std::uint8_t, 16> ones{};
  ones.fill(0xff);
  EXPECT_EQ(IntfId().bytes(), ones);
  EXPECT_FALSE(IntfId());
  EXPECT_EQ(IntfId::fromName(""), IntfId());
  EXPECT_EQ(IntfId::fromName("sixteen-bytes-xx"), IntfId());
  EXPECT_FALSE(IntfId().isVlan());
  // Bytes that another process wrote, without an end.
  ones.fill('x');
  EXPECT_EQ(std::bit_cast<IntfId>(ones).name(), std::string(16, 'x'));
}

}  // namespace
}  // namespace Lanix
