// Token verification and signing, each beside the raw OpenSSL primitive on the same signing input
// and the same key, and beside libjwt on the same tokens. Prints the ratios at the end.
#include <HttpTools/jwt/Verifier.h>

#include <HttpTools/platform/qzJson.h>
#include <HttpTools/platform/qzOpenSSLCrypto_p.h>

#include <benchmark/benchmark.h>

#include <openssl/bn.h>
#include <openssl/ec.h>
#include <openssl/hmac.h>

#ifdef HTTPTOOLS_HAVE_LIBJWT
#include <jwt.h>
#endif

#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <map>

using namespace qz;
using namespace qz::jwt;

namespace {

const std::string kSecret = "bench-secret-0123456789abcdef-0123";

struct OneKey : KeyProvider {
  std::shared_ptr<AsymmetricKey> key;
  std::shared_ptr<AsymmetricKey> getKeyFromId(const std::string&, Alg, std::string*) override { return key; }
};

// Ten claims, as a typical access token carries.
qzVariantMapImpl claims() {
  const int64_t now = NowSec();
  return {{"iss", "https://issuer.example.com"},
          {"sub", "user-4711"},
          {"aud", "api.example.com"},
          {"exp", now + 3600},
          {"iat", now},
          {"nbf", now},
          {"jti", "c0ffee00-1234-5678-9abc-def012345678"},
          {"scope", "read write admin"},
          {"name", "Jane Doe"},
          {"email", "jane.doe@example.com"}};
}

struct Fixture {
  std::shared_ptr<qzOpenSSL::RSAKey> rsa = qzOpenSSL::RSAKey::Generate(2048);
  std::shared_ptr<qzOpenSSL::EllipticCurveKey> ec = qzOpenSSL::EllipticCurveKey::Generate(qzOpenSSL::EC_P256);
  std::string rsaPub = rsa->toPublicPem(), ecPub = ec->toPublicPem();
  std::string rsaPriv = rsa->toPrivatePem(), ecPriv = ec->toPrivatePem();
  std::string hs, rs, es;
  OneKey rsaProvider, ecProvider;
  Verifier hsVerifier, rsVerifier, esVerifier;
  // Raw forms: signing input and signature bytes; ES256 also as DER for EVP_DigestVerify.
  std::string hsInput, rsInput, esInput;
  std::vector<char> rsSig, esDer;

