#include <HttpTools/river/RiverSource_p.h>

#include <HttpTools/couch/CouchRequest_p.h>
#include <HttpTools/platform/qzJson.h>
#include <HttpTools/platform/qzLog.h>

#include <cstdio>
#include <random>

namespace qz::river::detail {

namespace {

using qz::couch::detail::Reply;

RiverOutcome CouchFailure(const std::string& what, const Reply& reply) {
  const bool transient = reply.code == 0 || reply.code == 429 || reply.code >= 500;
  return RiverOutcome::Failure(Side::Couch, !transient, "CouchDB: " + what + ": " + reply.reason());
}

} // namespace

int64_t IntegerSeq(const std::string& seq) {
  if (seq.empty() || seq.size() > 18 || seq.find_first_not_of("0123456789") != std::string::npos)
    return -1;
  return std::stoll(seq);
}

SourceWatch::SourceWatch(http::HttpConnectionPool& pool, qz::couch::CouchConnectionParameters couch,
                         std::string database, const std::string& river)
    : m_pool(pool), m_couch(std::move(couch)), m_database(std::move(database)), m_markerId("httptools-river-" + river) {
}

RiverOutcome SourceWatch::mark(RiverState& state, const bool* cancel) {
  std::random_device random;
  char token[33];
  std::snprintf(token, sizeof token, "%08x%08x%08x%08x", random(), random(), random(), random());
  const qz::Url url = m_couch.toUrl({m_database, "_local", m_markerId}, {});
  qzVariantMapImpl marker{{"token", std::string(token)}, {"river", m_markerId}};
  Reply reply;
  qz::couch::detail::RequestWithRetry(m_pool, url, http::Method::Get, nullptr, reply, cancel);
  qzVariantMapImpl earlier; // replaced by naming its _rev
  if (reply.code == 200 && qz::json::Json2Variant::Convert(reply.body, earlier) && earlier.count("_rev"))
    marker["_rev"] = earlier["_rev"];
  const std::string body = JsonText(std::move(marker));
  qz::couch::detail::RequestWithRetry(m_pool, url, http::Method::Put, &body, reply, cancel);
  if (reply.code == 401 || reply.code == 403) {
    if (!m_unwritable)
      qzLogObject(qzLog::Warning, "river") << "The river cannot write its marker in " << m_database << " ("
                                           << reply.reason() << "): a recreated database is told by its seq only";
    m_unwritable = true;
    return RiverOutcome::Done();
  }
  if (reply.code != 201 && reply.code != 200)
    return CouchFailure("writing the marker " + m_markerId, reply);
  state.marker = token;
  return RiverOutcome::Done();
}

RiverOutcome SourceWatch::seqBelowCheckpoint(const RiverState& state, bool& below, const bool* cancel) {
  below = false;
  const int64_t checkpoint = IntegerSeq(state.targetSeq());
  if (checkpoint <= 0)
    return RiverOutcome::Done();
  Reply reply;
  qz::couch::detail::RequestWithRetry(m_pool, m_couch.toDatabaseUrl(m_database, {}), http::Method::Get, nullptr, reply,
                                      cancel);
  if (reply.code != 200)
    return CouchFailure("reading " + m_database, reply);
  qzVariantMapImpl info;
  qz::json::Json2Variant::Convert(reply.body, info);
  const int64_t now = IntegerSeq(info["update_seq"].toString());
  below = now >= 0 && now < checkpoint;
  return RiverOutcome::Done();
}

RiverOutcome SourceWatch::check(RiverState& state, bool& recreated, const bool* cancel) {
  recreated = false;
  Reply reply;
  qz::couch::detail::RequestWithRetry(m_pool, m_couch.toUrl({m_database, "_local", m_markerId}, {}), http::Method::Get,
                                      nullptr, reply, cancel);
  qzVariantMapImpl marker;
  if (reply.code == 200)
    qz::json::Json2Variant::Convert(reply.body, marker);
  else if (reply.code != 404)
    return CouchFailure("reading the marker " + m_markerId, reply);
  else if (reply.body.find("no_db_file") != std::string::npos || reply.reason().find("not exist") != std::string::npos)
    return RiverOutcome::Done(); // no database: the feed tells
  const std::string token = marker["token"].toString();
  if (!token.empty() && state.marker.empty()) { // written before the state was: ours
    state.marker = token;
    return RiverOutcome::Done();
  }
  if (!state.marker.empty()) {
    recreated = token != state.marker;
    return RiverOutcome::Done();
  }
  // No marker on either side: a first run, a release without markers, or a server refusing them.
  if (auto below = seqBelowCheckpoint(state, recreated, cancel); !below.ok() || recreated || m_unwritable)
    return below;
  return mark(state, cancel);
}

} // namespace qz::river::detail
