#include <HttpTools/couch/ConflictSolver.h>

#include <HttpTools/couch/CouchRequest_p.h>
#include <HttpTools/http/HttpConnectionPool.h>
#include <HttpTools/platform/qzJson.h>

namespace qz::couch {

class ConflictSolver::Private {
public:
  http::HttpConnectionPool& pool;
  CouchConnectionParameters server;
  std::string db;
  Resolver resolver;
};

ConflictSolver::ConflictSolver(http::HttpConnectionPool& pool, const CouchConnectionParameters& server,
                               const std::string& db)
    : d(new Private{pool, server, db, {}}) {
  pool.ensureAtLeastMaxConcurrentConnection(1);
}
ConflictSolver::~ConflictSolver() = default;
void ConflictSolver::setResolver(Resolver resolver) { d->resolver = std::move(resolver); }

bool ConflictSolver::solve(const std::string& docId, std::string* error, bool* solved) {
  if (solved)
    *solved = false;
  auto fail = [&](const std::string& why) {
    if (error)
      *error = "solving " + docId + ": " + why;
    return false;
  };
  detail::Reply reply;
  const qz::Url current = d->server.toDocumentUrl(d->db, docId, {{"conflicts", "true"}});
  if (!detail::RequestWithRetry(d->pool, current, http::Method::Get, nullptr, reply, nullptr) || reply.code != 200)
    return fail(reply.reason());
  qzVariantMapImpl winner;
  if (!json::Json2Variant::Convert(reply.body, winner))
    return fail("invalid json answer");
  auto conflicts = winner.find("_conflicts");
  if (conflicts == winner.end() || conflicts->second.toList().empty())
    return true;
  winner.erase(conflicts);
  const std::string winningRev = winner["_rev"].toString();

  const qz::Url all = d->server.toDocumentUrl(d->db, docId, {{"open_revs", "all"}});
  if (!detail::RequestWithRetry(d->pool, all, http::Method::Get, nullptr, reply, nullptr) || reply.code != 200)
    return fail(reply.reason());
  qzVariantListImpl answer;
  if (!json::Json2Variant::Convert(reply.body, answer))
    return fail("invalid json answer to open_revs");
  std::vector<qzVariantMapImpl> leaves;
  for (const qzVariant& entry : answer) {
    auto ok = entry.toMap().find("ok");
    if (ok == entry.toMap().end() || !ok->second.isMap())
      continue;
    const qzVariantMapImpl& leaf = ok->second.toMap();
    auto deleted = leaf.find("_deleted");
    if (deleted == leaf.end() || !deleted->second.toBool())
      leaves.push_back(leaf);
  }

  qzVariantMapImpl chosen = winner;
  if (d->resolver && !d->resolver(docId, leaves, chosen))
    return true;

  // The chosen body goes on the winning revision; every other leaf is deleted.
  std::string body = "{\"docs\":[";
  size_t docs = 0;
  chosen["_id"] = docId;
  chosen["_rev"] = winningRev;
  chosen.erase("_conflicts");
  if (chosen != winner) {
    body += detail::ToJson(chosen);
    ++docs;
  }
  for (const qzVariantMapImpl& leaf : leaves) {
    auto rev = leaf.find("_rev");
    if (rev == leaf.end() || rev->second.toString() == winningRev)
      continue;
    qzVariantMapImpl tombstone{{"_id", docId}, {"_rev", rev->second}, {"_deleted", true}};
    body += (docs++ ? "," : "") + detail::ToJson(tombstone);
  }
  body += "]}";
  if (docs == 0)
    return true;
  const qz::Url bulk = d->server.toDatabaseUrl(d->db, {}).toUrl(std::vector<std::string>{"_bulk_docs"}, {});
  if (!detail::RequestWithRetry(d->pool, bulk, http::Method::Post, &body, reply, nullptr) || reply.code != 201)
    return fail(reply.reason());
  qzVariantListImpl results;
  if (!json::Json2Variant::Convert(reply.body, results))
    return fail("invalid json answer to _bulk_docs");
  for (const qzVariant& r : results)
    if (auto e = r.toMap().find("error"); e != r.toMap().end()) {
      auto why = r.toMap().find("reason");
      return fail(e->second.toString() + (why != r.toMap().end() ? ": " + why->second.toString() : std::string()));
    }
  if (solved)
    *solved = true;
  return true;
}

bool ConflictSolver::findConflicts(std::vector<std::string>& ids, std::string* error, const bool* cancel) {
  ids.clear();
  const size_t page = 500;
  std::string startKey;
  for (;;) {
    if (http::CancelToken::IsSet(cancel)) {
      if (error)
        *error = "cancelled";
      return false;
    }
    CouchConnectionParameters::Query query = {
        {"include_docs", "true"}, {"conflicts", "true"}, {"limit", std::to_string(page)}};
    if (!startKey.empty()) {
      query.emplace_back("startkey", detail::JsonString(startKey));
      query.emplace_back("skip", "1");
    }
    const qz::Url url = d->server.toDatabaseUrl(d->db, {}).toUrl(std::vector<std::string>{"_all_docs"}, query);
    detail::Reply reply;
    if (!detail::RequestWithRetry(d->pool, url, http::Method::Get, nullptr, reply, cancel) || reply.code != 200) {
      if (error)
        *error = "listing conflicts of " + d->db + ": " + reply.reason();
      return false;
    }
    qzVariantMapImpl answer;
    if (!json::Json2Variant::Convert(reply.body, answer)) {
      if (error)
        *error = "listing conflicts of " + d->db + ": invalid json answer";
      return false;
    }
    const qzVariantListImpl& rows = answer["rows"].toList();
    for (const qzVariant& row : rows) {
      const qzVariantMapImpl& doc = row.toMap().count("doc") ? row.toMap().at("doc").toMap() : qzVariantMapImpl();
      if (auto c = doc.find("_conflicts"); c != doc.end() && !c->second.toList().empty())
        ids.push_back(row.toMap().at("id").toString());
    }
    if (rows.size() < page)
      return true;
    startKey = rows.back().toMap().count("id") ? rows.back().toMap().at("id").toString() : std::string();
    if (startKey.empty())
      return true;
  }
}

bool ConflictSolver::solveAll(size_t* solved, std::string* error, const bool* cancel) {
  if (solved)
    *solved = 0;
  std::vector<std::string> ids;
  if (!findConflicts(ids, error, cancel))
    return false;
  for (const std::string& id : ids) {
    if (http::CancelToken::IsSet(cancel)) {
      if (error)
        *error = "cancelled";
      return false;
    }
    bool wrote = false;
    if (!solve(id, error, &wrote))
      return false;
    if (wrote && solved)
      ++*solved;
  }
  return true;
}

} // namespace qz::couch
