#include <HttpTools/couch/CouchView.h>
#include <HttpTools/couch/CouchView_p.h>

#include <HttpTools/couch/ViewResultStreamParser_p.h>
#include <HttpTools/http/HttpConnection.h>
#include <HttpTools/platform/qzIoDevice.h>
#include <HttpTools/platform/qzJson.h>
#include <HttpTools/platform/qzJson_p.h>
#include <HttpTools/platform/qzLog.h>
#include <HttpTools/platform/qzStringUtils.h>
#include <HttpTools/platform/qzSystemUtils.h>
#include <HttpTools/platform/qzThread.h>

namespace qz::couch {

qz::Url BuildViewUrl(const CouchConnectionParameters& server, const std::string& dbName,
                     const std::string& designDocName, const std::string& viewName, long limit) {
  std::vector<std::string> segments;
  if (designDocName.empty() && viewName.empty())
    segments = {"_all_docs"};
  else
    segments = {"_design", designDocName, "_view", viewName};
  std::list<std::pair<std::string, std::string>> query;
  if (limit >= 0)
    query.emplace_back("limit", std::to_string(limit));
  return server.toDatabaseUrl(dbName, {}).toUrl(segments, query);
}

bool FetchCouchDbView(http::HttpConnection& connection, const CouchConnectionParameters& server,
                      const std::string& dbName, const std::string& designDocName, const std::string& viewName,
                      const std::vector<std::string>* keys,
                      bool (*rowFunction)(const std::string& id, qzVariant& key, qzVariant& value, void* userData),
                      void* userData, long limit, unsigned int timeOutRetryMs, const bool* cancelFlag) {
  static const bool notCancelled = false;
  const int64_t start = qzSystemUtils::GetTimeBaseMs();
  const bool* cancel = cancelFlag ? cancelFlag : &notCancelled;

  const qz::Url url = BuildViewUrl(server, dbName, designDocName, viewName, limit);
  std::string body;
  if (keys)
    body = json::JsonStringArray("keys", keys->data(), keys->data() + keys->size());

  ViewResultStreamParser parser(rowFunction, userData, cancel);
  for (;;) {
    // Each attempt starts from an empty parser state; rows of a failed attempt are not recalled.
    parser.reset();
    if (keys)
      parser.setRequestBody(&body);
    parser.setMaxBodyBytes(connection.getConnectionParameters().maxBodyBytes);
    if (connection.getHttpData(url, std::string(), 200, &InstallViewOptions, &parser, ViewRequestShape(parser)))
      break;
    if (!parser.failure().empty())
      connection.addErrorDetail(parser.failure());
    if (http::CancelToken::IsSet(cancel))
      return false;
    if (!connection.isLastCallTimedOut()) {
      qzLogObject(qzLog::Error, "couchdb") << "Error while fetching view " << viewName << " of document "
                                           << designDocName << " " << connection.getLastErrorMsg();
      return false;
    }
    if (qzSystemUtils::GetTimeBaseMs() - start >= int64_t(timeOutRetryMs)) {
      if (timeOutRetryMs != 0)
        qzLogObject(qzLog::Error, "couchdb")
            << "Timeout while fetching view " << viewName << " of document " << designDocName;
      return false;
    }
    qzThread::msleep(250);
  }

  const long elapsed = long(qzSystemUtils::GetTimeBaseMs() - start);
  const std::string duration = qzStringUtils::humanizeDuration<long>(elapsed, 1, true);
  if (qzLog::IsCategoryEnabled("couchdb"))
    qzLogObject(qzLog::Info, "couchdb") << "Fetch " << parser.rowCount() << " doc(s) from view _design/"
                                        << designDocName << "/_view/" << viewName << " in " << duration;
  return true;
}

} // namespace qz::couch
