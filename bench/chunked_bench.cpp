// 1 GiB written through the chunked encoder in 64 KiB writes into a null device, beside a plain
// memcpy of the same bytes. Reported: bytes per second of each; the ratio is what counts.
#include <HttpTools/http/qzIoDeviceHttpChuncked.h>

#include <benchmark/benchmark.h>

#include <cstring>
#include <vector>

namespace {

constexpr size_t kTotal = size_t(1) << 30;
constexpr size_t kBlock = 64 * 1024;

// A sink that touches every byte it gets, like memcpy does, so both sides move the data once.
class CopySink : public qz::qzIoDevice {
public:
  CopySink() : m_dst(kBlock + 64) {}
  int64_t writeBytes(const char* data, unsigned long length) override {
    while (length > 0) {
      const size_t n = length < m_dst.size() ? length : m_dst.size();
      std::memcpy(m_dst.data(), data, n);
      data += n;
      length -= n;
    }
    benchmark::DoNotOptimize(m_dst.data());
    return 0;
  }

private:
  std::vector<char> m_dst;
};

void BM_Memcpy(benchmark::State& state) {
  std::vector<char> src(kBlock, 'x'), dst(kBlock);
  for (auto _ : state) {
    for (size_t done = 0; done < kTotal; done += kBlock) {
      std::memcpy(dst.data(), src.data(), kBlock);
      benchmark::DoNotOptimize(dst.data());
      benchmark::ClobberMemory();
    }
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(kTotal));
}

void BM_Chunked(benchmark::State& state) {
  std::vector<char> src(kBlock, 'x');
  CopySink sink;
  qz::http::qzIoDeviceHttpChuncked dev(kBlock);
  for (auto _ : state) {
    dev.beginDelegation(&sink);
    for (size_t done = 0; done < kTotal; done += kBlock)
      dev.write(src.data(), kBlock);
    dev.endDelegation();
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(kTotal));
}

// Into the null device (the encoder's own cost on top of one buffer copy).
void BM_ChunkedIntoNull(benchmark::State& state) {
  std::vector<char> src(kBlock, 'x');
  qz::qzIoDeviceNull sink;
  qz::http::qzIoDeviceHttpChuncked dev(kBlock);
  for (auto _ : state) {
    dev.beginDelegation(&sink);
    for (size_t done = 0; done < kTotal; done += kBlock)
      dev.write(src.data(), kBlock);
    dev.endDelegation();
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(kTotal));
}

BENCHMARK(BM_Memcpy)->Unit(benchmark::kMillisecond)->MinTime(1.0);
BENCHMARK(BM_Chunked)->Unit(benchmark::kMillisecond)->MinTime(1.0);
BENCHMARK(BM_ChunkedIntoNull)->Unit(benchmark::kMillisecond)->MinTime(1.0);

} // namespace

BENCHMARK_MAIN();
