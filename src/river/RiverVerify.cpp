// VerifyRiver: CouchDB's winners against what the index holds, and the index against CouchDB.
#include <HttpTools/river/River.h>

#include <HttpTools/couch/ChangesFeed.h>
#include <HttpTools/couch/CouchRequest_p.h>
#include <HttpTools/elasticsearch/ElasticSearch.h>
#include <HttpTools/http/HttpConnectionPool.h>
#include <HttpTools/platform/qzJson.h>
#include <HttpTools/river/RiverPipeline_p.h>

#include <algorithm>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string_view>
#include <thread>
#include <unordered_map>

namespace qz::river {

namespace {

using namespace detail;
using qz::couch::detail::Reply;
using qz::couch::detail::RequestWithRetry;

constexpr size_t kPage = 1000;
constexpr size_t kShownIds = 10;

// Checks pages on a thread of its own while the caller reads the next one, so that each side's
// reading and its lookups on the other side overlap. One page waits at most: memory stays flat.
template <typename Page> class PageChecker {
public:
  using Check = std::function<bool(Page&, std::string&)>;
  explicit PageChecker(Check check) : m_check(std::move(check)), m_thread([this] { loop(); }) {}
  ~PageChecker() {
    std::string ignored;
    finish(ignored);
  }
  PageChecker(const PageChecker&) = delete;
  PageChecker& operator=(const PageChecker&) = delete;

  // Hands a page over once the one before has been taken. False once a check failed.
  bool submit(Page page) {
    std::unique_lock<std::mutex> lock(m_mutex);
    m_cv.wait(lock, [&] { return !m_queued || m_failed; });
    if (m_failed)
      return false;
    m_queued = std::move(page);
    m_cv.notify_all();
    return true;
  }
  // Waits for every page handed over; false with the first failure.
  bool finish(std::string& error) {
    {
      std::unique_lock<std::mutex> lock(m_mutex);
      m_closed = true;
      m_cv.notify_all();
    }
    if (m_thread.joinable())
      m_thread.join();
    error = m_error;
    return !m_failed;
  }

private:
  void loop() {
    std::unique_lock<std::mutex> lock(m_mutex);
    for (;;) {
      m_cv.wait(lock, [&] { return m_queued || m_closed; });
      if (!m_queued)
        return;
      Page page = std::move(*m_queued);
      m_queued.reset();
      m_cv.notify_all();
      lock.unlock();
      std::string error;
      const bool ok = m_check(page, error);
      lock.lock();
      if (!ok && !m_failed) {
        m_failed = true;
        m_error = error;
        m_cv.notify_all();
      }
      if (m_failed)
        return;
    }
  }

  const Check m_check;
  std::mutex m_mutex;
  std::condition_variable m_cv;
  std::optional<Page> m_queued;
  bool m_closed = false, m_failed = false;
  std::string m_error;
  std::thread m_thread;
};

using Winners = std::vector<std::pair<std::string, std::string>>; // id, rev ("": left out of the index)

// The ids CouchDB listed, in a fixed-size Bloom filter: never a false "absent", rarely a false
// "present" (16 bits an id up to 4 million ids, 8 MB at most).
class IdFilter {
public:
  IdFilter() { reset(0); }
  void reset(size_t expected) {
    size_t bits = size_t(1) << 16;
    while (bits < expected * 16 && bits < (size_t(1) << 26))
      bits <<= 1;
    m_bits.assign(bits / 64, 0);
    m_mask = bits - 1;
  }
  void add(std::string_view id) {
    probe(id, [&](uint64_t bit) { m_bits[bit / 64] |= uint64_t(1) << (bit % 64); });
  }
  bool mayHold(std::string_view id) const {
    bool all = true;
    probe(id, [&](uint64_t bit) { all = all && (m_bits[bit / 64] >> (bit % 64) & 1); });
    return all;
  }

private:
  template <typename F> void probe(std::string_view id, F f) const {
    const uint64_t h = std::hash<std::string_view>{}(id);
    uint64_t step = h * 0x9e3779b97f4a7c15ull;
    step = (step ^ (step >> 31)) | 1;
    for (uint64_t i = 0; i < 4; ++i)
      f((h + i * step) & m_mask);
  }
  std::vector<uint64_t> m_bits;
  uint64_t m_mask = 0;
};

class Verifier {
public:
  Verifier(http::HttpConnectionPool& pool, const RiverDefinition& def, bool repair, RiverDrift& drift,
           const bool* cancel)
      : m_pool(pool), m_def(def), m_repair(repair), m_drift(drift), m_cancel(cancel),
        m_sender(
            RouteIfNeeded(pool, def, MakeBulkSender(pool, def.elastic, def.name, m_stop, [](const BulkProgress&) {}))),
        m_transform(RiverTransform(def)) {}

