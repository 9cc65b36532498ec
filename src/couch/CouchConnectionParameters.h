#pragma once

#include <HttpTools/platform/Export.h>
#include <HttpTools/url/Url.h>

#include <list>
#include <string>
#include <utility>

namespace qz::couch {

/// The address of a CouchDB server (scheme, credentials, host, port, optional path prefix); the
/// database is not part of it and is given to each URL-building call.
class HTTPTOOLS_API CouchConnectionParameters : public qz::Url {
public:
  /// Query items, in order, not encoded.
  using Query = std::list<std::pair<std::string, std::string>>;

  /// Empty, or the server part of `url`; copies take every field.
  ///@{
  CouchConnectionParameters() = default;
  CouchConnectionParameters(const qz::Url& url) : qz::Url(url) {}
  CouchConnectionParameters(const CouchConnectionParameters&) = default;
  CouchConnectionParameters& operator=(const CouchConnectionParameters&) = default;
  ///@}
  ~CouchConnectionParameters() override;

  /// Splits "server/.../db" into the server's parameters and the database name (the last path
  /// segment). False on a null `params`, an unparsable URL or a URL without path; `dbName` is
  /// cleared first.
  static bool BuildFromDbUrl(CouchConnectionParameters* params, std::string* dbName, const std::string& dbUrl);

  /// URLs of a database, a document, or a design document ("_design/NAME") on this server, with `query`; names are
  /// encoded as one path segment each.
  ///@{
  CouchConnectionParameters toDatabaseUrl(const std::string& dbName, const Query& query) const;
  CouchConnectionParameters toDocumentUrl(const std::string& dbName, const std::string& docId,
                                          const Query& query) const;
  CouchConnectionParameters toDesignDocumentUrl(const std::string& dbName, const std::string& designDocName,
                                                const Query& query) const;
  ///@}
};

} // namespace qz::couch
