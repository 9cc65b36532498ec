#include <HttpTools/http/qzIoDeviceHttpChuncked.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>

using qz::http::qzIoDeviceHttpChuncked;

namespace {

// Reference framing of `data` in chunks of m bytes (lower-case hex sizes, no padding).
std::string frame(const std::string& data, size_t m) {
  std::string out;
  for (size_t pos = 0; pos < data.size(); pos += m) {
    char hex[16];
    snprintf(hex, sizeof hex, "%zx", std::min(m, data.size() - pos));
    out += std::string(hex) + "\r\n" + data.substr(pos, m) + "\r\n";
  }
  return out;
}

// Many write patterns against many chunk sizes. After each write the delegate holds exactly the
// full chunks but the last one (a full chunk waits for the next write or the end); the end adds
// the rest and the terminator.
TEST(Chunked, FramingAfterEachWriteAndAtTheEnd) {
  for (size_t m : {1u, 2u, 3u, 4u, 7u, 16u, 26u, 100u}) {
    for (const auto& pattern :
         std::vector<std::vector<size_t>>{{0}, {2, 4}, {4, 1}, {5, 0, 3}, {16, 16, 1}, {99, 1, 250}}) {
      qz::qzIoDeviceMemory out;
      qzIoDeviceHttpChuncked dev{unsigned(m)};
      ASSERT_TRUE(dev.beginDelegation(&out));
      std::string input;
      for (size_t n : pattern) {
        const std::string piece(n, char('a' + input.size() % 26)); // a new letter for each write
        EXPECT_EQ(dev.write(piece.data(), piece.size()), int64_t(n));
        input += piece;
        const size_t full = input.empty() ? 0 : (input.size() - 1) / m;
        EXPECT_EQ(out.data(), frame(input.substr(0, full * m), m)) << "m=" << m << " after " << input.size();
      }
      EXPECT_TRUE(dev.endDelegation());
      EXPECT_EQ(out.data(), frame(input, m) + "0\r\n\r\n") << "m=" << m;
    }
  }
}

TEST(Chunked, ErrorsSuppressTheTerminatorUntilAFreshDelegationAndSurfaceThroughAChain) {
  qz::qzIoDeviceMemory a, b;
  qzIoDeviceHttpChuncked dev(4);
  // A call's result, then the device's error state.
  auto after = [&](bool ok) { return std::string(ok ? "true" : "false") + (dev.hasError() ? " error" : ""); };
  EXPECT_EQ(after(dev.write("abc", 3) == 0), "true error"); // no delegate: nothing accepted
  EXPECT_EQ(after(dev.endDelegation()), "false error");
  EXPECT_EQ(after(dev.beginDelegation(&a)), "true");
  EXPECT_EQ(after(dev.beginDelegation(&b)), "false error");
  dev.write("xy", 2);
  EXPECT_EQ(after(dev.endDelegation()) + a.data() + b.data(), "false error");
  EXPECT_EQ(after(dev.beginDelegation(&b)), "true");
  dev.write("abcdef", 6);
  EXPECT_TRUE(dev.endDelegation());
  EXPECT_EQ(b.data(), "4\r\nabcd\r\n2\r\nef\r\n0\r\n\r\n"); // also checks the reference framing
  // The destructor drops buffered bytes without a terminator.
  {
    qzIoDeviceHttpChuncked pending(16);
    pending.beginDelegation(&a);
    pending.write("pending", 7);
  }
  EXPECT_EQ(a.data(), "");

  // A delegate's error surfaces through a chain of devices.
  qz::qzIoDeviceMemory out;
  qzIoDeviceHttpChuncked inner(4), outer(4);
  ASSERT_TRUE(inner.beginDelegation(&out));
  ASSERT_TRUE(outer.beginDelegation(&inner) && !outer.hasError());
  out.setError(true);
  outer.write("abcdef", 6);
  EXPECT_TRUE(outer.hasError() && !outer.endDelegation());
}

} // namespace
