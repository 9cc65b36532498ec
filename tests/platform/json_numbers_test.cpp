// Number conversion of the JSON reader, at the edges where a parser's own conversion goes wrong.
#include <HttpTools/platform/qzJson.h>

#include <gtest/gtest.h>

#include <clocale>
#include <cmath>

using qz::qzVariant;

namespace {

qzVariant parseOne(const std::string& number, bool* ok) {
  qz::qzVariantListImpl list;
  *ok = qz::json::Json2Variant::Convert("[" + number + "]", list) && list.size() == 1;
  return *ok ? list[0] : qzVariant();
}

TEST(JsonNumbers, ZeroSignificandsAndLimits) {
  struct Row {
    const char* text;
    bool ok;
    qzVariant::Type type;
    double value;
  };
  const Row rows[] = {
      {"0E46", true, qzVariant::Double, 0.0}, // once gave -1.89e-270
      {"0.000000000000000000000000000000e-5", true, qzVariant::Double, 0.0},
      {"0.0e10", true, qzVariant::Double, 0.0},
      {"-0", true, qzVariant::Int64, 0.0},
      {"1e-400", true, qzVariant::Double, 0.0},
      {"1e400", false, qzVariant::Null, 0.0},
      {"4.9e-324", true, qzVariant::Double, 4.9406564584124654e-324},
      {"0.1", true, qzVariant::Double, 0.1},
      {"1.7976931348623157e308", true, qzVariant::Double, 1.7976931348623157e308},
      {"-9223372036854775808", true, qzVariant::Int64, -9223372036854775808.0},
      {"9223372036854775807", true, qzVariant::Int64, 9223372036854775807.0},
      {"18446744073709551615", true, qzVariant::Double, 18446744073709551615.0},
      {"123456789012345678901234567890", true, qzVariant::Double, 1.2345678901234568e29},
      {"00", false, qzVariant::Null, 0.0},
      {"1.", false, qzVariant::Null, 0.0},
      {"+1", false, qzVariant::Null, 0.0},
  };
  for (const auto& r : rows) {
    bool ok = false;
    qzVariant v = parseOne(r.text, &ok);
    ASSERT_EQ(ok, r.ok) << r.text;
    if (!ok)
      continue;
    EXPECT_EQ(v.type(), r.type) << r.text;
    EXPECT_EQ(v.toDouble(), r.value) << r.text;
  }
  bool ok = false;
  EXPECT_EQ(parseOne("9223372036854775807", &ok).toInt64(), INT64_MAX);
  EXPECT_TRUE(std::signbit(parseOne("-0.0", &ok).toDouble()));
}

TEST(JsonNumbers, DecimalPointDoesNotFollowTheProcessLocale) {
  // A host may switch to a locale whose decimal separator is a comma.
  const char* set = std::setlocale(LC_NUMERIC, "de_DE.UTF-8");
  bool ok = false;
  EXPECT_EQ(parseOne("2.5", &ok).toDouble(), 2.5);
  EXPECT_TRUE(ok);
  if (set)
    std::setlocale(LC_NUMERIC, "C");
}

} // namespace
