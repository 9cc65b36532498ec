// Elasticsearch tools against the emulator (a child process, so that its CPU is not the client's):
//
// 1. Bulk-index N ~1 KB documents through BulkIndexer (plain, and gzip at levels 1 and 6) and
//    through the official Python client's helpers.bulk with the same batch size: client CPU, bytes
//    sent per document and documents per second; the emulator's own CPU is shown so that one can
//    see it was not the limit.
// 2. Read every hit back: FetchSearchResults (hits cut while the answer arrives) against the same
//    point-in-time pages read whole into a RapidJSON DOM and walked into variants; time and peak heap
//    in use above the start of each read.
// 3. Export every document as `es export` writes it (a JSON line with _id, _source, _routing):
//    FetchSlicedSearchResults with 1, 2 and 4 slices of one point in time against the Python
//    client's helpers.scan (a scroll) doing the same, with each side's peak memory and the emulator's
//    CPU per document, so that one sees when the emulator is the limit.
//
// Rounds interleave the paths (alternating which goes first); figures are medians, ratios the median
// of each round's own. The machine is shared, so single timings drift; the ratios hold.
//
//   es_bench [--docs=N] [--rounds=R] [benchmark flags]   (a --benchmark_min_time flag alone: quick run)
#include <HttpTools/HttpTools.h>
#include <HttpTools/elasticsearch/ElasticRequest_p.h>
#include <HttpTools/elasticsearch/ResponseItemCutter_p.h>

#include "support/Process.h"

#include "BenchSupport.h"
#include "DomReference.h"

#include <benchmark/benchmark.h>
#include <rapidjson/document.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <malloc.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

using qz::qzVariant;
using qz::qzVariantMapImpl;

namespace {

int gDocs = 100000;
int gRounds = 3;
std::string gBase;

// The emulator as a child that dies with us (it watches its standard input).
class Emulator {
public:
  bool start() {
    int in[2], out[2];
    if (pipe(in) != 0 || pipe(out) != 0)
      return false;
    m_pid = fork();
    if (m_pid == 0) {
      dup2(in[0], 0);
      dup2(out[1], 1);
      close(in[1]);
      close(out[0]);
      execl(ES_EMULATOR, ES_EMULATOR, "--watch-stdin", static_cast<char*>(nullptr));
      _exit(127);
    }
    close(in[0]);
    close(out[1]);
    m_stdin = in[1];
    char line[64] = {};
    size_t got = 0;
    while (got < sizeof line - 1 && read(out[0], line + got, 1) == 1 && line[got] != '\n')
      ++got;
    close(out[0]);
    int port = 0;
    if (std::sscanf(line, "port %d", &port) != 1)
      return false;
    gBase = "http://127.0.0.1:" + std::to_string(port);
    return true;
  }
  ~Emulator() {
    if (m_stdin >= 0)
      close(m_stdin);
    if (m_pid > 0)
      waitpid(m_pid, nullptr, 0);
  }

private:
  pid_t m_pid = -1;
  int m_stdin = -1;
};

std::string request(const char* method, const std::string& path, const std::string& body = "") {
  qz::http::HttpConnection conn;
  qz::elasticsearch::ElasticResponse r;
  qz::elasticsearch::ElasticCall(conn, method, qz::elasticsearch::ElasticConnectionParameters(qz::Url(gBase + path)),
                                 body.empty() ? nullptr : &body, "application/json", r);
  return r.body;
}

qzVariantMapImpl emulatorStats() {
  qzVariantMapImpl stats;
  qz::json::Json2Variant::Convert(request("GET", "/_emulator/stats"), stats);
  return stats;
}
double emulatorCpu() { return double(emulatorStats()["cpu_us"].toInt64()) / 1e6; }
// _bulk body bytes the emulator has received, as sent.
double bulkBytes() { return double(emulatorStats()["bulk_bytes"].toInt64()); }

// About 1 KB: a title, a long text with quotes and brackets, tags, numbers and a nested object.
std::string text(int i) {
  std::string s = "Document " + std::to_string(i) + " \"quoted\" {braces} [brackets] ";
  while (s.size() < 760)
    s += "lorem ipsum dolor sit amet " + std::to_string(i * 31 % 997) + " ";
  return s;
}

qzVariantMapImpl makeDoc(int i) {
  return {{"n", i},
          {"title", "title " + std::to_string(i)},
          {"body", text(i)},
          {"tags", qz::qzVariantListImpl{"alpha", "beta", std::to_string(i % 10)}},
          {"price", double(i) * 0.25},
          {"active", i % 2 == 0},
          {"nested", qzVariantMapImpl{{"x", i}, {"y", "why " + std::to_string(i)}}}};
}

const char* kPython = R"PY(
import json, sys, time
from elasticsearch import Elasticsearch, helpers
url, index, n = sys.argv[1], sys.argv[2], int(sys.argv[3])
def text(i):
    s = 'Document %d "quoted" {braces} [brackets] ' % i
    while len(s) < 760:
        s += 'lorem ipsum dolor sit amet %d ' % (i * 31 % 997)
    return s
docs = [{"_index": index, "_id": "d%d" % i, "_source": {"n": i, "title": "title %d" % i, "body": text(i),
         "tags": ["alpha", "beta", str(i % 10)], "price": i * 0.25, "active": i % 2 == 0,
         "nested": {"x": i, "y": "why %d" % i}}} for i in range(n)]
es = Elasticsearch(url)
es.info()
cpu, wall = time.process_time(), time.perf_counter()
ok, errors = helpers.bulk(es, docs, chunk_size=1000, max_chunk_bytes=100 * 1024 * 1024, raise_on_error=False)
print(json.dumps({"ok": ok, "errors": len(errors), "cpu": time.process_time() - cpu, "wall": time.perf_counter() - wall}))
)PY";

