#include <HttpTools/couch/CouchFind.h>
#include <HttpTools/platform/qzJson_p.h>

#include <HttpTools/couch/CouchRequest_p.h>
#include <HttpTools/http/CancelToken.h>
#include <HttpTools/http/HttpConnectionPool.h>
#include <HttpTools/platform/qzJson.h>

namespace qz::couch {

bool FindDocuments(http::HttpConnectionPool& pool, const CouchConnectionParameters& server, const std::string& db,
                   const FindQuery& query, const std::function<bool(qzVariant& doc)>& onDoc, FindStats* stats,
                   std::string* error, const bool* cancel) {
  FindStats counts;
  auto done = [&](bool ok, const std::string& why) {
    if (stats)
      *stats = counts;
    if (!ok && error)
      *error = why;
    return ok;
  };
  qzVariant selector;
  if (!json::Json2Variant::Convert(query.selector.data(), query.selector.size(), selector) || !selector.isMap())
    return done(false, "the selector is not a JSON object");
  qzVariantMapImpl request{{"selector", selector}};
  if (!query.fields.empty())
    request["fields"] = qzVariantListImpl(query.fields.begin(), query.fields.end());
  if (!query.sort.empty()) {
    qzVariantListImpl sort;
    for (const auto& [field, descending] : query.sort)
      sort.push_back(qzVariantMapImpl{{field, descending ? "desc" : "asc"}});
    request["sort"] = std::move(sort);
  }
  if (!query.useIndex.empty())
    request["use_index"] = query.useIndex;
  const qz::Url url = server.toDatabaseUrl(db, {}).toUrl(std::vector<std::string>{"_find"}, {});
  const size_t pageSize = std::max<size_t>(1, query.pageSize);
  std::string bookmark;
  size_t skip = 0;
  for (;;) {
    size_t want = pageSize;
    if (query.limit >= 0)
      want = std::min(want, size_t(query.limit) - counts.documents);
    if (want == 0)
      return done(true, {});
    request["limit"] = want;
    if (!bookmark.empty())
      request["bookmark"] = bookmark;
    else if (skip > 0)
      request["skip"] = skip;
    std::string body;
    json::AppendJson(body, request);
    detail::Reply reply;
    if (!detail::RequestWithRetry(pool, url, http::Method::Post, &body, reply, cancel) || reply.code != 200) {
      counts.transfer = reply.failure();
      return done(false, http::CancelToken::IsSet(cancel) ? "cancelled" : "_find in " + db + ": " + reply.reason());
    }
    qzVariantMapImpl answer;
    if (!json::Json2Variant::Convert(reply.body, answer))
      return done(false, "_find in " + db + ": invalid json answer");
    ++counts.pages;
    if (auto w = answer.find("warning"); w != answer.end())
      counts.warning = w->second.toString();
    qzVariantListImpl& docs = answer["docs"].asList();
    for (qzVariant& doc : docs) {
      ++counts.documents;
      if (!onDoc(doc))
        return done(true, {});
    }
    if (docs.size() < want)
      return done(true, {});
    auto next = answer.find("bookmark");
    if (next != answer.end() && next->second.isString() && !next->second.stringPtr()->empty() &&
        *next->second.stringPtr() != "nil") {
      bookmark = *next->second.stringPtr();
    } else {
      counts.pagedBySkip = true;
      bookmark.clear();
      skip += docs.size();
    }
  }
}

} // namespace qz::couch
