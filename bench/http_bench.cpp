// Small GETs over keep-alive to a local nginx (1 worker, no access log) that the program starts:
//   (a) raw libcurl, one easy handle reused for every request (a0: minimal options; a: the
//       transfer options the library sets on every request);
//   (b) HttpHelpers::HttpGet on a connection borrowed from a pool, one locker per request.
// Rounds run a0, a, b and then b, a, a0; the table shows medians of requests per second and client CPU per
// request, and the medians of each round's ratios b/a. Then 8 threads: one pool shared by all against one raw handle
// per thread. The Google Benchmark cases after the table time the same single calls.
//
//   http_bench [--requests=N] [--rounds=R] [--threads=T] [--only=raw|rawsame|pool] [benchmark flags]

#include <HttpTools/HttpTools.h>

#include "support/NginxFixture.h"

#include "BenchSupport.h"

#include <benchmark/benchmark.h>
#include <curl/curl.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace {

std::string gUrl;
int gRequests = 1000;
int gRounds = 31;
int gThreads = 8;
std::string gOnly; // "raw", "rawsame" or "pool": run just that path sequentially (for profiling)

size_t sinkBody(char* data, size_t size, size_t n, void* user) {
  static_cast<std::string*>(user)->append(data, size * n);
  return size * n;
}