struct BulkSample {
  double cpuPerDoc = 0, docsPerSec = 0, emulatorCpuPerDoc = 0, bytesPerDoc = 0;
  bool ok = false;
};

BulkSample ourBulk(qz::http::HttpConnectionPool& pool, const std::vector<qzVariantMapImpl>& docs,
                   const std::string& index, int gzipLevel) {
  BulkSample s;
  const qz::elasticsearch::ElasticConnectionParameters server{qz::Url(gBase)};
  const double b0 = bulkBytes();
  const double e0 = emulatorCpu(), c0 = bench::SelfCpuSec(), t0 = bench::Now();
  {
    qz::elasticsearch::BulkIndexer indexer(pool, server, 2, 1000, 100 << 20);
    indexer.setRequestOptions({"", "", gzipLevel});
    for (size_t i = 0; i < docs.size(); ++i)
      indexer.index(index, "d" + std::to_string(i), docs[i]);
    std::string error;
    s.ok = indexer.flush(&error) && indexer.stats().indexed == docs.size();
    if (!s.ok)
      std::fprintf(stderr, "BulkIndexer: %s\n", error.c_str());
  }
  const double c1 = bench::SelfCpuSec(), t1 = bench::Now();
  s.emulatorCpuPerDoc = (emulatorCpu() - e0) / double(docs.size());
  s.cpuPerDoc = (c1 - c0) / double(docs.size());
  s.docsPerSec = double(docs.size()) / (t1 - t0);
  s.bytesPerDoc = (bulkBytes() - b0) / double(docs.size());
  return s;
}

BulkSample pythonBulk(const std::string& index) {
  BulkSample s;
  std::string out, err;
  const double b0 = bulkBytes(), e0 = emulatorCpu();
  const int rc =
      qztest::RunProgram({"/usr/bin/python3", "-c", kPython, gBase, index, std::to_string(gDocs)}, "", out, err);
  qzVariantMapImpl r;
  if (rc != 0 || !qz::json::Json2Variant::Convert(out, r)) {
    std::fprintf(stderr, "python helpers.bulk failed: %s%s\n", err.c_str(), out.c_str());
    return s;
  }
  s.ok = r["ok"].toInt64() == gDocs && r["errors"].toInt64() == 0;
  s.cpuPerDoc = r["cpu"].toDouble() / gDocs;
  s.docsPerSec = gDocs / r["wall"].toDouble();
  s.emulatorCpuPerDoc = (emulatorCpu() - e0) / gDocs; // includes the script's start-up requests
  s.bytesPerDoc = (bulkBytes() - b0) / gDocs;
  return s;
}

