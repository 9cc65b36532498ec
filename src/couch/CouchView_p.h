#pragma once

#include <HttpTools/couch/CouchConnectionParameters.h>
#include <HttpTools/platform/Export.h>

#include <list>
#include <string>
#include <vector>

namespace qz::couch {

// The pieces of FetchCouchDbView, reachable by tests.

qz::Url BuildViewUrl(const CouchConnectionParameters& server, const std::string& dbName,
                     const std::string& designDocName, const std::string& viewName, long limit);

} // namespace qz::couch
