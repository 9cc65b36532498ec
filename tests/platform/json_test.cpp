#include <HttpTools/platform/qzJson.h>

#include <gtest/gtest.h>

#include <climits>

using qz::qzVariant;
using qz::qzVariantListImpl;
using qz::qzVariantMapImpl;
using qz::json::Json2Variant;
using qz::json::JsonStreamer;

namespace {

std::string compact(const qzVariantMapImpl& m) {
  std::string out;
  EXPECT_TRUE(Json2Variant::Convert(m, out, false));
  return out;
}

TEST(Json, RoundTripsKeepTextInKeyOrder) {
  // input -> compact output (maps come out in key order, numbers keep their type)
  struct Case {
    const char* in;
    const char* out;
  } cases[] = {
      {R"({"b":1,"a":2})", R"({"a":2,"b":1})"},
      {R"({ "s" : "q\"b\\s\/\n\t\u0001" })", R"({"s":"q\"b\\s/\n\t\u0001"})"},
      {R"({"u":"\u00e9\ud83d\ude00"})", "{\"u\":\"\xc3\xa9\xf0\x9f\x98\x80\"}"},
      {R"({"max":9223372036854775807,"min":-9223372036854775808})",
       R"({"max":9223372036854775807,"min":-9223372036854775808})"},
      {R"({"d":1.5,"e":1e300,"z":-0.0})", R"({"d":1.5,"e":1e300,"z":-0.0})"},
      {R"({"n":null,"t":true,"f":false})", R"({"f":false,"n":null,"t":true})"},
      {R"({"deep":{"l":[1,[2,{"x":[]}],{}]}})", R"({"deep":{"l":[1,[2,{"x":[]}],{}]}})"},
      {R"({"dup":1,"dup":2})", R"({"dup":2})"},
  };
  for (const auto& c : cases) {
    qzVariantMapImpl m;
    ASSERT_TRUE(Json2Variant::Convert(std::string(c.in), m)) << c.in;
    EXPECT_EQ(compact(m), c.out) << c.in;
  }
}

TEST(Json, NumbersKeepTheirKind) {
  qzVariantMapImpl m;
  ASSERT_TRUE(Json2Variant::Convert(std::string(R"({"i":42,"big":18446744073709551615,"d":0.1})"), m));
  EXPECT_TRUE(m["i"].isInt64());
  EXPECT_EQ(m["i"].toInt64(), 42);
  // Beyond int64: kept as a double rather than wrapped around.
  EXPECT_TRUE(m["big"].isDouble());
  EXPECT_DOUBLE_EQ(m["big"].toDouble(), 18446744073709551615.0);
  EXPECT_EQ(m["d"].toDouble(), 0.1);
}

TEST(Json, MalformedTextFailsAndLeavesOutputUntouched) {
  const char* bad[] = {"",        "{",          "{\"a\":}", "{\"a\":1,}",  "[1,2",    "{\"a\":1} x", "nul",
                       "{'a':1}", "{\"a\":01}", "\"str",    "{\"a\":NaN}", "[1] [2]", "{\"a\" 1}",   "{\"\\x\":1}"};
  for (const char* text : bad) {
    qzVariantMapImpl m{{"keep", qzVariant(1)}};
    EXPECT_FALSE(Json2Variant::Convert(std::string(text), m)) << text;
    ASSERT_EQ(m.size(), 1u) << text;
    EXPECT_EQ(m["keep"].toInt64(), 1) << text;
  }
  // The right kind of root only.
  qzVariantMapImpl m;
  EXPECT_FALSE(Json2Variant::Convert(std::string("[1]"), m));
  qzVariantListImpl l{qzVariant(7)};
  EXPECT_FALSE(Json2Variant::Convert(std::string("{}"), l));
  EXPECT_EQ(l.size(), 1u);
  EXPECT_TRUE(Json2Variant::Convert(std::string("[1,\"a\"]"), l));
  EXPECT_EQ(l.size(), 2u);
}

TEST(Json, DeepNestingIsRefusedWithoutCrashing) {
  std::string deep(100000, '[');
  deep += std::string(100000, ']');
  qzVariantListImpl l;
  EXPECT_FALSE(Json2Variant::Convert(deep, l));
  std::string ok(Json2Variant::MaxDepth, '[');
  ok += std::string(Json2Variant::MaxDepth, ']');
  EXPECT_TRUE(Json2Variant::Convert(ok, l));
}

