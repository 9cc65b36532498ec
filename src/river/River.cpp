#include <HttpTools/river/River.h>

#include <HttpTools/couch/ChangesFeed.h>
#include <HttpTools/elasticsearch/ElasticRequest_p.h>
#include <HttpTools/http/HttpConnection.h>
#include <HttpTools/http/HttpConnectionPool.h>
#include <HttpTools/platform/qzJson.h>
#include <HttpTools/platform/qzLog.h>
#include <HttpTools/river/RiverMapping_p.h>

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <random>
#include <thread>

namespace qz::river {

using qz::elasticsearch::AppendJsonString;
using qz::elasticsearch::ElasticResponse;

namespace {

constexpr const char* kMetaKey = "httptools_river";
constexpr size_t kMaxBatchBytes = 8u << 20;

int64_t nowMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::system_clock::now().time_since_epoch())
      .count();
}
int64_t steadyMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

// "3-abc" -> 3; 0 when the revision has no generation.
int64_t generation(const std::string& rev) {
  const int64_t g = std::atoll(rev.c_str());
  return g > 0 ? g : 0;
}

bool transientStatus(long status) {
  return status == 0 || status == 429 || status == 502 || status == 503 || status == 504;
}

std::string jsonText(const qzVariant& v) {
  std::string s;
  qz::json::Json2Variant::Convert(v, s, false);
  return s;
}

// "<alias>-<n>" -> n, 0 otherwise.
unsigned generationOfIndex(const std::string& alias, const std::string& index) {
  if (index.size() <= alias.size() + 1 || index.compare(0, alias.size() + 1, alias + "-") != 0)
    return 0;
  const std::string rest = index.substr(alias.size() + 1);
  if (rest.find_first_not_of("0123456789") != std::string::npos)
    return 0;
  return unsigned(std::strtoul(rest.c_str(), nullptr, 10));
}

} // namespace

// The persisted part of a river: checkpoint and lease.
struct RiverState {
  std::string owner;
  int64_t expires = 0;
  std::string index, seq = "0";
  std::string building, buildSeq = "0";
};

struct River {
  RiverDefinition def;
  qzVariant wanted;         // the wanted mapping
  std::string wantedPacked; // as kept in the meta data

  // Worker-side state (one worker at a time).
  RiverState state;
  int64_t leaseSeqNo = -1, leasePrimaryTerm = -1;
  bool leaseHeld = false;
  bool prepared = false;
  int64_t lastRenewMs = 0;
  int64_t lastCaughtUpMs = 0;
  bool permanentError = false; // the last failure will not go away by trying again

  mutable std::mutex statusMutex;
  RiverStatus status;
};

class RiverManager::Private {
public:
  Private(http::HttpConnectionPool& p, unsigned threads) : pool(p), workerThreads(std::max(1u, threads)) {
    static std::atomic<unsigned> counter{0};
    char host[256] = {};
    ::gethostname(host, sizeof host - 1);
    owner = std::string(host) + ":" + std::to_string(::getpid()) + ":" + std::to_string(++counter);
  }

  http::HttpConnectionPool& pool;
  unsigned workerThreads;
  std::string owner;
  std::vector<std::unique_ptr<River>> rivers;
  std::vector<std::thread> workers;
  std::atomic<bool> stopping{false};
  std::atomic<bool> running{false};
  std::mutex waitMutex;
  std::condition_variable wake;

  bool stopped(const bool* cancel) const { return stopping.load() || (cancel && *cancel); }
  // Sleeps up to `ms`; false when stopped meanwhile.
  bool pause(unsigned ms, const bool* cancel) {
    const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    std::unique_lock<std::mutex> lock(waitMutex);
    while (!stopped(cancel)) {
      // The cancel flag is not signalled: look at it at least every 100 ms.
      const auto step = std::min(until, std::chrono::steady_clock::now() + std::chrono::milliseconds(100));
      if (wake.wait_until(lock, step) == std::cv_status::timeout && std::chrono::steady_clock::now() >= until)
        break;
    }
    return !stopped(cancel);
  }
  unsigned backoffMs(unsigned failures) {
    thread_local std::mt19937 random{std::random_device{}()};
    const unsigned cap = std::min(5000u, 100u << std::min(failures, 6u));
    return cap / 2 + unsigned(random() % (cap / 2 + 1));
  }

  template <typename F> void updateStatus(River& r, F f) {
    std::lock_guard<std::mutex> lock(r.statusMutex);
    f(r.status);
  }
  void setError(River& r, const std::string& error) {
    updateStatus(r, [&](RiverStatus& s) { s.error = error; });
    if (!error.empty())
      qzLogObject(qzLog::Warning, "river") << "River " << r.def.name << ": " << error;
  }

