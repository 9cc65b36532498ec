// The river end to end against its two limits, in the same run:
//   feed:  the change feed of N documents (~1 KB) with include_docs, read to its end, alone;
//   bulk:  the same documents bulk-indexed into the emulator alone (BulkIndexer, 1 thread, 1000);
//   river: `httptools river --once` (a process of its own) filling a fresh alias from the database.
// Rounds alternate the order of the three paths; the table shows medians of docs/s and of the
// per-round ratio river / slower limit, and the river process's peak RSS, also for a database a
// tenth the size (flat memory whatever the database size).
// With --verify, `httptools river --verify` on the filled alias against reading both sides alone
// (_all_docs pages, then a scan of the alias), and the verifying process's peak RSS; also on an
// alias holding one document more, which makes the verifier scan the index too.
//
//   river_bench [--docs=N] [--rounds=R] [--verify] [benchmark flags]   (a short --benchmark_min_time: a quick run)

#include <HttpTools/HttpTools.h>

#include <HttpTools/river/RiverMapping_p.h>

#include "support/ElasticEmulator.h"
#include "support/PouchDbFixture.h"

#include "BenchSupport.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

int gDocs = 100000;
int gRounds = 3;
bool gVerify = false;
const size_t kPad = 1000;

bool Load(const qztest::PouchDbServer& couch, const std::string& db, int docs) {
  if (couch.request("PUT", "/" + db) != 201)
    return false;
  const std::string pad(kPad, 'x');
  for (int start = 0; start < docs; start += 500) {
    std::string body = "{\"docs\":[";
    for (int i = start; i < std::min(docs, start + 500); ++i) {
      char id[16];
      std::snprintf(id, sizeof id, "doc-%06d", i);
      body += std::string(i > start ? "," : "") + "{\"_id\":\"" + id + "\",\"i\":" + std::to_string(i) +
              ",\"group\":" + std::to_string(i % 10) + ",\"pad\":\"" + pad + "\"}";
    }
    body += "]}";
    if (couch.request("POST", "/" + db + "/_bulk_docs", body) != 201)
      return false;
  }
  return true;
}

// Reads the feed with documents; keeps them as JSON when `keep` is given.
double Feed(qz::http::HttpConnectionPool& pool, const qztest::PouchDbServer& couch, const std::string& db,
            std::vector<std::pair<std::string, std::string>>* keep) {
  qz::couch::ChangesOptions o;
  o.includeDocs = true;
  o.batchLimit = 1000;
  qz::couch::ChangesFeedListener feed(pool, qz::couch::CouchConnectionParameters(qz::Url(couch.baseUrl())), db, o);
  size_t n = 0;
  const double t0 = bench::Now();
  feed.run(
      [&](const qz::couch::Change& c) {
        ++n;
        if (keep) {
          qz::qzVariantMapImpl doc = c.doc.toMap();
          doc.erase("_id");
          doc.erase("_rev");
          std::string json;
          qz::json::Json2Variant::Convert(doc, json, false);
          keep->emplace_back(c.id, std::move(json));
        }
        return true;
      },
      nullptr, nullptr);
  return n == size_t(gDocs) || keep ? double(n) / (bench::Now() - t0) : 0;
}

double Bulk(qz::http::HttpConnectionPool& pool, const qztest::ElasticEmulator& elastic, const std::string& index,
            const std::vector<std::pair<std::string, std::string>>& docs) {
  const double t0 = bench::Now();
  qz::elasticsearch::BulkIndexer indexer(
      pool, qz::elasticsearch::ElasticConnectionParameters(qz::Url(elastic.baseUrl())), 1, 1000);
  for (const auto& [id, json] : docs)
    indexer.indexJson(index, id, json);
  const bool ok = indexer.flush(nullptr);
  return ok ? double(docs.size()) / (bench::Now() - t0) : 0;
}

