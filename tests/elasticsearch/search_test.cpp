#include <HttpTools/elasticsearch/DocumentGetter.h>
#include <HttpTools/elasticsearch/ElasticSearch.h>

#include <HttpTools/elasticsearch/ResponseItemCutter_p.h>

#include "EsFixture.h"
#include "support/LogCapture.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <map>
#include <mutex>
#include <set>
#include <thread>
#include <tuple>

using qz::elasticsearch::DocumentGetter;
using qz::elasticsearch::ElasticConnectionParameters;
using qz::elasticsearch::FetchSearchResults;
using qz::elasticsearch::FetchSlicedSearchResults;
using qz::elasticsearch::ResponseItemCutter;
using qz::elasticsearch::SearchHit;

namespace {

class SearchTest : public EsFixture {
protected:
  // `count` documents {"n":i,"group":i%7,"t":text with the bytes the cutter reacts to}.
  void seed(const std::string& index, int count) {
    std::string ndjson;
    for (int i = 0; i < count; ++i) {
      ndjson += R"({"index":{"_index":")" + index + R"(","_id":"doc-)" + std::to_string(i) + "\"}}\n";
      ndjson += R"({"n":)" + std::to_string(i) + R"(,"group":)" + std::to_string(i % 7) + R"(,"t":"}{ ][ \"q\" \\ )" +
                std::to_string(i) + "\"}\n";
    }
    std::string answer;
    ASSERT_EQ(call("POST", "/_bulk", ndjson, &answer), 200);
    ASSERT_NE(answer.find(R"("errors":false)"), std::string::npos) << answer.substr(0, 300);
  }

  bool fetch(const std::string& query, unsigned pageSize, const std::function<bool(SearchHit&)>& onHit,
             const bool* cancel = nullptr) {
    options.pageSize = pageSize;
    return FetchSearchResults(connection, server, "docs", query, onHit, options, &error, cancel);
  }

  void expectClosed() {
    const auto s = emulator.stats();
    EXPECT_EQ(s.openPits, 0u);
    EXPECT_EQ(s.openScrolls, 0u);
  }

  std::string error;
  qz::elasticsearch::SearchOptions options;
};

// Every hit once and in order, through point in time and through scroll, with the query, the sort
// and the source filters kept from page to page; then slices of one point in time, or one scroll
// each, share the documents out.
TEST_F(SearchTest, PagedAndSlicedFetchesGiveEveryDocumentOnceKeepingQuerySortAndSourceFilters) {
  seed("docs", 10000);
  for (const bool withPit : {true, false}) {
    SCOPED_TRACE(withPit ? "point in time" : "scroll");
    inject([&](auto& f) { f.noPit = !withPit; });
    std::set<std::string> ids;
    int64_t lastN = -1;
    bool ordered = true, sourcesIntact = true;
    options.sourceIncludes = options.sourceExcludes = {};
    ASSERT_TRUE(fetch("", 777, [&](SearchHit& hit) {
      ids.insert(hit.id);
      const int64_t n = hit.source.toMap().at("n").toInt64();
      ordered = ordered && n == lastN + 1;
      lastN = n;
      sourcesIntact = sourcesIntact && hit.id == "doc-" + std::to_string(n) && hit.index == "docs" &&
                      hit.source.toMap().at("t").toString() == "}{ ][ \"q\" \\ " + std::to_string(n);
      return true;
    })) << error;
    EXPECT_EQ(std::tuple(ids.size(), ordered, sourcesIntact), std::tuple(10000u, true, true));
    EXPECT_EQ(withPit ? emulator.stats().pitsOpened : emulator.stats().scrollsOpened, 1u);
    expectClosed();

    options.sourceIncludes = {"n", "g*"};
    options.sourceExcludes = {"group"};
    std::vector<int64_t> ns, expected;
    ASSERT_TRUE(fetch(R"({"query":{"term":{"group":3}},"sort":[{"n":"desc"}]})", 100, [&](SearchHit& hit) {
      ns.push_back(hit.source.toMap().at("n").toInt64());
      EXPECT_TRUE(hit.sort.isList() && hit.source.toMap().size() == 1u);
      return true;
    })) << error;
    for (int i = 9999; i >= 0; --i)
      if (i % 7 == 3)
        expected.push_back(i);
    EXPECT_EQ(ns, expected);
    expectClosed();

    options.sourceIncludes = options.sourceExcludes = {};
    for (const unsigned slices : {1u, 2u, 4u}) {
      SCOPED_TRACE(std::to_string(slices) + " slice(s)");
      const auto before = emulator.stats();
      std::mutex mutex;
      std::map<std::string, int> times;
      std::vector<size_t> perSlice(slices);
      options.pageSize = 97;
      ASSERT_TRUE(FetchSlicedSearchResults(
          pool, server, "docs", R"({"query":{"range":{"n":{"gte":8600}}}})",
          [&](SearchHit& hit, unsigned slice) {
            std::lock_guard<std::mutex> lock(mutex);
            ++times[hit.id];
            ++perSlice.at(slice);
            return hit.source.toMap().at("n").toInt64() >= 8600;
          },
          slices, options, &error, nullptr))
          << error;
      EXPECT_EQ(times.size(), 1400u);
      EXPECT_EQ(std::count_if(times.begin(), times.end(), [](const auto& t) { return t.second != 1; }), 0);
      for (size_t n : perSlice) // each slice a share, none the whole
        EXPECT_TRUE(n > 0 && (slices == 1 || n < 1400u)) << n;
      const auto after = emulator.stats();
      EXPECT_EQ(withPit ? after.pitsOpened - before.pitsOpened : after.scrollsOpened - before.scrollsOpened,
                withPit ? 1u : slices);
      expectClosed();
    }
  }
  EXPECT_FALSE(FetchSlicedSearchResults(
      pool, server, "docs", "", [](SearchHit&, unsigned) { return true; }, 1025, options, &error, nullptr));
  EXPECT_EQ(error, "at most 1024 slices");
}

