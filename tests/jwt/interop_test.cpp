// Tokens checked against an independent implementation (python3-jwt over python3-cryptography):
// theirs verify here, ours verify there. Keys are made fresh by each run.
#include <HttpTools/jwt/Verifier.h>

#include <HttpTools/platform/qzJson.h>

#include "support/Python.h"

#include <gtest/gtest.h>

using namespace qz;
using namespace qz::jwt;

namespace {

const char* kAlgs[] = {"HS256", "HS384", "HS512", "RS256", "RS384", "RS512", "ES256", "ES384", "ES512"};

struct MapProvider : KeyProvider {
  std::map<std::string, std::shared_ptr<AsymmetricKey>> keys;
  std::shared_ptr<AsymmetricKey> getKeyFromId(const std::string& kid, Alg, std::string* error) override {
    auto it = keys.find(kid);
    if (it != keys.end())
      return it->second;
    if (error)
      *error = "No such key {" + kid + "}";
    return {};
  }
};

qzVariantMapImpl runJson(const std::string& script, const std::string& input) {
  std::string out, err;
  int rc = qztest::RunPython(script, input, out, err);
  EXPECT_EQ(rc, 0) << "python3-jwt / python3-cryptography needed (scripts/install-deps): " << err;
  qzVariantMapImpl m;
  EXPECT_TRUE(json::Json2Variant::Convert(out, m)) << out << err;
  return m;
}

std::vector<char> unb64(const qzVariant& v) {
  std::vector<char> out;
  EXPECT_TRUE(qzOpenSSL::base64Decode(v.toString(), out, qzOpenSSL::B64_UrlSafeNoPad)) << v.toString();
  return out;
}

// Their side makes keys and signs one token per algorithm; it also hands out each public key
// as PEM and as JWK.
const char* kTheirTokens = R"PY(
import json, time, jwt
from jwt.algorithms import RSAAlgorithm, ECAlgorithm
from cryptography.hazmat.primitives.asymmetric import rsa, ec
from cryptography.hazmat.primitives import serialization

now = int(time.time())
secret = "interop-secret-0123456789"
rsa_key = rsa.generate_private_key(public_exponent=65537, key_size=2048)
ec_keys = {"ES256": ec.generate_private_key(ec.SECP256R1()),
           "ES384": ec.generate_private_key(ec.SECP384R1()),
           "ES512": ec.generate_private_key(ec.SECP521R1())}
def pem(k):
    return k.public_key().public_bytes(serialization.Encoding.PEM,
                                       serialization.PublicFormat.SubjectPublicKeyInfo).decode()
out = {"secret": secret, "tokens": {}, "pem": {}, "jwk": {}}
for alg in ["HS256", "HS384", "HS512", "RS256", "RS384", "RS512", "ES256", "ES384", "ES512"]:
    claims = {"sub": "from-python", "iat": now, "nbf": now, "exp": now + 600, "n": [1, 2]}
    if alg.startswith("HS"):
        key = secret
    elif alg.startswith("RS"):
        key = rsa_key
    else:
        key = ec_keys[alg]
    out["tokens"][alg] = jwt.encode(claims, key, algorithm=alg, headers={"kid": alg})
    if not alg.startswith("HS"):
        out["pem"][alg] = pem(key)
        out["jwk"][alg] = json.loads((RSAAlgorithm if alg.startswith("RS") else ECAlgorithm).to_jwk(key.public_key()))
print(json.dumps(out))
)PY";