  // CouchDB's winners are looked up in the index. The index can hold more only when it counts
  // more documents than those lookups found: only then is it scanned for the extra ones. (A
  // count taken before the lookups and equal to what they found leaves no room for an extra.)
  // The scan looks up in CouchDB only the ids it did not list; when the others number exactly
  // what the lookups found, they are those ids, and only a mismatch (a false "present" of the
  // filter, or writes meanwhile) costs a second scan that looks them up too.
  bool run(std::string& error) {
    if (auto found = WriteIndex(m_pool, m_def, m_index, m_cancel); !found.ok())
      return error = found.message, false;
    if (m_def.route) // documents are looked up by a search, which sees refreshed writes only
      CallElastic(m_pool, "POST", m_def.elastic.toApiUrl({m_def.index, "_refresh"}, {}), nullptr, m_cancel);
    const int64_t held = countHeld();
    if (!couchSide(error))
      return false;
    if (held >= 0 && size_t(held) == m_found)
      return true;
    size_t listed = 0;
    return elasticSide(false, listed, error) && (listed == m_found || elasticSide(true, listed, error));
  }

private:
  void Note(size_t& count, std::vector<std::string>& shown, const std::string& id) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (count++ < kShownIds)
      shown.push_back(id);
  }
  bool cancelled(std::string& error) const {
    if (!m_stop.stopped(m_cancel))
      return false;
    error = "cancelled";
    return true;
  }

  bool couchCall(const qz::Url& url, const std::string* body, qzVariantMapImpl& answer, std::string& error) {
    Reply reply;
    RequestWithRetry(m_pool, url, body ? http::Method::Post : http::Method::Get, body, reply, m_cancel);
    if (reply.code != 200 || !qz::json::Json2Variant::Convert(reply.body, answer)) {
      error = cancelled(error) ? error : "CouchDB: reading " + m_def.database + ": " + reply.reason();
      return false;
    }
    return true;
  }

  // Pages of _all_docs (documents included when a transform decides what is indexed), each
  // looked up in the index while the next one is read.
  bool couchSide(std::string& error) {
    PageChecker<Winners> checker([this](Winners& winners, std::string& why) { return checkWinners(winners, why); });
    std::string checkError;
    const bool read = readCouch(checker, error);
    if (!checker.finish(checkError) && (read || error.empty()))
      error = checkError;
    return read && checkError.empty();
  }

  bool readCouch(PageChecker<Winners>& checker, std::string& error) {
    std::string last;
    for (;;) {
      qz::Url::QueryParameters query{{"limit", std::to_string(kPage)}};
      if (m_filters)
        query.emplace_back("include_docs", "true");
      if (!last.empty()) {
        query.emplace_back("startkey", JsonText(qzVariant(last)));
        query.emplace_back("skip", "1");
      }
      qzVariantMapImpl answer;
      if (!couchCall(m_def.couch.toUrl({m_def.database, "_all_docs"}, query), nullptr, answer, error))
        return false;
      if (last.empty())
        m_listed.reset(size_t(std::max<int64_t>(answer["total_rows"].toInt64(), 0)));
      const auto& rows = answer["rows"].toList();
      Winners winners;
      for (const auto& row : rows) {
        const auto& r = row.toMap();
        last = r.count("id") ? r.at("id").toString() : last;
        if (last.rfind("_design/", 0) == 0)
          continue;
        m_listed.add(last);
        std::string rev =
            r.count("value")
                ? r.at("value").toMap().count("rev") ? r.at("value").toMap().at("rev").toString() : std::string()
                : std::string();
        if (m_filters && r.count("doc") && r.at("doc").isMap()) {
          qzVariantMapImpl doc = r.at("doc").toMap();
          bool keep = false;
          RiverRoute route;
          try {
            keep = m_transform(doc, route);
          } catch (...) {
          }
          if (!keep)
            rev.clear();
        }
        winners.emplace_back(last, std::move(rev));
      }
      if (!winners.empty() && !checker.submit(std::move(winners)))
        return false;
      if (rows.size() < kPage)
        return true;
    }
  }

