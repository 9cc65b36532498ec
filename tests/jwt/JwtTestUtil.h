#pragma once

// Helpers shared by the JWT tests: base64url texts, a pinned wall clock and a key provider.

#include <HttpTools/jwt/Jwt.h>
#include <HttpTools/jwt/KeyProvider.h>
#include <HttpTools/platform/qzSystemUtils.h>
#include <HttpTools/platform/qzSystemUtils_p.h>

#include <gtest/gtest.h>

#include <map>

namespace jwttest {

using namespace qz;
using namespace qz::jwt;

inline std::string b64(const std::string& s) {
  std::string out;
  qzOpenSSL::base64Encode(s, out, qzOpenSSL::B64_UrlSafeNoPad);
  return out;
}
inline std::string b64(const std::vector<char>& v) { return b64(std::string(v.begin(), v.end())); }

// Strict base64url decoding: the text must be canonical, unpadded and in the URL-safe alphabet.
inline std::vector<char> unb64(const std::string& s) {
  std::vector<char> out;
  EXPECT_TRUE(qzOpenSSL::base64Decode(s, out, qzOpenSSL::B64_UrlSafeNoPad)) << s;
  return out;
}

// Pins the wall clock to `t` for its lifetime.
struct FixedClock {
  static inline int64_t now = 0;
  explicit FixedClock(int64_t t) {
    now = t;
    qz::impl::SetEpochSecHook([] { return now; });
  }
  ~FixedClock() { qz::impl::SetEpochSecHook(nullptr); }
};

// Hands out the key registered under the token's key id, whatever the algorithm, and records
// the last request.
struct MapProvider : KeyProvider {
  std::map<std::string, std::shared_ptr<AsymmetricKey>> keys;
  std::string askedKid;
  Alg askedAlg = ALG_None;
  std::shared_ptr<AsymmetricKey> getKeyFromId(const std::string& kid, Alg alg, std::string* error) override {
    askedKid = kid;
    askedAlg = alg;
    auto it = keys.find(kid);
    if (it != keys.end())
      return it->second;
    if (error)
      *error = "No such key {" + kid + "}";
    return {};
  }
};

} // namespace jwttest
