#include <HttpTools/jwt/Jwt.h>

#include "support/LogCapture.h"

#include <gtest/gtest.h>

using qz::jwt::StringListToScope;

namespace {

TEST(Scope, TrimsEncodesAndJoins) {
  struct Row {
    std::vector<std::string> tags;
    std::string scope;
  };
  const Row rows[] = {
      {{"read", "  write  ", "", "a b"}, "read write a%20b"},
      {{}, ""},
      {{"", " ", "\t\n"}, ""},
      {{" ", "x", "", "y", "  "}, "x y"},
      {{"caf\xC3\xA9"}, "caf%C3%A9"},                              // é
      {{"\xE2\x82\xAC\xF0\x9F\x98\x80"}, "%E2%82%AC%F0%9F%98%80"}, // € and an emoji
      {{"say\"hi\"", "back\\slash"}, "say%22hi%22 back%5Cslash"},
      {{"tab\tin", std::string("nul\0x", 5)}, "tab%09in nul%00x"},
      {{"!#[]~{}:/?=&%+"}, "!#[]~{}:/?=&%+"}, // scope characters stay as they are
      {{"\x7F"}, "%7F"},
  };
  for (const auto& r : rows) {
    qztest::LogCapture cap;
    EXPECT_EQ(StringListToScope(r.tags), r.scope);
    EXPECT_EQ(cap.size(), 0u) << cap.dump();
  }
}

TEST(Scope, MalformedUtf8KeepsThePrefixAndLogs) {
  struct Row {
    std::string tag;
    std::string scope;
    std::string log;
  };
  const Row rows[] = {
      {"ab\xC3", "x ab", "Fail to convert tag 'ab\xC3' to scope Not enough space"},
      {"a\xFF"
       "b",
       "x a",
       "Fail to convert tag 'a\xFF"
       "b' to scope Invalid UTF-8"},
      {"\x80"
       "abc",
       "x",
       "Fail to convert tag '\x80"
       "abc' to scope Invalid UTF-8"},
      {"a\xC0\xAF", "x a", "Fail to convert tag 'a\xC0\xAF' to scope Invalid UTF-8"},              // overlong "/"
      {"s\xED\xA0\x80", "x s", "Fail to convert tag 's\xED\xA0\x80' to scope Invalid code point"}, // surrogate
  };
  for (const auto& r : rows) {
    qztest::LogCapture cap;
    EXPECT_EQ(StringListToScope({"x", r.tag}), r.scope) << r.log;
    EXPECT_TRUE(cap.has("", r.log)) << cap.dump();
    EXPECT_EQ(cap.lines().at(0).type, 0);
  }
}

} // namespace
