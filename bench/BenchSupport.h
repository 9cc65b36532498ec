#pragma once
// What the benchmark programs share: clocks, medians of interleaved rounds, and their own
// command-line options beside Google Benchmark's.

#include <HttpTools/frame/HttpToolsLib.h>

#include <benchmark/benchmark.h>

#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace bench {

inline double Now() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

// CPU seconds (user + system) of this process.
inline double SelfCpuSec() {
  rusage ru{};
  getrusage(RUSAGE_SELF, &ru);
  return double(ru.ru_utime.tv_sec + ru.ru_stime.tv_sec) + double(ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) / 1e6;
}

inline double Median(std::vector<double> v) {
  if (v.empty())
    return 0;
  std::sort(v.begin(), v.end());
  return v.size() % 2 ? v[v.size() / 2] : (v[v.size() / 2 - 1] + v[v.size() / 2]) / 2;
}

// A program's own options ("--docs=N") are taken out of argv; what is left goes to Google
// Benchmark. A quick run (--benchmark_min_time under 0.1 s, as CI runs every program once) uses
// the small sizes, unless the size is given.
class Args {
public:
  Args(int argc, char** argv) : m_rest(argv, argv + argc) {
    for (char* a : m_rest)
      if (std::strncmp(a, "--benchmark_min_time=", 21) == 0 && std::atof(a + 21) < 0.1)
        m_quick = true;
  }

  bool quick() const { return m_quick; }

  // The text after "--name=", removed from argv; null when absent.
  const char* take(const char* prefix) {
    const size_t n = std::strlen(prefix);
    for (auto it = m_rest.begin(); it != m_rest.end(); ++it)
      if (std::strncmp(*it, prefix, n) == 0) {
        const char* value = *it + n;
        m_rest.erase(it);
        return value;
      }
    return nullptr;
  }

  // "--name=N", at least `min`; otherwise `quickValue` in a quick run and `fallback` in a full one.
  int takeInt(const char* prefix, int fallback, int min, int quickValue) {
    if (const char* value = take(prefix))
      return std::max(min, std::atoi(value));
    return m_quick ? quickValue : fallback;
  }

  bool takeSwitch(const char* name) {
    for (auto it = m_rest.begin(); it != m_rest.end(); ++it)
      if (std::strcmp(*it, name) == 0) {
        m_rest.erase(it);
        return true;
      }
    return false;
  }

  // Hands what is left to Google Benchmark.
  void initializeBenchmark() {
    int count = int(m_rest.size());
    benchmark::Initialize(&count, m_rest.data());
  }

private:
  std::vector<char*> m_rest;
  bool m_quick = false;
};

// The library started around the comparison (its table on standard output) and then Google
// Benchmark's own cases; 1 when the comparison failed.
template <class Comparison> int RunWithLibrary(Comparison comparison) {
  qz::initializeHttpTools(true, qz::http::HNRP_Whatever, qz::http::PP_NoProxy);
  const int rc = comparison() ? 0 : 1;
  if (rc == 0) {
    std::fflush(stdout);
    benchmark::RunSpecifiedBenchmarks();
  }
  benchmark::Shutdown();
  qz::terminateHttpTools();
  return rc;
}

} // namespace bench
