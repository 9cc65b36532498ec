#include <HttpTools/platform/qzJson.h>
#include <HttpTools/platform/qzJson_p.h>

#include <gtest/gtest.h>

#include <clocale>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <optional>
#include <tuple>

using namespace qz;
using json::Json2Variant;

namespace {

// Already compact, in key order, with numbers at their limits: comes back as it was.
const char* kCompact = R"({"d":1.5,"deep":{"l":[1,[2,{"x":[]}],{}]},"e":1e300,"max":9223372036854775807,)"
                       R"("min":-9223372036854775808,"z":-0.0})";

TEST(Json, RoundTripsKeepTextInKeyOrder) {
  // input -> compact output (maps come out in key order, numbers keep their type)
  const std::pair<const char*, const char*> cases[] = {{R"({"b":1,"a":2,"n":null,"t":true,"f":false,"dup":1,"dup":2})",
                                                        R"({"a":2,"b":1,"dup":2,"f":false,"n":null,"t":true})"},
                                                       {R"({ "s" : "q\"b\\s\/\n\t\u0001", "u":"\u00e9\ud83d\ude00" })",
                                                        R"({"s":"q\"b\\s/\n\t\u0001","u":")"
                                                        "\xc3\xa9\xf0\x9f\x98\x80"
                                                        R"("})"},
                                                       {kCompact, kCompact}};
  for (const auto& [in, want] : cases) {
    qzVariantMapImpl m;
    std::string out, appended = "[";
    ASSERT_TRUE(Json2Variant::Convert(std::string(in), m)) << in;
    EXPECT_TRUE(Json2Variant::Convert(m, out, false));
    json::AppendJson(appended, m); // the same text after what the buffer holds
    EXPECT_EQ(out + " " + appended, std::string(want) + " [" + want) << in;
  }
  std::string pretty; // indented by two
  ASSERT_TRUE(Json2Variant::Convert(qzVariantMapImpl{{"a", qzVariantListImpl{1, "x"}}, {"b", true}}, pretty, true));
  EXPECT_EQ(pretty, "{\n  \"a\": [\n    1,\n    \"x\"\n  ],\n  \"b\": true\n}");
}

TEST(Json, MalformedTextFailsAndLeavesOutputUntouched) {
  // The last two have the wrong kind of root for a map.
  for (const char* text : {"", "{", "{\"a\":}", "{\"a\":1,}", "[1,2", "{\"a\":1} x", "nul", "{'a':1}", "{\"a\":01}",
                           "\"str", "{\"a\":NaN}", "{\"a\" 1}", "{\"\\x\":1}", "[1] [2]", "[1]"}) {
    qzVariantMapImpl m{{"keep", qzVariant(1)}};
    EXPECT_FALSE(Json2Variant::Convert(std::string(text), m)) << text;
    EXPECT_EQ(m, qzVariantMapImpl({{"keep", qzVariant(1)}})) << text;
  }
  qzVariantListImpl l{qzVariant(7)};
  EXPECT_FALSE(Json2Variant::Convert(std::string("{}"), l) || l.size() != 1);
  // Writing a non-finite number fails too, leaving the text as it was.
  std::string out = "prev";
  EXPECT_FALSE(
      Json2Variant::Convert(qzVariantMapImpl{{"x", qzVariant(std::numeric_limits<double>::infinity())}}, out, false));
  EXPECT_EQ(out, "prev");
  json::AppendJson(out, qzVariantMapImpl{{"x", qzVariant(std::nan(""))}}); // a request body writes null
  EXPECT_EQ(out, R"(prev{"x":null})");
  // Nesting is bounded, and deeper text is refused without crashing.
  auto nested = [](size_t depth) { return std::string(depth, '[') + std::string(depth, ']'); };
  EXPECT_TRUE(Json2Variant::Convert(nested(Json2Variant::MaxDepth), l));
  EXPECT_FALSE(Json2Variant::Convert(nested(Json2Variant::MaxDepth + 1), l) ||
               Json2Variant::Convert(nested(100000), l));
}

