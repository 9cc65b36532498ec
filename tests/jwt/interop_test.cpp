// Keys and tokens of an independent implementation (python3-jwt over python3-cryptography): ours
// verify there, theirs verify here with its public keys in the static key provider. Keys are made
// fresh by each run.
#include <HttpTools/jwt/StaticKeyProvider.h>

#include "JwtTestUtil.h"

using namespace jwttest;

namespace {

const char* kAlgs[] = {"HS256", "HS384", "HS512", "RS256", "RS384", "RS512", "ES256", "ES384", "ES512"};

// Their side checks each of our tokens with the matching key and reports what it saw.
const char* kCheck = R"PY(
import json, sys, jwt
data = json.load(sys.stdin)
out = {}
for alg, tok in data["tokens"].items():
    claims = jwt.decode(tok, data["keys"][alg], algorithms=[alg], audience="api")  # raises, naming the fault
    out[alg] = {"sub": claims["sub"], "header": jwt.get_unverified_header(tok)}
print(json.dumps(out))
)PY";

std::string jsonText(const qzVariantMapImpl& m) {
  std::string text;
  EXPECT_TRUE(json::Json2Variant::Convert(m, text, false));
  return text;
}

TEST(Interop, TokensVerifyBothWays) {
  const std::string secret = "our-secret-with-enough-length";
  auto rsa = qzOpenSSL::RSAKey::Generate(2048);
  rsa->setKeyId("our-rsa");
  qzVariantMapImpl tokens, verifyKeys;
  for (int i = 0; i < 9; ++i) {
    const char* alg = kAlgs[i];
    qzVariantMapImpl claims{{"sub", "from-httptools"}, {"aud", "api"}, {"exp", NowSec() + 600}};
    std::shared_ptr<AsymmetricKey> key = rsa;
    if (i >= 6) // P-256, P-384, P-521
      key = qzOpenSSL::EllipticCurveKey::Generate(qzOpenSSL::EllipticCurve(qzOpenSSL::EC_P256 + i - 6));
    std::string token;
    ASSERT_TRUE(i < 3 ? CreateHashedJwt(claims, secret, StringToAlg(alg), token, HC_Aud)
                      : CreateSignedJwt(claims, *key, StringToAlg(alg), token, HC_Sub));
    tokens[alg] = token;
    verifyKeys[alg] = i < 3 ? secret : key->toPublicPem();
  }
  std::string input, out, err;
  ASSERT_TRUE(json::Json2Variant::Convert(qzVariantMapImpl{{"tokens", tokens}, {"keys", verifyKeys}}, input, false));
  ASSERT_EQ(qztest::RunPython(kCheck, input, out, err), 0) << err;
  qzVariantMapImpl checked;
  ASSERT_TRUE(json::Json2Variant::Convert(out, checked)) << out;
  for (const char* alg : kAlgs) {
    // Ours, as they saw it: the claims, and the header with its key id and copied claim.
    qzVariantMapImpl header{{"alg", alg}, {"typ", "JWT"}};
    header[alg[0] == 'H' ? "aud" : "sub"] = alg[0] == 'H' ? "api" : "from-httptools";
    if (alg[0] == 'R')
      header["kid"] = "our-rsa";
    EXPECT_EQ(checked[alg], qzVariant(qzVariantMapImpl{{"header", header}, {"sub", "from-httptools"}})) << alg;
  }

  // Theirs, verified here with their keys by kid, from JWK and PEM texts; "other" names no key.
  StaticKeyProvider keys;
  std::string error;
  for (const char* kid : {"rsa", "p256", "p384"})
    ASSERT_TRUE(keys.addKey(kid, jsonText(peer("jwk", kid).toMap()), &error)) << error;
  ASSERT_TRUE(keys.addKey("p521", peer("pem", "p521").toString(), &error)) << error;
  EXPECT_EQ(verdicts(Verifier(AlgAllMask, &keys, "their-secret"),
                     {"HS256", "HS384", "HS512", "RS256", "RS384", "RS512", "ES256", "ES384", "ES512", "other"}),
            "+++++++++-");
  // A usable key asked for another curve.
  EXPECT_FALSE(keys.getKeyFromId("p256", ES384, &error));
  EXPECT_EQ(error, "Key {p256} ( is not meant for the algorithm ES384");
  // One key without a kid answers every kid: enough for a one-line verifier.
  StaticKeyProvider one("", peer("pem", "p256").toString());
  EXPECT_EQ(verdicts(Verifier(RS256 | ES256, &one), {"other", "ES256", "RS256"}), "++-");
}

TEST(StaticKeys, UnusableTextsAreRefusedWithTheReason) {
  qzVariantMapImpl rsaWithoutE = peer("jwk", "rsa").toMap();
  rsaWithoutE.erase("e");
  const std::pair<std::string, std::string> rows[] = {
      {"not a key", "Key {k}: "},
      {"{\"kty\":", "Key {k}: the JWK is not a JSON object"},
      {R"({"kty":"oct","k":"c2VjcmV0"})", "Key {k}: a symmetric JWK is not a verification key"},
      {R"({"kty":"OKP","crv":"Ed25519","x":"AA"})", "Key {k}: JWK \"kty\" is neither RSA nor EC"},
      {R"({"kty":"EC","crv":"P-999","x":"AA","y":"AA"})", "Key {k}: unrecognised ECDSA curve in \"crv\""},
      {R"({"kty":"EC","crv":"P-256","x":"AA"})", "Key {k}: ECDSA x or y parameters are invalid"},
      {R"({"kty":"EC","crv":"P-256","x":"AQ","y":"AQ"})", "Key {k}: "}, // not on the curve
      {jsonText(rsaWithoutE), "Key {k}: RSA n or e parameters are invalid"},
  };
  for (const auto& [text, why] : rows) {
    std::string error;
    StaticKeyProvider keys("k", text, &error);
    EXPECT_EQ(keys.size(), 0u) << text;
    EXPECT_TRUE(error.starts_with(why) && error.size() > 9) << text << ": " << error;
  }
}

} // namespace
