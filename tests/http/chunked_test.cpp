#include <HttpTools/http/qzIoDeviceHttpChuncked.h>

#include "support/LogCapture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

using qz::http::qzIoDeviceHttpChuncked;

namespace {

std::string chunk(size_t n, const std::string& hex, char c = 'x') { return hex + "\r\n" + std::string(n, c) + "\r\n"; }

// Exact framing: what the delegate holds after each write and after the end.
TEST(Chunked, ExactFramingAfterEachWrite) {
  struct Case {
    unsigned m;
    std::vector<std::string> writes, after;
    std::string final;
  };
  const std::vector<Case> cases{
      {4, {"ab", "cdef"}, {"", "4\r\nabcd\r\n"}, "4\r\nabcd\r\n2\r\nef\r\n0\r\n\r\n"},
      {4, {"abcd", "e"}, {"", "4\r\nabcd\r\n"}, "4\r\nabcd\r\n1\r\ne\r\n0\r\n\r\n"}, // a full chunk waits
      {8, {""}, {""}, "0\r\n\r\n"},
      {0x1a, {std::string(0x1a + 0xf, 'x')}, {chunk(0x1a, "1a")}, chunk(0x1a, "1a") + chunk(0xf, "f") + "0\r\n\r\n"},
  };
  for (const auto& c : cases) {
    qz::qzIoDeviceMemory out;
    qzIoDeviceHttpChuncked dev(c.m);
    ASSERT_TRUE(dev.beginDelegation(&out));
    for (size_t i = 0; i < c.writes.size(); ++i) {
      EXPECT_EQ(dev.write(c.writes[i].data(), c.writes[i].size()), int64_t(c.writes[i].size()));
      EXPECT_EQ(out.data(), c.after[i]) << "m=" << c.m << " write " << i;
    }
    EXPECT_TRUE(dev.endDelegation());
    EXPECT_EQ(out.data(), c.final) << "m=" << c.m;
  }
}

// Many write patterns against many chunk sizes: every chunk but the last is exactly full and the
// payload decodes back to the input.
TEST(Chunked, RoundTripsWithFullChunks) {
  for (unsigned m : {1u, 2u, 3u, 7u, 16u, 100u}) {
    for (const auto& pattern : std::vector<std::vector<size_t>>{{1}, {5, 0, 3}, {16, 16, 1}, {99, 1, 250}}) {
      qz::qzIoDeviceMemory out;
      qzIoDeviceHttpChuncked dev(m);
      ASSERT_TRUE(dev.beginDelegation(&out));
      std::string input;
      for (size_t n : pattern) {
        std::string piece;
        for (size_t i = 0; i < n; ++i)
          piece += char('A' + (input.size() + i) % 26);
        EXPECT_EQ(dev.write(piece.data(), piece.size()), int64_t(n));
        input += piece;
      }
      ASSERT_TRUE(dev.endDelegation());
      std::string expected;
      for (size_t pos = 0; pos < input.size(); pos += m) {
        const size_t n = std::min<size_t>(m, input.size() - pos);
        char hex[16];
        snprintf(hex, sizeof hex, "%zx", n);
        expected += std::string(hex) + "\r\n" + input.substr(pos, n) + "\r\n";
      }
      EXPECT_EQ(out.data(), expected + "0\r\n\r\n") << "m=" << m;
    }
  }
}

TEST(Chunked, ErrorsSuppressTheTerminatorUntilAFreshDelegation) {
  qz::qzIoDeviceMemory a, b;
  qzIoDeviceHttpChuncked dev(4);
  EXPECT_EQ(dev.write("abc", 3), 0); // no delegate: nothing accepted
  EXPECT_TRUE(dev.hasError());
  EXPECT_FALSE(dev.endDelegation());
  ASSERT_TRUE(dev.beginDelegation(&a));
  EXPECT_FALSE(dev.hasError());
  EXPECT_FALSE(dev.beginDelegation(&b));
  EXPECT_TRUE(dev.hasError());
  dev.write("xy", 2);
  EXPECT_FALSE(dev.endDelegation());
  EXPECT_EQ(a.data() + b.data(), "");
  EXPECT_TRUE(dev.beginDelegation(&b));
  EXPECT_FALSE(dev.hasError());
  dev.write("z", 1);
  EXPECT_TRUE(dev.endDelegation());
  EXPECT_EQ(b.data(), "1\r\nz\r\n0\r\n\r\n");
  { // the destructor drops buffered bytes without a terminator
    qzIoDeviceHttpChuncked pending(16);
    pending.beginDelegation(&a);
    pending.write("pending", 7);
  }
  EXPECT_EQ(a.data(), "");
}

TEST(Chunked, DelegateErrorsSurfaceThroughAChain) {
  qz::qzIoDeviceMemory out;
  qzIoDeviceHttpChuncked inner(4), outer(4);
  ASSERT_TRUE(inner.beginDelegation(&out));
  ASSERT_TRUE(outer.beginDelegation(&inner));
  EXPECT_FALSE(outer.hasError());
  out.setError(true);
  EXPECT_TRUE(outer.hasError());
  outer.write("abcdef", 6);
  EXPECT_FALSE(outer.endDelegation());
}

TEST(Chunked, UnsupportedOperationsLogAndAnswerZero) {
  qztest::LogCapture cap;
  qzIoDeviceHttpChuncked dev(4);
  char buf[4];
  const std::vector<int64_t> got{dev.readBytes(buf, 4), dev.seekg(1), dev.seekp(1),
                                 dev.tellg(),           dev.tellp(),  dev.atEnd()};
  EXPECT_EQ(got, std::vector<int64_t>(6, 0));
  for (const char* op : {"readBytes", "seekg", "seekp", "tellg", "tellp", "atEnd"})
    EXPECT_TRUE(cap.has(std::string("qzIoDeviceHttpChuncked::") + op + " not implemented")) << op;
  for (const auto& l : cap.lines())
    EXPECT_EQ(l.type, qz::qzLog::Error);
  EXPECT_EQ(dev.openMode(), 2);
  EXPECT_EQ(dev.flags(), 1025);
}

} // namespace
