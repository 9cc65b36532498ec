#include <HttpTools/url/Url.h>

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>

#include <cstring>
#include <new>
#include <random>
#include <string>
#include <vector>

namespace {

// Generates URLs whose every field survives rendering: credentials of unreserved characters
// (they are parsed as written, not decoded), hosts in the parser's own form.
class UrlGenerator {
public:
  explicit UrlGenerator(uint32_t seed) : m_rng(seed) {}

  qz::Url next() {
    qz::Url u;
    static const char* schemes[] = {"http", "https", "couchdb", "ws+unix", "x-my.scheme"};
    u.scheme = schemes[pick(5)];
    makeHost(u);
    if (pick(3) == 0)
      u.setCredentialsOnHttpHeaders(text(1 + pick(12), kUnreserved), text(1 + pick(30), kUnreserved));
    u.port = pick(3) == 0 ? 0 : static_cast<uint16_t>(1 + pick(65535));
    size_t segments = pick(5);
    for (size_t i = 0; i < segments; ++i)
      u.pathSegments.push_back(anyBytes(pick(4) == 0 ? 0 : 1 + pick(10)));
    if (u.pathSegments.size() == 1 && u.pathSegments[0].empty())
      u.pathSegments[0] = "x"; // a lone empty segment renders as no path
    size_t items = pick(6);
    for (size_t i = 0; i < items; ++i)
      u.queryParameters.emplace_back(anyBytes(pick(8)), anyBytes(pick(40)));
    return u;
  }

private:
  static constexpr const char* kUnreserved = "ABCXYZabcxyz0189-._~";

  size_t pick(size_t n) { return std::uniform_int_distribution<size_t>(0, n - 1)(m_rng); }

  std::string text(size_t n, const char* alphabet) {
    std::string s;
    size_t len = std::strlen(alphabet);
    for (size_t i = 0; i < n; ++i)
      s += alphabet[pick(len)];
    return s;
  }

  std::string anyBytes(size_t n) {
    std::string s;
    for (size_t i = 0; i < n; ++i)
      s += static_cast<char>(pick(256));
    return s;
  }

  void makeHost(qz::Url& u) {
    switch (pick(4)) {
    case 0: {
      sockaddr_in sa{};
      sa.sin_family = AF_INET;
      uint32_t bits = static_cast<uint32_t>(m_rng());
      std::memcpy(&sa.sin_addr, &bits, 4);
      u.ipAddress.fromIPv4(&sa);
      u.host = u.ipAddress.getAddressAsString(false);
      break;
    }
    case 1: {
      sockaddr_in6 sa{};
      sa.sin6_family = AF_INET6;
      for (int i = 0; i < 16; ++i)
        sa.sin6_addr.s6_addr[i] = pick(3) == 0 ? 0 : static_cast<unsigned char>(pick(256));
      u.ipAddress.fromIPv6(&sa);
      u.host = "[" + u.ipAddress.getAddressAsString(false) + "]";
      break;
    }
    default:
      u.host = text(1 + pick(20), "abcdefghijklmnopqrstuvwxyz0123456789-.") + ".example";
      break;
    }
  }

