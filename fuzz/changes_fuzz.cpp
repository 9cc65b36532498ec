// Change-feed parser on arbitrary bytes in arbitrary chunkings: never crashes, and a random
// chunking delivers the same changes, last_seq and verdict as the whole text in one piece.
#include <HttpTools/couch/ChangesFeedParser_p.h>

#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

struct Outcome {
  std::vector<std::string> changes;
  std::string lastSeq;
  bool ok = true;
  bool operator==(const Outcome&) const = default;
};

Outcome Parse(const std::string& text, uint32_t seed) {
  Outcome out;
  qz::couch::ChangesFeedParser parser(
      [&](qz::couch::Change& c) {
        std::string e = c.seq + '\x1f' + c.id + '\x1f' + (c.deleted ? "d" : "") + c.doc.toString();
        for (const auto& r : c.revs)
          e += '\x1f' + r;
        out.changes.push_back(e);
        return c.id != "stop";
      },
      [&](const std::string& seq) { out.lastSeq = seq; });
  for (size_t at = 0; at < text.size();) {
    size_t n = text.size() - at;
    if (seed != 0) {
      seed = seed * 1103515245u + 12345u;
      n = std::min<size_t>(n, 1 + (seed >> 16) % 64);
    }
    if (!parser.feed(text.data() + at, n)) {
      out.ok = false;
      break;
    }
    at += n;
  }
  return out;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2)
    return 0;
  // The first two bytes choose the chunking; the rest is the feed.
  const uint32_t seed = (uint32_t(data[0]) << 8 | data[1]) + 1;
  const std::string text(reinterpret_cast<const char*>(data) + 2, size - 2);
  if (!(Parse(text, seed) == Parse(text, 0)))
    std::abort();
  return 0;
}