  // --- Elasticsearch requests ------------------------------------------------------------------

  bool call(const char* method, const qz::Url& url, const std::string* body, ElasticResponse& out, const bool* cancel,
            const char* contentType = "application/json") {
    http::HttpConnectionLocker conn(pool, url);
    return qz::elasticsearch::ElasticCall(*conn, method, url, body, contentType, out, nullptr, cancel);
  }
  static std::string describe(const ElasticResponse& r) {
    return r.status == 0 ? "Elasticsearch unreachable: " + r.transportError : qz::elasticsearch::ErrorText(r);
  }

  // --- lease and checkpoint --------------------------------------------------------------------

  qzVariantMapImpl stateBody(const River& r) const {
    return {{"owner", r.state.owner},       {"expires", r.state.expires},  {"alias", r.def.index},
            {"database", r.def.database},   {"index", r.state.index},      {"seq", r.state.seq},
            {"building", r.state.building}, {"buildSeq", r.state.buildSeq}};
  }

  // Reads the river's document; 0 when it does not exist, -1 on a failure (error set).
  int readState(River& r, RiverState& out, int64_t& seqNo, int64_t& term, std::string& error, const bool* cancel) {
    ElasticResponse resp;
    call("GET", r.def.elastic.toDocumentUrl(r.def.stateIndex, r.def.name, {}), nullptr, resp, cancel);
    if (resp.status == 404)
      return 0;
    if (resp.status != 200) {
      error = "reading the river state: " + describe(resp);
      return -1;
    }
    qzVariantMapImpl doc;
    if (!qz::json::Json2Variant::Convert(resp.body, doc)) {
      error = "reading the river state: malformed answer";
      return -1;
    }
    seqNo = doc["_seq_no"].toInt64();
    term = doc["_primary_term"].toInt64();
    auto& src = doc["_source"].asMap();
    out.owner = src["owner"].toString();
    out.expires = src["expires"].toInt64();
    out.index = src["index"].toString();
    out.seq = src["seq"].isNull() ? "0" : src["seq"].toString();
    out.building = src["building"].toString();
    out.buildSeq = src["buildSeq"].isNull() ? "0" : src["buildSeq"].toString();
    return 1;
  }

  // Writes the river's document over the version last seen. 1 written, 0 the lease is lost (409),
  // -1 another failure (error set).
  int writeState(River& r, std::string& error, const bool* cancel, bool create = false) {
    r.state.owner = owner;
    r.state.expires = nowMs() + int64_t(r.def.leaseMs);
    const std::string body = jsonText(stateBody(r));
    qz::elasticsearch::ElasticConnectionParameters url =
        create ? qz::elasticsearch::ElasticConnectionParameters(
                     r.def.elastic.toApiUrl({r.def.stateIndex, "_create", r.def.name}, {}))
               : r.def.elastic.toDocumentUrl(r.def.stateIndex, r.def.name,
                                             {{"if_seq_no", std::to_string(r.leaseSeqNo)},
                                              {"if_primary_term", std::to_string(r.leasePrimaryTerm)}});
    ElasticResponse resp;
    call("PUT", url, &body, resp, cancel);
    if (resp.status == 409)
      return 0;
    if (resp.status != 200 && resp.status != 201) {
      error = "writing the river state: " + describe(resp);
      return -1;
    }
    qzVariantMapImpl doc;
    qz::json::Json2Variant::Convert(resp.body, doc);
    r.leaseSeqNo = doc["_seq_no"].toInt64();
    r.leasePrimaryTerm = doc["_primary_term"].toInt64();
    r.lastRenewMs = steadyMs();
    return 1;
  }

  // Takes the lease when it is free, expired or ours. 1 held, 0 held elsewhere, -1 failure.
  int acquireLease(River& r, std::string& error, const bool* cancel) {
    RiverState current;
    int64_t seqNo = -1, term = -1;
    const int found = readState(r, current, seqNo, term, error, cancel);
    if (found < 0)
      return -1;
    if (found == 1 && current.owner != owner && !current.owner.empty() && current.expires > nowMs()) {
      updateStatus(r, [&](RiverStatus& s) { s.error = "waiting for the lease held by " + current.owner; });
      return 0;
    }
    if (found == 1) {
      r.state = current;
      r.leaseSeqNo = seqNo;
      r.leasePrimaryTerm = term;
    } else {
      r.state = RiverState();
    }
    const int written = writeState(r, error, cancel, found == 0);
    if (written == 1) {
      r.leaseHeld = true;
      r.prepared = false;
      qzLogObject(qzLog::Info, "river") << "River " << r.def.name << " runs here (" << owner << ") from seq "
                                        << r.state.seq;
    }
    return written;
  }

