#include <HttpTools/couch/CouchViewQuery.h>

#include <HttpTools/couch/ViewResultStreamParser_p.h>
#include <HttpTools/http/HttpConnection.h>
#include <HttpTools/platform/qzJson.h>
#include <HttpTools/platform/qzSystemUtils.h>
#include <HttpTools/platform/qzThread.h>

namespace qz::couch {

namespace {

struct RowContext {
  const std::function<bool(ViewRow&)>* onRow;
  std::string badRow;
  bool refused = false;
};

bool TakeRowText(const char* text, size_t length, void* userData) {
  auto* ctx = static_cast<RowContext*>(userData);
  qzVariantMapImpl row;
  if (!json::Json2Variant::Convert(text, length, row)) {
    ctx->badRow.assign(text, std::min<size_t>(length, 200));
    return false;
  }
  ViewRow out;
  auto take = [&row](const char* name, qzVariant& to) {
    auto it = row.find(name);
    if (it != row.end())
      to = std::move(it->second);
  };
  qzVariant id, error;
  take("id", id);
  take("key", out.key);
  take("value", out.value);
  take("doc", out.doc);
  take("error", error);
  out.id = id.isNull() ? std::string() : id.toString();
  out.error = error.isNull() ? std::string() : error.toString();
  if (!(*ctx->onRow)(out)) {
    ctx->refused = true;
    return false;
  }
  return true;
}

} // namespace

qz::Url BuildViewQueryUrl(const CouchConnectionParameters& server, const std::string& dbName,
                          const std::string& designDocName, const std::string& viewName,
                          const ViewQueryOptions& options) {
  std::vector<std::string> segments;
  if (designDocName.empty() && viewName.empty())
    segments = {"_all_docs"};
  else
    segments = {"_design", designDocName, "_view", viewName};
  CouchConnectionParameters::Query query;
  if (!options.startKey.empty())
    query.emplace_back("startkey", options.startKey);
  if (!options.endKey.empty())
    query.emplace_back("endkey", options.endKey);
  if (options.includeDocs)
    query.emplace_back("include_docs", "true");
  if (!options.reduce)
    query.emplace_back("reduce", "false");
  if (options.descending)
    query.emplace_back("descending", "true");
  if (!options.inclusiveEnd)
    query.emplace_back("inclusive_end", "false");
  if (options.skip > 0)
    query.emplace_back("skip", std::to_string(options.skip));
  if (options.limit >= 0)
    query.emplace_back("limit", std::to_string(options.limit));
  query.insert(query.end(), options.extraQuery.begin(), options.extraQuery.end());
  return server.toDatabaseUrl(dbName, {}).toUrl(segments, query);
}

bool FetchCouchDbView(http::HttpConnection& connection, const CouchConnectionParameters& server,
                      const std::string& dbName, const std::string& designDocName, const std::string& viewName,
                      const ViewQueryOptions& options, const std::function<bool(ViewRow& row)>& onRow,
                      std::string* error, const bool* cancelFlag) {
  static const bool notCancelled = false;
  const bool* cancel = cancelFlag ? cancelFlag : &notCancelled;
  const int64_t start = qzSystemUtils::GetTimeBaseMs();
  const qz::Url url = BuildViewQueryUrl(server, dbName, designDocName, viewName, options);
  std::string body;
  if (!options.keys.empty()) {
    body = "{\"keys\":[";
    for (size_t i = 0; i < options.keys.size(); ++i)
      body += (i ? "," : "") + options.keys[i];
    body += "]}";
  }
  auto fail = [&](const std::string& why) {
    if (error)
      *error = why;
    return false;
  };

  RowContext ctx{&onRow, {}, false};
  ViewResultStreamParser parser(nullptr, nullptr, cancel);
  parser.setRowTextFunction(&TakeRowText, &ctx);
  for (;;) {
    parser.reset();
    if (!body.empty())
      parser.setRequestBody(&body);
    if (connection.getHttpData(url, std::string(), 200, &InstallViewOptions, &parser, ViewRequestShape(parser)))
      return true;
    if (http::CancelToken::IsSet(cancel))
      return fail("cancelled");
    if (ctx.refused)
      return fail("row refused");
    if (!ctx.badRow.empty())
      return fail("invalid row in view result: " + ctx.badRow);
    if (!connection.isLastCallTimedOut() || qzSystemUtils::GetTimeBaseMs() - start >= int64_t(options.timeOutRetryMs))
      return fail("fetching view " + viewName + " of " + designDocName + ": " + connection.getLastErrorMsg());
    qzThread::msleep(250);
  }
}

} // namespace qz::couch
