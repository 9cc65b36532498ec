#pragma once

// Helpers shared by the JWT tests: base64url texts, a pinned wall clock and the peer's keys and tokens.

#include <HttpTools/jwt/Verifier.h>
#include <HttpTools/platform/qzJson.h>
#include <HttpTools/platform/qzSystemUtils_p.h>

#include "support/Process.h"

#include <gtest/gtest.h>

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

// Keys and tokens made once per run by an independent implementation (python3-jwt over
// python3-cryptography): public keys as JWK and PEM by name (rsa, rsa1024, p256, p384, p521), and one
// token per algorithm naming its key by "kid" (the HS ones MAC'd with "their-secret"), plus "other":
// an ES256 token whose kid names no key.
inline const char* kPeerScript = R"PY(
import json, time, jwt
from jwt.algorithms import RSAAlgorithm, ECAlgorithm
from cryptography.hazmat.primitives import serialization as ser
from cryptography.hazmat.primitives.asymmetric import rsa, ec
now = int(time.time())
keys = {k: rsa.generate_private_key(public_exponent=65537, key_size=n) for k, n in [("rsa", 2048), ("rsa1024", 1024)]}
curves = {"p256": ec.SECP256R1(), "p384": ec.SECP384R1(), "p521": ec.SECP521R1()}
keys.update({kid: ec.generate_private_key(curve) for kid, curve in curves.items()})
out = {"jwk": {}, "pem": {}, "tokens": {}}
for kid, k in keys.items():
    out["jwk"][kid] = json.loads((RSAAlgorithm if kid.startswith("rsa") else ECAlgorithm).to_jwk(k.public_key()))
    out["pem"][kid] = k.public_key().public_bytes(ser.Encoding.PEM, ser.PublicFormat.SubjectPublicKeyInfo).decode()
for alg, kid in [("HS256", "hs"), ("HS384", "hs"), ("HS512", "hs"), ("RS256", "rsa"), ("RS384", "rsa"),
                 ("RS512", "rsa"), ("ES256", "p256"), ("ES384", "p384"), ("ES512", "p521"), ("other", "other")]:
    claims = {"sub": "peer", "alg_used": alg, "iat": now, "nbf": now, "exp": now + 600, "n": [1, 2]}
    key = "their-secret" if kid == "hs" else keys.get(kid, keys["p256"])
    out["tokens"][alg] = jwt.encode(claims, key, algorithm="ES256" if alg == "other" else alg, headers={"kid": kid})
print(json.dumps(out))
)PY";

// One member of the peer's output: peer("jwk", "rsa"), peer("tokens", "ES256")...
inline const qzVariant& peer(const std::string& group, const std::string& name) {
  static const qzVariantMapImpl made = [] {
    std::string out, err;
    qzVariantMapImpl m;
    EXPECT_EQ(qztest::RunPython(kPeerScript, "", out, err), 0)
        << "python3-jwt / python3-cryptography needed (scripts/install-deps): " << err;
    EXPECT_TRUE(json::Json2Variant::Convert(out, m)) << out;
    return m;
  }();
  return made.at(group).toMap().at(name);
}

// The verifier's verdicts on the peer's tokens, "+" for each accepted.
inline std::string verdicts(const Verifier& verifier, std::initializer_list<const char*> algs) {
  std::string out;
  for (const char* alg : algs) {
    qzVariantMapImpl claims;
    out +=
        verifier.validateJwt(peer("tokens", alg).toString(), claims, nullptr) && claims["alg_used"] == alg ? "+" : "-";
  }
  return out;
}

} // namespace jwttest