  // Stores the checkpoint (also renewing the lease), retrying transient failures. False when the
  // lease is lost (the river stops) or on stop.
  bool saveState(River& r, const bool* cancel) {
    for (unsigned attempt = 0;; ++attempt) {
      std::string error;
      const int rc = writeState(r, error, cancel);
      if (rc == 1) {
        updateStatus(r, [&](RiverStatus& s) {
          s.lastSeq = r.state.building.empty() ? r.state.seq : r.state.buildSeq;
          s.liveIndex = r.state.index;
          s.buildingIndex = r.state.building;
        });
        return true;
      }
      if (rc == 0) {
        r.leaseHeld = false;
        r.prepared = false;
        setError(r, "the lease was taken over by another process");
        return false;
      }
      setError(r, error);
      if (!pause(backoffMs(attempt), cancel))
        return false;
    }
  }

  void releaseLease(River& r) {
    if (!r.leaseHeld)
      return;
    std::string error;
    r.state.owner.clear();
    const std::string body = [&] {
      auto b = stateBody(r);
      b["owner"] = "";
      b["expires"] = 0;
      return jsonText(b);
    }();
    ElasticResponse resp;
    call("PUT",
         r.def.elastic.toDocumentUrl(
             r.def.stateIndex, r.def.name,
             {{"if_seq_no", std::to_string(r.leaseSeqNo)}, {"if_primary_term", std::to_string(r.leasePrimaryTerm)}}),
         &body, resp, nullptr);
    r.leaseHeld = false;
    r.prepared = false;
  }

  // --- indices and mappings --------------------------------------------------------------------

  std::string mappingBody(const River& r) const {
    qzVariant m = r.wanted;
    m.asMap()["_meta"].asMap()[kMetaKey] = qzVariantMapImpl{{"mapping", r.wantedPacked}};
    return jsonText(m);
  }

  // Creates `index` with the wanted mapping (and the alias when `withAlias`). 1 created, 0 it
  // exists already, -1 failure.
  int createIndex(River& r, const std::string& index, bool withAlias, std::string& error, const bool* cancel) {
    std::string body = "{\"mappings\":" + mappingBody(r);
    if (withAlias) {
      body += ",\"aliases\":{";
      AppendJsonString(body, r.def.index);
      body += ":{}}";
    }
    body += "}";
    ElasticResponse resp;
    call("PUT", r.def.elastic.toIndexUrl(index, {}), &body, resp, cancel);
    if (resp.status == 200)
      return 1;
    if (resp.status == 400 && resp.body.find("resource_already_exists_exception") != std::string::npos)
      return 0;
    error = "creating " + index + ": " + describe(resp);
    return -1;
  }

  bool deleteIndex(River& r, const std::string& index, std::string& error, const bool* cancel) {
    ElasticResponse resp;
    call("DELETE", r.def.elastic.toIndexUrl(index, {}), nullptr, resp, cancel);
    if (resp.status == 200 || resp.status == 404)
      return true;
    error = "deleting " + index + ": " + describe(resp);
    return false;
  }

  // Whether the mapping of `index` is the wanted one: by the copy kept in its meta data, or, for
  // an index without one, by comparing the live mapping. -1 on a failure, 2 when it is missing.
  int mappingMatches(River& r, const std::string& index, std::string& error, const bool* cancel) {
    ElasticResponse resp;
    call("GET", r.def.elastic.toApiUrl({index, "_mapping"}, {}), nullptr, resp, cancel);
    if (resp.status == 404)
      return 2;
    if (resp.status != 200) {
      error = "reading the mapping of " + index + ": " + describe(resp);
      return -1;
    }
    qzVariantMapImpl all;
    if (!qz::json::Json2Variant::Convert(resp.body, all) || all.size() != 1) {
      error = "reading the mapping of " + index + ": unexpected answer";
      return -1;
    }
    const qzVariant live = all.begin()->second.toMap().count("mappings") ? all.begin()->second.toMap().at("mappings")
                                                                         : qzVariant(qzVariantMapImpl{});
    const auto& meta = live.toMap().count("_meta") ? live.toMap().at("_meta").toMap() : qzVariantMapImpl{};
    auto kept = meta.find(kMetaKey);
    qzVariant built;
    if (kept != meta.end() && kept->second.isMap() && kept->second.toMap().count("mapping") &&
        detail::UnpackMapping(kept->second.toMap().at("mapping").toString(), built)) {
      qzVariantMapImpl a = built.toMap(), b = r.wanted.toMap();
      a.erase("_meta");
      b.erase("_meta");
      return a == b ? 1 : 0;
    }
    return detail::MappingsEquivalent(r.wanted, live) ? 1 : 0;
  }

