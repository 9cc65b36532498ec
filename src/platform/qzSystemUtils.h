#pragma once

#include <HttpTools/platform/Export.h>

#include <cstddef>
#include <cstdint>

namespace qz {

/// Clocks and random bytes. Thread-safe.
class HTTPTOOLS_API qzSystemUtils {
public:
  /// Monotonic clock, in milliseconds and in seconds.
  ///@{
  static int64_t GetTimeBaseMs();
  static int64_t GetTimeBaseSec();
  ///@}
  /// Wall clock: seconds since the Unix epoch.
  static int64_t GetSecElapsedSinceEpoch();
  /// Cryptographically strong random bytes; false if the generator failed (buf is then zeroed).
  static bool Rand(char* buf, size_t len);
};

} // namespace qz