// Every way a fetch can end early closes what it opened; a partial page gives none of its hits.
TEST_F(SearchTest, PitAndScrollAreClosedAfterErrorCancelStopPartialAnswerAndStall) {
  seed("docs", 300);
  enum Ending { PageError, CutBody, Cancel, Stop, Partial, PartialAllowed };
  for (const bool withPit : {true, false})
    for (const Ending ending : {PageError, CutBody, Cancel, Stop, Partial, PartialAllowed}) {
      SCOPED_TRACE(std::string(withPit ? "pit " : "scroll ") + std::to_string(int(ending)));
      inject([&](auto& f) { f.noPit = !withPit; });
      bool cancel = false;
      size_t seen = 0;
      options.allowPartialResults = ending == PartialAllowed;
      const bool ok = fetch(
          "", 50,
          [&](SearchHit&) {
            if (++seen == 60)
              inject([&](auto& f) {
                f.failSearchPages = ending == PageError;
                f.cutSearchAfter = ending == CutBody ? 300 : 0;
                f.partialSearchPages = ending >= Partial;
              });
            if (seen == 75 && ending == Cancel)
              cancel = true;
            return !(seen == 75 && ending == Stop);
          },
          &cancel);
      EXPECT_EQ(ok, ending == PartialAllowed);
      const char* expected[] = {
          "all shards failed",
          "failed",
          "cancelled",
          "stopped by the hit function",
          ("partial results from docs: the search timed out; 1 of 2 shard(s) failed [shard 1 "
           "of emulated: node_disconnected_exception [emulator-2] disconnected (injected fault)]"),
          ""};
      EXPECT_NE(error.find(expected[ending]), std::string::npos) << error;
      if (ending >= Partial)
        EXPECT_EQ(seen, ending == Partial ? 100u : 300u);
      else
        EXPECT_LE(seen, 100u);
      expectClosed();
    }

  // The caller's cancel, or a failed page in one slice, ends a fetch (and every slice) stalled on its answer.
  options.allowPartialResults = false;
  emulator.setFaults({}); // with a point in time again
  const struct {
    unsigned slices; // 0: not sliced
    bool cancelled;
    const char* error;
  } rows[] = {{0, true, "cancelled"}, {2, false, "all shards failed"}, {2, true, "cancelled"}};
  for (const auto& row : rows) {
    SCOPED_TRACE(std::to_string(row.slices) + row.error);
    inject([&](auto& f) {
      f.stallSearchMs = 20000;
      f.failSearchPages = !row.cancelled;
    });
    bool cancel = false;
    std::thread canceller([&] { // once the stalled pages are on their way
      const size_t base = emulator.stats().searchRequests, pages = row.slices ? row.slices : 1;
      eventually([&] { return !row.cancelled || emulator.stats().searchRequests >= base + pages; });
      std::atomic_ref<bool>(cancel).store(row.cancelled);
    });
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(row.slices ? FetchSlicedSearchResults(
                                  pool, server, "docs", "", [](SearchHit&, unsigned) { return true; }, row.slices,
                                  options, &error, &cancel)
                            : fetch(
                                  "", 100, [](SearchHit&) { return true; }, &cancel));
    canceller.join();
    EXPECT_TRUE(row.slices ? error.find(row.error) != std::string::npos : error == row.error) << error;
    // Well before the stalled answer's 20 s, with room for a loaded machine under sanitizers.
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(15));
    expectClosed();
  }
}

