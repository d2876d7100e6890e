#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <string>

#include "Mox/Assert.h"
#include "Mox/Strep.h"

namespace {

enum class Colour { red, green };
constexpr std::array<const char*, 2> moxEnumNames(Colour) { return {"red", "green"}; }

struct Item {
  std::string label;
  std::int16_t count = 0;
  bool open = false;
  Colour colour = Colour::red;
  static constexpr auto moxFields() {
    return std::tuple(Mox::Field("label", &Item::label), Mox::Field("count", &Item::count),
                      Mox::Field("open", &Item::open), Mox::Field("colour", &Item::colour));
  }
};

TEST(Strep, text_that_is_not_exactly_one_value_is_refused) {
  for (const char* text : {"", "1 ", " 1", "+1", "1x", "256", "-1", "0x10"})
    EXPECT_FALSE(Mox::fromStrep<std::uint8_t>(text)) << text;
  for (const char* text : {"", "True", "1"}) EXPECT_FALSE(Mox::fromStrep<bool>(text)) << text;
  for (const char* text : {"", "blue", "0", "red "}) EXPECT_FALSE(Mox::fromStrep<Colour>(text)) << text;
  for (const char* text : {"", "x", "x 1", "x 1 true", "x 1 true red ", "x 1 true red 5", "x  1 true red",
                           "x 99999 true red", "x 1 maybe red"})
    EXPECT_FALSE(Mox::fromStrep<Item>(text)) << text;
}

TEST(AssertDeathTest, failure_prints_source_line_and_text_calls_the_hook_once_and_aborts) {
  EXPECT_EXIT(
      {
        Mox::assertionHookIs([](const char* message) {
          std::fprintf(stderr, "hook<%s>\n", message);
          MOX_ASSERT("Sample/Hook", "again", false);
        });
        MOX_ASSERT("Sample/Source", "1 == count_", 1 == 2);
      },
      ::testing::KilledBySignal(SIGABRT),
      "^Sample/Source:[0-9]+: assertion failed: 1 == count_\n"
      "hook<Sample/Source:[0-9]+: assertion failed: 1 == count_>\n"
      "Sample/Hook:[0-9]+: assertion failed: again\n$");
}

}  // namespace