// Heap in use now (glibc), to follow each read's peak.
size_t heapInUse() { return mallinfo2().uordblks; }

struct SearchSample {
  double seconds = 0;
  size_t peak = 0;
  size_t hits = 0;
  int64_t weight = 0;
};

SearchSample streamedSearch(const std::string& index, unsigned page) {
  SearchSample s;
  qz::http::HttpConnection conn;
  const qz::elasticsearch::ElasticConnectionParameters server{qz::Url(gBase)};
  const size_t base = heapInUse();
  const double t0 = bench::Now();
  std::string error;
  const bool ok = qz::elasticsearch::FetchSearchResults(
      conn, server, index, "",
      [&](qz::elasticsearch::SearchHit& hit) {
        ++s.hits;
        s.weight += int64_t(hit.id.size() + hit.source.toMap().size());
        if ((s.hits & 63) == 0)
          s.peak = std::max(s.peak, heapInUse() - std::min(base, heapInUse()));
        return true;
      },
      page, &error, nullptr);
  s.seconds = bench::Now() - t0;
  if (!ok)
    std::fprintf(stderr, "FetchSearchResults: %s\n", error.c_str());
  return s;
}

// Reference: the same point-in-time pages, each read whole, parsed into a DOM, then walked.
SearchSample domSearch(const std::string& index, unsigned page) {
  SearchSample s;
  qz::http::HttpConnection conn;
  const size_t base = heapInUse();
  const double t0 = bench::Now();
  qzVariantMapImpl opened;
  qz::json::Json2Variant::Convert(request("POST", "/" + index + "/_pit?keep_alive=1m"), opened);
  const std::string pit = opened["id"].toString();
  std::string after;
  for (;;) {
    std::string body = R"({"size":)" + std::to_string(page) + R"(,"sort":["_shard_doc"],"track_total_hits":false,)" +
                       R"("pit":{"id":")" + pit + R"(","keep_alive":"1m"})" +
                       (after.empty() ? "" : ",\"search_after\":" + after) + "}";
    qz::elasticsearch::ElasticResponse r;
    qz::elasticsearch::ElasticCall(conn, "POST",
                                   qz::elasticsearch::ElasticConnectionParameters(qz::Url(gBase + "/_search")), &body,
                                   "application/json", r);
    rapidjson::Document doc;
    doc.Parse(r.body.data(), r.body.size());
    if (doc.HasParseError() || !doc.IsObject()) {
      std::fprintf(stderr, "reference search failed: %s\n", r.body.substr(0, 200).c_str());
      break;
    }
    const auto& hits = doc["hits"]["hits"];
    s.peak = std::max(s.peak, heapInUse() - std::min(base, heapInUse()));
    for (const auto& h : hits.GetArray()) {
      const std::string id = h["_id"].GetString();
      qzVariant source = bench::ToVariant(h["_source"]);
      ++s.hits;
      s.weight += int64_t(id.size() + source.toMap().size());
    }
    if (hits.Size() < page)
      break;
    after = "[" + std::to_string(hits[hits.Size() - 1]["sort"][0].GetInt64()) + "]";
  }
  request("DELETE", "/_pit", R"({"id":")" + pit + "\"}");
  s.seconds = bench::Now() - t0;
  return s;
}

const char* kPythonScan = R"PY(
import json, resource, sys, time
from elasticsearch import Elasticsearch, helpers
es = Elasticsearch(sys.argv[1])
es.info()
cpu, wall = time.process_time(), time.perf_counter()
n = size = 0
for h in helpers.scan(es, index=sys.argv[2], size=1000):
    line = {"_id": h["_id"], "_source": h["_source"]}
    if "_routing" in h:
        line["_routing"] = h["_routing"]
    size += len(json.dumps(line, separators=(",", ":"))) + 1
    n += 1