TEST(JsonStreamer, WritesKeysObjectPredictsItsSizeAndReportsAFailingDevice) {
  const std::vector<std::string> keys = {"plain", "q\"uote", "back\\slash", std::string("ctl\x01\n", 5), "\xc3\xa9"};
  qzIoDeviceMemory dev;
  json::JsonStreamer s(dev);
  ASSERT_TRUE(s.begin() && s.arrayBegin("keys"));
  for (const auto& k : keys)
    ASSERT_TRUE(s.arrayString(k));
  ASSERT_TRUE(s.arrayEnd() && s.end());
  EXPECT_EQ(dev.data(), "{\"keys\":[\"plain\",\"q\\\"uote\",\"back\\\\slash\",\"ctl\\u0001\\n\",\"\xc3\xa9\"]}");
  EXPECT_EQ(json::JsonStreamer::ConvertToJsonStringSize("keys", keys), dev.data().size());
  dev.setError(true); // a failing device fails the streamer
  json::JsonStreamer failing(dev);
  failing.begin();
  EXPECT_FALSE(failing.end() || failing.good());
}

// Unsigned 64-bit counts and string views build variants without casts or ambiguity.
TEST(Variant, UnsignedAndStringViewConstructorsAndConversionsThatNeverThrow) {
  const std::string_view view = std::string_view("abcdef").substr(1, 3);
  const uint64_t max = INT64_MAX;
  const qzVariantMapImpl doc{{"size", size_t(3)}, {"max", max}, {"big", max + 1}, {"view", view}};
  std::string text; // beyond int64: kept as the nearest double
  ASSERT_TRUE(Json2Variant::Convert(doc, text, false));
  EXPECT_EQ(text, R"({"big":9223372036854776000.0,"max":9223372036854775807,"size":3,"view":"bcd"})");
  // Conversions never throw.
  bool ok = true, ok2 = true;
  EXPECT_EQ(std::tuple(qzVariant("12").toInt64(), qzVariant("12x").toInt64(&ok), qzVariant(1e300).toInt64(&ok2),
                       qzVariant(2.9).toInt64()),
            std::tuple(12, 0, 0, 2));
  EXPECT_FALSE(ok || ok2);
}

// Number conversion at the edges where a parser's own conversion goes wrong.
std::optional<qzVariant> parseOne(const std::string& number) {
  qzVariantListImpl list;
  if (!json::Json2Variant::Convert("[" + number + "]", list) || list.size() != 1)
    return std::nullopt;
  return list[0];
}

// The C library's reading is the reference; integers in range stay integers. "0E46" once gave -1.89e-270.
TEST(JsonNumbers, ZeroSignificandsLimitsAndTheLocaleDecimalPoint) {
  for (const char* text : {"0E46", "0.000000000000000000000000000000e-5", "1e-400", "4.9e-324", "0.1",
                           "1.7976931348623157e308", "18446744073709551615", "123456789012345678901234567890"}) {
    const auto v = parseOne(text);
    ASSERT_TRUE(v) << text;
    EXPECT_EQ(std::pair(v->type(), v->toDouble()), std::pair(qzVariant::Double, std::strtod(text, nullptr))) << text;
  }
  for (const char* text : {"-0", "-9223372036854775808", "9223372036854775807"}) {
    const auto v = parseOne(text);
    EXPECT_TRUE(v && v->type() == qzVariant::Int64 && v->toInt64() == std::strtoll(text, nullptr, 10)) << text;
  }
  for (const char* text : {"1e400", "00", "1.", "+1"})
    EXPECT_FALSE(parseOne(text)) << text;
  EXPECT_TRUE(std::signbit(parseOne("-0.0")->toDouble()));
  // A host may switch to a locale whose decimal separator is a comma.
  const char* set = std::setlocale(LC_NUMERIC, "de_DE.UTF-8");
  const auto v = parseOne("2.5");
  if (set)
    std::setlocale(LC_NUMERIC, "C");
  EXPECT_EQ(v.value_or(qzVariant()).toDouble(), 2.5);
}

} // namespace