// Runs `httptools river --once` (or `mode`); docs/s, and the process's peak RSS in MB. `extra`:
// documents the alias holds beyond the database's (--verify then exits 1).
double River(const qztest::PouchDbServer& couch, const std::string& db, const qztest::ElasticEmulator& elastic,
             const std::string& alias, int docs, double* rssMb, const char* mode = "--once", int extra = 0) {
  const std::string from = couch.baseUrl() + "/" + db, to = elastic.baseUrl() + "/" + alias;
  const double t0 = bench::Now();
  const pid_t pid = fork();
  if (pid == 0) {
    const int null = open("/dev/null", O_WRONLY);
    dup2(null, 1);
    dup2(null, 2);
    execl(HTTPTOOLS_CLI, HTTPTOOLS_CLI, "river", from.c_str(), to.c_str(), mode, "--name", alias.c_str(), "--status-ms",
          "100000", static_cast<char*>(nullptr));
    _exit(127);
  }
  // The child's own high-water mark (VmHWM of its address space after exec; ru_maxrss would also
  // count the pages it shared with this process between fork and exec).
  int status = 0;
  long hwmKb = 0;
  while (pid > 0) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/status");
    bool execed = false; // before exec the child is a copy of this process
    for (std::string line; std::getline(in, line);) {
      if (line.rfind("Name:", 0) == 0)
        execed = line.find("httptools") != std::string::npos;
      if (execed && line.rfind("VmHWM:", 0) == 0)
        hwmKb = std::max(hwmKb, std::atol(line.c_str() + 6));
    }
    const pid_t done = waitpid(pid, &status, WNOHANG);
    if (done == pid)
      break;
    if (done < 0)
      return 0;
    usleep(5000);
  }
  if (pid < 0 || !WIFEXITED(status) || WEXITSTATUS(status) != (extra ? 1 : 0))
    return 0;
  const double t = bench::Now() - t0;
  *rssMb = double(hwmKb) / 1024;
  return elastic.docCount(alias + "-1") == size_t(docs + extra) ? docs / t : 0;
}

// Both sides read alone, as --verify reads them: _all_docs in pages of 1000, then the alias scanned
// with its revisions; docs/s.
double ReadBoth(qz::http::HttpConnectionPool& pool, const qztest::PouchDbServer& couch, const std::string& db,
                const qztest::ElasticEmulator& elastic, const std::string& alias) {
  const double t0 = bench::Now();
  size_t rows = 0;
  for (std::string last;;) {
    std::string text;
    const std::string from = last.empty() ? "" : "&skip=1&startkey=%22" + last + "%22";
    if (couch.request("GET", "/" + db + "/_all_docs?limit=1000" + from, {}, &text) != 200)
      return 0;
    size_t page = 0;
    for (size_t at = text.find("\"id\":\""); at != std::string::npos; at = text.find("\"id\":\"", at + 1), ++page)
      last = text.substr(at + 6, text.find('"', at + 6) - at - 6);
    rows += page;
    if (page < 1000)
      break;
  }
  const qz::elasticsearch::ElasticConnectionParameters server(qz::Url(elastic.baseUrl()));
  qz::http::HttpConnectionLocker connection(pool, server);
  size_t hits = 0;
  const bool scanned = qz::elasticsearch::FetchSearchResults(
      *connection, server, alias, R"({"_source":["httptools_rev"]})",
      [&](qz::elasticsearch::SearchHit&) { return ++hits > 0; }, 1000, nullptr, nullptr);
  return scanned && rows == hits ? double(rows) / (bench::Now() - t0) : 0;
}

