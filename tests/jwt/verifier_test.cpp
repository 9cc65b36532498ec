#include <HttpTools/jwt/Verifier.h>

#include <HttpTools/platform/qzSystemUtils.h>

#include "support/LogCapture.h"

#include <gtest/gtest.h>

using namespace qz;
using namespace qz::jwt;
using RC = Verifier::RejectCause;

namespace {

std::string b64(const std::string& s) {
  std::string out;
  qzOpenSSL::base64Encode(s, out, qzOpenSSL::B64_UrlSafeNoPad);
  return out;
}

std::string hmac(const std::string& input, const std::string& secret, qzOpenSSL::HashType h) {
  std::vector<char> mac;
  qzOpenSSL::ComputeHmac(h, secret.data(), secret.size(), input.data(), input.size(), mac);
  return b64(std::string(mac.begin(), mac.end()));
}

// A token from raw JSON texts, MAC'd with `secret`: lets tests craft headers the writer never makes.
std::string hsToken(const std::string& header, const std::string& claims, const std::string& secret = "s3cret",
                    qzOpenSSL::HashType h = qzOpenSSL::HT_SHA256) {
  std::string input = b64(header) + "." + b64(claims);
  return input + "." + hmac(input, secret, h);
}

const std::string kHs256 = R"({"alg":"HS256","typ":"JWT"})";
const std::string kGoodClaims = R"({"exp":2000,"iat":900,"sub":"x"})";

// Hands out one fixed key (or an error) and records what it was asked.
struct FixedProvider : KeyProvider {
  std::shared_ptr<AsymmetricKey> key;
  std::string error = "No such key {k}";
  std::string askedKid;
  Alg askedAlg = ALG_None;
  std::shared_ptr<AsymmetricKey> getKeyFromId(const std::string& kid, Alg alg, std::string* err) override {
    askedKid = kid;
    askedAlg = alg;
    if (!key && err)
      *err = error;
    return key;
  }
};

class VerifierTest : public ::testing::Test {
protected:
  VerifierTest() { v.setClientInfo("s3cret", &provider, AlgAllMask); }
  RC check(const std::string& token, int64_t t = 1000) {
    RC cause = RC(99);
    qzVariantMapImpl claims;
    bool ok = v.validateJwtWithTimeBase(token, claims, t, &cause);
    EXPECT_EQ(ok, cause == Verifier::RC_None) << token;
    return cause;
  }
  FixedProvider provider;
  Verifier v;
};

TEST(RejectCauseText, AllCausesAndUnknownValues) {
  const std::pair<int, const char*> table[] = {
      {0, "jwt unknown error"},
      {1, "Malformed jwt"},
      {2, "Unsupported jwt alg"},
      {3, "Uninitialized jwt decoder"},
      {4, "jwt signature missmatch"},
      {5, "jwt verifier internal error"},
      {6, "jwt has expired"},
      {7, "jwt issue date is in the future"},
      {8, "jwt is issued for a future use"},
      {9, "jwt unknown error"},
      {42, "jwt unknown error"},
      {-1, "jwt unknown error"},
  };
  for (const auto& [value, text] : table) {
    EXPECT_EQ(Verifier::RejectCauseToString(RC(value)), text);
    EXPECT_EQ(Verifier::IsTimeError(RC(value)), value >= 6 && value <= 8) << value;
  }
}

TEST_F(VerifierTest, TimeTableAroundTheLeeway) {
  struct Row {
    std::string claims;
    int cause;
  };
  const Row rows[] = {
      {R"({"exp":880,"iat":900})", 0},
      {R"({"exp":879,"iat":900})", 6},
      {R"({"exp":0,"iat":900})", 6},
      {R"({"exp":-5,"iat":900})", 6},
      {R"({"iat":900})", 6},
      {R"({"exp":2000,"iat":1120})", 0},
      {R"({"exp":2000,"iat":1121})", 7},
      {R"({"exp":2000})", 7},
      {R"({"exp":2000,"iat":0})", 7},
      {R"({"exp":2000,"iat":900,"nbf":1120})", 0},
      {R"({"exp":2000,"iat":900,"nbf":1121})", 8},
      {R"({"exp":2000,"iat":900,"nbf":"5"})", 1},
      {R"({"exp":2000,"iat":900,"nbf":5.0})", 1},
      {R"({"exp":2000,"iat":900,"nbf":-7})", 0},
      {R"({"exp":879,"iat":1121,"nbf":1121})", 6}, // exp is checked first
      {R"({"exp":2000,"iat":1121,"nbf":1121})", 7},
      {R"({"exp":9223372036854775807,"iat":900})", 0},
  };
  for (const auto& r : rows)
    EXPECT_EQ(check(hsToken(kHs256, r.claims)), r.cause) << r.claims;
  // Extreme time bases do not overflow the leeway arithmetic.
  EXPECT_EQ(check(hsToken(kHs256, R"({"exp":2000,"iat":900})"), INT64_MIN), 7);
  EXPECT_EQ(check(hsToken(kHs256, R"({"exp":2000,"iat":900})"), INT64_MAX), 6);
}

TEST_F(VerifierTest, ClaimsAreFilledEvenWhenATimeCheckRejects) {
  qzVariantMapImpl claims;
  RC cause;
  EXPECT_FALSE(v.validateJwtWithTimeBase(hsToken(kHs256, R"({"exp":10,"iat":5,"sub":"bob"})"), claims, 1000, &cause));
  EXPECT_EQ(cause, Verifier::RC_Expired);
  EXPECT_EQ(claims["sub"], qzVariant("bob"));
  // A null cause pointer is allowed.
  EXPECT_TRUE(v.validateJwtWithTimeBase(hsToken(kHs256, kGoodClaims), claims, 1000, nullptr));
}

TEST_F(VerifierTest, ValidateJwtUsesTheWallClock) {
  qzSystemUtils::SetEpochSecHook([]() -> int64_t { return 1000; });
  qzVariantMapImpl claims;
  RC cause;
  EXPECT_TRUE(v.validateJwt(hsToken(kHs256, kGoodClaims), claims, &cause));
  std::string late = hsToken(kHs256, R"({"exp":500,"iat":400})");
  EXPECT_FALSE(v.validateJwt(late.data(), late.size(), claims, &cause));
  EXPECT_EQ(cause, Verifier::RC_Expired);
  qzSystemUtils::SetEpochSecHook(nullptr);
}

TEST_F(VerifierTest, TypAndAlgHeaders) {
  struct Row {
    std::string header;
    int mask;
    int cause;
  };
  const Row rows[] = {
      {R"({"alg":"HS256","typ":"JWT"})", AlgAllMask, 0},
      {R"({"alg":"HS256","typ":"jwt"})", AlgAllMask, 0},
      {R"({"alg":"HS256"})", AlgAllMask, 0},
      {R"({"alg":"HS256","typ":""})", AlgAllMask, 0},
      {R"({"alg":"HS256","typ":"JOSE"})", AlgAllMask, 1},
      {R"({"alg":"HS256","typ":5})", AlgAllMask, 1},
      {R"({"alg":"hs256","typ":"JWT"})", HS256, 0},
      {R"({"alg":"HS256","typ":"JWT"})", HS384 | RS256, 2},
      {R"({"alg":"none","typ":"JWT"})", AlgAllMask, 2},
      {R"({"alg":"","typ":"JWT"})", AlgAllMask, 2},
      {R"({"typ":"JWT"})", AlgAllMask, 2},
      {R"({"alg":["HS256"],"typ":"JWT"})", AlgAllMask, 2},
      {R"({"alg":" HS256","typ":"JWT"})", AlgAllMask, 2},
      {R"({"alg":"HS384","typ":"JWT"})", AlgAllMask, 4}, // MAC'd with SHA-256
  };
  for (const auto& r : rows) {
    v.setClientInfo("s3cret", &provider, r.mask);
    EXPECT_EQ(check(hsToken(r.header, kGoodClaims)), r.cause) << r.header;
  }
  EXPECT_EQ(check(hsToken(R"({"alg":"HS384"})", kGoodClaims, "s3cret", qzOpenSSL::HT_SHA384)), 0);
}

TEST_F(VerifierTest, MalformedForms) {
  const std::string good = hsToken(kHs256, kGoodClaims);
  const std::string h = b64(kHs256), c = b64(kGoodClaims);
  const std::string rows[] = {
      "",
      "abc",
      h + "." + c,
      h + ".." + c, // claims segment of length zero
      "xxx..yyy",
      h + "!." + c + ".sig", // not base64url
      h + "=." + c + ".sig", // padded
      b64("[1]") + "." + c + ".sig",
      b64("{\"alg\":") + "." + c + ".sig",
      h + "." + b64("5") + ".sig",
      h + "." + b64("\"text\"") + ".sig",
      h + "." + b64("{\"exp\":1,}") + ".sig",
      h + "." + c.substr(0, c.size() - 1) + ".sig",
  };
  for (const auto& t : rows)
    EXPECT_EQ(check(t), 1) << t;
  EXPECT_EQ(check(good), 0);
  // The length bounds the token: dots beyond it do not count.
  RC cause;
  qzVariantMapImpl claims;
  EXPECT_FALSE(v.validateJwtWithTimeBase(good.data(), good.find('.') + 2, claims, 1000, &cause));
  EXPECT_EQ(cause, Verifier::RC_Malformed);
  EXPECT_FALSE(v.validateJwtWithTimeBase(nullptr, 0, claims, 1000, &cause));
  EXPECT_EQ(cause, Verifier::RC_Malformed);
  // An empty header segment is an empty header: it names no algorithm.
  EXPECT_EQ(check("." + c + ".sig"), 2);
}

TEST_F(VerifierTest, HmacSignatureChecks) {
  const std::string good = hsToken(kHs256, kGoodClaims);
  const std::string input = good.substr(0, good.rfind('.'));
  const std::string sig = good.substr(good.rfind('.') + 1);
  std::string flipped = sig;
  flipped[5] = flipped[5] == 'A' ? 'B' : 'A';
  const std::string rows[] = {
      input + ".",                           // empty signature
      input + "." + flipped,                 // one character off
      input + "." + sig + "A",               // one character more
      input + "." + sig.substr(1),           // one character less
      input + "." + sig + ".x",              // more dots
      hsToken(kHs256, kGoodClaims, "other"), // another secret
      hsToken(kHs256, kGoodClaims, "s3cre"), // a prefix of the secret
  };
  for (const auto& t : rows)
    EXPECT_EQ(check(t), 4) << t;
}

TEST_F(VerifierTest, MissingConfiguration) {
  const std::string token = hsToken(kHs256, kGoodClaims);
  v.setClientInfo("", &provider, AlgAllMask);
  EXPECT_EQ(check(token), 3);
  v.setClientInfo("s3cret", &provider, AlgAllMask);
  EXPECT_EQ(check(token), 0);
  v.clearClientInfo();
  EXPECT_EQ(check(token), 2); // mask 0 accepts nothing
  Verifier fresh;
  RC cause;
  qzVariantMapImpl claims;
  EXPECT_FALSE(fresh.validateJwtWithTimeBase(token, claims, 1000, &cause));
  EXPECT_EQ(cause, Verifier::RC_UnsupportedAlg);
}

TEST_F(VerifierTest, KeyLookupAndSignatureVerdicts) {
  auto key = qzOpenSSL::RSAKey::Generate(2048);
  key->setKeyId("k1");
  auto other = qzOpenSSL::RSAKey::Generate(2048);
  std::string token;
  qzVariantMapImpl claims{{"exp", 2000}, {"iat", 900}};
  ASSERT_TRUE(CreateSignedJwt(claims, *key, RS256, token, 0));

  v.setClientInfo("s3cret", nullptr, AlgAllMask);
  EXPECT_EQ(check(token), 3);
  v.setClientInfo("s3cret", &provider, AlgAllMask);
  {
    qztest::LogCapture cap;
    EXPECT_EQ(check(token), 5);
    EXPECT_TRUE(cap.has("jwt", "No such key {k}")) << cap.dump();
    EXPECT_EQ(cap.lines().at(0).type, 2);
  }
  EXPECT_EQ(provider.askedKid, "k1");
  EXPECT_EQ(provider.askedAlg, RS256);

  provider.key = qzOpenSSL::AsymmetricKey::FromPem(key->toPublicPem());
  EXPECT_EQ(check(token), 0);
  provider.key = other;
  EXPECT_EQ(check(token), 4);
  // A key that could not be built: the check cannot run.
  provider.key = std::make_shared<qzOpenSSL::RSAKey>(std::string("garbage"));
  EXPECT_EQ(check(token), 5);
  // A signature segment that is not base64url cannot be checked either.
  provider.key = key;
  EXPECT_EQ(check(token.substr(0, token.rfind('.') + 1) + "*"), 5);
}

TEST(SplitJwt, CallerMapsChangeOnlyOnSuccess) {
  const std::string claimsJson = R"({"a":1})";
  const std::string good = b64(R"({"alg":"HS256"})") + "." + b64(claimsJson) + ".sig";
  const qzVariantMapImpl before{{"old", true}};
  for (const std::string& bad : {b64(R"({"alg":"HS256"})") + "." + b64("[]") + ".sig",
                                 b64("nope") + "." + b64(claimsJson) + ".sig", std::string("a.b")}) {
    qzVariantMapImpl header = before, claims = before;
    const char* sig = nullptr;
    size_t sigLen = 7;
    EXPECT_FALSE(Verifier::SplitJwt(bad.data(), bad.size(), header, &claims, sig, sigLen));
    EXPECT_EQ(header, before);
    EXPECT_EQ(claims, before);
  }
  qzVariantMapImpl header = before, claims = before;
  const char* sig = nullptr;
  size_t sigLen = 0;
  ASSERT_TRUE(Verifier::SplitJwt(good.data(), good.size(), header, &claims, sig, sigLen));
  EXPECT_EQ(header, (qzVariantMapImpl{{"alg", "HS256"}}));
  EXPECT_EQ(claims, (qzVariantMapImpl{{"a", 1}}));
  EXPECT_EQ(std::string(sig, sigLen), "sig");
  // Without a claims map the claims segment is not even decoded.
  const std::string junkClaims = b64(R"({"alg":"HS256"})") + ".!!!.s";
  EXPECT_TRUE(Verifier::SplitJwt(junkClaims.data(), junkClaims.size(), header, nullptr, sig, sigLen));
  EXPECT_TRUE(Verifier::ExtractJwtContentNoValidation(good.data(), good.size(), header, &claims));
  EXPECT_FALSE(Verifier::ExtractJwtContentNoValidation("x..y", 4, header, &claims));
}

} // namespace