// One raw easy handle set once and reused. Minimal: only what this loop needs. Same options:
// also the transfer options every HttpConnection request carries (the
// in-memory cookie engine, every content encoding, TLS 1.2 floor, redirects, http and https only,
// paths as they are, the same request header lines), so that the comparison shows the wrapper's own cost.
class RawClient {
public:
  explicit RawClient(bool sameOptions = true) : m_h(curl_easy_init()) {
    curl_easy_setopt(m_h, CURLOPT_URL, gUrl.c_str());
    curl_easy_setopt(m_h, CURLOPT_WRITEFUNCTION, sinkBody);
    curl_easy_setopt(m_h, CURLOPT_WRITEDATA, &m_body);
    if (!sameOptions) {
      curl_easy_setopt(m_h, CURLOPT_NOSIGNAL, 1L);
      return;
    }
    curl_easy_setopt(m_h, CURLOPT_NOSIGNAL, 1L); // as the library with libcurl's threaded resolver
    curl_easy_setopt(m_h, CURLOPT_SSLVERSION, long(CURL_SSLVERSION_TLSv1_2));
    curl_easy_setopt(m_h, CURLOPT_COOKIEJAR, "/dev/null");
    curl_easy_setopt(m_h, CURLOPT_PATH_AS_IS, 1L);
    curl_easy_setopt(m_h, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(m_h, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(m_h, CURLOPT_ACCEPT_ENCODING, "");
    curl_easy_setopt(m_h, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(m_h, CURLOPT_MAXREDIRS, 3L);
    curl_easy_setopt(m_h, CURLOPT_CONNECTTIMEOUT, 10L);
    curl_easy_setopt(m_h, CURLOPT_LOW_SPEED_LIMIT, 10L);
    curl_easy_setopt(m_h, CURLOPT_LOW_SPEED_TIME, 10L);
    curl_easy_setopt(m_h, CURLOPT_PROXY, "");
    m_headers = curl_slist_append(m_headers, "Content-Type:application/octet-stream");
    m_headers = curl_slist_append(m_headers, "Connection: Keep-Alive");
    curl_easy_setopt(m_h, CURLOPT_HTTPHEADER, m_headers);
  }
  ~RawClient() {
    curl_easy_cleanup(m_h);
    curl_slist_free_all(m_headers);
  }
  bool get() {
    m_body.clear();
    long code = 0;
    return curl_easy_perform(m_h) == CURLE_OK && curl_easy_getinfo(m_h, CURLINFO_RESPONSE_CODE, &code) == CURLE_OK &&
           code == 200;
  }

private:
  CURL* m_h;
  curl_slist* m_headers = nullptr;
  std::string m_body;
};

struct Sample {
  double reqPerSec;
  double cpuUsPerReq;
};

template <typename F> Sample measure(int n, F&& one) {
  const double c0 = bench::SelfCpuSec(), t0 = bench::Now();
  for (int i = 0; i < n; ++i)
    if (!one()) {
      std::fprintf(stderr, "request failed\n");
      std::exit(1);
    }
  const double t1 = bench::Now(), c1 = bench::SelfCpuSec();
  return {n / (t1 - t0), (c1 - c0) * 1e6 / n};
}

void sequentialComparison(qz::http::HttpConnectionPool& pool) {
  const qz::Url url(gUrl);
  RawClient minimal(false), raw(true);
  std::string body;
  qz::http::HttpHelpers::HttpResult result;
  result.body = &body;
  auto viaPool = [&] {
    qz::http::HttpConnectionLocker conn(pool, url);
    return qz::http::HttpHelpers::HttpGet(*conn, url, &result);
  };
  // Warm every path (connections open, caches hot).
  measure(200, [&] { return minimal.get(); });
  measure(200, [&] { return raw.get(); });
  measure(200, viaPool);
  std::vector<double> rps0, rpsA, rpsB, cpu0, cpuA, cpuB;
  std::vector<double> rateBA, cpuBA, rateBA0, cpuBA0; // per-round ratios: a slow phase hits both sides
  for (int r = 0; r < gRounds; ++r) {
    // Every other round runs the paths in reverse order, so that none always follows another.
    Sample m{}, a{}, b{};
    if (r % 2 == 0) {
      m = measure(gRequests, [&] { return minimal.get(); });
      a = measure(gRequests, [&] { return raw.get(); });
      b = measure(gRequests, viaPool);
    } else {
      b = measure(gRequests, viaPool);
      a = measure(gRequests, [&] { return raw.get(); });
      m = measure(gRequests, [&] { return minimal.get(); });
    }
    rps0.push_back(m.reqPerSec);
    cpu0.push_back(m.cpuUsPerReq);
    rpsA.push_back(a.reqPerSec);
    cpuA.push_back(a.cpuUsPerReq);
    rpsB.push_back(b.reqPerSec);
    cpuB.push_back(b.cpuUsPerReq);
    rateBA.push_back(b.reqPerSec / a.reqPerSec);
    cpuBA.push_back(b.cpuUsPerReq / a.cpuUsPerReq);
    rateBA0.push_back(b.reqPerSec / m.reqPerSec);
    cpuBA0.push_back(b.cpuUsPerReq / m.cpuUsPerReq);
  }
  const double r0 = bench::Median(rps0), ra = bench::Median(rpsA), rb = bench::Median(rpsB);
  const double c0 = bench::Median(cpu0), ca = bench::Median(cpuA), cb = bench::Median(cpuB);
  std::printf("sequential GET, %d rounds x %d requests (medians; CPU is the client process's)\n", gRounds, gRequests);
  std::printf("  %-42s %10s %14s\n", "", "req/s", "CPU us/req");
  std::printf("  %-42s %10.0f %14.1f\n", "(a0) raw libcurl, minimal options", r0, c0);
  std::printf("  %-42s %10.0f %14.1f\n", "(a) raw libcurl, the library's options", ra, ca);
  std::printf("  %-42s %10.0f %14.1f\n", "(b) pool + locker + HttpGet", rb, cb);
  std::printf("  ratios, median of the rounds' own:\n");
  std::printf("  b/a:  throughput %.3f (target >= 0.95), CPU per request %.3f (target <= 1.05)\n",
              bench::Median(rateBA), bench::Median(cpuBA));
  std::printf("  b/a0: throughput %.3f, CPU per request %.3f (target <= 1.10)\n", bench::Median(rateBA0),
              bench::Median(cpuBA0));
}

void threadedComparison(qz::http::HttpConnectionPool& pool) {
  const qz::Url url(gUrl);
  pool.ensureAtLeastMaxConcurrentConnection(unsigned(gThreads));
  std::vector<double> cpuA, cpuB; // client CPU per request
  auto run = [&](bool usePool) {
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    const double t0 = bench::Now(), c0 = bench::SelfCpuSec();
    for (int t = 0; t < gThreads; ++t)
      threads.emplace_back([&] {
        if (usePool) {
          std::string body;
          qz::http::HttpHelpers::HttpResult result;
          result.body = &body;
          for (int i = 0; i < gRequests; ++i) {
            qz::http::HttpConnectionLocker conn(pool, url);
            if (!qz::http::HttpHelpers::HttpGet(*conn, url, &result))
              ++failures;
          }
        } else {
          RawClient raw;
          for (int i = 0; i < gRequests; ++i)
            if (!raw.get())
              ++failures;
        }
      });
    for (auto& t : threads)
      t.join();
    if (failures)
      std::fprintf(stderr, "%d requests failed\n", failures.load());
    (usePool ? cpuB : cpuA).push_back((bench::SelfCpuSec() - c0) * 1e6 / (gThreads * gRequests));
    return gThreads * gRequests / (bench::Now() - t0);
  };
  // Interleaved, the order alternating: with 8 threads on few cores, a run's rate swings with the
  // scheduler, and a fixed order would favour one path.
  std::vector<double> a, b, ratio;
  for (int r = 0; r < std::max(9, gRounds); ++r) {
    if (r % 2 == 0) {
      a.push_back(run(false));
      b.push_back(run(true));
    } else {
      b.push_back(run(true));
      a.push_back(run(false));
    }
    ratio.push_back(b.back() / a.back());
  }
  std::printf("%d threads x %d requests (medians)\n", gThreads, gRequests);
  std::printf("  %-34s %10.0f req/s %8.1f us CPU/req\n", "(a) one raw handle per thread", bench::Median(a),
              bench::Median(cpuA));
  std::printf("  %-34s %10.0f req/s %8.1f us CPU/req\n", "(b) one shared pool", bench::Median(b), bench::Median(cpuB));
  std::printf("  ratio b/a, median of the rounds' own: %.3f (target >= 0.95)\n", bench::Median(ratio));
}

void BM_RawCurlGet(benchmark::State& state) {
  RawClient raw;
  for (auto _ : state)
    if (!raw.get())
      state.SkipWithError("request failed");
}

qz::http::HttpConnectionPool* gPool = nullptr;

void BM_PoolHttpGet(benchmark::State& state) {
  const qz::Url url(gUrl);
  std::string body;
  qz::http::HttpHelpers::HttpResult result;
  result.body = &body;
  for (auto _ : state) {
    qz::http::HttpConnectionLocker conn(*gPool, url);
    if (!qz::http::HttpHelpers::HttpGet(*conn, url, &result))
      state.SkipWithError("request failed");
  }
}

BENCHMARK(BM_RawCurlGet)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_PoolHttpGet)->Unit(benchmark::kMicrosecond);

} // namespace

int main(int argc, char** argv) {
  bench::Args args(argc, argv);
  gRequests = args.takeInt("--requests=", gRequests, 1, 200);
  gRounds = args.takeInt("--rounds=", gRounds, 1, 3);
  if (const char* only = args.take("--only="))
    gOnly = only;
  gThreads = args.takeInt("--threads=", gThreads, 1, gThreads);
  args.initializeBenchmark();

  qz::initializeHttpTools(true, qz::http::HNRP_Whatever, qz::http::PP_NoProxy);
  qztest::NginxFixture nginx;
  if (!nginx.start()) {
    std::fprintf(stderr, "%s\n", nginx.lastError().c_str());
    qz::terminateHttpTools();
    return 1;
  }
  gUrl = nginx.httpUrl("/small");
  int rc = 0;
  {
    qz::http::HttpConnectionPool pool;
    gPool = &pool;
    if (!gOnly.empty()) {
      const qz::Url url(gUrl);
      RawClient raw(gOnly == "rawsame");
      auto viaPool = [&] {
        qz::http::HttpConnectionLocker conn(pool, url);
        return qz::http::HttpHelpers::HttpGet(*conn, url);
      };
      const Sample s = gOnly != "pool" ? measure(gRequests, [&] { return raw.get(); }) : measure(gRequests, viaPool);
      std::printf("%s: %.0f req/s, %.1f us CPU/req\n", gOnly.c_str(), s.reqPerSec, s.cpuUsPerReq);
      gPool = nullptr;
      nginx.stop();
      qz::terminateHttpTools();
      return 0;
    }
    sequentialComparison(pool);
    threadedComparison(pool);
    std::fflush(stdout);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    gPool = nullptr;
  }
  nginx.stop();
  qz::terminateHttpTools();
  return rc;
}
