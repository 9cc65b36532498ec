#pragma once

#include <HttpTools/http/HttpConnection.h>
#include <HttpTools/jwt/KeyStore.h>
#include <HttpTools/platform/qzVariant.h>
#include <HttpTools/url/Url.h>

#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <string>

namespace qz::jwt {

class HTTPTOOLS_HIDDEN KeyStore::KeyStorePrivate {
public:
  static constexpr int64_t LifetimeSec = 43200;

  // One cache entry: a usable key with the algorithms it may verify, or the reason it was refused.
  class KeyWrapper {
  public:
    KeyWrapper() = default;
    KeyWrapper(std::shared_ptr<AsymmetricKey> key, int algMask);
    explicit KeyWrapper(const std::string& error);

    std::shared_ptr<AsymmetricKey> getKey() const { return m_key; }
    int getAlgMask() const { return m_algMask; }
    const std::string& getError() const { return m_error; }
    bool isExpired() const;
    // Takes ownership of `key` and restamps the entry.
    void resetKey(AsymmetricKey* key);

  private:
    std::shared_ptr<AsymmetricKey> m_key;
    int m_algMask = 0;
    int64_t m_creationTime = 0;
    std::string m_error;
  };

  KeyStorePrivate(qz::http::HttpConnectionPool& pool, const qz::Url& keySetUrl, bool validateSsl,
                  qz::http::ProxyPolicy proxyPolicy, const qz::Url& proxyUrl);

  const KeyWrapper* getKeyFromIdNoUpdate(const std::string& kid) const;
  const KeyWrapper* getKeyFromId(const std::string& kid, bool forceReload);
  bool loadFromUrl();
  bool loadJWKSet(const qzVariantMapImpl& set);
  void cacheKey(const std::string& kid, std::shared_ptr<AsymmetricKey> key, int algMask);
  void registerError(const std::string& kid, const std::string& errorText);
  void clearExpired();

  size_t cacheSize() const { return m_cache.size(); }

  qz::http::HttpConnectionPool& m_pool;
  qz::Url m_url;
  qz::http::HttpConnection::ConnectionParameters m_params;
  unsigned m_unknownKidCooldownSec = 0;
  int64_t m_lastDownloadSec = 0;
  bool m_downloaded = false;

private:
  void store(const std::string& kid, KeyWrapper&& wrapper);

  // Key ids in order of their last (re)insertion, oldest first; each cache entry knows its place
  // in that list, so that a refresh moves it in constant time.
  std::list<std::string> m_ages;
  struct Entry {
    std::unique_ptr<KeyWrapper> wrapper;
    std::list<std::string>::iterator age;
  };
  std::map<std::string, Entry> m_cache;
};

} // namespace qz::jwt
