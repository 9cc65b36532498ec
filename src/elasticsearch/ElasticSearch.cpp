#include <HttpTools/elasticsearch/ElasticSearch.h>

#include <HttpTools/elasticsearch/ElasticRequest_p.h>
#include <HttpTools/elasticsearch/ResponseItemCutter_p.h>
#include <HttpTools/http/CancelToken.h>
#include <HttpTools/http/HttpConnection.h>
#include <HttpTools/http/HttpConnectionPool.h>
#include <HttpTools/platform/qzJson.h>
#include <HttpTools/platform/qzLog.h>
#include <HttpTools/platform/qzStringUtils.h>
#include <HttpTools/platform/qzSystemUtils.h>
#include <HttpTools/platform/qzThread_p.h>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <thread>

namespace qz::elasticsearch {

namespace {

const char* const kKeepAlive = "1m";
constexpr unsigned kMaxSlices = 1024; // Elasticsearch's default index.max_slices_per_scroll

std::string errorType(const ElasticResponse& r) {
  qzVariantMapImpl doc;
  if (!json::Json2Variant::Convert(r.body, doc))
    return {};
  auto e = doc.find("error");
  if (e == doc.end() || !e->second.isMap())
    return {};
  auto t = e->second.toMap().find("type");
  return t == e->second.toMap().end() ? std::string() : t->second.toString();
}

// Why an answer is partial ("" when it is whole): its time-out and its failed shards' reasons.
std::string partialReason(const ResponseItemCutter& cutter) {
  qzVariantMapImpl shards;
  if (!cutter.shards().empty() && !json::Json2Variant::Convert(cutter.shards(), shards))
    return "unreadable shard summary";
  auto number = [&](const char* name) {
    auto it = shards.find(name);
    return it != shards.end() && it->second.isNumber() ? it->second.toInt64() : int64_t(0);
  };
  const int64_t failed = number("failed");
  if (!cutter.timedOut() && failed <= 0)
    return {};
  std::string text = cutter.timedOut() ? "the search timed out" : "";
  if (failed > 0) {
    text += (text.empty() ? "" : "; ") + std::to_string(failed) + " of " + std::to_string(number("total")) +
            " shard(s) failed";
    auto failures = shards.find("failures");
    if (failures != shards.end() && failures->second.isList())
      for (const auto& f : failures->second.toList()) {
        if (!f.isMap())
          continue;
        const auto& m = f.toMap();
        auto field = [&m](const char* name) {
          auto it = m.find(name);
          return it == m.end() ? std::string() : it->second.toString();
        };
        text += " [shard " + field("shard") + " of " + field("index");
        auto reason = m.find("reason");
        if (reason != m.end() && reason->second.isMap()) {
          const auto& r = reason->second.toMap();
          for (const char* key : {"type", "reason"})
            if (auto it = r.find(key); it != r.end())
              text += (std::string(key) == "type" ? ": " : " ") + it->second.toString();
        }
        text += "]";
      }
  }
  return text;
}

// Turns each cut hit into a SearchHit for the caller and remembers its sort values.
struct HitSink {
  const std::function<bool(SearchHit&)>& onHit;
  qzVariant lastSort;
  size_t delivered = 0;
  bool malformed = false;
  bool stopped = false;
  qzVariantMapImpl map;
  const ResponseItemCutter* cutter = nullptr; // set: a partial page is refused before its first hit
  bool pageChecked = false;
  std::string partial;

  // False (and `partial` set) when the answer so far says it is partial.
  bool whole() {
    if (cutter && !pageChecked)
      partial = partialReason(*cutter);
    pageChecked = true;
    return partial.empty();
  }