  Fixture() {
    auto c = claims();
    CreateHashedJwt(c, kSecret, HS256, hs, 0);
    c = claims();
    CreateSignedJwt(c, *rsa, RS256, rs, 0);
    c = claims();
    CreateSignedJwt(c, *ec, ES256, es, 0);
    rsaProvider.key = AsymmetricKey::FromPem(rsaPub);
    ecProvider.key = AsymmetricKey::FromPem(ecPub);
    hsVerifier.setClientInfo(kSecret, nullptr, HS256);
    rsVerifier.setClientInfo("", &rsaProvider, RS256);
    esVerifier.setClientInfo("", &ecProvider, ES256);
    hsInput = hs.substr(0, hs.rfind('.'));
    rsInput = rs.substr(0, rs.rfind('.'));
    esInput = es.substr(0, es.rfind('.'));
    qzOpenSSL::base64Decode(rs.substr(rs.rfind('.') + 1), rsSig, qzOpenSSL::B64_UrlSafeNoPad);
    std::vector<char> rsBytes;
    qzOpenSSL::base64Decode(es.substr(es.rfind('.') + 1), rsBytes, qzOpenSSL::B64_UrlSafeNoPad);
    ECDSA_SIG* sig = ECDSA_SIG_new();
    ECDSA_SIG_set0(sig, BN_bin2bn(reinterpret_cast<unsigned char*>(rsBytes.data()), 32, nullptr),
                   BN_bin2bn(reinterpret_cast<unsigned char*>(rsBytes.data()) + 32, 32, nullptr));
    unsigned char* der = nullptr;
    int n = i2d_ECDSA_SIG(sig, &der);
    esDer.assign(der, der + n);
    OPENSSL_free(der);
    ECDSA_SIG_free(sig);
  }
};

Fixture& fx() {
  static Fixture f;
  return f;
}

void verifyOurs(benchmark::State& state, const Verifier& v, const std::string& token) {
  qzVariantMapImpl c;
  Verifier::RejectCause cause;
  for (auto _ : state) {
    bool ok = v.validateJwt(token, c, &cause);
    benchmark::DoNotOptimize(ok);
    if (!ok) {
      state.SkipWithError(Verifier::RejectCauseToString(cause).c_str());
      break;
    }
  }
}

void rawEvpVerify(benchmark::State& state, EVP_PKEY* pkey, const std::string& input, const std::vector<char>& sig) {
  for (auto _ : state) {
    EVP_MD_CTX* ctx = EVP_MD_CTX_new();
    int rc = EVP_DigestVerifyInit(ctx, nullptr, EVP_sha256(), nullptr, pkey) == 1
                 ? EVP_DigestVerify(ctx, reinterpret_cast<const unsigned char*>(sig.data()), sig.size(),
                                    reinterpret_cast<const unsigned char*>(input.data()), input.size())
                 : -1;
    EVP_MD_CTX_free(ctx);
    if (rc != 1) {
      state.SkipWithError("raw verify failed");
      break;
    }
  }
}

void rawEvpSign(benchmark::State& state, EVP_PKEY* pkey, const std::string& input) {
  std::vector<unsigned char> sig(EVP_PKEY_get_size(pkey));
  for (auto _ : state) {
    EVP_MD_CTX* ctx = EVP_MD_CTX_new();
    size_t len = sig.size();
    int rc =
        EVP_DigestSignInit(ctx, nullptr, EVP_sha256(), nullptr, pkey) == 1
            ? EVP_DigestSign(ctx, sig.data(), &len, reinterpret_cast<const unsigned char*>(input.data()), input.size())
            : -1;
    EVP_MD_CTX_free(ctx);
    if (rc != 1) {
      state.SkipWithError("raw sign failed");
      break;
    }
  }
}

// ---- verification

void BM_HS256_Verify_Ours(benchmark::State& s) { verifyOurs(s, fx().hsVerifier, fx().hs); }
void BM_HS256_Verify_RawHmac(benchmark::State& s) {
  unsigned char mac[EVP_MAX_MD_SIZE];
  unsigned int len = 0;
  const std::string& in = fx().hsInput;
  for (auto _ : s) {
    HMAC(EVP_sha256(), kSecret.data(), int(kSecret.size()), reinterpret_cast<const unsigned char*>(in.data()),
         in.size(), mac, &len);
    benchmark::DoNotOptimize(mac);
  }
}
void BM_RS256_Verify_Ours(benchmark::State& s) { verifyOurs(s, fx().rsVerifier, fx().rs); }
void BM_RS256_Verify_RawEvp(benchmark::State& s) {
  rawEvpVerify(s, qzOpenSSL::GetPkey(*fx().rsaProvider.key), fx().rsInput, fx().rsSig);
}
void BM_ES256_Verify_Ours(benchmark::State& s) { verifyOurs(s, fx().esVerifier, fx().es); }
void BM_ES256_Verify_RawEvp(benchmark::State& s) {
  rawEvpVerify(s, qzOpenSSL::GetPkey(*fx().ecProvider.key), fx().esInput, fx().esDer);
}

// ---- signing

void signOurs(benchmark::State& state, AsymmetricKey* key, Alg alg) {
  for (auto _ : state) {
    auto c = claims();
    std::string token;
    bool ok = key ? CreateSignedJwt(c, *key, alg, token, 0) : CreateHashedJwt(c, kSecret, alg, token, 0);
    if (!ok) {
      state.SkipWithError("sign failed");
      break;
    }
  }
}
void BM_HS256_Sign_Ours(benchmark::State& s) { signOurs(s, nullptr, HS256); }
void BM_HS256_Sign_RawHmac(benchmark::State& s) { BM_HS256_Verify_RawHmac(s); }
void BM_RS256_Sign_Ours(benchmark::State& s) { signOurs(s, fx().rsa.get(), RS256); }
void BM_RS256_Sign_RawEvp(benchmark::State& s) { rawEvpSign(s, qzOpenSSL::GetPkey(*fx().rsa), fx().rsInput); }
void BM_ES256_Sign_Ours(benchmark::State& s) { signOurs(s, fx().ec.get(), ES256); }
void BM_ES256_Sign_RawEvp(benchmark::State& s) { rawEvpSign(s, qzOpenSSL::GetPkey(*fx().ec), fx().esInput); }

#ifdef HTTPTOOLS_HAVE_LIBJWT
void libjwtVerify(benchmark::State& state, const std::string& token, const std::string& key) {
  for (auto _ : state) {
    jwt_t* j = nullptr;
    int rc = jwt_decode(&j, token.c_str(), reinterpret_cast<const unsigned char*>(key.data()), int(key.size()));
    jwt_free(j);
    if (rc != 0) {
      state.SkipWithError("libjwt refused the token");
      break;
    }
  }
}
void libjwtSign(benchmark::State& state, jwt_alg_t alg, const std::string& key) {
  for (auto _ : state) {
    jwt_t* j = nullptr;
    jwt_new(&j);
    std::string text;
    qz::json::Json2Variant::Convert(claims(), text, false);
    jwt_add_grants_json(j, text.c_str());
    jwt_set_alg(j, alg, reinterpret_cast<const unsigned char*>(key.data()), int(key.size()));
    char* out = jwt_encode_str(j);
    bool ok = out != nullptr;
    free(out);
    jwt_free(j);
    if (!ok) {
      state.SkipWithError("libjwt could not sign");
      break;
    }
  }
}
void BM_HS256_Verify_Libjwt(benchmark::State& s) { libjwtVerify(s, fx().hs, kSecret); }
void BM_RS256_Verify_Libjwt(benchmark::State& s) { libjwtVerify(s, fx().rs, fx().rsaPub); }
void BM_ES256_Verify_Libjwt(benchmark::State& s) { libjwtVerify(s, fx().es, fx().ecPub); }
void BM_HS256_Sign_Libjwt(benchmark::State& s) { libjwtSign(s, JWT_ALG_HS256, kSecret); }
void BM_RS256_Sign_Libjwt(benchmark::State& s) { libjwtSign(s, JWT_ALG_RS256, fx().rsaPriv); }
void BM_ES256_Sign_Libjwt(benchmark::State& s) { libjwtSign(s, JWT_ALG_ES256, fx().ecPriv); }
#endif

// Collects the CPU time per iteration of every run (steadier than wall time on a shared
// machine), to print the ratios afterwards.
class RatioReporter : public benchmark::ConsoleReporter {
public:
  std::map<std::string, double> ns;
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const auto& r : runs)
      if (!r.error_occurred && r.run_type == Run::RT_Iteration)
        ns[r.run_name.function_name] = r.GetAdjustedCPUTime();
    ConsoleReporter::ReportRuns(runs);
  }
};

} // namespace

