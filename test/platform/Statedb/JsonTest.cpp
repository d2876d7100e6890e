#include <gtest/gtest.h>

#include "Statedb/Json.h"
#include "TestModel.h"

using namespace Test;
using nlohmann::json;

TEST(Json, EveryKindOfMemberRoundTrips) {
  const auto config = Mox::make<Config>();
  const std::string text =
      R"({"addresses":["0.1","2.3"],"enabled":false,"entry":{"dynamic":true,"mac":"7.8","type":255},
    "fid":{"10":110},"label":1000,"level":-128,"one":{"on":true},"peer":{},"vlan":{"0":true,"7":true},"vrf":{"":{"ipv4":{},"ipv6":{},"state":"red"},
    "a/b%":{"ipv4":{"1.2":{"dynamic":false,"mac":"0.9","type":1}},"ipv6":{"5.6 eth0":{"dynamic":false,"mac":"0.0","type":0}},
    "state":"green"}}})";
  merge(config, text);
  EXPECT_EQ(configType().toJson(*config), json::parse(text));
  EXPECT_EQ(config->vrf("a/b%")->ipv6({Address(5 << 16 | 6), "eth0"}), Entry{});
}

TEST(Json, RefusalsNamePathKeyValueAndWhatIsAllowed) {
  const struct {
    const char* json;
    const char* error;
  } cases[] = {
      {R"({"fid":{"10":99999}})", R"(test: fid["10"]: 99999 is not a number from 0 to 65535)"},
      {R"({"fid":{"10":-1}})", R"(test: fid["10"]: -1 is not a number from 0 to 65535)"},
      {R"({"fid":{"10":1.5}})", R"(test: fid["10"]: 1.5 is not a number from 0 to 65535)"},
      {R"({"fid":{"10":18446744073709551616}})",
       R"(test: fid["10"]: 1.8446744073709552e+19 is not a number from 0 to 65535)"},
      {R"({"fid":{"70000":1}})", R"(test: fid["70000"]: the key is not a number from 0 to 65535)"},
      {R"({"fid":{"":1}})", R"(test: fid[""]: the key is not a number from 0 to 65535)"},
      {R"({"fid":[1]})", R"(test: fid: a list is not an object by key, or null to delete all)"},
      {R"({"level":128})", R"(test: level: 128 is not a number from -128 to 127)"},
      {R"({"enabled":"yes"})", R"(test: enabled: "yes" is not true or false)"},
      {R"({"label":1001})", R"(test: label: 1001 is not a label from 0 to 1000)"},
      {R"({"label":4294967297})", R"(test: label: 4294967297 is not a label from 0 to 1000)"},
      {R"({"vlan":{"1001":true}})", R"(test: vlan["1001"]: the key is not a label from 0 to 1000)"},
      {R"({"vlan":{"7":1}})", R"(test: vlan["7"]: 1 is not true, or false or null to delete)"},
      {R"({"entry":{"mac":"zz"}})", R"(test: entry.mac: "zz" is not a string like "0.0")"},
      {R"({"entry":{"color":1}})",
       R"(test: entry: unknown key "color"; allowed is an object of mac, dynamic, type)"},
      {R"({"entry":3})", R"(test: entry: 3 is not an object of mac, dynamic, type)"},
      {R"({"addresses":["1.1",5]})", R"(test: addresses[1]: 5 is not a string like "0.0")"},
      {R"({"addresses":"1.1"})", R"(test: addresses: "1.1" is not a list)"},
      {R"({"vrf":{"red":{"state":"blue"}}})",
       R"(test: vrf["red"].state: "blue" is not one of "red", "green")"},
      {R"({"vrf":{"red":{"ipv4":{"1.1":{"type":256}}}}})",
       R"(test: vrf["red"].ipv4["1.1"].type: 256 is not a number from 0 to 255)"},
      {R"({"vrf":{"red":{"ipv6":{"1.1":{}}}}})", R"(test: vrf["red"].ipv6["1.1"]: the key is not "IP INTF")"},
      {R"({"vrf":{"red":true}})", R"(test: vrf["red"]: true is not an object of state, ipv4, ipv6)"},
      {R"({"peer":{"1.1":{}}})", R"(test: peer["1.1"]: does not exist and cannot be made by its key alone)"},
      {R"({"one":null})", R"(test: one: null is not an object of on)"},
      {R"({"one":{"":{}}})", R"(test: one: unknown key ""; allowed: on)"},
      {R"({"owner":null})",
       R"(test: unknown key "owner"; allowed: enabled, level, label, entry, addresses, fid, vlan, vrf, peer, one)"},
      {"[]",
       "test: a list is not an object of enabled, level, label, entry, addresses, fid, vlan, vrf, peer, one"},
  };
  const auto config = Mox::make<Config>();
  const json before = configType().toJson(*config);
  for (const auto& c : cases) {
    json given = json::parse(c.json);
    if (given.is_object()) given["addresses"] = given.value("addresses", json::array({"9.9"}));
    EXPECT_EQ(configType().planMerge(config, given, "test").error(), c.error) << c.json;
    EXPECT_EQ(configType().toJson(*config), before) << c.json << " changed something";
  }
}