TEST_F(SearchTest, BadQueryMissingIndexForeignServerPagesThatDoNotAdvanceAndFailedGets) {
  seed("docs", 3);
  EXPECT_FALSE(fetch("[1,2]", 10, [](SearchHit&) { return true; }));
  EXPECT_NE(error.find("not a JSON object"), std::string::npos) << error;
  EXPECT_FALSE(FetchSearchResults(
      connection, server, "nope", "", [](SearchHit&) { return true; }, 10, &error, nullptr));
  EXPECT_NE(error.find("index_not_found_exception"), std::string::npos) << error;
  EXPECT_FALSE(fetch(R"({"query":{"nonsense":{}}})", 10, [](SearchHit&) { return true; }));
  EXPECT_NE(error.find("unknown query"), std::string::npos) << error;
  expectClosed();

  // An answer without the product header is read, and said once.
  qztest::LogCapture log;
  inject([](auto& f) { f.noProductHeader = true; });
  size_t hits = 0;
  EXPECT_TRUE(fetch("", 10, [&](SearchHit&) { return ++hits > 0; })) << error;
  EXPECT_TRUE(fetch("", 10, [&](SearchHit&) { return ++hits > 0; })) << error;
  EXPECT_EQ(hits, 6u);
  size_t warnings = 0;
  for (const auto& line : log.lines())
    warnings += line.text.find("X-Elastic-Product") != std::string::npos;
  EXPECT_EQ(warnings, 1u) << log.dump();

  // A server that ignores search_after sends the first page again and again.
  inject([](auto& f) { f.noProductHeader = false, f.ignoreSearchAfter = true; });
  hits = 0;
  EXPECT_FALSE(fetch("", 2, [&](SearchHit&) { return ++hits > 0; }));
  EXPECT_NE(error.find("did not advance"), std::string::npos) << error;
  EXPECT_EQ(hits, 4u);
  expectClosed();

  // _mget: a missing index, a 503, an answer that leaves an id out and the caller's cancel each fail the call.
  auto get = [&](const char* index, const std::vector<std::string>& ids, const bool* cancel = nullptr) {
    DocumentGetter getter(pool, server, index, 2);
    return getter.get(
        ids, [](const std::string&, qz::qzVariant&) {}, nullptr, &error, cancel);
  };
  EXPECT_FALSE(get("nope", {"a", "b"}));
  EXPECT_NE(error.find("index_not_found_exception"), std::string::npos) << error;
  inject([](auto& f) { f.unavailable = 1; });
  EXPECT_FALSE(get("docs", {"doc-1"}));
  EXPECT_NE(error.find("503"), std::string::npos) << error;
  inject([](auto& f) { f.unavailable = 0, f.mgetDropLast = true; });
  EXPECT_FALSE(get("docs", {"doc-1", "doc-2", "doc-3"}));
  EXPECT_NE(error.find("answered 2 of 3 ids"), std::string::npos) << error;
  const bool cancel = true;
  EXPECT_FALSE(get("docs", {"doc-1", "doc-2"}, &cancel));
  EXPECT_EQ(error, "cancelled");
}

// Documents by id, through _mget.
using GetterTest = SearchTest;

TEST_F(GetterTest, FindsDocumentsOverThreadsAndListsMissingInOrder) {
  seed("docs", 2500);
  std::vector<std::string> ids, expectedMissing;
  for (int i = 0; i < 3000; ++i) {
    ids.push_back("doc-" + std::to_string(i * 7 % 3000)); // shuffled, 500 missing
    if (i * 7 % 3000 >= 2500)
      expectedMissing.push_back(ids.back());
  }
  ids.push_back("odd \"id\"/with?chars");
  expectedMissing.push_back(ids.back());
  for (const unsigned threads : {1u, 4u}) {
    SCOPED_TRACE(threads);
    DocumentGetter getter(pool, server, "docs", threads);
    getter.setBatchSize(97);
    std::map<std::string, int64_t> got;
    std::vector<std::string> missing;
    std::string error;
    ASSERT_TRUE(getter.get(
        ids, [&](const std::string& id, qz::qzVariant& source) { got[id] = source.toMap().at("n").toInt64(); },
        &missing, &error, nullptr))
        << error;
    EXPECT_EQ(missing, expectedMissing);
    ASSERT_EQ(got.size(), 2500u);
    bool consistent = true;
    for (const auto& [id, n] : got)
      consistent = consistent && id == "doc-" + std::to_string(n);
    EXPECT_TRUE(consistent);
  }
  EXPECT_EQ(emulator.stats().mgetRequests, 2u * 31u);
}

