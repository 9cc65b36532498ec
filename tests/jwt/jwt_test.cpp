// Random generators, the two token writers and the scope builder.
#include "JwtTestUtil.h"
#include "support/LogCapture.h"

#include <optional>
#include <set>
#include <tuple>

using namespace jwttest;

namespace {

constexpr int64_t kNow = 1700000000;

TEST(Generators, LengthsAlphabetsAndRandomness) {
  for (size_t n : {0, 1, 2, 3, 16, 33}) {
    const size_t m = std::max<size_t>(n, 1); // zero still draws one byte, except for salts
    std::vector<char> salt;
    EXPECT_TRUE(qzOpenSSL::base64Decode(CreateSalt(n), salt, qzOpenSSL::B64_Standard));
    EXPECT_EQ(std::tuple(unb64(CreateRandB64String(n)).size(), salt.size(), CreateRandHexString(n).size()),
              std::tuple(m, n, 2 * m));
  }
  // Repeats mean the source is not random; every hex digit and nothing else must show up (catches a
  // bad nibble table).
  std::set<std::string> seen;
  std::string digits;
  for (int i = 0; i < 20; ++i) {
    seen.insert(CreateRandB64String(16));
    digits += *seen.insert(CreateRandHexString(32)).first;
  }
  EXPECT_EQ(seen.size(), 40u);
  const std::string hex = "0123456789abcdef";
  EXPECT_EQ(std::set<char>(digits.begin(), digits.end()), std::set<char>(hex.begin(), hex.end()));
}

// The header layout; "iat" and "nbf" completed from the clock, a given "iat" also becomes "nbf",
// a given "nbf" is kept; then expiries out of range.
TEST(CreateHashedJwt, HeaderLayoutTimeCompletionAndExpiryWithin24HoursOfIssue) {
  FixedClock clock(kNow);
  qzVariantMapImpl claims{{"exp", kNow + 60}, {"sub", "alice"}};
  std::string token;
  ASSERT_TRUE(CreateHashedJwt(claims, "secret", HS256, token, 0));
  EXPECT_EQ(claims, (qzVariantMapImpl{{"exp", kNow + 60}, {"iat", kNow}, {"nbf", kNow}, {"sub", "alice"}}));
  EXPECT_EQ(token.substr(0, token.rfind('.')), // compact, keys sorted
            b64(R"({"alg":"HS256","typ":"JWT"})") + "." +
                b64(R"({"exp":1700000060,"iat":1700000000,"nbf":1700000000,"sub":"alice"})"));
  qzVariantMapImpl givenIat{{"exp", 5000}, {"iat", 4000}}, givenNbf{{"exp", 5000}, {"iat", 4000}, {"nbf", 4500}};
  ASSERT_TRUE(CreateHashedJwt(givenIat, "k", HS384, token, 0) && CreateHashedJwt(givenNbf, "k", HS512, token, 0));
  EXPECT_EQ(std::pair(givenIat["nbf"], givenNbf["nbf"]), std::pair(qzVariant(4000), qzVariant(4500)));
  // "exp" must lie within 24 h of "iat".
  const int64_t iat = 1000000;
  const std::pair<std::optional<int64_t>, bool> expiries[] = {
      {iat, true},        {iat + 86400, true}, {iat + 86401, false},  {iat - 1, false},
      {INT64_MAX, false}, {INT64_MIN, false},  {std::nullopt, false}, // no exp at all
  };
  for (const auto& [exp, ok] : expiries) {
    qztest::LogCapture cap;
    qzVariantMapImpl claims{{"iat", iat}};
    if (exp)
      claims["exp"] = *exp;
    std::string token = "untouched", error;
    EXPECT_EQ(CreateHashedJwt(claims, "k", HS256, token, 0, &error), ok) << exp.value_or(0);
    EXPECT_EQ(error, ok    ? ""
                     : exp ? "\"exp\" must lie between \"iat\" and 24 h after it"
                           : "the claims have no \"exp\"");
    // A missing expiry fails silently.
    EXPECT_EQ(cap.has("jwt", "Exp should be in range now + ]0;24h]"), exp && !ok) << exp.value_or(0);
    // Nothing written, and "nbf" added only once the expiry passed.
    EXPECT_TRUE(ok || (token == "untouched" && claims.count("nbf") == 0)) << exp.value_or(0);
  }
}

// The signed header and signature layout; then both writers against algorithms and keys that do not
// fit: nothing written, and why.
TEST(Writers, SignedLayoutAndAlgorithmsAndKeysThatDoNotFit) {
  auto rsa = qzOpenSSL::RSAKey::Generate(2048);
  auto ec = qzOpenSSL::EllipticCurveKey::Generate(qzOpenSSL::EC_P256);
  auto ecPub = AsymmetricKey::FromPem(ec->toPublicPem());
  rsa->setKeyId("rsa-1");
  qzVariantMapImpl signedClaims{{"exp", kNow + 10}, {"iat", kNow}, {"iss", "me"}};
  std::string jwt;
  ASSERT_TRUE(CreateSignedJwt(signedClaims, *rsa, RS384, jwt, HC_Iss | HC_Aud)); // no "aud" to copy
  EXPECT_EQ(jwt.substr(0, jwt.find('.')), b64(R"({"alg":"RS384","iss":"me","kid":"rsa-1","typ":"JWT"})"));
  ASSERT_TRUE(CreateSignedJwt(signedClaims, *ec, ES256, jwt, 0));
  EXPECT_EQ(jwt.substr(0, jwt.find('.')), b64(R"({"alg":"ES256","typ":"JWT"})")); // no key id
  EXPECT_EQ(unb64(jwt.substr(jwt.rfind('.') + 1)).size(), 64u);                   // R||S, not DER

  AsymmetricKey* const secret = nullptr; // the HMAC writer, with the secret "k"
  // HS256 alone comes with an empty secret; 48, 144 and 384 are HS256|HS384, HS256|RS256, RS256|RS384.
  AsymmetricKey *const r = rsa.get(), *const e = ec.get(), *const pub = ecPub.get();
  const std::tuple<AsymmetricKey*, int, const char*> rows[] = {
      {secret, RS256, "RS256 is not an HMAC"},      {secret, 48, "alg 48 is not an HMAC"},
      {secret, 144, "alg 144 is not an HMAC"},      {secret, HS256, "the secret is empty"},
      {r, HS256, "HS256 is not a signature"},       {r, 384, "alg 384 is not a signature"},
      {r, ES256, "ES256 needs an EC key on P-256"}, {e, RS256, "RS256 needs an RSA key"},
      {e, ES384, "ES384 needs an EC key on P-384"}, {pub, ES256, "the key cannot sign"}};
  for (const auto& [key, alg, why] : rows) {
    qzVariantMapImpl claims{{"exp", kNow + 10}, {"iat", kNow}};
    std::string token, error;
    const bool made = key ? CreateSignedJwt(claims, *key, Alg(alg), token, 0, &error)
                          : CreateHashedJwt(claims, alg == HS256 ? "" : "k", Alg(alg), token, 0, &error);
    EXPECT_TRUE(!made && token.empty() && error.starts_with(why)) << why << ": " << error;
  }
}

// Tags are trimmed, encoded and joined; malformed UTF-8 keeps the prefix before it and logs why.
// Scope characters ("!#[]~{}:/?=&%+") stay as they are.
TEST(Scope, TrimsEncodesAndJoinsAndStopsAtMalformedUtf8) {
  const std::tuple<std::vector<std::string>, std::string, std::string> rows[] = {
      {{" ", "read", "  write  ", "", "\t\n", "a b", "!#[]~{}:/?=&%+", "  "}, "read write a%20b !#[]~{}:/?=&%+", ""},
      {{"caf\xC3\xA9", "\xE2\x82\xAC\xF0\x9F\x98\x80"}, "caf%C3%A9 %E2%82%AC%F0%9F%98%80", ""}, // é, € and an emoji
      {{"tab\tin", std::string("nul\0x", 5), "\x7F"}, "tab%09in nul%00x %7F", ""},
      {{"x", "ab\xC3"}, "x ab", "Not enough space"},
      {{"x", "a\377b"}, "x a", "Invalid UTF-8"},
      {{"x", "a\xC0\xAF"}, "x a", "Invalid UTF-8"},          // overlong "/"
      {{"x", "s\xED\xA0\x80"}, "x s", "Invalid code point"}, // surrogate
  };
  for (const auto& [tags, scope, reason] : rows) {
    qztest::LogCapture cap;
    EXPECT_EQ(StringListToScope(tags), scope);
    ASSERT_EQ(cap.size(), reason.empty() ? 0u : 1u) << cap.dump();
    EXPECT_TRUE(reason.empty() || cap.has("", "Fail to convert tag '" + tags[1] + "' to scope " + reason));
  }
}

} // namespace
