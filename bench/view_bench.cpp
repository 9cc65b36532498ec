// View responses: the streaming row parser beside reading the whole body into a RapidJSON DOM
// and walking its rows into variants, on the same synthetic response in 16 KiB chunks.
#include <HttpTools/couch/ViewResultStreamParser_p.h>

#include "DomReference.h"

#include <benchmark/benchmark.h>
#include <rapidjson/document.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>

using qz::qzVariant;
using qz::couch::ViewResultStreamParser;

namespace {

constexpr size_t kChunk = 16 * 1024;

// A CouchDB-layout response of about `bytes` bytes with rows such as an application's view emits.
const std::string& response() {
  static const std::string text = [] {
    size_t bytes = 100u << 20;
    if (const char* mb = std::getenv("VIEW_BENCH_MB"))
      bytes = size_t(std::strtoul(mb, nullptr, 10)) << 20;
    std::string s = "{\"total_rows\":0,\"offset\":0,\"rows\":[\r\n";
    s.reserve(bytes + 1024);
    char row[512];
    for (unsigned i = 0; s.size() < bytes; ++i) {
      const int n = std::snprintf(row, sizeof row,
                                  "%s{\"id\":\"order-%08u\",\"key\":[\"customer-%u\",\"2022-07-%02uT12:%02u:00Z\"],"
                                  "\"value\":{\"_rev\":\"3-%08x%08x\",\"amount\":%u.%02u,\"status\":\"%s\","
                                  "\"tags\":[\"web\",\"priority-%u\"],\"note\":\"ship to \\\"dock %u\\\" {gate [B]}\","
                                  "\"lines\":[{\"sku\":\"A-%u\",\"qty\":%u},{\"sku\":\"B-%u\",\"qty\":1}]}}",
                                  i ? ",\r\n" : "", i, i % 977, 1 + i % 28, i % 60, i * 2654435761u, i, i % 10000,
                                  i % 100, i % 3 ? "paid" : "open", i % 5, i % 40, i % 313, 1 + i % 9, i % 71);
      s.append(row, size_t(n));
    }
    s += "\r\n]}\n";
    return s;
  }();
  return text;
}

struct Sink {
  int64_t rows = 0;
  int64_t weight = 0;
};

bool countRow(const std::string& id, qzVariant& key, qzVariant& value, void* userData) {
  auto* sink = static_cast<Sink*>(userData);
  ++sink->rows;
  sink->weight += int64_t(id.size()) + int64_t(key.toList().size()) + int64_t(value.toMap().size());
  return true;
}

void report(benchmark::State& state, int64_t rows, size_t peakBytes) {
  const double bytes = double(response().size()) * double(state.iterations());
  state.SetBytesProcessed(int64_t(bytes));
  state.counters["rows/s"] = benchmark::Counter(double(rows), benchmark::Counter::kIsRate);
  state.counters["peak_buffer_MB"] = double(peakBytes) / (1 << 20);
}

void BM_StreamingRows(benchmark::State& state) {
  const std::string& text = response();
  const bool notCancelled = false;
  int64_t rows = 0;
  size_t peak = 0;
  for (auto _ : state) {
    Sink sink;
    ViewResultStreamParser parser(&countRow, &sink, &notCancelled);
    for (size_t at = 0; at < text.size(); at += kChunk) {
      if (!parser.feed(text.data() + at, std::min(kChunk, text.size() - at)))
        state.SkipWithError("parser refused the response");
      peak = std::max(peak, parser.buffer().capacity());
    }
    benchmark::DoNotOptimize(sink.weight);
    rows += sink.rows;
  }
  report(state, rows, peak);
}

// Reference: collect the whole body as a write function would, parse it, then walk the rows.
void BM_WholeBodyDom(benchmark::State& state) {
  const std::string& text = response();
  int64_t rows = 0;
  size_t peak = 0;
  for (auto _ : state) {
    std::string body;
    for (size_t at = 0; at < text.size(); at += kChunk)
      body.append(text.data() + at, std::min(kChunk, text.size() - at));
    rapidjson::Document doc;
    doc.Parse(body.data(), body.size());
    if (doc.HasParseError() || !doc.IsObject() || !doc.HasMember("rows")) {
      state.SkipWithError("reference parse failed");
      break;
    }
    Sink sink;
    for (const auto& row : doc["rows"].GetArray()) {
      qzVariant key = bench::ToVariant(row["key"]);
      qzVariant value = bench::ToVariant(row["value"]);
      countRow(bench::ToVariant(row["id"]).toString(), key, value, &sink);
    }
    peak = std::max(peak, body.capacity() + doc.GetAllocator().Capacity());
    benchmark::DoNotOptimize(sink.weight);
    rows += sink.rows;
  }
  report(state, rows, peak);
}

// The cutter alone: rows are found and the buffer compacted, but not converted.
void BM_CutterOnly(benchmark::State& state) {
  const std::string& text = response();
  const bool notCancelled = false;
  int64_t rows = 0;
  size_t peak = 0;
  for (auto _ : state) {
    int64_t found = 0;
    ViewResultStreamParser parser(nullptr, nullptr, &notCancelled);
    parser.setRowTextFunction(
        [](const char*, size_t, void* n) {
          ++*static_cast<int64_t*>(n);
          return true;
        },
        &found);
    for (size_t at = 0; at < text.size(); at += kChunk) {
      parser.feed(text.data() + at, std::min(kChunk, text.size() - at));
      peak = std::max(peak, parser.buffer().capacity());
    }
    rows += found;
  }
  report(state, rows, peak);
}

BENCHMARK(BM_StreamingRows)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_WholeBodyDom)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_CutterOnly)->Unit(benchmark::kMillisecond);

// Prints the streaming/DOM ratio after the table.
class RatioReporter : public benchmark::ConsoleReporter {
public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const auto& r : runs)
      if (!r.error_occurred && r.iterations > 0)
        m_rate[r.benchmark_name().substr(0, r.benchmark_name().find('/'))] =
            double(response().size()) / (r.cpu_accumulated_time / double(r.iterations));
    ConsoleReporter::ReportRuns(runs);
  }
  void Finalize() override {
    ConsoleReporter::Finalize();
    const double s = m_rate["BM_StreamingRows"], d = m_rate["BM_WholeBodyDom"];
    const double c = m_rate["BM_CutterOnly"];
    std::printf("response %.1f MB in %zu-byte chunks\n", double(response().size()) / 1e6, kChunk);
    std::printf("streaming %.0f MB/s, whole-body DOM %.0f MB/s, ratio streaming/DOM %.2f; cutter alone %.0f MB/s\n",
                s / 1e6, d / 1e6, d > 0 ? s / d : 0.0, c / 1e6);
  }

private:
  std::map<std::string, double> m_rate;
};

} // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  response();
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  return 0;
}
