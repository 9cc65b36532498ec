#include <HttpTools/url/Url.h>
#include <HttpTools/url/Url_p.h>

#include <gtest/gtest.h>

#include <new>
#include <random>

namespace {

using qz::url_impl::IsSameUrlValue;

// Random URLs whose every field survives rendering: credentials of unreserved characters (they are
// parsed as written, not decoded), hosts in the parser's own form, path and query of any bytes.
TEST(UrlRoundTrip, ParseOfEncodedFormGivesTheSameUrl) {
  static const char* schemes[] = {"http", "https", "couchdb", "ws+unix", "x-my.scheme"};
  static const char* ips[] = {"10.0.0.1", "255.255.255.255", "::1", "2001:db8::a:0:1", "::ffff:1.2.3.4"};
  std::mt19937 rng(20220701);
  auto pick = [&](size_t n) { return std::uniform_int_distribution<size_t>(0, n - 1)(rng); };
  auto text = [&](size_t n, const std::string& alphabet = "") { // empty alphabet: any byte
    std::string s;
    while (s.size() < n)
      s += alphabet.empty() ? static_cast<char>(pick(256)) : alphabet[pick(alphabet.size())];
    return s;
  };
  for (int i = 0; i < 3000; ++i) {
    qz::Url u;
    u.scheme = schemes[pick(5)];
    if (pick(2) == 0) {
      u.ipAddress.fromStringAddress(ips[pick(5)], qz::IpAddress::IPT_None);
      const std::string ip = u.ipAddress.getAddressAsString(false);
      u.host = u.ipAddress.getType() == qz::IpAddress::IPT_IPv6 ? "[" + ip + "]" : ip;
    } else {
      u.host = text(1 + pick(20), "abcdefghijklmnopqrstuvwxyz0123456789-.") + ".example";
    }
    if (pick(3) == 0)
      u.setCredentialsOnHttpHeaders(text(1 + pick(12), "ABCXYZabcxyz0189-._~@:%/+ "),
                                    text(1 + pick(30), "ABCXYZabcxyz0189-._~@:%/+ "));
    u.port = pick(3) == 0 ? 0 : static_cast<uint16_t>(1 + pick(65535));
    for (size_t n = pick(5); n > 0; --n)
      u.pathSegments.push_back(pick(8) == 0 ? std::string(1 + pick(2), '.') : text(pick(4) == 0 ? 0 : 1 + pick(10)));
    if (u.pathSegments.size() == 1 && u.pathSegments[0].empty())
      u.pathSegments[0] = "x"; // a lone empty segment renders as no path
    for (size_t n = pick(6); n > 0; --n)
      u.queryParameters.emplace_back(text(pick(8)), text(pick(40)));

    const std::string encoded = u.toEncodedUrl();
    qz::Url back;
    std::string error;
    ASSERT_TRUE(back.fromEncodedUtf8String(encoded, &error, false)) << encoded << ": " << error;
    ASSERT_TRUE(IsSameUrlValue(back, u) && back.ipAddress.getType() == u.ipAddress.getType()) << encoded;
  }
}

// --- Secrets are wiped in place: the buffer a secret lived in holds zero bytes afterwards. ---

// True when s still uses the buffer buf and every byte of it from offset on is zero.
bool ZeroFrom(const std::string& s, const std::pair<const char*, size_t>& buf, size_t offset = 0) {
  if (s.data() != buf.first)
    return false; // reallocated: the old buffer was not the one overwritten
  for (size_t i = offset; i < buf.second; ++i)
    if (buf.first[i] != 0)
      return false;
  return true;
}

std::pair<const char*, size_t> Buf(const std::string& s) { return {s.data(), s.capacity()}; }

// Clearing, new credentials and copy assignments wipe each old value before anything else goes
// into its buffer: past the new value, no byte of the old one remains.
TEST(UrlSecrets, SettersClearingAndDestructionWipeTheOldValue) {
  // What clears the secrets, whether the host is wiped too, and the bytes of the new value and its
  // terminator that may stay.
  const std::tuple<const char*, void (*)(qz::Url&), bool, size_t> steps[] = {
      {"clearCredentials", [](qz::Url& u) { u.clearCredentials(); }, false, 0},
      {"clearUrl(ClearAll)", [](qz::Url& u) { u.clearUrl(qz::Url::ClearAll); }, true, 0},
      {"clearUrl(ClearToLocalHttps)", [](qz::Url& u) { u.clearUrl(qz::Url::ClearToLocalHttps); }, false, 0},
      {"failed parse", [](qz::Url& u) { u.fromEncodedUtf8String("http://x@y/", nullptr, false); }, true, 0},
      // header credentials drop the database name
      {"header credentials", [](qz::Url& u) { u.setCredentialsOnHttpHeaders("a", "b"); }, false, 2},
      {"copy assignment", [](qz::Url& u) { u = qz::Url("http://a:b@c/"); }, true, 2},
  };
  // Long secrets live on the heap, short ones inside the string object: both are checked.
  for (size_t len : {5u, 15u, 16u, 100u}) {
    for (const auto& [name, clear, hostWiped, kept] : steps) {
      qz::Url u;
      u.host = std::string(len, 'h');
      u.setCredentialsOnQueryParameter(std::string(len, 'U'), std::string(len, 'P'), std::string(len, 'D'));
      const auto user = Buf(u.user), pw = Buf(u.password), db = Buf(u.authDbName), host = Buf(u.host);
      clear(u);
      EXPECT_TRUE(ZeroFrom(u.user, user, kept) && ZeroFrom(u.password, pw, kept) && ZeroFrom(u.authDbName, db, kept) &&
                  (!hostWiped || ZeroFrom(u.host, host, kept)))
          << name << " len " << len;
    }
  }
  // Destruction: a short password sits inside the object, whose storage we can still read.
  alignas(qz::Url) unsigned char storage[sizeof(qz::Url)];
  auto* p = new (storage) qz::Url("http://user:hunter2@h/");
  const char* inside = p->password.data();
  ASSERT_TRUE(inside >= reinterpret_cast<const char*>(storage) &&
              inside < reinterpret_cast<char*>(storage + sizeof(storage)));
  p->~Url();
  EXPECT_EQ(std::string(inside, 15), std::string(15, '\0'));
}

} // namespace
