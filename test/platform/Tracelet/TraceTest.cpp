#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Tracelet/Trace.h"

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;

class TraceTest : public ::testing::Test {
 protected:
  TraceTest() {
    Tracelet::textSinkIs([this](std::string_view line) { lines_.emplace_back(line); });
  }
  ~TraceTest() override {
    Tracelet::textSinkIs({});
    for (const char* name : {"Early", "Late", "Shared"}) Tracelet::levelIs(name, Tracelet::kErrorsOnly);
  }
  std::vector<std::string> lines_;
};

TEST_F(TraceTest, LevelOfANameHoldsForItsHandlesEarlyAndLate) {
  Tracelet::Handle early("Early");
  Tracelet::Handle sharing("Early");
  EXPECT_TRUE(early.on(0));
  EXPECT_FALSE(early.on(1));
  Tracelet::levelIs("Early", 8);
  Tracelet::levelIs("Late", 3);
  Tracelet::Handle late("Late");
  EXPECT_TRUE(early.on(8) && sharing.on(8) && late.on(3));
  EXPECT_FALSE(early.on(9) || late.on(4));
  Tracelet::levelIs("Early", Tracelet::kOff);
  EXPECT_FALSE(early.on(0));
  int evaluated = 0;
  TRACELET_TRACE(early, 0, "Unit/Source", ++evaluated);
  EXPECT_EQ(evaluated, 0);
  EXPECT_TRUE(lines_.empty());
}

TEST_F(TraceTest, LineShowsTimeHandleSourceAndSignatureAndANestedOneComesFirst) {
  Tracelet::levelIs("Shared", 8);
  Tracelet::Handle handle("Shared");
  const auto inner = [&] {
    TRACELET_TRACE(handle, 8, "Unit/Inner", "inner");
    return 7;
  };
  TRACELET_TRACE(handle, 8, "Unit/Outer", "outer=" << inner() << " a\nb");
  EXPECT_THAT(lines_, ElementsAre(HasSubstr("Unit/Inner"),
                                  MatchesRegex("[0-9-]+T[0-9:]+\\.[0-9]+Z Shared Unit/Outer:[0-9]+ "
                                               ".*TestBody.* outer=7 a\\\\x0ab")));
}

}  // namespace
