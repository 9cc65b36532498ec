#include <HttpTools/url/IpAddress.h>

#include "support/LogCapture.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netdb.h>
#include <netinet/in.h>

#include <string>
#include <vector>

namespace {

using qz::IpAddress;

TEST(IpAddress, ParsesByType) {
  struct Case {
    const char* text;
    IpAddress::Type asked;
    IpAddress::Type got;
    const char* canonical;
  };
  // clang-format off
  for (const Case& c : {
         Case{"10.0.0.1", IpAddress::IPT_None, IpAddress::IPT_IPv4, "10.0.0.1"},
         Case{"10.0.0.1", IpAddress::IPT_IPv4, IpAddress::IPT_IPv4, "10.0.0.1"},
         Case{"10.0.0.1", IpAddress::IPT_IPv6, IpAddress::IPT_None, ""},
         Case{"::1", IpAddress::IPT_None, IpAddress::IPT_IPv6, "::1"},
         Case{"::1", IpAddress::IPT_IPv4, IpAddress::IPT_None, ""},
         Case{"2001:DB8:0:0:0:0:0:1", IpAddress::IPT_IPv6, IpAddress::IPT_IPv6, "2001:db8::1"},
         Case{"::ffff:1.2.3.4", IpAddress::IPT_None, IpAddress::IPT_IPv6, "::ffff:1.2.3.4"},
         Case{"localhost", IpAddress::IPT_None, IpAddress::IPT_None, ""},
         Case{"[::1]", IpAddress::IPT_None, IpAddress::IPT_None, ""},
         Case{"1.2.3", IpAddress::IPT_None, IpAddress::IPT_None, ""},
         Case{"256.1.1.1", IpAddress::IPT_None, IpAddress::IPT_None, ""},
         Case{"", IpAddress::IPT_None, IpAddress::IPT_None, ""},
         Case{"10.0.0.1", static_cast<IpAddress::Type>(5), IpAddress::IPT_None, ""}}) {
    // clang-format on
    IpAddress a("9.9.9.9", IpAddress::IPT_IPv4); // a previous value must not survive
    a.fromStringAddress(c.text, c.asked);
    EXPECT_EQ(a.getType(), c.got) << c.text;
    EXPECT_EQ(a.isValid(), c.got != IpAddress::IPT_None);
    EXPECT_EQ(a.getAddressAsString(true), c.canonical) << "parsed port is 0";
    EXPECT_EQ(a.getSockaddrLen(), c.got == IpAddress::IPT_IPv4 ? 16u : c.got == IpAddress::IPT_IPv6 ? 28u : 0u);
    EXPECT_EQ(a.getSockaddr() != nullptr, a.isValid());
    EXPECT_EQ(a.getIPv4Sockaddr() != nullptr, c.got == IpAddress::IPT_IPv4);
    EXPECT_EQ(a.getIPv6Sockaddr() != nullptr, c.got == IpAddress::IPT_IPv6);
  }
}

TEST(IpAddress, ComparesAddressesIgnoringPorts) {
  struct Case {
    const char* a;
    const char* b;
    bool equal;
  };
  // clang-format off
  for (const Case& c : {Case{"10.0.0.1", "10.0.0.1", true}, Case{"10.0.0.1", "10.0.0.2", false},
                        Case{"10.0.0.1", "::ffff:10.0.0.1", true}, Case{"::ffff:10.0.0.1", "10.0.0.1", true},
                        Case{"10.0.0.1", "::10.0.0.1", false}, Case{"10.0.0.1", "::fffe:10.0.0.1", false},
                        Case{"10.0.0.1", "1::ffff:10.0.0.1", false}, Case{"::1", "::1", true},
                        Case{"::1", "::2", false}, Case{"", "", true}, Case{"", "10.0.0.1", false},
                        Case{"::", "", false}, Case{"0.0.0.0", "::", false}}) {
    // clang-format on
    IpAddress a(c.a, IpAddress::IPT_None), b(c.b, IpAddress::IPT_None);
    EXPECT_EQ(a.compareAddresses(b), c.equal) << c.a << " vs " << c.b;
    EXPECT_EQ(a == b, c.equal);
    EXPECT_EQ(a != b, !c.equal);
  }
}

TEST(IpAddress, FromSocketAddressesKeepsThePort) {
  sockaddr_in v4{};
  v4.sin_family = AF_INET;
  v4.sin_port = htons(8080);
  inet_pton(AF_INET, "192.168.1.2", &v4.sin_addr);
  IpAddress a;
  a.fromIPv4(&v4);
  EXPECT_EQ(a.getAddressAsString(true), "192.168.1.2:8080");
  EXPECT_EQ(a.getAddressAsString(false), "192.168.1.2");
  EXPECT_EQ(a, IpAddress("192.168.1.2", IpAddress::IPT_IPv4));

  sockaddr_in6 v6{};
  v6.sin6_family = AF_INET6;
  v6.sin6_port = htons(8080);
  inet_pton(AF_INET6, "fe80::1", &v6.sin6_addr);
  IpAddress b;
  b.fromIPv6(&v6);
  EXPECT_EQ(b.getAddressAsString(true), "fe80::1:8080") << "no brackets, also with a port";
  EXPECT_EQ(ntohs(b.getIPv6Sockaddr()->sin6_port), 8080);

  // Wrong family or null: left empty.
  v4.sin_family = AF_INET6;
  a.fromIPv4(&v4);
  EXPECT_FALSE(a.isValid());
  b.fromIPv6(nullptr);
  EXPECT_FALSE(b.isValid());
  v6.sin6_family = AF_INET;
  b.fromIPv6(&v6);
  EXPECT_FALSE(b.isValid());
}

TEST(IpAddress, CopiesAreDeep) {
  IpAddress a("::1", IpAddress::IPT_None);
  IpAddress b(a);
  IpAddress c;
  c = a;
  a.fromStringAddress("10.0.0.1", IpAddress::IPT_None);
  EXPECT_EQ(b.getAddressAsString(false), "::1");
  EXPECT_EQ(c.getAddressAsString(false), "::1");
  EXPECT_NE(b.getSockaddr(), c.getSockaddr());
  IpAddress d(std::move(b));
  EXPECT_FALSE(b.isValid());
  EXPECT_EQ(d.getAddressAsString(false), "::1");
  c = IpAddress();
  EXPECT_FALSE(c.isValid());
  d.clear();
  EXPECT_FALSE(d.isValid());
  EXPECT_EQ(d.getSockaddr(), nullptr);
}

TEST(ResolveHostName, LocalhostGivesLoopbackWithPort) {
  std::vector<IpAddress> addresses{IpAddress("1.1.1.1", IpAddress::IPT_None)};
  ASSERT_TRUE(qz::ResolveHostName("localhost", 8080, addresses));
  ASSERT_FALSE(addresses.empty());
  for (const IpAddress& a : addresses) {
    EXPECT_TRUE(a == IpAddress("127.0.0.1", IpAddress::IPT_None) || a == IpAddress("::1", IpAddress::IPT_None))
        << a.getAddressAsString(true);
    const std::string text = a.getAddressAsString(true);
    EXPECT_EQ(text.substr(text.size() - 5), ":8080");
  }
}

TEST(ResolveHostName, NumericTextResolvesToItself) {
  std::vector<IpAddress> addresses;
  ASSERT_TRUE(qz::ResolveHostName("10.1.2.3", 0, addresses));
  ASSERT_EQ(addresses.size(), 1u);
  EXPECT_EQ(addresses[0].getAddressAsString(true), "10.1.2.3");
}

TEST(ResolveHostName, FailuresAreLoggedAndEmpty) {
  std::vector<IpAddress> addresses{IpAddress("1.1.1.1", IpAddress::IPT_None)};
  {
    qztest::LogCapture cap;
    EXPECT_FALSE(qz::ResolveHostName("", 80, addresses));
    EXPECT_TRUE(addresses.empty());
    EXPECT_EQ(cap.size(), 0u) << "an empty name is refused silently";
  }
  addresses.emplace_back("1.1.1.1", IpAddress::IPT_None);
  qztest::LogCapture cap;
  EXPECT_FALSE(qz::ResolveHostName("no-such-host.invalid", 80, addresses));
  EXPECT_TRUE(addresses.empty());
  EXPECT_TRUE(cap.has("url", "getaddrinfo return " + std::to_string(EAI_NONAME) + " (EAI_NONAME)")) << cap.dump();
}

} // namespace
