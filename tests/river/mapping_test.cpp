#include <HttpTools/river/RiverMapping_p.h>

#include <gtest/gtest.h>

using qz::qzVariant;
using namespace qz::river::detail;

namespace {

qzVariant parse(const std::string& json) {
  qzVariant v;
  std::string error;
  EXPECT_TRUE(ParseMapping(json, v, &error)) << json << ": " << error;
  return v;
}

} // namespace

TEST(RiverMapping, PackedMappingComesBackIdenticalWhateverTheKeyOrder) {
  const qzVariant a = parse(R"({"properties":{"n":{"type":"long"},"name":{"type":"text","analyzer":"french"}}})");
  const qzVariant b = parse(R"({"properties":{"name":{"analyzer":"french","type":"text"},"n":{"type":"long"}}})");
  const std::string packed = PackMapping(a);
  EXPECT_EQ(packed, PackMapping(b));
  EXPECT_EQ(packed.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/="),
            std::string::npos);
  qzVariant back;
  ASSERT_TRUE(UnpackMapping(packed, back));
  EXPECT_EQ(back, a);

  for (const std::string& bad : std::vector<std::string>{"", "not base64 !", "aGVsbG8=" /* "hello", not deflate */,
                                                         packed.substr(0, packed.size() / 2)})
    EXPECT_FALSE(UnpackMapping(bad, back)) << bad;
  for (const std::string bad : {"[]", "3", "{\"a\":", "\"text\""})
    EXPECT_FALSE(ParseMapping(bad, back, nullptr)) << bad;
}

TEST(RiverMapping, LiveMappingComparedIgnoringOrderEchoesAndDefaults) {
  struct Case {
    const char* wanted;
    const char* live;
    bool same;
  };
  const Case cases[] = {
      {R"({})", R"({"properties":{"a":{"type":"text","fields":{"keyword":{"type":"keyword","ignore_above":256}}}}})",
       true}, // dynamic: fields the documents brought
      {R"({"properties":{"a":{"type":"long"},"b":{"type":"keyword"}}})",
       R"({"properties":{"b":{"type":"keyword"},"a":{"type":"long"}},"_meta":{"x":1}})", true},
      {R"({"dynamic":"strict","properties":{"k":{"type":"keyword","ignore_above":256,"index":true}}})",
       R"({"dynamic":"strict","properties":{"k":{"type":"keyword","ignore_above":"256","doc_values":true}}})", true},
      {R"({"dynamic":false,"properties":{"o":{"properties":{"x":{"type":"date"}}}}})",
       R"({"dynamic":"false","properties":{"o":{"type":"object","properties":{"x":{"type":"date"}}}}})", true},
      {R"({"properties":{"a":{"type":"long"}}})", R"({"properties":{"a":{"type":"integer"}}})", false},
      {R"({"properties":{"a":{"type":"long"},"b":{"type":"text"}}})", R"({"properties":{"a":{"type":"long"}}})", false},
      {R"({"properties":{"a":{"type":"text"}}})", R"({"properties":{"a":{"type":"text","analyzer":"french"}}})", false},
      {R"({"properties":{"a":{"type":"text","index":false}}})", R"({"properties":{"a":{"type":"text"}}})", false},
      {R"({"properties":{"a":{"type":"text","copy_to":["x","y"]}}})",
       R"({"properties":{"a":{"type":"text","copy_to":["y","x"]}}})", false},
      {R"({"dynamic":"strict"})", R"({"dynamic":"true"})", false},
  };
  for (const auto& c : cases)
    EXPECT_EQ(MappingsEquivalent(parse(c.wanted), parse(c.live)), c.same) << c.wanted << " vs " << c.live;
}
