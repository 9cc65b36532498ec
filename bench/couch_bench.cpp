// CouchDB tools against pouchdb-server, ours beside nano (the Node.js client, run by node) in the
// same run:
//   upload: N documents of ~1 KB with _bulk_docs, 4 requests in flight, batches of 500;
//   feed:   the database's change feed with include_docs, read to its end.
// Rounds alternate the order (ours then nano, nano then ours), each path on a fresh database.
// The table shows medians of docs/s, client CPU per 1,000 docs and pouchdb-server CPU per 1,000
// docs, and the median of the per-round ratios ours/nano. pouchdb-server bounds both clients.
// Then our client's CPU per uploaded document against a server (a child process) that answers
// every _bulk_docs with a canned result. The Google Benchmark cases time the feed parser.
//
//   couch_bench [--docs=N] [--rounds=R] [benchmark flags]   (a short --benchmark_min_time: a quick run)

#include <HttpTools/HttpTools.h>

#include <HttpTools/couch/ChangesFeedParser_p.h>

#include "support/PouchDbFixture.h"
#include "support/Process.h"

#include "BenchSupport.h"

#include <benchmark/benchmark.h>
#include <httplib.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

int gDocs = 20000;
int gRounds = 5;
const unsigned kThreads = 4;
const size_t kBatch = 500;
const size_t kPad = 1000;

// CPU seconds (user + system) of another process, from /proc.
double processCpuSec(pid_t pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
  std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  const size_t close = text.rfind(')');
  if (close == std::string::npos)
    return 0;
  std::vector<std::string> fields;
  size_t at = close + 2;
  while (at < text.size() && fields.size() < 15) {
    const size_t end = text.find(' ', at);
    fields.push_back(text.substr(at, end - at));
    at = end == std::string::npos ? text.size() : end + 1;
  }
  if (fields.size() < 13)
    return 0;
  return double(std::stoll(fields[11]) + std::stoll(fields[12])) / double(sysconf(_SC_CLK_TCK));
}

struct Sample {
  double docsPerSec = 0;
  double clientCpuMsPerK = 0;
  double serverCpuMsPerK = 0;
  bool ok = false;
};

qz::qzVariantMapImpl MakeDoc(int i, const std::string& pad) {
  char id[16];
  std::snprintf(id, sizeof id, "doc-%06d", i);
  return {{"_id", id}, {"i", int64_t(i)}, {"pad", pad}};
}

Sample OursUpload(qz::http::HttpConnectionPool& pool, const qztest::PouchDbServer& server, const std::string& db) {
  const qz::couch::CouchConnectionParameters params(qz::Url(server.baseUrl()));
  const std::string pad(kPad, 'x');
  const double cpu0 = bench::SelfCpuSec(), srv0 = processCpuSec(server.pid()), t0 = bench::Now();
  size_t stored = 0;
  {
    qz::couch::DocumentUploader up(pool, params, db, kThreads, kBatch);
    for (int i = 0; i < gDocs; ++i)
      up.add(MakeDoc(i, pad));
    std::string error;
    if (!up.flush(&error))
      std::fprintf(stderr, "our upload: %s\n", error.c_str());
    stored = up.uploaded();
  }
  const double t = bench::Now() - t0;
  return {double(stored) / t, (bench::SelfCpuSec() - cpu0) * 1e6 / gDocs,
          (processCpuSec(server.pid()) - srv0) * 1e6 / gDocs, stored == size_t(gDocs)};
}

Sample OursFeed(qz::http::HttpConnectionPool& pool, const qztest::PouchDbServer& server, const std::string& db) {
  const qz::couch::CouchConnectionParameters params(qz::Url(server.baseUrl()));
  qz::couch::ChangesOptions o;
  o.includeDocs = true;
  const double cpu0 = bench::SelfCpuSec(), srv0 = processCpuSec(server.pid()), t0 = bench::Now();
  size_t docs = 0;
  qz::couch::ChangesFeedListener feed(pool, params, db, o);
  std::string error;
  const bool ok = feed.run([&](const qz::couch::Change& c) { return docs += c.doc.isMap() ? 1 : 0, true; }, &error);
  if (!ok || docs != size_t(gDocs))
    std::fprintf(stderr, "our feed: %zu docs, %s\n", docs, error.c_str());
  const double t = bench::Now() - t0;
  return {double(docs) / t, (bench::SelfCpuSec() - cpu0) * 1e6 / gDocs,
          (processCpuSec(server.pid()) - srv0) * 1e6 / gDocs, ok && docs == size_t(gDocs)};
}

