// Tokens checked against an independent implementation (python3-jwt over python3-cryptography):
// ours verify there, theirs verify here. Keys are made fresh by each run.
#include <HttpTools/jwt/Verifier.h>

#include "JwtTestUtil.h"

using namespace jwttest;

namespace {

const char* kAlgs[] = {"HS256", "HS384", "HS512", "RS256", "RS384", "RS512", "ES256", "ES384", "ES512"};

// Their side checks each of our tokens with the matching key and reports what it saw, or the error.
const char* kCheck = R"PY(
import json, sys, jwt
data = json.load(sys.stdin)
out = {}
for alg, tok in data["tokens"].items():
    try:
        claims = jwt.decode(tok, data["keys"][alg], algorithms=[alg], audience="api")
        out[alg] = {"sub": claims["sub"], "header": jwt.get_unverified_header(tok)}
    except Exception as e:
        out[alg] = {"error": type(e).__name__ + ": " + str(e)}
print(json.dumps(out))
)PY";

TEST(Interop, TokensVerifyBothWays) {
  const std::string secret = "our-secret-with-enough-length";
  auto rsa = qzOpenSSL::RSAKey::Generate(2048);
  rsa->setKeyId("our-rsa");
  qzVariantMapImpl tokens, verifyKeys;
  for (int i = 0; i < 9; ++i) {
    const char* alg = kAlgs[i];
    qzVariantMapImpl claims{{"sub", "from-httptools"}, {"aud", "api"}, {"exp", NowSec() + 600}};
    std::string token;
    if (i < 3) {
      ASSERT_TRUE(CreateHashedJwt(claims, secret, StringToAlg(alg), token, HC_Aud)) << alg;
      verifyKeys[alg] = secret;
    } else {
      std::shared_ptr<AsymmetricKey> key = rsa;
      if (i >= 6) // P-256, P-384, P-521
        key = qzOpenSSL::EllipticCurveKey::Generate(qzOpenSSL::EllipticCurve(qzOpenSSL::EC_P256 + i - 6));
      ASSERT_TRUE(CreateSignedJwt(claims, *key, StringToAlg(alg), token, HC_Sub)) << alg;
      verifyKeys[alg] = key->toPublicPem();
    }
    tokens[alg] = token;
  }
  std::string input, out, err;
  ASSERT_TRUE(json::Json2Variant::Convert(qzVariantMapImpl{{"tokens", tokens}, {"keys", verifyKeys}}, input, false));
  ASSERT_EQ(qztest::RunPython(kCheck, input, out, err), 0) << err;
  qzVariantMapImpl checked;
  ASSERT_TRUE(json::Json2Variant::Convert(out, checked)) << out;

  MapProvider provider;
  for (const char* kid : {"rsa", "p256", "p384", "p521"}) {
    std::string error;
    provider.keys[kid] = AsymmetricKey::FromPem(peer("pem", kid).toString(), &error);
    ASSERT_TRUE(provider.keys[kid]) << kid << ": " << error;
  }
  Verifier v;
  v.setClientInfo("their-secret", &provider, AlgAllMask);
  for (const char* alg : kAlgs) {
    // Ours, as they saw it: the claims, and the header with its key id and copied claim.
    qzVariantMapImpl header{{"alg", alg}, {"typ", "JWT"}};
    header[alg[0] == 'H' ? "aud" : "sub"] = alg[0] == 'H' ? "api" : "from-httptools";
    if (alg[0] == 'R')
      header["kid"] = "our-rsa";
    EXPECT_EQ(checked[alg], qzVariant(qzVariantMapImpl{{"header", header}, {"sub", "from-httptools"}})) << alg;
    // Theirs, verified here.
    qzVariantMapImpl claims;
    Verifier::RejectCause cause;
    EXPECT_TRUE(v.validateJwt(peer("tokens", alg).toString(), claims, &cause))
        << alg << ": " << Verifier::RejectCauseToString(cause);
    EXPECT_EQ(claims["alg_used"], qzVariant(alg));
  }
}

} // namespace
