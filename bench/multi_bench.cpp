// Many GETs in flight at once. Three comparisons, each in interleaved rounds (every round times each
// path back to back, the order alternating), reporting medians and the medians of the rounds' own
// ratios:
//   1. an in-process server whose answers take 20 ms (64 worker threads):
//      (a) the serial pooled HttpGet loop, (b) a raw libcurl multi loop with 16 handles in flight,
//      (c) HttpMultiConnection with 16 in flight; rates c/a (the limit is 16x) and c/b;
//   2. nginx answering at once over HTTP/1.1 keep-alive: client CPU per request, c/b;
//   3. nginx over TLS: HttpMultiConnection multiplexing HTTP/2 on one connection vs HTTP/1.1 on 16;
//   4. memory: 2,000 downloads of 1 MiB from nginx, 16 in flight, (b) and (c) each in a child process
//      of its own, peak RSS (VmHWM) of each.
// The Google Benchmark cases after the tables time 100-request batches of (b) and (c) on nginx.
//
//   multi_bench [--requests=N] [--serial=N] [--rounds=R] [--downloads=N] [--no-delayed] [benchmark flags]
// With --benchmark_min_time (the CI's single short run) the tables use one small round.

#include <HttpTools/HttpTools.h>

#include "support/NginxFixture.h"

#include "BenchSupport.h"

#include <benchmark/benchmark.h>
#include <curl/curl.h>
#include <httplib.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

int gRequests = 1000; // per round, for the concurrent paths
int gSerial = 200;    // per round, for the serial loop (20 ms each)
int gRounds = 5;
int gDownloads = 2000;     // of 1 MiB each, for the memory case
bool gSkipDelayed = false; // --no-delayed: only the nginx tables (for profiling)
const unsigned kInFlight = 16;

struct Sample {
  double reqPerSec = 0;
  double cpuUsPerReq = 0;
};
template <typename F> Sample measure(int n, F&& run) {
  const double c0 = bench::SelfCpuSec(), t0 = bench::Now();
  if (!run(n)) {
    std::fprintf(stderr, "requests failed\n");
    std::exit(1);
  }
  const double t1 = bench::Now(), c1 = bench::SelfCpuSec();
  return {n / (t1 - t0), (c1 - c0) * 1e6 / n};
}

// Answers GET /d after 20 ms; enough workers that 16 waiting clients never queue.
class DelayServer {
public:
  bool start() {
    m_server.new_task_queue = [] { return new httplib::ThreadPool(64); };
    m_server.set_tcp_nodelay(true);
    m_server.set_keep_alive_max_count(1000000);
    m_server.set_socket_options([this](int sock) {
      httplib::default_socket_options(sock);
      m_socket = sock;
    });
    m_server.Get("/d", [](const httplib::Request&, httplib::Response& res) {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
      res.set_content("ok", "text/plain");
    });
    m_port = m_server.bind_to_any_port("127.0.0.1");
    if (m_port <= 0)
      return false;
    ::listen(m_socket, 1024); // cpp-httplib's backlog of 5 drops connect bursts
    m_thread = std::thread([this] { m_server.listen_after_bind(); });
    for (int i = 0; i < 500 && !m_server.is_running(); ++i)
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    return m_server.is_running();
  }
  ~DelayServer() {
    m_server.stop();
    if (m_thread.joinable())
      m_thread.join();
  }
  std::string url() const { return "http://127.0.0.1:" + std::to_string(m_port) + "/d"; }

private:
  httplib::Server m_server;
  std::thread m_thread;
  int m_port = 0;
  int m_socket = -1;
};

size_t sinkBody(char* data, size_t size, size_t n, void* user) {
  static_cast<std::string*>(user)->append(data, size * n);
  return size * n;
}

