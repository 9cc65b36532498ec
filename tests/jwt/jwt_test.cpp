#include <HttpTools/jwt/Jwt.h>

#include <HttpTools/jwt/Jwt_p.h>
#include <HttpTools/jwt/Verifier.h>
#include <HttpTools/platform/qzJson.h>
#include <HttpTools/platform/qzSystemUtils.h>

#include "support/LogCapture.h"

#include <gtest/gtest.h>

#include <cctype>
#include <set>

using namespace qz;
using namespace qz::jwt;

namespace {

constexpr int64_t kNow = 1700000000;
int64_t fixedNow() { return kNow; }

// Pins the wall clock for the test's lifetime.
struct FixedClock {
  FixedClock() { qzSystemUtils::SetEpochSecHook(&fixedNow); }
  ~FixedClock() { qzSystemUtils::SetEpochSecHook(nullptr); }
};

// Decodes one segment of a token as a JSON object.
qzVariantMapImpl segment(const std::string& token, int index) {
  size_t start = 0;
  for (int i = 0; i < index; ++i)
    start = token.find('.', start) + 1;
  size_t end = token.find('.', start);
  std::vector<char> bytes;
  EXPECT_TRUE(qzOpenSSL::base64Decode(token.substr(start, end - start), bytes, qzOpenSSL::B64_UrlSafeNoPad));
  qzVariantMapImpl m;
  EXPECT_TRUE(json::Json2Variant::Convert(bytes.data(), bytes.size(), m));
  return m;
}

// ---- names

TEST(AlgNames, EveryAlgorithmRoundTripsAndCaseIsIgnored) {
  const std::pair<const char*, int> table[] = {{"HS256", 16},   {"HS384", 32},   {"HS512", 64},
                                               {"RS256", 128},  {"RS384", 256},  {"RS512", 512},
                                               {"ES256", 1024}, {"ES384", 2048}, {"ES512", 4096}};
  int all = 0;
  for (const auto& [name, value] : table) {
    EXPECT_EQ(StringToAlg(name), value);
    std::string lower = name;
    for (char& c : lower)
      c = char(std::tolower(static_cast<unsigned char>(c)));
    EXPECT_EQ(StringToAlg(lower), value);
    EXPECT_EQ(AlgToString(Alg(value)), name);
    EXPECT_EQ(AlgToHashType(Alg(value)), std::string(name).ends_with("256")   ? qzOpenSSL::HT_SHA256
                                         : std::string(name).ends_with("384") ? qzOpenSSL::HT_SHA384
                                                                              : qzOpenSSL::HT_SHA512);
    all |= value;
  }
  EXPECT_EQ(AlgHmacMask, 112);
  EXPECT_EQ(AlgAsymmetricMask, 8064);
  EXPECT_EQ(all, AlgAllMask);
}

TEST(AlgNames, UnknownTextsAndMasksHaveNoName) {
  for (const char* s : {"", " HS256", "HS256 ", "none", "HS257", "ES521", "H S256"})
    EXPECT_EQ(StringToAlg(s), ALG_None) << s;
  for (int v : {0, 48, 112, 8064, 3, 8192, -1})
    EXPECT_EQ(AlgToString(Alg(v)), "") << v;
  EXPECT_EQ(AlgToHashType(Alg(HS256 | HS384)), qzOpenSSL::HT_None);
}

TEST(CurveNames, OnlyTheExactThreeNames) {
  EXPECT_EQ(StringToCurve("P-256"), qzOpenSSL::EC_P256);
  EXPECT_EQ(StringToCurve("P-384"), qzOpenSSL::EC_P384);
  EXPECT_EQ(StringToCurve("P-512"), qzOpenSSL::EC_P521);
  for (const char* s : {"P-521", "p-256", "P256", " P-256", "", "secp256k1"})
    EXPECT_EQ(StringToCurve(s), qzOpenSSL::EC_None) << s;
}

TEST(Clock, NowSecFollowsTheWallClock) {
  {
    FixedClock clock;
    EXPECT_EQ(NowSec(), kNow);
  }
  EXPECT_NEAR(double(NowSec()), double(qzSystemUtils::GetSecElapsedSinceEpoch()), 2.0);
}

// ---- generators

bool allOf(const std::string& s, const std::string& alphabet) {
  return s.find_first_not_of(alphabet) == std::string::npos;
}
const std::string kUrlAlphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";

TEST(Generators, LengthsAndAlphabets) {
  for (size_t n : {0, 1, 2, 3, 16, 33}) {
    const size_t m = n ? n : 1;
    std::string b64 = CreateRandB64String(n);
    EXPECT_EQ(b64.size(), (4 * m + 2) / 3) << n;
    EXPECT_TRUE(allOf(b64, kUrlAlphabet)) << b64;
    std::vector<char> raw;
    EXPECT_TRUE(qzOpenSSL::base64Decode(b64, raw, qzOpenSSL::B64_UrlSafeNoPad));
    EXPECT_EQ(raw.size(), m);

    std::string salt = CreateSalt(n);
    EXPECT_EQ(salt.size(), (n + 2) / 3 * 4) << n;
    EXPECT_TRUE(qzOpenSSL::base64Decode(salt, raw, qzOpenSSL::B64_Standard)) << salt;
    EXPECT_EQ(raw.size(), n);

    std::string hex = CreateRandHexString(n);
    EXPECT_EQ(hex.size(), 2 * m);
    EXPECT_TRUE(allOf(hex, "0123456789abcdef")) << hex;
  }
  EXPECT_EQ(CreateSalt(0), "");
  // 16 random bytes never repeat in practice; equal outputs mean the source is not random.
  std::set<std::string> seen;
  for (int i = 0; i < 20; ++i) {
    seen.insert(CreateRandHexString(16));
    seen.insert(CreateRandB64String(16));
  }
  EXPECT_EQ(seen.size(), 40u);
  // Every hex digit shows up over enough output (catches a wrong nibble table).
  std::string many;
  for (int i = 0; i < 20; ++i)
    many += CreateRandHexString(32);
  EXPECT_EQ(std::set<char>(many.begin(), many.end()).size(), 16u);
}

// ---- creation

TEST(CreateHashedJwt, HeaderLayoutAndTimeCompletion) {
  FixedClock clock;
  qzVariantMapImpl claims{{"exp", kNow + 60}, {"sub", "alice"}};
  std::string token;
  ASSERT_TRUE(CreateHashedJwt(claims, "secret", HS256, token, 0));
  // {"alg":"HS256","typ":"JWT"}, keys in sorted order, compact.
  EXPECT_EQ(token.substr(0, token.find('.')), "eyJhbGciOiJIUzI1NiIsInR5cCI6IkpXVCJ9");
  EXPECT_EQ(claims["iat"], qzVariant(kNow));
  EXPECT_EQ(claims["nbf"], qzVariant(kNow));
  EXPECT_EQ(segment(token, 1), claims);
  // The MAC is HMAC-SHA256 over the first two segments.
  const std::string input = token.substr(0, token.rfind('.'));
  std::vector<char> mac;
  std::string macText;
  ASSERT_TRUE(qzOpenSSL::ComputeHmac(qzOpenSSL::HT_SHA256, "secret", 6, input.data(), input.size(), mac));
  ASSERT_TRUE(qzOpenSSL::base64Encode(mac.data(), mac.size(), macText, qzOpenSSL::B64_UrlSafeNoPad));
  EXPECT_EQ(token.substr(token.rfind('.') + 1), macText);
}

TEST(CreateHashedJwt, GivenIatAndNbfAreKept) {
  FixedClock clock;
  qzVariantMapImpl claims{{"exp", 5000}, {"iat", 4000}};
  std::string token;
  ASSERT_TRUE(CreateHashedJwt(claims, "k", HS384, token, 0));
  EXPECT_EQ(claims["iat"], qzVariant(4000));
  EXPECT_EQ(claims["nbf"], qzVariant(4000));
  claims = {{"exp", 5000}, {"iat", 4000}, {"nbf", 4500}};
  ASSERT_TRUE(CreateHashedJwt(claims, "k", HS512, token, 0));
  EXPECT_EQ(claims["nbf"], qzVariant(4500));
  EXPECT_EQ(segment(token, 0)["alg"], qzVariant("HS512"));
}

TEST(CreateHashedJwt, HeaderClaimsMask) {
  const qzVariantMapImpl base{{"exp", kNow + 10}, {"iat", kNow}, {"iss", "me"}, {"sub", "you"}, {"aud", "them"}};
  for (int mask = 0; mask < 8; ++mask) {
    qzVariantMapImpl claims = base;
    std::string token;
    ASSERT_TRUE(CreateHashedJwt(claims, "k", HS256, token, mask));
    auto header = segment(token, 0);
    EXPECT_EQ(header.count("iss"), (mask & 1) ? 1u : 0u) << mask;
    EXPECT_EQ(header.count("sub"), (mask & 2) ? 1u : 0u) << mask;
    EXPECT_EQ(header.count("aud"), (mask & 4) ? 1u : 0u) << mask;
    EXPECT_EQ(header.size(), 2u + ((mask & 1) + ((mask >> 1) & 1) + ((mask >> 2) & 1)));
    if (mask & 4) {
      EXPECT_EQ(header["aud"], qzVariant("them"));
    }
  }
  // A claim that is not there is simply not copied.
  qzVariantMapImpl claims{{"exp", kNow + 10}, {"iat", kNow}};
  std::string token;
  ASSERT_TRUE(CreateHashedJwt(claims, "k", HS256, token, 7));
  EXPECT_EQ(segment(token, 0).size(), 2u);
}

TEST(CreateHashedJwt, ExpiryWindow) {
  struct Row {
    const char* what;
    bool hasExp;
    int64_t exp;
    bool ok;
    bool warns;
  };
  const int64_t iat = 1000000;
  const Row rows[] = {
      {"exp equal to iat", true, iat, true, false},          {"exp one second later", true, iat + 1, true, false},
      {"exp 24 h later", true, iat + 86400, true, false},    {"exp 24 h and 1 s later", true, iat + 86401, false, true},
      {"exp before iat", true, iat - 1, false, true},        {"exp far in the future", true, INT64_MAX, false, true},
      {"exp far in the past", true, INT64_MIN, false, true}, {"no exp", false, 0, false, false},
  };
  for (const auto& r : rows) {
    qztest::LogCapture cap;
    qzVariantMapImpl claims{{"iat", iat}};
    if (r.hasExp)
      claims["exp"] = r.exp;
    std::string token = "untouched";
    EXPECT_EQ(CreateHashedJwt(claims, "k", HS256, token, 0), r.ok) << r.what;
    EXPECT_EQ(cap.has("jwt", "Exp should be in range now + ]0;24h]"), r.warns) << r.what;
    if (r.warns) {
      EXPECT_EQ(cap.lines().at(0).type, 0);
    }
    if (!r.ok) {
      EXPECT_EQ(token, "untouched") << r.what;
      EXPECT_EQ(claims.count("nbf"), 0u) << r.what; // added only once the expiry passed
    }
  }
}

TEST(CreateHashedJwt, FailedWriterMayHaveAddedIatOnly) {
  FixedClock clock;
  qztest::LogCapture cap;
  qzVariantMapImpl claims{{"exp", kNow + 86401}};
  std::string token;
  EXPECT_FALSE(CreateHashedJwt(claims, "k", HS256, token, 0));
  EXPECT_EQ(cap.size(), 1u);
  EXPECT_EQ(claims["iat"], qzVariant(kNow));
  EXPECT_EQ(claims.count("nbf"), 0u);
}

TEST(CreateHashedJwt, RefusesWrongAlgorithmsAndEmptySecret) {
  for (int alg : {int(RS256), int(ES256), HS256 | HS384, HS256 | RS256, 0, 8}) {
    qzVariantMapImpl claims{{"exp", kNow + 10}, {"iat", kNow}};
    std::string token;
    EXPECT_FALSE(CreateHashedJwt(claims, "k", Alg(alg), token, 0)) << alg;
    EXPECT_TRUE(token.empty());
  }
  qzVariantMapImpl claims{{"exp", kNow + 10}, {"iat", kNow}};
  std::string token;
  EXPECT_FALSE(CreateHashedJwt(claims, "", HS256, token, 0));
}

TEST(CreateSignedJwt, KidAndFamilyChecks) {
  auto rsa = qzOpenSSL::RSAKey::Generate(2048);
  auto ec = qzOpenSSL::EllipticCurveKey::Generate(qzOpenSSL::EC_P256);
  auto ecPub = qzOpenSSL::AsymmetricKey::FromPem(ec->toPublicPem());
  rsa->setKeyId("rsa-1");
  const qzVariantMapImpl base{{"exp", kNow + 10}, {"iat", kNow}, {"iss", "me"}};

  qzVariantMapImpl claims = base;
  std::string token;
  ASSERT_TRUE(CreateSignedJwt(claims, *rsa, RS384, token, HC_Iss));
  auto header = segment(token, 0);
  EXPECT_EQ(header["kid"], qzVariant("rsa-1"));
  EXPECT_EQ(header["alg"], qzVariant("RS384"));
  EXPECT_EQ(header["iss"], qzVariant("me"));
  ASSERT_TRUE(CreateSignedJwt(claims, *ec, ES256, token, 0));
  EXPECT_EQ(segment(token, 0).count("kid"), 0u);
  // 64 signature bytes are 86 base64url characters.
  EXPECT_EQ(token.size() - token.rfind('.') - 1, 86u);

  struct Bad {
    qzOpenSSL::AsymmetricKey* key;
    int alg;
  };
  const Bad bad[] = {{rsa.get(), HS256}, {rsa.get(), RS256 | RS384}, {rsa.get(), 0},
                     {rsa.get(), ES256}, {ec.get(), RS256},          {ec.get(), ES384},
                     {ec.get(), ES512},  {ecPub.get(), ES256},       {rsa.get(), 1 << 20}};
  for (const auto& b : bad) {
    claims = base;
    token.clear();
    EXPECT_FALSE(CreateSignedJwt(claims, *b.key, Alg(b.alg), token, 0)) << b.alg;
    EXPECT_TRUE(token.empty());
  }
}

} // namespace
