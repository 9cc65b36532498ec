#include <HttpTools/platform/qzOpenSSLCrypto.h>
#include <HttpTools/platform/qzOpenSSLCrypto_p.h>

#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/decoder.h>
#include <openssl/ec.h>
#include <openssl/err.h>
#include <openssl/param_build.h>
#include <openssl/pem.h>

#include <array>
#include <cstring>

namespace qz::qzOpenSSL {

namespace {

// One owner per OpenSSL object.
template <typename T, void (*Free)(T*)> struct Deleter {
  void operator()(T* p) const { Free(p); }
};
void freeBio(BIO* b) { BIO_free(b); }
void freeBn(BIGNUM* b) { BN_free(b); }
using BioPtr = std::unique_ptr<BIO, Deleter<BIO, freeBio>>;
using BnPtr = std::unique_ptr<BIGNUM, Deleter<BIGNUM, freeBn>>;
using MdCtxPtr = std::unique_ptr<EVP_MD_CTX, Deleter<EVP_MD_CTX, EVP_MD_CTX_free>>;
using PkeyCtxPtr = std::unique_ptr<EVP_PKEY_CTX, Deleter<EVP_PKEY_CTX, EVP_PKEY_CTX_free>>;
using ParamBldPtr = std::unique_ptr<OSSL_PARAM_BLD, Deleter<OSSL_PARAM_BLD, OSSL_PARAM_BLD_free>>;
using ParamPtr = std::unique_ptr<OSSL_PARAM, Deleter<OSSL_PARAM, OSSL_PARAM_free>>;
using EcdsaSigPtr = std::unique_ptr<ECDSA_SIG, Deleter<ECDSA_SIG, ECDSA_SIG_free>>;
using MacPtr = std::unique_ptr<EVP_MAC, Deleter<EVP_MAC, EVP_MAC_free>>;
using MacCtxPtr = std::unique_ptr<EVP_MAC_CTX, Deleter<EVP_MAC_CTX, EVP_MAC_CTX_free>>;
using DecoderCtxPtr = std::unique_ptr<OSSL_DECODER_CTX, Deleter<OSSL_DECODER_CTX, OSSL_DECODER_CTX_free>>;

// "what: reason of the oldest queued OpenSSL error"; empties the thread's error queue.
std::string sslError(const std::string& what) {
  unsigned long code = ERR_get_error();
  ERR_clear_error();
  if (code == 0)
    return what;
  char buf[256];
  ERR_error_string_n(code, buf, sizeof buf);
  return what + ": " + buf;
}

const char* groupName(EllipticCurve c) {
  switch (c) {
  case EC_P256:
    return "prime256v1";
  case EC_P384:
    return "secp384r1";
  case EC_P521:
    return "secp521r1";
  default:
    return nullptr;
  }
}

EllipticCurve curveOfGroup(const std::string& name) {
  if (name == "prime256v1" || name == "P-256")
    return EC_P256;
  if (name == "secp384r1" || name == "P-384")
    return EC_P384;
  if (name == "secp521r1" || name == "P-521")
    return EC_P521;
  return EC_None;
}

// HMAC contexts with their digest already set, one per hash type; each call duplicates one, so
// that the algorithm and digest are looked up once per process instead of once per MAC.
class HmacTemplates {
public:
  HmacTemplates() {
    m_mac.reset(EVP_MAC_fetch(nullptr, "HMAC", nullptr));
    if (!m_mac)
      return;
    for (HashType t : {HT_SHA1, HT_SHA256, HT_SHA384, HT_SHA512}) {
      MacCtxPtr ctx(EVP_MAC_CTX_new(m_mac.get()));
      const EVP_MD* md = DigestFor(t);
      if (!ctx || !md)
        continue;
      OSSL_PARAM params[] = {
          OSSL_PARAM_construct_utf8_string(OSSL_MAC_PARAM_DIGEST, const_cast<char*>(EVP_MD_get0_name(md)), 0),
          OSSL_PARAM_construct_end()};
      if (EVP_MAC_CTX_set_params(ctx.get(), params) == 1)
        m_ctx[t] = std::move(ctx);
    }
    ERR_clear_error();
  }
  EVP_MAC_CTX* newContext(HashType t) const {
    if (int(t) < 0 || size_t(t) >= m_ctx.size() || !m_ctx[t])
      return nullptr;
    return EVP_MAC_CTX_dup(m_ctx[t].get());
  }

private:
  MacPtr m_mac;
  std::array<MacCtxPtr, 6> m_ctx;
};

const HmacTemplates& hmacTemplates() {
  static const HmacTemplates t;
  return t;
}

// Base64 alphabets.
const char kStd[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
const char kUrl[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";

struct DecodeTable {
  std::array<signed char, 256> std, url;
  DecodeTable() {
    std.fill(-1);
    url.fill(-1);
    for (int i = 0; i < 64; ++i) {
      std[static_cast<unsigned char>(kStd[i])] = static_cast<signed char>(i);
      url[static_cast<unsigned char>(kUrl[i])] = static_cast<signed char>(i);
    }
  }
};
const DecodeTable kDecode;

bool validSet(Base64CharSet set) { return set == B64_Standard || set == B64_UrlSafe || set == B64_UrlSafeNoPad; }

// Key checks shared by the constructors: supported type, sizes, a valid public part.
std::string checkKey(EVP_PKEY* pkey, AsymmetricKey::KeyType& type, EllipticCurve& curve) {
  curve = EC_None;
  if (EVP_PKEY_is_a(pkey, "RSA")) {
    type = AsymmetricKey::KT_RSA;
    if (EVP_PKEY_get_bits(pkey) < RSAKey::MinBits)
      return "RSA modulus shorter than " + std::to_string(RSAKey::MinBits) + " bits";
  } else if (EVP_PKEY_is_a(pkey, "EC")) {
    type = AsymmetricKey::KT_EC;
    char name[64] = {0};
    size_t nameLen = 0;
    if (EVP_PKEY_get_utf8_string_param(pkey, OSSL_PKEY_PARAM_GROUP_NAME, name, sizeof name, &nameLen) != 1) {
      ERR_clear_error();
      return "elliptic curve key without a named curve";
    }
    curve = curveOfGroup(name);
    if (curve == EC_None)
      return std::string("unsupported elliptic curve ") + name;
  } else {
    type = AsymmetricKey::KT_None;
    return "unsupported key type";
  }
  PkeyCtxPtr ctx(EVP_PKEY_CTX_new_from_pkey(nullptr, pkey, nullptr));
  if (!ctx || EVP_PKEY_public_check(ctx.get()) != 1)
    return sslError("invalid public key");
  return {};
}

} // namespace

const EVP_MD* DigestFor(HashType type) {
  switch (type) {
  case HT_SHA1:
    return EVP_sha1();
  case HT_SHA256:
    return EVP_sha256();
  case HT_SHA384:
    return EVP_sha384();
  case HT_SHA512:
    return EVP_sha512();
  default:
    return nullptr;
  }
}

size_t HashSize(HashType type) {
  const EVP_MD* md = DigestFor(type);
  return md ? size_t(EVP_MD_get_size(md)) : 0;
}

bool ComputeHash(HashType type, const char* data, size_t len, std::vector<char>& digest) {
  const EVP_MD* md = DigestFor(type);
  if (!md || (!data && len))
    return false;
  unsigned char out[EVP_MAX_MD_SIZE];
  unsigned int outLen = 0;
  if (EVP_Digest(data, len, out, &outLen, md, nullptr) != 1) {
    ERR_clear_error();
    return false;
  }
  digest.assign(reinterpret_cast<char*>(out), reinterpret_cast<char*>(out) + outLen);
  return true;
}

bool ComputeHmac(HashType type, const char* key, size_t keyLen, const char* data, size_t dataLen,
                 std::vector<char>& mac) {
  if ((!key && keyLen) || (!data && dataLen))
    return false;
  MacCtxPtr ctx(hmacTemplates().newContext(type));
  if (!ctx)
    return false;
  static const unsigned char kEmpty = 0;
  const auto* k = keyLen ? reinterpret_cast<const unsigned char*>(key) : &kEmpty;
  unsigned char out[EVP_MAX_MD_SIZE];
  size_t outLen = 0;
  if (EVP_MAC_init(ctx.get(), k, keyLen, nullptr) != 1 ||
      EVP_MAC_update(ctx.get(), reinterpret_cast<const unsigned char*>(data), dataLen) != 1 ||
      EVP_MAC_final(ctx.get(), out, &outLen, sizeof out) != 1) {
    ERR_clear_error();
    return false;
  }
  mac.assign(reinterpret_cast<char*>(out), reinterpret_cast<char*>(out) + outLen);
  OPENSSL_cleanse(out, sizeof out);
  return true;
}

bool base64Encode(const char* data, size_t len, std::string& out, Base64CharSet set) {
  if (!validSet(set) || (!data && len))
    return false;
  const char* a = set == B64_Standard ? kStd : kUrl;
  const bool pad = set != B64_UrlSafeNoPad;
  std::string r;
  r.resize((len + 2) / 3 * 4);
  const auto* p = reinterpret_cast<const unsigned char*>(data);
  char* o = r.data();
  size_t i = 0;
  for (; i + 3 <= len; i += 3) {
    uint32_t v = uint32_t(p[i]) << 16 | uint32_t(p[i + 1]) << 8 | p[i + 2];
    *o++ = a[v >> 18];
    *o++ = a[(v >> 12) & 63];
    *o++ = a[(v >> 6) & 63];
    *o++ = a[v & 63];
  }
  size_t rest = len - i;
  if (rest) {
    uint32_t v = uint32_t(p[i]) << 16 | (rest == 2 ? uint32_t(p[i + 1]) << 8 : 0);
    *o++ = a[v >> 18];
    *o++ = a[(v >> 12) & 63];
    if (rest == 2)
      *o++ = a[(v >> 6) & 63];
    else if (pad)
      *o++ = '=';
    if (pad)
      *o++ = '=';
  }
  r.resize(size_t(o - r.data()));
  out = std::move(r);
  return true;
}

bool base64Encode(const std::string& data, std::string& out, Base64CharSet set) {
  return base64Encode(data.data(), data.size(), out, set);
}

bool base64Decode(const char* data, size_t len, std::vector<char>& out, Base64CharSet set) {
  if (!validSet(set) || (!data && len))
    return false;
  const auto& table = set == B64_Standard ? kDecode.std : kDecode.url;
  if (set != B64_UrlSafeNoPad) {
    if (len % 4)
      return false;
    // Up to two "=" at the very end.
    if (len && data[len - 1] == '=')
      len -= (len >= 2 && data[len - 2] == '=') ? 2 : 1;
  }
  if (len % 4 == 1)
    return false;
  std::vector<char> r;
  r.resize(len / 4 * 3 + (len % 4 ? len % 4 - 1 : 0));
  const auto* p = reinterpret_cast<const unsigned char*>(data);
  char* o = r.data();
  size_t i = 0;
  for (; i + 4 <= len; i += 4) {
    int a = table[p[i]], b = table[p[i + 1]], c = table[p[i + 2]], d = table[p[i + 3]];
    if ((a | b | c | d) < 0)
      return false;
    uint32_t v = uint32_t(a) << 18 | uint32_t(b) << 12 | uint32_t(c) << 6 | uint32_t(d);
    *o++ = char(v >> 16);
    *o++ = char(v >> 8);
    *o++ = char(v);
  }
  size_t rest = len - i;
  if (rest) {
    int a = table[p[i]], b = table[p[i + 1]], c = rest == 3 ? table[p[i + 2]] : 0;
    if ((a | b | c) < 0)
      return false;
    uint32_t v = uint32_t(a) << 18 | uint32_t(b) << 12 | uint32_t(c) << 6;
    // Bits beyond the last byte must be zero: one byte string has one encoding.
    if (rest == 2 ? (v & 0xFFFF) : (v & 0xFF))
      return false;
    *o++ = char(v >> 16);
    if (rest == 3)
      *o++ = char(v >> 8);
  }
  out = std::move(r);
  return true;
}

bool base64Decode(const std::string& data, std::vector<char>& out, Base64CharSet set) {
  return base64Decode(data.data(), data.size(), out, set);
}

// ---- keys

AsymmetricKey::AsymmetricKey() = default;
AsymmetricKey::~AsymmetricKey() = default;

void AsymmetricKey::setImpl(std::unique_ptr<Impl> impl, KeyType type, int usage) {
  m_impl = std::move(impl);
  m_type = type;
  m_usage = usage;
  m_error.clear();
}

void AsymmetricKey::setError(const std::string& error) {
  m_impl.reset();
  m_usage = 0;
  m_error = error.empty() ? "invalid key" : error;
}

int AsymmetricKey::getBits() const { return m_impl ? EVP_PKEY_get_bits(m_impl->pkey.get()) : 0; }

std::string AsymmetricKey::toPublicPem() const {
  BioPtr bio(BIO_new(BIO_s_mem()));
  if (!m_impl || !bio || PEM_write_bio_PUBKEY(bio.get(), m_impl->pkey.get()) != 1) {
    ERR_clear_error();
    return {};
  }
  char* p = nullptr;
  long n = BIO_get_mem_data(bio.get(), &p);
  return std::string(p, size_t(n));
}

std::string AsymmetricKey::toPrivatePem() const {
  BioPtr bio(BIO_new(BIO_s_secmem()));
  if (!m_impl || !canSign() || !bio ||
      PEM_write_bio_PrivateKey(bio.get(), m_impl->pkey.get(), nullptr, nullptr, 0, nullptr, nullptr) != 1) {
    ERR_clear_error();
    return {};
  }
  char* p = nullptr;
  long n = BIO_get_mem_data(bio.get(), &p);
  return std::string(p, size_t(n));
}

void AsymmetricKey::loadPem(const std::string& pem, KeyType wanted) {
  // The decoder never prompts for a pass phrase: an encrypted key simply fails to load.
  PkeyPtr pkey;
  int usage = 0;
  for (int selection : {EVP_PKEY_KEYPAIR, EVP_PKEY_PUBLIC_KEY}) {
    EVP_PKEY* raw = nullptr;
    DecoderCtxPtr dctx(OSSL_DECODER_CTX_new_for_pkey(&raw, "PEM", nullptr, nullptr, selection, nullptr, nullptr));
    const auto* p = reinterpret_cast<const unsigned char*>(pem.data());
    size_t left = pem.size();
    if (dctx && OSSL_DECODER_from_data(dctx.get(), &p, &left) == 1 && raw) {
      pkey.reset(raw);
      usage = selection == EVP_PKEY_KEYPAIR ? (KU_Sign | KU_Verify) : KU_Verify;
      break;
    }
    EVP_PKEY_free(raw);
  }
  ERR_clear_error();
  if (!pkey) {
    setError("no PEM key could be read");
    return;
  }
  KeyType type = KT_None;
  EllipticCurve curve = EC_None;
  std::string error = checkKey(pkey.get(), type, curve);
  if (error.empty() && wanted != KT_None && type != wanted)
    error = wanted == KT_RSA ? "PEM text holds no RSA key" : "PEM text holds no elliptic curve key";
  if (!error.empty()) {
    setError(error);
    return;
  }
  auto impl = std::make_unique<Impl>();
  impl->pkey = std::move(pkey);
  impl->curve = curve;
  setImpl(std::move(impl), type, usage);
}

namespace {
class AnyKey : public AsymmetricKey {
public:
  explicit AnyKey(const std::string& pem) { loadPem(pem, KT_None); }
};

// Builds a public key of `type` ("RSA", "EC") from parameters.
PkeyPtr fromData(const char* type, OSSL_PARAM_BLD* bld, std::string& error) {
  ParamPtr params(OSSL_PARAM_BLD_to_param(bld));
  PkeyCtxPtr ctx(EVP_PKEY_CTX_new_from_name(nullptr, type, nullptr));
  EVP_PKEY* raw = nullptr;
  if (!params || !ctx || EVP_PKEY_fromdata_init(ctx.get()) != 1 ||
      EVP_PKEY_fromdata(ctx.get(), &raw, EVP_PKEY_PUBLIC_KEY, params.get()) != 1) {
    error = sslError(std::string("cannot build the ") + type + " key");
    return {};
  }
  return PkeyPtr(raw);
}
} // namespace

std::shared_ptr<AsymmetricKey> AsymmetricKey::FromPem(const std::string& pem, std::string* error) {
  auto key = std::make_shared<AnyKey>(pem);
  if (!key->isValid()) {
    if (error)
      *error = key->getError();
    return {};
  }
  return key;
}

RSAKey::RSAKey(const std::vector<char>& n, const std::vector<char>& e) {
  if (n.empty() || e.empty()) {
    setError("RSA key without modulus or exponent");
    return;
  }
  BnPtr bn(BN_bin2bn(reinterpret_cast<const unsigned char*>(n.data()), int(n.size()), nullptr));
  BnPtr be(BN_bin2bn(reinterpret_cast<const unsigned char*>(e.data()), int(e.size()), nullptr));
  ParamBldPtr bld(OSSL_PARAM_BLD_new());
  std::string error;
  if (!bn || !be || !bld || OSSL_PARAM_BLD_push_BN(bld.get(), OSSL_PKEY_PARAM_RSA_N, bn.get()) != 1 ||
      OSSL_PARAM_BLD_push_BN(bld.get(), OSSL_PKEY_PARAM_RSA_E, be.get()) != 1) {
    setError(sslError("cannot build the RSA key"));
    return;
  }
  PkeyPtr pkey = fromData("RSA", bld.get(), error);
  if (!pkey) {
    setError(error);
    return;
  }
  KeyType type;
  EllipticCurve curve;
  error = checkKey(pkey.get(), type, curve);
  if (!error.empty()) {
    setError(error);
    return;
  }
  auto impl = std::make_unique<Impl>();
  impl->pkey = std::move(pkey);
  setImpl(std::move(impl), KT_RSA, KU_Verify);
}

RSAKey::RSAKey(const std::string& pem) { loadPem(pem, KT_RSA); }

std::shared_ptr<RSAKey> RSAKey::Generate(int bits) {
  std::shared_ptr<RSAKey> key(new RSAKey());
  if (bits < MinBits) {
    key->setError("RSA modulus shorter than " + std::to_string(MinBits) + " bits");
    return key;
  }
  auto impl = std::make_unique<Impl>();
  impl->pkey.reset(EVP_RSA_gen(static_cast<unsigned>(bits)));
  if (!impl->pkey) {
    key->setError(sslError("RSA key generation failed"));
    return key;
  }
  key->setImpl(std::move(impl), KT_RSA, KU_Sign | KU_Verify);
  return key;
}

size_t EllipticCurveKey::FieldSize(EllipticCurve curve) {
  switch (curve) {
  case EC_P256:
    return 32;
  case EC_P384:
    return 48;
  case EC_P521:
    return 66;
  default:
    return 0;
  }
}

EllipticCurveKey::EllipticCurveKey(EllipticCurve curve, const std::vector<char>& x, const std::vector<char>& y) {
  const size_t fs = FieldSize(curve);
  if (!fs) {
    setError("unsupported elliptic curve");
    return;
  }
  if (x.empty() || y.empty() || x.size() > fs || y.size() > fs) {
    setError("elliptic curve coordinates of the wrong size");
    return;
  }
  // Uncompressed point: 0x04 || X || Y, each left-padded to the field size.
  std::vector<unsigned char> point(1 + 2 * fs, 0);
  point[0] = 0x04;
  std::memcpy(point.data() + 1 + fs - x.size(), x.data(), x.size());
  std::memcpy(point.data() + 1 + 2 * fs - y.size(), y.data(), y.size());
  ParamBldPtr bld(OSSL_PARAM_BLD_new());
  if (!bld || OSSL_PARAM_BLD_push_utf8_string(bld.get(), OSSL_PKEY_PARAM_GROUP_NAME, groupName(curve), 0) != 1 ||
      OSSL_PARAM_BLD_push_octet_string(bld.get(), OSSL_PKEY_PARAM_PUB_KEY, point.data(), point.size()) != 1) {
    setError(sslError("cannot build the EC key"));
    return;
  }
  std::string error;
  PkeyPtr pkey = fromData("EC", bld.get(), error);
  if (!pkey) {
    setError(error);
    return;
  }
  KeyType type;
  EllipticCurve got;
  error = checkKey(pkey.get(), type, got);
  if (!error.empty()) {
    setError(error);
    return;
  }
  auto impl = std::make_unique<Impl>();
  impl->pkey = std::move(pkey);
  impl->curve = curve;
  setImpl(std::move(impl), KT_EC, KU_Verify);
}

EllipticCurveKey::EllipticCurveKey(const std::string& pem) { loadPem(pem, KT_EC); }

std::shared_ptr<EllipticCurveKey> EllipticCurveKey::Generate(EllipticCurve curve) {
  std::shared_ptr<EllipticCurveKey> key(new EllipticCurveKey());
  const char* group = groupName(curve);
  if (!group) {
    key->setError("unsupported elliptic curve");
    return key;
  }
  auto impl = std::make_unique<Impl>();
  impl->pkey.reset(EVP_EC_gen(group));
  impl->curve = curve;
  if (!impl->pkey) {
    key->setError(sslError("EC key generation failed"));
    return key;
  }
  key->setImpl(std::move(impl), KT_EC, KU_Sign | KU_Verify);
  return key;
}

EllipticCurve AsymmetricKey::getCurve() const { return impl() ? impl()->curve : EC_None; }

// ---- signatures

namespace {
bool fail(SignatureError* error, SignatureError code) {
  ERR_clear_error();
  if (error)
    *error = code;
  return false;
}
} // namespace

bool SignDigestAsymmetric(std::vector<char>& signature, const char* data, size_t len, const AsymmetricKey& key,
                          HashType hash, SignatureError* error) {
  if (error)
    *error = SE_None;
  EVP_PKEY* pkey = GetPkey(key);
  if (!pkey || !key.isValid())
    return fail(error, SE_InvalidKey);
  if (!key.canSign())
    return fail(error, SE_NoPrivateKey);
  const EVP_MD* md = DigestFor(hash);
  if (!md)
    return fail(error, SE_UnsupportedHash);
  if (!data && len)
    return fail(error, SE_CryptoFailure);
  MdCtxPtr ctx(EVP_MD_CTX_new());
  size_t sigLen = 0;
  const auto* in = reinterpret_cast<const unsigned char*>(data);
  if (!ctx || EVP_DigestSignInit(ctx.get(), nullptr, md, nullptr, pkey) != 1 ||
      EVP_DigestSign(ctx.get(), nullptr, &sigLen, in, len) != 1)
    return fail(error, SE_CryptoFailure);
  std::vector<unsigned char> der(sigLen);
  if (EVP_DigestSign(ctx.get(), der.data(), &sigLen, in, len) != 1)
    return fail(error, SE_CryptoFailure);
  der.resize(sigLen);
  if (key.getKeyType() != AsymmetricKey::KT_EC) {
    signature.assign(der.begin(), der.end());
    return true;
  }
  // DER SEQUENCE { r, s } to fixed-width R || S.
  const size_t fs = EllipticCurveKey::FieldSize(key.impl()->curve);
  const unsigned char* p = der.data();
  EcdsaSigPtr sig(d2i_ECDSA_SIG(nullptr, &p, long(der.size())));
  if (!sig || !fs)
    return fail(error, SE_CryptoFailure);
  const BIGNUM* r = nullptr;
  const BIGNUM* s = nullptr;
  ECDSA_SIG_get0(sig.get(), &r, &s);
  std::vector<char> rs(2 * fs);
  if (BN_bn2binpad(r, reinterpret_cast<unsigned char*>(rs.data()), int(fs)) != int(fs) ||
      BN_bn2binpad(s, reinterpret_cast<unsigned char*>(rs.data() + fs), int(fs)) != int(fs))
    return fail(error, SE_CryptoFailure);
  signature = std::move(rs);
  return true;
}

bool VerifyDigestAsymmetric(const char* data, size_t len, const char* signature, size_t sigLen,
                            const AsymmetricKey& key, HashType hash, SignatureError* error) {
  if (error)
    *error = SE_None;
  EVP_PKEY* pkey = GetPkey(key);
  if (!pkey || !key.isValid())
    return fail(error, SE_InvalidKey);
  const EVP_MD* md = DigestFor(hash);
  if (!md)
    return fail(error, SE_UnsupportedHash);
  if ((!data && len) || (!signature && sigLen))
    return fail(error, SE_CryptoFailure);
  std::vector<unsigned char> der;
  const unsigned char* sig = reinterpret_cast<const unsigned char*>(signature);
  size_t derLen = sigLen;
  if (key.getKeyType() == AsymmetricKey::KT_EC) {
    // Only the exact R || S width is a signature; anything else does not match.
    const size_t fs = EllipticCurveKey::FieldSize(key.impl()->curve);
    if (!fs)
      return fail(error, SE_InvalidKey);
    if (sigLen != 2 * fs)
      return fail(error, SE_None);
    const auto* u = reinterpret_cast<const unsigned char*>(signature);
    BnPtr r(BN_bin2bn(u, int(fs), nullptr));
    BnPtr s(BN_bin2bn(u + fs, int(fs), nullptr));
    EcdsaSigPtr es(ECDSA_SIG_new());
    if (!r || !s || !es || ECDSA_SIG_set0(es.get(), r.get(), s.get()) != 1)
      return fail(error, SE_CryptoFailure);
    (void)r.release(); // owned by `es` now
    (void)s.release();
    int n = i2d_ECDSA_SIG(es.get(), nullptr);
    if (n <= 0)
      return fail(error, SE_CryptoFailure);
    der.resize(size_t(n));
    unsigned char* out = der.data();
    if (i2d_ECDSA_SIG(es.get(), &out) != n)
      return fail(error, SE_CryptoFailure);
    sig = der.data();
    derLen = der.size();
  } else if (sigLen != size_t(EVP_PKEY_get_size(pkey))) {
    return fail(error, SE_None);
  }
  MdCtxPtr ctx(EVP_MD_CTX_new());
  if (!ctx || EVP_DigestVerifyInit(ctx.get(), nullptr, md, nullptr, pkey) != 1)
    return fail(error, SE_CryptoFailure);
  int rc = EVP_DigestVerify(ctx.get(), sig, derLen, reinterpret_cast<const unsigned char*>(data), len);
  if (rc == 1)
    return true;
  return fail(error, rc == 0 ? SE_None : SE_CryptoFailure);
}

} // namespace qz::qzOpenSSL
