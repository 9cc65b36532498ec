#pragma once

#include <HttpTools/couch/CouchConnectionParameters.h>
#include <HttpTools/platform/Export.h>
#include <HttpTools/platform/qzVariant.h>

#include <string>
#include <vector>

namespace qz::http {
class HttpConnection;
}

namespace qz::couch {

/// Runs one view query over `connection` and hands every row to `rowFunction` while the response
/// arrives, so a view of any size is read in bounded memory.
///
/// Empty `designDocName` and `viewName` query _all_docs. `keys` (may be null) makes the request a
/// POST of {"keys":[...]}. `limit` >= 0 is sent as the limit parameter, a negative one sends none.
/// A request that timed out is repeated until `timeOutRetryMs` have passed since the call began
/// (0: never). `cancelFlag` (may be null) set to true stops the transfer at the next chunk.
/// Returns true when the whole response was read and every row accepted; false on a transport or
/// HTTP error, an exhausted time-out budget, a malformed row, a row refused by `rowFunction`, or a
/// cancel.
/// Another thread that sets a cancel flag must store it atomically:
/// std::atomic_ref<bool>(flag).store(true).
///
/// @code
/// bool print(const std::string& id, qzVariant& key, qzVariant& value, void*) {
///   std::cout << id << ' ' << key.toString() << ' ' << value.toString() << '\n';
///   return true;
/// }
/// qz::couch::FetchCouchDbView(conn, server, "orders", "app", "by_date", nullptr, &print,
///                             nullptr, -1, 5000, nullptr);
/// @endcode
HTTPTOOLS_API bool FetchCouchDbView(qz::http::HttpConnection& connection, const CouchConnectionParameters& server,
                                    const std::string& dbName, const std::string& designDocName,
                                    const std::string& viewName, const std::vector<std::string>* keys,
                                    bool (*rowFunction)(const std::string& id, qzVariant& key, qzVariant& value,
                                                        void* userData),
                                    void* userData, long limit, unsigned int timeOutRetryMs, const bool* cancelFlag);

} // namespace qz::couch
