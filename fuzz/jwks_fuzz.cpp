// JWK sets from arbitrary JSON text: the walk of the set never crashes, and every entry it
// caches is a key with a mask of one family or a refusal with a reason.
#include <HttpTools/frame/HttpToolsLib.h>
#include <HttpTools/http/HttpConnectionPool.h>
#include <HttpTools/jwt/KeyStore_p.h>
#include <HttpTools/platform/qzJson.h>
#include <HttpTools/platform/qzLog.h>

#include <cstdint>
#include <cstdlib>

namespace {
struct Env {
  Env() {
    qz::qzLog::SetSink([](int, const std::string&, const std::string&) {});
    qz::initializeHttpTools(true, qz::http::HNRP_Whatever, qz::http::PP_NoProxy);
    pool = new qz::http::HttpConnectionPool;
  }
  qz::http::HttpConnectionPool* pool;
};
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static Env env;
  qz::qzVariantMapImpl set;
  if (!qz::json::Json2Variant::Convert(reinterpret_cast<const char*>(data), size, set))
    return 0;
  qz::jwt::KeyStore::KeyStorePrivate store(*env.pool, qz::Url("http://127.0.0.1:1/jwks"), true, qz::http::PP_NoProxy,
                                           qz::Url());
  store.loadJWKSet(set);
  auto keys = set.find("keys");
  if (keys == set.end() || !keys->second.isList())
    return 0;
  for (const auto& element : keys->second.toList()) {
    if (!element.isMap() || !element.toMap().count("kid"))
      continue;
    const auto* w = store.getKeyFromIdNoUpdate(element.toMap().at("kid").toString());
    if (!w)
      std::abort(); // every element with a kid leaves an entry
    if (w->getKey() ? (w->getAlgMask() != 896 && w->getAlgMask() != 7168) || !w->getError().empty()
                    : w->getError().empty())
      std::abort();
  }
  return 0;
}