Sample Nano(const char* mode, const qztest::PouchDbServer& server, const std::string& db) {
  const std::string script = HTTPTOOLS_SOURCE_DIR "/bench/nano/couch_nano.js";
  const double srv0 = processCpuSec(server.pid());
  std::string out, err;
  const int rc = qztest::RunProgram({"node", script, mode, server.baseUrl(), db, std::to_string(gDocs),
                                     std::to_string(kThreads), std::to_string(kBatch), std::to_string(kPad)},
                                    "", out, err);
  const double srv = processCpuSec(server.pid()) - srv0;
  qz::qzVariantMapImpl r;
  if (rc != 0 || !qz::json::Json2Variant::Convert(out, r)) {
    std::fprintf(stderr, "nano %s failed (%d): %s%s\n", mode, rc, out.c_str(), err.c_str());
    return {};
  }
  const double docs = r["docs"].toDouble();
  return {docs * 1000 / r["ms"].toDouble(), r["cpuMs"].toDouble() * 1000 / gDocs, srv * 1e6 / gDocs,
          docs == double(gDocs)};
}

struct Table {
  std::vector<double> ours, nano, ratio, oursCpu, nanoCpu, oursSrv, nanoSrv;
  void add(const Sample& a, const Sample& b) {
    ours.push_back(a.docsPerSec), nano.push_back(b.docsPerSec), ratio.push_back(a.docsPerSec / b.docsPerSec);
    oursCpu.push_back(a.clientCpuMsPerK), nanoCpu.push_back(b.clientCpuMsPerK);
    oursSrv.push_back(a.serverCpuMsPerK), nanoSrv.push_back(b.serverCpuMsPerK);
  }
  void print(const char* what) const {
    std::printf("%-7s %10.0f %10.0f %8.2f   %7.1f %7.1f   %7.1f %7.1f\n", what, bench::Median(ours),
                bench::Median(nano), bench::Median(ratio), bench::Median(oursCpu), bench::Median(nanoCpu),
                bench::Median(oursSrv), bench::Median(nanoSrv));
  }
};

bool Comparison() {
  qztest::PouchDbServer server;
  if (!server.ok()) {
    std::fprintf(stderr, "%s\n", server.error().c_str());
    return false;
  }
  qz::http::HttpConnectionPool pool;
  Table upload, feed;
  bool ok = true;
  for (int round = 0; round < gRounds && ok; ++round) {
    const std::string a = "ours-" + std::to_string(round), b = "nano-" + std::to_string(round);
    server.request("PUT", "/" + a);
    server.request("PUT", "/" + b);
    Sample ou, nu, of, nf;
    if (round % 2 == 0) {
      ou = OursUpload(pool, server, a), nu = Nano("upload", server, b);
      of = OursFeed(pool, server, a), nf = Nano("feed", server, b);
    } else {
      nu = Nano("upload", server, b), ou = OursUpload(pool, server, a);
      nf = Nano("feed", server, b), of = OursFeed(pool, server, a);
    }
    ok = ou.ok && nu.ok && of.ok && nf.ok;
    if (!ok)
      std::fprintf(stderr, "round %d: complete paths: ours upload %d, nano upload %d, ours feed %d, nano feed %d\n",
                   round, ou.ok, nu.ok, of.ok, nf.ok);
    upload.add(ou, nu);
    feed.add(of, nf);
    server.request("DELETE", "/" + a);
    server.request("DELETE", "/" + b);
  }
  if (!ok) {
    std::fprintf(stderr, "couch_bench: a path did not store or read every document\n");
    return false;
  }
  std::printf("%d docs of ~1 KB, %d interleaved rounds against one pouchdb-server (medians)\n", gDocs, gRounds);
  std::printf("path     ours d/s   nano d/s  ours/nano  client CPU ms/1k docs  server CPU ms/1k docs\n");
  std::printf("                                            ours    nano            ours    nano\n");
  upload.print("upload");
  feed.print("feed");
  return true;
}

