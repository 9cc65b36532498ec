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
};

} // namespace qz::elasticsearch