TEST(Json, WritingRefusesNonFiniteNumbers) {
  std::string out = "prev";
  qzVariantMapImpl m{{"x", qzVariant(std::numeric_limits<double>::infinity())}};
  EXPECT_FALSE(Json2Variant::Convert(m, out, false));
  EXPECT_EQ(out, "prev");
}

TEST(Json, PrettyOutputParsesBackEqual) {
  qzVariantMapImpl m{{"a", qzVariant(qzVariantListImpl{qzVariant(1), qzVariant("x")})}, {"b", qzVariant(true)}};
  std::string pretty;
  ASSERT_TRUE(Json2Variant::Convert(m, pretty, true));
  EXPECT_NE(pretty.find('\n'), std::string::npos);
  qzVariantMapImpl back;
  ASSERT_TRUE(Json2Variant::Convert(pretty, back));
  EXPECT_EQ(back, m);
}

TEST(JsonStreamer, WritesKeysObjectAndPredictsItsSize) {
  std::vector<std::string> keys = {"plain", "q\"uote", "back\\slash", std::string("ctl\x01\n", 5), "\xc3\xa9"};
  qz::qzIoDeviceMemory dev;
  {
    JsonStreamer s(dev);
    ASSERT_TRUE(s.begin());
    ASSERT_TRUE(s.arrayBegin("keys"));
    for (const auto& k : keys)
      ASSERT_TRUE(s.arrayString(k));
    ASSERT_TRUE(s.arrayEnd());
    ASSERT_TRUE(s.end());
  }
  EXPECT_EQ(dev.data(), "{\"keys\":[\"plain\",\"q\\\"uote\",\"back\\\\slash\",\"ctl\\u0001\\n\",\"\xc3\xa9\"]}");
  EXPECT_EQ(JsonStreamer::ConvertToJsonStringSize("keys", keys), dev.data().size());
  qzVariantMapImpl back;
  ASSERT_TRUE(Json2Variant::Convert(dev.data(), back));
  ASSERT_EQ(back["keys"].toList().size(), keys.size());
  for (size_t i = 0; i < keys.size(); ++i)
    EXPECT_EQ(back["keys"].toList()[i].toString(), keys[i]);
  EXPECT_EQ(JsonStreamer::ConvertToJsonStringSize("keys", {}), std::string("{\"keys\":[]}").size());
}

TEST(JsonStreamer, ReportsAFailingDevice) {
  qz::qzIoDeviceMemory dev;
  dev.setError(true);
  JsonStreamer s(dev);
  s.begin();
  s.arrayBegin("k");
  s.arrayEnd();
  EXPECT_FALSE(s.end());
  EXPECT_FALSE(s.good());
}

TEST(Variant, ConversionsNeverThrow) {
  EXPECT_EQ(qzVariant("12").toInt64(), 12);
  bool ok = true;
  EXPECT_EQ(qzVariant("12x").toInt64(&ok), 0);
  EXPECT_FALSE(ok);
  EXPECT_EQ(qzVariant(1e300).toInt64(&ok), 0);
  EXPECT_FALSE(ok);
  EXPECT_EQ(qzVariant(2.9).toInt64(), 2);
  EXPECT_EQ(qzVariant(int64_t(5)).toString(), "5");
  EXPECT_EQ(qzVariant(0.1).toString(), "0.1");
  EXPECT_EQ(qzVariant(true).toString(), "true");
  EXPECT_EQ(qzVariant().toString(), "");
  EXPECT_EQ(qzVariant(qzVariantListImpl{qzVariant(1), qzVariant("a")}).toString(), "[1,\"a\"]");
  EXPECT_TRUE(qzVariant("true").toBool());
  EXPECT_FALSE(qzVariant(qzVariantMapImpl{}).toBool());
  EXPECT_TRUE(qzVariant(3).toMap().empty());
  qzVariant v(3);
  v.asList().push_back(qzVariant(1));
  EXPECT_TRUE(v.isList());
}

} // namespace
