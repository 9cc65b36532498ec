// Tokens checked against an independent implementation (python3-jwt over python3-cryptography):
// ours verify there, theirs verify here. Keys are made fresh by each run.
#include <HttpTools/jwt/Verifier.h>

#include <HttpTools/platform/qzJson.h>

#include "JwtTestUtil.h"
#include "support/Process.h"

#include <gtest/gtest.h>

using namespace jwttest;

namespace {

const char* kAlgs[] = {"HS256", "HS384", "HS512", "RS256", "RS384", "RS512", "ES256", "ES384", "ES512"};

// Their side checks each of our tokens with the matching key and reports what it saw (or the error); then it signs
// one token per algorithm with fresh keys of its own and hands out their public keys as PEM.
const char* kScript = R"PY(
import json, sys, time, jwt
from cryptography.hazmat.primitives.asymmetric import rsa, ec
from cryptography.hazmat.primitives import serialization as ser
data = json.load(sys.stdin)
out = {"checked": {}, "tokens": {}, "pem": {}}
for alg, tok in data["tokens"].items():
    try:
        claims = jwt.decode(tok, data["keys"][alg], algorithms=[alg], audience="api")
        out["checked"][alg] = {"sub": claims["sub"], "header": jwt.get_unverified_header(tok)}
    except Exception as e:
        out["checked"][alg] = {"error": type(e).__name__ + ": " + str(e)}
now = int(time.time())
rsa_key = rsa.generate_private_key(public_exponent=65537, key_size=2048)
curves = {"ES256": ec.SECP256R1(), "ES384": ec.SECP384R1(), "ES512": ec.SECP521R1()}
for alg in data["tokens"]:
    key = "their-secret" if alg[0] == "H" else rsa_key if alg[0] == "R" else ec.generate_private_key(curves[alg])
    claims = {"sub": "from-python", "iat": now, "nbf": now, "exp": now + 600, "n": [1, 2]}
    out["tokens"][alg] = jwt.encode(claims, key, algorithm=alg, headers={"kid": alg})
    if alg[0] != "H":
        pem = key.public_key().public_bytes(ser.Encoding.PEM, ser.PublicFormat.SubjectPublicKeyInfo)
        out["pem"][alg] = pem.decode()
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
  ASSERT_EQ(qztest::RunPython(kScript, input, out, err), 0)
      << "python3-jwt / python3-cryptography needed (scripts/install-deps): " << err;
  qzVariantMapImpl res;
  ASSERT_TRUE(json::Json2Variant::Convert(out, res)) << out;

  MapProvider provider;
  for (const auto& [alg, pem] : res["pem"].toMap()) {
    std::string error;
    provider.keys[alg] = AsymmetricKey::FromPem(pem.toString(), &error);
    ASSERT_TRUE(provider.keys[alg]) << alg << ": " << error;
  }
  Verifier v;
  v.setClientInfo("their-secret", &provider, AlgAllMask);
  for (const char* alg : kAlgs) {
    // Ours, as they saw it: the claims, and the header with its key id and copied claim.
    const auto& seen = res["checked"].toMap().at(alg).toMap();
    ASSERT_EQ(seen.count("header"), 1u) << alg << ": " << seen.begin()->second.toString(); // else their error
    qzVariantMapImpl header{{"alg", alg}, {"typ", "JWT"}};
    header[alg[0] == 'H' ? "aud" : "sub"] = alg[0] == 'H' ? "api" : "from-httptools";
    if (alg[0] == 'R')
      header["kid"] = "our-rsa";
    EXPECT_EQ(seen.at("header"), qzVariant(header)) << alg;
    EXPECT_EQ(seen.at("sub"), qzVariant("from-httptools")) << alg;
    // Theirs, verified here.
    qzVariantMapImpl claims;
    Verifier::RejectCause cause;
    EXPECT_TRUE(v.validateJwt(res["tokens"].toMap().at(alg).toString(), claims, &cause))
        << alg << ": " << Verifier::RejectCauseToString(cause);
    EXPECT_EQ(claims["sub"], qzVariant("from-python")) << alg;
  }
}

} // namespace