// The reference: a plain libcurl multi loop, 16 easy handles with the transfer options the library
// sets, each re-added as soon as it finishes.
class RawMulti {
public:
  RawMulti(const std::string& url, unsigned inFlight, bool http2) : m_multi(curl_multi_init()) {
    curl_multi_setopt(m_multi, CURLMOPT_PIPELINING, long(http2 ? CURLPIPE_MULTIPLEX : CURLPIPE_NOTHING));
    curl_multi_setopt(m_multi, CURLMOPT_MAXCONNECTS, long(2 * inFlight));
    m_bodies.resize(inFlight);
    for (unsigned i = 0; i < inFlight; ++i) {
      CURL* h = curl_easy_init();
      curl_easy_setopt(h, CURLOPT_URL, url.c_str());
      curl_easy_setopt(h, CURLOPT_WRITEFUNCTION, sinkBody);
      curl_easy_setopt(h, CURLOPT_WRITEDATA, &m_bodies[i]);
      curl_easy_setopt(h, CURLOPT_PRIVATE, &m_bodies[i]);
      curl_easy_setopt(h, CURLOPT_NOSIGNAL, 1L);
      curl_easy_setopt(h, CURLOPT_SSLVERSION, long(CURL_SSLVERSION_TLSv1_2));
      curl_easy_setopt(h, CURLOPT_COOKIEFILE, "");
      curl_easy_setopt(h, CURLOPT_ACCEPT_ENCODING, "");
      curl_easy_setopt(h, CURLOPT_FOLLOWLOCATION, 1L);
      curl_easy_setopt(h, CURLOPT_MAXREDIRS, 3L);
      curl_easy_setopt(h, CURLOPT_CONNECTTIMEOUT, 10L);
      curl_easy_setopt(h, CURLOPT_LOW_SPEED_LIMIT, 10L);
      curl_easy_setopt(h, CURLOPT_LOW_SPEED_TIME, 10L);
      curl_easy_setopt(h, CURLOPT_PROXY, "");
      curl_easy_setopt(h, CURLOPT_SSL_VERIFYPEER, 0L);
      curl_easy_setopt(h, CURLOPT_SSL_VERIFYHOST, 0L);
      curl_easy_setopt(h, CURLOPT_HTTP_VERSION, long(http2 ? CURL_HTTP_VERSION_2TLS : CURL_HTTP_VERSION_1_1));
      curl_easy_setopt(h, CURLOPT_PIPEWAIT, http2 ? 1L : 0L);
      m_handles.push_back(h);
    }
  }
  ~RawMulti() {
    for (CURL* h : m_handles)
      curl_easy_cleanup(h);
    curl_multi_cleanup(m_multi);
  }
  bool run(int n) {
    int started = 0, done = 0, failed = 0;
    for (CURL* h : m_handles)
      if (started < n) {
        curl_multi_add_handle(m_multi, h);
        ++started;
      }
    while (done < n) {
      int running = 0;
      curl_multi_perform(m_multi, &running);
      int left = 0;
      bool any = false;
      while (CURLMsg* msg = curl_multi_info_read(m_multi, &left)) {
        if (msg->msg != CURLMSG_DONE)
          continue;
        CURL* h = msg->easy_handle;
        long code = 0;
        curl_easy_getinfo(h, CURLINFO_RESPONSE_CODE, &code);
        failed += msg->data.result != CURLE_OK || code != 200;
        curl_multi_remove_handle(m_multi, h);
        // The body is dropped as the engine's callers would, its buffer kept for the next one.
        std::string* body = nullptr;
        curl_easy_getinfo(h, CURLINFO_PRIVATE, reinterpret_cast<char**>(&body));
        m_bytes += body->size();
        body->clear();
        ++done;
        any = true;
        if (started < n) {
          curl_multi_add_handle(m_multi, h);
          ++started;
        }
      }
      if (!any)
        curl_multi_poll(m_multi, nullptr, 0, 1000, nullptr);
    }
    return failed == 0;
  }
  size_t bytes() const { return m_bytes; }

private:
  size_t m_bytes = 0;
  CURLM* m_multi;
  std::vector<CURL*> m_handles;
  std::vector<std::string> m_bodies;
};

// The engine, kept between rounds like the raw loop's handles.
class Engine {
public:
  Engine(const std::string& url, unsigned inFlight, bool http2) : m_url(url), m_multi(inFlight) {
    m_multi.setMultiplexing(http2);
  }
  bool run(int n) {
    int failed = 0;
    for (int i = 0; i < n; ++i) {
      qz::http::HttpMultiConnection::Request r;
      r.url = m_url;
      r.onFinished = [this, &failed](qz::http::HttpMultiConnection::Response& resp) {
        failed += !resp.success;
        m_bytes += resp.body.size();
      };
      m_multi.addRequest(std::move(r));
    }
    return m_multi.perform() && failed == 0;
  }
  size_t bytes() const { return m_bytes; }

private:
  size_t m_bytes = 0;
  qz::Url m_url;
  qz::http::HttpMultiConnection m_multi;
};