  std::mt19937 m_rng;
};

TEST(UrlRoundTrip, ParseOfEncodedFormGivesTheSameUrl) {
  UrlGenerator gen(20220701);
  for (int i = 0; i < 3000; ++i) {
    const qz::Url u = gen.next();
    const std::string text = u.toEncodedUrl();
    qz::Url back;
    std::string error;
    ASSERT_TRUE(back.fromEncodedUtf8String(text, &error, false)) << text << ": " << error;
    ASSERT_EQ(back, u) << text;
    ASSERT_EQ(back.queryParameters, u.queryParameters) << text;
    ASSERT_TRUE(back.ipAddress == u.ipAddress && back.ipAddress.getType() == u.ipAddress.getType()) << text;
    ASSERT_EQ(back.toEncodedUrl(), text);
    // The displayable form parses too and differs only where secrets are.
    qz::Url shown;
    ASSERT_TRUE(shown.fromEncodedUtf8String(u.toDisplayableUrl(), &error, false)) << u.toDisplayableUrl();
    ASSERT_EQ(shown.host, u.host);
    ASSERT_EQ(shown.pathSegments, u.pathSegments);
    if (!u.password.empty()) {
      ASSERT_EQ(shown.password, "*******");
    }
  }
}

TEST(UrlRoundTrip, QueryCredentialsComeBackAsItems) {
  qz::Url u("https://db.example:6984/base");
  u.setCredentialsOnQueryParameter("us er", "p&w=d", "admin");
  qz::Url back(u.toEncodedUrl());
  EXPECT_TRUE(back.user.empty());
  EXPECT_EQ(back.queryParameters,
            qz::Url::QueryParameters({{"user", "us er"}, {"password", "p&w=d"}, {"authdbname", "admin"}}));
}

// --- Secrets are wiped in place: the buffer a secret lived in holds zero bytes afterwards. ---

bool AllZero(const char* p, size_t n) {
  for (size_t i = 0; i < n; ++i)
    if (p[i] != 0)
      return false;
  return true;
}

struct Buffer {
  const char* data;
  size_t capacity;
};

Buffer Of(const std::string& s) { return {s.data(), s.capacity()}; }

TEST(UrlSecrets, ClearingWipesTheWholeBuffer) {
  // Long secrets live on the heap, short ones inside the string object: both are checked.
  for (size_t len : {5u, 15u, 16u, 100u}) {
    const std::string pw(len, 'P'), user(len, 'U'), db(len, 'D'), host(len, 'h');
    struct Step {
      const char* name;
      void (*clear)(qz::Url&);
      bool hostWiped;
    };
    const Step steps[] = {
        {"clearCredentials", [](qz::Url& u) { u.clearCredentials(); }, false},
        {"clearUrl(ClearAll)", [](qz::Url& u) { u.clearUrl(qz::Url::ClearAll); }, true},
        {"clearUrl(ClearToLocalHttps)", [](qz::Url& u) { u.clearUrl(qz::Url::ClearToLocalHttps); }, false},
        {"failed parse",
         [](qz::Url& u) {
           std::string error;
           u.fromEncodedUtf8String("http://x@y/", &error, false);
         },
         true},
    };
    for (const Step& step : steps) {
      qz::Url u;
      u.host = host;
      u.setCredentialsOnQueryParameter(user, pw, db);
      const Buffer b[] = {Of(u.user), Of(u.password), Of(u.authDbName), Of(u.host)};
      step.clear(u);
      for (int i = 0; i < (step.hostWiped ? 4 : 3); ++i) {
        // The string kept its buffer (nothing was reallocated), and that buffer is zeroed.
        const std::string& s = i == 0 ? u.user : i == 1 ? u.password : i == 2 ? u.authDbName : u.host;
        ASSERT_EQ(s.data(), b[i].data) << step.name << " field " << i;
        ASSERT_TRUE(s.empty());
        EXPECT_TRUE(AllZero(b[i].data, b[i].capacity)) << step.name << " field " << i << " len " << len;
      }
    }
  }
}

TEST(UrlSecrets, SettersWipeTheOldValueFirst) {
  qz::Url u;
  u.setCredentialsOnHttpHeaders(std::string(80, 'U'), std::string(80, 'P'));
  const Buffer pw = Of(u.password);
  u.setCredentialsOnHttpHeaders("new-user", "short");
  ASSERT_EQ(u.password.data(), pw.data) << "the shorter value reuses the buffer";
  EXPECT_EQ(u.password, "short");
  // Past the new value (and its terminator) no byte of the old password remains.
  EXPECT_TRUE(AllZero(pw.data + 6, pw.capacity - 6));

  u.setCredentialsOnQueryParameter(std::string(70, 'u'), std::string(70, 'p'), std::string(70, 'd'));
  const Buffer db = Of(u.authDbName);
  u.setCredentialsOnHttpHeaders("a", "b");
  EXPECT_TRUE(AllZero(db.data, db.capacity)) << "header credentials drop the database name";
}

TEST(UrlSecrets, AssignmentAndDestructionWipe) {
  qz::Url u;
  u.setCredentialsOnHttpHeaders("user", std::string(90, 'P'));
  const Buffer pw = Of(u.password);
  u = qz::Url("http://a:b@h/");
  EXPECT_EQ(u.password, "b");
  if (u.password.data() == pw.data) {
    EXPECT_TRUE(AllZero(pw.data + 2, pw.capacity - 2));
  }

  // Destruction: a short password sits inside the object, whose storage we can still read.
  alignas(qz::Url) unsigned char storage[sizeof(qz::Url)];
  auto* p = new (storage) qz::Url("http://user:hunter2@h/");
  const char* inside = p->password.data();
  ASSERT_GE(inside, reinterpret_cast<const char*>(storage));
  ASSERT_LT(inside, reinterpret_cast<const char*>(storage + sizeof(storage)));
  p->~Url();
  EXPECT_EQ(std::string(inside, 7).find("hunter2"), std::string::npos);
  EXPECT_TRUE(AllZero(inside, 15));
}

} // namespace
