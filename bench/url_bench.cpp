// qz::Url parsing and rendering beside raw uriparser and Boost.URL on the same corpus of URLs.
// First the parse ratios from interleaved passes (the figures to compare with targets), then the
// Google Benchmark table and its ratios.
//
//   url_bench [--rounds=N] [benchmark flags]
#include <HttpTools/url/Url.h>

#include <benchmark/benchmark.h>
#include <boost/url/parse.hpp>
#include <boost/url/url.hpp>
#include <uriparser/Uri.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <map>
#include <random>
#include <string>
#include <vector>

namespace {

// A deterministic mix of what a back end sees: names, IPv4, IPv6, credentials, ports, paths
// with escapes, short and long queries.
const std::vector<std::string>& Corpus() {
  static const std::vector<std::string> corpus = [] {
    std::mt19937 rng(42);
    auto pick = [&](size_t n) { return std::uniform_int_distribution<size_t>(0, n - 1)(rng); };
    auto word = [&](size_t len) {
      static const char letters[] = "abcdefghijklmnopqrstuvwxyz0123456789";
      std::string s;
      for (size_t i = 0; i < len; ++i)
        s += letters[pick(36)];
      return s;
    };
    const char* schemes[] = {"http", "https", "https", "http"};
    const char* hosts[] = {"api.example.com", "couchdb.internal.local",    "10.0.12.7", "127.0.0.1", "[2001:db8::17]",
                           "[::1]",           "search-es.prod.example.org"};
    const char* escapes[] = {"my%20doc", "caf%C3%A9", "a%2Fb", "plain", "_design", "x~y.z-w"};
    std::vector<std::string> out;
    for (int i = 0; i < 1200; ++i) {
      std::string u = schemes[pick(4)];
      u += "://";
      if (pick(4) == 0)
        u += word(6) + ":" + word(12) + "%21@";
      u += hosts[pick(7)];
      if (pick(2) == 0)
        u += ":" + std::to_string(1024 + pick(60000));
      for (size_t s = pick(5); s > 0; --s)
        u += "/" + (pick(3) == 0 ? std::string(escapes[pick(6)]) : word(3 + pick(10)));
      size_t items = pick(3) == 0 ? 10 + pick(20) : pick(4);
      for (size_t q = 0; q < items; ++q) {
        u += q == 0 ? "?" : "&";
        u += word(2 + pick(8)) + "=" + (pick(4) == 0 ? "a+b%20c%3D" + word(4) : word(1 + pick(30)));
      }
      out.push_back(std::move(u));
    }
    return out;
  }();
  return corpus;
}

std::vector<qz::Url> ParsedCorpus() {
  std::vector<qz::Url> urls;
  for (const std::string& text : Corpus())
    urls.emplace_back(text);
  return urls;
}

// One pass of each parser over the corpus; the Google Benchmark cases and the interleaved rounds
// time the same passes.
void RawUriparserPass() {
  for (const std::string& text : Corpus()) {
    UriUriA uri;
    UriParserStateA st;
    st.uri = &uri;
    int rc = uriParseUriA(&st, text.c_str());
    benchmark::DoNotOptimize(rc);
    if (rc == URI_SUCCESS)
      uriFreeUriMembersA(&uri);
  }
}

void BoostUrlPass() {
  for (const std::string& text : Corpus()) {
    auto r = boost::urls::parse_uri(text);
    benchmark::DoNotOptimize(r);
  }
}

void UrlPass(qz::Url& url, bool normalize) {
  std::string error;
  for (const std::string& text : Corpus()) {
    bool ok = url.fromEncodedUtf8String(text, &error, normalize);
    benchmark::DoNotOptimize(ok);
  }
}

void BM_RawUriparser(benchmark::State& state) {
  for (auto _ : state)
    RawUriparserPass();
  state.SetItemsProcessed(state.iterations() * Corpus().size());
}

void BM_BoostUrlParse(benchmark::State& state) {
  for (auto _ : state)
    BoostUrlPass();
  state.SetItemsProcessed(state.iterations() * Corpus().size());
}

void BM_UrlParse(benchmark::State& state) {
  qz::Url url;
  for (auto _ : state)
    UrlPass(url, false);
  state.SetItemsProcessed(state.iterations() * Corpus().size());
}

void BM_UrlParseNormalized(benchmark::State& state) {
  qz::Url url;
  for (auto _ : state)
    UrlPass(url, true);
  state.SetItemsProcessed(state.iterations() * Corpus().size());
}

void BM_UrlToEncodedUrl(benchmark::State& state) {
  const auto urls = ParsedCorpus();
  for (auto _ : state) {
    for (const qz::Url& url : urls) {
      std::string text = url.toEncodedUrl();
      benchmark::DoNotOptimize(text);
    }
  }
  state.SetItemsProcessed(state.iterations() * urls.size());
}

void BM_UrlToDisplayableUrl(benchmark::State& state) {
  const auto urls = ParsedCorpus();
  for (auto _ : state) {
    for (const qz::Url& url : urls) {
      std::string text = url.toDisplayableUrl();
      benchmark::DoNotOptimize(text);
    }
  }
  state.SetItemsProcessed(state.iterations() * urls.size());
}

// The reference for rendering builds a Boost URL from the same decoded fields that ours holds.
void BM_BoostUrlBuild(benchmark::State& state) {
  const auto urls = ParsedCorpus();
  for (auto _ : state) {
    for (const qz::Url& url : urls) {
      boost::urls::url u;
      u.set_scheme(url.scheme);
      if (!url.user.empty() && !url.password.empty()) {
        u.set_user(url.user);
        u.set_password(url.password);
      }
      u.set_encoded_host(url.host);
      if (url.port)
        u.set_port_number(url.port);
      for (const std::string& segment : url.pathSegments)
        u.segments().push_back(segment);
      for (const auto& [key, value] : url.queryParameters)
        u.params().append({key, value});
      std::string text(u.buffer());
      benchmark::DoNotOptimize(text);
    }
  }
  state.SetItemsProcessed(state.iterations() * urls.size());
}

BENCHMARK(BM_RawUriparser);
BENCHMARK(BM_BoostUrlParse);
BENCHMARK(BM_UrlParse);
BENCHMARK(BM_UrlParseNormalized);
BENCHMARK(BM_UrlToEncodedUrl);
BENCHMARK(BM_UrlToDisplayableUrl);
BENCHMARK(BM_BoostUrlBuild);

// Prints the usual table, then our CPU times (steadier than wall time on a shared machine) as ratios of the references
// measured in the same run.
class RatioReporter : public benchmark::ConsoleReporter {
public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs)
      if (run.run_type == Run::RT_Iteration || run.aggregate_name == "median")
        m_times[run.run_name.function_name] = run.GetAdjustedCPUTime();
    ConsoleReporter::ReportRuns(runs);
  }
  void Finalize() override {
    ConsoleReporter::Finalize();
    auto ratio = [&](const char* ours, const char* ref) {
      if (m_times.count(ours) && m_times.count(ref) && m_times[ref] > 0)
        std::printf("%-24s / %-18s = %.2fx\n", ours, ref, m_times[ours] / m_times[ref]);
    };
    std::printf("\nRatios (lower is better; corpus of %zu URLs)\n", Corpus().size());
    ratio("BM_UrlParse", "BM_RawUriparser");
    ratio("BM_UrlParseNormalized", "BM_RawUriparser");
    ratio("BM_UrlParse", "BM_BoostUrlParse");
    ratio("BM_UrlToEncodedUrl", "BM_RawUriparser");
    ratio("BM_UrlToEncodedUrl", "BM_BoostUrlBuild");
  }

