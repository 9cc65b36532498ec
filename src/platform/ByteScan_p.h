#pragma once

// Finds the bytes of a small fixed set in a text, sixteen at a time where SSE2 is there (always
// on x86-64). Shared by the scanners that skip long runs of uninteresting bytes.

#include <cstdint>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace qz::impl {

template <char... Bytes> struct ByteSet {
  static constexpr bool contains(char c) { return ((c == Bytes) || ...); }

  // Bit i set when byte i of the 16 at p is in the set.
  static uint32_t mask16(const char* p) {
#if defined(__SSE2__)
    const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
    __m128i hit = _mm_setzero_si128();
    ((hit = _mm_or_si128(hit, _mm_cmpeq_epi8(v, _mm_set1_epi8(Bytes)))), ...);
    return uint32_t(_mm_movemask_epi8(hit));
#else
    uint32_t mask = 0;
    for (int i = 0; i < 16; ++i)
      if (contains(p[i]))
        mask |= uint32_t(1) << i;
    return mask;
#endif
  }

  // Bit i set when byte i of the 64 at p is in the set.
  static uint64_t mask64(const char* p) {
    return uint64_t(mask16(p)) | uint64_t(mask16(p + 16)) << 16 | uint64_t(mask16(p + 32)) << 32 |
           uint64_t(mask16(p + 48)) << 48;
  }

  // The first byte in [p, last) that is in the set, or last.
  static const char* find(const char* p, const char* last) {
    while (last - p >= 16) {
      if (const uint32_t mask = mask16(p))
        return p + __builtin_ctz(mask);
      p += 16;
    }
    while (p < last && !contains(*p))
      ++p;
    return p;
  }
};

} // namespace qz::impl
