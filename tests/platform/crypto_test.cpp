#include <HttpTools/platform/qzOpenSSLCrypto.h>

#include <HttpTools/platform/qzOpenSSLCrypto_p.h>

#include <gtest/gtest.h>

#include <openssl/bn.h>
#include <openssl/core_names.h>

#include <map>

using namespace qz::qzOpenSSL;

namespace {

std::string hex(const std::vector<char>& v) {
  static const char d[] = "0123456789abcdef";
  std::string s;
  for (char c : v) {
    s += d[static_cast<unsigned char>(c) >> 4];
    s += d[c & 15];
  }
  return s;
}

std::vector<char> bytes(const std::string& s) { return std::vector<char>(s.begin(), s.end()); }

// ---- base64

struct B64Case {
  std::string plain, standard, urlNoPad;
};

TEST(Base64, KnownVectorsInBothAlphabets) {
  const B64Case cases[] = {
      {"", "", ""},
      {"f", "Zg==", "Zg"},
      {"fo", "Zm8=", "Zm8"},
      {"foo", "Zm9v", "Zm9v"},
      {"foob", "Zm9vYg==", "Zm9vYg"},
      {"fooba", "Zm9vYmE=", "Zm9vYmE"},
      {"foobar", "Zm9vYmFy", "Zm9vYmFy"},
      {std::string("\xfb\xff\xbf", 3), "+/+/", "-_-_"},
      {std::string("\0\0", 2), "AAA=", "AAA"},
  };
  for (const auto& c : cases) {
    std::string out;
    ASSERT_TRUE(base64Encode(c.plain, out, B64_Standard));
    EXPECT_EQ(out, c.standard);
    ASSERT_TRUE(base64Encode(c.plain, out, B64_UrlSafeNoPad));
    EXPECT_EQ(out, c.urlNoPad);
    std::vector<char> back;
    ASSERT_TRUE(base64Decode(c.standard, back, B64_Standard)) << c.standard;
    EXPECT_EQ(back, bytes(c.plain));
    ASSERT_TRUE(base64Decode(c.urlNoPad, back, B64_UrlSafeNoPad)) << c.urlNoPad;
    EXPECT_EQ(back, bytes(c.plain));
  }
}

TEST(Base64, EveryByteValueRoundTrips) {
  std::string all;
  for (int i = 0; i < 256; ++i)
    all += char(i);
  for (auto set : {B64_Standard, B64_UrlSafe, B64_UrlSafeNoPad}) {
    for (size_t n = 0; n < 8; ++n) {
      std::string in = all.substr(n), enc;
      std::vector<char> back;
      ASSERT_TRUE(base64Encode(in, enc, set));
      ASSERT_TRUE(base64Decode(enc, back, set));
      EXPECT_EQ(back, bytes(in));
    }
  }
}

TEST(Base64, StrictDecodingRefusesAndLeavesOutputAlone) {
  const std::pair<std::string, Base64CharSet> bad[] = {
      {"Zg==", B64_UrlSafeNoPad},  // padding where none belongs
      {"Zg=", B64_Standard},       // wrong padded length
      {"Zg", B64_Standard},        // padding required
      {"Z", B64_UrlSafeNoPad},     // no byte ends after one character
      {"Zh", B64_UrlSafeNoPad},    // unused bits set: "f" is only "Zg"
      {"Zm9=", B64_Standard},      // same, two bytes
      {"+/8", B64_UrlSafeNoPad},   // standard characters in the URL set
      {"-_8=", B64_Standard},      // URL characters in the standard set
      {"Z===", B64_Standard},      // three pad characters
      {"=Zg=", B64_Standard},      // pad at the start
      {"Zg==Zg==", B64_Standard},  // pad in the middle
      {"Zm 9v", B64_UrlSafeNoPad}, // blank
      {std::string("Zm\0v", 4), B64_UrlSafeNoPad},
  };
  for (const auto& [text, set] : bad) {
    std::vector<char> out{'x'};
    EXPECT_FALSE(base64Decode(text, out, set)) << text;
    EXPECT_EQ(out, std::vector<char>{'x'}) << text;
  }
  std::vector<char> out;
  EXPECT_FALSE(base64Decode("Zg", out, static_cast<Base64CharSet>(7)));
}

// ---- hashes and MACs

TEST(Digest, KnownHashesAndHmacs) {
  std::vector<char> out;
  ASSERT_TRUE(ComputeHash(HT_SHA256, "abc", 3, out));
  EXPECT_EQ(hex(out), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  EXPECT_FALSE(ComputeHash(HT_None, "abc", 3, out));

  const std::string key = "Jefe", data = "what do ya want for nothing?";
  const std::map<HashType, std::string> want = {
      {HT_SHA256, "5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843"},
      {HT_SHA384, "af45d2e376484031617f78d2b58a6b1b9c7ef464f5a01b47e42ec3736322445e8e2240ca5e69e2c78b3239ecfab21649"},
      {HT_SHA512,
       "164b7a7bfcf819e2e395fbe73b56e0a387bd64222e831fd610270cd7ea2505549758bf75c05a994a6d034f65f8f0e6fdcaeab1"
       "a34d4a6b4b636e070a38bce737"},
  };
  for (const auto& [type, text] : want) {
    ASSERT_TRUE(ComputeHmac(type, key.data(), key.size(), data.data(), data.size(), out));
    EXPECT_EQ(hex(out), text);
    EXPECT_EQ(out.size(), HashSize(type));
    // The context cache must not carry state from one call into the next.
    ASSERT_TRUE(ComputeHmac(type, key.data(), key.size(), data.data(), data.size(), out));
    EXPECT_EQ(hex(out), text);
  }
  EXPECT_FALSE(ComputeHmac(HT_None, key.data(), key.size(), data.data(), data.size(), out));
}

// ---- keys

std::vector<char> bnParam(EVP_PKEY* pkey, const char* name) {
  BIGNUM* bn = nullptr;
  EXPECT_EQ(EVP_PKEY_get_bn_param(pkey, name, &bn), 1);
  std::vector<char> out(size_t(BN_num_bytes(bn)));
  BN_bn2bin(bn, reinterpret_cast<unsigned char*>(out.data()));
  BN_free(bn);
  return out;
}

const std::string kMsg = "header.claims";

TEST(Keys, RsaFromModulusAndExponentVerifiesWhatThePairSigned) {
  auto pair = RSAKey::Generate(2048);
  ASSERT_TRUE(pair->isValid()) << pair->getError();
  RSAKey pub(bnParam(GetPkey(*pair), OSSL_PKEY_PARAM_RSA_N), bnParam(GetPkey(*pair), OSSL_PKEY_PARAM_RSA_E));
  ASSERT_TRUE(pub.isValid()) << pub.getError();
  EXPECT_FALSE(pub.canSign());
  EXPECT_EQ(pub.getBits(), 2048);
  for (HashType h : {HT_SHA256, HT_SHA384, HT_SHA512}) {
    std::vector<char> sig;
    SignatureError err = SE_CryptoFailure;
    ASSERT_TRUE(SignDigestAsymmetric(sig, kMsg.data(), kMsg.size(), *pair, h, &err));
    EXPECT_EQ(err, SE_None);
    EXPECT_EQ(sig.size(), 256u);
    EXPECT_TRUE(VerifyDigestAsymmetric(kMsg.data(), kMsg.size(), sig.data(), sig.size(), pub, h, &err));
    // Another hash, other data, a flipped bit, another length: no match, but the check ran.
    HashType other = h == HT_SHA256 ? HT_SHA512 : HT_SHA256;
    EXPECT_FALSE(VerifyDigestAsymmetric(kMsg.data(), kMsg.size(), sig.data(), sig.size(), pub, other, &err));
    EXPECT_EQ(err, SE_None);
    EXPECT_FALSE(VerifyDigestAsymmetric(kMsg.data(), kMsg.size() - 1, sig.data(), sig.size(), pub, h, &err));
    EXPECT_EQ(err, SE_None);
    sig[100] ^= 1;
    EXPECT_FALSE(VerifyDigestAsymmetric(kMsg.data(), kMsg.size(), sig.data(), sig.size(), pub, h, &err));
    EXPECT_EQ(err, SE_None);
    sig.push_back(0);
    EXPECT_FALSE(VerifyDigestAsymmetric(kMsg.data(), kMsg.size(), sig.data(), sig.size(), pub, h, &err));
    EXPECT_EQ(err, SE_None);
  }
}

struct CurveCase {
  EllipticCurve curve;
  size_t field;
};

TEST(Keys, EcSignaturesAreFixedWidthRAndS) {
  for (auto c : {CurveCase{EC_P256, 32}, CurveCase{EC_P384, 48}, CurveCase{EC_P521, 66}}) {
    auto pair = EllipticCurveKey::Generate(c.curve);
    ASSERT_TRUE(pair->isValid()) << pair->getError();
    EXPECT_EQ(EllipticCurveKey::FieldSize(c.curve), c.field);
    EllipticCurveKey pub(c.curve, bnParam(GetPkey(*pair), OSSL_PKEY_PARAM_EC_PUB_X),
                         bnParam(GetPkey(*pair), OSSL_PKEY_PARAM_EC_PUB_Y));
    ASSERT_TRUE(pub.isValid()) << pub.getError();
    EXPECT_EQ(pub.getCurve(), c.curve);
    SignatureError err = SE_CryptoFailure;
    // Many signatures, so that short R or S values (leading zero bytes) come up too.
    for (int i = 0; i < 40; ++i) {
      std::vector<char> sig;
      ASSERT_TRUE(SignDigestAsymmetric(sig, kMsg.data(), kMsg.size(), *pair, HT_SHA256, &err));
      ASSERT_EQ(sig.size(), 2 * c.field);
      ASSERT_TRUE(VerifyDigestAsymmetric(kMsg.data(), kMsg.size(), sig.data(), sig.size(), pub, HT_SHA256, &err));
      ASSERT_EQ(err, SE_None);
    }
    std::vector<char> sig;
    ASSERT_TRUE(SignDigestAsymmetric(sig, kMsg.data(), kMsg.size(), *pair, HT_SHA256, &err));
    std::vector<char> padded(1, 0);
    padded.insert(padded.end(), sig.begin(), sig.end());
    std::vector<char> truncated(sig.begin(), sig.end() - 1);
    std::vector<char> zeros(sig.size(), 0);
    std::vector<char> flipped = sig;
    flipped[3] ^= 0x40;
    for (const auto& bad : {padded, truncated, zeros, flipped}) {
      EXPECT_FALSE(VerifyDigestAsymmetric(kMsg.data(), kMsg.size(), bad.data(), bad.size(), pub, HT_SHA256, &err));
      EXPECT_EQ(err, SE_None) << bad.size();
    }
  }
}

TEST(Keys, ConstructionErrorsAreReportedAsText) {
  auto pair = EllipticCurveKey::Generate(EC_P256);
  auto x = bnParam(GetPkey(*pair), OSSL_PKEY_PARAM_EC_PUB_X);
  auto y = bnParam(GetPkey(*pair), OSSL_PKEY_PARAM_EC_PUB_Y);
  auto offCurve = y;
  offCurve.back() ^= 1;
  std::vector<char> tooLong(33, 1);
  auto rsa = RSAKey::Generate(2048);
  auto n = bnParam(GetPkey(*rsa), OSSL_PKEY_PARAM_RSA_N);
  auto e = bnParam(GetPkey(*rsa), OSSL_PKEY_PARAM_RSA_E);
  std::vector<char> smallN(n.begin(), n.begin() + 64);
  smallN.back() |= 1;

  std::vector<std::shared_ptr<AsymmetricKey>> bad = {
      std::make_shared<EllipticCurveKey>(EC_P256, x, offCurve),
      std::make_shared<EllipticCurveKey>(EC_P256, tooLong, y),
      std::make_shared<EllipticCurveKey>(EC_P384, x, y), // a P-256 point is not on P-384
      std::make_shared<EllipticCurveKey>(EC_None, x, y),
      std::make_shared<EllipticCurveKey>(EC_P256, std::vector<char>{}, y),
      std::make_shared<RSAKey>(std::vector<char>{}, e),
      std::make_shared<RSAKey>(smallN, e),
      std::make_shared<RSAKey>(std::string("-----BEGIN PUBLIC KEY-----\nnot a key\n-----END PUBLIC KEY-----\n")),
      std::make_shared<RSAKey>(pair->toPublicPem()), // an EC key is no RSA key
      std::make_shared<EllipticCurveKey>(rsa->toPublicPem()),
  };
  for (size_t i = 0; i < bad.size(); ++i) {
    EXPECT_FALSE(bad[i]->isValid()) << i;
    EXPECT_FALSE(bad[i]->getError().empty()) << i;
    std::vector<char> sig(64, 1);
    SignatureError err = SE_None;
    EXPECT_FALSE(VerifyDigestAsymmetric("a", 1, sig.data(), sig.size(), *bad[i], HT_SHA256, &err));
    EXPECT_EQ(err, SE_InvalidKey) << i;
  }
  // A coordinate longer than the field is refused even when the extra byte is zero.
  std::vector<char> longX = x;
  longX.insert(longX.begin(), 0);
  EXPECT_FALSE(EllipticCurveKey(EC_P256, longX, y).isValid());
  EXPECT_TRUE(EllipticCurveKey(EC_P256, x, y).isValid());
}

TEST(Keys, PemRoundTripKeepsTypeUsageAndCurve) {
  std::vector<std::shared_ptr<AsymmetricKey>> pairs = {RSAKey::Generate(2048), EllipticCurveKey::Generate(EC_P384)};
  for (const auto& pair : pairs) {
    std::string error;
    auto priv = AsymmetricKey::FromPem(pair->toPrivatePem(), &error);
    ASSERT_TRUE(priv) << error;
    EXPECT_TRUE(priv->canSign());
    EXPECT_EQ(priv->getKeyType(), pair->getKeyType());
    EXPECT_EQ(priv->getCurve(), pair->getCurve());
    auto pub = AsymmetricKey::FromPem(pair->toPublicPem(), &error);
    ASSERT_TRUE(pub) << error;
    EXPECT_FALSE(pub->canSign());
    EXPECT_EQ(pub->toPrivatePem(), "");
    std::vector<char> sig;
    SignatureError err = SE_None;
    EXPECT_FALSE(SignDigestAsymmetric(sig, "a", 1, *pub, HT_SHA256, &err));
    EXPECT_EQ(err, SE_NoPrivateKey);
    ASSERT_TRUE(SignDigestAsymmetric(sig, "a", 1, *priv, HT_SHA384, &err));
    EXPECT_TRUE(VerifyDigestAsymmetric("a", 1, sig.data(), sig.size(), *pub, HT_SHA384, &err));
    EXPECT_FALSE(VerifyDigestAsymmetric("a", 1, sig.data(), sig.size(), *pub, HT_None, &err));
    EXPECT_EQ(err, SE_UnsupportedHash);
  }
  std::string error;
  EXPECT_FALSE(AsymmetricKey::FromPem("", &error));
  EXPECT_FALSE(error.empty());
}

} // namespace
