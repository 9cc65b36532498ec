#include <HttpTools/platform/qzOpenSSL.h>
#include <HttpTools/platform/qzOpenSSLCrypto_p.h>

#include <gtest/gtest.h>

#include <openssl/bn.h>
#include <openssl/core_names.h>

using namespace qz::qzOpenSSL;

namespace {

std::vector<char> bytes(const std::string& s) { return std::vector<char>(s.begin(), s.end()); }

// Known vectors in both sets, every byte value at every remainder length; then texts the strict
// decoder refuses, leaving its output alone.
TEST(Base64, KnownVectorsEveryByteAndStrictDecoding) {
  const std::string nuls(2, '\0');
  const std::string cases[][3] = {// plain, standard, URL-safe
                                  {"", "", ""},
                                  {"f", "Zg==", "Zg"},
                                  {"fo", "Zm8=", "Zm8"},
                                  {"foo", "Zm9v", "Zm9v"},
                                  {"foob", "Zm9vYg==", "Zm9vYg"},
                                  {"fooba", "Zm9vYmE=", "Zm9vYmE"},
                                  {"\xfb\xff\xbf", "+/+/", "-_-_"},
                                  {nuls, "AAA=", "AAA"}};
  std::string out;
  std::vector<char> back;
  for (const auto& [plain, standard, url] : cases)
    for (const auto& [set, text] : {std::pair{B64_Standard, standard}, std::pair{B64_UrlSafeNoPad, url}}) {
      ASSERT_TRUE(base64Encode(plain, out, set) && base64Decode(text, back, set)) << text;
      EXPECT_EQ(std::pair(out, back), std::pair(text, bytes(plain)));
    }
  std::string all;
  for (int i = 0; i < 256; ++i)
    all += char(i);
  for (auto set : {B64_Standard, B64_UrlSafe, B64_UrlSafeNoPad})
    for (size_t n = 0; n < 3; ++n) {
      ASSERT_TRUE(base64Encode(all.substr(n), out, set) && base64Decode(out, back, set));
      EXPECT_EQ(back, bytes(all.substr(n)));
    }
  // Padding where none belongs, a wrong padded length, missing padding, one lone character, unused
  // bits set ("f" is only "Zg"), standard characters in the URL set, three pad characters, pad in the
  // middle, a blank, a NUL, an unknown set.
  const std::string nul("Zm\0v", 4);
  const std::pair<std::string, Base64CharSet> bad[] = {
      {"Zg==", B64_UrlSafeNoPad},  {"Zg=", B64_Standard},     {"Zg", B64_Standard},    {"Z", B64_UrlSafeNoPad},
      {"Zh", B64_UrlSafeNoPad},    {"+/8", B64_UrlSafeNoPad}, {"Z===", B64_Standard},  {"Zg==Zg==", B64_Standard},
      {"Zm 9v", B64_UrlSafeNoPad}, {nul, B64_UrlSafeNoPad},   {"Zg", Base64CharSet(7)}};
  for (const auto& [text, set] : bad) {
    std::vector<char> untouched{'x'};
    EXPECT_FALSE(base64Decode(text, untouched, set)) << text;
    EXPECT_EQ(untouched, std::vector<char>{'x'}) << text;
  }
}

std::vector<char> bnParam(const AsymmetricKey& key, const char* name) {
  BIGNUM* bn = nullptr;
  EXPECT_EQ(EVP_PKEY_get_bn_param(GetPkey(key), name, &bn), 1);
  std::vector<char> out(size_t(BN_num_bytes(bn)));
  BN_bn2bin(bn, reinterpret_cast<unsigned char*>(out.data()));
  BN_free(bn);
  return out;
}

// Public keys built from their numbers (as JWKs give them) verify what the pairs signed, many times
// over so that short EC R or S values come up too; altered signatures or other data are mismatches:
// the check ran (SE_None) and said no. The JWT interop test covers the other hashes and P-384.
TEST(Keys, FromParametersVerifyWhatThePairSigned) {
  const std::string msg = "header.claims";
  auto rsa = RSAKey::Generate(2048);
  auto ec256 = EllipticCurveKey::Generate(EC_P256), ec521 = EllipticCurveKey::Generate(EC_P521);
  auto ecPub = [](const AsymmetricKey& pair, EllipticCurve curve) {
    return EllipticCurveKey(curve, bnParam(pair, OSSL_PKEY_PARAM_EC_PUB_X), bnParam(pair, OSSL_PKEY_PARAM_EC_PUB_Y));
  };
  const RSAKey rsaPub(bnParam(*rsa, OSSL_PKEY_PARAM_RSA_N), bnParam(*rsa, OSSL_PKEY_PARAM_RSA_E));
  const EllipticCurveKey pub256 = ecPub(*ec256, EC_P256), pub521 = ecPub(*ec521, EC_P521);
  EXPECT_EQ(std::tuple(rsaPub.canSign(), rsaPub.getBits(), pub521.getCurve()), std::tuple(false, 2048, EC_P521));
  const std::tuple<const AsymmetricKey*, const AsymmetricKey*, size_t> rows[] = {
      {rsa.get(), &rsaPub, 256}, {ec256.get(), &pub256, 64}, {ec521.get(), &pub521, 132}};
  for (const auto& [pair, pub, size] : rows) {
    std::vector<char> sig;
    SignatureError err = SE_CryptoFailure;
    for (int i = 0; i < 40; ++i) {
      ASSERT_TRUE(SignDigestAsymmetric(sig, msg.data(), msg.size(), *pair, HT_SHA256, &err));
      ASSERT_TRUE(VerifyDigestAsymmetric(msg.data(), msg.size(), sig.data(), sig.size(), *pub, HT_SHA256, &err));
      ASSERT_EQ(std::pair(sig.size(), err), std::pair(size, SE_None));
    }
    std::vector<char> flipped = sig, truncated(sig.begin(), sig.end() - 1);
    flipped[3] ^= 0x40;
    auto mismatch = [&, key = pub](const std::vector<char>& s, size_t msgSize, HashType hash) {
      err = SE_CryptoFailure; // a binding is captured by name: clang before 16 refuses it otherwise
      return !VerifyDigestAsymmetric(msg.data(), msgSize, s.data(), s.size(), *key, hash, &err) && err == SE_None;
    };
    EXPECT_TRUE(mismatch(flipped, msg.size(), HT_SHA256) && mismatch(truncated, msg.size(), HT_SHA256)) << size;
    EXPECT_TRUE(mismatch(sig, msg.size(), HT_SHA512) && mismatch(sig, msg.size() - 1, HT_SHA256)) << size;
  }
}

// Keys that cannot be built say why and verify nothing (keys too small: the JWT key store test); PEM
// texts keep a pair's type, usage and curve.
TEST(Keys, ConstructionErrorsAndPemRoundTrip) {
  const std::shared_ptr<AsymmetricKey> ec = EllipticCurveKey::Generate(EC_P384), rsa = RSAKey::Generate(2048);
  auto x = bnParam(*ec, OSSL_PKEY_PARAM_EC_PUB_X), y = bnParam(*ec, OSSL_PKEY_PARAM_EC_PUB_Y), longX = x;
  longX.insert(longX.begin(), 0); // longer than the field even though the extra byte is zero
  const std::shared_ptr<AsymmetricKey> bad[] = {
      std::make_shared<EllipticCurveKey>(EC_P384, longX, y),
      std::make_shared<EllipticCurveKey>(EC_P384, y, x), // swapped: not on the curve
      std::make_shared<RSAKey>(std::vector<char>{}, bnParam(*rsa, OSSL_PKEY_PARAM_RSA_E)),
      std::make_shared<RSAKey>(std::string("-----BEGIN PUBLIC KEY-----\nnot a key\n-----END PUBLIC KEY-----\n")),
      std::make_shared<RSAKey>(ec->toPublicPem()), // an EC key is no RSA key
      std::make_shared<EllipticCurveKey>(rsa->toPublicPem())};
  for (const auto& key : bad) {
    SignatureError err = SE_None;
    EXPECT_FALSE(key->isValid() || key->getError().empty() ||
                 VerifyDigestAsymmetric("a", 1, "sig", 3, *key, HT_SHA256, &err));
    EXPECT_EQ(err, SE_InvalidKey) << &key - bad;
  }
  EXPECT_TRUE(EllipticCurveKey(EC_P384, x, y).isValid());
  std::string error;
  EXPECT_FALSE(AsymmetricKey::FromPem("", &error) || error.empty());

  for (const auto& pair : {rsa, ec}) {
    auto priv = AsymmetricKey::FromPem(pair->toPrivatePem(), &error);
    auto pub = AsymmetricKey::FromPem(pair->toPublicPem(), &error);
    ASSERT_TRUE(priv && pub) << error;
    EXPECT_EQ(std::tuple(priv->canSign(), priv->getKeyType(), priv->getCurve(), pub->canSign(), pub->toPrivatePem()),
              std::tuple(true, pair->getKeyType(), pair->getCurve(), false, std::string()));
    std::vector<char> sig;
    SignatureError err = SE_None, noKey = SE_None, noHash = SE_None;
    EXPECT_FALSE(SignDigestAsymmetric(sig, "a", 1, *pub, HT_SHA256, &noKey));
    ASSERT_TRUE(SignDigestAsymmetric(sig, "a", 1, *priv, HT_SHA384, &err));
    EXPECT_TRUE(VerifyDigestAsymmetric("a", 1, sig.data(), sig.size(), *pub, HT_SHA384, &err));
    EXPECT_FALSE(VerifyDigestAsymmetric("a", 1, sig.data(), sig.size(), *pub, HT_None, &noHash));
    EXPECT_EQ(std::pair(noKey, noHash), std::pair(SE_NoPrivateKey, SE_UnsupportedHash));
  }
}

} // namespace