  // Finds the index behind the alias, compares mappings and decides where the river writes.
  bool prepare(River& r, std::string& error, const bool* cancel) {
    ElasticResponse resp;
    call("GET", r.def.elastic.toApiUrl({"_alias", r.def.index}, {}), nullptr, resp, cancel);
    std::string live;
    if (resp.status == 200) {
      qzVariantMapImpl all;
      qz::json::Json2Variant::Convert(resp.body, all);
      for (const auto& [name, info] : all) {
        const auto& aliases = info.toMap().count("aliases") ? info.toMap().at("aliases").toMap() : qzVariantMapImpl{};
        if (!aliases.count(r.def.index))
          continue;
        if (!live.empty()) {
          error = "the alias " + r.def.index + " points to more than one index";
          r.permanentError = true;
          return false;
        }
        live = name;
      }
      if (live.empty() && all.count(r.def.index)) {
        error = r.def.index + " is an index, not an alias";
        r.permanentError = true;
        return false;
      }
    } else if (resp.status == 404) {
      ElasticResponse index;
      call("GET", r.def.elastic.toIndexUrl(r.def.index, {}), nullptr, index, cancel);
      if (index.status == 200) {
        error = r.def.index + " is an index, not an alias";
        r.permanentError = true;
        return false;
      }
    } else {
      error = "reading the alias " + r.def.index + ": " + describe(resp);
      return false;
    }

    if (live.empty()) {
      // First run: `<alias>-1` (or the next free number) with the alias on it.
      for (unsigned n = std::max(1u, generationOfIndex(r.def.index, r.state.index) + 1);; ++n) {
        const std::string index = r.def.index + "-" + std::to_string(n);
        const int rc = createIndex(r, index, true, error, cancel);
        if (rc < 0)
          return false;
        if (rc == 1) {
          r.state.index = index;
          r.state.seq = "0";
          break;
        }
        if (n > 1000) {
          error = "no free index name for " + r.def.index;
          return false;
        }
      }
      if (!r.state.building.empty() && !deleteIndex(r, r.state.building, error, cancel))
        return false;
      r.state.building.clear();
      r.state.buildSeq = "0";
      return saveState(r, cancel) || (error = "stopped", false);
    }

    if (r.state.index != live) { // the state is missing or stale: start the live index over
      r.state.index = live;
      r.state.seq = "0";
    }
    const int same = mappingMatches(r, live, error, cancel);
    if (same < 0)
      return false;
    if (same == 1) {
      if (!r.state.building.empty()) { // the mapping went back while a new index was built
        if (!deleteIndex(r, r.state.building, error, cancel))
          return false;
        r.state.building.clear();
        r.state.buildSeq = "0";
      }
      return saveState(r, cancel) || (error = "stopped", false);
    }

    // A new mapping: fill `<alias>-<n+1>` beside the live index.
    const std::string next = r.def.index + "-" + std::to_string(generationOfIndex(r.def.index, live) + 1);
    if (r.state.building == next) {
      const int building = mappingMatches(r, next, error, cancel);
      if (building < 0)
        return false;
      if (building != 1) { // built for another mapping, or gone
        if (!deleteIndex(r, next, error, cancel))
          return false;
        r.state.building.clear();
      }
    } else if (!r.state.building.empty()) {
      if (!deleteIndex(r, r.state.building, error, cancel))
        return false;
      r.state.building.clear();
    }
    if (r.state.building.empty()) {
      if (!deleteIndex(r, next, error, cancel)) // a leftover of an unfinished build
        return false;
      if (createIndex(r, next, false, error, cancel) != 1) {
        if (error.empty())
          error = "creating " + next + ": it exists";
        return false;
      }
      r.state.building = next;
      r.state.buildSeq = "0";
      qzLogObject(qzLog::Info, "river") << "River " << r.def.name << ": the mapping changed, filling " << next;
    }
    return saveState(r, cancel) || (error = "stopped", false);
  }

