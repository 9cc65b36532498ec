#include <HttpTools/couch/ConflictSolver.h>

#include <HttpTools/couch/CouchRequest_p.h>
#include <HttpTools/couch/StoredDocuments_p.h>
#include <HttpTools/http/HttpConnectionPool.h>
#include <HttpTools/platform/qzJson.h>
#include <HttpTools/platform/qzJson_p.h>

#include <exception>
#include <set>

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
    : d(new Private{pool, server, db, {}}) {}
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
  try {
    if (d->resolver && !d->resolver(docId, leaves, chosen))
      return true;
  } catch (const std::exception& e) {
    return fail(std::string("the resolver failed: ") + e.what());
  } catch (...) {
    return fail("the resolver failed");
  }
  chosen["_id"] = docId;
  chosen["_rev"] = winningRev;
  chosen.erase("_conflicts");

  // The chosen body goes on the winning revision first; the other leaves are deleted only once it
  // is stored, so that a refused write loses nothing.
  const qz::Url bulk = d->server.toDatabaseUrl(d->db, {}).toUrl(std::vector<std::string>{"_bulk_docs"}, {});
  auto write = [&](const std::vector<qzVariantMapImpl>& docs, std::set<std::string>& refused) {
    std::string body = "{\"docs\":[";
    for (size_t i = 0; i < docs.size(); ++i) {
      body += i ? "," : "";
      json::AppendJson(body, docs[i]);
    }
    body += "]}";
    if (!detail::RequestWithRetry(d->pool, bulk, http::Method::Post, &body, reply, nullptr) || reply.code != 201)
      return fail(reply.reason());
    qzVariantListImpl results;
    if (!json::Json2Variant::Convert(reply.body, results))
      return fail("invalid json answer to _bulk_docs");
    for (size_t i = 0; i < results.size(); ++i) {
      const qzVariantMapImpl& r = results[i].toMap();
      auto e = r.find("error");
      if (e != r.end() && e->second.toString() == "conflict" && i < docs.size())
        refused.insert(docs[i].at("_rev").toString());
      else if (e != r.end())
        return fail(json::ErrorReasonOf(r));
    }
    return true;
  };
  std::set<std::string> refused;
  bool wrote = false;
  if (chosen != winner) {
    if (!write({chosen}, refused))
      return false;
    std::set<std::string> stored;
    std::string why;
    // A conflict is another writer, unless this write was applied by an attempt whose answer was lost.
    if (!refused.empty() && !detail::AlreadyStored(d->pool, d->server, d->db, {{docId, chosen}}, stored, why, nullptr))
      return fail(why);
    if (!refused.empty() && stored.empty())
      return fail("changed by another writer meanwhile; every leaf is kept");
    wrote = true;
  }
  std::vector<qzVariantMapImpl> tombstones;
  for (const qzVariantMapImpl& leaf : leaves) {
    auto rev = leaf.find("_rev");
    if (rev != leaf.end() && rev->second.toString() != winningRev)
      tombstones.push_back({{"_id", docId}, {"_rev", rev->second}, {"_deleted", true}});
  }
  refused.clear();
  if (!tombstones.empty() && !write(tombstones, refused))
    return false;
  if (!refused.empty()) {
    // Leaves deleted by an attempt whose answer was lost, or by another solver, are done too.
    const qz::Url now = d->server.toDocumentUrl(d->db, docId, {{"conflicts", "true"}});
    qzVariantMapImpl doc;
    if (!detail::RequestWithRetry(d->pool, now, http::Method::Get, nullptr, reply, nullptr) || reply.code != 200 ||
        !json::Json2Variant::Convert(reply.body, doc))
      return fail(reply.reason());
    for (const qzVariant& rev : doc["_conflicts"].toList())
      if (refused.count(rev.toString()))
        return fail("leaf " + rev.toString() + " could not be deleted");
  }
  if (solved)
    *solved = wrote || !tombstones.empty();
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
      std::string key;
      json::AppendJsonString(key, startKey);
      query.emplace_back("startkey", std::move(key));
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
  const http::HttpConnectionPool::ParallelUse use(d->pool, 1);
  std::vector<std::string> ids;
  if (!findConflicts(ids, error, cancel))
    return false;
  // One document that cannot be solved does not hold the others back.
  size_t failed = 0;
  std::string first;
  for (const std::string& id : ids) {
    if (http::CancelToken::IsSet(cancel)) {
      if (error)
        *error = "cancelled";
      return false;
    }
    bool wrote = false;
    std::string why;
    if (!solve(id, &why, &wrote) && failed++ == 0)
      first = why;
    if (wrote && solved)
      ++*solved;
  }
  if (failed && error)
    *error = first + (failed > 1 ? " (and " + std::to_string(failed - 1) + " more document(s) not solved)" : "");
  return failed == 0;
}

} // namespace qz::couch
