#include <HttpTools/couch/CouchConnectionParameters.h>
#include <HttpTools/url/Url_p.h>

namespace qz::couch {

CouchConnectionParameters::~CouchConnectionParameters() = default;

bool CouchConnectionParameters::BuildFromDbUrl(CouchConnectionParameters* params, std::string* dbName,
                                               const std::string& dbUrl) {
  return url_impl::SplitLastSegment(params, dbName, dbUrl);
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