TEST(Json, LongAndBadTextsInMessagesAreBounded) {
  const auto config = Mox::make<Config>();
  const auto longPlan = configType().planMerge(config, {{"enabled", std::string(100000, 'x')}}, "test");
  EXPECT_LT(longPlan.error().size(), 150u);
  const auto badPlan = configType().planMerge(config, {{"\xff\xfe", 1}}, "test");
  EXPECT_NE(badPlan.error().find("unknown key"), std::string::npos);
  EXPECT_EQ(Statedb::jsonText("a\xff"), "\"a\xEF\xBF\xBD\"");
  std::string deep(100000, '[');
  EXPECT_FALSE(Statedb::jsonOf(deep));
  EXPECT_TRUE(Statedb::jsonOf(deep + std::string(100000, ']')));
}

TEST(Json, TheTextOfAValueIsThatOfItsJson) {
  for (const std::string& text :
       {std::string(), std::string("10.0.0.1"), std::string("a \"b\" \\ c"), std::string("a\nb"),
        std::string("\x7f\x80\xff"), std::string("\xC3\xA4"), std::string("\0x", 2)})
    EXPECT_EQ(Statedb::valueText(text), Statedb::jsonText(text));
  for (const std::int64_t number : {INT64_MIN, std::int64_t{-1}, std::int64_t{0}, INT64_MAX})
    EXPECT_EQ(Statedb::valueText(number), Statedb::jsonText(number));
  EXPECT_EQ(Statedb::valueText(UINT64_MAX), Statedb::jsonText(UINT64_MAX));
  EXPECT_EQ(Statedb::valueText(std::int8_t{-128}), "-128");
  EXPECT_EQ(Statedb::valueText(0.25), "0.25");
  const auto config = Mox::make<Config>();
  merge(config,
        R"({"enabled":false,"level":-7,"label":1000,"entry":{"mac":"1.1","type":5},"addresses":["1.1","1.2"],
                    "fid":{"1":11},"vlan":{"7":true},"one":{"on":true},"vrf":{"red":{}}})");
  for (const auto& member : configType().shape.members()) {
    const std::string key = member->name == "fid" ? "1" : member->name == "vlan" ? "7" : "red";
    const json value = member->value(*config, key);
    EXPECT_EQ(member->text(*config, key), value.is_null() ? "" : Statedb::jsonText(value)) << member->name;
    EXPECT_EQ(member->text(*config, "none"), member->isCollection() ? "" : Statedb::jsonText(value))
        << member->name;
  }
}

