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
// --backup instead compares backup and restore of a database of N documents: `httptools couch
// backup|restore`, couchbackup|couchrestore (npm @cloudant/couchbackup, with its defaults) and a
// nano loop (bench/nano/couch_nano.js), each a child process timed with its CPU and peak RSS
// (wait4), tools in rotating order, each restore into a fresh database checked for N documents.
// All three go through CouchShimProxy, which gives couchbackup what pouchdb-server lacks; each
// round also times pouchdb-server's own paged _all_docs read, the rate the tools are bound by.
//
//   couch_bench [--docs=N] [--rounds=R] [benchmark flags]   (a short --benchmark_min_time: a quick run)
//   couch_bench --backup [--docs=N] [--rounds=R] [--proxy-log=FILE]

#include <HttpTools/HttpTools.h>

#include <HttpTools/couch/ChangesFeedParser_p.h>

#include "support/PouchDbFixture.h"
#include "support/Process.h"

#include "BenchSupport.h"
#include "CouchShimProxy.h"

#include <benchmark/benchmark.h>
#include <httplib.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <functional>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

int gDocs = 20000;
int gRounds = 5;
std::string gProxyLog;
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

// A child process's outcome: wall and CPU seconds, peak RSS.
struct Run {
  double sec = 0, cpuSec = 0, rssMb = 0;
  bool ok = false;
};