TEST(Interop, TheirTokensVerifyHere) {
  auto data = runJson(kTheirTokens, "");
  ASSERT_FALSE(data.empty());
  const auto& tokens = data["tokens"].toMap();
  const auto& pems = data["pem"].toMap();
  const auto& jwks = data["jwk"].toMap();

  // Keys as PEM, and the same keys built from their JWK parameters.
  MapProvider fromPem, fromJwk;
  for (const auto& [alg, pem] : pems) {
    std::string error;
    fromPem.keys[alg] = AsymmetricKey::FromPem(pem.toString(), &error);
    ASSERT_TRUE(fromPem.keys[alg]) << alg << ": " << error;
    const auto& jwk = jwks.at(alg).toMap();
    if (jwk.at("kty").toString() == "RSA")
      fromJwk.keys[alg] = std::make_shared<qzOpenSSL::RSAKey>(unb64(jwk.at("n")), unb64(jwk.at("e")));
    else // StringToCurve names P-521 "P-512", so the JWK "crv" of ES512 is mapped here
      fromJwk.keys[alg] = std::make_shared<qzOpenSSL::EllipticCurveKey>(
          alg == "ES512" ? qzOpenSSL::EC_P521 : StringToCurve(jwk.at("crv").toString()), unb64(jwk.at("x")),
          unb64(jwk.at("y")));
    EXPECT_TRUE(fromJwk.keys[alg]->isValid()) << alg << ": " << fromJwk.keys[alg]->getError();
  }
  for (MapProvider* provider : {&fromPem, &fromJwk}) {
    Verifier v;
    v.setClientInfo(data["secret"].toString(), provider, AlgAllMask);
    for (const char* alg : kAlgs) {
      ASSERT_TRUE(tokens.count(alg)) << alg;
      qzVariantMapImpl claims;
      Verifier::RejectCause cause;
      EXPECT_TRUE(v.validateJwt(tokens.at(alg).toString(), claims, &cause))
          << alg << ": " << Verifier::RejectCauseToString(cause);
      EXPECT_EQ(claims["sub"], qzVariant("from-python")) << alg;
      // A verifier that allows every other algorithm refuses this one.
      Verifier narrow;
      narrow.setClientInfo(data["secret"].toString(), provider, AlgAllMask & ~StringToAlg(alg));
      EXPECT_FALSE(narrow.validateJwt(tokens.at(alg).toString(), claims, &cause));
      EXPECT_EQ(cause, Verifier::RC_UnsupportedAlg);
    }
  }
}

// Their side checks each of our tokens with the matching key and reports the claims or the error.
const char* kCheckOurs = R"PY(
import json, sys, jwt
data = json.load(sys.stdin)
res = {}
for alg, tok in data["tokens"].items():
    key = data["secret"] if alg.startswith("HS") else data["pem"][alg]
    try:
        header = jwt.get_unverified_header(tok)
        claims = jwt.decode(tok, key, algorithms=[alg], audience="api")
        res[alg] = {"ok": True, "sub": claims["sub"], "kid": header.get("kid", ""), "typ": header.get("typ", "")}
    except Exception as e:
        res[alg] = {"ok": False, "error": type(e).__name__ + ": " + str(e)}
print(json.dumps(res))
)PY";

TEST(Interop, OurTokensVerifyThere) {
  const std::string secret = "our-secret-with-enough-length";
  auto rsa = qzOpenSSL::RSAKey::Generate(2048);
  rsa->setKeyId("our-rsa");
  std::map<std::string, std::shared_ptr<qzOpenSSL::AsymmetricKey>> keys = {
      {"RS256", rsa},
      {"RS384", rsa},
      {"RS512", rsa},
      {"ES256", qzOpenSSL::EllipticCurveKey::Generate(qzOpenSSL::EC_P256)},
      {"ES384", qzOpenSSL::EllipticCurveKey::Generate(qzOpenSSL::EC_P384)},
      {"ES512", qzOpenSSL::EllipticCurveKey::Generate(qzOpenSSL::EC_P521)}};
  qzVariantMapImpl tokens, pems;
  for (const char* alg : kAlgs) {
    qzVariantMapImpl claims{{"sub", "from-httptools"}, {"aud", "api"}, {"exp", NowSec() + 600}};
    std::string token;
    if (std::string(alg).starts_with("HS")) {
      ASSERT_TRUE(CreateHashedJwt(claims, secret, StringToAlg(alg), token, HC_Aud)) << alg;
    } else {
      ASSERT_TRUE(CreateSignedJwt(claims, *keys[alg], StringToAlg(alg), token, HC_Sub)) << alg;
      pems[alg] = keys[alg]->toPublicPem();
    }
    tokens[alg] = token;
  }
  std::string input;
  ASSERT_TRUE(json::Json2Variant::Convert(qzVariantMapImpl{{"secret", secret}, {"tokens", tokens}, {"pem", pems}},
                                          input, false));
  auto res = runJson(kCheckOurs, input);
  for (const char* alg : kAlgs) {
    ASSERT_TRUE(res.count(alg)) << alg;
    const auto& r = res[alg].toMap();
    EXPECT_TRUE(r.at("ok").toBool()) << alg << ": " << res[alg].toString();
    if (!r.at("ok").toBool())
      continue;
    EXPECT_EQ(r.at("sub").toString(), "from-httptools");
    EXPECT_EQ(r.at("typ").toString(), "JWT");
    EXPECT_EQ(r.at("kid").toString(), std::string(alg).starts_with("RS") ? "our-rsa" : "") << alg;
  }
}

} // namespace