  // Moves the alias from the live index to the one just built, then deletes the old one.
  bool swapAlias(River& r, std::string& error, const bool* cancel) {
    const std::string old = r.state.index, fresh = r.state.building;
    ElasticResponse refresh;
    call("POST", r.def.elastic.toApiUrl({fresh, "_refresh"}, {}), nullptr, refresh, cancel);
    std::string body = "{\"actions\":[{\"remove\":{\"index\":";
    AppendJsonString(body, old);
    body += ",\"alias\":";
    AppendJsonString(body, r.def.index);
    body += "}},{\"add\":{\"index\":";
    AppendJsonString(body, fresh);
    body += ",\"alias\":";
    AppendJsonString(body, r.def.index);
    body += "}}]}";
    ElasticResponse resp;
    call("POST", r.def.elastic.toApiUrl({"_aliases"}, {}), &body, resp, cancel);
    if (resp.status != 200) {
      error = "moving the alias " + r.def.index + " to " + fresh + ": " + describe(resp);
      return false;
    }
    r.state.index = fresh;
    r.state.seq = r.state.buildSeq;
    r.state.building.clear();
    r.state.buildSeq = "0";
    if (!saveState(r, cancel))
      return false;
    qzLogObject(qzLog::Info, "river") << "River " << r.def.name << ": " << r.def.index << " now points to " << fresh;
    deleteIndex(r, old, error, cancel);
    error.clear();
    return true;
  }

  // --- bulk ------------------------------------------------------------------------------------

  struct Op {
    std::string id;
    std::string line; // action line and source line, NDJSON
    bool remove = false;
  };

  // Sends the operations until each one is acknowledged: 2xx, a delete of a missing document
  // (404) or an older revision refused (409). Items answered 429/503 and requests that fail on
  // the way are sent again after a growing pause; other item failures are counted and logged.
  // False only on stop, cancel or an error answer for the whole request.
  bool sendBulk(River& r, std::vector<Op>& ops, std::string& error, const bool* cancel) {
    unsigned failures = 0;
    while (!ops.empty()) {
      std::string body;
      size_t size = 0;
      for (const auto& op : ops)
        size += op.line.size();
      body.reserve(size);
      for (const auto& op : ops)
        body += op.line;
      ElasticResponse resp;
      call("POST", r.def.elastic.toApiUrl({"_bulk"}, {}), &body, resp, cancel, "application/x-ndjson");
      if (stopped(cancel))
        return false;
      if (transientStatus(resp.status)) {
        updateStatus(r, [&](RiverStatus& s) {
          ++s.retries;
          s.error = describe(resp) + ", sending again";
        });
        if (!pause(backoffMs(failures++), cancel))
          return false;
        continue;
      }
      if (resp.status != 200) {
        error = "bulk request: " + describe(resp);
        return false;
      }
      // Without deletes (whose "not found" is no error) an answer without errors needs no reading.
      const size_t errorsAt = resp.body.find("\"errors\":false");
      if (errorsAt != std::string::npos && errorsAt < resp.body.find("\"items\"") &&
          std::none_of(ops.begin(), ops.end(), [](const Op& op) { return op.remove; })) {
        updateStatus(r, [&](RiverStatus& s) {
          s.indexed += ops.size();
          s.error.clear();
        });
        return true;
      }
      qzVariantMapImpl answer;
      if (!qz::json::Json2Variant::Convert(resp.body, answer) || answer["items"].toList().size() != ops.size()) {
        error = "bulk request: malformed answer";
        return false;
      }
      std::vector<Op> again;
      size_t indexed = 0, deleted = 0, failed = 0;
      const auto& items = answer["items"].toList();
      for (size_t i = 0; i < ops.size(); ++i) {
        const auto& item = items[i].toMap();
        if (item.empty())
          continue;
        const auto& result = item.begin()->second.toMap();
        const long status = long(result.count("status") ? result.at("status").toInt64() : 0);
        if (status >= 200 && status < 300) {
          (ops[i].remove ? deleted : indexed)++;
        } else if (status == 404 && ops[i].remove) {
          // Not there: nothing to delete.
        } else if (status == 409) {
          // A newer (or the same) revision is there already.
        } else if (status == 429 || status == 503) {
          again.push_back(std::move(ops[i]));
        } else {
          ++failed;
          const auto& err = result.count("error") ? result.at("error").toMap() : qzVariantMapImpl{};
          const std::string reason = (err.count("type") ? err.at("type").toString() : std::string("error")) + ": " +
                                     (err.count("reason") ? err.at("reason").toString() : std::string());
          qzLogObject(qzLog::Warning, "river")
              << "River " << r.def.name << ": document " << ops[i].id << " not "
              << (ops[i].remove ? "deleted" : "indexed") << " (" << status << " " << reason << ")";
        }
      }
      updateStatus(r, [&](RiverStatus& s) {
        s.indexed += indexed;
        s.deleted += deleted;
        s.failed += failed;
        s.retries += again.size();
        if (again.empty())
          s.error.clear();
        else
          s.error = std::to_string(again.size()) + " items rejected (429/503), sending again";
      });
      ops = std::move(again);
      if (!ops.empty() && !pause(backoffMs(failures++), cancel))
        return false;
    }
    return true;
  }

