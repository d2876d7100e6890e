#include <gtest/gtest.h>

#include <cerrno>
#include <memory>

#include "Mox/Result.h"

namespace {

using Mox::Failure;
using Mox::Result;

Result<std::unique_ptr<int>> half(int value) {
  if (value % 2 != 0) return Failure{std::to_string(value) + " is odd", EDOM};
  return std::make_unique<int>(value / 2);
}
Result<> check(int value) {
  if (const auto halved = half(value); !halved) return halved.failure();
  return {};
}

template <class Value>
void expectRefused(const Result<Value>& result) {
  EXPECT_FALSE(result);
  EXPECT_EQ(result.error(), "7 is odd");
  EXPECT_EQ(result.number(), EDOM);
}

TEST(Result, is_true_with_the_value_or_false_with_the_reason) {
  auto good = half(6);
  ASSERT_TRUE(good);
  EXPECT_EQ(good.error(), "");
  EXPECT_EQ(good.number(), 0);
  const std::unique_ptr<int> moved = std::move(*good);
  EXPECT_EQ(*moved, 3);
  EXPECT_TRUE(check(6));
  EXPECT_EQ(check(6).error(), "");
  expectRefused(half(7));
  expectRefused(check(7));
  // Without a text or a number it is a failure all the same, and a value that is false is a value.
  EXPECT_FALSE(Result<>(Failure{}));
  EXPECT_TRUE(Result<bool>(false));
}

}  // namespace