TEST(ElasticConnectionParameters, IndexAndDocumentUrls) {
  const struct {
    const char* url;
    bool ok;
    const char* index;
    const char* server;
  } table[] = {
      {"http://u:p@h:9200/prefix/orders", true, "orders", "http://u:p@h:9200/prefix"},
      {"https://h/orders", true, "orders", "https://h"},
      {"http://h:9200", false, "", ""},
      {"http://[zz/", false, "", ""},
  };
  for (const auto& row : table) {
    SCOPED_TRACE(row.url);
    ElasticConnectionParameters params;
    std::string index = "stale";
    EXPECT_EQ(ElasticConnectionParameters::BuildFromIndexUrl(&params, &index, row.url), row.ok);
    EXPECT_EQ(index, row.index);
    if (row.ok) {
      EXPECT_EQ(params.toEncodedUrl(), row.server);
    }
  }
  EXPECT_FALSE(ElasticConnectionParameters::BuildFromIndexUrl(nullptr, nullptr, "http://h/i"));
  const ElasticConnectionParameters server(qz::Url("http://h:9200/p"));
  EXPECT_EQ(server.toIndexUrl("logs-1", {{"refresh", "true"}}).toEncodedUrl(), "http://h:9200/p/logs-1?refresh=true");
  EXPECT_EQ(server.toDocumentUrl("i", "a/b c", {}).toEncodedUrl(), "http://h:9200/p/i/_doc/a%2Fb%20c");
  EXPECT_EQ(server.toApiUrl({"", "_bulk"}, {}).toEncodedUrl(), "http://h:9200/p/_bulk");
}

// The cutter the search pages go through, on text made by hand.

// What a cut gave: its items one per line, then the ids and the errors flag it read, and whether
// every chunk was taken and the text ended where the answer does.
std::string cutInChunks(const std::string& outer, const std::string& inner, const std::string& text,
                        const std::vector<size_t>& splits) {
  std::string out;
  ResponseItemCutter cutter(outer, inner, [&](const char* t, size_t n) {
    out.append(t, n) += "\n";
    return true;
  });
  bool fed = true;
  for (size_t i = 0, at = 0; i <= splits.size() && fed; ++i) {
    const size_t end = i < splits.size() ? splits[i] : text.size();
    fed = cutter.feed(text.data() + at, end - at);
    at = end;
  }
  return out + "pit " + cutter.pitId() + ", scroll " + cutter.scrollId() + ", errors " +
         std::to_string(cutter.errors()) + (fed ? "" : ", refused") + (cutter.complete() ? "" : ", incomplete");
}

// Hits whose strings hold the bytes the cutter reacts to, and decoys: members named "hits" at
// other depths, and a "hits" array inside a hit's source.
const std::vector<std::string> kHits = {
    R"({"_index":"i","_id":"1","_score":null,"_source":{"t":"}{ ][ \"quoted\" \\"},"sort":[0]})",
    R"({"_index":"i","_id":"2\"}","_score":1.5,"_source":{"hits":{"hits":[{"x":"]"}]}},"sort":["\\",1]})",
    R"({"_index":"i","_id":"3","_source":{"a":[[{}],{"b":"\\\\\""}],"c":"hits"}})",
};

std::string join(const std::vector<std::string>& items, const std::string& sep) {
  std::string s;
  for (size_t i = 0; i < items.size(); ++i)
    s += (i ? sep : "") + items[i];
  return s;
}

struct Case {
  const char* name;
  std::string outer, inner, text, cut;
};

