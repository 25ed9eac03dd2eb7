#include <gtest/gtest.h>

#include <string>

#include "platform/Result.h"

using namespace vt;

namespace {
enum class ToyError { missing, refused };
std::string message(ToyError e) { return e == ToyError::missing ? "nothing there" : "refused"; }

Result<int, ToyError> parse(const std::string& s) {
  if (s.empty()) return Failure(ToyError::missing);
  if (s == "no") return Failure(ToyError::refused);
  return static_cast<int>(s.size());
}
Result<void, ToyError> check(bool ok) {
  if (!ok) return Failure(ToyError::refused);
  return {};
}
}  // namespace

TEST(Result, CarriesAValueOrAnErrorThatPrintsItsOwnMessage) {
  EXPECT_EQ(*parse("abc"), 3);
  EXPECT_EQ(parse("").error(), ToyError::missing);
  EXPECT_EQ(errorMessage(parse("no")), "refused");
  EXPECT_EQ(errorMessage(parse("x")), "");
  EXPECT_EQ(parse("").value_or(-1), -1);
  EXPECT_TRUE(check(true));
  EXPECT_EQ(errorMessage(check(false)), "refused");
  // A result of an optional keeps "no value" apart from "failed".
  Result<std::optional<int>, ToyError> none = std::optional<int>();
  ASSERT_TRUE(none);
  EXPECT_FALSE(none->has_value());
}
