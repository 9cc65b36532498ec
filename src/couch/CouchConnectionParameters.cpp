#include <HttpTools/couch/CouchConnectionParameters.h>

namespace qz::couch {

CouchConnectionParameters::~CouchConnectionParameters() = default;

bool CouchConnectionParameters::BuildFromDbUrl(CouchConnectionParameters* params, std::string* dbName,
                                               const std::string& dbUrl) {
  if (dbName)
    dbName->clear();
  if (!params)
    return false;
  std::string parseError; // a bad URL is reported by the result alone
  if (!params->fromEncodedUtf8String(dbUrl, &parseError, false))
    return false;
  auto& segments = params->pathSegments;
  if (segments.empty()) {
    params->clearUrl(ClearAll);
  } else {
    if (dbName)
      *dbName = segments.back();
    segments.pop_back();
  }
  return params->isValid();
}

CouchConnectionParameters CouchConnectionParameters::toDatabaseUrl(const std::string& dbName,
                                                                   const Query& query) const {
  return CouchConnectionParameters(toUrl(std::vector<std::string>{dbName}, query));
}

CouchConnectionParameters CouchConnectionParameters::toDocumentUrl(const std::string& dbName, const std::string& docId,
                                                                   const Query& query) const {
  return CouchConnectionParameters(toUrl(std::vector<std::string>{dbName, docId}, query));
}

CouchConnectionParameters CouchConnectionParameters::toDesignDocumentUrl(const std::string& dbName,
                                                                         const std::string& designDocName,
                                                                         const Query& query) const {
  return CouchConnectionParameters(toUrl(std::vector<std::string>{dbName, "_design", designDocName}, query));
}

} // namespace qz::couch
