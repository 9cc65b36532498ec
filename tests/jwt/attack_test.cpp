// Forged and damaged tokens: each must be refused, with the cause that tells what went wrong.
#include <HttpTools/jwt/Verifier.h>

#include <gtest/gtest.h>

using namespace qz;
using namespace qz::jwt;

namespace {

std::string b64(const std::string& s) {
  std::string out;
  qzOpenSSL::base64Encode(s, out, qzOpenSSL::B64_UrlSafeNoPad);
  return out;
}
std::string b64(const std::vector<char>& v) { return b64(std::string(v.begin(), v.end())); }

std::vector<char> unb64(const std::string& s) {
  std::vector<char> out;
  EXPECT_TRUE(qzOpenSSL::base64Decode(s, out, qzOpenSSL::B64_UrlSafeNoPad));
  return out;
}

std::string signingInput(const std::string& t) { return t.substr(0, t.rfind('.')); }
std::string signature(const std::string& t) { return t.substr(t.rfind('.') + 1); }

// Hands out the key registered for the token's key id, whatever the algorithm.
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

class Attacks : public ::testing::Test {
protected:
  static void SetUpTestSuite() {
    rsa = qzOpenSSL::RSAKey::Generate(2048);
    rsa->setKeyId("rsa");
    ec = qzOpenSSL::EllipticCurveKey::Generate(qzOpenSSL::EC_P256);
    ec->setKeyId("ec");
  }
  static void TearDownTestSuite() {
    rsa.reset();
    ec.reset();
  }
  Attacks() {
    provider.keys["rsa"] = qzOpenSSL::AsymmetricKey::FromPem(rsa->toPublicPem());
    provider.keys["ec"] = qzOpenSSL::AsymmetricKey::FromPem(ec->toPublicPem());
  }
  std::string token(qzOpenSSL::AsymmetricKey& key, Alg alg) {
    qzVariantMapImpl claims{{"exp", 2000}, {"iat", 900}, {"sub", "user"}, {"admin", false}};
    std::string t;
    EXPECT_TRUE(CreateSignedJwt(claims, key, alg, t, 0));
    return t;
  }
  int check(const Verifier& v, const std::string& t) {
    Verifier::RejectCause cause = Verifier::RejectCause(99);
    qzVariantMapImpl claims;
    bool ok = v.validateJwtWithTimeBase(t, claims, 1000, &cause);
    EXPECT_EQ(ok, cause == 0);
    return cause;
  }
  static inline std::shared_ptr<qzOpenSSL::RSAKey> rsa;
  static inline std::shared_ptr<qzOpenSSL::EllipticCurveKey> ec;
  MapProvider provider;
};

TEST_F(Attacks, GenuineTokensPass) {
  Verifier v;
  v.setClientInfo("", &provider, AlgAllMask);
  EXPECT_EQ(check(v, token(*rsa, RS256)), 0);
  EXPECT_EQ(check(v, token(*ec, ES256)), 0);
}

TEST_F(Attacks, AlgNoneIsNeverAccepted) {
  Verifier v;
  v.setClientInfo("secret", &provider, AlgAllMask);
  const std::string claims = b64(R"({"exp":2000,"iat":900,"admin":true})");
  for (const char* header : {R"({"alg":"none","typ":"JWT"})", R"({"alg":"None"})", R"({"alg":"NONE","kid":"rsa"})"}) {
    EXPECT_EQ(check(v, b64(header) + "." + claims + "."), 2) << header;
    EXPECT_EQ(check(v, b64(header) + "." + claims + ".c2ln"), 2) << header;
  }
}

TEST_F(Attacks, HmacWithThePublicKeyAsSecret) {
  // The classic confusion: the attacker MACs with the public key's PEM text and says HS256.
  Verifier v;
  v.setClientInfo("", &provider, AlgAllMask);
  const std::string pem = rsa->toPublicPem();
  const std::string input =
      b64(R"({"alg":"HS256","kid":"rsa","typ":"JWT"})") + "." + b64(R"({"admin":true,"exp":2000,"iat":900})");
  std::vector<char> mac;
  ASSERT_TRUE(qzOpenSSL::ComputeHmac(qzOpenSSL::HT_SHA256, pem.data(), pem.size(), input.data(), input.size(), mac));
  EXPECT_EQ(check(v, input + "." + b64(mac)), 3);
  // And with only the asymmetric algorithms allowed, the algorithm itself is refused.
  v.setClientInfo("", &provider, AlgAsymmetricMask);
  EXPECT_EQ(check(v, input + "." + b64(mac)), 2);
}

TEST_F(Attacks, DamagedSignatures) {
  Verifier v;
  v.setClientInfo("hmac-secret", &provider, AlgAllMask);
  const std::string es = token(*ec, ES256), rs = token(*rsa, RS256);
  qzVariantMapImpl claims{{"exp", 2000}, {"iat", 900}};
  std::string hs;
  ASSERT_TRUE(CreateHashedJwt(claims, "hmac-secret", HS256, hs, 0));

  std::vector<char> esSig = unb64(signature(es));
  ASSERT_EQ(esSig.size(), 64u);
  std::vector<char> padded(2, 0); // R and S each zero-padded to 33 bytes: 66 in all
  padded.insert(padded.begin() + 1, esSig.begin(), esSig.begin() + 32);
  padded.insert(padded.end(), esSig.begin() + 32, esSig.end());
  ASSERT_EQ(padded.size(), 66u);
  std::vector<char> leading(1, 0);
  leading.insert(leading.end(), esSig.begin(), esSig.end());

  const std::pair<std::string, std::string> rows[] = {
      {"ES256 R||S zero-padded to 66 bytes", signingInput(es) + "." + b64(padded)},
      {"ES256 with a leading zero byte", signingInput(es) + "." + b64(leading)},
      {"ES256 all-zero signature", signingInput(es) + "." + b64(std::vector<char>(64, 0))},
      {"ES256 DER instead of R||S", signingInput(es) + "." + b64(std::vector<char>(72, 0x30))},
      {"ES256 empty signature", signingInput(es) + "."},
      {"RS256 all-zero signature", signingInput(rs) + "." + b64(std::vector<char>(256, 0))},
      {"RS256 empty signature", signingInput(rs) + "."},
      {"RS256 signature of another token", signingInput(rs) + "." + signature(token(*rsa, RS384))},
      {"HS256 all-zero signature", signingInput(hs) + "." + b64(std::vector<char>(32, 0))},
      {"HS256 empty signature", signingInput(hs) + "."},
      {"RS256 header on an ES256 token",
       b64(R"({"alg":"RS256","kid":"ec","typ":"JWT"})") + "." + es.substr(es.find('.') + 1)},
  };
  for (const auto& [what, t] : rows)
    EXPECT_EQ(check(v, t), 4) << what;
}

TEST_F(Attacks, TamperedClaims) {
  Verifier v;
  v.setClientInfo("k", &provider, AlgAllMask);
  qzVariantMapImpl claims{{"exp", 2000}, {"iat", 900}, {"admin", false}};
  std::string hs;
  ASSERT_TRUE(CreateHashedJwt(claims, "k", HS256, hs, 0));
  for (const std::string& t : {hs, token(*rsa, RS512), token(*ec, ES256)}) {
    const size_t d1 = t.find('.'), d2 = t.rfind('.');
    const std::string forged = t.substr(0, d1 + 1) + b64(R"({"admin":true,"exp":2000,"iat":900})") + t.substr(d2);
    EXPECT_EQ(check(v, forged), 4) << t;
    // Swapping in the header of another algorithm breaks the signature as well.
    EXPECT_EQ(check(v, t), 0);
  }
}

TEST_F(Attacks, SegmentsThatAreNotJsonObjects) {
  Verifier v;
  v.setClientInfo("k", &provider, AlgAllMask);
  const std::string good = token(*rsa, RS256);
  const std::string claims = good.substr(good.find('.') + 1);
  const std::string header = good.substr(0, good.find('.') + 1);
  for (const char* json : {"[]", "\"JWT\"", "null", "12", "{", "{}{}", "{\"a\":1} x"}) {
    EXPECT_EQ(check(v, b64(json) + "." + claims), 1) << json;
    EXPECT_EQ(check(v, header + b64(json) + good.substr(good.rfind('.'))), 1) << json;
  }
}

} // namespace
