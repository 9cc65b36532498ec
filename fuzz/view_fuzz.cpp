// View row cutter on arbitrary bytes in arbitrary chunkings: never crashes, keeps no more than it
// was given, and cuts the same rows as the byte-by-byte rule on the whole text.
#include <HttpTools/couch/ViewResultStreamParser_p.h>
#include <HttpTools/platform/qzLog.h>

#include "support/ViewReference.h"

#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

bool takeText(const char* text, size_t length, void* userData) {
  static_cast<std::vector<std::string>*>(userData)->emplace_back(text, length);
  return true;
}

bool takeRow(const std::string& id, qz::qzVariant& key, qz::qzVariant& value, void* userData) {
  auto* n = static_cast<size_t*>(userData);
  *n += id.size() + key.toString().size() + value.toString().size();
  return *n % 7 != 3; // sometimes refuse, to cover the stop path
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool quiet = [] {
    qz::qzLog::SetSink([](int, const std::string&, const std::string&) {});
    return true;
  }();
  (void)quiet;
  if (size < 2)
    return 0;
  // The first two bytes choose the chunking; the rest is the response.
  uint32_t seed = uint32_t(data[0]) << 8 | data[1];
  const std::string text(reinterpret_cast<const char*>(data) + 2, size - 2);
  auto nextChunk = [&seed] {
    seed = seed * 1103515245u + 12345u;
    return 1 + (seed >> 16) % 64;
  };

  const bool notCancelled = false;
  std::vector<std::string> rows;
  qz::couch::ViewResultStreamParser cutter(nullptr, nullptr, &notCancelled);
  cutter.setRowTextFunction(&takeText, &rows);
  size_t checksum = 0;
  qz::couch::ViewResultStreamParser parser(&takeRow, &checksum, &notCancelled);
  bool parsing = true;
  for (size_t at = 0; at < text.size();) {
    const size_t n = std::min<size_t>(nextChunk(), text.size() - at);
    if (!cutter.feed(text.data() + at, n))
      std::abort();
    if (parsing)
      parsing = parser.feed(text.data() + at, n);
    at += n;
    if (cutter.buffer().size() > at)
      std::abort();
  }
  if (rows != qztest::ReferenceCutViewRows(text))
    std::abort();
  return 0;
}