// The whole buffer goes, the inline one of a short string included, and its bytes past the end.
TEST(WipeString, ZeroesTheBufferUpToItsCapacity) {
  for (std::string s : {std::string("pw"), std::string(40, 's')}) {
    s.resize(1); // what follows the new end still holds the secret
    const auto [buffer, capacity] = std::pair(s.data(), s.capacity());
    WipeString(s);
    EXPECT_EQ(std::string(buffer, capacity) + (s.empty() && s.data() == buffer ? "" : " kept"),
              std::string(capacity, 0));
  }
}

// Known answers: SHA-256 of "abc" (FIPS 180-2), then the second HMAC case of RFC 4231.
TEST(Digest, KnownHashAndHmac) {
  std::vector<char> hash, mac;
  std::string data = "what do ya want for nothing?", text;
  ASSERT_TRUE(ComputeHash(HT_SHA256, "abc", 3, hash) &&
              ComputeHmac(HT_SHA256, "Jefe", 4, data.data(), data.size(), mac));
  hash.insert(hash.end(), mac.begin(), mac.end());
  ASSERT_TRUE(base64Encode({hash.begin(), hash.end()}, text, B64_Standard));
  EXPECT_EQ(text, "ungWv48Bz+pBQUDeXa4iI7ADYaOWF3qctBD/YfIAFa1b3MFGv2B1TmoEJCYIlXXHWgA/CJ0nOYOd7Fi5ZOw4Qw==");
}