private:
  std::map<std::string, double> m_times;
};

// Per-pass CPU time of the calling thread, in seconds.
double ThreadCpuSec() {
  timespec ts{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return double(ts.tv_sec) + double(ts.tv_nsec) / 1e9;
}

template <typename F> double PassSec(F&& parseAll) {
  const double t0 = ThreadCpuSec();
  parseAll();
  return ThreadCpuSec() - t0;
}

// The parse ratios measured pass against pass: each round times one pass of every parser over
// the corpus (in alternating order) and keeps the ratios of that round, so that a slow phase of
// a shared machine hits both sides of a ratio alike. Medians over the rounds.
void InterleavedRatios(int rounds) {
  qz::Url url;
  auto raw = [] { RawUriparserPass(); };
  auto boost = [] { BoostUrlPass(); };
  auto ours = [&](bool normalize) { return [&url, normalize] { UrlPass(url, normalize); }; };
  for (int warm = 0; warm < 3; ++warm)
    raw(), ours(false)(), ours(true)(), boost();
  std::vector<double> plain, normalized, vsBoost;
  for (int r = 0; r < rounds; ++r) {
    double tRaw = 0, tOurs = 0, tNorm = 0, tBoost = 0;
    if (r % 2 == 0) {
      tRaw = PassSec(raw), tOurs = PassSec(ours(false)), tNorm = PassSec(ours(true)), tBoost = PassSec(boost);
    } else {
      tBoost = PassSec(boost), tNorm = PassSec(ours(true)), tOurs = PassSec(ours(false)), tRaw = PassSec(raw);
    }
    plain.push_back(tOurs / tRaw);
    normalized.push_back(tNorm / tRaw);
    vsBoost.push_back(tOurs / tBoost);
  }
  auto median = [](std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
  };
  std::printf("Parse ratios, %d interleaved rounds over %zu URLs (median of per-round ratios)\n", rounds,
              Corpus().size());
  std::printf("  full parse / raw uriparser             = %.2fx (target <= 1.5)\n", median(plain));
  std::printf("  full parse, normalised / raw uriparser = %.2fx\n", median(normalized));
  std::printf("  full parse / Boost.URL parse_uri       = %.2fx\n\n", median(vsBoost));
  std::fflush(stdout);
}

} // namespace

int main(int argc, char** argv) {
  int rounds = 41;
  for (int i = 1; i < argc; ++i)
    if (std::strncmp(argv[i], "--rounds=", 9) == 0)
      rounds = std::max(1, std::atoi(argv[i] + 9));
  benchmark::Initialize(&argc, argv);
  InterleavedRatios(rounds);
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  return 0;
}