TEST(Json, ObjectsMergeArraysReplaceNullDeletes) {
  const char* const start =
      R"({"enabled":false,"level":7,"entry":{"mac":"1.1","type":5},"addresses":["1.1","1.2"],
    "fid":{"1":11,"2":22},"vlan":{"1":true,"2":true},
    "vrf":{"red":{"state":"red","ipv4":{"1.1":{"type":1},"1.2":{"type":2,"dynamic":true}}},"blue":{}}})";
  const struct {
    const char* merged;
    const char* at;
    const char* expected;
  } cases[] = {
      {R"({"fid":{"2":23,"3":33}})", "/fid", R"({"1":11,"2":23,"3":33})"},
      {R"({"fid":{"2":null,"9":null}})", "/fid", R"({"1":11})"},
      {R"({"fid":null})", "/fid", "{}"},
      {R"({"vlan":{"1":false,"2":null,"3":true}})", "/vlan", R"({"3":true})"},
      {R"({"addresses":["2.2"]})", "/addresses", R"(["2.2"])"},
      {R"({"level":null})", "/level", "3"},
      {R"({"entry":{"dynamic":true}})", "/entry", R"({"mac":"1.1","type":5,"dynamic":true})"},
      {R"({"entry":{"mac":null}})", "/entry", R"({"mac":"0.0","type":5,"dynamic":false})"},
      {R"({"vrf":{"red":{"state":null}}})", "/vrf/red/state", R"("green")"},
      {R"({"vrf":{"red":{"ipv4":{"1.2":{"type":9}}}}})", "/vrf/red/ipv4/1.2",
       R"({"mac":"0.0","type":9,"dynamic":true})"},
      {R"({"vrf":{"red":{"ipv4":{"1.1":null}}}})", "/vrf/red/ipv4",
       R"({"1.2":{"mac":"0.0","type":2,"dynamic":true}})"},
      {R"({"vrf":{"red":null}})", "/vrf", R"({"blue":{"state":"green","ipv4":{},"ipv6":{}}})"},
  };
  for (const auto& c : cases) {
    const auto config = Mox::make<Config>();
    merge(config, start);
    merge(config, c.merged);
    EXPECT_EQ(configType().toJson(*config).at(json::json_pointer(c.at)), json::parse(c.expected)) << c.merged;
  }
}

TEST(Json, AChildThatExistsIsMergedEvenIfItCannotBeMade) {
  const auto config = Mox::make<Config>();
  config->peerIs(Address(1), "first");
  merge(config, R"({"peer":{"0.1":{"weight":5}}})");
  EXPECT_EQ(config->peer(Address(1))->weight(), 5);
}

TEST(Json, AWatcherMayChangeTheTreeWhileAMergeIsApplied) {
  const auto config = Mox::make<Config>();
  const auto vrf = config->vrfIs("red");
  Mox::Notifiee<Vrf> ofVrf(vrf);
  ofVrf.on(Vrf::ipv4Changed, [&] { config->vrfDel("red"); });
  Mox::Notifiee<Config> ofConfig(config);
  ofConfig.on(Config::levelChanged, [&] {
    config->fidDelAll();
    config->labelIs(Label(1));
  });
  config->fidIs(1, 1);
  // Members are written in the order of their names: fid, label, level, vrf.
  merge(config,
        R"({"fid":{"2":2},"label":7,"level":9,"vrf":{"red":{"ipv4":{"1.1":{},"1.2":{}}},"white":{}}})");
  EXPECT_EQ(config->fids(), 0u);
  EXPECT_EQ(config->label(), Label(1));
  EXPECT_FALSE(config->vrfHas("red"));
  EXPECT_TRUE(config->vrfHas("white"));
}

TEST(Json, AnErrorOfAWatcherDoesNotLeaveHalfAMerge) {
  const auto config = Mox::make<Config>();
  Mox::Notifiee<Config> notifiee(config);
  notifiee.on(Config::fidChanged, [](std::uint16_t key) {
    if (key == 1) throw Mox::RangeError("first");
    if (key == 2) throw Mox::RangeError("second");
  });
  notifiee.on(Config::vrfChanged, [] { throw Mox::NullError("third"); });
  auto plan = configType().planMerge(
      config, json::parse(R"({"fid":{"1":1,"2":2,"3":3},"vrf":{"red":{"state":"red"}}})"), "test");
  try {
    plan->apply();
    FAIL() << "the watcher's error is lost";
  } catch (const Mox::Error& error) {
    EXPECT_STREQ(error.what(), "first");
  }
  EXPECT_EQ(config->fids(), 3u);
  ASSERT_TRUE(config->vrf("red"));
  EXPECT_EQ(config->vrf("red")->state(), Color::red);
}