#define HT_BENCH(name) BENCHMARK(name)->MinTime(0.5)
HT_BENCH(BM_HS256_Verify_Ours);
HT_BENCH(BM_HS256_Verify_RawHmac);
HT_BENCH(BM_RS256_Verify_Ours);
HT_BENCH(BM_RS256_Verify_RawEvp);
HT_BENCH(BM_ES256_Verify_Ours);
HT_BENCH(BM_ES256_Verify_RawEvp);
HT_BENCH(BM_HS256_Sign_Ours);
HT_BENCH(BM_HS256_Sign_RawHmac);
HT_BENCH(BM_RS256_Sign_Ours);
HT_BENCH(BM_RS256_Sign_RawEvp);
HT_BENCH(BM_ES256_Sign_Ours);
HT_BENCH(BM_ES256_Sign_RawEvp);
#ifdef HTTPTOOLS_HAVE_LIBJWT
HT_BENCH(BM_HS256_Verify_Libjwt);
HT_BENCH(BM_RS256_Verify_Libjwt);
HT_BENCH(BM_ES256_Verify_Libjwt);
HT_BENCH(BM_HS256_Sign_Libjwt);
HT_BENCH(BM_RS256_Sign_Libjwt);
HT_BENCH(BM_ES256_Sign_Libjwt);
#endif

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  fx(); // key generation stays out of the measurements
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  auto& t = reporter.ns;
  auto ratio = [&t](const char* label, const std::string& ours, const std::string& ref, const char* note) {
    if (!t.count(ours) || !t.count(ref))
      return;
    std::printf("  %-34s %6.2fx  %s\n", label, t[ours] / t[ref], note);
  };
  std::printf("\nCPU time ratios (ours / reference; < 1 is faster):\n");
  for (const char* alg : {"HS256", "RS256", "ES256"}) {
    const std::string a = std::string("BM_") + alg;
    const std::string raw = std::string(alg).starts_with("HS") ? "_RawHmac" : "_RawEvp";
    ratio((std::string(alg) + " verify vs raw OpenSSL").c_str(), a + "_Verify_Ours", a + "_Verify" + raw,
          std::string(alg).starts_with("HS") ? "(target <= 3.00x)" : "(target <= 1.18x, i.e. >= 0.85x rate)");
    ratio((std::string(alg) + " verify vs libjwt").c_str(), a + "_Verify_Ours", a + "_Verify_Libjwt", "");
    ratio((std::string(alg) + " sign vs raw OpenSSL").c_str(), a + "_Sign_Ours", a + "_Sign" + raw, "");
    ratio((std::string(alg) + " sign vs libjwt").c_str(), a + "_Sign_Ours", a + "_Sign_Libjwt", "");
  }
  benchmark::Shutdown();
  return 0;
}
