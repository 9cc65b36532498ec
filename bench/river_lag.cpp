// The river's lag while it follows, and what it asks of both servers while idle:
//   lag:  single writes into pouchdb-server at a steady rate (10/s, then 100/s) while a river
//         (library defaults) follows into the Elasticsearch emulator; from each write's answer to
//         the acknowledgement of the bulk that carried it, p50/p90/p99;
//   idle: requests per minute reaching each server once the writes stop (CouchDB counted by a
//         forwarding proxy, Elasticsearch by the emulator).
// Targets: p50 <= 50 ms and p99 <= 250 ms; idle, at most one CouchDB request a minute and no
// Elasticsearch request beyond the lease renewal (one per leaseMs / 3).
//
//   river_lag [--seconds=S] [--idle-seconds=S] [benchmark flags]

#include <HttpTools/HttpTools.h>

#include "support/ElasticEmulator.h"
#include "support/FaultProxy.h"
#include "support/PouchDbFixture.h"

#include "BenchSupport.h"

#include <benchmark/benchmark.h>

#include <atomic>
#include <cmath>
#include <cstdio>
#include <thread>
#include <vector>

namespace {

int gSeconds = 10;
int gIdleSeconds = 61;

double Percentile(std::vector<double> v, double p) {
  if (v.empty())
    return 0;
  std::sort(v.begin(), v.end());
  return v[std::min(v.size() - 1, size_t(std::ceil(p / 100 * double(v.size()))) - (p > 0 ? 1 : 0))];
}

// Writes at `rate` per second for gSeconds; each lag in ms from the write's answer to the moment
// the river's indexed count covered it.
bool Lag(qztest::PouchDbServer& couch, qz::river::RiverManager& rivers, int rate, const std::string& prefix,
         std::vector<double>& lags) {
  const int writes = rate * gSeconds;
  std::vector<double> answered(size_t(writes), 0), acked(size_t(writes), 0);
  const size_t base = rivers.status().at(0).indexed;
  std::atomic<bool> done{false};
  // Watches the count; a status read costs a lock, far below the lags measured.
  std::thread watch([&] {
    size_t seen = 0;
    while (!done.load() && seen < size_t(writes)) {
      const size_t now = rivers.status().at(0).indexed - base;
      const double t = bench::Now();
      for (; seen < std::min(now, size_t(writes)); ++seen)
        acked[seen] = t;
      std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
  });
  const double t0 = bench::Now();
  for (int i = 0; i < writes; ++i) {
    const double due = t0 + double(i) / rate;
    if (const double wait = due - bench::Now(); wait > 0)
      std::this_thread::sleep_for(std::chrono::duration<double>(wait));
    if (couch.request("PUT", "/lag/" + prefix + std::to_string(i), "{\"i\":" + std::to_string(i) + "}") != 201) {
      std::fprintf(stderr, "river_lag: write %d refused\n", i);
      done = true;
      watch.join();
      return false;
    }
    answered[size_t(i)] = bench::Now();
  }
  const double until = bench::Now() + 30;
  while (bench::Now() < until && acked.back() == 0)
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  done = true;
  watch.join();
  for (int i = 0; i < writes; ++i) {
    if (acked[size_t(i)] == 0) {
      std::fprintf(stderr, "river_lag: write %d never acknowledged\n", i);
      return false;
    }
    lags.push_back(std::max(0.0, acked[size_t(i)] - answered[size_t(i)]) * 1000);
  }
  return true;
}

bool Comparison() {
  qztest::PouchDbServer couch;
  qztest::ElasticEmulator elastic;
  if (!couch.ok() || !elastic.start()) {
    std::fprintf(stderr, "river_lag: pouchdb-server or the emulator cannot start: %s %s\n", couch.error().c_str(),
                 elastic.lastError().c_str());
    return false;
  }
  qztest::FaultProxy proxy(couch.port());
  if (!proxy.start() || couch.request("PUT", "/lag") != 201) {
    std::fprintf(stderr, "river_lag: the counting proxy or the database cannot start\n");
    return false;
  }
  const size_t couchRule = proxy.addRule(qztest::FaultProxy::Match("", "").repeat(0));
  qz::http::HttpConnectionPool pool;
  qz::river::RiverDefinition def; // library defaults but for the names
  def.name = "lag";
  qz::couch::CouchConnectionParameters::BuildFromDbUrl(&def.couch, &def.database, proxy.baseUrl() + "/lag");
  def.elastic = qz::elasticsearch::ElasticConnectionParameters(qz::Url(elastic.baseUrl()));
  def.index = "lag";
  def.mappingJson = "{}";
  qz::river::RiverManager rivers(pool, 1);
  std::string error;
  if (!rivers.addRiver(def, &error) || !rivers.start()) {
    std::fprintf(stderr, "river_lag: %s\n", error.c_str());
    return false;
  }
  const double until = bench::Now() + 30;
  while (bench::Now() < until && !(rivers.status().at(0).caughtUp && rivers.status().at(0).live))
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  std::printf("single writes for %d s per rate; lag from the write's answer to the bulk's acknowledgement\n", gSeconds);
  std::printf("%8s %8s %8s %8s %8s %8s\n", "rate/s", "writes", "p50 ms", "p90 ms", "p99 ms", "bulks");
  bool ok = true;
  for (int rate : {10, 100}) {
    std::vector<double> lags;
    const size_t bulks = elastic.stats().bulkRequests;
    if (!Lag(couch, rivers, rate, "r" + std::to_string(rate) + "-", lags)) {
      ok = false;
      break;
    }
    std::printf("%8d %8zu %8.1f %8.1f %8.1f %8zu\n", rate, lags.size(), Percentile(lags, 50), Percentile(lags, 90),
                Percentile(lags, 99), elastic.stats().bulkRequests - bulks);
  }
  // Idle: after the last write's checkpoint has been stored.
  std::this_thread::sleep_for(std::chrono::milliseconds(1500));
  const size_t couchBefore = proxy.matched(couchRule), esBefore = elastic.stats().requests;
  const double i0 = bench::Now();
  std::this_thread::sleep_for(std::chrono::seconds(gIdleSeconds)); // the idle spell is what is measured
  const double minutes = (bench::Now() - i0) / 60;
  std::printf("idle %d s: CouchDB %.2f requests/min, Elasticsearch %.2f requests/min (lease %u ms)\n", gIdleSeconds,
              double(proxy.matched(couchRule) - couchBefore) / minutes,
              double(elastic.stats().requests - esBefore) / minutes, def.leaseMs);
  rivers.stop();
  return ok;
}

void BM_StatusRead(benchmark::State& state) {
  qz::http::HttpConnectionPool pool;
  qz::river::RiverManager rivers(pool, 1);
  qz::river::RiverDefinition def;
  def.name = "s";
  def.database = "db";
  def.index = "a";
  def.mappingJson = "{}";
  rivers.addRiver(def, nullptr);
  for (auto _ : state)
    benchmark::DoNotOptimize(rivers.status());
}
BENCHMARK(BM_StatusRead);

} // namespace

int main(int argc, char** argv) {
  bench::Args args(argc, argv);
  gSeconds = args.takeInt("--seconds=", gSeconds, 1, 2);
  gIdleSeconds = args.takeInt("--idle-seconds=", gIdleSeconds, 1, 5);
  args.initializeBenchmark();
  return bench::RunWithLibrary(Comparison);
}
