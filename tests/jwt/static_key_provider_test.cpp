#include <HttpTools/jwt/StaticKeyProvider.h>

#include <HttpTools/jwt/Verifier.h>

#include "JwtTestUtil.h"

using namespace jwttest;

namespace {

class StaticKeys : public testing::Test {
protected:
  // The peer's public key `kid` as a JWK or PEM text, or one of its tokens.
  static std::string get(const char* group, const char* name) {
    std::string text;
    if (std::string(group) != "jwk")
      return peer(group, name).toString();
    EXPECT_TRUE(json::Json2Variant::Convert(peer(group, name).toMap(), text, false));
    return text;
  }
  static bool accepts(const Verifier& verifier, const std::string& token) {
    qzVariantMapImpl claims;
    return verifier.validateJwt(token, claims, nullptr) && claims["sub"].toString() == "peer";
  }
};

TEST_F(StaticKeys, OnePublicKeyVerifiesInOneLine) {
  StaticKeyProvider keys("", get("pem", "p256"));
  Verifier verifier(ES256, &keys);
  EXPECT_TRUE(accepts(verifier, get("tokens", "other"))); // "" answers every kid
  EXPECT_TRUE(accepts(verifier, get("tokens", "ES256")));
  EXPECT_FALSE(accepts(verifier, get("tokens", "RS256")));
  Verifier both(RS256 | ES256, &keys); // as the key store's usage comment builds one
  EXPECT_FALSE(accepts(both, get("tokens", "RS256")));
  EXPECT_TRUE(accepts(both, get("tokens", "ES256")));
}

TEST_F(StaticKeys, KeysByKidFromJwkAndPem) {
  StaticKeyProvider keys;
  std::string error;
  ASSERT_TRUE(keys.addKey("rsa", get("jwk", "rsa"), &error)) << error;
  ASSERT_TRUE(keys.addKey("p256", get("jwk", "p256"), &error)) << error;
  ASSERT_TRUE(keys.addKey("rsa-pem", get("pem", "rsa"), &error)) << error;
  EXPECT_EQ(keys.size(), 3u);
  const std::tuple<const char*, Alg, const char*> lookups[] = {
      {"rsa", RS512, ""},
      {"rsa-pem", RS256, ""},
      {"p256", ES256, ""},
      {"rsa", ES256, "Key {rsa} ( is not meant for the algorithm ES256"},
      {"p256", ES384, "Key {p256} ( is not meant for the algorithm ES384"},
      {"p256", RS256, "Key {p256} ( is not meant for the algorithm RS256"},
      {"other", ES256, "No such key {other}"},
  };
  for (const auto& [kid, alg, why] : lookups) {
    error.clear();
    EXPECT_EQ((keys.getKeyFromId(kid, alg, &error) ? "key" : "") + error, *why ? why : "key") << kid;
  }
  Verifier verifier(AlgAsymmetricMask, &keys);
  EXPECT_TRUE(accepts(verifier, get("tokens", "RS256")));
  EXPECT_TRUE(accepts(verifier, get("tokens", "ES256")));
  EXPECT_FALSE(accepts(verifier, get("tokens", "other")));
}

TEST_F(StaticKeys, UnusableTextsAreRefusedWithTheReason) {
  qzVariantMapImpl rsaWithoutE = peer("jwk", "rsa").toMap();
  rsaWithoutE.erase("e");
  std::string noE;
  ASSERT_TRUE(json::Json2Variant::Convert(rsaWithoutE, noE, false));
  const std::pair<std::string, std::string> rows[] = {
      {"not a key", "Key {k}: "},
      {"{\"kty\":", "Key {k}: the JWK is not a JSON object"},
      {R"({"kty":"oct","k":"c2VjcmV0"})", "Key {k}: a symmetric JWK is not a verification key"},
      {R"({"kty":"OKP","crv":"Ed25519","x":"AA"})", "Key {k}: JWK \"kty\" is neither RSA nor EC"},
      {R"({"kty":"EC","crv":"P-999","x":"AA","y":"AA"})", "Key {k}: unrecognised ECDSA curve in \"crv\""},
      {R"({"kty":"EC","crv":"P-256","x":"AA"})", "Key {k}: ECDSA x or y parameters are invalid"},
      {R"({"kty":"EC","crv":"P-256","x":"AQ","y":"AQ"})", "Key {k}: "}, // not on the curve
      {noE, "Key {k}: RSA n or e parameters are invalid"},
  };
  for (const auto& [text, why] : rows) {
    std::string error;
    StaticKeyProvider keys("k", text, &error);
    EXPECT_EQ(keys.size(), 0u) << text;
    EXPECT_TRUE(error.starts_with(why)) << text << ": " << error;
    EXPECT_GT(error.size(), std::string("Key {k}: ").size()) << text;
  }
}

} // namespace