  // The documents the alias holds; -1 when it cannot tell.
  int64_t countHeld() {
    const auto resp =
        CallElastic(m_pool, "GET", m_def.elastic.toApiUrl({m_def.index, "_count"}, {}), nullptr, m_cancel);
    qzVariantMapImpl answer;
    if (resp.status == 404)
      return 0;
    if (resp.status != 200 || !qz::json::Json2Variant::Convert(resp.body, answer) || !answer.count("count"))
      return -1;
    return answer["count"].toInt64();
  }

  // One page of winners against _mget on the alias, or a search by ids where routes spread
  // documents over several indices (a document held twice shows as stale).
  bool checkWinners(const Winners& winners, std::string& error) {
    qzVariantListImpl ids;
    for (const auto& w : winners)
      ids.emplace_back(w.first);
    const size_t count = ids.size();
    const std::string body =
        m_def.route ? JsonText(qzVariantMapImpl{{"query", qzVariantMapImpl{{"ids", qzVariantMapImpl{{"values", ids}}}}},
                                                {"size", int64_t(count * 4)},
                                                {"_source", qzVariantListImpl{kRevField}}})
                    : JsonText(qzVariantMapImpl{{"ids", std::move(ids)}});
    const auto resp = CallElastic(
        m_pool, "POST",
        m_def.elastic.toApiUrl({m_def.index, m_def.route ? "_search" : "_mget"}, {{"_source_includes", kRevField}}),
        &body, m_cancel);
    qzVariantMapImpl answer;
    if (resp.status == 404) { // no index yet: everything is missing
      answer["docs"] = qzVariantListImpl{};
    } else if (resp.status != 200 || !qz::json::Json2Variant::Convert(resp.body, answer)) {
      error = cancelled(error) ? error : ElasticFailure("reading " + m_def.index, resp).message;
      return false;
    }
    std::unordered_map<std::string, std::string> stored; // id -> revision held ("" without one)
    const qzVariant hits = m_def.route ? qzVariant(answer["hits"]).asMap()["hits"] : qzVariant();
    if (m_def.route)
      for (const auto& hit : hits.toList()) {
        qzVariantMapImpl h = hit.toMap();
        const std::string id = h["_id"].toString();
        const std::string rev = qzVariant(h["_source"]).asMap()[kRevField].toString();
        stored[id] = stored.count(id) ? std::string() : rev;
      }
    for (const auto& d : answer["docs"].toList()) {
      const auto& doc = d.toMap();
      if (doc.count("error"))
        return error = "reading " + m_def.index + ": " + JsonText(doc.at("error")), false;
      if (doc.count("found") && doc.at("found").toBool())
        stored[doc.at("_id").toString()] =
            doc.count("_source") ? qzVariant(doc.at("_source")).asMap()[kRevField].toString() : std::string();
    }
    std::vector<std::string> rewrite, remove;
    for (const auto& [id, rev] : winners) {
      if (!rev.empty()) {
        std::lock_guard<std::mutex> lock(m_mutex);
        ++m_drift.documents;
      }
      const auto it = stored.find(id);
      if (it != stored.end()) {
        std::lock_guard<std::mutex> lock(m_mutex);
        ++m_found;
      }
      if (rev.empty() && it != stored.end()) {
        Note(m_drift.extra, m_drift.extraIds, id);
        remove.push_back(id);
      } else if (!rev.empty() && it == stored.end()) {
        Note(m_drift.missing, m_drift.missingIds, id);
        rewrite.push_back(id);
      } else if (!rev.empty() && it->second != rev) {
        Note(m_drift.stale, m_drift.staleIds, id);
        rewrite.push_back(id);
      }
    }
    return !m_repair || (write(rewrite, error) && removeExtra(remove, error));
  }

  // The documents of the alias that CouchDB listed (or did not) against _all_docs by keys, looked
  // up while the scan goes on; `listed` counts the scanned ids CouchDB listed.
  bool elasticSide(bool lookUpListed, size_t& listed, std::string& error) {
    using Ids = std::vector<std::string>;
    PageChecker<Ids> checker([this](Ids& ids, std::string& why) { return checkHeld(ids, why); });
    Ids page;
    listed = 0;
    auto flushPage = [&] {
      const bool ok = page.empty() || checker.submit(std::move(page));
      page = Ids();
      return ok;
    };
    const qz::Url url = m_def.elastic.toIndexUrl(m_def.index, {});
    http::HttpConnectionLocker connection(m_pool, url);
    std::string scanError, problem;
    const bool scanned = qz::elasticsearch::FetchSearchResults(
        *connection, m_def.elastic, m_def.index,
        JsonText(qzVariantMapImpl{{"_source", qzVariantListImpl{qzVariant(std::string(kRevField))}}}),
        [&](qz::elasticsearch::SearchHit& hit) {
          const bool known = m_listed.mayHold(hit.id);
          listed += known;
          if (known != lookUpListed)
            return true;
          page.push_back(hit.id);
          return page.size() < kPage || flushPage();
        },
        kPage, &scanError, m_cancel);
    if (scanned)
      flushPage();
    if (!checker.finish(problem)) // a failed lookup also stops the scan: it is the cause
      return error = problem, false;
    if (!scanned && scanError.find("index_not_found") == std::string::npos)
      return error = "scanning " + m_def.index + ": " + scanError, false;
    return true;
  }

