#include <HttpTools/http/qzIoDeviceHttpChuncked.h>

#include "support/LogCapture.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using qz::http::qzIoDeviceHttpChuncked;

namespace {

// Reference decoder: checks the framing and returns the payload and the chunk sizes.
bool decodeChunked(const std::string& in, std::string& payload, std::vector<size_t>& sizes) {
  size_t pos = 0;
  for (;;) {
    size_t eol = in.find("\r\n", pos);
    if (eol == std::string::npos)
      return false;
    size_t n = std::stoul(in.substr(pos, eol - pos), nullptr, 16);
    pos = eol + 2;
    if (n == 0)
      return in.compare(pos, std::string::npos, "\r\n") == 0;
    if (pos + n + 2 > in.size() || in.compare(pos + n, 2, "\r\n") != 0)
      return false;
    payload.append(in, pos, n);
    sizes.push_back(n);
    pos += n + 2;
  }
}

TEST(Chunked, DelegateSeesAChunkOnlyWhenItIsFull) {
  qz::qzIoDeviceMemory out;
  qzIoDeviceHttpChuncked dev(4);
  ASSERT_TRUE(dev.beginDelegation(&out));
  EXPECT_EQ(dev.write("ab", 2), 2);
  EXPECT_EQ(out.data(), "");
  EXPECT_EQ(dev.write("cdef", 4), 4);
  EXPECT_EQ(out.data(), "4\r\nabcd\r\n");
  EXPECT_TRUE(dev.endDelegation());
  EXPECT_EQ(out.data(), "4\r\nabcd\r\n2\r\nef\r\n0\r\n\r\n");
}

TEST(Chunked, ExactlyFullChunkWaitsForNextWriteOrEnd) {
  qz::qzIoDeviceMemory out;
  qzIoDeviceHttpChuncked dev(4);
  ASSERT_TRUE(dev.beginDelegation(&out));
  dev.write("abcd", 4);
  EXPECT_EQ(out.data(), "");
  dev.write("e", 1);
  EXPECT_EQ(out.data(), "4\r\nabcd\r\n");
  EXPECT_TRUE(dev.endDelegation());
  EXPECT_EQ(out.data(), "4\r\nabcd\r\n1\r\ne\r\n0\r\n\r\n");
}

TEST(Chunked, SizesAreLowerCaseHexWithoutPadding) {
  qz::qzIoDeviceMemory out;
  qzIoDeviceHttpChuncked dev(0x1ab);
  ASSERT_TRUE(dev.beginDelegation(&out));
  std::string data(0x1ab + 0x1f, 'x');
  dev.write(data.data(), data.size());
  ASSERT_TRUE(dev.endDelegation());
  EXPECT_EQ(out.data().substr(0, 5), "1ab\r\n");
  EXPECT_NE(out.data().find("\r\n1f\r\n"), std::string::npos);
}

TEST(Chunked, EmptyDelegationWritesOnlyTheTerminator) {
  qz::qzIoDeviceMemory out;
  qzIoDeviceHttpChuncked dev(8);
  ASSERT_TRUE(dev.beginDelegation(&out));
  dev.write("", 0);
  EXPECT_TRUE(dev.endDelegation());
  EXPECT_EQ(out.data(), "0\r\n\r\n");
}

// Many write patterns against many chunk sizes: the framing decodes back to the input and every
// chunk but the last is exactly full.
TEST(Chunked, RoundTripsWithFullChunks) {
  const std::vector<unsigned> chunkSizes{1, 2, 3, 7, 16, 100};
  const std::vector<std::vector<size_t>> writePatterns{{1}, {5, 0, 3}, {16, 16, 1}, {99, 1, 250}, {7, 7, 7, 7}};
  for (unsigned m : chunkSizes) {
    for (const auto& pattern : writePatterns) {
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
      std::string payload;
      std::vector<size_t> sizes;
      ASSERT_TRUE(decodeChunked(out.data(), payload, sizes)) << "m=" << m << " out=" << out.data();
      EXPECT_EQ(payload, input) << "m=" << m;
      for (size_t i = 0; i + 1 < sizes.size(); ++i)
        EXPECT_EQ(sizes[i], m) << "chunk " << i << " m=" << m;
      if (!sizes.empty()) {
        EXPECT_GE(sizes.back(), 1u);
        EXPECT_LE(sizes.back(), m);
      }
    }
  }
}

TEST(Chunked, SecondBeginFailsAndMarksTheError) {
  qz::qzIoDeviceMemory a, b;
  qzIoDeviceHttpChuncked dev(4);
  ASSERT_TRUE(dev.beginDelegation(&a));
  EXPECT_FALSE(dev.hasError());
  EXPECT_FALSE(dev.beginDelegation(&b));
  EXPECT_TRUE(dev.hasError());
  dev.write("xy", 2);
  // After an error the end writes no terminator and reports failure.
  EXPECT_FALSE(dev.endDelegation());
  EXPECT_EQ(a.data(), "");
  EXPECT_EQ(b.data(), "");
  // A fresh delegation clears the error.
  EXPECT_TRUE(dev.beginDelegation(&b));
  EXPECT_FALSE(dev.hasError());
  dev.write("z", 1);
  EXPECT_TRUE(dev.endDelegation());
  EXPECT_EQ(b.data(), "1\r\nz\r\n0\r\n\r\n");
}

TEST(Chunked, WritingWithoutDelegateAcceptsNothing) {
  qzIoDeviceHttpChuncked dev(4);
  EXPECT_EQ(dev.write("abc", 3), 0);
  EXPECT_TRUE(dev.hasError());
  EXPECT_FALSE(dev.endDelegation());
}

TEST(Chunked, DelegateErrorsSurface) {
  qz::qzIoDeviceMemory out;
  qzIoDeviceHttpChuncked inner(4);
  qzIoDeviceHttpChuncked outer(4);
  ASSERT_TRUE(inner.beginDelegation(&out));
  ASSERT_TRUE(outer.beginDelegation(&inner));
  EXPECT_FALSE(outer.hasError());
  out.setError(true);
  EXPECT_TRUE(outer.hasError()); // followed through the chain
  outer.write("abcdef", 6);
  EXPECT_FALSE(outer.endDelegation());
}

TEST(Chunked, DestructorDropsBufferedBytesWithoutTerminator) {
  qz::qzIoDeviceMemory out;
  {
    qzIoDeviceHttpChuncked dev(16);
    dev.beginDelegation(&out);
    dev.write("pending", 7);
  }
  EXPECT_EQ(out.data(), "");
}

TEST(Chunked, UnsupportedOperationsLogAndAnswerZero) {
  qztest::LogCapture cap;
  qzIoDeviceHttpChuncked dev(4);
  char buf[4];
  EXPECT_EQ(dev.readBytes(buf, 4), 0);
  EXPECT_FALSE(dev.seekg(1));
  EXPECT_FALSE(dev.seekp(1));
  EXPECT_EQ(dev.tellg(), 0);
  EXPECT_EQ(dev.tellp(), 0);
  EXPECT_FALSE(dev.atEnd());
  for (const char* op : {"readBytes", "seekg", "seekp", "tellg", "tellp", "atEnd"}) {
    const std::string text = std::string("qzIoDeviceHttpChuncked::") + op + " not implemented";
    EXPECT_TRUE(cap.has(text)) << text;
  }
  for (const auto& l : cap.lines())
    EXPECT_EQ(l.type, qz::qzLog::Error);
  EXPECT_EQ(dev.openMode(), 2);
  EXPECT_EQ(dev.flags(), 1025);
}

} // namespace