void delayedComparison(const std::string& url) {
  const qz::Url u(url);
  qz::http::HttpConnectionPool pool;
  auto serial = [&](int n) {
    for (int i = 0; i < n; ++i) {
      qz::http::HttpConnectionLocker conn(pool, u);
      if (!qz::http::HttpHelpers::HttpGet(*conn, u))
        return false;
    }
    return true;
  };
  RawMulti raw(url, kInFlight, false);
  Engine engine(url, kInFlight, false);
  auto rawRun = [&](int n) { return raw.run(n); };
  auto engineRun = [&](int n) { return engine.run(n); };
  measure(kInFlight, rawRun); // connections open
  measure(kInFlight, engineRun);
  measure(2, serial);
  std::vector<double> a, b, c, ca, cb;
  for (int r = 0; r < gRounds; ++r) {
    Sample sa, sb, sc;
    if (r % 2 == 0) {
      sa = measure(gSerial, serial);
      sb = measure(gRequests, rawRun);
      sc = measure(gRequests, engineRun);
    } else {
      sc = measure(gRequests, engineRun);
      sb = measure(gRequests, rawRun);
      sa = measure(gSerial, serial);
    }
    a.push_back(sa.reqPerSec);
    b.push_back(sb.reqPerSec);
    c.push_back(sc.reqPerSec);
    ca.push_back(sc.reqPerSec / sa.reqPerSec);
    cb.push_back(sc.reqPerSec / sb.reqPerSec);
  }
  std::printf("20 ms answers, %d rounds: %d serial, %d concurrent requests each (medians)\n", gRounds, gSerial,
              gRequests);
  std::printf("  %-46s %10.0f req/s\n", "(a) serial pooled HttpGet", bench::Median(a));
  std::printf("  %-46s %10.0f req/s\n", "(b) raw libcurl multi loop, 16 in flight", bench::Median(b));
  std::printf("  %-46s %10.0f req/s\n", "(c) HttpMultiConnection, 16 in flight", bench::Median(c));
  std::printf("  c/a %.2fx (target >= 12, limit 16), c/b %.3f (target >= 0.95)\n", bench::Median(ca),
              bench::Median(cb));
}

// Rate and client CPU of two paths over `url`, interleaved.
void cpuComparison(const char* title, const char* nameB, const char* nameC, const std::function<bool(int)>& pathB,
                   const std::function<bool(int)>& pathC, const char* target) {
  measure(kInFlight * 4, pathB);
  measure(kInFlight * 4, pathC);
  std::vector<double> rb, rc, cb, cc, rate, cpu;
  for (int r = 0; r < gRounds; ++r) {
    Sample sb, sc;
    if (r % 2 == 0) {
      sb = measure(gRequests, pathB);
      sc = measure(gRequests, pathC);
    } else {
      sc = measure(gRequests, pathC);
      sb = measure(gRequests, pathB);
    }
    rb.push_back(sb.reqPerSec);
    rc.push_back(sc.reqPerSec);
    cb.push_back(sb.cpuUsPerReq);
    cc.push_back(sc.cpuUsPerReq);
    rate.push_back(sc.reqPerSec / sb.reqPerSec);
    cpu.push_back(sc.cpuUsPerReq / sb.cpuUsPerReq);
  }
  std::printf("%s, %d rounds x %d requests (medians; CPU is the client process's)\n", title, gRounds, gRequests);
  std::printf("  %-46s %10s %12s\n", "", "req/s", "CPU us/req");
  std::printf("  %-46s %10.0f %12.1f\n", nameB, bench::Median(rb), bench::Median(cb));
  std::printf("  %-46s %10.0f %12.1f\n", nameC, bench::Median(rc), bench::Median(cc));
  std::printf("  second/first: rate %.3f, CPU per request %.3f%s\n", bench::Median(rate), bench::Median(cpu), target);
}

// The memory case's child: `which` ("raw" or "engine") downloads `n` times `url`, then prints its
// resident size before the run and its peak, in KiB. 1 when a download failed or came short.
long statusKb(const char* field) {
  std::ifstream in("/proc/self/status");
  for (std::string line; std::getline(in, line);)
    if (line.rfind(field, 0) == 0)
      return std::atol(line.c_str() + std::strlen(field));
  return -1;
}

int memoryChild(const std::string& which, const std::string& url, int n) {
  qz::initializeHttpTools(true, qz::http::HNRP_Whatever, qz::http::PP_NoProxy);
  bool ok = false;
  size_t bytes = 0;
  const long before = statusKb("VmRSS:");
  if (which == "raw") {
    RawMulti raw(url, kInFlight, false);
    ok = raw.run(n);
    bytes = raw.bytes();
  } else {
    Engine engine(url, kInFlight, false);
    ok = engine.run(n);
    bytes = engine.bytes();
  }
  const long peak = statusKb("VmHWM:");
  qz::terminateHttpTools();
  std::printf("%ld %ld\n", before, peak);
  return ok && bytes == size_t(n) << 20 ? 0 : 1;
}