std::vector<Case> cases() {
  const std::string hits = join(kHits, "\n"), incomplete = "\npit , scroll , errors -1, incomplete",
                    malformed = "\npit , scroll , errors -1, refused, incomplete";
  return {
      {"pit search", "hits", "hits",
       R"({"pit_id":"P+/=x\"","took":3,"timed_out":false,"_shards":{"total":1,"failures":[{"hits":"{"}]},)"
       R"("hits":{"total":{"value":3,"relation":"hits"},"max_score":null,"hits":[)" +
           join(kHits, ",") + R"(]},"aggregations":{"hits":{"hits":[{"decoy":1}]}}})",
       hits + "\npit P+/=x\", scroll , errors -1"},
      {"pretty scroll", "hits", "hits",
       "{\n  \"_scroll_id\" : \"S1==\",\n  \"hits\" : {\n    \"hits\" : [\n      " + join(kHits, ",\n      ") +
           "\n    ]\n  }\n}\n",
       hits + "\npit , scroll S1==, errors -1"},
      {"empty page", "hits", "hits", R"({"hits":{"total":{"value":0},"hits":[]}})", "pit , scroll , errors -1"},
      {"mget docs", "docs", "",
       R"({"docs":[{"_id":"a","found":false},{"_id":"b","found":true,"_source":{"docs":[{"z":"}"}]}}]})",
       R"({"_id":"a","found":false})"
       "\n"
       R"({"_id":"b","found":true,"_source":{"docs":[{"z":"}"}]}})"
       "\npit , scroll , errors -1"},
      {"bulk items", "items", "",
       R"({"took":5,"errors":true,"items":[{"index":{"_id":"1","status":201}},)"
       R"({"delete":{"_id":"2","status":429,"error":{"type":"x","reason":"[items] {"}}}]})",
       R"({"index":{"_id":"1","status":201}})"
       "\n"
       R"({"delete":{"_id":"2","status":429,"error":{"type":"x","reason":"[items] {"}}})"
       "\npit , scroll , errors 1"},
      {"bulk without errors", "items", "", R"({"errors" : false, "items":[{"index":{}}]})",
       "{\"index\":{}}\npit , scroll , errors 0"},
      // Malformed nesting is refused, or leaves the cut incomplete.
      {"one brace too many", "hits", "hits", R"({"hits":{"hits":[{"a":1}]}}})", R"({"a":1})" + malformed},
      {"bracket closes an object", "hits", "hits", R"({"hits":{"hits":[{"a":1}]]})", R"({"a":1})" + malformed},
      {"cut short", "hits", "hits", R"({"hits":{"hits":[{"a":1})", R"({"a":1})" + incomplete},
      {"string never closed", "hits", "hits", R"({"hits":{"hits":[{"a":"1}]}})", incomplete.substr(1)},
      {"two values", "hits", "hits", R"({"a":1}{"b":2})", malformed.substr(1)},
      {"nothing", "hits", "hits", "", incomplete.substr(1)},
  };
}

TEST(ResponseItemCutter, EveryChunkSplitCutsTheSameItemsAndRefusesTheSameNesting) {
  for (const Case& c : cases()) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(cutInChunks(c.outer, c.inner, c.text, {}), c.cut);
    for (size_t split = 0; split <= c.text.size(); ++split)
      ASSERT_EQ(cutInChunks(c.outer, c.inner, c.text, {split}), c.cut) << "split at " << split;
    std::vector<size_t> everyByte;
    for (size_t i = 1; i < c.text.size(); ++i)
      everyByte.push_back(i);
    EXPECT_EQ(cutInChunks(c.outer, c.inner, c.text, everyByte), c.cut);
  }
}

TEST(ResponseItemCutter, ItemFunctionStopsTheCutAndKeepsOnlyAPartialItem) {
  std::string text = R"({"hits":{"hits":[)";
  const std::string big = R"({"_id":"x","_source":{"pad":")" + std::string(100000, 'p') + R"("}})";
  for (int i = 0; i < 20; ++i)
    text += (i ? "," : "") + big;
  text += "]}}";
  size_t seen = 0;
  size_t peak = 0;
  ResponseItemCutter cutter("hits", "hits", [&](const char*, size_t n) {
    EXPECT_EQ(n, big.size());
    return ++seen < 5;
  });
  bool fed = true;
  for (size_t at = 0; at < text.size() && fed; at += 16384) {
    fed = cutter.feed(text.data() + at, std::min<size_t>(16384, text.size() - at));
    peak = std::max(peak, cutter.bufferCapacity());
  }
  EXPECT_FALSE(fed);
  EXPECT_TRUE(cutter.stoppedByItem());
  EXPECT_EQ(seen, 5u);
  EXPECT_LT(peak, 4 * big.size()); // one partial hit and a chunk, not the whole answer
}

} // namespace