  // Ids the index holds that the database has not (or has deleted, or are design documents).
  bool checkHeld(const std::vector<std::string>& ids, std::string& error) {
    qzVariantListImpl keys;
    for (const auto& id : ids)
      keys.emplace_back(id);
    const std::string body = JsonText(qzVariantMapImpl{{"keys", std::move(keys)}});
    qzVariantMapImpl answer;
    if (!couchCall(m_def.couch.toUrl({m_def.database, "_all_docs"}, {}), &body, answer, error))
      return false;
    std::vector<std::string> remove;
    for (const auto& row : answer["rows"].toList()) {
      auto r = row.toMap();
      const std::string id = r["key"].toString();
      if (r.count("error") || r["value"].asMap()["deleted"].toBool() || id.rfind("_design/", 0) == 0) {
        Note(m_drift.extra, m_drift.extraIds, id);
        remove.push_back(id);
      }
    }
    return !m_repair || removeExtra(remove, error);
  }

  // The current state of `ids` from the change feed, written as the river writes it.
  bool write(const std::vector<std::string>& ids, std::string& error) {
    if (ids.empty())
      return true;
    qz::couch::ChangesOptions options;
    options.includeDocs = true;
    options.allLeafRevs = true;
    options.docIds = ids;
    options.maxRetries = 3;
    qz::couch::ChangesFeedListener feed(m_pool, m_def.couch, m_def.database, options);
    std::vector<BulkOp> ops;
    std::string feedError;
    if (!feed.run(
            [&](const qz::couch::Change& change) {
              BulkOp op;
              bool skipped = false;
              if (ChangeToOp(change, m_index, m_transform, op, skipped))
                ops.push_back(std::move(op));
              return true;
            },
            &feedError, m_cancel))
      return error = "CouchDB: " + feedError, false;
    return send(ops, error);
  }

  bool removeExtra(const std::vector<std::string>& ids, std::string& error) {
    std::vector<BulkOp> ops;
    for (const auto& id : ids)
      ops.push_back(BulkOp{m_def.index, id, "", -1, true, ""}); // above whatever version is stored
    return send(ops, error);
  }

  bool send(std::vector<BulkOp>& ops, std::string& error) {
    const size_t count = ops.size();
    if (ops.empty())
      return true;
    const RiverOutcome sent = m_sender->send(ops, m_cancel);
    if (!sent.ok())
      return error = sent.idle() ? "cancelled" : sent.message, false;
    std::lock_guard<std::mutex> lock(m_mutex);
    m_drift.repaired += count;
    return true;
  }

  http::HttpConnectionPool& m_pool;
  const RiverDefinition& m_def;
  const bool m_repair;
  RiverDrift& m_drift;
  std::mutex m_mutex; // guards m_drift and m_found: pages are checked on threads of their own
  size_t m_found = 0; // CouchDB's ids the index holds
  IdFilter m_listed;  // the ids _all_docs listed
  const bool* m_cancel;
  StopSignal m_stop;
  std::unique_ptr<BulkSender> m_sender;
  const Transform m_transform; // the selector, then the definition's transform and route
  // Whether some documents are left out: only then are documents read with _all_docs.
  const bool m_filters = m_def.transform || !m_def.selectorJson.empty();
  std::string m_index; // where repairs write: the alias, or a routed river's live index
};

} // namespace

bool VerifyRiver(http::HttpConnectionPool& pool, const RiverDefinition& definition, bool repair, RiverDrift& drift,
                 std::string* error, const bool* cancel) {
  drift = RiverDrift();
  const http::HttpConnectionPool::ParallelUse use(pool, 6); // a scan, a lookup and a bulk on each side
  std::string why;
  Verifier verifier(pool, definition, repair, drift, cancel);
  const bool ok = verifier.run(why);
  if (error)
    *error = why;
  return ok;
}

} // namespace qz::river