// Runs the child for `which`; false when it failed. Peak and growth in MB.
bool memoryRun(const char* which, const std::string& url, int n, double& peakMb, double& growthMb) {
  char self[4096] = {};
  int out[2];
  if (::readlink("/proc/self/exe", self, sizeof self - 1) <= 0 || ::pipe(out) != 0)
    return false;
  const std::string count = "--rss-count=" + std::to_string(n), target = "--rss-url=" + url,
                    mode = std::string("--rss-child=") + which;
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::dup2(out[1], 1);
    ::close(out[0]);
    ::execl(self, self, mode.c_str(), target.c_str(), count.c_str(), static_cast<char*>(nullptr));
    ::_exit(127);
  }
  ::close(out[1]);
  std::string text;
  char buf[256];
  for (ssize_t got; (got = ::read(out[0], buf, sizeof buf)) > 0;)
    text.append(buf, size_t(got));
  ::close(out[0]);
  int status = 0;
  if (pid < 0 || ::waitpid(pid, &status, 0) != pid || !WIFEXITED(status) || WEXITSTATUS(status) != 0)
    return false;
  long before = 0, peak = 0;
  if (std::sscanf(text.c_str(), "%ld %ld", &before, &peak) != 2)
    return false;
  peakMb = double(peak) / 1024;
  growthMb = double(peak - before) / 1024;
  return true;
}

bool memoryComparison(const qztest::NginxFixture& nginx) {
  std::ofstream(nginx.filesDir() + "/1m", std::ios::binary) << std::string(1 << 20, 'm');
  const std::string url = nginx.httpUrl("/files/1m");
  double rawPeak = 0, rawGrowth = 0, peak = 0, growth = 0;
  if (!memoryRun("raw", url, gDownloads, rawPeak, rawGrowth) || !memoryRun("engine", url, gDownloads, peak, growth)) {
    std::fprintf(stderr, "the memory case's downloads failed\n");
    return false;
  }
  std::printf("%d downloads of 1 MiB from nginx, 16 in flight, each path in a child process (peak RSS)\n", gDownloads);
  std::printf("  %-46s %8.1f MB (%.1f MB over its start)\n", "(b) raw libcurl multi loop", rawPeak, rawGrowth);
  std::printf("  %-46s %8.1f MB (%.1f MB over its start), target < 100 MB\n", "(c) HttpMultiConnection", peak, growth);
  return true;
}

std::string gNginxUrl;

void BM_RawMulti100(benchmark::State& state) {
  RawMulti raw(gNginxUrl, kInFlight, false);
  for (auto _ : state)
    if (!raw.run(100))
      state.SkipWithError("request failed");
}

void BM_HttpMultiConnection100(benchmark::State& state) {
  Engine engine(gNginxUrl, kInFlight, false);
  for (auto _ : state)
    if (!engine.run(100))
      state.SkipWithError("request failed");
}

BENCHMARK(BM_RawMulti100)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_HttpMultiConnection100)->Unit(benchmark::kMillisecond);

} // namespace

int main(int argc, char** argv) {
  bench::Args args(argc, argv);
  if (const char* which = args.take("--rss-child=")) {
    const char* url = args.take("--rss-url=");
    return url ? memoryChild(which, url, args.takeInt("--rss-count=", 1, 1, 1)) : 2;
  }
  gRequests = args.takeInt("--requests=", gRequests, 16, 64);
  gSerial = args.takeInt("--serial=", gSerial, 1, 8);
  gSkipDelayed = args.takeSwitch("--no-delayed");
  gRounds = args.takeInt("--rounds=", gRounds, 1, 1);
  gDownloads = args.takeInt("--downloads=", gDownloads, 16, 64);
  args.initializeBenchmark();

  qz::initializeHttpTools(true, qz::http::HNRP_Whatever, qz::http::PP_NoProxy);
  int rc = 0;
  {
    DelayServer delayed;
    qztest::NginxFixture nginx(qztest::NginxFixture::Options{.http2 = true});
    if (!delayed.start() || !nginx.start()) {
      std::fprintf(stderr, "cannot start the servers: %s\n", nginx.lastError().c_str());
      rc = 1;
    } else {
      if (!gSkipDelayed)
        delayedComparison(delayed.url());

      gNginxUrl = nginx.httpUrl("/small");
      RawMulti raw(gNginxUrl, kInFlight, false);
      Engine engine(gNginxUrl, kInFlight, false);
      cpuComparison(
          "nginx, HTTP/1.1 keep-alive, 16 in flight", "(b) raw libcurl multi loop", "(c) HttpMultiConnection",
          [&](int n) { return raw.run(n); }, [&](int n) { return engine.run(n); }, " (target CPU <= 1.10)");

      const std::string tlsUrl = nginx.httpsUrl("/small");
      Engine h1(tlsUrl, kInFlight, false), h2(tlsUrl, kInFlight, true);
      cpuComparison(
          "nginx over TLS, HttpMultiConnection, 16 in flight", "HTTP/1.1, 16 connections",
          "HTTP/2 multiplexed, one connection", [&](int n) { return h1.run(n); }, [&](int n) { return h2.run(n); }, "");
      std::fflush(stdout); // before the children's output
      if (!memoryComparison(nginx))
        rc = 1;
      std::fflush(stdout);
      benchmark::RunSpecifiedBenchmarks();
      benchmark::Shutdown();
    }
  }
  qz::terminateHttpTools();
  return rc;
}