  // Turns one change into a bulk operation; false when it needs none.
  bool toOp(River& r, const std::string& index, const couch::Change& change, Op& op) {
    const int64_t version = generation(change.revs.empty() ? std::string() : change.revs.front());
    if (version <= 0)
      return false;
    op.id = change.id;
    bool remove = change.deleted || change.id.rfind("_design/", 0) == 0 || !change.doc.isMap();
    qzVariantMapImpl doc;
    if (!remove) {
      doc = change.doc.toMap();
      if (r.def.transform) {
        bool keep = false;
        try {
          keep = r.def.transform(doc);
        } catch (...) {
          keep = false;
        }
        if (!keep) {
          remove = true;
          updateStatus(r, [](RiverStatus& s) { ++s.skipped; });
        }
      }
    }
    op.remove = remove;
    std::string& line = op.line;
    line = remove ? "{\"delete\":{\"_index\":" : "{\"index\":{\"_index\":";
    AppendJsonString(line, index);
    line += ",\"_id\":";
    AppendJsonString(line, change.id);
    line += ",\"version\":" + std::to_string(version) + ",\"version_type\":\"external\"}}\n";
    if (!remove) {
      for (const char* meta : {"_id", "_rev", "_attachments", "_conflicts", "_deleted", "_revisions"})
        doc.erase(meta);
      std::string source;
      if (!qz::json::Json2Variant::Convert(doc, source, false))
        return false;
      line += source;
      line += '\n';
    }
    return true;
  }

  // Reads the feed from the checkpoint to its end, one acknowledged batch at a time.
  // 1 caught up, 0 interrupted (stop, cancel, lease lost), -1 failure (error set).
  int catchUp(River& r, std::string& error, const bool* cancel) {
    const bool building = !r.state.building.empty();
    const std::string index = building ? r.state.building : r.state.index;
    couch::ChangesOptions options;
    options.since = building ? r.state.buildSeq : r.state.seq;
    options.includeDocs = true;
    options.batchLimit = unsigned(std::max<size_t>(1, r.def.batchDocs));
    options.backoffInitialMs = 200;
    options.backoffMaxMs = 1000;
    options.maxRetries = 3;
    couch::ChangesFeedListener feed(pool, r.def.couch, r.def.database, options);

    // A full batch goes to a sender thread, so that the next one is read from the feed while it
    // is written: at most one batch in flight and one being filled.
    struct Sender {
      std::mutex mutex;
      std::condition_variable cv;
      std::vector<Op> ops;
      std::string seq;
      bool busy = false, failed = false, done = false;
      std::string error;
      std::thread thread;
    } sender;
    auto write = [&](std::vector<Op>& ops, const std::string& seq, std::string& why) {
      if (!ops.empty() && !sendBulk(r, ops, why, cancel))
        return false;
      (building ? r.state.buildSeq : r.state.seq) = seq;
      return saveState(r, cancel);
    };
    auto senderLoop = [&] {
      std::unique_lock<std::mutex> lock(sender.mutex);
      for (;;) {
        sender.cv.wait(lock, [&] { return sender.busy || sender.done; });
        if (!sender.busy)
          return;
        std::vector<Op> ops = std::move(sender.ops);
        const std::string seq = sender.seq;
        lock.unlock();
        std::string why;
        const bool ok = write(ops, seq, why);
        lock.lock();
        sender.busy = false;
        if (!ok) {
          sender.failed = true;
          sender.error = why;
        }
        sender.cv.notify_all();
      }
    };
    // Waits until the sender is idle; false when it failed.
    auto senderIdle = [&] {
      std::unique_lock<std::mutex> lock(sender.mutex);
      sender.cv.wait(lock, [&] { return !sender.busy; });
      return !sender.failed;
    };
    auto stopSender = [&] {
      if (!sender.thread.joinable())
        return;
      {
        std::lock_guard<std::mutex> lock(sender.mutex);
        sender.done = true;
      }
      sender.cv.notify_all();
      sender.thread.join();
    };

    std::vector<Op> batch;
    size_t batchBytes = 0;
    std::string batchSeq;
    bool interrupted = false;
    auto handOver = [&] {
      if (!senderIdle())
        return false;
      {
        std::lock_guard<std::mutex> lock(sender.mutex);
        sender.ops = std::move(batch);
        sender.seq = batchSeq;
        sender.busy = true;
      }
      if (!sender.thread.joinable())
        sender.thread = std::thread(senderLoop);
      sender.cv.notify_all();
      batch.clear();
      batchBytes = 0;
      return true;
    };
    std::string feedError;
    const bool ok = feed.run(
        [&](const couch::Change& change) {
          if (stopped(cancel)) {
            interrupted = true;
            return false;
          }
          Op op;
          if (toOp(r, index, change, op)) {
            batchBytes += op.line.size();
            batch.push_back(std::move(op));
          }
          batchSeq = change.seq;
          if (batch.size() >= r.def.batchDocs || batchBytes >= kMaxBatchBytes)
            return handOver();
          return true;
        },
        &feedError, cancel);
    const bool sent = senderIdle();
    stopSender();
    if (!sent) {
      error = sender.error;
      return error.empty() ? 0 : -1; // empty: stopped, cancelled or the lease lost
    }
    if (interrupted || stopped(cancel))
      return 0;
    // Whatever was read is written even when the feed failed: the checkpoint only gets closer.
    if (!batch.empty()) {
      std::string why;
      if (!write(batch, batchSeq, why)) {
        error = why;
        return error.empty() ? 0 : -1;
      }
    }
    if (!ok) {
      error = "CouchDB: " + feedError;
      r.permanentError = feedError.find("giving up") == std::string::npos;
      return -1;
    }
    const std::string end = feed.lastSeq();
    std::string& seq = building ? r.state.buildSeq : r.state.seq;
    if (!end.empty() && end != seq) {
      seq = end;
      if (!saveState(r, cancel))
        return 0;
    }
    return 1;
  }

