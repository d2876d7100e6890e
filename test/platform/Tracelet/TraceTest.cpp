#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <ostream>
#include <string>
#include <vector>

#include "Mox/Ptr.h"
#include "Tracelet/Trace.h"

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;

enum class Colour { red, green };
constexpr std::array<const char*, 2> moxEnumNames(Colour) { return {"red", "green"}; }

struct Port {
  std::string toStrep() const { return "Ethernet1"; }
};
struct Pair {
  int a = 0;
  bool b = false;
  static constexpr auto moxFields() {
    return std::tuple(Mox::Field("a", &Pair::a), Mox::Field("b", &Pair::b));
  }
};
struct Message : Mox::Referenced {
  std::string toStrep() const { return "<request>"; }
};
struct Nameless : Mox::Referenced {};
struct Classic {};
std::ostream& operator<<(std::ostream& out, const Classic&) { return out << "classic"; }
struct Own {
  std::string toStrep() const { return "strep"; }
};
Tracelet::TextStream& operator<<(Tracelet::TextStream& out, const Own&) { return out << "own"; }

template <class T>
std::string textOf(const T& value) {
  Tracelet::TextStream stream;
  stream << value;
  return stream.text();
}

TEST(TextStream, PrintsEachKindOfValue) {
  const char* none = nullptr;
  const std::vector<std::pair<std::string, std::string>> table = {
      {textOf(std::uint8_t{65}), "65"},
      {textOf(std::int8_t{-3}), "-3"},
      {textOf(UINT64_MAX), "18446744073709551615"},
      {textOf(none), "NULL"},
      {textOf(Colour::green), "green"},
      {textOf(Port()), "Ethernet1"},
      {textOf(Pair{3, true}), "3 true"},
      {textOf(Classic()), "classic"},
      {textOf(Own()), "own"},
      {textOf(Mox::make<Message>()), "<request>"},
      {textOf(Mox::Ptr<const Message>(Mox::make<Message>())), "<request>"},
      {textOf(Mox::Ptr<Message>()), "NULL"},
      {textOf(static_cast<const Port*>(nullptr)), "NULL"},
  };
  for (const auto& [got, wanted] : table) EXPECT_EQ(got, wanted);
  EXPECT_THAT(textOf(Mox::make<Nameless>()), MatchesRegex("0x[0-9a-f]+"));
}

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