print(json.dumps({"n": n, "bytes": size, "cpu": time.process_time() - cpu, "wall": time.perf_counter() - wall,
                  "rss_kb": resource.getrusage(resource.RUSAGE_SELF).ru_maxrss}))
)PY";

struct ExportSample {
  double docsPerSec = 0, cpuPerDoc = 0, emulatorCpuPerDoc = 0, peakMb = 0;
  size_t docs = 0, bytes = 0;
};

ExportSample ourExport(qz::http::HttpConnectionPool& pool, const std::string& index, unsigned slices) {
  ExportSample s;
  const qz::elasticsearch::ElasticConnectionParameters server{qz::Url(gBase)};
  const size_t base = heapInUse();
  std::vector<size_t> docs(slices), bytes(slices), peaks(slices);
  std::vector<std::string> lines(slices);
  qz::elasticsearch::SearchOptions options;
  options.pageSize = 1000;
  std::string error;
  const double e0 = emulatorCpu(), c0 = bench::SelfCpuSec(), t0 = bench::Now();
  const bool ok = qz::elasticsearch::FetchSlicedSearchResults(
      pool, server, index, "",
      [&](qz::elasticsearch::SearchHit& hit, unsigned slice) {
        qzVariantMapImpl line{{"_id", hit.id}, {"_source", std::move(hit.source)}};
        if (!hit.routing.empty())
          line["_routing"] = hit.routing;
        qz::json::Json2Variant::Convert(line, lines[slice], false);
        bytes[slice] += lines[slice].size() + 1;
        if ((++docs[slice] & 63) == 0)
          peaks[slice] = std::max(peaks[slice], heapInUse() - std::min(base, heapInUse()));
        return true;
      },
      slices, options, &error, nullptr);
  const double t1 = bench::Now(), c1 = bench::SelfCpuSec();
  if (!ok)
    std::fprintf(stderr, "FetchSlicedSearchResults: %s\n", error.c_str());
  for (unsigned i = 0; i < slices; ++i)
    s.docs += docs[i], s.bytes += bytes[i], s.peakMb = std::max(s.peakMb, double(peaks[i]) / (1 << 20));
  s.docsPerSec = double(s.docs) / (t1 - t0);
  s.cpuPerDoc = (c1 - c0) / double(std::max<size_t>(1, s.docs));
  s.emulatorCpuPerDoc = (emulatorCpu() - e0) / double(std::max<size_t>(1, s.docs));
  return s;
}

ExportSample pythonExport(const std::string& index) {
  ExportSample s;
  std::string out, err;
  const double e0 = emulatorCpu();
  const int rc = qztest::RunProgram({"/usr/bin/python3", "-c", kPythonScan, gBase, index}, "", out, err);
  qzVariantMapImpl r;
  if (rc != 0 || !qz::json::Json2Variant::Convert(out, r)) {
    std::fprintf(stderr, "python helpers.scan failed: %s%s\n", err.c_str(), out.c_str());
    return s;
  }
  s.docs = size_t(r["n"].toInt64());
  s.bytes = size_t(r["bytes"].toInt64());
  s.docsPerSec = double(s.docs) / r["wall"].toDouble();
  s.cpuPerDoc = r["cpu"].toDouble() / double(std::max<size_t>(1, s.docs));
  s.emulatorCpuPerDoc = (emulatorCpu() - e0) / double(std::max<size_t>(1, s.docs));
  s.peakMb = double(r["rss_kb"].toInt64()) / 1024; // its whole process's peak resident set
  return s;
}