// A child process answering every _bulk_docs with the same canned result, so that the parent's
// CPU time is the client's alone. Returns its port; it ends when the parent closes the pipe.
int StartCannedServer(pid_t& child) {
  int toChild[2], toParent[2];
  if (pipe(toChild) != 0 || pipe(toParent) != 0)
    return 0;
  child = fork();
  if (child == 0) {
    close(toChild[1]);
    close(toParent[0]);
    std::string canned = "[";
    for (size_t i = 0; i < kBatch; ++i)
      canned += std::string(i ? "," : "") + R"({"ok":true,"id":"doc","rev":"1-967a00dff5e02add41819138abb3284d"})";
    canned += "]";
    httplib::Server srv;
    srv.Post("/canned/_bulk_docs", [&](const httplib::Request&, httplib::Response& res) {
      res.status = 201;
      res.set_content(canned, "application/json");
    });
    const int port = srv.bind_to_any_port("127.0.0.1");
    std::thread t([&] { srv.listen_after_bind(); });
    if (write(toParent[1], &port, sizeof port) != sizeof port)
      _exit(1);
    char c;
    while (read(toChild[0], &c, 1) > 0) {
    }
    srv.stop();
    t.join();
    _exit(0);
  }
  close(toChild[0]);
  close(toParent[1]);
  int port = 0;
  if (read(toParent[0], &port, sizeof port) != sizeof port)
    port = 0;
  close(toParent[0]);
  // toChild[1] stays open: the process's exit closes it, which ends the child.
  return port;
}

void CannedUpload(int port) {
  qz::http::HttpConnectionPool pool;
  const qz::couch::CouchConnectionParameters params(qz::Url("http://127.0.0.1:" + std::to_string(port)));
  const std::string pad(kPad, 'x');
  const int docs = std::max(gDocs, 20000);
  const double cpu0 = bench::SelfCpuSec(), t0 = bench::Now();
  size_t stored = 0;
  {
    qz::couch::DocumentUploader up(pool, params, "canned", kThreads, kBatch);
    for (int i = 0; i < docs; ++i)
      up.add(MakeDoc(i, pad));
    up.flush(nullptr);
    stored = up.uploaded();
  }
  const double t = bench::Now() - t0, cpu = bench::SelfCpuSec() - cpu0;
  std::printf("canned _bulk_docs server: %zu docs in %.2f s, client CPU %.2f us/doc (%.0f docs/s)\n", stored, t,
              cpu * 1e6 / docs, stored / t);
}

void BM_ChangesFeedParser(benchmark::State& state) {
  std::string feed = "{\"results\":[\n";
  for (int i = 0; i < 1000; ++i)
    feed += std::string(i ? ",\n" : "") + R"({"seq":")" + std::to_string(i) + R"(-g1AAAAB","id":"doc-)" +
            std::to_string(i) + R"(","changes":[{"rev":"1-967a00dff5e02add41819138abb3284d"}],"doc":{"_id":"doc-)" +
            std::to_string(i) + R"(","i":)" + std::to_string(i) + R"(,"pad":")" + std::string(kPad, 'x') + "\"}}";
  feed += "\n],\"last_seq\":\"999-g1AAAAB\",\"pending\":0}\n";
  for (auto _ : state) {
    size_t n = 0;
    qz::couch::ChangesFeedParser parser([&](qz::couch::Change&) { return ++n, true; }, nullptr);
    for (size_t at = 0; at < feed.size(); at += 16384)
      parser.feed(feed.data() + at, std::min<size_t>(16384, feed.size() - at));
    benchmark::DoNotOptimize(n);
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(feed.size()));
  state.SetItemsProcessed(int64_t(state.iterations()) * 1000);
}
BENCHMARK(BM_ChangesFeedParser);

} // namespace

int main(int argc, char** argv) {
  bench::Args args(argc, argv);
  gDocs = args.takeInt("--docs=", gDocs, 1, 1000);
  gRounds = args.takeInt("--rounds=", gRounds, 1, 1);
  args.initializeBenchmark();

  pid_t child = -1;
  const int cannedPort = StartCannedServer(child); // before any thread starts
  if (cannedPort == 0) {
    std::fprintf(stderr, "couch_bench: the canned server did not start\n");
    return 1;
  }
  qz::initializeHttpTools(true, qz::http::HNRP_Whatever, qz::http::PP_NoProxy);
  int rc = Comparison() ? 0 : 1;
  if (rc == 0) {
    CannedUpload(cannedPort);
    std::fflush(stdout);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
  }
  qz::terminateHttpTools();
  kill(child, SIGTERM);
  waitpid(child, nullptr, 0);
  return rc;
}
