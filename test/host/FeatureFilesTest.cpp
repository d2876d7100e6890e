#include "host/FeatureFiles.h"

#include <gmock/gmock.h>

#include <fstream>

#include "Orb/FeatureSwitch.h"
#include "test/host/HostFixture.h"

namespace HostTest {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;

constexpr char kGroup[] = "Group.json";
constexpr char kSwitch[] = "Refresh";

TEST(FeatureFiles, aSwitchThatCannotBeReadKeepsItsDefaultAndSaysWhy) {
  const RunDir directory;
  const std::string file = directory.path() + "/" + kGroup;
  std::string reports;
  const auto read = [&] {
    reports.clear();
    return Host::featureSwitch(directory.path(), kGroup, kSwitch, [&](const auto& text) { reports += text; });
  };
  EXPECT_EQ(read(), std::nullopt);
  EXPECT_THAT(reports, IsEmpty());
  const struct {
    const char* text;
    std::optional<bool> value;
    const char* report;
  } cases[] = {
      {R"({"Refresh": false /* noisy hosts */})", false, ""},
      {R"({"Refresh": true, "Other": 7})", true, ""},
      {R"({"Other": false})", std::nullopt, ""},
      {R"({"Refresh": "no"})", std::nullopt,
       "/Group.json: Refresh: \"no\" is not true or false; the feature"},
      {"[true]", std::nullopt, "/Group.json: not an object of switches"},
      {"{\"Refresh\": fal", std::nullopt, "/Group.json: line 1, column"},
      {"", std::nullopt, "the feature switch Refresh keeps its default"},
  };
  for (const auto& test : cases) {
    std::ofstream(file) << test.text;
    EXPECT_EQ(read(), test.value) << test.text;
    EXPECT_THAT(reports, *test.report ? testing::Matcher<std::string>(HasSubstr(test.report)) : IsEmpty());
  }
  std::ofstream(directory.path() + "/EvpnLib.json") << R"({"EvpnMplsProxyArpRefresh": 1, "Other": true})";
  std::ofstream(directory.path() + "/ArpSuppression.json") << "[]";
  using testing::EndsWith;
  EXPECT_THAT(Host::checkFeatureFiles(directory.path()),
              testing::ElementsAre(EndsWith("/ArpSuppression.json: not an object of switches"),
                                   EndsWith("/EvpnLib.json: EvpnMplsProxyArpRefresh: 1 is not true or false"),
                                   EndsWith("Other: unknown key; allowed here: EvpnMplsProxyArpRefresh")));
  EXPECT_THAT(Host::checkFeatureFiles(""), IsEmpty());
  std::filesystem::remove(file);
  std::filesystem::create_directory(file);
  EXPECT_EQ(read(), std::nullopt);
  EXPECT_THAT(reports, HasSubstr("not a regular file"));
}

TEST(FeatureFiles, aPlaceReadsItsSwitchOnceAndAnewFromAnotherSource) {
  int asked = 0;
  const auto says = [&](std::optional<bool> value) {
    return [&asked, value](const std::string& group, const std::string& name) {
      ++asked;
      return group == kGroup && name == kSwitch ? value : std::nullopt;
    };
  };
  Orb::FeatureSwitch on(kGroup, kSwitch, true), off(kGroup, kSwitch, false);
  const auto before = Orb::FeatureSwitch::sourceIs(says(false));
  for (int i = 0; i < 3; ++i) EXPECT_FALSE(on.enabled());
  EXPECT_EQ(asked, 1);
  Orb::FeatureSwitch::sourceIs(says(std::nullopt));
  EXPECT_TRUE(on.enabled());
  EXPECT_FALSE(off.enabled());
  Orb::FeatureSwitch::sourceIs(before);
  EXPECT_TRUE(on.enabled());
}

}  // namespace
}  // namespace HostTest