// Export with 1, 2 and 4 slices beside python's helpers.scan, the order turning each round.
bool exports(qz::http::HttpConnectionPool& pool) {
  const unsigned slices[] = {1, 2, 4};
  std::vector<double> rate[4], cpu[4], emu[4], ratio[4];
  double peak[4] = {0, 0, 0, 0};
  bool ok = true;
  size_t pyBytes = 0;
  for (int round = 0; round < gRounds; ++round) {
    ExportSample sample[4];
    for (int k = 0; k < 4; ++k) {
      const int which = (k + round) % 4; // 3: python
      sample[which] = which == 3 ? pythonExport("bench") : ourExport(pool, "bench", slices[which]);
    }
    pyBytes = sample[3].bytes;
    for (int which = 0; which < 4; ++which) {
      const ExportSample& x = sample[which];
      ok = ok && x.docs == size_t(gDocs) && x.bytes == pyBytes;
      rate[which].push_back(x.docsPerSec);
      cpu[which].push_back(x.cpuPerDoc * 1e6);
      emu[which].push_back(x.emulatorCpuPerDoc * 1e6);
      ratio[which].push_back(sample[3].docsPerSec > 0 ? x.docsPerSec / sample[3].docsPerSec : 0);
      peak[which] = std::max(peak[which], x.peakMb);
    }
  }
  std::printf("export, %d documents as JSON lines (%zu bytes), pages of 1000 (medians)\n", gDocs, pyBytes);
  std::printf("  %-30s %10s %14s %16s %10s %14s\n", "", "docs/s", "client us/doc", "emulator us/doc", "x python",
              "peak MB");
  const char* names[] = {"FetchSlicedSearchResults, 1", "FetchSlicedSearchResults, 2", "FetchSlicedSearchResults, 4",
                         "python helpers.scan"};
  for (int which = 0; which < 4; ++which)
    std::printf("  %-30s %10.0f %14.2f %16.2f %10.2f %14.1f\n", names[which], bench::Median(rate[which]),
                bench::Median(cpu[which]), bench::Median(emu[which]), bench::Median(ratio[which]), peak[which]);
  std::printf("  peak MB: heap in use above the start for ours, the whole process's resident set for python\n");
  std::printf("  the emulator alone serves at most %.0f docs/s per core (its CPU per document, 2 slices)\n",
              1e6 / std::max(1e-9, bench::Median(emu[1])));
  return ok;
}

int comparisons() {
  std::vector<qzVariantMapImpl> docs;
  docs.reserve(size_t(gDocs));
  for (int i = 0; i < gDocs; ++i)
    docs.push_back(makeDoc(i));
  std::string sample;
  qz::json::Json2Variant::Convert(docs[0], sample, false);

  qz::http::HttpConnectionPool pool;
  // Paths: BulkIndexer plain, gzip 1, gzip 6 (the CLI's), python; the order turns each round.
  const char* names[] = {"BulkIndexer (2 threads)", "BulkIndexer gzip level 1", "BulkIndexer gzip level 6",
                         "python helpers.bulk"};
  const char* indices[] = {"bench", "gz1", "gz6", "py"};
  const int levels[] = {0, 1, 6};
  std::vector<double> cpu[4], rate[4], emu[4], bytes[4], cpuRatio, gzipCost[2];
  bool ok = true;
  for (int round = 0; round < gRounds; ++round) {
    BulkSample x[4];
    for (int k = 0; k < 4; ++k) {
      const int which = (k + round) % 4;
      x[which] = which == 3 ? pythonBulk("py") : ourBulk(pool, docs, indices[which], levels[which]);
    }
    for (int which = 0; which < 4; ++which) {
      if (which) // "bench" stays for the searches
        request("DELETE", std::string("/") + indices[which]);
      ok = ok && x[which].ok;
      cpu[which].push_back(x[which].cpuPerDoc * 1e6);
      rate[which].push_back(x[which].docsPerSec);
      emu[which].push_back(x[which].emulatorCpuPerDoc * 1e6);
      bytes[which].push_back(x[which].bytesPerDoc);
    }
    if (x[3].cpuPerDoc > 0)
      cpuRatio.push_back(x[0].cpuPerDoc / x[3].cpuPerDoc);
    for (int g = 0; g < 2; ++g)
      gzipCost[g].push_back((x[g + 1].cpuPerDoc - x[0].cpuPerDoc) * 1e6);
  }
  std::printf("bulk index, %d rounds x %d documents of %zu bytes, batches of 1000 (medians)\n", gRounds, gDocs,
              sample.size());
  std::printf("  %-28s %10s %14s %16s %12s\n", "", "docs/s", "client us/doc", "emulator us/doc", "bytes/doc");
  for (int which = 0; which < 4; ++which)
    std::printf("  %-28s %10.0f %14.2f %16.2f %12.1f\n", names[which], bench::Median(rate[which]),
                bench::Median(cpu[which]), bench::Median(emu[which]), bench::Median(bytes[which]));
  std::printf("  client CPU ratio BulkIndexer/python, median of the rounds' own: %.3f (target <= 0.2)\n",
              bench::Median(cpuRatio));
  for (int g = 0; g < 2; ++g)
    std::printf("  gzip level %d costs %.2f client us/doc more than plain (median of the rounds' own) and sends "
                "%.1f%% of its bytes\n",
                levels[g + 1], bench::Median(gzipCost[g]), 100 * bench::Median(bytes[g + 1]) / bench::Median(bytes[0]));

  const unsigned page = 10000;
  std::vector<double> timeRatio;
  size_t streamPeak = 0, domPeak = 0;
  double streamSec = 0, domSec = 0;
  for (int round = 0; round < gRounds; ++round) {
    SearchSample a, b;
    if (round % 2 == 0) {
      a = streamedSearch("bench", page);
      b = domSearch("bench", page);
    } else {
      b = domSearch("bench", page);
      a = streamedSearch("bench", page);
    }
    ok = ok && a.hits == size_t(gDocs) && b.hits == size_t(gDocs) && a.weight == b.weight;
    streamPeak = std::max(streamPeak, a.peak);
    domPeak = std::max(domPeak, b.peak);
    timeRatio.push_back(b.seconds / a.seconds);
    streamSec += a.seconds;
    domSec += b.seconds;
  }
  std::printf("search, %d hits in pages of %u through a point in time\n", gDocs, page);
  std::printf("  streamed: %.0f hits/s, peak heap %.2f MB (target < 2 MB)\n", gDocs * gRounds / streamSec,
              double(streamPeak) / (1 << 20));
  std::printf("  whole page + DOM: %.0f hits/s, peak heap %.2f MB\n", gDocs * gRounds / domSec,
              double(domPeak) / (1 << 20));
  std::printf("  speed ratio streamed/DOM, median of the rounds' own: %.2f\n", bench::Median(timeRatio));
  ok = exports(pool) && ok;
  std::fflush(stdout);
  return ok ? 0 : 1;
}

