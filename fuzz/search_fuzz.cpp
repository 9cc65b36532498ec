// Search hit cutter on arbitrary bytes in arbitrary chunkings: never crashes, cuts the same items
// and keeps the same ids as when the text comes in one piece, each item is balanced text that
// starts with '{' and ends with '}', and the buffer never holds more than a partial item and a chunk.
#include <HttpTools/elasticsearch/ResponseItemCutter_p.h>
#include <HttpTools/platform/qzJson.h>

#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

struct Result {
  std::vector<std::string> items;
  std::string pit, scroll;
  int errors = -1;
  bool fed = true, complete = false;
  size_t maxBuffer = 0;
};

Result cut(const std::string& text, const std::string& outer, const std::string& inner, uint32_t seed, bool whole) {
  Result r;
  size_t converted = 0;
  qz::elasticsearch::ResponseItemCutter cutter(outer, inner, [&](const char* t, size_t n) {
    r.items.emplace_back(t, n);
    if (n < 2 || t[0] != '{' || t[n - 1] != '}')
      std::abort();
    qz::qzVariantMapImpl map; // the caller's next step: must not crash either
    converted += qz::json::Json2Variant::Convert(t, n, map);
    return true;
  });
  size_t at = 0;
  while (at < text.size() && r.fed) {
    seed = seed * 1103515245u + 12345u;
    const size_t n = whole ? text.size() : std::min<size_t>(text.size() - at, 1 + (seed >> 16) % 64);
    r.fed = cutter.feed(text.data() + at, n);
    at += n;
    r.maxBuffer = std::max(r.maxBuffer, cutter.bufferCapacity());
  }
  r.pit = cutter.pitId();
  r.scroll = cutter.scrollId();
  r.errors = cutter.errors();
  r.complete = cutter.complete();
  return r;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 3)
    return 0;
  // The first byte picks the answer kind, the next two the chunking; the rest is the answer.
  static const char* const kinds[][2] = {{"hits", "hits"}, {"docs", ""}, {"items", ""}};
  const auto& kind = kinds[data[0] % 3];
  const uint32_t seed = uint32_t(data[1]) << 8 | data[2];
  const std::string text(reinterpret_cast<const char*>(data) + 3, size - 3);

  const Result whole = cut(text, kind[0], kind[1], seed, true);
  const Result chunked = cut(text, kind[0], kind[1], seed, false);
  if (whole.fed != chunked.fed || whole.items != chunked.items || whole.pit != chunked.pit ||
      whole.scroll != chunked.scroll || whole.errors != chunked.errors || whole.complete != chunked.complete)
    std::abort();
  // One partial item plus one chunk (64 bytes at most here) and the string's own growth.
  size_t longest = 0;
  for (const auto& item : chunked.items)
    longest = std::max(longest, item.size());
  if (chunked.maxBuffer > 2 * (std::max(longest, text.size()) + 64) + 64)
    std::abort();
  return 0;
}
