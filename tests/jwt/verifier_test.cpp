// The verifier against well-formed, damaged and forged tokens: each verdict must name the right cause.
#include <HttpTools/jwt/StaticKeyProvider.h>

#include "JwtTestUtil.h"
#include "support/LogCapture.h"

using namespace jwttest;
using RC = Verifier::RejectCause;

namespace {

// A token from raw JSON texts, MAC'd with `secret`: lets tests craft headers the writer never makes.
std::string hsToken(const std::string& header, const std::string& claims, const std::string& secret = "s3cret") {
  const std::string input = b64(header) + "." + b64(claims);
  std::vector<char> mac;
  EXPECT_TRUE(
      qzOpenSSL::ComputeHmac(qzOpenSSL::HT_SHA256, secret.data(), secret.size(), input.data(), input.size(), mac));
  return input + "." + b64(mac);
}
std::string signingInput(const std::string& t) { return t.substr(0, t.rfind('.')); }
std::string signature(const std::string& t) { return t.substr(t.rfind('.') + 1); }

const std::string kHs256 = R"({"alg":"HS256","typ":"JWT"})";
const std::string kGoodClaims = R"({"exp":2000,"iat":900,"sub":"x"})";

class VerifierTest : public ::testing::Test {
protected:
  static void SetUpTestSuite() {
    rsa = qzOpenSSL::RSAKey::Generate(2048);
    rsa->setKeyId("rsa");
    ec = qzOpenSSL::EllipticCurveKey::Generate(qzOpenSSL::EC_P256);
    ec->setKeyId("ec");
  }
  static void TearDownTestSuite() { rsa.reset(), ec.reset(); }
  VerifierTest() {
    provider.addKey("rsa", AsymmetricKey::FromPem(rsa->toPublicPem()));
    provider.addKey("ec", AsymmetricKey::FromPem(ec->toPublicPem()));
    v.setClientInfo("s3cret", &provider, AlgAllMask);
  }
  // The cause of the verdict at time base `t`; the result must agree with it. The length bounds the
  // token: a view may end before dots that follow it.
  int check(std::string_view token, int64_t t = 1000) {
    RC cause = RC(99);
    qzVariantMapImpl claims;
    const bool ok = v.validateJwtWithTimeBase(token.data(), token.size(), claims, t, &cause);
    EXPECT_EQ(ok, cause == Verifier::RC_None) << token;
    return cause;
  }
  static std::string signedToken(AsymmetricKey& key, Alg alg) {
    qzVariantMapImpl claims{{"exp", 2000}, {"iat", 900}, {"admin", false}};
    std::string t;
    EXPECT_TRUE(CreateSignedJwt(claims, key, alg, t, 0));
    return t;
  }
  static inline std::shared_ptr<qzOpenSSL::RSAKey> rsa;
  static inline std::shared_ptr<qzOpenSSL::EllipticCurveKey> ec;
  StaticKeyProvider provider;
  Verifier v;
  const std::string good = hsToken(kHs256, kGoodClaims);
};

// Each cause's text; unknown values read as the first; only the last three are time errors (marked *).
TEST(RejectCauseText, AllCausesAndUnknownValues) {
  std::string texts;
  for (int value : {-1, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9})
    texts += Verifier::RejectCauseToString(RC(value)) + (Verifier::IsTimeError(RC(value)) ? "*|" : "|");
  EXPECT_EQ(texts, "jwt unknown error|jwt unknown error|Malformed jwt|Unsupported jwt alg|Uninitialized jwt decoder|"
                   "jwt signature missmatch|jwt verifier internal error|jwt has expired*|jwt issue date is in the "
                   "future*|jwt is issued for a future use*|jwt unknown error|");
}

// Time claims around the leeway (exp checked first, then iat, then nbf), then the "typ" and "alg"
// headers against the accepted algorithms.
TEST_F(VerifierTest, TimeClaimsAndTypAndAlgHeaders) {
  std::string causes;
  for (const char* claims : {R"({"exp":880,"iat":900})", R"({"exp":879,"iat":900})", R"({"iat":900})",
                             R"({"exp":2000,"iat":1120})", R"({"exp":2000,"iat":1121})", R"({"exp":2000})",
                             R"({"exp":2000,"iat":900,"nbf":1120})", R"({"exp":2000,"iat":900,"nbf":1121})",
                             R"({"exp":2000,"iat":900,"nbf":"5"})", R"({"exp":879,"iat":1121,"nbf":1121})",
                             R"({"exp":2000,"iat":1121,"nbf":1121})", R"({"exp":9223372036854775807,"iat":900})"})
    causes += std::to_string(check(hsToken(kHs256, claims)));
  EXPECT_EQ(causes, "066077081670");
  // Names are case-insensitive but exact; HS384 was MAC'd with SHA-256; no "crit" extension is understood.
  causes.clear();
  for (const char* header : {R"({"alg":"hs256","typ":"jwt"})", R"({"alg":"HS256"})", R"({"alg":"HS256","typ":"JOSE"})",
                             R"({"alg":" HS256"})", R"({"alg":"NONE","kid":"rsa"})", R"({"typ":"JWT"})",
                             R"({"alg":"HS384","typ":"JWT"})", R"({"alg":"HS256","crit":["exp"]})"})
    causes += std::to_string(check(hsToken(header, kGoodClaims)));
  EXPECT_EQ(causes, "00122242");
  EXPECT_EQ(check(b64(R"({"alg":"none"})") + "." + b64(kGoodClaims) + "."), 2); // unsigned
  // Extreme time bases do not overflow the leeway arithmetic.
  EXPECT_EQ(std::pair(check(good, INT64_MIN), check(good, INT64_MAX)), std::pair(7, 6));

  // validateJwt reads the wall clock (tokens of the interop test pass it); the cause pointer may be null.
  FixedClock clock(2121);
  qzVariantMapImpl claims;
  EXPECT_FALSE(v.validateJwt(good.data(), good.size(), claims, nullptr));
  EXPECT_EQ(claims["sub"], qzVariant("x")); // filled although a time check refused the token
}

TEST_F(VerifierTest, MalformedForms) {
  const std::string h = b64(kHs256), c = b64(kGoodClaims);
  for (const std::string& t : {std::string(), std::string("abc"), h + "." + c,
                               h + ".." + c, // claims segment of length zero
                               std::string("xxx..yyy"), h + "!." + c + ".sig", h + "=." + c + ".sig",
                               h + "." + c.substr(0, c.size() - 1) + ".sig"})
    EXPECT_EQ(check(t), 1) << t;
  // Header and claims must each be one JSON object.
  for (const char* json : {"[1]", "\"JWT\"", "null", "12", "{\"alg\":", "{}{}", "{\"a\":1} x", "{\"exp\":1,}"}) {
    EXPECT_EQ(check(b64(json) + "." + c + "." + signature(good)), 1) << json;
    EXPECT_EQ(check(h + "." + b64(json) + "." + signature(good)), 1) << json;
  }
  EXPECT_EQ(check(std::string_view(good).substr(0, good.find('.') + 2)), 1); // dots past the length do not count
  EXPECT_EQ(check(std::string_view()), 1);                                   // a null pointer
  // An empty header segment is an empty header: it names no algorithm.
  EXPECT_EQ(check("." + c + ".sig"), 2);
}

// Without the secret or the provider a token's check cannot run; the classic key confusion (a MAC
// keyed with the public key's PEM text, claiming HS256 and the RSA key) fails unless that text is
// the secret. Keys the provider cannot give are internal errors.
TEST_F(VerifierTest, MissingSecretProviderOrKeyAndTheKeyConfusionAttack) {
  const std::string pem = rsa->toPublicPem();
  const std::string forged = hsToken(R"({"alg":"HS256","kid":"rsa"})", kGoodClaims, pem);
  const std::tuple<std::string, KeyProvider*, int, std::string, int> rows[] = {
      {"", &provider, AlgAllMask, forged, 3},
      {"", &provider, AlgAsymmetricMask, forged, 2},
      {pem, &provider, AlgAllMask, forged, 0}, // the MAC itself is sound
      {"s3cret", nullptr, AlgAllMask, signedToken(*rsa, RS256), 3}};
  for (const auto& [secret, keys, mask, token, cause] : rows) {
    v.setClientInfo(secret, keys, mask);
    EXPECT_EQ(check(token), cause) << secret << mask;
  }

  // The provider is asked for the token's kid and algorithm; keys it cannot give or that could not be
  // built leave the check unable to run, as does a signature segment that is not base64url.
  const std::string token = signedToken(*rsa, RS384);
  StaticKeyProvider other;
  v.setClientInfo("s3cret", &other, AlgAllMask);
  qztest::LogCapture cap;
  EXPECT_EQ(check(token), 5);
  other.addKey("rsa", AsymmetricKey::FromPem(ec->toPublicPem()));
  EXPECT_EQ(check(token), 5);
  EXPECT_TRUE(cap.has("jwt", "No such key {rsa}") && cap.has("jwt", "Key {rsa} ( is not meant for the algorithm RS384"))
      << cap.dump();
  other.addKey("rsa", std::make_shared<qzOpenSSL::RSAKey>(std::string("garbage")));
  EXPECT_EQ(check(token), 5);
  v.setClientInfo("s3cret", &provider, AlgAllMask);
  EXPECT_EQ(check(token), 0);
  EXPECT_EQ(check(signingInput(token) + ".*"), 5);
}

// Signatures emptied, one character off or short, under another secret, over other claims; for
// ES256 R||S zero-padded to 66 bytes, all zeros or DER; for RS256 all zeros.
TEST_F(VerifierTest, DamagedSignaturesAndTamperedClaimsAreMismatches) {
  const std::string es = signedToken(*ec, ES256), rs = signedToken(*rsa, RS256);
  std::string flipped = signature(good);
  flipped[5] = flipped[5] == 'A' ? 'B' : 'A';
  ASSERT_EQ(check(es), 0);
  auto tampered = [](const std::string& t) { // other claims under the genuine signature
    return t.substr(0, t.find('.') + 1) + b64(R"({"admin":true,"exp":2000,"iat":900})") + t.substr(t.rfind('.'));
  };
  const std::vector<char> esSig = unb64(signature(es));
  std::vector<char> padded(2, 0); // R and S each zero-padded to 33 bytes
  padded.insert(padded.begin() + 1, esSig.begin(), esSig.begin() + 32);
  padded.insert(padded.end(), esSig.begin() + 32, esSig.end());
  for (const std::string& t :
       {signingInput(good) + ".", signingInput(good) + "." + flipped, good.substr(0, good.size() - 1),
        hsToken(kHs256, kGoodClaims, "other"), tampered(good), tampered(es), signingInput(es) + "." + b64(padded),
        signingInput(es) + "." + b64(std::vector<char>(64, 0)),
        signingInput(es) + "." + b64(std::vector<char>(72, 0x30)),
        signingInput(rs) + "." + b64(std::vector<char>(256, 0))})
    EXPECT_EQ(check(t), 4) << t;

  // A lax provider hands out its key whatever the algorithm: the verifier itself must refuse a key
  // of another family, or a curve that does not fit the hash.
  struct : KeyProvider {
    std::shared_ptr<AsymmetricKey> getKeyFromId(const std::string&, Alg, std::string*) override { return ec; }
  } lax;
  v.setClientInfo("", &lax, AlgAllMask);
  const std::string es384Input = b64(R"({"alg":"ES384","kid":"ec"})") + "." + b64(kGoodClaims);
  std::vector<char> es384Sig;
  ASSERT_TRUE(qzOpenSSL::SignDigestAsymmetric(es384Sig, es384Input.data(), es384Input.size(), *ec, qzOpenSSL::HT_SHA384,
                                              nullptr));
  EXPECT_EQ(check(es384Input + "." + b64(es384Sig)), 4);
  EXPECT_EQ(check(b64(R"({"alg":"RS256","kid":"ec","typ":"JWT"})") + "." + es.substr(es.find('.') + 1)), 4);
}

TEST(SplitJwt, CallerMapsChangeOnlyOnSuccess) {
  const std::string h = b64(R"({"alg":"HS256"})");
  const qzVariantMapImpl before{{"old", true}};
  qzVariantMapImpl header = before, claims = before;
  const char* sig = nullptr;
  size_t sigLen = 7;
  for (const std::string& bad :
       {h + "." + b64("[]") + ".s", b64("nope") + "." + b64("{}") + ".s", std::string("a.b")}) {
    EXPECT_FALSE(Verifier::SplitJwt(bad.data(), bad.size(), header, &claims, sig, sigLen));
    EXPECT_EQ(std::pair(header, claims), std::pair(before, before)) << bad;
  }
  // Without a claims map the claims segment is not even decoded.
  const std::string junkClaims = h + ".!!!.sig";
  ASSERT_TRUE(Verifier::SplitJwt(junkClaims.data(), junkClaims.size(), header, nullptr, sig, sigLen));
  EXPECT_EQ(std::pair(header, std::string(sig, sigLen)),
            std::pair(qzVariantMapImpl{{"alg", "HS256"}}, std::string("sig")));
}

} // namespace
