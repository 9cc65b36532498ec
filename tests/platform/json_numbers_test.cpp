// Number conversion of the JSON reader, at the edges where a parser's own conversion goes wrong.
#include <HttpTools/platform/qzJson.h>

#include <gtest/gtest.h>

#include <clocale>
#include <cmath>
#include <optional>

using qz::qzVariant;

namespace {

std::optional<qzVariant> parseOne(const std::string& number) {
  qz::qzVariantListImpl list;
  if (!qz::json::Json2Variant::Convert("[" + number + "]", list) || list.size() != 1)
    return std::nullopt;
  return list[0];
}

TEST(JsonNumbers, ZeroSignificandsAndLimits) {
  const std::tuple<const char*, qzVariant::Type, double> rows[] = {
      {"0E46", qzVariant::Double, 0.0}, // once gave -1.89e-270
      {"0.000000000000000000000000000000e-5", qzVariant::Double, 0.0},
      {"-0", qzVariant::Int64, 0.0},
      {"1e-400", qzVariant::Double, 0.0},
      {"4.9e-324", qzVariant::Double, 4.9406564584124654e-324},
      {"0.1", qzVariant::Double, 0.1},
      {"1.7976931348623157e308", qzVariant::Double, 1.7976931348623157e308},
      {"-9223372036854775808", qzVariant::Int64, -9223372036854775808.0},
      {"9223372036854775807", qzVariant::Int64, 9223372036854775807.0},
      {"18446744073709551615", qzVariant::Double, 18446744073709551615.0},
      {"123456789012345678901234567890", qzVariant::Double, 1.2345678901234568e29},
  };
  for (const auto& [text, type, value] : rows) {
    const auto v = parseOne(text);
    ASSERT_TRUE(v) << text;
    EXPECT_EQ(v->type(), type) << text;
    EXPECT_EQ(v->toDouble(), value) << text;
  }
  for (const char* text : {"1e400", "00", "1.", "+1"})
    EXPECT_FALSE(parseOne(text)) << text;
  EXPECT_EQ(parseOne("9223372036854775807")->toInt64(), INT64_MAX);
  EXPECT_TRUE(std::signbit(parseOne("-0.0")->toDouble()));
}

TEST(JsonNumbers, DecimalPointDoesNotFollowTheProcessLocale) {
  // A host may switch to a locale whose decimal separator is a comma.
  const char* set = std::setlocale(LC_NUMERIC, "de_DE.UTF-8");
  const auto v = parseOne("2.5");
  if (set)
    std::setlocale(LC_NUMERIC, "C");
  ASSERT_TRUE(v);
  EXPECT_EQ(v->toDouble(), 2.5);
}

} // namespace
