#include <HttpTools/url/IpAddress.h>
#include <HttpTools/url/IpAddress_p.h>

#include "support/LogCapture.h"
#include "support/Loopback.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netdb.h>

#include <cstring>
#include <random>

namespace {

using qz::IpAddress;

TEST(IpAddress, ParsesByType) {
  constexpr auto Any = IpAddress::IPT_None, V4 = IpAddress::IPT_IPv4, V6 = IpAddress::IPT_IPv6;
  struct Case {
    const char* text;
    IpAddress::Type asked, got;
    const char* canonical;
  };
  for (const Case& c :
       {Case{"10.0.0.1", Any, V4, "10.0.0.1"}, Case{"10.0.0.1", V4, V4, "10.0.0.1"}, Case{"10.0.0.1", V6, Any, ""},
        Case{"::1", V4, Any, ""}, Case{"2001:DB8:0:0:0:0:0:1", V6, V6, "2001:db8::1"},
        Case{"::ffff:1.2.3.4", Any, V6, "::ffff:1.2.3.4"}, Case{"[::1]", Any, Any, ""}, Case{"256.1.1.1", Any, Any, ""},
        Case{"", Any, Any, ""}, Case{"10.0.0.1", static_cast<IpAddress::Type>(5), Any, ""}}) {
    IpAddress a("9.9.9.9", IpAddress::IPT_IPv4); // a previous value must not survive
    a.fromStringAddress(c.text, c.asked);
    // type, text (a parsed port is 0), socket address length, which socket address is there
    EXPECT_EQ(std::to_string(a.getType()) + " " + a.getAddressAsString(true) + " " +
                  std::to_string(a.getSockaddrLen()) + " " + std::to_string(a.getIPv4Sockaddr() != nullptr) +
                  std::to_string(a.getIPv6Sockaddr() != nullptr),
              std::to_string(c.got) + " " + c.canonical + " " +
                  (c.got == V4   ? "16 10"
                   : c.got == V6 ? "28 01"
                                 : "0 00"))
        << c.text;
  }
}

// Our IPv6 text must be the C library's, byte for byte: URLs built before and after agree.
// Groups drawn mostly from {0, 0xffff} so that zero runs of every length and place, ties, and
// the mapped and compatible IPv4 forms all come up.
TEST(IpAddress, IPv6TextMatchesInetNtop) {
  std::mt19937 rng(7);
  for (int n = 0; n < 50000; ++n) {
    unsigned char b[16];
    for (int g = 0; g < 8; ++g) {
      const unsigned r = rng();
      const unsigned w = r % 8 < 5 ? 0 : r % 8 == 5 ? 0xffff : (r >> 8) & (r % 2 ? 0xffff : 0xf);
      b[2 * g] = static_cast<unsigned char>(w >> 8);
      b[2 * g + 1] = static_cast<unsigned char>(w);
    }
    char ours[qz::ip_impl::kIPv6TextMax], libc[INET6_ADDRSTRLEN];
    const size_t len = qz::ip_impl::FormatIPv6(b, ours);
    ASSERT_NE(inet_ntop(AF_INET6, b, libc, sizeof libc), nullptr);
    ASSERT_STREQ(ours, libc);
    ASSERT_EQ(len, std::strlen(libc));
  }
}

TEST(IpAddress, ComparesAddressesIgnoringPorts) {
  struct Case {
    const char* a;
    const char* b;
    bool equal;
  };
  for (const Case& c : {Case{"10.0.0.1", "10.0.0.1", true}, Case{"10.0.0.1", "10.0.0.2", false},
                        Case{"10.0.0.1", "::ffff:10.0.0.1", true}, Case{"::ffff:10.0.0.1", "10.0.0.1", true},
                        Case{"10.0.0.1", "::10.0.0.1", false}, Case{"10.0.0.1", "::fffe:10.0.0.1", false},
                        Case{"10.0.0.1", "100::ffff:10.0.0.1", false}, Case{"10.0.0.1", "::ffff:10.0.0.2", false},
                        Case{"::1", "::1", true}, Case{"::1", "::2", false}, Case{"", "", true}, Case{"::", "", false},
                        Case{"0.0.0.0", "::", false}})
    EXPECT_EQ(IpAddress(c.a, IpAddress::IPT_None).compareAddresses(IpAddress(c.b, IpAddress::IPT_None)), c.equal)
        << c.a << " vs " << c.b;
}

// Socket addresses keep their port; copies are deep, moves empty the source, and reusing the
// storage of an earlier address (or clearing it) leaves nothing of it behind.
TEST(IpAddress, SocketAddressesCopiesAndReusedStorage) {
  sockaddr_in v4{AF_INET, htons(8080), {}, {}};
  inet_pton(AF_INET, "192.168.1.2", &v4.sin_addr);
  sockaddr_in6 v6{AF_INET6, htons(8080), 0, {}, 0};
  inet_pton(AF_INET6, "fe80::1", &v6.sin6_addr);
  IpAddress a, b, reused("10.9.8.7", IpAddress::IPT_IPv4);
  a.fromIPv4(&v4);
  b.fromIPv6(&v6);
  EXPECT_EQ(a, IpAddress("192.168.1.2", IpAddress::IPT_IPv4));
  // No brackets, also with a port.
  EXPECT_EQ(a.getAddressAsString(true) + " " + b.getAddressAsString(true) + " " + b.getAddressAsString(false),
            "192.168.1.2:8080 fe80::1:8080 fe80::1");
  for (const IpAddress* next : {&b, &a}) {
    next == &b ? reused.fromIPv6(&v6) : reused.fromIPv4(&v4);
    ASSERT_EQ(reused.getSockaddrLen(), next->getSockaddrLen());
    EXPECT_EQ(std::memcmp(reused.getSockaddr(), next->getSockaddr(), next->getSockaddrLen()), 0);
  }
  IpAddress copied(b), assigned;
  assigned = b;
  b.fromStringAddress("10.0.0.1", IpAddress::IPT_None);
  EXPECT_EQ(copied.getAddressAsString(false) + " " + assigned.getAddressAsString(false), "fe80::1 fe80::1");
  EXPECT_NE(copied.getSockaddr(), assigned.getSockaddr());
  IpAddress moved(std::move(copied));
  EXPECT_TRUE(!copied.isValid() && moved.getAddressAsString(false) == "fe80::1");
  moved.clear();
  EXPECT_EQ(moved.getSockaddr(), nullptr);
  // Wrong family or null: left empty.
  v4.sin_family = AF_INET6;
  v6.sin6_family = AF_INET;
  a.fromIPv4(&v4);
  b.fromIPv6(&v6);
  assigned.fromIPv6(nullptr);
  EXPECT_FALSE(a.isValid() || b.isValid() || assigned.isValid());
}

TEST(ResolveHostName, ReplacesTheListAndLogsFailures) {
  std::vector<IpAddress> addresses{IpAddress("1.1.1.1", IpAddress::IPT_None)};
  ASSERT_TRUE(qz::ResolveHostName("localhost", 8080, addresses));
  ASSERT_FALSE(addresses.empty());
  for (const IpAddress& a : addresses)
    EXPECT_TRUE(a.getAddressAsString(true) == "127.0.0.1:8080" || a.getAddressAsString(true) == "::1:8080");
  qztest::LogCapture cap;
  EXPECT_FALSE(qz::ResolveHostName("", 80, addresses) || !addresses.empty());
  EXPECT_EQ(cap.size(), 0u) << "an empty name is refused silently";
  addresses.emplace_back("1.1.1.1", IpAddress::IPT_None);
  EXPECT_FALSE(qz::ResolveHostName(qztest::kUnresolvableHost, 80, addresses) || !addresses.empty());
  EXPECT_TRUE(cap.has("url", "getaddrinfo return " + std::to_string(EAI_NONAME) + " (EAI_NONAME)")) << cap.dump();
}

} // namespace