bool Comparison() {
  qztest::PouchDbServer couch;
  if (!couch.ok()) {
    std::fprintf(stderr, "river_bench: %s\n", couch.error().c_str());
    return false;
  }
  qztest::ElasticEmulator elastic;
  if (!elastic.start()) {
    std::fprintf(stderr, "river_bench: the emulator cannot start: %s\n", elastic.lastError().c_str());
    return false;
  }
  const double l0 = bench::Now();
  if (!Load(couch, "big", gDocs) || !Load(couch, "small", std::max(1, gDocs / 10))) {
    std::fprintf(stderr, "river_bench: loading pouchdb-server failed\n");
    return false;
  }
  std::printf("loaded %d + %d docs of ~1 KB into pouchdb-server in %.1f s\n", gDocs, std::max(1, gDocs / 10),
              bench::Now() - l0);
  qz::http::HttpConnectionPool pool;
  std::vector<std::pair<std::string, std::string>> docs;
  Feed(pool, couch, "big", &docs);
  if (docs.size() != size_t(gDocs)) {
    std::fprintf(stderr, "river_bench: the feed gave %zu docs of %d\n", docs.size(), gDocs);
    return false;
  }
  std::vector<double> feed, bulk, river, ratio, rss;
  for (int round = 0; round < gRounds; ++round) {
    double f = 0, b = 0, r = 0, mb = 0;
    const std::string index = "bulk-" + std::to_string(round), alias = "river" + std::to_string(round);
    if (round % 2 == 0) {
      f = Feed(pool, couch, "big", nullptr);
      b = Bulk(pool, elastic, index, docs);
      r = River(couch, "big", elastic, alias, gDocs, &mb);
    } else {
      r = River(couch, "big", elastic, alias, gDocs, &mb);
      b = Bulk(pool, elastic, index, docs);
      f = Feed(pool, couch, "big", nullptr);
    }
    if (f <= 0 || b <= 0 || r <= 0) {
      std::fprintf(stderr, "river_bench: round %d failed (feed %.0f, bulk %.0f, river %.0f docs/s)\n", round, f, b, r);
      return false;
    }
    feed.push_back(f), bulk.push_back(b), river.push_back(r), rss.push_back(mb);
    ratio.push_back(r / std::min(f, b));
    elastic.reset(); // frees the emulator's copies
  }
  double smallRss = 0;
  if (River(couch, "small", elastic, "small", std::max(1, gDocs / 10), &smallRss) <= 0) {
    std::fprintf(stderr, "river_bench: the river on the small database failed\n");
    return false;
  }
  std::printf("%d docs, %d interleaved rounds (medians; a shared, loaded machine)\n", gDocs, gRounds);
  std::printf("feed alone %8.0f docs/s   bulk alone %8.0f docs/s   river %8.0f docs/s   river/slower %.2f\n",
              bench::Median(feed), bench::Median(bulk), bench::Median(river), bench::Median(ratio));
  std::printf("river peak RSS: %.1f MB with %d docs, %.1f MB with %d docs\n", bench::Median(rss), gDocs, smallRss,
              std::max(1, gDocs / 10));
  if (!gVerify)
    return true;
  double filled = 0;
  qz::elasticsearch::BulkIndexer extra(pool, qz::elasticsearch::ElasticConnectionParameters(qz::Url(elastic.baseUrl())),
                                       1, 1);
  if (River(couch, "big", elastic, "verify", gDocs, &filled) <= 0 ||
      River(couch, "big", elastic, "drift", gDocs, &filled) <= 0 || !extra.indexJson("drift", "extra", "{}") ||
      !extra.flush(nullptr)) {
    std::fprintf(stderr, "river_bench: filling the aliases to verify failed\n");
    return false;
  }
  std::vector<double> read, verify, drift, verifyRatio, driftRatio, verifyRss;
  for (int round = 0; round < gRounds; ++round) {
    double mb = 0, unused = 0;
    const double r = ReadBoth(pool, couch, "big", elastic, "verify");
    const double v = River(couch, "big", elastic, "verify", gDocs, &mb, "--verify");
    const double x = River(couch, "big", elastic, "drift", gDocs, &unused, "--verify", 1);
    if (r <= 0 || v <= 0 || x <= 0) {
      std::fprintf(stderr, "river_bench: verify round %d failed (read %.0f, verify %.0f, %.0f docs/s)\n", round, r, v,
                   x);
      return false;
    }
    std::printf("verify round %d: read alone %.0f, equal %.0f (%.2fx), one extra %.0f (%.2fx) docs/s, %.1f MB\n", round,
                r, v, v / r, x, x / r, mb);
    read.push_back(r), verify.push_back(v), drift.push_back(x), verifyRss.push_back(mb);
    verifyRatio.push_back(v / r), driftRatio.push_back(x / r);
  }
  std::printf("both sides read alone %8.0f docs/s   river --verify %8.0f docs/s   ratio %.2f   peak RSS %.1f MB\n",
              bench::Median(read), bench::Median(verify), bench::Median(verifyRatio), bench::Median(verifyRss));
  std::printf("with one extra document (index scanned too) %8.0f docs/s   ratio %.2f\n", bench::Median(drift),
              bench::Median(driftRatio));
  return true;
}

void BM_PackMapping(benchmark::State& state) {
  qz::qzVariant mapping;
  qz::river::detail::ParseMapping(
      R"({"properties":{"i":{"type":"long"},"group":{"type":"keyword"},"pad":{"type":"text","index":false},)"
      R"("when":{"type":"date","format":"strict_date_optional_time"}}})",
      mapping, nullptr);
  for (auto _ : state) {
    qz::qzVariant back;
    benchmark::DoNotOptimize(qz::river::detail::UnpackMapping(qz::river::detail::PackMapping(mapping), back));
  }
}
BENCHMARK(BM_PackMapping);

} // namespace

int main(int argc, char** argv) {
  bench::Args args(argc, argv);
  gDocs = args.takeInt("--docs=", gDocs, 10, 1000);
  gRounds = args.takeInt("--rounds=", gRounds, 1, 1);
  gVerify = args.takeSwitch("--verify");
  args.initializeBenchmark();
  return bench::RunWithLibrary(Comparison);
}