// The hit cutter alone on one synthetic page, for the benchmark library's own timing.
void BM_CutSearchPage(benchmark::State& state) {
  std::string page = R"({"pit_id":"x","took":1,"timed_out":false,"hits":{"hits":[)";
  for (int i = 0; i < 1000; ++i) {
    std::string source;
    qz::json::Json2Variant::Convert(makeDoc(i), source, false);
    page += (i ? "," : "") + std::string(R"({"_index":"bench","_id":"d)") + std::to_string(i) +
            R"(","_score":null,"_source":)" + source + R"(,"sort":[)" + std::to_string(i) + "]}";
  }
  page += "]}}";
  size_t items = 0;
  qz::elasticsearch::ResponseItemCutter cutter("hits", "hits", [&](const char*, size_t) { return ++items > 0; });
  for (auto _ : state) {
    cutter.reset();
    for (size_t at = 0; at < page.size(); at += 16384)
      cutter.feed(page.data() + at, std::min<size_t>(16384, page.size() - at));
  }
  state.SetBytesProcessed(int64_t(page.size()) * int64_t(state.iterations()));
}
BENCHMARK(BM_CutSearchPage);

} // namespace

int main(int argc, char** argv) {
  bench::Args args(argc, argv);
  gDocs = args.takeInt("--docs=", gDocs, 1, 3000);
  gRounds = args.takeInt("--rounds=", gRounds, 1, 1);
  args.initializeBenchmark();
  qz::initializeHttpTools(true, qz::http::HNRP_Whatever, qz::http::PP_NoProxy);
  int rc;
  {
    Emulator emulator;
    if (!emulator.start()) {
      std::fprintf(stderr, "cannot start the emulator %s\n", ES_EMULATOR);
      qz::terminateHttpTools();
      return 1;
    }
    rc = comparisons();
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
  }
  qz::terminateHttpTools();
  return rc;
}