  // One round for a river: lease, index, catch up (and the alias swap after a build).
  // 1 caught up, 0 nothing done (waiting, stopped), -1 failure (error set).
  int step(River& r, std::string& error, const bool* cancel) {
    r.permanentError = false;
    if (!r.leaseHeld) {
      const int lease = acquireLease(r, error, cancel);
      updateStatus(r, [&](RiverStatus& s) { s.waitingForLease = lease == 0; });
      if (lease <= 0)
        return lease;
    }
    if (!r.prepared) {
      if (!prepare(r, error, cancel))
        return r.leaseHeld && !stopped(cancel) ? -1 : 0;
      r.prepared = true;
    }
    for (;;) {
      const int rc = catchUp(r, error, cancel);
      if (rc <= 0)
        return rc;
      if (r.state.building.empty())
        break;
      if (!swapAlias(r, error, cancel))
        return r.leaseHeld && !stopped(cancel) ? -1 : 0;
    }
    if (steadyMs() - r.lastRenewMs > int64_t(r.def.leaseMs) / 3 && !saveState(r, cancel))
      return 0;
    return 1;
  }

  // After a step: status and, for a failure, the pause before the next try.
  void afterStep(River& r, int rc, const std::string& error, unsigned& failures, const bool* cancel) {
    if (rc == 1) {
      failures = 0;
      r.lastCaughtUpMs = steadyMs();
      updateStatus(r, [&](RiverStatus& s) {
        s.caughtUp = true;
        s.lagMs = 0;
        s.waitingForLease = false;
        s.error.clear();
      });
      return;
    }
    updateStatus(r, [&](RiverStatus& s) {
      s.caughtUp = false;
      s.lagMs = r.lastCaughtUpMs ? steadyMs() - r.lastCaughtUpMs : 0;
    });
    if (rc < 0) {
      setError(r, error);
      // A failed request to either server pauses the river; it takes up again from the checkpoint.
      r.prepared = r.prepared && error.rfind("CouchDB", 0) == 0;
      pause(backoffMs(++failures + 3), cancel);
    }
  }

  // Once: runs `river` until it is caught up; failures that are not worth repeating (a refused
  // feed, an alias that is an index) end it at once, others after a few tries.
  bool runRiverOnce(River& r, std::string* firstError, std::mutex& errorMutex, const bool* cancel) {
    updateStatus(r, [](RiverStatus& s) { s.running = true; });
    unsigned failures = 0;
    bool ok = true;
    while (!stopped(cancel)) {
      std::string error;
      const int rc = step(r, error, cancel);
      if (rc < 0 && (failures >= 8 || r.permanentError)) {
        setError(r, error);
        std::lock_guard<std::mutex> lock(errorMutex);
        if (firstError && firstError->empty())
          *firstError = r.def.name + ": " + error;
        ok = false;
        break;
      }
      afterStep(r, rc, error, failures, cancel);
      if (rc == 1)
        break;
      if (rc == 0)
        pause(r.leaseHeld ? 100 : std::max(100u, r.def.leaseMs / 4), cancel);
    }
    releaseLease(r);
    updateStatus(r, [](RiverStatus& s) { s.running = false; });
    return ok && !stopped(cancel);
  }