// Runs argv with standard input from `in`, standard output to `out` ("" for /dev/null) and
// standard error to `err`.
Run Measure(const std::vector<std::string>& argv, const std::string& in, const std::string& out,
            const std::string& err) {
  const double t0 = bench::Now();
  const pid_t pid = fork();
  if (pid == 0) {
    const int i = open(in.empty() ? "/dev/null" : in.c_str(), O_RDONLY);
    const int o = open(out.empty() ? "/dev/null" : out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    const int e = open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (i < 0 || o < 0 || e < 0 || dup2(i, 0) < 0 || dup2(o, 1) < 0 || dup2(e, 2) < 0)
      _exit(126);
    std::vector<char*> args;
    for (const std::string& a : argv)
      args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    execvp(args[0], args.data());
    _exit(127);
  }
  int status = 0;
  rusage ru{};
  Run r;
  // A tool that stalls is stopped (by its PID) after a generous time.
  const double deadline = t0 + 120 + gDocs / 100.0;
  pid_t ended = 0;
  // Peak RSS as the program's own high-water mark, read while it runs: wait4's maxrss also
  // counts the pages the child shared with this process between fork and exec. The mark only
  // rises after exec, so the last reading is the peak (up to the last 20 ms).
  double hwmMb = 0;
  while (pid > 0 && (ended = wait4(pid, &status, WNOHANG, &ru)) == 0) {
    if (bench::Now() > deadline)
      kill(pid, SIGKILL);
    std::ifstream proc("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(proc, line);)
      if (line.starts_with("VmHWM:"))
        hwmMb = std::atof(line.c_str() + 6) / 1024;
    usleep(20000);
  }
  if (ended != pid)
    return r;
  r.sec = bench::Now() - t0;
  r.cpuSec = double(ru.ru_utime.tv_sec + ru.ru_stime.tv_sec) + double(ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) / 1e6;
  r.rssMb = hwmMb > 0 ? hwmMb : double(ru.ru_maxrss) / 1024;
  r.ok = WIFEXITED(status) && WEXITSTATUS(status) == 0;
  return r;
}

int64_t DocCount(const qztest::PouchDbServer& server, const std::string& db) {
  std::string info;
  qz::qzVariantMapImpl m;
  server.request("GET", "/" + db, {}, &info);
  qz::json::Json2Variant::Convert(info, m);
  return m["doc_count"].toInt64();
}

// pouchdb-server's own read rate: _all_docs with include_docs in pages of kBatch, read directly by
// a minimal client that only finds each page's last key. Returns docs/s; `serverCpu` its CPU s.
double ServerReadRate(const qztest::PouchDbServer& server, const std::string& db, double& serverCpu) {
  httplib::Client client("127.0.0.1", server.port());
  client.set_read_timeout(60);
  const double srv0 = processCpuSec(server.pid()), t0 = bench::Now();
  std::string start;
  int docs = 0;
  for (;;) {
    std::string target = "/" + db + "/_all_docs?include_docs=true&limit=" + std::to_string(kBatch);
    if (!start.empty())
      target += "&skip=1&startkey=" + httplib::detail::encode_query_param("\"" + start + "\"");
    const httplib::Result r = client.Get(target);
    if (!r || r->status != 200)
      return 0;
    size_t rows = 0, last = std::string::npos;
    for (size_t at = r->body.find("{\"id\":\""); at != std::string::npos; at = r->body.find("{\"id\":\"", at + 1))
      ++rows, last = at + 7;
    if (rows == 0)
      break;
    docs += int(rows);
    start = r->body.substr(last, r->body.find('"', last) - last);
  }
  serverCpu = processCpuSec(server.pid()) - srv0;
  return docs == gDocs ? gDocs / (bench::Now() - t0) : 0;
}

bool BackupComparison() {
  qztest::PouchDbServer server;
  if (!server.ok()) {
    std::fprintf(stderr, "%s\n", server.error().c_str());
    return false;
  }
  const std::string nodeBin = HTTPTOOLS_SOURCE_DIR "/bench/nano/node_modules/@cloudant/couchbackup/app.js";
  if (access(nodeBin.c_str(), R_OK) != 0) {
    std::fprintf(stderr, "couch_bench: @cloudant/couchbackup is not installed (scripts/install-deps)\n");
    return false;
  }
  const std::string bin = HTTPTOOLS_SOURCE_DIR "/bench/nano/node_modules/@cloudant/couchbackup/bin/";
  const std::string nanoJs = HTTPTOOLS_SOURCE_DIR "/bench/nano/couch_nano.js";
  bench::CouchShimProxy proxy(server.port(), gProxyLog);
  const std::string url = proxy.baseUrl(), dir = HTTPTOOLS_BINARY_DIR;
  // The source: gDocs documents of ~1 KB, and a tenth of it to show that memory stays flat.
  qz::http::HttpConnectionPool pool;
  for (const auto& [db, n] : {std::pair<std::string, int>{"source", gDocs}, {"small", std::max(1, gDocs / 10)}}) {
    server.request("PUT", "/" + db);
    qz::couch::DocumentUploader up(pool, qz::couch::CouchConnectionParameters(qz::Url(url)), db, kThreads, kBatch);
    for (int i = 0; i < n; ++i)
      up.add(MakeDoc(i, std::string(kPad, 'x')));
    if (!up.flush(nullptr))
      return false;
  }
  struct Tool {
    const char* name;
    std::function<std::vector<std::string>(const std::string&db)> backup, restore;
    std::vector<double> bDps = {}, bCpu = {}, bRss = {}, rDps = {}, rCpu = {}, rRss = {}, bSrv = {}, rSrv = {};
  };
  std::vector<Tool> tools = {
      {"httptools",
       [&](const std::string& db) {
         return std::vector<std::string>{HTTPTOOLS_CLI, "couch", "backup", url + "/" + db};
       },
       [&](const std::string& db) {
         return std::vector<std::string>{HTTPTOOLS_CLI, "couch", "restore", url + "/" + db};
       }},
      {"couchbackup",
       [&](const std::string& db) {
         return std::vector<std::string>{"node", bin + "couchbackup.bin.js", "--url", url, "--db", db};
       },
       [&](const std::string& db) {
         return std::vector<std::string>{"node", bin + "couchrestore.bin.js", "--url", url, "--db", db};
       }},
      {"nano loop",
       [&](const std::string& db) {
         return std::vector<std::string>{
             "node", nanoJs, "backup", url, db, "0", std::to_string(kThreads), std::to_string(kBatch), "0"};
       },
       [&](const std::string& db) {
         return std::vector<std::string>{
             "node", nanoJs, "restore", url, db, "0", std::to_string(kThreads), std::to_string(kBatch), "0"};
       }},
  };
  const std::string errFile = dir + "/couch_bench_backup.err";
  const std::string smallFile = dir + "/couch_bench_small.ndjson";
  const Run small = Measure(tools[0].backup("small"), "", smallFile, errFile);
  server.request("PUT", "/small-restored");
  const Run smallRestore = Measure(tools[0].restore("small-restored"), smallFile, "", errFile);
  server.request("DELETE", "/small-restored");
  proxy.takeCounts();
  std::vector<double> readDps, readSrv;
  for (int round = 0; round < gRounds; ++round) {
    double srv = 0;
    readDps.push_back(ServerReadRate(server, "source", srv)), readSrv.push_back(srv);
    for (size_t k = 0; k < tools.size(); ++k) {
      Tool& t = tools[(k + size_t(round)) % tools.size()];
      const std::string file = dir + "/couch_bench_backup.out", target = "restored-" + std::to_string(round);
      double srv0 = processCpuSec(server.pid());
      const Run b = Measure(t.backup("source"), "", file, errFile);
      const double bSrv = processCpuSec(server.pid()) - srv0;
      server.request("PUT", "/" + target);
      srv0 = processCpuSec(server.pid());
      const Run r = b.ok ? Measure(t.restore(target), file, "", errFile) : Run();
      const double rSrv = processCpuSec(server.pid()) - srv0;
      const int64_t restored = DocCount(server, target);
      server.request("DELETE", "/" + target);
      if (!b.ok || !r.ok || restored != gDocs) {
        std::fprintf(stderr, "%s: backup %d, restore %d, %lld documents restored of %d (its errors: %s)\n", t.name,
                     b.ok, r.ok, (long long)restored, gDocs, errFile.c_str());
        std::rename(errFile.c_str(), (errFile + "." + std::to_string(k)).c_str());
        continue;
      }
      t.bDps.push_back(gDocs / b.sec), t.bCpu.push_back(b.cpuSec), t.bRss.push_back(b.rssMb);
      t.rDps.push_back(gDocs / r.sec), t.rCpu.push_back(r.cpuSec), t.rRss.push_back(r.rssMb);
      t.bSrv.push_back(bSrv), t.rSrv.push_back(rSrv);
      if (round == 0)
        std::printf("proxy for %s: %s\n", t.name, proxy.takeCounts().c_str());
    }
  }
  std::printf("backup and restore of %d docs of ~1 KB against one pouchdb-server, %d round(s) (medians)\n", gDocs,
              gRounds);
  std::printf("tool          backup d/s  CPU s  RSS MB  server CPU s | restore d/s  CPU s  RSS MB  server CPU s\n");
  for (const Tool& t : tools)
    std::printf("%-12s %11.0f %6.2f %7.1f %13.2f | %11.0f %6.2f %7.1f %13.2f\n", t.name, bench::Median(t.bDps),
                bench::Median(t.bCpu), bench::Median(t.bRss), bench::Median(t.bSrv), bench::Median(t.rDps),
                bench::Median(t.rCpu), bench::Median(t.rRss), bench::Median(t.rSrv));
  const Tool& ours = tools[0];
  if (ours.bDps.empty())
    return false;
  for (const Tool* ref : {&tools[1], &tools[2]}) // a tool that failed shows zeros above and no ratio
    if (!ref->bDps.empty())
      std::printf(
          "httptools / %s: backup speed %.2fx, CPU %.2fx; restore speed %.2fx, CPU %.2fx\n", ref->name,
          bench::Median(ours.bDps) / bench::Median(ref->bDps), bench::Median(ours.bCpu) / bench::Median(ref->bCpu),
          bench::Median(ours.rDps) / bench::Median(ref->rDps), bench::Median(ours.rCpu) / bench::Median(ref->rCpu));
  std::printf("pouchdb-server alone, _all_docs?include_docs=true in pages of %zu: %.0f d/s, server CPU %.2f s\n",
              kBatch, bench::Median(readDps), bench::Median(readSrv));
  std::printf(
      "httptools peak RSS, %d docs: backup %.1f MB, restore %.1f MB; %d docs: backup %.1f MB, restore %.1f MB\n",
      std::max(1, gDocs / 10), small.rssMb, smallRestore.rssMb, gDocs, bench::Median(ours.bRss),
      bench::Median(ours.rRss));
  std::fflush(stdout);
  return small.ok && smallRestore.ok;
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
  const bool backup = args.takeSwitch("--backup");
  gDocs = args.takeInt("--docs=", gDocs, 1, 1000);
  gRounds = args.takeInt("--rounds=", gRounds, 1, 1);
  if (const char* log = args.take("--proxy-log="))
    gProxyLog = log;
  args.initializeBenchmark();
  if (backup) {
    qz::initializeHttpTools(true, qz::http::HNRP_Whatever, qz::http::PP_NoProxy);
    const bool ok = BackupComparison();
    qz::terminateHttpTools();
    return ok ? 0 : 1;
  }

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
