// Arbitrary bytes as a token: splitting and validation never crash or leak, and agree with
// each other (a token that validates also splits, with the same claims).
#include <HttpTools/jwt/Verifier.h>
#include <HttpTools/platform/qzLog.h>

#include <cstdint>
#include <cstdlib>
#include <string>

namespace {

// One RSA and one EC key for every lookup, except the key id "missing".
struct FixedKeys : qz::jwt::KeyProvider {
  std::shared_ptr<qz::jwt::AsymmetricKey> rsa = qz::qzOpenSSL::RSAKey::Generate(2048);
  std::shared_ptr<qz::jwt::AsymmetricKey> ec = qz::qzOpenSSL::EllipticCurveKey::Generate(qz::qzOpenSSL::EC_P256);
  std::shared_ptr<qz::jwt::AsymmetricKey> getKeyFromId(const std::string& kid, qz::jwt::Alg alg,
                                                       std::string* error) override {
    if (kid == "missing") {
      if (error)
        *error = "No such key {" + kid + "}";
      return {};
    }
    return (alg & (qz::jwt::ES256 | qz::jwt::ES384 | qz::jwt::ES512)) ? ec : rsa;
  }
};

struct Setup {
  FixedKeys keys;
  qz::jwt::Verifier verifier;
  Setup() {
    qz::qzLog::SetSink([](int, const std::string&, const std::string&) {});
    verifier.setClientInfo("fuzz-secret", &keys, qz::jwt::AlgAllMask);
  }
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static Setup setup;
  // A copy without a terminating NUL beyond `size`: the verifier must stay within the length.
  std::string token(reinterpret_cast<const char*>(data), size);

  qz::qzVariantMapImpl header, claims;
  const char* sig = nullptr;
  size_t sigLen = 0;
  const bool split = qz::jwt::Verifier::SplitJwt(token.data(), token.size(), header, &claims, sig, sigLen);
  if (split && (sig < token.data() || sig + sigLen != token.data() + token.size()))
    std::abort();

  qz::qzVariantMapImpl validated;
  qz::jwt::Verifier::RejectCause cause = qz::jwt::Verifier::RejectCause(99);
  const bool ok = setup.verifier.validateJwtWithTimeBase(token.data(), token.size(), validated, 1000, &cause);
  if (ok != (cause == qz::jwt::Verifier::RC_None) || cause < 0 || cause > 8)
    std::abort();
  // Only a token that splits can get past the structure check, with the same claims.
  if (cause != qz::jwt::Verifier::RC_Malformed && !split)
    std::abort();
  if (split && validated != claims)
    std::abort();
  return 0;
}
