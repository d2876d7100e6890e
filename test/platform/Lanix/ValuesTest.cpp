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
  return {{"", "0.0.0.0", "10.0.0.1", "::", "::1", "fe80::1"},
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

TEST(EthAddr, Kinds) {
  struct Row {
    const char* text;
    bool zero, multicast, broadcast;
  };
  for (const Row& row :
       {Row{"00:00:00:00:00:00", true, false, false}, Row{"02:00:00:00:00:01", false, false, false},
        Row{"01:00:5e:00:00:01", false, true, false}, Row{"ff:ff:ff:ff:ff:ff", false, true, true},
        Row{"ff:ff:ff:ff:ff:fe", false, true, false}}) {
    const EthAddr address = *EthAddr::fromStrep(row.text);
    EXPECT_EQ(address.isZero(), row.zero) << row.text;
    EXPECT_EQ(address.isMulticast(), row.multicast) << row.text;
    EXPECT_EQ(address.isBroadcast(), row.broadcast) << row.text;
  }
}

TEST(IpGenAddr, FamiliesAndKinds) {
  struct Row {
    const char* text;
    AddressFamily af;
    bool unspecified, multicast, linkLocal;
  };
  using enum AddressFamily;
  for (const Row& row :
       {Row{"", none, false, false, false}, Row{"0.0.0.0", ipv4_, true, false, false},
        Row{"::", ipv6_, true, false, false}, Row{"10.0.0.1", ipv4_, false, false, false},
        Row{"224.0.0.1", ipv4_, false, true, false}, Row{"239.255.255.255", ipv4_, false, true, false},
        Row{"240.0.0.1", ipv4_, false, false, false}, Row{"169.254.1.1", ipv4_, false, false, true},
        Row{"169.255.1.1", ipv4_, false, false, false}, Row{"fe80::1", ipv6_, false, false, true},
        Row{"febf::1", ipv6_, false, false, true}, Row{"fec0::1", ipv6_, false, false, false},
        Row{"ff02::1", ipv6_, false, true, false}, Row{"2001:db8::1", ipv6_, false, false, false}}) {
    const IpGenAddr address = *IpGenAddr::fromStrep(row.text);
    EXPECT_EQ(address.af(), row.af) << row.text;
    EXPECT_EQ(static_cast<bool>(address), row.af != none) << row.text;
    EXPECT_EQ(address.isUnspecified(), row.unspecified) << row.text;
    EXPECT_EQ(address.isMulticast(), row.multicast) << row.text;
    EXPECT_EQ(address.isLinkLocal(), row.linkLocal) << row.text;
  }
  const IpGenAddr four = IpAddr(0x0a000001u);
  EXPECT_EQ(four.ipv4().value(), 0x0a000001u);
  EXPECT_EQ(four.ipv4().toStrep(), "10.0.0.1");
  EXPECT_TRUE(four.ipv6().isUnspecified());
  EXPECT_EQ(IpGenAddr(*Ip6Addr::fromStrep("fe80::1")).ipv6().toStrep(), "fe80::1");
}

// An IPv4 address, the IPv6 address of the same leading bytes, and the address of no family are three keys.
TEST(IpGenAddr, FamilyIsPartOfTheIdentity) {
  const std::vector<IpGenAddr> zeros = {IpGenAddr(), IpAddr(), Ip6Addr()};
  const std::vector<IpGenAddr> tens = {*IpGenAddr::fromStrep("10.0.0.1"), *IpGenAddr::fromStrep("a00:1::")};
  EXPECT_EQ(tens[0].bytes(), tens[1].bytes());
  for (const auto& group : {zeros, tens}) {
    for (std::size_t i = 1; i < group.size(); ++i) {
      EXPECT_LT(group[i - 1], group[i]);
      EXPECT_NE(group[i - 1].hash(1), group[i].hash(1));
    }
  }
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
  struct Row {
    const char* kernel;
    const char* name;
    bool vlan;
    std::uint32_t number;
    const char* kernelAgain;
  };
  for (const Row& row :
       {Row{"vlan1", "Vlan1", true, 1, "vlan1"}, Row{"vlan4094", "Vlan4094", true, 4094, "vlan4094"},
        Row{"vlan0", "vlan0", false, 0, "vlan0"}, Row{"vlan4095", "vlan4095", false, 0, "vlan4095"},
        Row{"vlan010", "vlan010", false, 0, "vlan010"}, Row{"vlan", "vlan", false, 0, "vlan"},
        Row{"vlan10x", "vlan10x", false, 0, "vlan10x"}, Row{"vlan-1", "vlan-1", false, 0, "vlan-1"},
        Row{"VLAN10", "VLAN10", false, 0, "VLAN10"}, Row{"Vlan10", "Vlan10", true, 10, "vlan10"},
        Row{"Vlan4095", "Vlan4095", true, 4095, "Vlan4095"}, Row{"Vlan0", "Vlan0", true, 0, "Vlan0"},
        Row{"Vlan99999999999", "Vlan99999999999", true, UINT32_MAX, "Vlan99999999999"},
        Row{"Vlan", "Vlan", false, 0, "Vlan"}, Row{"Vlan010", "Vlan010", false, 0, "Vlan010"},
        Row{"eth0", "eth0", false, 0, "eth0"}}) {
    const IntfId id = IntfId::fromName(row.kernel);
    ASSERT_TRUE(id) << row.kernel;
    EXPECT_EQ(id.name(), row.name);
    EXPECT_EQ(id.isVlan(), row.vlan) << row.kernel;
    EXPECT_EQ(id.vlanNumber(), row.number) << row.kernel;
    EXPECT_EQ(id.kernelName(), row.kernelAgain);
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
