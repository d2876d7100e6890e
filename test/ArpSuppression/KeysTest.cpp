#include "ArpSuppression/BindingKeys.h"
#include "Mox/Error.h"
#include "Rig.h"

namespace ArpSuppression {
namespace {

// VLANs 10 and 20 in red, 30 in blue.
struct Vlans {
  Ptr<VlanL3InfoStatus> status = Mox::make<VlanL3InfoStatus>();
  Ptr<VrfInfo> red = status->vrfInfoIs("red"), blue = status->vrfInfoIs("blue");
  Ptr<VlanL3Info> vlan10 = status->vlanL3InfoIs(red, Vlan(10)), vlan20 = status->vlanL3InfoIs(red, Vlan(20)),
                  vlan30 = status->vlanL3InfoIs(blue, Vlan(30));
};

TEST(VrfIpAddress, only_ipv6_link_local_addresses_are_scoped_to_the_interface) {
  const Vlans vlans;
  const struct {
    const char* address;
    bool scoped;
  } cases[] = {{"10.0.0.1", false}, {"169.254.0.1", false}, {"2001:db8::1", false}, {"::", false},
               {"ff02::1", false},  {"fec0::1", false},     {"fe80::1", true},      {"febf:ffff::1", true}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.address);
    const auto in10 = VrfIpAddress::fromVlanL3Info(*vlans.vlan10, ip(c.address));
    const auto in20 = VrfIpAddress::fromVlanL3Info(*vlans.vlan20, ip(c.address));
    const auto in30 = VrfIpAddress::fromVlanL3Info(*vlans.vlan30, ip(c.address));
    EXPECT_EQ(in10.vrfInfo, vlans.red);
    EXPECT_EQ(in10.ipAddress, ip(c.address));
    EXPECT_EQ(in10.intfId, c.scoped ? intf("Vlan10") : Lanix::IntfId());
    EXPECT_EQ(in10 == in20, !c.scoped);
    EXPECT_EQ(in10.hash(1) == in20.hash(1), !c.scoped);
    EXPECT_FALSE(in10 == in30) << "another VRF";
    EXPECT_NE(in10.hash(1), in30.hash(1));
    EXPECT_NE(in10.hash(1), in10.hash(2)) << "the seed counts";
    for (const auto& a : {in10, in20, in30}) {
      for (const auto& b : {in10, in20, in30}) EXPECT_EQ((a < b) + (b < a) + (a == b), 1);
    }
  }
}

TEST(VrfIpAddress, from_arp_key) {
  const Vlans vlans;
  const struct {
    const char* interface;
    Ptr<VlanL3Info> vlan;  // null: not valid
  } cases[] = {
      {"Vlan10", vlans.vlan10}, {"vlan30", vlans.vlan30}, {"Vlan40", nullptr},   {"Ethernet1", nullptr},
      {"Vlan010", nullptr},     {"Vlan", nullptr},        {"Vlan10.5", nullptr}, {"", nullptr}};
  for (const auto& c : cases) {
    for (const char* address : {"10.0.0.1", "fe80::1"}) {
      const auto key = VrfIpAddress::fromArpKey(*vlans.status, {5, ip(address), intf(c.interface)});
      const auto expected = c.vlan ? VrfIpAddress::fromVlanL3Info(*c.vlan, ip(address)) : VrfIpAddress();
      EXPECT_TRUE(key == expected) << c.interface << " " << key.toStrep();
    }
  }
  for (const char* interface : {"Vlan0", "Vlan4095", "Vlan65546", "Vlan99999999999"}) {
    try {
      VrfIpAddress::fromArpKey(*vlans.status, {5, ip("10.0.0.1"), intf(interface)});
      ADD_FAILURE() << interface;
    } catch (const Mox::RangeError& error) {
      EXPECT_STREQ(error.what(), "Bridging::VlanId::value < 1 or > 4094 not allowed");
    }
  }
}

}  // namespace
}  // namespace ArpSuppression
