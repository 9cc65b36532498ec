#pragma once

#include <HttpTools/platform/Export.h>
#include <HttpTools/url/Url.h>

#include <list>
#include <string>
#include <utility>
#include <vector>

namespace qz::elasticsearch {

/// The address of an Elasticsearch server (scheme, credentials, host, port, optional path prefix);
/// the index is not part of it and is given to each URL-building call.
class HTTPTOOLS_API ElasticConnectionParameters : public qz::Url {
public:
  /// Query items, in order, not encoded.
  using Query = std::list<std::pair<std::string, std::string>>;

  /// Empty, or the server part of `url`; copies take every field.
  ///@{
  ElasticConnectionParameters() = default;
  explicit ElasticConnectionParameters(const qz::Url& url) : qz::Url(url) {}
  ElasticConnectionParameters(const ElasticConnectionParameters&) = default;
  ElasticConnectionParameters& operator=(const ElasticConnectionParameters&) = default;
  ///@}
  ~ElasticConnectionParameters() override;

  /// Splits "server/.../index" into the server's parameters and the index name (the last path
  /// segment). False on a null `params`, an unparsable URL or a URL without path; `index` is
  /// cleared first.
  static bool BuildFromIndexUrl(ElasticConnectionParameters* params, std::string* index, const std::string& url);

  ElasticConnectionParameters toIndexUrl(const std::string& index, const Query& query) const; ///< server/index
  /// server/index/_doc/id
  ElasticConnectionParameters toDocumentUrl(const std::string& index, const std::string& id, const Query& query) const;
  /// server/segments... (an empty first segment is left out: "_bulk" at the server's root)
  ElasticConnectionParameters toApiUrl(const std::vector<std::string>& segments, const Query& query) const;

  /// Authentication and transport, sent with every request made with these parameters (the URLs
  /// built above carry them). Basic credentials come from the URL's user-info (decoded). When
  /// several are set, the API key wins over the bearer token, and either over Basic. Secrets are wiped on
  /// destruction and never logged.
  ///@{
  std::string apiKey;                    ///< "Authorization: ApiKey <apiKey>": base64 of "id:key"; a secret
  std::string bearerToken;               ///< "Authorization: Bearer <token>"; a secret
  std::vector<std::string> extraHeaders; ///< whole lines "Name: value"; may hold secrets
  std::string caFile;                    ///< CA bundle for the server's certificate; empty: the connection's
  std::string clientCertFile;            ///< PEM client certificate for mutual TLS
  std::string clientKeyFile;             ///< its PEM private key (unencrypted); empty: in the certificate file
  ///@}
  /// Sets apiKey from an API key's id and secret (base64 of "id:key").
  void setApiKey(const std::string& id, const std::string& key);
  /// The Authorization and extra header lines for a request, in that order.
  std::vector<std::string> headerLines() const;

private:
  ElasticConnectionParameters derived(const qz::Url& url) const;
};

} // namespace qz::elasticsearch