  // Follow: worker `w` of `n` takes its rivers (i % n == w) in turn until stopped.
  void followRivers(unsigned w, unsigned n) {
    std::vector<River*> mine;
    for (size_t i = w; i < rivers.size(); i += n)
      mine.push_back(rivers[i].get());
    for (River* r : mine)
      updateStatus(*r, [](RiverStatus& s) { s.running = true; });
    std::vector<unsigned> failures(mine.size(), 0);
    while (!stopped(nullptr)) {
      unsigned wait = 60000;
      for (size_t i = 0; i < mine.size() && !stopped(nullptr); ++i) {
        River& r = *mine[i];
        std::string error;
        const int rc = step(r, error, nullptr);
        afterStep(r, rc, error, failures[i], nullptr);
        wait = std::min(wait, r.leaseHeld ? r.def.flushIntervalMs : std::max(100u, r.def.leaseMs / 4));
      }
      pause(wait, nullptr);
    }
    for (River* r : mine) {
      releaseLease(*r);
      updateStatus(*r, [](RiverStatus& s) { s.running = false; });
    }
  }

  // Runs the rivers on up to `workerThreads` threads, river i on worker i % workerThreads.
  bool runAll(bool follow, std::string* error, const bool* cancel) {
    std::string firstError;
    std::mutex errorMutex;
    std::atomic<bool> ok{true};
    const unsigned n = std::max(1u, std::min<unsigned>(workerThreads, unsigned(rivers.size())));
    auto work = [&](unsigned w) {
      if (follow)
        return followRivers(w, n);
      for (size_t i = w; i < rivers.size(); i += n)
        if (!runRiverOnce(*rivers[i], &firstError, errorMutex, cancel))
          ok = false;
    };
    std::vector<std::thread> threads;
    for (unsigned w = 1; w < n; ++w)
      threads.emplace_back(work, w);
    work(0);
    for (auto& t : threads)
      t.join();
    if (!ok && error)
      *error = firstError.empty() ? std::string("cancelled") : firstError;
    return ok;
  }
};

RiverManager::RiverManager(http::HttpConnectionPool& pool, unsigned workerThreads)
    : d(std::make_unique<Private>(pool, workerThreads)) {
  pool.ensureAtLeastMaxConcurrentConnection(d->workerThreads + 1);
}

RiverManager::~RiverManager() { stop(); }

bool RiverManager::addRiver(RiverDefinition definition, std::string* error) {
  auto fail = [&](const std::string& why) {
    if (error)
      *error = why;
    return false;
  };
  if (d->running.load())
    return fail("the rivers are running");
  if (definition.name.empty() || definition.database.empty() || definition.index.empty())
    return fail("a river needs a name, a database and an index alias");
  if (definition.stateIndex.empty() || definition.stateIndex == definition.index)
    return fail("the state index must be a name of its own");
  for (const auto& r : d->rivers)
    if (r->def.name == definition.name)
      return fail("a river named " + definition.name + " exists already");
  auto river = std::make_unique<River>();
  if (!detail::ParseMapping(definition.mappingJson, river->wanted, error))
    return false;
  river->wantedPacked = detail::PackMapping(river->wanted);
  definition.batchDocs = std::max<size_t>(1, definition.batchDocs);
  definition.leaseMs = std::max(1000u, definition.leaseMs);
  river->status.name = definition.name;
  river->def = std::move(definition);
  d->rivers.push_back(std::move(river));
  return true;
}

bool RiverManager::runOnce(std::string* error, const bool* cancel) {
  if (d->running.exchange(true)) {
    if (error)
      *error = "the rivers are running";
    return false;
  }
  d->stopping = false;
  const bool ok = d->runAll(false, error, cancel);
  for (auto& r : d->rivers)
    d->releaseLease(*r);
  d->running = false;
  return ok;
}

bool RiverManager::start() {
  if (d->running.exchange(true))
    return false;
  d->stopping = false;
  d->workers.emplace_back([this] { d->runAll(true, nullptr, nullptr); });
  return true;
}

void RiverManager::stop() {
  {
    std::lock_guard<std::mutex> lock(d->waitMutex);
    d->stopping = true;
  }
  d->wake.notify_all();
  for (auto& t : d->workers)
    if (t.joinable())
      t.join();
  if (!d->workers.empty()) {
    d->workers.clear();
    d->running = false;
  }
}

std::vector<RiverStatus> RiverManager::status() const {
  std::vector<RiverStatus> out;
  for (const auto& r : d->rivers) {
    std::lock_guard<std::mutex> lock(r->statusMutex);
    out.push_back(r->status);
  }
  return out;
}

} // namespace qz::river