  bool operator()(const char* text, size_t length) {
    if (!whole())
      return false;
    map.clear();
    if (!json::Json2Variant::Convert(text, length, map)) {
      malformed = true;
      return false;
    }
    SearchHit hit;
    auto take = [&](const char* name) -> qzVariant* {
      auto it = map.find(name);
      return it == map.end() ? nullptr : &it->second;
    };
    if (qzVariant* v = take("_index"))
      hit.index = v->toString();
    if (qzVariant* v = take("_id"))
      hit.id = v->toString();
    if (qzVariant* v = take("_routing"))
      hit.routing = v->toString();
    if (qzVariant* v = take("_score"); v && v->isNumber())
      hit.score = v->toDouble();
    if (qzVariant* v = take("_source"))
      hit.source = std::move(*v);
    if (qzVariant* v = take("sort")) {
      lastSort = *v;
      hit.sort = std::move(*v);
    }
    ++delivered;
    if (!onHit(hit)) {
      stopped = true;
      return false;
    }
    return true;
  }
};

// The request body's fixed part: the caller's query without the members the scan manages, and
// the source filters.
bool baseRequest(const std::string& queryJson, const SearchOptions& options, qzVariantMapImpl& request,
                 std::string& err) {
  if (!queryJson.empty() && !json::Json2Variant::Convert(queryJson, request)) {
    err = "the query is not a JSON object: " + queryJson.substr(0, 200);
    return false;
  }
  for (const char* managed : {"size", "from", "search_after", "pit", "scroll"})
    request.erase(managed);
  if (!options.sourceIncludes.empty() || !options.sourceExcludes.empty()) {
    auto list = [](const std::vector<std::string>& names) { return qzVariantListImpl(names.begin(), names.end()); };
    request["_source"] =
        qzVariantMapImpl{{"includes", list(options.sourceIncludes)}, {"excludes", list(options.sourceExcludes)}};
  }
  return true;
}

// Opens a point in time on `index`: Elasticsearch's _pit, else OpenSearch's (2.4 on). True with
// `pitId` set, or empty when the server has neither (scroll then); false with `err`.
bool openPit(http::HttpConnection& connection, const ElasticConnectionParameters& server, const std::string& index,
             const http::CancelToken* token, std::string& pitId, bool& openSearch, std::string& err) {
  pitId.clear();
  for (const bool os : {false, true}) {
    ElasticResponse r;
    const auto url = os ? server.toApiUrl({index, "_search", "point_in_time"}, {{"keep_alive", kKeepAlive}})
                        : server.toApiUrl({index, "_pit"}, {{"keep_alive", kKeepAlive}});
    if (!ElasticCall(connection, "POST", url, nullptr, nullptr, r, nullptr, token)) {
      err = token && token->isCancelled() ? "cancelled"
                                          : "cannot reach " + server.toDisplayableUrl() + ": " + ErrorText(r);
      return false;
    }
    if (r.status == 200) {
      qzVariantMapImpl answer;
      if (json::Json2Variant::Convert(r.body, answer) && answer.count(os ? "pit_id" : "id"))
        pitId = answer[os ? "pit_id" : "id"].toString();
      if (pitId.empty()) {
        err = "no point in time id in the answer for index " + index;
        return false;
      }
      openSearch = os;
      return true;
    }
    if (r.status == 404 && errorType(r) == "index_not_found_exception") {
      err = ErrorText(r);
      return false;
    }
    if (r.status != 400 && r.status != 404 && r.status != 405) {
      err = "cannot open a point in time on " + index + ": " + ErrorText(r);
      return false;
    }
  }
  return true;
}

void closePit(http::HttpConnection& connection, const ElasticConnectionParameters& server, const std::string& index,
              const std::string& pitId, bool openSearch) {
  std::string closeBody = openSearch ? "{\"pit_id\":[" : "{\"id\":";
  AppendJsonString(closeBody, pitId);
  closeBody += openSearch ? "]}" : "}";
  ElasticResponse closed;
  const auto url = openSearch ? server.toApiUrl({"_search", "point_in_time"}, {}) : server.toApiUrl({"_pit"}, {});
  if (!ElasticCall(connection, "DELETE", url, &closeBody, "application/json", closed) || closed.status != 200)
    qzLogObject(qzLog::Warning, "elasticsearch")
        << "Cannot close the point in time on " << index << ": " << ErrorText(closed);
}

// One scan's fixed inputs; a slice of it reads its pages with scanPages.
struct Scan {
  const ElasticConnectionParameters& server;
  const std::string& index;
  const qzVariantMapImpl& request;
  const SearchOptions& options;
  unsigned pageSize;
  std::string pitId;              // empty: a scroll per slice
  const http::CancelToken* token; // null: nothing cancels (plain transfers, no polling)
  bool openSearchPit = false;     // opened at OpenSearch's _search/point_in_time
};

// Reads every page of slice `slice` of `max` (the whole result when max <= 1) into `onHit`. The
// slice's scroll, if any, is cleared at the end. False with `err`.
bool scanPages(const Scan& scan, http::HttpConnection& connection, unsigned slice, unsigned max,
               const std::function<bool(SearchHit&)>& onHit, size_t& delivered, std::string& err) {
  const std::string& index = scan.index;
  qzVariantMapImpl request = scan.request;
  const bool userSort = request.count("sort") != 0;
  if (max > 1)
    request["slice"] = qzVariantMapImpl{{"id", int64_t(slice)}, {"max", int64_t(max)}};
  HitSink sink{onHit, {}, 0, false, false, {}, nullptr, false, {}};
  ResponseItemCutter cutter("hits", "hits", [&sink](const char* t, size_t n) { return sink(t, n); });
  if (!scan.options.allowPartialResults)
    sink.cutter = &cutter;
  ElasticResponse r;
  // One page's call; a partial answer fails it.
  auto page = [&](const ElasticConnectionParameters& url, const std::string& body) {
    sink.pageChecked = false;
    return ElasticCall(connection, "POST", url, &body, "application/json", r, &cutter, scan.token) &&
           (r.status != 200 || sink.whole());
  };
  // Why a page failed, in the caller's words.
  auto pageError = [&]() {
    if (scan.token && scan.token->isCancelled())
      return std::string("cancelled");
    if (!sink.partial.empty())
      return "partial results from " + index + ": " + sink.partial;
    if (sink.stopped)
      return std::string("stopped by the hit function");
    if (sink.malformed)
      return "malformed hit in the answer for index " + index;
    return "search on " + index + " failed: " + ErrorText(r);
  };

  bool ok = true;
  std::string body;
  if (!scan.pitId.empty()) {
    std::string pitId = scan.pitId;
    if (!userSort)
      request["sort"] = qzVariantListImpl{qzVariant("_shard_doc")};
    if (!request.count("track_total_hits"))
      request["track_total_hits"] = false;
    request["size"] = scan.pageSize;
    const ElasticConnectionParameters searchUrl = scan.server.toApiUrl({"_search"}, {});
    for (;;) {
      request["pit"] = qzVariantMapImpl{{"id", pitId}, {"keep_alive", kKeepAlive}};
      if (sink.delivered)
        request["search_after"] = sink.lastSort;
      body.clear();
      AppendJson(body, request);
      const size_t before = sink.delivered;
      const qzVariant lastSort = sink.lastSort;
      if (!page(searchUrl, body) || r.status != 200) {
        err = pageError();
        ok = false;
        break;
      }
      // A server that ignores search_after sends the same page again: it would never end.
      if (before && sink.delivered > before && sink.lastSort == lastSort) {
        err = "searching " + index + ": the sort values did not advance from one page to the next";
        ok = false;
        break;
      }
      if (!cutter.pitId().empty())
        pitId = cutter.pitId();
      if (sink.delivered - before < scan.pageSize)
        break;
    }
  } else {
    // Scroll: for servers without point in time.
    if (!userSort)
      request["sort"] = qzVariantListImpl{qzVariant("_doc")};
    request["size"] = scan.pageSize;
    std::string scrollId;
    AppendJson(body, request);
    bool answered = page(scan.server.toApiUrl({index, "_search"}, {{"scroll", kKeepAlive}}), body);
    for (;;) {
      if (!cutter.scrollId().empty())
        scrollId = cutter.scrollId();
      if (!answered || r.status != 200) {
        err = pageError();
        ok = false;
        break;
      }
      if (cutter.itemCount() == 0)
        break;
      body = "{\"scroll\":\"" + std::string(kKeepAlive) + "\",\"scroll_id\":";
      AppendJsonString(body, scrollId);
      body += "}";
      answered = page(scan.server.toApiUrl({"_search", "scroll"}, {}), body);
    }
    if (!scrollId.empty()) {
      std::string closeBody = "{\"scroll_id\":[";
      AppendJsonString(closeBody, scrollId);
      closeBody += "]}";
      ElasticResponse closed;
      if (!ElasticCall(connection, "DELETE", scan.server.toApiUrl({"_search", "scroll"}, {}), &closeBody,
                       "application/json", closed) ||
          closed.status != 200)
        qzLogObject(qzLog::Warning, "elasticsearch")
            << "Cannot clear the scroll on " << index << ": " << ErrorText(closed);
    }
  }
  delivered = sink.delivered;
  return ok;
}

void logFetch(const std::string& index, size_t delivered, int64_t start, bool scroll, unsigned slices) {
  if (qzLog::IsCategoryEnabled("elasticsearch"))
    qzLogObject(qzLog::Info, "elasticsearch")
        << "Fetch " << delivered << " hit(s) from " << index << " in "
        << qzStringUtils::humanizeDuration<long>(long(qzSystemUtils::GetTimeBaseMs() - start), 1, true)
        << (scroll ? " (scroll)" : "") << (slices > 1 ? " in " + std::to_string(slices) + " slices" : "");
}

} // namespace

bool FetchSearchResults(http::HttpConnection& connection, const ElasticConnectionParameters& server,
                        const std::string& index, const std::string& queryJson,
                        const std::function<bool(SearchHit&)>& onHit, unsigned pageSize, std::string* error,
                        const bool* cancel) {
  SearchOptions options;
  options.pageSize = pageSize;
  return FetchSearchResults(connection, server, index, queryJson, onHit, options, error, cancel);
}

bool FetchSearchResults(http::HttpConnection& connection, const ElasticConnectionParameters& server,
                        const std::string& index, const std::string& queryJson,
                        const std::function<bool(SearchHit&)>& onHit, const SearchOptions& options, std::string* error,
                        const bool* cancel) {
  const int64_t start = qzSystemUtils::GetTimeBaseMs();
  std::string ignored;
  std::string& err = error ? *error : ignored;
  err.clear();
  const http::CancelToken token = http::CancelToken::Watching(cancel);
  qzVariantMapImpl request;
  Scan scan{server, index, request, options, options.pageSize ? options.pageSize : 1000, {}, cancel ? &token : nullptr};
  if (!baseRequest(queryJson, options, request, err) ||
      !openPit(connection, server, index, scan.token, scan.pitId, scan.openSearchPit, err))
    return false;
  size_t delivered = 0;
  const bool ok = scanPages(scan, connection, 0, 1, onHit, delivered, err);
  if (!scan.pitId.empty())
    closePit(connection, server, index, scan.pitId, scan.openSearchPit);
  if (ok)
    logFetch(index, delivered, start, scan.pitId.empty(), 1);
  return ok;
}

bool FetchSlicedSearchResults(http::HttpConnectionPool& pool, const ElasticConnectionParameters& server,
                              const std::string& index, const std::string& queryJson,
                              const std::function<bool(SearchHit&, unsigned slice)>& onHit, unsigned slices,
                              const SearchOptions& options, std::string* error, const bool* cancel) {
  const int64_t start = qzSystemUtils::GetTimeBaseMs();
  std::string ignored;
  std::string& err = error ? *error : ignored;
  err.clear();
  slices = std::max(1u, slices);
  if (slices > kMaxSlices) {
    err = "at most " + std::to_string(kMaxSlices) + " slices";
    return false;
  }
  const http::CancelToken token = http::CancelToken::Watching(cancel);
  qzVariantMapImpl request;
  // A token even without a caller's flag: the first failure cancels the other slices through it.
  Scan scan{server, index, request, options, options.pageSize ? options.pageSize : 1000, {}, &token};
  if (!baseRequest(queryJson, options, request, err))
    return false;
  request.erase("slice");
  const http::HttpConnectionPool::ParallelUse use(pool, slices);
  {
    http::HttpConnectionLocker connection(pool, server);
    if (!openPit(*connection, server, index, &token, scan.pitId, scan.openSearchPit, err))
      return false;
  }

  std::mutex mutex; // guards firstError
  std::string firstError;
  std::atomic<size_t> total{0};
  // The first failure ends every slice: the others see the token cancelled.
  auto runSlice = [&](unsigned slice) {
    const std::function<bool(SearchHit&)> deliver = [&onHit, slice](SearchHit& hit) { return onHit(hit, slice); };
    http::HttpConnectionLocker connection(pool, server);
    size_t delivered = 0;
    std::string sliceError;
    const bool ok = scanPages(scan, *connection, slice, slices, deliver, delivered, sliceError);
    total += delivered;
    if (!ok) {
      {
        std::lock_guard<std::mutex> lock(mutex);
        if (firstError.empty())
          firstError = sliceError;
      }
      token.cancel();
    }
  };
  qz::impl::RunOnThreads(slices, runSlice);

  if (!scan.pitId.empty()) {
    http::HttpConnectionLocker connection(pool, server);
    closePit(*connection, server, index, scan.pitId, scan.openSearchPit);
  }
  if (!firstError.empty()) {
    err = firstError;
    return false;
  }
  logFetch(index, total, start, scan.pitId.empty(), slices);
  return true;
}

} // namespace qz::elasticsearch
