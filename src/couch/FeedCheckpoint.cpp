#include <HttpTools/couch/FeedCheckpoint.h>
#include <HttpTools/platform/qzJson_p.h>

#include <HttpTools/couch/CouchRequest_p.h>
#include <HttpTools/http/HttpConnectionPool.h>
#include <HttpTools/platform/qzJson.h>

namespace qz::couch {

class FeedCheckpoint::Private {
public:
  http::HttpConnectionPool& pool;
  qz::Url url;
  std::string rev; // of the stored document, "" when none is known
  std::string saved;
};

FeedCheckpoint::FeedCheckpoint(http::HttpConnectionPool& pool, const CouchConnectionParameters& server,
                               const std::string& db, const std::string& name)
    : d(new Private{pool, server.toDatabaseUrl(db, {}).toUrl(std::vector<std::string>{"_local", name}, {}), {}, {}}) {}
FeedCheckpoint::~FeedCheckpoint() = default;

bool FeedCheckpoint::load(std::string& seq, std::string* error, const std::string& fallback, const bool* cancel) {
  detail::Reply reply;
  if (!detail::RequestWithRetry(d->pool, d->url, http::Method::Get, nullptr, reply, cancel) ||
      (reply.code != 200 && reply.code != 404)) {
    if (error)
      *error = "reading checkpoint: " + reply.reason();
    return false;
  }
  d->rev.clear();
  seq = fallback;
  if (reply.code == 404)
    return true;
  qzVariantMapImpl doc;
  json::Json2Variant::Convert(reply.body, doc);
  d->rev = doc["_rev"].toString();
  if (auto s = doc.find("seq"); s != doc.end() && !s->second.isNull())
    seq = s->second.toString();
  d->saved = seq;
  return true;
}

bool FeedCheckpoint::save(const std::string& seq, std::string* error, const bool* cancel) {
  for (int attempt = 0; attempt < 5; ++attempt) {
    qzVariantMapImpl doc{{"seq", seq}};
    if (!d->rev.empty())
      doc["_rev"] = d->rev;
    std::string body;
    json::AppendJson(body, doc);
    detail::Reply reply;
    if (!detail::RequestWithRetry(d->pool, d->url, http::Method::Put, &body, reply, cancel))
      break;
    if (reply.code == 201 || reply.code == 200) {
      qzVariantMapImpl answer;
      json::Json2Variant::Convert(reply.body, answer);
      d->rev = answer["rev"].toString();
      d->saved = seq;
      return true;
    }
    if (reply.code != 409) {
      if (error)
        *error = "storing checkpoint: " + reply.reason();
      return false;
    }
    std::string ignored;
    if (!load(ignored, error, {}, cancel))
      return false;
  }
  if (error)
    *error = "storing checkpoint failed";
  return false;
}

bool FeedCheckpoint::follow(ChangesFeedListener& feed, const std::function<bool(std::vector<Change>&)>& onBatch,
                            std::string* error, const bool* cancel) {
  std::string since;
  if (!load(since, error, feed.lastSeq(), cancel))
    return false;
  feed.setSince(since);
  bool stored = true;
  const bool ok = feed.runBatches(
      [&](std::vector<Change>& batch, const std::string& checkpoint) {
        if (!onBatch(batch))
          return false;
        stored = checkpoint.empty() || save(checkpoint, error, cancel);
        return stored;
      },
      error, cancel);
  // Caught up without a change after the last batch: its last_seq is the checkpoint.
  if (ok && stored && feed.lastSeq() != d->saved)
    stored = save(feed.lastSeq(), error, cancel);
  return ok && stored;
}

} // namespace qz::couch
